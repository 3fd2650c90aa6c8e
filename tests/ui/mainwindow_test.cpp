// SPDX-License-Identifier: Apache-2.0
// The main window, on real widgets; systemctl and sudo are stood in for.
#include "ui/mainwindow.h"

#include <QAbstractItemView>
#include <QCheckBox>
#include <QComboBox>
#include <QDateTime>
#include <QGridLayout>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTest>
#include <QToolButton>
#include <QWheelEvent>
#include <QWindow>
#include <algorithm>
#include <memory>
#include <optional>
#include <random>

#include "tests/sandbox/sandbox.h"
#include "tests/support/messagelog.h"
#include "tests/ui/messageboxes.h"
#include "tests/ui/metaobjects.h"
#include "tests/ui/widgetfonts.h"
#include "ui/glwidget.h"
#include "ui/style.h"
#include "ui/waitnotice.h"

namespace {

// What the system's source of randomness says, if the test wants to say it.
std::optional<unsigned int> chosenSeed;

}  // namespace

// Takes the place of the standard library's.
std::random_device::result_type std::random_device::_M_getval()
{
    return chosenSeed ? *chosenSeed : QRandomGenerator::system()->generate();
}

namespace {

constexpr int kLeftCamera = 30123456;
constexpr int kRightCamera = 30123457;
const QStringList kSerials{"30123456", "30123457"};
const tq::MODEL kUnknownModel = tq::MODEL(4);

// Notes what is drawn instead of drawing it, and gives out identities that the test chose.
class Window : public MainWindow {
public:
    QStringList drawn;
    mutable QStringList identities;
    qint64 timeMs = 1'000'000;
    bool connects = true;

    template <typename Widget>
    Widget* part(const char* name) const
    {
        return findChild<Widget*>(QLatin1String(name));
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

protected:
    void drawPreview(CameraWidget& panel, const tq::Mat&) override
    {
        drawn.append(QString::number(panel.getInfos().serial_number));
    }
    QString makeIdentity() const override
    {
        return identities.isEmpty() ? MainWindow::makeIdentity() : identities.takeFirst();
    }
    qint64 currentTimeMs() const override { return timeMs; }
    bool connectEditor(VirtualCamHandler* editor) override
    {
        return connects && MainWindow::connectEditor(editor);
    }
};

CameraInfos camera(int serial, int width = 1920, int height = 1200)
{
    CameraInfos infos;
    infos.serial_number = serial;
    infos.model = sdk::kSoloGs;
    infos.width = width;
    infos.height = height;
    infos.fps = 30;
    infos.hasMCU = true;
    infos.hdr = true;
    return infos;
}

void attach(MainWindow& window, const CameraInfos& infos)
{
    const int serial = static_cast<int>(infos.serial_number);
    window.addCameraWidget(serial);
    window.updateCameraWidget(serial, infos);
}

VirtualCameraInfos record(std::uint64_t virtualSerial, std::uint64_t left = kLeftCamera,
                          std::uint64_t right = kRightCamera)
{
    VirtualCameraInfos infos;
    infos.virtualSerialNumber = virtualSerial;
    infos.leftSerialNumber = left;
    infos.rightSerialNumber = right;
    infos.port = 34560;
    infos.width = 960;
    infos.height = 600;
    infos.fps = 60;
    infos.imu = true;
    infos.hdr = 1;
    return infos;
}

tq::Mat frame(unsigned long width = 1920, unsigned long height = 1200)
{
    tq::Mat image;
    image.alloc(width, height, sdk::kYuyv, sdk::kHostMemory);
    return image;
}

template <typename Widget>
Widget* rowPart(const VirtualCamHandler* row, const char* name)
{
    return row->findChild<Widget*>(QLatin1String(name));
}

// As the windowing system does: a control whose policy says so gets focus.
void turnWheel(QWidget* control, int angle)
{
    const QPoint center = control->rect().center();
    QWindow* const window = control->window()->windowHandle();
    QWheelEvent event(control->mapTo(control->window(), center), control->mapToGlobal(center),
                      QPoint(), QPoint(0, angle), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase,
                      false);
    QSpontaneKeyEvent::setSpontaneous(&event);
    qApp->notify(window, &event);  // sendEvent() would take that back
}

QStringList texts(const QComboBox* list)
{
    QStringList all;
    for (int i = 0; i < list->count(); ++i) {
        all << list->itemText(i);
    }
    return all;
}

}  // namespace

class MainWindowTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void signalsAndSlotsInOrder();
    void formHasItsTexts_data();
    void formHasItsTexts();
    void formHasItsSizes();
    void formHasItsLayouts();
    void stylesByRole();
    void signOfRemovalIsSeen();
    void entriesOfListsHaveRoom();
    void signsOfBoxesHaveOneSize();
    void shownByItsConstructor();
    void switchShowsTheServicesState_data();
    void switchShowsTheServicesState();

    void resolutionsOfAModel_data();
    void resolutionsOfAModel();
    void noModelEmptiesTheLists();
    void frameRatesOfAResolution_data();
    void frameRatesOfAResolution();
    void frameRatesFollowTheResolution();
    void applyAnnouncesTheSettings();
    void applyWithoutFrameRate();
    void applyWithoutResolution();
    void currentSettings();
    void currentSettingsWithoutLists();
    void selectedSettingsAnnounceNothing();
    void selectingSettings();
    void settingsThatAreNotListed();
    void hdrTellsEqualSizesApart();
    void frameRateIndexIsFoundBeforeTheResolutionChanges();
    void frameRateIndexIsBoundByTheResolutions();

    void identityIsAUuid();
    void takenIdentityIsDrawnAgain();
    void firstRowsGetTheirPorts();
    void addedRowOffersTheSerials();
    void rowsAreAddedWithSignalsBlocked();
    void rowFromConfiguration();
    void rowFromConfigurationWaitsForAbsentCameras();
    void rowFromConfigurationIsCheckedWithAbsentCameras();
    void rowFromConfigurationWithOneCameraTwice();
    void rowsMayDrawTheSameSerial();
    void rowsForwardTheirSignals();
    void rowsThatCannotBeConnected();
    void rowIsRemovedByItsButton();
    void removingARowIsTold();
    void unknownRowIsNotRemoved();
    void serialListClearsChoices();
    void choicesAreRestoredSilently();
    void awaitedCamerasStayInTheRecords();
    void newRowIsScrolledIntoView_data();
    void newRowIsScrolledIntoView();
    void tabGoesThroughTheRows();
    void wheelScrollsTheRows();
    void wheelTurnsWhatHasFocus();
    void recordsComeInTheOrderOfTheKeys();
    void recordsTakeTheLeftCamerasSettings();
    void recordsOfDifferentSizesAreLeftOut();
    void recordsWithoutCamerasTakeTheGlobalSettings();
    void recordsWithoutAnythingKeepWhatWasLoaded();
    void recordsKeepWhatTheirCamerasHad();
    void anotherLeftCameraBringsItsOwnImu();
    void recordsWithABlankFrameRateTakeThatOfTheCameras();
    void recordToStream();
    void recordToStreamNeedsBothCameras_data();
    void recordToStreamNeedsBothCameras();
    void streamingStatusByShownSerial();
    void stoppingWalksTheKeys();
    void pairsResolution();

    void panelPerCamera();
    void clockIsTheSystems();
    void removedCameraIsForgotten();
    void framesAreGatedPerCamera();
    void previewGoesOnWhenTheClockIsSetBack();
    void framesThatAreDropped_data();
    void framesThatAreDropped();
    void closedCameraShowsNoPicture();
    void unknownSerialIsRemembered();
    void reloadRemovesThePanels();
    void noCameraLabel();
    void picturesAreSeenInFull_data();
    void picturesAreSeenInFull();
    void controlsFitTheWindow_data();
    void controlsFitTheWindow();

    void saveOnlyAsks();
    void switchingTheService_data();
    void switchingTheService();
    void failedSwitchShowsTheTruth();
    void waitIsShown();
    void footLineSaysOneThingAtATime();
    void remarkPasses();
    void footLineIsReadInASmallWindow();

private:
    std::unique_ptr<sandbox::StandIns> standIns;
};

void MainWindowTest::init()
{
    standIns = std::make_unique<sandbox::StandIns>();
    standIns->answer("systemctl", "disabled\n", "", 1);
    standIns->install();
}

void MainWindowTest::cleanup()
{
    standIns.reset();
}

// ---- The form ----------------------------------------------------------------------------------

