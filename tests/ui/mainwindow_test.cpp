// SPDX-License-Identifier: Apache-2.0
// The main window: its form, the camera panels, saving and the service switch.
#include "tests/ui/mainwindow_testing.h"

#include <QAbstractItemView>
#include <QDateTime>
#include <QGridLayout>
#include <QGuiApplication>
#include <QPixmap>
#include <QToolButton>
#include <algorithm>

#include "tests/ui/widgetfonts.h"

using namespace mainwindow;

class MainWindowTest : public MainWindowTesting {
    Q_OBJECT

private slots:
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
    void panelPerCamera();
    void clockIsTheSystems();
    void removedCameraIsForgotten();
    void framesAreGatedPerCamera();
    void slowDrawingLeavesHalfOfTheTime();
    void previewGoesOnWhenTheClockIsSetBack();
    void framesThatAreDropped_data();
    void framesThatAreDropped();
    void unknownSerialIsRemembered();
    void reloadRemovesThePanels();
    void noCameraLabel();
    void picturesAreSeenInFull_data();
    void picturesAreSeenInFull();
    void controlsFitTheWindow_data();
    void controlsFitTheWindow();
    void saveOnlyAsks();
    void buttonsActWhenClicked();
    void contextOfTheApplyButton();
    void switchIsRepaintedAtOnce();
    void switchingTheService_data();
    void switchingTheService();
    void failedSwitchShowsTheTruth();
    void waitIsShown();
    void waitProcessesNoEvents();
    void statusLineIsReadInASmallWindow();
};

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
    QTest::newRow("addVCamButton") << QByteArray("QPushButton") << "+"
                                   << "Add a virtual camera";
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

// A frame waits for twice the time that the last draws of all panels took together.
void MainWindowTest::slowDrawingLeavesHalfOfTheTime()
{
    Window window;
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera));
    const auto isDrawn = [&window](int serial, qint64 timeMs) {
        window.timeMs = timeMs;
        window.drawn.clear();
        window.updateCameraFrame(serial, frame());
        return !window.drawn.isEmpty();
    };
    window.drawMs = 40;
    QVERIFY(isDrawn(kLeftCamera, 1000));
    QVERIFY(!isDrawn(kLeftCamera, 1079));
    QVERIFY(isDrawn(kLeftCamera, 1080));
    window.drawMs = 60;
    QVERIFY(isDrawn(kRightCamera, 1120));
    QVERIFY(!isDrawn(kLeftCamera, 1279));
    QVERIFY(isDrawn(kLeftCamera, 1280));
    QVERIFY(!isDrawn(kRightCamera, 1359));  // 60 and 60 now
    QVERIFY(isDrawn(kRightCamera, 1360));
    // A panel that goes takes its share with it.
    window.removeCameraWidget(kLeftCamera);
    QVERIFY(isDrawn(kRightCamera, 1480));
    // Where drawing is fast again, 31 ms are enough.
    window.drawMs = 15;
    QVERIFY(isDrawn(kRightCamera, 1600));
    QVERIFY(!isDrawn(kRightCamera, 1630));
    QVERIFY(isDrawn(kRightCamera, 1631));
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
    QList<int> panelsWhenAsked;
    connect(&window, &MainWindow::askCameras, this,
            [&] { panelsWhenAsked << window.findChildren<CameraWidget*>().size(); });
    QTest::mouseClick(window.part<QWidget>("ReloadCamButton"), Qt::LeftButton);
    QCOMPARE(panelsWhenAsked, QList<int>{0});
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

void MainWindowTest::saveOnlyAsks()
{
    Window window;
    QSignalSpy saved(&window, &MainWindow::saveConf);
    QTest::mouseClick(window.part<QWidget>("ApplyButton"), Qt::LeftButton);
    QCOMPARE(saved.count(), 1);
}

void MainWindowTest::buttonsActWhenClicked()
{
    Window window;
    QSignalSpy saved(&window, &MainWindow::saveConf);
    QTest::mousePress(window.part<QWidget>("ApplyButton"), Qt::LeftButton);
    QCOMPARE(saved.count(), 0);
    QTest::mouseRelease(window.part<QWidget>("ApplyButton"), Qt::LeftButton);
    QCOMPARE(saved.count(), 1);
}

void MainWindowTest::contextOfTheApplyButton()
{
    qtcalls::connections.clear();
    const Window window;
    QCOMPARE(qtcalls::connections.filter("ApplyResFPSButton.clicked"),
             QStringList{"ApplyResFPSButton.clicked -> ApplyResFPSButton, type 1"});  // direct
}

void MainWindowTest::switchIsRepaintedAtOnce()
{
    class Paints : public QObject {
    public:
        bool eventFilter(QObject*, QEvent* event) override
        {
            count += event->type() == QEvent::Paint ? 1 : 0;
            return false;
        }
        int count = 0;
    } paints;
    Window window;
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QCoreApplication::processEvents();
    window.part<QWidget>("toggleDaemonButton")->installEventFilter(&paints);
    window.updateDaemonServiceEnableStatusButton(true);
    QCOMPARE(paints.count, 1);
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
    window.statusLine()->installEventFilter(&painted);
    window.toggleDaemonService();
    QVERIFY(shown.contains(QStringLiteral("Switching the automatic start of the service...")));
    QVERIFY(cursor);
    QVERIFY(QApplication::overrideCursor() == nullptr);
    QCOMPARE(window.statusLine()->text(), QString());
}

void MainWindowTest::waitProcessesNoEvents()
{
    Window window;
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    bool delivered = false;
    QMetaObject::invokeMethod(
        window.statusLine(), [&delivered] { delivered = true; }, Qt::QueuedConnection);
    {
        const StatusLine::Wait wait(window.statusLine(), "waiting");
        QCOMPARE(window.statusLine()->text(), QStringLiteral("waiting"));
    }
    QVERIFY(!delivered);
    QCOMPARE(window.statusLine()->text(), QString());
    QTRY_VERIFY(delivered);
}

void MainWindowTest::statusLineIsReadInASmallWindow()
{
    Window window;
    window.resize(500, 500);
    window.statusLine()->setText("No camera is open: different models are connected");
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const StatusLine* const line = window.statusLine();
    QTRY_VERIFY(line->height() >= line->heightForWidth(line->width()));
    const QRect place(line->mapTo(&window, QPoint()), line->size());
    QVERIFY(window.rect().contains(place));
}

QTEST_MAIN(MainWindowTest)
#include "mainwindow_test.moc"
