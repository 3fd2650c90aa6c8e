// SPDX-License-Identifier: Apache-2.0
// An operator's session with the real program: pairing, streaming, saving, and what follows.
#include <QApplication>
#include <QComboBox>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLayout>
#include <QLineEdit>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSpinBox>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

#include "tests/sandbox/sandbox.h"
#include "tests/sdk/patterndecoder.h"
#include "tests/support/sanitizers.h"
#include "tests/system/remotewindow.h"
#include "ui/camerawidget.h"
#include "ui/mainwindow.h"
#include "ui/virtualcamhandler.h"

namespace {

constexpr int kLimitMs = kSanitized ? 300000 : 60000;
constexpr int kLeft = 30100001;
constexpr int kRight = 30100002;
constexpr int kOther = 30100003;
constexpr int kFirstVirtualSerial = 100000001;
constexpr int kLastVirtualSerial = 109999999;
constexpr char kConfigName[] = "/virtual_tsolo_config.json";

// Positions in the lists of the window.
constexpr int kSmallestSize = 2;  // 960 x 600
constexpr int kThirtyPerSecond = 2;

/// A port that the row offers and nobody listens on, below those that clients are given.
quint16 freePort()
{
    for (int attempt = 0; attempt < 200; ++attempt) {
        QTcpServer probe;
        const auto port = static_cast<quint16>(QRandomGenerator::system()->bounded(30000, 32700));
        if (probe.listen(QHostAddress::Any, port)) {
            return port;
        }
    }
    return 0;
}

bool serves(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(1000);
}

QByteArray rig(int left = kLeft, int right = kRight)
{
    const auto camera = [](int serial, const char* eye) {
        return QJsonObject{{"serial", serial},
                           {"model", "KOR T Solo GS"},
                           {"source", QJsonObject{{"type", "simulated"}, {"eye", eye}}},
                           {"imu", QJsonObject{{"type", "simulated"}}}};
    };
    return QJsonDocument(
               QJsonObject{{"cameras", QJsonArray{camera(left, "left"), camera(right, "right")}}})
        .toJson();
}

CameraInfos described(int id, int serial, int width, int height, int fps)
{
    CameraInfos infos;
    infos.id = id;
    infos.serial_number = serial;
    infos.model = sdk::kSoloGs;
    infos.width = width;
    infos.height = height;
    infos.fps = fps;
    infos.hasMCU = true;
    return infos;
}

/// What the row's stream button looks like.
struct ButtonLooks {
    QImage idle;
    QImage streaming;
};

/// The same window with the same content in this process: says where the controls are and what they
/// look like. It is gone from the screen before the program is looked at.
class Twin {
public:
    Twin()
    {
        window.setWindowTitle(QStringLiteral("twin"));
        window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
        for (const int serial : {kLeft, kRight}) {
            window.addCameraWidget(serial);
        }
        window.updateSerialList({QString::number(kLeft), QString::number(kRight)});
        describe(1920, 1200, 15);
    }

    bool show()
    {
        window.show();
        return QTest::qWaitForWindowExposed(&window);
    }
    void hide() { window.hide(); }

    void describe(int width, int height, int fps)
    {
        window.updateCameraWidget(kLeft, described(0, kLeft, width, height, fps));
        window.updateCameraWidget(kRight, described(1, kRight, width, height, fps));
        settle();
    }

    void addRow()
    {
        window.addVirtualCamHandler();
        settle();
    }
    void addRow(const VirtualCameraInfos& record)
    {
        window.addVirtualCamHandlerFromConfig(record);
        settle();
    }

    QRect areaOf(const QWidget* widget)
    {
        return {widget->mapTo(&window, QPoint(0, 0)), widget->size()};
    }
    QRect areaOf(const QString& name) { return areaOf(window.findChild<QWidget*>(name)); }
    QPoint middleOf(const QString& name) { return areaOf(name).center(); }
    QRect rowArea() { return areaOf(window.findChild<VirtualCamHandler*>()); }
    QList<QRect> panelAreas()
    {
        QList<QRect> areas;
        for (const CameraWidget* const panel : window.findChildren<CameraWidget*>()) {
            areas.append(areaOf(panel));
        }
        return areas;
    }

    QImage grab(QRect area) { return RemoteWindow(QString::number(window.winId())).grab(area); }