void MainWindowTest::signalsAndSlotsInOrder()
{
    const QMetaObject& type = MainWindow::staticMetaObject;
    QCOMPARE(ownMethods(type, QMetaMethod::Signal),
             (QStringList{"askCameras()", "saveConf()", "activateStream(int)",
                          "disableStream(uint64_t)", "resolutionChanged(QList<int>,int,int,bool)",
                          "resolutionAndFPSChanged(int,int,int,bool)"}));
    QCOMPARE(
        ownMethods(type, QMetaMethod::Slot),
        (QStringList{"updateCameraWidget(int,CameraInfos)", "updateCameraFrame(int,tq::Mat)",
                     "addCameraWidget(int)", "removeCameraWidget(int)", "addVirtualCamHandler()",
                     "removeVirtualCamHandler(QString)", "updateSerialList(QStringList)",
                     "onResolutionChanged(QList<int>,int,int,bool)",
                     "UpdateStreamingStatus(ulong,bool)", "onGlobalResolutionChanged(QString)",
                     "onApplyGlobalCameraConfiguration()", "stopVirtualStreamers()",
                     "toggleDaemonService()", "requestCameras()", "requestConfSave()"}));
}

void MainWindowTest::formHasItsTexts_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("toolTip");
    const QString none;
    QTest::newRow("ReloadCamButton") << QByteArray("QPushButton") << "Reload" << none;
    QTest::newRow("noCameraLabel") << QByteArray("QLabel") << "  No camera found  " << none;
    QTest::newRow("ResolutionComboBox") << QByteArray("QComboBox") << none << "Target Resolution";
    QTest::newRow("FPSComboBox") << QByteArray("QComboBox") << none << "Target framerate";
    QTest::newRow("ApplyResFPSButton") << QByteArray("QPushButton") << "Apply" << none;
    QTest::newRow("addVCamButton") << QByteArray("QPushButton") << "+" << none;
    QTest::newRow("loadVCamButton") << QByteArray("QToolButton") << "..." << none;
    QTest::newRow("ApplyButton") << QByteArray("QPushButton") << "SAVE" << none;
    QTest::newRow("toggleDaemonButton")
        << QByteArray("QCheckBox") << "Enable Vistrel Deamon" << none;  // misspelt as ever
    QTest::newRow("camerasWidgetsScrollArea") << QByteArray("QScrollArea") << none << none;
    QTest::newRow("scrollArea") << QByteArray("QScrollArea") << none << none;
    QTest::newRow("centralWidget") << QByteArray("QWidget") << none << none;
    QTest::newRow("camerasWidgetscrollAreaWidgetContents") << QByteArray("QWidget") << none << none;
    QTest::newRow("scrollAreaWidgetContents") << QByteArray("QWidget") << none << none;
}

void MainWindowTest::formHasItsTexts()
{
    QFETCH(QByteArray, type);
    const Window window;
    const QWidget* const widget = window.part<QWidget>(QTest::currentDataTag());
    QVERIFY(widget != nullptr);
    QCOMPARE(QByteArray(widget->metaObject()->className()), type);
    QTEST(widget->property("text").toString(), "text");
    QTEST(widget->toolTip(), "toolTip");
}

void MainWindowTest::formHasItsSizes()
{
    const Window window;
    QCOMPARE(window.windowTitle(), QStringLiteral("KORTSolo Vistrel"));
    QCOMPARE(window.size(), QSize(1384, 779));
    QCOMPARE(window.minimumSize(), QSize(500, 500));
    QCOMPARE(window.part<QWidget>("ReloadCamButton")->minimumSize(), QSize(70, 22));
    QCOMPARE(window.part<QWidget>("ReloadCamButton")->maximumHeight(), 22);
    QCOMPARE(window.part<QWidget>("noCameraLabel")->minimumWidth(), 300);
    QCOMPARE(window.part<QWidget>("ResolutionComboBox")->minimumWidth(), 150);
    QCOMPARE(window.part<QWidget>("FPSComboBox")->minimumWidth(), 150);
    QCOMPARE(window.part<QWidget>("ApplyResFPSButton")->minimumSize(), QSize(75, 25));
    QCOMPARE(window.part<QWidget>("addVCamButton")->minimumSize(), QSize(22, 22));
    QCOMPARE(window.part<QWidget>("addVCamButton")->maximumSize(), QSize(22, 22));
    QCOMPARE(window.part<QWidget>("ApplyButton")->minimumHeight(), 22);
    QCOMPARE(window.part<QWidget>("ApplyButton")->maximumHeight(), 22);
}

void MainWindowTest::formHasItsLayouts()
{
    const Window window;
    const auto* const central = window.part<QGridLayout>("centralLayout");
    QVERIFY(central != nullptr);
    QCOMPARE(central->horizontalSpacing(), 20);
    QCOMPARE(central->verticalSpacing(), 20);
    QCOMPARE(central->contentsMargins(), QMargins(11, 11, 11, 11));
    QCOMPARE(central->rowStretch(0), 1);
    QCOMPARE(central->rowStretch(1), 0);
    const QList<QPair<const char*, int>> spacings{{"horizontalLayout", 6},
                                                  {"scrollAreaWidgetContentsHorizontalLayout", 10},
                                                  {"vCamVerticalLayout", 10},
                                                  {"horizontalLayout_2", 6},
                                                  {"scrollAreaWidgetContentsVerticalLayout", 10},
                                                  {"footer_layout", 6}};
    for (const auto& [name, spacing] : spacings) {
        const QBoxLayout* layout = nullptr;
        const QList<QBoxLayout*> all =
            window.centralWidget()->findChildren<QBoxLayout*>(QLatin1String(name));
        for (const QBoxLayout* const candidate : all) {
            // The editors' forms have layouts of the same names; there is no editor yet.
            layout = candidate;
        }
        QVERIFY2(layout != nullptr, name);
        QCOMPARE(layout->spacing(), spacing);
    }
    for (const char* const name :
         {"scrollAreaWidgetContentsHorizontalLayout", "scrollAreaWidgetContentsVerticalLayout"}) {
        QCOMPARE(window.part<QBoxLayout>(name)->contentsMargins(), QMargins(0, 0, 0, 0));
    }
    for (const char* const name : {"camerasWidgetsScrollArea", "scrollArea"}) {
        QVERIFY(window.part<QScrollArea>(name)->widgetResizable());
    }
    QCOMPARE(window.part<QBoxLayout>("scrollAreaWidgetContentsVerticalLayout")->count(), 1);
}

void MainWindowTest::stylesByRole()
{
    const Window window;
    const Style style;
    QCOMPARE(window.styleSheet(), style.mainWindow);
    QVERIFY(hasFont(window.part<QWidget>("noCameraLabel"), style.fontText));
    for (const char* const name : {"ResolutionComboBox", "FPSComboBox"}) {
        QCOMPARE(window.part<QWidget>(name)->styleSheet(), style.comboBox);
        QVERIFY2(hasFont(window.part<QWidget>(name), style.fontText), name);
    }
    for (const char* const name : {"ReloadCamButton", "ApplyResFPSButton", "addVCamButton",
                                   "loadVCamButton", "ApplyButton"}) {
        QCOMPARE(window.part<QWidget>(name)->styleSheet(), style.pushButton);
        QVERIFY2(hasFont(window.part<QWidget>(name), style.fontButton), name);
    }
    for (const char* const name : {"camerasWidgetsScrollArea", "scrollArea"}) {
        const auto* const area = window.part<QScrollArea>(name);
        for (const QScrollBar* const bar :
             {area->verticalScrollBar(), area->horizontalScrollBar()}) {
            QCOMPARE(bar->styleSheet(), style.scrollBar);
            QCOMPARE(bar->singleStep(), 5);
        }
    }
    QCOMPARE(window.part<QWidget>("toggleDaemonButton")->styleSheet(), style.checkBox);
}

void MainWindowTest::signOfRemovalIsSeen()
{
    Window window;
    window.addVirtualCamHandler();
    auto* const button = rowPart<QPushButton>(window.rows().first(), "RemoveButton");
    button->ensurePolished();
    const Style style;
    QCOMPARE(button->font().family(), style.fontBanner.family());
    QCOMPARE(button->font().pointSize(), style.fontBanner.pointSize());
    QVERIFY(button->font().pointSize() >
            rowPart<QLabel>(window.rows().first(), "label")->font().pointSize());
}

void MainWindowTest::entriesOfListsHaveRoom()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.updateSerialList(kSerials);
    window.addVirtualCamHandler();
    for (const char* const name :
         {"ResolutionComboBox", "FPSComboBox", "LeftSensorSNChoice", "RightSensorSNChoice"}) {
        auto* const list = window.part<QComboBox>(name);
        list->showPopup();
        QVERIFY2(list->view()->visualRect(list->model()->index(0, 0)).height() >= 24, name);
        list->hidePopup();
    }
}

