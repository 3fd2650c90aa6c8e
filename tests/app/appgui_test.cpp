// SPDX-License-Identifier: Apache-2.0
// The desktop controller on scripted cameras, with its window, in a sandbox of its own.
#include "app/AppGUI.h"

#include <unistd.h>
#include <QApplication>
#include <QComboBox>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QSignalBlocker>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTest>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/sandbox/sandbox.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/messagelog.h"
#include "tests/ui/messageboxes.h"
#include "tests/ui/metaobjects.h"
#include "ui/mainwindow.h"

Q_DECLARE_METATYPE(QMessageBox::StandardButton)

namespace {

constexpr int kLeft = 30123456;
constexpr int kRight = 30123457;
constexpr int kThird = 30123458;
constexpr int kVirtual = 101234567;

const QString kConfig = QStringLiteral("/usr/local/kor/settings/virtual_tsolo_config.json");
const QString kStop = QStringLiteral("sudo systemctl stop kor_vistrel_cli.service");
const QString kRestartDaemon = QStringLiteral("sudo systemctl restart nvargus-daemon.service");
const QString kQuery = QStringLiteral("systemctl is-enabled kor_vistrel_cli.service");
const QString kEnumerate = QStringLiteral("ArgusCamera.getGMSLDevices(true, false)");

void addCamera(int id, int serial, tq::MODEL model = sdk::kSoloGs)
{
    sdkfake::CameraSetup setup;
    setup.id = id;
    setup.serial = serial;
    setup.model = model;
    sdkfake::addCamera(setup);
}

void addTwoCameras()
{
    addCamera(0, kLeft);
    addCamera(1, kRight);
}

// From the next enumeration on the camera is in use by someone else.
void detach(int id, int serial)
{
    sdkfake::CameraSetup setup;
    setup.id = id;
    setup.serial = serial;
    setup.state = tq::DeviceState::NOT_AVAILABLE;
    sdkfake::changeCamera(setup);
}

// From the next enumeration on the camera is there.
void attach(int id, int serial)
{
    sdkfake::CameraSetup setup;
    setup.id = id;
    setup.serial = serial;
    sdkfake::changeCamera(setup);
}

// Does something once when a message comes that begins with a text.
class MessageActions {
public:
    MessageActions(QString prefix, std::function<void()> function)
    {
        awaited() = std::move(prefix);
        action() = std::move(function);
        former() = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext& context, const QString& text) {
                if (action() && text.startsWith(awaited())) {
                    std::exchange(action(), nullptr)();
                }
                former()(type, context, text);
            });
    }
    ~MessageActions() { qInstallMessageHandler(former()); }
    MessageActions(const MessageActions&) = delete;
    MessageActions& operator=(const MessageActions&) = delete;

private:
    static QString& awaited()
    {
        static QString text;
        return text;
    }
    static std::function<void()>& action()
    {
        static std::function<void()> function;
        return function;
    }
    static QtMessageHandler& former()
    {
        static QtMessageHandler handler;
        return handler;
    }
};

QByteArray member(int virtualSerial, int left, int right, const QByteArray& size, int port = 34000)
{
    return '"' + QByteArray::number(virtualSerial) + "\":{\"Left\":" + QByteArray::number(left) +
           ",\"Right\":" + QByteArray::number(right) + ",\"Port\":" + QByteArray::number(port) +
           ",\"IMU\":true," + size + '}';
}

const QByteArray kSmall = "\"Width\":960,\"Height\":600,\"FPS\":60,\"HDR\":0";

QByteArray written()
{
    return sandbox::readFile(kConfig);
}

// The controller, and what a user sees of it.
class Desktop {
public:
    Desktop()
    {
        const QWidgetList widgets = QApplication::topLevelWidgets();
        for (QWidget* const widget : widgets) {
            if (auto* const candidate = qobject_cast<MainWindow*>(widget)) {
                window = candidate;
            }
        }
    }

    template <typename Widget>
    Widget* part(const char* name) const
    {
        return window->findChild<Widget*>(QLatin1String(name));
    }
    QList<VirtualCamHandler*> rows() const
    {
        QList<VirtualCamHandler*> rows;
        const QLayout* const layout = part<QLayout>("scrollAreaWidgetContentsVerticalLayout");
        for (int i = 0; i < layout->count(); ++i) {
            if (auto* const row = qobject_cast<VirtualCamHandler*>(layout->itemAt(i)->widget())) {
                rows.append(row);
            }
        }
        return rows;
    }
    QPushButton* streamButton(int row = 0) const
    {
        return rows().at(row)->findChild<QPushButton*>(QStringLiteral("TestButton"));
    }
    QComboBox* choice(int row, const char* name) const
    {
        return rows().at(row)->findChild<QComboBox*>(QLatin1String(name));
    }
    VirtualCamHandler* addRow(int serial, int left, int right)
    {
        part<QPushButton>("addVCamButton")->click();
        VirtualCamHandler* const row = rows().last();
        row->setVirtualSN(static_cast<unsigned int>(serial));
        row->setSerial(0, static_cast<unsigned int>(left));
        row->setSerial(1, static_cast<unsigned int>(right));
        return row;
    }
    QStringList panels() const
    {
        QStringList serials;
        const QLayout* const layout = part<QLayout>("scrollAreaWidgetContentsHorizontalLayout");
        for (int i = 0; i < layout->count(); ++i) {
            const auto* const panel = qobject_cast<CameraWidget*>(layout->itemAt(i)->widget());
            serials << QString::number(panel->getInfos().serial_number);
        }
        return serials;
    }

    AppGui controller;
    MainWindow* window = nullptr;
    QSignalSpy streams{&controller, &AppGui::StreamEnabled};
};

// Notes what the window said that it waits for, as far as it reached the screen.
class WaitTexts : public QObject {
public:
    WaitTexts() { qApp->installEventFilter(this); }
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Show && watched->inherits("MainWindow")) {
            sinceShown.start();
        }
        if (event->type() == QEvent::Expose && exposeMs < 0 && sinceShown.isValid()) {
            exposeMs = sinceShown.elapsed();
        }
        if (event->type() == QEvent::Paint && watched->objectName() == QLatin1String("footLine")) {
            const QString text = static_cast<QLabel*>(watched)->text();
            if (!text.isEmpty() && (texts.isEmpty() || texts.last() != text)) {
                texts.append(text);
                cursors.append(QApplication::overrideCursor() != nullptr);
            }
        }
        return false;
    }
    QStringList texts;
    QList<bool> cursors;
    qint64 exposeMs = -1;  // from the window's show until it is on the screen

private:
    QElapsedTimer sinceShown;
};

}  // namespace

class AppGuiTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void signalsAndSlotsInOrder();
    void startAndEnd();
    void startAndEndWithTheServiceEnabled();
    void daemonGetsTimeToComeUp();
    void serviceGetsTimeToComeUp();
    void waitsAreShown();
    void waitIsShownBeforeACameraIsTouched();
    void settingsOfTheLastRun();
    void settingsOfTheConfiguration();
    void settingsThatTheListsCannotShow();
    void noCamera();
    void settingsSurviveARunWithoutCameras();
    void mixedModels();
    void camerasThatDoNotCount();
    void loadedRows();
    void serialThatTheCameraTells();
    void reloadKeepsChoices();
    void choicesComeBackWithALaterReload();
    void anotherChoiceIsNotUndoneByAReload();
    void absentCamerasAreSaved();
    void absentLeftCameraKeepsItsImu();
    void reloadKeepsFedStreams();
    void reloadThatChangesSettingsStopsStreams();

    void streamingAPair();
    void enablingARunningStreamStopsIt();
    void serialsThatDoNothing();
    void footLineSaysWhatIsMissing();
    void footLineSaysThatSizesDiffer();
    void sameCameraTwice();
    void senderThatDoesNotOpen();
    void lateReportOfAStoppedStream();
    void removingTheRowStopsItsStream();
    void removingOneOfTwoEqualRowsStopsNothing();
    void renumberedStreamGivesItsPortBack();
    void changedPairStopsItsStream();

    void changingTheResolution();
    void changingTheResolutionStopsStreamsWithoutARow();
    void changingThePairsResolution();
    void cameraThatDoesNotReopen();
    void savingWithACameraThatDidNotReopen();

    void saving();
    void savingStoresTheSettings_data();
    void savingStoresTheSettings();
    void savingTwoRowsWithOneSerial();
    void savingNothing_data();
    void savingNothing();
    void savingWithoutAFolder();

    // Comes last: the worker of the camera that failed lives for ever.
    void cameraThatDoesNotOpen();

private:
    // Calls to the SDK and external commands, in their order.
    QStringList record() const
    {
        return QString::fromLocal8Bit(sandbox::readFile(recordFile()))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    void clearRecord() const { QFile::resize(recordFile(), 0); }
    QString recordFile() const { return directory->filePath(QStringLiteral("record")); }

    std::unique_ptr<QTemporaryDir> directory;
    std::unique_ptr<sandbox::StandIns> standIns;
    std::FILE* mirror = nullptr;
};

void AppGuiTest::initTestCase()
{
    sdk::registerMetaTypes();
}

void AppGuiTest::init()
{
    directory = std::make_unique<QTemporaryDir>();
    standIns = std::make_unique<sandbox::StandIns>();
    const QByteArray note = "echo \"$name $*\" >>'" + recordFile().toLocal8Bit() + "'\n";
    standIns->script("sudo", note);
    standIns->script("systemctl", note);
    standIns->answer("systemctl", "disabled\n", "", 1);
    standIns->install();
    mirror = std::fopen(recordFile().toLocal8Bit().constData(), "a");
    sdkfake::reset();
    sdkfake::mirrorCalls(mirror);
    QFile::remove(kConfig);
    QSettings(QStringLiteral("Vellmark"), QStringLiteral("Vistrel")).clear();
}

void AppGuiTest::cleanup()
{
    QCOMPARE(QStringList(), [] {
        QStringList misuses;
        for (const std::string& misuse : sdkfake::misuses()) {
            misuses << QString::fromStdString(misuse);
        }
        return misuses;
    }());
    sdkfake::mirrorCalls(nullptr);
    std::fclose(mirror);
    standIns.reset();
    directory.reset();
}

void AppGuiTest::signalsAndSlotsInOrder()
{
    const QMetaObject& type = AppGui::staticMetaObject;
    QCOMPARE(ownMethods(type, QMetaMethod::Signal), QStringList{"StreamEnabled(int,bool)"});
    QCOMPARE(ownMethods(type, QMetaMethod::Slot),
             (QStringList{"applyVirtualStreamerConfiguration()", "triggerStream(int,bool)",
                          "onResolutionChanged(QList<int>,int,int,int,bool)", "reloadCameras()"}));
}

// ---- Start, end, scan --------------------------------------------------------------------------

void AppGuiTest::startAndEnd()
{
    addTwoCameras();
    const MessageLog log;
    {
        const Desktop desktop;
        QVERIFY(desktop.window->isVisible());
        QCOMPARE(
            record(),
            (QStringList{
                kQuery, kStop, kRestartDaemon, kEnumerate,
                "LiveCameraGrabber#1.LiveCameraGrabber(4)",
                "LiveCameraGrabber#1.setMonoCapture(true)", "LiveCameraGrabber#1.setInputType(3)",
                "LiveCameraGrabber#1.setUp(0, 1920, 1200, 30, 2, false, 2, false, "
                "false) = 0",
                "LiveCameraGrabber#2.LiveCameraGrabber(4)",
                "LiveCameraGrabber#2.setMonoCapture(true)", "LiveCameraGrabber#2.setInputType(3)",
                "LiveCameraGrabber#2.setUp(1, 1920, 1200, 30, 2, false, 2, false, "
                "false) = 0"}));
        QCOMPARE(desktop.panels(), (QStringList{"30123456", "30123457"}));
        QVERIFY(!desktop.part<QLabel>("noCameraLabel")->isVisible());
        QCOMPARE(desktop.rows().size(), 0);
        clearRecord();
    }
    QCOMPARE(
        record(),
        (QStringList{"LiveCameraGrabber#1.close(true)", "LiveCameraGrabber#1.~LiveCameraGrabber()",
                     "LiveCameraGrabber#2.close(true)", "LiveCameraGrabber#2.~LiveCameraGrabber()",
                     "ArgusCamera.deleteProviderInstance()", kQuery}));
    const QStringList expected{"[KORVistrel] Found :  2  available cameras",
                               "[KORVistrel] Changing the resolution of the camera   to  0  x  0",
                               "[KORVistrel] Opening camera  0  at Resolution  1920 x 1200 @ 30",
                               "[KORVistrel] Opening camera  1  at Resolution  1920 x 1200 @ 30"};
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel]")), expected);
    QCOMPARE(log.debugMessages(QStringLiteral("[WARNING]")),
             QStringList{"[WARNING]  kor_vistrel_cli.service  is not enabled. Call `sudo systemctl "
                         "restart  kor_vistrel_cli.service ` to activate it"});
}

void AppGuiTest::startAndEndWithTheServiceEnabled()
{
    addTwoCameras();
    standIns->answer("systemctl", "enabled\n");
    const MessageLog log;
    {
        Desktop desktop;
        desktop.addRow(kVirtual, kLeft, kRight);
        desktop.streamButton()->click();
        clearRecord();
    }
    // Cameras before streams, then the enumeration, and only then the service.
    QCOMPARE(
        record(),
        (QStringList{"LiveCameraGrabber#1.close(true)", "LiveCameraGrabber#1.~LiveCameraGrabber()",
                     "LiveCameraGrabber#2.close(true)", "LiveCameraGrabber#2.~LiveCameraGrabber()",
                     "UDPOutput#1.close()", "UDPOutput#1.~UDPOutput()",
                     "ArgusCamera.deleteProviderInstance()", kQuery,
                     "sudo systemctl restart kor_vistrel_cli.service"}));
    const QStringList messages = log.debugMessages(QStringLiteral("[KORVistrel]"));
    QCOMPARE(messages.mid(messages.size() - 2),
             (QStringList{"[KORVistrel] Restarting Vistrel", "[KORVistrel] Activate CLI mode"}));
    QCOMPARE(log.debugMessages(QStringLiteral("[WARNING]")), QStringList());
}