    /// Looks of the stream button with the mouse elsewhere; the twin must be on the screen.
    ButtonLooks buttonLooks()
    {
        auto* const row = window.findChild<VirtualCamHandler*>();
        ButtonLooks looks;
        row->UpdateStreamingStatus(true);
        settle();
        looks.streaming = grab(areaOf("TestButton"));
        row->UpdateStreamingStatus(false);
        settle();
        looks.idle = grab(areaOf("TestButton"));
        return looks;
    }

    static void settle()
    {
        // Layouts are done by posted events; they are over when none is left.
        for (int i = 0; i < 5; ++i) {
            QCoreApplication::sendPostedEvents();
            QCoreApplication::processEvents();
        }
    }

private:
    MainWindow window;
};

VirtualCameraInfos record(int virtualSerial, quint16 port)
{
    VirtualCameraInfos infos;
    infos.virtualSerialNumber = static_cast<std::uint64_t>(virtualSerial);
    infos.leftSerialNumber = kLeft;
    infos.rightSerialNumber = kRight;
    infos.port = port;
    return infos;
}

}  // namespace

class DesktopTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void operatorsSession();
    void missingCameraIsKept();
    void cameraOfAnotherProcessIsLeftOut();

private:
    void startDesktop();
    void startHeadless();
    bool logged(const QString& text);
    QStringList serviceCalls() const { return standIns->calls(); }
    bool previewsMove(const QList<QRect>& areas);
    bool rowSays(bool streaming, const ButtonLooks& looks, QRect area);
    void receive(int width, int height, int virtualSerial);
    bool answerBox(const QString& title);
    bool closeWindow();
    void stop();

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<sandbox::StandIns> standIns;      // of the program
    std::unique_ptr<sandbox::StandIns> twinStandIns;  // of the twin in this process
    std::unique_ptr<QProcess> process;
    sandbox::Options options;
    QByteArray log;
    RemoteWindow window;
    quint16 port = 0;
};

void DesktopTest::initTestCase()
{
    sandbox::skipProgramUnlessAvailable();
    for (const char* const tool : {"xdotool", "openbox", "ffmpeg", "ffprobe"}) {
        if (QStandardPaths::findExecutable(tool).isEmpty()) {
            sandbox::skipProgram(QStringLiteral("%1 is not installed").arg(tool));
        }
    }
}

void DesktopTest::init()
{
    folder = std::make_unique<QTemporaryDir>();
    for (const char* const name : {"settings", "shm", "config"}) {
        QVERIFY(QDir(folder->path()).mkdir(name));
    }
    QVERIFY(sandbox::writeFile(folder->filePath("rig.json"), rig()));
    standIns = std::make_unique<sandbox::StandIns>();
    standIns->answer("systemctl", "disabled\n", "", 1);
    twinStandIns = std::make_unique<sandbox::StandIns>();
    twinStandIns->answer("systemctl", "disabled\n", "", 1);
    twinStandIns->install();
    options = sandbox::Options();
    options.settings = folder->filePath("settings");
    options.sharedMemory = folder->filePath("shm");
    options.standIns = standIns.get();
    options.environment.insert("KOR_RIG", folder->filePath("rig.json"));
    options.environment.insert("XDG_CONFIG_HOME", folder->filePath("config"));
    options.environment.remove("KOR_ENCODER");
    port = freePort();
    QVERIFY(port != 0);
}

void DesktopTest::cleanup()
{
    if (QTest::currentTestFailed()) {
        qInfo("%s", log.constData());
        qInfo("%s", qPrintable(standIns->calls().join('\n')));
    }
    stop();
    twinStandIns.reset();
    standIns.reset();
}

void DesktopTest::stop()
{
    if (process) {
        process->kill();
        process->waitForFinished();
        process.reset();
    }
}

bool DesktopTest::logged(const QString& text)
{
    return QTest::qWaitFor(
        [&] {
            process->waitForReadyRead(1);
            log += process->readAllStandardError();
            return QString::fromLocal8Bit(log).contains(text);
        },
        kLimitMs);
}

void DesktopTest::startDesktop()
{
    log.clear();
    process = std::make_unique<QProcess>();
    sandbox::prepare(*process, options, QStringLiteral(KOR_VISTREL));
    process->start();
    QVERIFY(process->waitForStarted());
    QStringList found;
    const auto appears = [&] { return !(found = windowsTitled("^KORTSolo Vistrel$")).isEmpty(); };
    QVERIFY(QTest::qWaitFor(appears, kLimitMs));
    window = RemoteWindow(found.constFirst());
    QVERIFY(logged("[KORVistrel] Opening camera  1"));
    QVERIFY(window.activate());
}