// The sign is not enlarged where the toolkit has room for a larger one.
void MainWindowTest::signsOfBoxesHaveOneSize()
{
    Window window;
    QMessageBox box(QMessageBox::Warning, "Warning", "text", QMessageBox::Ok, &window);
    box.ensurePolished();
    box.setIcon(QMessageBox::Warning);
    const QPixmap sign = box.iconPixmap();
    QVERIFY(!sign.isNull());
    QCOMPARE(qRound(sign.width() / sign.devicePixelRatio()), 32);
}

void MainWindowTest::shownByItsConstructor()
{
    const Window window;
    QVERIFY(window.isVisible());
    QVERIFY(!window.part<QWidget>("loadVCamButton")->isVisible());
    QVERIFY(!window.part<QWidget>("noCameraLabel")->isVisible());
    QVERIFY(window.part<QWidget>("ApplyButton")->isVisible());
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->count(), 0);
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->count(), 0);
}

void MainWindowTest::switchShowsTheServicesState_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<bool>("checked");
    QTest::newRow("enabled") << QByteArray("enabled\n") << true;
    QTest::newRow("enabled-runtime") << QByteArray("enabled-runtime\n") << true;
    QTest::newRow("disabled") << QByteArray("disabled\n") << false;
    QTest::newRow("masked") << QByteArray("masked\n") << false;
    QTest::newRow("unknown") << QByteArray() << false;
}

void MainWindowTest::switchShowsTheServicesState()
{
    QFETCH(QByteArray, answer);
    standIns->answer("systemctl", answer);
    const Window window;
    QTEST(window.part<QCheckBox>("toggleDaemonButton")->isChecked(), "checked");
    QCOMPARE(standIns->calls(), QStringList{"systemctl is-enabled kor_vistrel_cli.service"});
}

// ---- Global settings ---------------------------------------------------------------------------

void MainWindowTest::resolutionsOfAModel_data()
{
    QTest::addColumn<int>("model");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("global shutter") << 30 << QStringList{"1920 x 1200", "1920 x 1080", "960 x 600"};
    QTest::newRow("UHD") << 31 << QStringList{"1920 x 1080", "1920 x 1200",     "3200 x 1800",
                                              "3840 x 2160", "1920 x 1200 HDR", "3200 x 1800 HDR"};
    QTest::newRow("another model") << static_cast<int>(kUnknownModel) << QStringList();
}

void MainWindowTest::resolutionsOfAModel()
{
    QFETCH(int, model);
    QFETCH(QStringList, expected);
    Window window;
    window.setGlobalCameraConfigurationContent(tq::MODEL(model));
    const auto* const list = window.part<QComboBox>("ResolutionComboBox");
    QCOMPARE(texts(list), expected);
    for (int i = 0; i < expected.size(); ++i) {
        const QStringList words = expected.at(i).split(QLatin1Char(' '));
        QCOMPARE(list->itemData(i).toSize(), QSize(words.at(0).toInt(), words.at(2).toInt()));
    }
}

void MainWindowTest::noModelEmptiesTheLists()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    QVERIFY(window.part<QComboBox>("FPSComboBox")->count() > 0);
    window.setGlobalCameraConfigurationContent(sdk::kNoModel);
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->count(), 0);
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->count(), 0);
}

void MainWindowTest::frameRatesOfAResolution_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<bool>("hdr");
    QTest::addColumn<QList<int>>("rates");
    QTest::newRow("1920 x 1200 HDR") << 1920 << 1200 << true << QList<int>{30};
    QTest::newRow("1920 x 1200") << 1920 << 1200 << false << QList<int>{15, 60, 30};
    QTest::newRow("1920 x 1080") << 1920 << 1080 << false << QList<int>{15, 60, 30};
    QTest::newRow("1920 x 1080 HDR") << 1920 << 1080 << true << QList<int>{15, 60, 30};
    QTest::newRow("2999") << 2999 << 10 << false << QList<int>{15, 60, 30};
    QTest::newRow("3000") << 3000 << 10 << false << QList<int>{15};
    QTest::newRow("3840 x 2160") << 3840 << 2160 << false << QList<int>{15};
    QTest::newRow("3200 x 1800 HDR") << 3200 << 1800 << true << QList<int>{15};
}

void MainWindowTest::frameRatesOfAResolution()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(bool, hdr);
    QFETCH(QList<int>, rates);
    Window window;
    window.setAvailableFramerates(width, height, hdr);
    const auto* const list = window.part<QComboBox>("FPSComboBox");
    QCOMPARE(list->count(), rates.size());
    for (int i = 0; i < rates.size(); ++i) {
        QCOMPARE(list->itemText(i), QStringLiteral("%1 frames/s").arg(rates.at(i)));
        QCOMPARE(list->itemData(i), QVariant(rates.at(i)));
    }
    QCOMPARE(list->currentIndex(), 0);
}

void MainWindowTest::frameRatesFollowTheResolution()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    auto* const resolutions = window.part<QComboBox>("ResolutionComboBox");
    const auto* const rates = window.part<QComboBox>("FPSComboBox");
    QCOMPARE(rates->count(), 3);
    resolutions->setCurrentIndex(3);  // 3840 x 2160
    QCOMPARE(texts(rates), QStringList{"15 frames/s"});
    resolutions->setCurrentIndex(4);  // 1920 x 1200 HDR
    QCOMPARE(texts(rates), QStringList{"30 frames/s"});
    resolutions->setCurrentIndex(1);  // 1920 x 1200
    QCOMPARE(texts(rates), (QStringList{"15 frames/s", "60 frames/s", "30 frames/s"}));
    window.part<QComboBox>("FPSComboBox")->clear();
    window.onGlobalResolutionChanged(QString());  // the text does not matter
    QCOMPARE(rates->count(), 3);
}

void MainWindowTest::applyAnnouncesTheSettings()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.part<QComboBox>("ResolutionComboBox")->setCurrentIndex(4);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    QTest::mouseClick(window.part<QWidget>("ApplyResFPSButton"), Qt::LeftButton);
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{30, 1920, 1200, true}));
}

void MainWindowTest::applyWithoutFrameRate()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    window.part<QComboBox>("FPSComboBox")->setCurrentIndex(-1);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    const MessageLog log;
    window.onApplyGlobalCameraConfiguration();
    QCOMPARE(announced.count(), 0);
    QCOMPARE(log.debugMessages(QString()), QStringList{"Invalid camera configuration selection."});
}

void MainWindowTest::applyWithoutResolution()
{
    Window window;
    window.setAvailableFramerates(1920, 1200, false);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    const MessageLog log;
    QTest::mouseClick(window.part<QWidget>("ApplyResFPSButton"), Qt::LeftButton);
    QCOMPARE(announced.count(), 0);
    QCOMPARE(log.debugMessages(QString()), QStringList{"Invalid camera configuration selection."});
}

void MainWindowTest::currentSettings()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.part<QComboBox>("ResolutionComboBox")->setCurrentIndex(5);
    int fps = 0;
    int width = 0;
    int height = 0;
    bool hdr = false;
    window.getCurrentSettings(fps, width, height, hdr);
    QCOMPARE(fps, 15);
    QCOMPARE(width, 3200);
    QCOMPARE(height, 1800);
    QCOMPARE(hdr, true);
}

void MainWindowTest::currentSettingsWithoutLists()
{
    Window window;
    int fps = 11;
    int width = 12;
    int height = 13;
    bool hdr = true;
    window.getCurrentSettings(fps, width, height, hdr);
    QCOMPARE(fps, 11);
    QCOMPARE(width, 12);
    QCOMPARE(height, 13);
    QCOMPARE(hdr, false);  // the only one that is always set
}

void MainWindowTest::selectedSettingsAnnounceNothing()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    window.setCurrentSettings(15, 1920, 1200, false);
    QCOMPARE(announced.count(), 0);
    window.setCurrentSettings(17, 1111, 1200, false);  // neither is listed
    QCOMPARE(announced.count(), 0);
    window.setCurrentSettings(17, 1920, 1200, false);  // one is current, the other not listed
    QCOMPARE(announced.count(), 0);
}

void MainWindowTest::selectingSettings()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    window.setCurrentSettings(60, 960, 600, false);
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->currentText(),
             QStringLiteral("960 x 600"));
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->currentText(), QStringLiteral("60 frames/s"));
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{60, 960, 600, false}));
}

void MainWindowTest::settingsThatAreNotListed()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    window.setCurrentSettings(30, 0, 0, false);  // a first run: no size is stored
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->currentIndex(), 0);
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->currentText(), QStringLiteral("30 frames/s"));
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{30, 0, 0, false}));  // as given, not as selected
}

void MainWindowTest::hdrTellsEqualSizesApart()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.setCurrentSettings(15, 1920, 1200, true);
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->currentIndex(), 4);
    window.setCurrentSettings(15, 1920, 1200, false);
    QCOMPARE(window.part<QComboBox>("ResolutionComboBox")->currentIndex(), 1);
}