// The time between the end of the daemon's restart and the enumeration.
void AppGuiTest::daemonGetsTimeToComeUp()
{
    addTwoCameras();
    const QString ended = directory->filePath(QStringLiteral("ended"));
    standIns->script("sudo", "date +%s%3N >'" + ended.toLocal8Bit() + "'\n");
    qint64 found = 0;
    const QString message = QStringLiteral("[KORVistrel] Found");
    const auto note = [&found] { found = QDateTime::currentMSecsSinceEpoch(); };
    const auto pauseMs = [&] { return found - sandbox::readFile(ended).trimmed().toLongLong(); };
    auto actions = std::make_unique<MessageActions>(message, note);
    const Desktop desktop;
    QVERIFY(found > 0);
    QVERIFY(pauseMs() >= 1000);
    found = 0;
    actions.reset();
    actions = std::make_unique<MessageActions>(message, note);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QVERIFY(found > 0);
    QVERIFY(pauseMs() >= 1000);
}

// The time between the release of the cameras and the restart of the service.
void AppGuiTest::serviceGetsTimeToComeUp()
{
    addTwoCameras();
    standIns->answer("systemctl", "enabled\n");
    const QString begun = directory->filePath(QStringLiteral("begun"));
    standIns->script("sudo", "date +%s%3N >'" + begun.toLocal8Bit() + "'\n");
    qint64 released = 0;
    const MessageActions actions(QStringLiteral("[KORVistrel] Restarting Vistrel"),
                                 [&released] { released = QDateTime::currentMSecsSinceEpoch(); });
    {
        const Desktop desktop;
    }
    QVERIFY(released > 0);
    QVERIFY(sandbox::readFile(begun).trimmed().toLongLong() - released >= 500);
}

void AppGuiTest::waitsAreShown()
{
    addTwoCameras();
    WaitTexts waits;
    const Desktop desktop;
    QStringList expected{"Stopping the background service...", "Restarting the camera daemon...",
                         "Opening the cameras..."};
    // The program does not wait for a screen that takes too long, and nobody sees the first wait.
    if (waits.exposeMs > 250 && waits.texts.size() < expected.size()) {
        expected.removeFirst();
    }
    QCOMPARE(waits.texts, expected);
    QCOMPARE(waits.cursors.count(true), expected.size());
    QCOMPARE(waits.cursors.count(false), 0);
    waits.texts.clear();
    waits.cursors.clear();
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    QCOMPARE(waits.texts, QStringList{"Opening the cameras..."});
    QCOMPARE(waits.cursors, QList<bool>{true});
    waits.texts.clear();
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(waits.texts,
             (QStringList{"Restarting the camera daemon...", "Opening the cameras..."}));
    QVERIFY(QApplication::overrideCursor() == nullptr);
    QCOMPARE(desktop.part<QLabel>("footLine")->text(), QString());
}

// What is waited for is on the screen before the first camera is touched.
void AppGuiTest::waitIsShownBeforeACameraIsTouched()
{
    addTwoCameras();
    const WaitTexts waits;
    QStringList shownBefore;
    const auto note = [&] { shownBefore << (waits.texts.isEmpty() ? "" : waits.texts.last()); };
    const MessageActions opening(QStringLiteral("[KORVistrel] Opening"), note);
    const Desktop desktop;
    QCOMPARE(shownBefore, QStringList{"Opening the cameras..."});
}

void AppGuiTest::settingsOfTheLastRun()
{
    addCamera(0, 31000001, sdk::kSoloUhd);
    {
        const Desktop desktop;
        // The list's first item: nothing was stored but the default rate.
        QVERIFY(
            record().contains("LiveCameraGrabber#1.setUp(0, 1920, 1080, 30, 2, false, 2, "
                              "false, false) = 0"));
        desktop.part<QComboBox>("ResolutionComboBox")->setCurrentIndex(5);  // 3200 x 1800 HDR
    }
    const QSettings store(QStringLiteral("Vellmark"), QStringLiteral("Vistrel"));
    QCOMPARE(store.value("input/width").toInt(), 3200);
    QCOMPARE(store.value("input/height").toInt(), 1800);
    QCOMPARE(store.value("input/fps").toInt(), 15);
    QCOMPARE(store.value("input/hdr_mode").toInt(), 1);
    QVERIFY(!QFile::exists(kConfig));
    clearRecord();
    const Desktop desktop;
    QVERIFY(record().contains(
        "LiveCameraGrabber#2.setUp(0, 3200, 1800, 15, 2, false, 2, false, true) = 0"));
}

void AppGuiTest::settingsOfTheConfiguration()
{
    addTwoCameras();
    sandbox::writeFile(
        kConfig,
        '{' + member(1, kLeft, kRight, "\"Width\":1920,\"Height\":1080,\"FPS\":15,\"HDR\":0") +
            ',' + member(2, kLeft, kRight, kSmall) + ',' +
            member(3, kLeft, kRight, "\"Width\":0,\"Height\":600,\"FPS\":30") + "}\n");
    const Desktop desktop;
    // The last record with a size.
    QVERIFY(record().contains(
        "LiveCameraGrabber#1.setUp(0, 960, 600, 60, 2, false, 2, false, false) = 0"));
    QCOMPARE(desktop.part<QComboBox>("ResolutionComboBox")->currentText(),
             QStringLiteral("960 x 600"));
    QCOMPARE(desktop.part<QComboBox>("FPSComboBox")->currentText(), QStringLiteral("60 frames/s"));
}

void AppGuiTest::settingsThatTheListsCannotShow()
{
    addCamera(0, 31000001, sdk::kSoloUhd);
    addCamera(1, 31000002, sdk::kSoloUhd);
    sandbox::writeFile(kConfig, '{' +
                                    member(kVirtual, 31000001, 31000002,
                                           "\"Width\":1920,\"Height\":1200,\"FPS\":30,\"HDR\":1") +
                                    "}\n");
    {
        const Desktop desktop;
        // 30 is the third of three rates before the size is selected, and there is one afterwards.
        QCOMPARE(desktop.part<QComboBox>("FPSComboBox")->currentIndex(), -1);
        QCOMPARE(
            record().filter("setUp"),
            (QStringList{
                "LiveCameraGrabber#1.setUp(0, 1920, 1200, 30, 2, false, 2, false, true) = 0",
                "LiveCameraGrabber#2.setUp(1, 1920, 1200, 30, 2, false, 2, false, true) = 0"}));
        clearRecord();
        emit desktop.window->resolutionChanged({31000001}, 1920, 1200, true);
        QVERIFY(record().contains(
            "LiveCameraGrabber#1.setUp(0, 1920, 1200, 30, 2, false, 2, false, true) = 0"));
    }
    const QSettings store(QStringLiteral("Vellmark"), QStringLiteral("Vistrel"));
    QCOMPARE(store.value("input/width").toInt(), 1920);
    QCOMPARE(store.value("input/height").toInt(), 1200);
    QCOMPARE(store.value("input/fps").toInt(), 30);
    QCOMPARE(store.value("input/hdr_mode").toInt(), 1);
}