void DesktopTest::startHeadless()
{
    log.clear();
    process = std::make_unique<QProcess>();
    sandbox::prepare(*process, options, QStringLiteral(KOR_VISTREL), {"--cli"});
    process->start();
    QVERIFY(process->waitForStarted());
}

// Two grabs of every preview differ, and neither is a blank area.
bool DesktopTest::previewsMove(const QList<QRect>& areas)
{
    for (const QRect& area : areas) {
        const QImage first = window.grab(area);
        const auto moved = [&] {
            const QImage now = window.grab(area);
            QImage blank(now.size(), QImage::Format_RGB32);
            blank.fill(now.pixel(0, 0));
            return difference(now, first) > 0.05 && difference(now, blank) > 5;
        };
        if (!QTest::qWaitFor(moved, kLimitMs)) {
            return false;
        }
    }
    return !areas.isEmpty();
}

bool DesktopTest::rowSays(bool streaming, const ButtonLooks& looks, QRect area)
{
    window.point(QPoint(3, 3));  // a button under the mouse looks different
    return QTest::qWaitFor(
        [&] {
            const QImage now = window.grab(area);
            const double toIdle = difference(now, looks.idle);
            const double toStreaming = difference(now, looks.streaming);
            return streaming ? toStreaming < toIdle / 3 : toIdle < toStreaming / 3;
        },
        kLimitMs);
}

// What players get: the size, the name, and in every frame the two cameras side by side in time.
void DesktopTest::receive(int width, int height, int virtualSerial)
{
    const QString url = QStringLiteral("rtsp://127.0.0.1:%1/stereo").arg(port);
    QProcess probe;
    probe.start("ffprobe", {"-v", "error", "-rtsp_transport", "tcp", "-show_streams",
                            "-show_format", "-of", "json", url});
    QVERIFY(probe.waitForFinished(kLimitMs));
    const QJsonObject found = QJsonDocument::fromJson(probe.readAllStandardOutput()).object();
    const QJsonObject video = found["streams"].toArray().first().toObject();
    QCOMPARE(video["width"].toInt(), 2 * width);
    QCOMPARE(video["height"].toInt(), height);
    const QString title = found["format"].toObject()["tags"].toObject()["title"].toString();
    QVERIFY2(title.contains(QString::number(virtualSerial)), qPrintable(title));

    QProcess player;
    player.start("ffmpeg", {"-nostdin", "-v", "error", "-rtsp_transport", "tcp", "-i", url, "-map",
                            "0:v", "-frames:v", "3", "-pix_fmt", "gray", "-f", "rawvideo", "-"});
    QVERIFY(player.waitForFinished(kLimitMs));
    const QByteArray frames = player.readAllStandardOutput();
    QCOMPARE(frames.size(), 3 * 2 * width * height);
    for (int i = 0; i < 3; ++i) {
        const auto* const frame =
            reinterpret_cast<const unsigned char*>(frames.constData()) + i * 2 * width * height;
        const auto left = decodePattern(frame, 1, 2 * width, width);
        const auto right = decodePattern(frame + width, 1, 2 * width, width);
        QVERIFY(left && right);
        QCOMPARE(left->serial, static_cast<std::uint32_t>(kLeft));
        QCOMPARE(right->serial, static_cast<std::uint32_t>(kRight));
        QCOMPARE(left->counter, right->counter);
    }
}

bool DesktopTest::answerBox(const QString& title)
{
    QStringList found;
    const auto appears = [&] { return !(found = windowsTitled(title)).isEmpty(); };
    if (!QTest::qWaitFor(appears, kLimitMs) || !RemoteWindow(found.constFirst()).activate()) {
        return false;
    }
    pressKey("Return");
    return QTest::qWaitFor([&] { return windowsTitled(title).isEmpty(); }, kLimitMs);
}

// Asks the window manager, which asks the program.
bool DesktopTest::closeWindow()
{
    if (!window.activate()) {
        return false;
    }
    pressKey("alt+F4");
    const auto ended = [this] {
        log += process->readAllStandardError();
        return process->state() == QProcess::NotRunning;
    };
    return QTest::qWaitFor(ended, kLimitMs);
}