void MainWindowTest::frameRateIndexIsFoundBeforeTheResolutionChanges()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    auto* const rates = window.part<QComboBox>("FPSComboBox");
    // 30 is the third of three now; the new resolution's list has one, so nothing is selected.
    window.setCurrentSettings(30, 1920, 1200, true);
    QCOMPARE(texts(rates), QStringList{"30 frames/s"});
    QCOMPARE(rates->currentIndex(), -1);
    // The other way round: 15 is the first of one and stays the first of three.
    window.setCurrentSettings(30, 3840, 2160, false);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    window.setCurrentSettings(60, 1920, 1080, false);  // 60 is not in the list of now
    QCOMPARE(rates->currentText(), QStringLiteral("15 frames/s"));
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{60, 1920, 1080, false}));
}

void MainWindowTest::frameRateIndexIsBoundByTheResolutions()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    auto* const resolutions = window.part<QComboBox>("ResolutionComboBox");
    resolutions->removeItem(2);
    resolutions->removeItem(1);
    QSignalSpy announced(&window, &MainWindow::resolutionAndFPSChanged);
    // One resolution: the second frame rate is beyond the bound, although there are three.
    window.setCurrentSettings(60, 1920, 1200, false);
    QCOMPARE(window.part<QComboBox>("FPSComboBox")->currentIndex(), 0);
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first(), (QVariantList{60, 1920, 1200, false}));
}

// ---- Editors -----------------------------------------------------------------------------------

void MainWindowTest::identityIsAUuid()
{
    Window window;
    const QString identity = window.generateUniqueID();
    const QRegularExpression form(
        "^\\{[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}\\}$");
    QVERIFY2(form.match(identity).hasMatch(), qPrintable(identity));
    QCOMPARE(identity.size(), 38);
    QVERIFY(window.generateUniqueID() != identity);
}

void MainWindowTest::takenIdentityIsDrawnAgain()
{
    Window window;
    window.identities = QStringList{"{a}"};
    window.addVirtualCamHandler();
    window.identities = QStringList{"{b}"};
    window.addVirtualCamHandler();
    window.identities = QStringList{"{a}", "{b}", "{a}", "{c}", "{d}"};
    QCOMPARE(window.generateUniqueID(), QStringLiteral("{c}"));
    QCOMPARE(window.identities, QStringList{"{d}"});
}

void MainWindowTest::firstRowsGetTheirPorts()
{
    Window window;
    auto* const add = window.part<QPushButton>("addVCamButton");
    for (const int port : {34000, 34010, 34020}) {
        QTest::mouseClick(add, Qt::LeftButton);
        QCOMPARE(rowPart<QSpinBox>(window.rows().last(), "RTPPortChoice")->value(), port);
    }
    QCOMPARE(window.rows().size(), 3);
    const auto* const layout = window.part<QLayout>("scrollAreaWidgetContentsVerticalLayout");
    QCOMPARE(layout->count(), 4);
    QVERIFY(layout->itemAt(3)->spacerItem() != nullptr);  // rows go before the last item
}

void MainWindowTest::addedRowOffersTheSerials()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandler();
    for (const char* const name : {"LeftSensorSNChoice", "RightSensorSNChoice"}) {
        const auto* const list = rowPart<QComboBox>(window.rows().first(), name);
        QCOMPARE(texts(list), kSerials);
        QCOMPARE(list->currentIndex(), -1);
    }
    QCOMPARE(rowPart<QLineEdit>(window.rows().first(), "VirtualCamSNEdit")->text(), QString());
}

void MainWindowTest::rowsAreAddedWithSignalsBlocked()
{
    Window window;
    window.updateSerialList(kSerials);
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.addVirtualCamHandler();
    QCOMPARE(disabled.count(), 0);  // although choosing the cameras asks to stop
    QVERIFY(!window.signalsBlocked());
}

void MainWindowTest::rowFromConfiguration()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const VirtualCamHandler* const row = window.rows().first();
    QCOMPARE(rowPart<QComboBox>(row, "LeftSensorSNChoice")->currentText(), kSerials.at(0));
    QCOMPARE(rowPart<QComboBox>(row, "RightSensorSNChoice")->currentText(), kSerials.at(1));
    QCOMPARE(rowPart<QSpinBox>(row, "RTPPortChoice")->value(), 34560);
    QCOMPARE(rowPart<QLineEdit>(row, "VirtualCamSNEdit")->text(), QStringLiteral("101234567"));
    // The number that the row's signals carry is still 0.
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    rowPart<QComboBox>(row, "LeftSensorSNChoice")->setCurrentIndex(-1);
    rowPart<QComboBox>(row, "LeftSensorSNChoice")->setCurrentIndex(0);
    QCOMPARE(disabled.count(), 1);
    QCOMPARE(disabled.first().first().toULongLong(), qulonglong(0));
}

void MainWindowTest::rowFromConfigurationWaitsForAbsentCameras()
{
    Window window;
    window.updateSerialList({kSerials.at(0)});
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const VirtualCamHandler* const row = window.rows().first();
    const auto* const left = rowPart<QComboBox>(row, "LeftSensorSNChoice");
    const auto* const right = rowPart<QComboBox>(row, "RightSensorSNChoice");
    QCOMPARE(left->currentText(), kSerials.at(0));
    QVERIFY(!left->property("waiting").toBool());
    // Dimmed, in the place of a choice, and no choice.
    QCOMPARE(texts(right), QStringList{kSerials.at(0)});
    QCOMPARE(right->currentIndex(), -1);
    QCOMPARE(right->placeholderText(), kSerials.at(1));
    QVERIFY(right->property("waiting").toBool());
    QCOMPARE(row->getInfos().rightSerialNumber, std::uint64_t(0));
    QCOMPARE(window.getVirtualCameras().first().rightSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(disabled.count(), 0);
}

void MainWindowTest::rowFromConfigurationIsCheckedWithAbsentCameras()
{
    MessageBoxes boxes;
    Window window;
    window.updateSerialList({kSerials.at(0)});
    window.addVirtualCamHandlerFromConfig(record(101234567, kLeftCamera, 31000001));
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("Unable to mix KOR Solos that have different sensors: 30123456 and "
                            "31000001"));
    // The refused camera is not waited for either.
    QCOMPARE(window.getVirtualCameras().first().rightSerialNumber, std::uint64_t(0));
}

void MainWindowTest::rowFromConfigurationWithOneCameraTwice()
{
    MessageBoxes boxes;
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567, kLeftCamera, kLeftCamera));
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("The same camera was selected twice: 30123456"));
    QCOMPARE(window.rows().first()->getInfos().rightSerialNumber, std::uint64_t(0));
}

// Numbers are drawn without a look at the other rows, deliberately.
void MainWindowTest::rowsMayDrawTheSameSerial()
{
    Window window;
    QStringList drawn;
    for (const unsigned int seed : {42u, 42u, 43u}) {
        window.addVirtualCamHandler();
        chosenSeed = seed;
        rowPart<QPushButton>(window.rows().last(), "VirtualSNGenerateButton")->click();
        chosenSeed.reset();
        drawn << rowPart<QLineEdit>(window.rows().last(), "VirtualCamSNEdit")->text();
    }
    QCOMPARE(drawn.at(0).size(), 9);
    QCOMPARE(drawn.at(1), drawn.at(0));
    QVERIFY(drawn.at(2) != drawn.at(0));
    QCOMPARE(window.getVirtualCameras().size(), 3);  // both are accepted
}

void MainWindowTest::rowsForwardTheirSignals()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandler();
    window.addVirtualCamHandlerFromConfig(record(101234567));
    QSignalSpy activated(&window, &MainWindow::activateStream);
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    QSignalSpy resolution(&window, &MainWindow::resolutionChanged);
    for (VirtualCamHandler* const row : window.rows()) {
        row->setVirtualSN(100000001);
        row->requestStreamTest();
        emit row->disableStream(77);
        emit row->resolutionChanged({1, 2}, 3, 4, true);
    }
    QCOMPARE(activated.count(), 2);
    QCOMPARE(activated.last().first().toInt(), 100000001);
    QCOMPARE(disabled.count(), 2);
    QCOMPARE(disabled.last().first().toULongLong(), qulonglong(77));
    QCOMPARE(resolution.count(), 2);
    QCOMPARE(resolution.last().at(0).value<QList<int>>(), (QList<int>{1, 2}));
    QCOMPARE(resolution.last().mid(1), (QVariantList{3, 4, true}));
}