void AppGuiTest::noCamera()
{
    const MessageLog log;
    const Desktop desktop;
    QVERIFY(desktop.part<QLabel>("noCameraLabel")->isVisible());
    for (const char* const name : {"ApplyButton", "addVCamButton", "ApplyResFPSButton",
                                   "ResolutionComboBox", "FPSComboBox"}) {
        QVERIFY2(!desktop.part<QWidget>(name)->isVisible(), name);
    }
    QCOMPARE(desktop.part<QComboBox>("ResolutionComboBox")->count(), 0);
    QCOMPARE(desktop.part<QComboBox>("FPSComboBox")->count(), 0);
    QCOMPARE(desktop.panels(), QStringList());
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Found")),
             QStringList{"[KORVistrel] Found :  0  available cameras"});
    QCOMPARE(record().last(), kEnumerate);
}

void AppGuiTest::settingsSurviveARunWithoutCameras()
{
    {
        QSettings store(QStringLiteral("Vellmark"), QStringLiteral("Vistrel"));
        store.setValue("input/width", 3200);
        store.setValue("input/height", 1800);
        store.setValue("input/fps", 15);
        store.setValue("input/hdr_mode", 1);
    }
    {
        const Desktop desktop;
    }
    const QSettings store(QStringLiteral("Vellmark"), QStringLiteral("Vistrel"));
    QCOMPARE(store.value("input/width").toInt(), 3200);
    QCOMPARE(store.value("input/height").toInt(), 1800);
    QCOMPARE(store.value("input/fps").toInt(), 15);
    QCOMPARE(store.value("input/hdr_mode").toInt(), 1);
}

void AppGuiTest::mixedModels()
{
    addCamera(0, kLeft);
    addCamera(1, 31000001, sdk::kSoloUhd);
    addCamera(2, 31000002, sdk::kSoloUhd);
    const QString text = QStringLiteral(
        "Incompatible camera model: KOR T Solo UHD instead of KOR T Solo GS. You cannot use "
        "different models at the same time with this version.");
    MessageBoxes boxes;
    boxes.onBox([] { std::cout << "still open" << std::endl; });
    StandardOutput output;
    const Desktop desktop;
    const QByteArray printed = output.finish();
    QVERIFY(printed.contains('\n' + text.toLocal8Bit() + '\n'));
    // Only once the box is closed.
    QVERIFY(printed.contains("still open"));
    QVERIFY(printed.indexOf("still open") < printed.indexOf(text.toLocal8Bit()));
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().title, QStringLiteral("Information"));
    QCOMPARE(boxes.seen.first().text, text);
    QVERIFY(boxes.seen.first().modal);
    QCOMPARE(record().last(), kEnumerate);  // no camera was touched
    QCOMPARE(desktop.panels(), QStringList());
    QCOMPARE(desktop.part<QComboBox>("ResolutionComboBox")->count(), 0);

    // The window says so as long as it is so, other texts come and go.
    const QString notice = QStringLiteral("No camera is open: different models are connected");
    const auto* const line = desktop.part<QLabel>("footLine");
    QCOMPARE(line->text(), notice);
    desktop.window->toggleDaemonService();
    QCOMPARE(line->text(), notice);

    // The operator mends the cabling and presses the button.
    for (const int serial : {31000001, 31000002}) {
        sdkfake::CameraSetup setup;
        setup.id = serial - 31000000;
        setup.serial = serial;
        setup.model = sdk::kSoloUhd;
        setup.state = tq::DeviceState::NOT_AVAILABLE;
        sdkfake::changeCamera(setup);
    }
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(desktop.panels(), QStringList{"30123456"});
    QCOMPARE(line->text(), QString());
}

void AppGuiTest::camerasThatDoNotCount()
{
    addCamera(0, 40000001, tq::MODEL::KOR_T);
    addCamera(1, kLeft);
    sdkfake::CameraSetup busy;
    busy.id = 2;
    busy.serial = 31000001;
    busy.model = sdk::kSoloUhd;  // another model, but it is not available
    busy.state = tq::DeviceState::NOT_AVAILABLE;
    sdkfake::addCamera(busy);
    MessageBoxes boxes;
    const MessageLog log;
    const Desktop desktop;
    QCOMPARE(boxes.seen.size(), 0);
    QCOMPARE(desktop.panels(), QStringList{"30123456"});
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Found")),
             QStringList{"[KORVistrel] Found :  1  available cameras"});
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Camera")),
             QStringList{"[KORVistrel] Camera S/N 31000001 is not available"});
}

void AppGuiTest::cameraThatDoesNotOpen()
{
    sdkfake::CameraSetup broken;
    broken.id = 7;
    broken.serial = kLeft;
    broken.setUpResult = 2;
    sdkfake::addCamera(broken);
    addCamera(1, kRight);
    const MessageLog log;
    {
        Desktop desktop;
        QCOMPARE(desktop.panels(), QStringList{"30123457"});
        QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Failed")),
                 QStringList{"[KORVistrel] Failed to open camera  7  at resolution  1920 x 1200 @ "
                             "30  ==> ErrCode= 2"});
        desktop.part<QPushButton>("addVCamButton")->click();
        QCOMPARE(desktop.choice(0, "LeftSensorSNChoice")->count(), 1);
    }
    // The worker of the failed camera is never taken down, deliberately.
    QVERIFY(record().filter("LiveCameraGrabber#1.~").isEmpty());
    QVERIFY(record().filter("LiveCameraGrabber#1.close").isEmpty());
    QVERIFY(!record().filter("LiveCameraGrabber#2.~").isEmpty());
}

void AppGuiTest::loadedRows()
{
    addTwoCameras();
    detach(1, kRight);
    sandbox::writeFile(kConfig, '{' + member(10, kLeft, kRight, kSmall, 34110) + ',' +
                                    member(9, kLeft, kThird, kSmall, 34120) + "}\n");
    const MessageLog log;
    const Desktop desktop;
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Loading")),
             (QStringList{"[KORVistrel] Loading virtual camera configuration S/N 10",
                          "[KORVistrel] Loading virtual camera configuration S/N 9"}));
    QCOMPARE(desktop.rows().size(), 2);
    QCOMPARE(desktop.choice(0, "LeftSensorSNChoice")->currentText(), QStringLiteral("30123456"));
    // The row waits for the absent camera, as after a reload.
    QCOMPARE(desktop.choice(0, "RightSensorSNChoice")->currentText(), QString());
    QCOMPARE(desktop.choice(0, "RightSensorSNChoice")->placeholderText(),
             QStringLiteral("30123457"));
    attach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(desktop.choice(0, "RightSensorSNChoice")->currentText(), QStringLiteral("30123457"));
    QCOMPARE(desktop.rows().at(1)->getInfos().port, 34120u);
    QVERIFY(sdkfake::senders().empty());  // nothing streams until it is asked for
}