void DesktopTest::operatorsSession()
{
    // Switching the automatic start changes what systemd answers.
    standIns->script("sudo",
                     "if [ \"$2\" = enable ]; then\n"
                     "    echo enabled >\"$VISTREL_STAND_INS/systemctl.out\"\n"
                     "fi\n");
    auto twin = std::make_unique<Twin>();
    QVERIFY(twin->show());
    const QList<QRect> emptyPanels = twin->panelAreas();
    const QPoint plus = twin->middleOf("addVCamButton");
    twin->addRow();
    const ButtonLooks looks = twin->buttonLooks();
    twin->hide();

    startDesktop();
    if (QTest::currentTestFailed()) {
        return;
    }
    QCOMPARE(emptyPanels.size(), 2);
    QVERIFY2(previewsMove(emptyPanels), "the previews stand still");

    // A row, two cameras, a serial, a port, a stream.
    const QImage withoutRow = window.grab(twin->rowArea());
    window.click(plus);
    QTRY_VERIFY_WITH_TIMEOUT(difference(window.grab(twin->rowArea()), withoutRow) > 1, kLimitMs);
    QVERIFY(window.choose(twin->middleOf("LeftSensorSNChoice"), 0));
    QVERIFY(window.choose(twin->middleOf("RightSensorSNChoice"), 1));
    window.click(twin->middleOf("VirtualSNGenerateButton"));
    window.enter(twin->middleOf("RTPPortChoice") - QPoint(15, 0), QString::number(port));
    QVERIFY(rowSays(false, looks, twin->areaOf("TestButton")));
    window.click(twin->middleOf("TestButton"));
    QVERIFY(rowSays(true, looks, twin->areaOf("TestButton")));
    QVERIFY(logged("[KORVistrel] Enable streaming of virtual camera S/N"));
    const QRegularExpressionMatch match =
        QRegularExpression("Enable streaming of virtual camera S/N (\\d+)\n")
            .match(QString::fromLocal8Bit(log));
    const int virtualSerial = match.captured(1).toInt();
    QVERIFY(virtualSerial >= kFirstVirtualSerial && virtualSerial <= kLastVirtualSerial);
    receive(1920, 1200, virtualSerial);
    if (QTest::currentTestFailed()) {
        return;
    }

    // Another resolution stops every stream, and the row says so.
    QVERIFY(window.choose(twin->middleOf("ResolutionComboBox"), kSmallestSize));
    QVERIFY(window.choose(twin->middleOf("FPSComboBox"), kThirtyPerSecond));
    window.click(twin->middleOf("ApplyResFPSButton"));
    QVERIFY(logged("[KORVistrel] Opening camera  1  at Resolution  960 x 600 @ 30"));
    QVERIFY(logged("[KORVistrel] Disable streaming of virtual camera S/N"));
    QVERIFY(rowSays(false, looks, twin->areaOf("TestButton")));
    QVERIFY(!serves(port));
    QVERIFY2(previewsMove(emptyPanels), "the previews stand still");

    window.click(twin->middleOf("TestButton"));
    QVERIFY(rowSays(true, looks, twin->areaOf("TestButton")));
    receive(960, 600, virtualSerial);
    if (QTest::currentTestFailed()) {
        return;
    }

    window.click(twin->middleOf("ApplyButton"));
    QVERIFY(answerBox("^Information$"));
    const QByteArray saved =
        QStringLiteral(
            "{\"%1\":{\"FPS\":30,\"HDR\":0,\"Height\":600,\"IMU\":true,\"Left\":%2,"
            "\"Port\":%3,\"Right\":%4,\"Width\":960}}\n")
            .arg(virtualSerial)
            .arg(kLeft)
            .arg(port)
            .arg(kRight)
            .toLatin1();
    QCOMPARE(sandbox::readFile(options.settings + kConfigName), saved);

    window.click(twin->middleOf("toggleDaemonButton") -
                 QPoint(twin->areaOf("toggleDaemonButton").width() / 2 - 10, 0));
    QTRY_VERIFY_WITH_TIMEOUT(
        serviceCalls().contains("sudo systemctl enable kor_vistrel_cli.service"), kLimitMs);
    QVERIFY(closeWindow());
    QCOMPARE(process->exitStatus(), QProcess::NormalExit);
    QCOMPARE(process->exitCode(), 0);
    QCOMPARE(serviceCalls(), QStringList({"systemctl is-enabled kor_vistrel_cli.service",
                                          "sudo systemctl stop kor_vistrel_cli.service",
                                          "sudo systemctl restart nvargus-daemon.service",
                                          "systemctl is-enabled kor_vistrel_cli.service",
                                          "sudo systemctl enable kor_vistrel_cli.service",
                                          "systemctl is-enabled kor_vistrel_cli.service",
                                          "systemctl is-enabled kor_vistrel_cli.service",
                                          "sudo systemctl restart kor_vistrel_cli.service"}));
    QVERIFY(!serves(port));

    // What the service does with the file.
    startHeadless();
    QTRY_VERIFY_WITH_TIMEOUT(serves(port), kLimitMs);
    receive(960, 600, virtualSerial);
    if (QTest::currentTestFailed()) {
        return;
    }
    stop();
    QTRY_VERIFY_WITH_TIMEOUT(!serves(port), kLimitMs);

    // The next session finds the row as it was saved.
    auto second = std::make_unique<Twin>();
    QVERIFY(second->show());
    second->describe(960, 600, 30);
    second->addRow(record(virtualSerial, port));
    const QImage wanted = second->grab(second->rowArea());
    second->hide();
    startDesktop();
    if (QTest::currentTestFailed()) {
        return;
    }
    QVERIFY(logged(QStringLiteral("[KORVistrel] Loading virtual camera configuration S/N %1")
                       .arg(virtualSerial)));
    window.point(QPoint(3, 3));
    QTRY_VERIFY_WITH_TIMEOUT(difference(window.grab(second->rowArea()), wanted) < 0.2, kLimitMs);
    window.click(second->middleOf("TestButton"));
    QVERIFY(rowSays(true, looks, second->areaOf("TestButton")));
    receive(960, 600, virtualSerial);
    QVERIFY(closeWindow());
    QCOMPARE(process->exitCode(), 0);
    QCOMPARE(sandbox::readFile(options.settings + kConfigName), saved);
}