void MainWindowTest::rowsThatCannotBeConnected()
{
    Window window;
    window.connects = false;
    {
        const MessageLog log;
        window.addVirtualCamHandler();
        QCOMPARE(log.debugMessages(QString()), QStringList{"FAILED TO CONNECT STREAM SIGNAL"});
    }
    const MessageLog log;
    window.addVirtualCamHandlerFromConfig(record(101234567, 0, 0));
    // Three N, deliberately.
    QCOMPARE(log.debugMessages(QString()), QStringList{"FAILED TO CONNNECT STREAM SIGNAL"});
    QCOMPARE(window.rows().size(), 2);  // the rows are kept
    QCOMPARE(window.getVirtualCameras().size(), 2);
    QVERIFY(!window.signalsBlocked());
}

void MainWindowTest::rowIsRemovedByItsButton()
{
    Window window;
    window.addVirtualCamHandler();
    window.addVirtualCamHandler();
    const QPointer<VirtualCamHandler> first(window.rows().first());
    QTest::mouseClick(rowPart<QPushButton>(first, "RemoveButton"), Qt::LeftButton);
    QCOMPARE(window.rows().size(), 1);
    QCOMPARE(window.getVirtualCameras().size(), 1);
    QTRY_VERIFY(first.isNull());
    // The next row's port follows from how many rows there are, not from their ports.
    window.addVirtualCamHandler();
    QCOMPARE(rowPart<QSpinBox>(window.rows().last(), "RTPPortChoice")->value(), 34010);
}

void MainWindowTest::removingARowIsTold()
{
    Window window;
    window.addVirtualCamHandler();
    window.addVirtualCamHandler();
    QList<int> rowsWhenTold;
    window.onRowRemoved([&] { rowsWhenTold.append(window.editorRecords().size()); });
    QSignalSpy disabled(&window, SIGNAL(disableStream(uint64_t)));
    VirtualCamHandler* const row = window.rows().first();
    row->setVirtualSN(101234567);
    row->UpdateStreamingStatus(true);
    row->triggerRemove();
    QCOMPARE(rowsWhenTold, QList<int>{1});
    QCOMPARE(disabled.count(), 0);  // stopping its stream is up to who was told
    window.removeVirtualCamHandler(QStringLiteral("{unknown}"));
    QCOMPARE(rowsWhenTold.size(), 1);
}

void MainWindowTest::unknownRowIsNotRemoved()
{
    Window window;
    window.addVirtualCamHandler();
    window.removeVirtualCamHandler(QStringLiteral("{unknown}"));
    QCOMPARE(window.rows().size(), 1);
}

void MainWindowTest::serialListClearsChoices()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.updateSerialList({"30123456", "30123457", "30123458"});
    QCOMPARE(window.rows().first()->getInfos().leftSerialNumber, std::uint64_t(0));
    QCOMPARE(window.rows().first()->getInfos().rightSerialNumber, std::uint64_t(0));
    QCOMPARE(rowPart<QComboBox>(window.rows().first(), "LeftSensorSNChoice")->count(), 3);
}

void MainWindowTest::choicesAreRestoredSilently()
{
    MessageBoxes boxes;
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.addVirtualCamHandlerFromConfig(record(101234568, kRightCamera, kLeftCamera));
    const QMap<QString, VirtualCameraInfos> former = window.editorRecords();
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    window.updateSerialList({kSerials.at(1)});
    window.restoreSerialChoices(former);
    QCOMPARE(window.rows().at(0)->getInfos().leftSerialNumber, std::uint64_t(0));
    QCOMPARE(window.rows().at(0)->getInfos().rightSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(window.rows().at(1)->getInfos().leftSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(window.rows().at(1)->getInfos().rightSerialNumber, std::uint64_t(0));
    QCOMPARE(disabled.count(), 0);
    QCOMPARE(boxes.seen.size(), 0);
}

void MainWindowTest::awaitedCamerasStayInTheRecords()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const QMap<QString, VirtualCameraInfos> former = window.editorRecords();
    window.updateSerialList({});
    QCOMPARE(window.getVirtualCameras().first().leftSerialNumber, std::uint64_t(0));
    window.restoreSerialChoices(former);
    QCOMPARE(window.rows().first()->getInfos().leftSerialNumber, std::uint64_t(0));
    QCOMPARE(window.getVirtualCameras().first().leftSerialNumber, std::uint64_t(kLeftCamera));
    QCOMPARE(window.getVirtualCameras().first().rightSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(window.editorRecords().first().leftSerialNumber, std::uint64_t(kLeftCamera));
    // It cannot be streamed, not even when the panels are there already.
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera));
    QCOMPARE(window.getVirtualCameraInfo(101234567).virtualSerialNumber, std::uint64_t(0));
}

void MainWindowTest::newRowIsScrolledIntoView_data()
{
    controlsFitTheWindow_data();
}

void MainWindowTest::newRowIsScrolledIntoView()
{
    QFETCH(QSize, size);
    Window window;
    window.resize(size);
    attach(window, camera(kLeftCamera));
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    auto* const area = window.part<QScrollArea>("scrollArea");
    for (int i = 0; i < 8; ++i) {
        window.part<QPushButton>("addVCamButton")->click();
        const VirtualCamHandler* const row = window.rows().last();
        const auto isSeen = [&] {
            const bool isPlaced = i == 0 || row->y() > window.rows().at(i - 1)->y();
            const int top = row->mapTo(area->viewport(), QPoint()).y();
            return isPlaced && top >= 0 && top + row->height() <= area->viewport()->height();
        };
        QTRY_VERIFY2(isSeen(), qPrintable(QString::number(i)));
        QCOMPARE(area->horizontalScrollBar()->value(), 0);
    }
    QVERIFY(area->verticalScrollBar()->value() > 0);
}

void MainWindowTest::tabGoesThroughTheRows()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.addVirtualCamHandler();
    window.addVirtualCamHandler();
    window.rows().at(1)->triggerRemove();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    window.part<QPushButton>("addVCamButton")->setFocus();
    QTRY_VERIFY(window.part<QPushButton>("addVCamButton")->hasFocus());
    QStringList expected{"addVCamButton"};
    for (int row = 0; row < 2; ++row) {
        for (const char* const name :
             {"VirtualCamSNEdit", "VirtualSNGenerateButton", "LeftSensorSNChoice",
              "RightSensorSNChoice", "RTPPortChoice", "TestButton", "RemoveButton"}) {
            expected << QStringLiteral("%1 %2").arg(row).arg(QLatin1String(name));
        }
    }
    expected << "toggleDaemonButton"
             << "ApplyButton";
    QStringList seen;
    for (int i = 0; i < expected.size(); ++i) {
        QWidget* const control = QApplication::focusWidget();
        auto* const row = qobject_cast<VirtualCamHandler*>(control->parentWidget());
        seen << (row == nullptr ? control->objectName()
                                : QStringLiteral("%1 %2")
                                      .arg(window.rows().indexOf(row))
                                      .arg(control->objectName()));
        QTest::keyClick(control, Qt::Key_Tab);
    }
    QCOMPARE(seen, expected);
}