// The number that the camera tells once it is open counts, not the one that was enumerated.
void AppGuiTest::serialThatTheCameraTells()
{
    addCamera(0, kLeft);
    addCamera(1, kRight);
    const MessageActions actions(QStringLiteral("[KORVistrel] Found"), [] {
        sdkfake::CameraSetup unplugged;
        unplugged.id = 7;
        unplugged.serial = kRight;
        sdkfake::changeCamera(unplugged);
        addCamera(1, kThird);
    });
    Desktop desktop;
    desktop.part<QPushButton>("addVCamButton")->click();
    const QComboBox* const choice = desktop.choice(0, "LeftSensorSNChoice");
    QCOMPARE(choice->count(), 2);
    QCOMPARE(choice->itemText(1), QString::number(kThird));
}

void AppGuiTest::reloadKeepsChoices()
{
    addTwoCameras();
    addCamera(2, kThird);
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.addRow(kVirtual + 1, kRight, kThird);
    QSignalSpy disabled(desktop.window, &MainWindow::disableStream);
    detach(2, kThird);
    clearRecord();
    desktop.part<QPushButton>("ReloadCamButton")->click();
    const QStringList calls = record();
    QCOMPARE(calls.mid(6, 2), (QStringList{kRestartDaemon, kEnumerate}));
    QCOMPARE(calls.at(5), QStringLiteral("LiveCameraGrabber#3.~LiveCameraGrabber()"));
    QCOMPARE(desktop.panels(), (QStringList{"30123456", "30123457"}));
    QCOMPARE(desktop.rows().at(0)->getInfos().leftSerialNumber, std::uint64_t(kLeft));
    QCOMPARE(desktop.rows().at(0)->getInfos().rightSerialNumber, std::uint64_t(kRight));
    QCOMPARE(desktop.rows().at(1)->getInfos().leftSerialNumber, std::uint64_t(kRight));
    QCOMPARE(desktop.rows().at(1)->getInfos().rightSerialNumber, std::uint64_t(0));
    QCOMPARE(desktop.choice(0, "LeftSensorSNChoice")->count(), 2);
    QCOMPARE(boxes.seen.size(), 0);
    // The settings of the last run are selected anew, which stops by the shown numbers; the choices
    // themselves stop nothing.
    QCOMPARE(disabled.count(), 2);
    QList<int> stopped{disabled.at(0).first().toInt(), disabled.at(1).first().toInt()};
    std::sort(stopped.begin(), stopped.end());  // rows are visited by their random keys
    QCOMPARE(stopped, (QList<int>{kVirtual, kVirtual + 1}));
}

void AppGuiTest::choicesComeBackWithALaterReload()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    detach(0, kLeft);
    detach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(desktop.rows().at(0)->getInfos().leftSerialNumber, std::uint64_t(0));
    QCOMPARE(desktop.rows().at(0)->getInfos().rightSerialNumber, std::uint64_t(0));
    desktop.part<QPushButton>("ReloadCamButton")->click();  // and once more without
    attach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(desktop.rows().at(0)->getInfos().leftSerialNumber, std::uint64_t(0));
    QCOMPARE(desktop.rows().at(0)->getInfos().rightSerialNumber, std::uint64_t(kRight));
    attach(0, kLeft);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(desktop.rows().at(0)->getInfos().leftSerialNumber, std::uint64_t(kLeft));
    QCOMPARE(desktop.rows().at(0)->getInfos().rightSerialNumber, std::uint64_t(kRight));
    QCOMPARE(boxes.seen.size(), 0);
}

void AppGuiTest::anotherChoiceIsNotUndoneByAReload()
{
    addTwoCameras();
    addCamera(2, kThird);
    Desktop desktop;
    VirtualCamHandler* const row = desktop.addRow(kVirtual, kLeft, kRight);
    detach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    row->setSerial(1, kThird);
    attach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(row->getInfos().leftSerialNumber, std::uint64_t(kLeft));
    QCOMPARE(row->getInfos().rightSerialNumber, std::uint64_t(kThird));
}

void AppGuiTest::absentCamerasAreSaved()
{
    addTwoCameras();
    const QByteArray size = "\"Width\":1920,\"Height\":1200,\"FPS\":15,\"HDR\":0";
    sandbox::writeFile(kConfig, '{' + member(10, kLeft, kThird, size, 34110) + "}\n");
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(9, kLeft, kRight);  // one of its cameras goes
    detach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QVERIFY(QFile::remove(kConfig));
    desktop.part<QPushButton>("ApplyButton")->click();
    QCOMPARE(written(),
             QByteArray("{\"10\":{\"FPS\":15,\"HDR\":0,\"Height\":1200,\"IMU\":true,"
                        "\"Left\":30123456,\"Port\":34110,\"Right\":30123458,\"Width\":1920},"
                        "\"9\":{\"FPS\":15,\"HDR\":0,\"Height\":1200,\"IMU\":true,"
                        "\"Left\":30123456,\"Port\":34010,\"Right\":30123457,\"Width\":1920}}\n"));
}

void AppGuiTest::absentLeftCameraKeepsItsImu()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    detach(0, kLeft);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(desktop.panels(), QStringList{"30123457"});
    desktop.part<QPushButton>("ApplyButton")->click();
    QCOMPARE(
        written(),
        QByteArray("{\"101234567\":{\"FPS\":30,\"HDR\":0,\"Height\":1200,\"IMU\":true,\"Left\":"
                   "30123456,\"Port\":34000,\"Right\":30123457,\"Width\":1920}}\n"));
}

void AppGuiTest::reloadKeepsFedStreams()
{
    addTwoCameras();
    addCamera(2, kThird);
    // What the lists begin with, so that the scan has no settings to change.
    const QByteArray size = "\"Width\":1920,\"Height\":1200,\"FPS\":15,\"HDR\":0";
    sandbox::writeFile(kConfig, '{' + member(kVirtual, kLeft, kRight, size) + ',' +
                                    member(kVirtual + 1, kRight, kThird, size, 34010) + "}\n");
    Desktop desktop;
    desktop.streamButton(0)->click();
    desktop.streamButton(1)->click();
    detach(2, kThird);
    desktop.streams.clear();
    desktop.window->requestCameras();
    // One stream goes on with the new workers, the other one has lost an eye.
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual + 1, false}));
    QCOMPARE(desktop.streamButton(0)->text(), QStringLiteral("Streaming..."));
    QCOMPARE(desktop.streamButton(1)->text(), QStringLiteral("Stream"));
    sdkfake::pushFrame(kLeft, 1000, 1);
    sdkfake::pushFrame(kRight, 1000, 2);
    QTRY_COMPARE(sdkfake::senderOnPort(34000).frames.size(), std::size_t(1));
    QCOMPARE(sdkfake::senders().size(), std::size_t(2));
}