// Saving while a camera is unplugged keeps its row as it was.
void DesktopTest::missingCameraIsKept()
{
    const QByteArray saved =
        "{\"101234567\":{\"FPS\":15,\"HDR\":0,\"Height\":1200,\"IMU\":true,"
        "\"Left\":30100001,\"Port\":30120,\"Right\":30100009,"
        "\"Width\":1920}}\n";
    QVERIFY(sandbox::writeFile(options.settings + kConfigName, saved));
    Twin twin;
    QVERIFY(twin.show());
    const QPoint save = twin.middleOf("ApplyButton");
    twin.hide();
    startDesktop();
    if (QTest::currentTestFailed()) {
        return;
    }
    QVERIFY(logged("[KORVistrel] Camera S/N 30100009 is not connected"));
    QVERIFY(QFile::remove(options.settings + kConfigName));
    window.click(save);
    QVERIFY(answerBox("^Information$"));
    QCOMPARE(sandbox::readFile(options.settings + kConfigName), saved);
    QVERIFY(closeWindow());
    QCOMPARE(serviceCalls().last(), QString("systemctl is-enabled kor_vistrel_cli.service"));
    QVERIFY2(log.contains("[WARNING]"), log);
}

// The headless program streams with one of the two cameras; the window works with the other one.
void DesktopTest::cameraOfAnotherProcessIsLeftOut()
{
    sandbox::Options others = options;
    others.settings = folder->filePath("others");
    QVERIFY(QDir().mkdir(others.settings));
    QVERIFY(sandbox::writeFile(folder->filePath("others.json"), rig(kLeft, kOther)));
    others.environment.insert("KOR_RIG", folder->filePath("others.json"));
    const QString configuration = QStringLiteral(
                                      "{\"101234567\":{\"FPS\":15,\"HDR\":0,\"Height\":600,"
                                      "\"IMU\":true,\"Left\":%1,\"Port\":%2,\"Right\":%3,"
                                      "\"Width\":960}}\n")
                                      .arg(kLeft)
                                      .arg(port)
                                      .arg(kOther);
    QVERIFY(sandbox::writeFile(others.settings + kConfigName, configuration.toLatin1()));
    QProcess service;
    service.setStandardErrorFile(QProcess::nullDevice());
    sandbox::prepare(service, others, QStringLiteral(KOR_VISTREL), {"--cli"});
    service.start();
    QVERIFY(service.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(serves(port), kLimitMs);

    startDesktop();
    if (!QTest::currentTestFailed()) {
        QVERIFY2(log.contains("[KORVistrel] Camera S/N 30100001 is not available"), log);
        QVERIFY2(log.contains("[KORVistrel] Found :  1  available cameras"), log);
        QVERIFY2(!log.contains("[KORVistrel] Opening camera  0"), log);
        QVERIFY(closeWindow());
        QVERIFY(serves(port));  // it was left alone
    }
    service.kill();
    service.waitForFinished();
}

QTEST_MAIN(DesktopTest)
#include "desktop_test.moc"