void MainWindowTest::wheelScrollsTheRows()
{
    Window window;
    window.updateSerialList(kSerials);
    for (int i = 0; i < 11; ++i) {
        window.addVirtualCamHandlerFromConfig(record(101234567, kRightCamera, kLeftCamera));
    }
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    auto* const bar = window.part<QScrollArea>("scrollArea")->verticalScrollBar();
    QTRY_VERIFY(bar->maximum() > 100);
    const VirtualCamHandler* const row = window.rows().at(5);  // seen with the bar in the middle
    auto* const left = rowPart<QComboBox>(row, "LeftSensorSNChoice");
    auto* const right = rowPart<QComboBox>(row, "RightSensorSNChoice");
    auto* const port = rowPart<QSpinBox>(row, "RTPPortChoice");
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    for (QWidget* const control : QList<QWidget*>{left, right, port}) {
        for (const int angle : {-120, 120}) {
            bar->setValue(bar->maximum() / 2);
            turnWheel(control, angle);
            QCOMPARE(bar->value() > bar->maximum() / 2, angle < 0);
            QVERIFY(bar->value() != bar->maximum() / 2);
        }
        QVERIFY(!control->hasFocus());  // the wheel gives it none
    }
    QCOMPARE(row->getInfos().leftSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(row->getInfos().rightSerialNumber, std::uint64_t(kLeftCamera));
    QCOMPARE(row->getInfos().port, 34560u);
    QCOMPARE(disabled.count(), 0);
}

// The operator who chose a control means it.
void MainWindowTest::wheelTurnsWhatHasFocus()
{
    Window window;
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const VirtualCamHandler* const row = window.rows().first();
    auto* const port = rowPart<QSpinBox>(row, "RTPPortChoice");
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    port->setFocus();
    QTRY_VERIFY(port->hasFocus());
    turnWheel(port, 120);
    QCOMPARE(row->getInfos().port, 34561u);
}

void MainWindowTest::recordsComeInTheOrderOfTheKeys()
{
    Window window;
    for (const char* const identity : {"{m}", "{z}", "{a}"}) {
        window.identities = QStringList{QLatin1String(identity)};
        window.addVirtualCamHandler();
    }
    const QList<VirtualCamHandler*> rows = window.rows();
    for (int i = 0; i < rows.size(); ++i) {
        rows.at(i)->setVirtualSN(static_cast<unsigned int>(i + 1));
    }
    QList<std::uint64_t> serials;
    for (const VirtualCameraInfos& infos : window.getVirtualCameras()) {
        serials.append(infos.virtualSerialNumber);
    }
    QCOMPARE(serials, (QList<std::uint64_t>{3, 1, 2}));  // {a}, {m}, {z}
}

void MainWindowTest::recordsTakeTheLeftCamerasSettings()
{
    Window window;
    CameraInfos right = camera(kRightCamera);
    right.fps = 15;
    right.hasMCU = false;
    right.hdr = false;
    attach(window, camera(kLeftCamera));
    attach(window, right);
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    QCOMPARE(window.getVirtualCameras().size(), 1);
    const VirtualCameraInfos infos = window.getVirtualCameras().first();
    QCOMPARE(infos.virtualSerialNumber, std::uint64_t(101234567));
    QCOMPARE(infos.leftSerialNumber, std::uint64_t(kLeftCamera));
    QCOMPARE(infos.rightSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(infos.port, 34560u);
    QCOMPARE(infos.imu, true);
    QCOMPARE(infos.width, 1920);
    QCOMPARE(infos.height, 1200);
    QCOMPARE(infos.fps, 30);
    QCOMPARE(infos.hdr, 1);
    QVERIFY(!infos.reserved);
}

void MainWindowTest::recordsOfDifferentSizesAreLeftOut()
{
    Window window;
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera, 1920, 1080));
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    QCOMPARE(window.getVirtualCameras().size(), 0);
    QCOMPARE(window.getVirtualCameraInfo(101234567).virtualSerialNumber, std::uint64_t(0));
}

void MainWindowTest::recordsWithoutCamerasTakeTheGlobalSettings()
{
    Window window;
    attach(window, camera(kLeftCamera));
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.part<QComboBox>("ResolutionComboBox")->setCurrentIndex(4);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.addVirtualCamHandler();
    for (const VirtualCameraInfos& infos : window.getVirtualCameras()) {
        QCOMPARE(infos.width, 1920);
        QCOMPARE(infos.height, 1200);
        QCOMPARE(infos.fps, 30);
        QCOMPARE(infos.hdr, 1);
        QCOMPARE(infos.imu, infos.virtualSerialNumber != 0);
    }
    QCOMPARE(window.getVirtualCameras().size(), 2);
}

void MainWindowTest::recordsWithoutAnythingKeepWhatWasLoaded()
{
    Window window;
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const VirtualCameraInfos infos = window.getVirtualCameras().first();
    QCOMPARE(infos.leftSerialNumber, std::uint64_t(kLeftCamera));
    QCOMPARE(infos.rightSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(infos.width, 960);
    QCOMPARE(infos.height, 600);
    QCOMPARE(infos.fps, 60);
    QCOMPARE(infos.hdr, 1);
    QCOMPARE(infos.imu, true);
}

void MainWindowTest::recordsKeepWhatTheirCamerasHad()
{
    Window window;
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera));
    window.updateSerialList(kSerials);
    window.addVirtualCamHandler();
    window.rows().first()->setSerial(0, kLeftCamera);
    window.rows().first()->setSerial(1, kRightCamera);
    // A reload that finds none of them.
    window.requestCameras();
    const QMap<QString, VirtualCameraInfos> former = window.editorRecords();
    window.updateSerialList({});
    window.restoreSerialChoices(former);
    const VirtualCameraInfos infos = window.getVirtualCameras().first();
    QCOMPARE(infos.leftSerialNumber, std::uint64_t(kLeftCamera));
    QCOMPARE(infos.width, 1920);
    QCOMPARE(infos.height, 1200);
    QCOMPARE(infos.fps, 30);
    QCOMPARE(infos.hdr, 1);
    QCOMPARE(infos.imu, true);
}

void MainWindowTest::anotherLeftCameraBringsItsOwnImu()
{
    Window window;
    CameraInfos plain = camera(kRightCamera);
    plain.hasMCU = false;
    attach(window, plain);
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567, kLeftCamera, 30123458));
    QCOMPARE(window.getVirtualCameras().first().imu, true);
    window.rows().first()->setSerial(0, kRightCamera);
    QCOMPARE(window.getVirtualCameras().first().imu, false);
    window.removeCameraWidget(kRightCamera);
    QCOMPARE(window.getVirtualCameras().first().imu, false);
    window.rows().first()->setSerial(0, kLeftCamera);
    QCOMPARE(window.getVirtualCameras().first().imu, true);
}

void MainWindowTest::recordsWithABlankFrameRateTakeThatOfTheCameras()
{
    Window window;
    CameraInfos left = camera(kLeftCamera);
    left.fps = 25;
    attach(window, left);
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.part<QComboBox>("FPSComboBox")->setCurrentIndex(-1);
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));  // with 60
    QCOMPARE(window.getVirtualCameras().first().fps, 25);
    // Without any camera it is the last one that the row's own camera had, or the loaded one.
    window.identities = QStringList{"{!}"};
    window.addVirtualCamHandlerFromConfig(record(101234568, kRightCamera, kLeftCamera));
    window.removeCameraWidget(kLeftCamera);
    QCOMPARE(window.getVirtualCameras().at(0).fps, 60);
    QCOMPARE(window.getVirtualCameras().at(1).fps, 25);
}

void MainWindowTest::recordToStream()
{
    Window window;
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera));
    window.updateSerialList(kSerials);
    window.identities = QStringList{"{b}"};
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.identities = QStringList{"{a}"};
    VirtualCameraInfos twin = record(101234567);
    twin.port = 34999;
    window.addVirtualCamHandlerFromConfig(twin);
    const VirtualCameraInfos infos = window.getVirtualCameraInfo(101234567);
    QCOMPARE(infos.virtualSerialNumber, std::uint64_t(101234567));
    QCOMPARE(infos.port, 34999u);  // the first in the order of the keys
    QCOMPARE(infos.width, 1920);
    QCOMPARE(infos.height, 1200);
    QCOMPARE(infos.fps, 30);
    QCOMPARE(infos.imu, true);
    QCOMPARE(window.getVirtualCameraInfo(5).virtualSerialNumber, std::uint64_t(0));
    QCOMPARE(window.getVirtualCameraInfo(5).port, 0u);
}

void MainWindowTest::recordToStreamNeedsBothCameras_data()
{
    QTest::addColumn<bool>("leftThere");
    QTest::addColumn<bool>("rightThere");
    QTest::addColumn<bool>("rightChosen");
    QTest::newRow("no left panel") << false << true << true;
    QTest::newRow("no right panel") << true << false << true;
    QTest::newRow("no right choice") << true << true << false;
}

void MainWindowTest::recordToStreamNeedsBothCameras()
{
    QFETCH(bool, leftThere);
    QFETCH(bool, rightThere);
    QFETCH(bool, rightChosen);
    Window window;
    if (leftThere) {
        attach(window, camera(kLeftCamera));
    }
    if (rightThere) {
        attach(window, camera(kRightCamera));
    }
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(
        record(101234567, kLeftCamera, rightChosen ? kRightCamera : 0));
    QCOMPARE(window.getVirtualCameraInfo(101234567).virtualSerialNumber, std::uint64_t(0));
}

void MainWindowTest::streamingStatusByShownSerial()
{
    Window window;
    for (const unsigned int serial : {7u, 8u, 7u}) {
        window.addVirtualCamHandler();
        window.rows().last()->setVirtualSN(serial);
    }
    window.UpdateStreamingStatus(7, true);
    QStringList shown;
    for (const VirtualCamHandler* const row : window.rows()) {
        shown << rowPart<QPushButton>(row, "TestButton")->text();
    }
    QCOMPARE(shown, (QStringList{"Streaming...", "Stream", "Streaming..."}));
    window.UpdateStreamingStatus(7, false);
    QCOMPARE(rowPart<QPushButton>(window.rows().first(), "TestButton")->text(),
             QStringLiteral("Stream"));
}