void AppGuiTest::reloadThatChangesSettingsStopsStreams()
{
    addTwoCameras();
    sandbox::writeFile(kConfig, '{' + member(kVirtual, kLeft, kRight, kSmall) + "}\n");
    Desktop desktop;
    desktop.streamButton(0)->click();
    desktop.streams.clear();
    // The lists are filled anew, and selecting the configured size counts as a change.
    desktop.window->requestCameras();
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, false}));
    QVERIFY(sdkfake::lastSender().destroyed);
    QCOMPARE(desktop.streamButton(0)->text(), QStringLiteral("Stream"));
}

// ---- Streams -----------------------------------------------------------------------------------

void AppGuiTest::streamingAPair()
{
    addTwoCameras();
    const MessageLog log;
    Desktop desktop;
    desktop.addRow(kVirtual, kRight, kLeft);
    desktop.streams.clear();
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, true}));
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
    QVERIFY(
        log.messages().contains("[KORVistrel] Enable streaming of virtual camera S/N 101234567"));
    const sdkfake::Sender sender = sdkfake::lastSender();
    QVERIFY(sender.opened);
    QCOMPARE(sender.port(), 34000);
    QCOMPARE(sender.serialNumber(), kVirtual);

    std::vector<std::uint8_t> left(1920 * 1200 * 2, 7);
    sdkfake::pushFrame(kRight, 5000, left);
    sdkfake::pushFrame(kLeft, 6000, 9);
    QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t(1));
    const auto frame = sdkfake::lastSender().frames.front();
    QCOMPARE(frame->timestamp, tq::Timestamp(5000));  // of the left eye, which is the second camera
    QCOMPARE(frame->pixels.front(), std::uint8_t(7));
    QCOMPARE(frame->pixels.at(1920 * 2), std::uint8_t(9));

    desktop.window->disableStream(static_cast<uint64_t>(kVirtual));
    QCOMPARE(desktop.streams.count(), 2);
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual, false}));
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Stream"));
    QVERIFY(sdkfake::lastSender().destroyed);
    QVERIFY(
        log.messages().contains("[KORVistrel] Disable streaming of virtual camera S/N 101234567"));
    // Once more: nothing to stop.
    desktop.controller.triggerStream(kVirtual, false);
    QCoreApplication::processEvents();
    QCOMPARE(desktop.streams.count(), 2);
}

void AppGuiTest::enablingARunningStreamStopsIt()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streams.clear();
    desktop.streamButton()->click();
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.count(), 2);
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual, false}));
    QVERIFY(sdkfake::lastSender().destroyed);
    QCOMPARE(sdkfake::senders().size(), std::size_t(1));
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Stream"));
}

void AppGuiTest::serialsThatDoNothing()
{
    addTwoCameras();
    const MessageLog log;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streams.clear();
    for (const int serial : {0, -1, kVirtual + 1}) {
        desktop.controller.triggerStream(serial, true);
    }
    QCOMPARE(desktop.streams.count(), 0);
    QVERIFY(sdkfake::senders().empty());
    // It is logged all the same.
    QVERIFY(log.messages().contains("[KORVistrel] Enable streaming of virtual camera S/N 0"));
}

void AppGuiTest::footLineSaysWhatIsMissing()
{
    addTwoCameras();
    addCamera(2, kThird);
    MessageBoxes boxes;
    Desktop desktop;
    const auto* const line = desktop.part<QLabel>("footLine");
    desktop.part<QPushButton>("addVCamButton")->click();
    VirtualCamHandler* const row = desktop.rows().first();
    desktop.streamButton()->click();
    QCOMPARE(line->text(), QStringLiteral("Press Generate first"));
    row->setVirtualSN(kVirtual);
    row->setSerial(0, kLeft);
    desktop.streamButton()->click();
    QCOMPARE(line->text(), QStringLiteral("Choose both cameras first"));

    // The remark is over with the next press that works, and stopping has nothing to say.
    row->setSerial(1, kRight);
    desktop.streamButton()->click();
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
    QCOMPARE(line->text(), QString());
    desktop.streamButton()->click();
    QCOMPARE(line->text(), QString());

    detach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(line->text(), QString());
    desktop.streamButton()->click();
    QCOMPARE(line->text(), QStringLiteral("Camera 30123457 is not available"));

    row->setSerial(1, kThird);
    sdkfake::CameraSetup broken;
    broken.id = 2;
    broken.serial = kThird;
    broken.setUpResult = 5;
    sdkfake::changeCamera(broken);
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    desktop.streamButton()->click();
    QCOMPARE(line->text(), QStringLiteral("Camera 30123458 is not open"));
    QCOMPARE(boxes.seen.size(), 0);
}

void AppGuiTest::footLineSaysThatSizesDiffer()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    emit desktop.window->resolutionChanged({kRight}, 960, 600, false);
    desktop.streamButton()->click();
    const auto* const line = desktop.part<QLabel>("footLine");
    QCOMPARE(line->text(),
             QStringLiteral("Cameras 30123456 and 30123457 have different resolutions"));
    // Another row with the same number can be streamed.
    emit desktop.window->resolutionChanged({kRight}, 1920, 1200, false);
    desktop.addRow(kVirtual, kLeft, 0);
    desktop.streamButton(1)->click();
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
    QCOMPARE(line->text(), QString());
}

void AppGuiTest::sameCameraTwice()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    {
        const QSignalBlocker blocker(desktop.choice(0, "RightSensorSNChoice"));
        desktop.choice(0, "RightSensorSNChoice")->setCurrentIndex(0);
    }
    QCOMPARE(boxes.seen.size(), 0);
    desktop.streams.clear();
    desktop.streamButton()->click();
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().title, QStringLiteral("Information"));
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("Invalid configuration. The same camera was selected twice."));
    QVERIFY(sdkfake::senders().empty());
    QCOMPARE(desktop.streams.count(), 0);
}

void AppGuiTest::senderThatDoesNotOpen()
{
    addTwoCameras();
    sdkfake::setSenderResult(21);
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streams.clear();
    StandardOutput output;
    desktop.streamButton()->click();
    QVERIFY(output.finish().contains("Streaming Error 21\n"));
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().title, QStringLiteral("Information"));
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("Unable to stream virtual camera 101234567. Error -1"));
    QCOMPARE(boxes.seen.first().styleSheet, desktop.window->styleSheet());
    QCOMPARE(boxes.seen.first().font.family(), desktop.window->font().family());
    QCOMPARE(desktop.streams.count(), 0);
    // It is not kept: the next press starts it.
    sdkfake::setSenderResult(0);
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual, true}));
}

void AppGuiTest::lateReportOfAStoppedStream()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streams.clear();
    // Without the event loop in between, the end of each stream is reported after the next start.
    for (int i = 0; i < 5; ++i) {
        desktop.controller.triggerStream(kVirtual, true);
        desktop.controller.triggerStream(kVirtual, false);
    }
    desktop.controller.triggerStream(kVirtual, true);
    QCOMPARE(desktop.streams.count(), 11);
    QTest::qWait(100);
    QCOMPARE(desktop.streams.count(), 11);
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
    QVERIFY(!sdkfake::lastSender().closed);
}

void AppGuiTest::removingTheRowStopsItsStream()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    desktop.streams.clear();
    desktop.rows().first()->triggerRemove();
    QCOMPARE(desktop.rows().size(), 0);
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, false}));
    QVERIFY(sdkfake::lastSender().destroyed);
}

void AppGuiTest::removingOneOfTwoEqualRowsStopsNothing()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    desktop.rows().last()->triggerRemove();
    QVERIFY(!sdkfake::lastSender().closed);
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
}

void AppGuiTest::renumberedStreamGivesItsPortBack()
{
    addTwoCameras();
    Desktop desktop;
    VirtualCamHandler* const row = desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    row->setVirtualSN(kVirtual + 1);
    QVERIFY(!sdkfake::lastSender().closed);  // the number alone stops nothing
    desktop.streams.clear();
    clearRecord();
    desktop.streamButton()->click();
    QCOMPARE(record().mid(0, 2), (QStringList{"UDPOutput#1.close()", "UDPOutput#1.~UDPOutput()"}));
    QVERIFY(record().last().startsWith("UDPOutput#2.open("));
    QCOMPARE(desktop.streams.count(), 2);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, false}));
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual + 1, true}));
    // One that cannot be started instead leaves no row that claims to stream.
    row->setVirtualSN(kVirtual + 2);
    sdkfake::setSenderResult(21);
    MessageBoxes boxes;
    desktop.streamButton()->click();
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Stream"));
}

// A row from the configuration asks to stop the stream 0 when its cameras change.
void AppGuiTest::changedPairStopsItsStream()
{
    addTwoCameras();
    addCamera(2, kThird);
    const QByteArray size = "\"Width\":1920,\"Height\":1200,\"FPS\":15,\"HDR\":0";
    sandbox::writeFile(kConfig, '{' + member(kVirtual, kLeft, kRight, size) + "}\n");
    Desktop desktop;
    QSignalSpy disabled(desktop.window, &MainWindow::disableStream);
    desktop.streamButton()->click();
    desktop.streams.clear();
    desktop.rows().first()->setSerial(1, kThird);
    QCOMPARE(disabled.count(), 1);
    QCOMPARE(disabled.first().first().toULongLong(), qulonglong(0));
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, false}));
    QVERIFY(sdkfake::lastSender().destroyed);
    // The next press starts the new pair.
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual, true}));
}

// ---- Resolution --------------------------------------------------------------------------------

void AppGuiTest::changingTheResolution()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    desktop.part<QComboBox>("ResolutionComboBox")->setCurrentText(QStringLiteral("960 x 600"));
    desktop.streams.clear();
    clearRecord();
    const MessageLog log;
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    // Streams first, then all cameras are closed before the first is opened again.
    QCOMPARE(record(),
             (QStringList{"UDPOutput#1.close()", "UDPOutput#1.~UDPOutput()",
                          "LiveCameraGrabber#1.close(true)", "LiveCameraGrabber#2.close(true)",
                          "LiveCameraGrabber#1.setUp(0, 960, 600, 15, 2, false, 2, false, false) "
                          "= 0",
                          "LiveCameraGrabber#2.setUp(1, 960, 600, 15, 2, false, 2, false, false) "
                          "= 0"}));
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, false}));
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Stream"));
    QCOMPARE(
        log.debugMessages(QStringLiteral("[KORVistrel]")),
        (QStringList{"[KORVistrel] Disable streaming of virtual camera S/N 101234567",
                     "[KORVistrel] Changing the resolution of the camera  30123456 ,  30123457 "
                     " to  960  x  600",
                     "[KORVistrel] Opening camera  0  at Resolution  960 x 600 @ 15",
                     "[KORVistrel] Opening camera  1  at Resolution  960 x 600 @ 15"}));
    const QLabel* const text = desktop.part<QLabel>("resolutionLabel");
    QCOMPARE(text->text(), QStringLiteral("Resolution: 960x600: 15FPS"));
    // Not started by itself; started again it has the new size.
    QCOMPARE(sdkfake::senders().size(), std::size_t(1));
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual, true}));
    sdkfake::pushFrame(kLeft, 1000, 1);
    sdkfake::pushFrame(kRight, 1000, 2);
    QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t(1));
    QCOMPARE(sdkfake::lastSender().frames.front()->pixels.size(), std::size_t(2 * 960 * 600 * 2));
}

void AppGuiTest::changingTheResolutionStopsStreamsWithoutARow()
{
    addTwoCameras();
    Desktop desktop;
    VirtualCamHandler* const row = desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    desktop.streams.clear();
    row->generateVirtualSN();  // the stream's number is shown nowhere any more
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, false}));
    QVERIFY(sdkfake::lastSender().destroyed);
}

void AppGuiTest::changingThePairsResolution()
{
    addTwoCameras();
    addCamera(2, kThird);
    const Desktop desktop;
    clearRecord();
    emit desktop.window->resolutionChanged({kRight, kThird, 5}, 1920, 1080, true);
    // The others stay as they are; the frame rate is the global one.
    QCOMPARE(record(),
             (QStringList{"LiveCameraGrabber#2.close(true)", "LiveCameraGrabber#3.close(true)",
                          "LiveCameraGrabber#2.setUp(1, 1920, 1080, 30, 2, false, 2, "
                          "false, true) = 0",
                          "LiveCameraGrabber#3.setUp(2, 1920, 1080, 30, 2, false, 2, "
                          "false, true) = 0"}));
}

void AppGuiTest::cameraThatDoesNotReopen()
{
    addTwoCameras();
    Desktop desktop;
    sdkfake::CameraSetup broken;
    broken.id = 0;
    broken.serial = kLeft;
    broken.setUpResult = 5;
    sdkfake::changeCamera(broken);
    const MessageLog log;
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Failed")),
             QStringList{"[KORVistrel] Failed  to reopen the camera ==> ErrCode= 5"});
    // It no longer claims to deliver what it did before, and is not streamed.
    QCOMPARE(desktop.part<QLabel>("resolutionLabel")->text(),
             QStringLiteral("Resolution: 0x0: 0FPS"));
    QCOMPARE(desktop.part<QLabel>("cameraTitle")->text(),
             QStringLiteral("Camera 0 | Serial Number 30123456"));
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    QVERIFY(sdkfake::senders().empty());
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Camera")),
             QStringList{"[KORVistrel] Camera S/N 30123456 is not open"});
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Stream"));
    // It is kept and tried again at the next change.
    broken.setUpResult = 0;
    sdkfake::changeCamera(broken);
    clearRecord();
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    QCOMPARE(record().filter("setUp").size(), 2);
    QCOMPARE(desktop.part<QLabel>("resolutionLabel")->text(),
             QStringLiteral("Resolution: 1920x1200: 30FPS"));
    desktop.streamButton()->click();
    QCOMPARE(sdkfake::senders().size(), std::size_t(1));
}