void MainWindowTest::stoppingWalksTheKeys()
{
    Window window;
    const QStringList numbers{"9000000000", "102", "101"};  // the first is beyond an int
    const QStringList keys{"{b}", "{c}", "{a}"};
    for (int i = 0; i < keys.size(); ++i) {
        window.identities = QStringList{keys.at(i)};
        window.addVirtualCamHandler();
        rowPart<QLineEdit>(window.rows().last(), "VirtualCamSNEdit")->setText(numbers.at(i));
        auto* const button = rowPart<QPushButton>(window.rows().last(), "TestButton");
        button->setCheckable(true);
        button->setChecked(true);
        window.rows().last()->UpdateStreamingStatus(true);
    }
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    window.stopVirtualStreamers();
    QList<qulonglong> serials;
    for (const QVariantList& arguments : disabled) {
        serials.append(arguments.first().toULongLong());
    }
    QCOMPARE(serials, (QList<qulonglong>{101, 0, 102}));
    for (const VirtualCamHandler* const row : window.rows()) {
        QCOMPARE(rowPart<QPushButton>(row, "TestButton")->text(), QStringLiteral("Stream"));
        QVERIFY(!rowPart<QPushButton>(row, "TestButton")->isChecked());
    }
}

void MainWindowTest::pairsResolution()
{
    Window window;
    QSignalSpy announced(&window, &MainWindow::resolutionChanged);
    const MessageLog log;
    window.onResolutionChanged({kLeftCamera, kRightCamera}, 1920, 1080, true);
    QCOMPARE(log.debugMessages(QString()),
             QStringList{"Resolution changed for SN  30123456, 30123457 1920  x  1080 . HDR:  "
                         "true"});
    QCOMPARE(announced.count(), 1);
    QCOMPARE(announced.first().at(0).value<QList<int>>(), (QList<int>{kLeftCamera, kRightCamera}));
    QCOMPARE(announced.first().mid(1), (QVariantList{1920, 1080, true}));
}

// ---- Camera panels -----------------------------------------------------------------------------

void MainWindowTest::panelPerCamera()
{
    Window window;
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera));
    window.updateCameraWidget(1, camera(1));  // no such panel: nothing happens
    const auto* const layout = window.part<QLayout>("scrollAreaWidgetContentsHorizontalLayout");
    QCOMPARE(layout->count(), 2);
    const auto* const panel = qobject_cast<CameraWidget*>(layout->itemAt(1)->widget());
    QVERIFY(panel != nullptr);
    QCOMPARE(panel->getInfos().serial_number, std::int64_t(kRightCamera));
    QCOMPARE(panel->findChild<QLabel*>("resolutionLabel")->text(),
             QStringLiteral("Resolution: 1920x1200: 30FPS"));
}

void MainWindowTest::clockIsTheSystems()
{
    class Clock : public MainWindow {
    public:
        using MainWindow::currentTimeMs;
    };
    const Clock window;
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const qint64 now = window.currentTimeMs();
    QVERIFY(now >= before && now <= QDateTime::currentMSecsSinceEpoch());
}

void MainWindowTest::removedCameraIsForgotten()
{
    Window window;
    attach(window, camera(kLeftCamera));
    window.updateSerialList(kSerials);
    window.addVirtualCamHandler();
    window.updateCameraFrame(kLeftCamera, frame());
    QCOMPARE(window.drawn.size(), 1);
    window.removeCameraWidget(kLeftCamera);
    const auto* const layout = window.part<QLayout>("scrollAreaWidgetContentsHorizontalLayout");
    QCOMPARE(layout->count(), 0);
    QCOMPARE(window.findChildren<CameraWidget*>().size(), 0);
    window.addVirtualCamHandler();
    QCOMPARE(texts(rowPart<QComboBox>(window.rows().at(0), "LeftSensorSNChoice")), kSerials);
    QCOMPARE(texts(rowPart<QComboBox>(window.rows().at(1), "LeftSensorSNChoice")),
             QStringList{kSerials.at(1)});
    // A panel that comes back shows its first frame at once.
    attach(window, camera(kLeftCamera));
    window.updateCameraFrame(kLeftCamera, frame());
    QCOMPARE(window.drawn.size(), 2);
}

void MainWindowTest::framesAreGatedPerCamera()
{
    Window window;
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera));
    const auto send = [&window](qint64 timeMs) {
        window.timeMs = timeMs;
        window.drawn.clear();
        window.updateCameraFrame(kLeftCamera, frame());
        return window.drawn.size();
    };
    const qint64 start = window.timeMs;
    QCOMPARE(send(start), 1);
    QCOMPARE(send(start + 20), 0);
    QCOMPARE(send(start + 30), 0);
    QCOMPARE(send(start + 31), 1);
    QCOMPARE(send(start + 61), 0);  // measured from the last frame shown
    QCOMPARE(send(start + 62), 1);
    window.drawn.clear();
    window.updateCameraFrame(kRightCamera, frame());  // another camera has an interval of its own
    QCOMPARE(window.drawn, QStringList{kSerials.at(1)});
}

void MainWindowTest::previewGoesOnWhenTheClockIsSetBack()
{
    Window window;
    attach(window, camera(kLeftCamera));
    const qint64 start = window.timeMs;
    for (const qint64 step : {0, -3'600'000, -3'599'970, -3'599'969, -3'599'970}) {
        window.timeMs = start + step;
        window.updateCameraFrame(kLeftCamera, frame());
    }
    // The first, the one an hour earlier, not the one 30 ms after it but the one 31 ms after, and
    // again one that is earlier.
    QCOMPARE(window.drawn.size(), 4);
}

void MainWindowTest::framesThatAreDropped_data()
{
    QTest::addColumn<int>("serial");
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::newRow("no panel") << kRightCamera << 1920 << 1200;
    QTest::newRow("no data") << kLeftCamera << 0 << 0;
    QTest::newRow("other width") << kLeftCamera << 1918 << 1200;
    QTest::newRow("other height") << kLeftCamera << 1920 << 1080;
}

void MainWindowTest::framesThatAreDropped()
{
    QFETCH(int, serial);
    QFETCH(int, width);
    QFETCH(int, height);
    Window window;
    attach(window, camera(kLeftCamera));
    const tq::Mat image =
        width == 0 ? tq::Mat()
                   : frame(static_cast<unsigned long>(width), static_cast<unsigned long>(height));
    window.updateCameraFrame(serial, image);
    QCOMPARE(window.drawn, QStringList());
    window.updateCameraFrame(kLeftCamera, frame());  // a dropped frame does not count as shown
    QCOMPARE(window.drawn, QStringList{kSerials.at(0)});
}

void MainWindowTest::closedCameraShowsNoPicture()
{
    MainWindow window;
    attach(window, camera(kLeftCamera, 64, 36));
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QCoreApplication::processEvents();
    tq::Mat image = frame(64, 36);
    std::fill_n(image.getPtr<std::uint8_t>(sdk::kHostMemory), 64 * 36 * 2, std::uint8_t(128));
    const auto* const view = window.findChild<GLWidget*>();
    const auto shows = [view](int grey) {
        const QImage seen = QGuiApplication::primaryScreen()->grabWindow(view->winId()).toImage();
        return qAbs(qGray(seen.pixel(seen.rect().center())) - grey) <= 2;
    };
    const auto showsFrame = [&] {
        window.updateCameraFrame(kLeftCamera, image);
        return shows(128);
    };
    QTRY_VERIFY(showsFrame());
    window.updateCameraWidget(kLeftCamera, camera(kLeftCamera, 64, 36));
    QVERIFY(shows(128));  // another description of an open camera changes nothing
    window.updateCameraWidget(kLeftCamera, camera(kLeftCamera, 0, 0));
    QTRY_VERIFY(shows(0));
    window.updateCameraWidget(kLeftCamera, camera(kLeftCamera, 64, 36));
    QVERIFY(QTest::qWaitFor(showsFrame));
}

// The lookup of a frame's panel creates an entry also when there is none; a reload removes it like
// any other, and with it the serial from the list for later rows.
void MainWindowTest::unknownSerialIsRemembered()
{
    Window window;
    window.updateCameraFrame(991, frame());
    window.updateSerialList({"991", "992"});
    window.requestCameras();
    window.addVirtualCamHandler();
    QCOMPARE(texts(rowPart<QComboBox>(window.rows().first(), "LeftSensorSNChoice")),
             QStringList{"992"});
}

void MainWindowTest::reloadRemovesThePanels()
{
    Window window;
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera));
    int panelsWhenAsked = -1;
    connect(&window, &MainWindow::askCameras, this,
            [&] { panelsWhenAsked = window.findChildren<CameraWidget*>().size(); });
    QTest::mouseClick(window.part<QWidget>("ReloadCamButton"), Qt::LeftButton);
    QCOMPARE(panelsWhenAsked, 0);
}