void AppGuiTest::savingWithACameraThatDidNotReopen()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    for (const int id : {0, 1}) {
        sdkfake::CameraSetup broken;
        broken.id = id;
        broken.serial = kLeft + id;
        broken.setUpResult = 5;
        sdkfake::changeCamera(broken);
        desktop.part<QPushButton>("ApplyResFPSButton")->click();
        desktop.part<QPushButton>("ApplyButton")->click();
        QCOMPARE(written(),
                 QByteArray("{\"101234567\":{\"FPS\":30,\"HDR\":0,\"Height\":1200,\"IMU\":true,"
                            "\"Left\":30123456,\"Port\":34000,\"Right\":30123457,\"Width\":1920}}"
                            "\n"));
    }
    // Two closed cameras are not streamed either.
    const MessageLog log;
    desktop.streamButton()->click();
    QVERIFY(sdkfake::senders().empty());
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Camera")).size(), 2);
}

// ---- Saving ------------------------------------------------------------------------------------

void AppGuiTest::saving()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    QByteArray whileShown;
    boxes.onBox([&] { whileShown = written(); });
    desktop.part<QPushButton>("ApplyButton")->click();
    const QByteArray expected =
        "{\"101234567\":{\"FPS\":30,\"HDR\":0,\"Height\":1200,\"IMU\":true,\"Left\":30123456,"
        "\"Port\":34000,\"Right\":30123457,\"Width\":1920}}\n";
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().title, QStringLiteral("Information"));
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("Configuration has been saved in "
                            "/usr/local/kor/settings/virtual_tsolo_config.json"));
    QCOMPARE(boxes.seen.first().icon, QMessageBox::Information);
    QCOMPARE(whileShown, expected);  // it is on the disk before the box says so
    QCOMPARE(written(), expected);
}

void AppGuiTest::savingStoresTheSettings_data()
{
    QTest::addColumn<bool>("withRow");
    QTest::addColumn<QMessageBox::StandardButton>("answer");
    QTest::addColumn<bool>("stored");
    QTest::newRow("a row") << true << QMessageBox::Ok << true;
    QTest::newRow("no row, yes") << false << QMessageBox::Yes << true;
    QTest::newRow("no row, no") << false << QMessageBox::No << false;
}

void AppGuiTest::savingStoresTheSettings()
{
    QFETCH(bool, withRow);
    QFETCH(QMessageBox::StandardButton, answer);
    QFETCH(bool, stored);
    addTwoCameras();
    MessageBoxes boxes(answer);
    Desktop desktop;
    if (withRow) {
        desktop.addRow(kVirtual, kLeft, kRight);
    }
    desktop.part<QComboBox>("ResolutionComboBox")->setCurrentText(QStringLiteral("960 x 600"));
    desktop.part<QComboBox>("FPSComboBox")->setCurrentText(QStringLiteral("60 frames/s"));
    desktop.part<QPushButton>("ApplyButton")->click();
    // While the window is still open.
    const QSettings store(QStringLiteral("Vellmark"), QStringLiteral("Vistrel"));
    QCOMPARE(store.contains("input/width"), stored);
    if (stored) {
        QCOMPARE(store.value("input/width").toInt(), 960);
        QCOMPARE(store.value("input/height").toInt(), 600);
        QCOMPARE(store.value("input/fps").toInt(), 60);
        QCOMPARE(store.value("input/hdr_mode").toString(), QStringLiteral("0"));
    }
}

void AppGuiTest::savingTwoRowsWithOneSerial()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.addRow(kVirtual, kRight, kLeft);
    desktop.part<QPushButton>("ApplyButton")->click();
    QCOMPARE(written().count("101234567"), 1);
    QCOMPARE(desktop.window->getVirtualCameras().size(), 2);
    const bool firstIsLast = desktop.window->getVirtualCameras().last().leftSerialNumber == kLeft;
    QVERIFY(written().contains(firstIsLast ? "\"Left\":30123456" : "\"Left\":30123457"));
}

void AppGuiTest::savingNothing_data()
{
    QTest::addColumn<QMessageBox::StandardButton>("answer");
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("yes") << QMessageBox::Yes << QByteArray("{}\n");
    QTest::newRow("no") << QMessageBox::No << QByteArray("old");
    QTest::newRow("closed") << QMessageBox::Abort << QByteArray("old");
}

void AppGuiTest::savingNothing()
{
    QFETCH(QMessageBox::StandardButton, answer);
    QFETCH(QByteArray, content);
    addTwoCameras();
    const Desktop desktop;
    sandbox::writeFile(kConfig, "old");
    MessageBoxes boxes(answer);
    desktop.part<QPushButton>("ApplyButton")->click();
    const MessageBoxes::Seen question = boxes.seen.first();
    QCOMPARE(question.title, QStringLiteral("Information"));
    QCOMPARE(question.text, QStringLiteral("Empty configuration. No Virtual cameras will be "
                                           "created.\n Press OK to confirm."));
    QCOMPARE(question.icon, QMessageBox::Question);
    QCOMPARE(question.buttons, QMessageBox::Yes | QMessageBox::No);
    QCOMPARE(question.font.family(), QStringLiteral("Helvetica"));
    QCOMPARE(question.font.pointSize(), 10);
    QCOMPARE(boxes.seen.size(), answer == QMessageBox::Yes ? 2 : 1);
    QCOMPARE(written(), content);
}

void AppGuiTest::savingWithoutAFolder()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    // A folder in the file's place cannot be written to, not even by root.
    QVERIFY(QDir().mkdir(kConfig));
    desktop.part<QPushButton>("ApplyButton")->click();
    QVERIFY(QDir().rmdir(kConfig));
    QCOMPARE(boxes.seen.size(), 1);  // it says "saved" all the same
    QVERIFY(boxes.seen.first().text.startsWith(QStringLiteral("Configuration has been saved in")));
}

// The paths that the controller uses are absolute, so the program starts itself again where they
// are its own.
int main(int argc, char** argv)
{
    if (qgetenv("VISTREL_SANDBOX").isEmpty()) {
        std::vector<std::string> words{RUN_IN_SANDBOX, "--"};
        words.insert(words.end(), argv, argv + argc);
        std::vector<char*> pointers;
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        execv(RUN_IN_SANDBOX, pointers.data());
        std::perror(RUN_IN_SANDBOX);
        return 1;
    }
    QApplication application(argc, argv);
    QTEST_SET_MAIN_SOURCE_PATH
    AppGuiTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "appgui_test.moc"