void MainWindowTest::noCameraLabel()
{
    Window window;
    const QStringList others{"ApplyButton", "addVCamButton", "ApplyResFPSButton",
                             "ResolutionComboBox", "FPSComboBox"};
    for (const bool visible : {true, false}) {
        window.SetNoCameraLabelVisible(visible);
        QCOMPARE(window.part<QWidget>("noCameraLabel")->isVisible(), visible);
        for (const QString& name : others) {
            QCOMPARE(window.findChild<QWidget*>(name)->isVisible(), !visible);
        }
        QVERIFY(window.part<QWidget>("ReloadCamButton")->isVisible());
        QVERIFY(window.part<QWidget>("toggleDaemonButton")->isVisible());
    }
}

void MainWindowTest::picturesAreSeenInFull_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<int>("count");
    for (const QSize size : {QSize(1384, 779), QSize(500, 500), QSize(1900, 1000)}) {
        for (const int count : {1, 2, 4}) {
            QTest::addRow("%d x %d, %d", size.width(), size.height(), count) << size << count;
        }
    }
}

void MainWindowTest::picturesAreSeenInFull()
{
    QFETCH(QSize, size);
    QFETCH(int, count);
    Window window;
    window.resize(size);
    for (int i = 0; i < count; ++i) {
        attach(window, camera(kLeftCamera + i));
    }
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QCoreApplication::processEvents();
    const QList<CameraWidget*> panels = window.findChildren<CameraWidget*>();
    QCOMPARE(panels.size(), count);
    for (const CameraWidget* const panel : panels) {
        const auto* const title = panel->findChild<QLabel*>("cameraTitle");
        QVERIFY(title->width() >= title->sizeHint().width());
        // The picture lies in the middle of the panel's height, measured from the label's top.
        const auto* const label = panel->findChild<QLabel*>("imageLabel");
        const double pictureHeight = panel->width() * 9.0 / 16.0;
        const double bottom = (panel->height() + pictureHeight) / 2;
        QVERIFY2(bottom <= label->height() + 1, qPrintable(QString::number(bottom)));
        QCOMPARE(panel->size(), panels.first()->size());
    }
}

void MainWindowTest::controlsFitTheWindow_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("as designed") << QSize(1384, 779);
    QTest::newRow("smallest") << QSize(500, 500);
}

void MainWindowTest::controlsFitTheWindow()
{
    QFETCH(QSize, size);
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    attach(window, camera(kLeftCamera));
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.rows().first()->UpdateStreamingStatus(true);
    window.resize(size);
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QCoreApplication::processEvents();
    QCOMPARE(window.size(), size);
    for (const char* const name :
         {"ReloadCamButton", "ResolutionComboBox", "FPSComboBox", "ApplyResFPSButton",
          "addVCamButton", "toggleDaemonButton", "ApplyButton"}) {
        const auto* const control = window.part<QWidget>(name);
        const QRect place(control->mapTo(&window, QPoint()), control->size());
        QVERIFY2(window.rect().contains(place), name);
    }
    // Nothing in a row is squeezed; the scroll area shows what does not fit.
    for (const char* const name : {"VTCamSNTitle", "VirtualSNGenerateButton", "LeftSensorTitle",
                                   "RightSensorTitle", "resolutionTitle", "label", "TestButton"}) {
        const auto* const part = rowPart<QWidget>(window.rows().first(), name);
        QVERIFY2(part->width() >= part->sizeHint().width(), name);
    }
}

// ---- Saving and the service --------------------------------------------------------------------

void MainWindowTest::saveOnlyAsks()
{
    Window window;
    QSignalSpy saved(&window, &MainWindow::saveConf);
    QTest::mouseClick(window.part<QWidget>("ApplyButton"), Qt::LeftButton);
    QCOMPARE(saved.count(), 1);
}

void MainWindowTest::switchingTheService_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QString>("verb");
    QTest::addColumn<QString>("toolTip");
    QTest::newRow("on") << QByteArray("disabled\n") << "enable"
                        << "Click here to disable the automatic startup of KOR Vistrel service. "
                           "This will allow the direct usage of the cameras in other softwares.";
    QTest::newRow("off") << QByteArray("enabled\n") << "disable"
                         << "Click here to enable the automatic startup of KOR Vistrel service. "
                            "This will prevent the direct usage of the cameras from other "
                            "softwares.";
}

void MainWindowTest::switchingTheService()
{
    QFETCH(QByteArray, before);
    QFETCH(QString, verb);
    standIns->answer("systemctl", before);
    standIns->script("sudo", "echo \"$2\"d >\"$VISTREL_STAND_INS/systemctl.out\"\n");
    Window window;
    auto* const box = window.part<QCheckBox>("toggleDaemonButton");
    const bool checkedBefore = box->isChecked();
    QCOMPARE(box->toolTip(), QString());
    standIns->clearCalls();
    box->click();
    QCOMPARE(standIns->calls(),
             (QStringList{"systemctl is-enabled kor_vistrel_cli.service",
                          QStringLiteral("sudo systemctl %1 kor_vistrel_cli.service").arg(verb),
                          "systemctl is-enabled kor_vistrel_cli.service"}));
    QTEST(box->toolTip(), "toolTip");
    QCOMPARE(box->isChecked(), !checkedBefore);
    QCOMPARE(box->text(), QStringLiteral("Enable Vistrel Deamon"));
}

void MainWindowTest::failedSwitchShowsTheTruth()
{
    standIns->answer("sudo", "", "sudo: a password is required\n", 1);
    Window window;
    auto* const box = window.part<QCheckBox>("toggleDaemonButton");
    box->click();
    QCOMPARE(box->toolTip(),
             QStringLiteral("Click here to enable the automatic startup of KOR Vistrel service. "
                            "This will prevent the direct usage of the cameras from other "
                            "softwares."));
    QVERIFY(box->isChecked());  // the mark is the box's own
}

void MainWindowTest::waitIsShown()
{
    QString shown;
    bool cursor = false;
    Window window;
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    // The label is painted with its text before the command runs.
    class Painted : public QObject {
    public:
        Painted(QString& text, bool& waitCursor) : shown(text), waits(waitCursor) {}
        bool eventFilter(QObject* watched, QEvent* event) override
        {
            if (event->type() == QEvent::Paint) {
                shown += static_cast<QLabel*>(watched)->text();
                waits = QApplication::overrideCursor() != nullptr &&
                        QApplication::overrideCursor()->shape() == Qt::WaitCursor;
            }
            return false;
        }
        QString& shown;
        bool& waits;
    } painted(shown, cursor);
    window.footLine()->installEventFilter(&painted);
    window.toggleDaemonService();
    QVERIFY(shown.contains(QStringLiteral("Switching the automatic start of the service...")));
    QVERIFY(cursor);
    QVERIFY(QApplication::overrideCursor() == nullptr);
    QCOMPARE(window.footLine()->text(), QString());
}

void MainWindowTest::footLineSaysOneThingAtATime()
{
    const Window window;
    FootLine* const line = window.footLine();
    line->setNotice("notice");
    QCOMPARE(line->text(), QStringLiteral("notice"));
    line->showRemark("remark");
    QCOMPARE(line->text(), QStringLiteral("remark"));
    {
        const WaitNotice first(line, "first");
        QCOMPARE(line->text(), QStringLiteral("first"));
        {
            const WaitNotice second(line, "second");
            QCOMPARE(line->text(), QStringLiteral("second"));
        }
        QCOMPARE(line->text(), QStringLiteral("first"));
    }
    QCOMPARE(line->text(), QStringLiteral("notice"));  // the remark is out of date by now
    line->setNotice(QString());
    QCOMPARE(line->text(), QString());
}

void MainWindowTest::remarkPasses()
{
    const Window window;
    FootLine* const line = window.footLine();
    line->setNotice("notice");
    line->showRemark("remark", 50);
    QCOMPARE(line->text(), QStringLiteral("remark"));
    QTRY_COMPARE(line->text(), QStringLiteral("notice"));
    QVERIFY(FootLine::kRemarkMs >= 3000);  // long enough to be read
    // A later remark has a time of its own.
    line->showRemark("first", 50);
    line->showRemark("second", 60'000);
    QTest::qWait(100);
    QCOMPARE(line->text(), QStringLiteral("second"));
}

void MainWindowTest::footLineIsReadInASmallWindow()
{
    Window window;
    window.resize(500, 500);
    window.footLine()->setNotice("No camera is open: different models are connected");
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const FootLine* const line = window.footLine();
    QTRY_VERIFY(line->height() >= line->heightForWidth(line->width()));
    const QRect place(line->mapTo(&window, QPoint()), line->size());
    QVERIFY(window.rect().contains(place));
}

QTEST_MAIN(MainWindowTest)
#include "mainwindow_test.moc"
