// SPDX-License-Identifier: Apache-2.0
// The desktop controller: start, end and scans for cameras.
#include "tests/app/appgui_testing.h"

using namespace appgui;

class AppGuiTest : public AppGuiTesting {
    Q_OBJECT

private slots:
    void signalsAndSlotsInOrder();
    void startAndEnd();
    void startAndEndWithTheServiceEnabled();
    void commandsThatTalk();
    void connectionsThatFail();
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
    void absentCamerasStayInTheirRow();
    void anotherChoiceIsNotUndoneByAReload();

    // Comes last: the worker of the camera that failed lives for ever.
    void cameraThatDoesNotOpen();
};

void AppGuiTest::signalsAndSlotsInOrder()
{
    const QMetaObject& type = AppGui::staticMetaObject;
    QCOMPARE(ownMethods(type, QMetaMethod::Signal), QStringList{"StreamEnabled(int,bool)"});
    QCOMPARE(ownMethods(type, QMetaMethod::Slot),
             (QStringList{"applyVirtualStreamerConfiguration()", "triggerStream(int,bool)",
                          "onResolutionChanged(QList<int>,int,int,int,bool)", "reloadCameras()"}));
}

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
                kQuery, kStop, kRestartDaemon, "pause 1000", kEnumerate,
                "LiveCameraGrabber#1.LiveCameraGrabber(4)",
                "LiveCameraGrabber#1.setMonoCapture(true)", "LiveCameraGrabber#1.setInputType(3)",
                "LiveCameraGrabber#1.setUp(0, 1920, 1200, 30, 2, false, 2, false, "
                "false) = 0",
                kPreview, "LiveCameraGrabber#2.LiveCameraGrabber(4)",
                "LiveCameraGrabber#2.setMonoCapture(true)", "LiveCameraGrabber#2.setInputType(3)",
                "LiveCameraGrabber#2.setUp(1, 1920, 1200, 30, 2, false, 2, false, "
                "false) = 0",
                kPreview}));
        QCOMPARE(desktop.panels(), (QStringList{"30123456", "30123457"}));
        QVERIFY(!desktop.part<QLabel>("noCameraLabel")->isVisible());
        QCOMPARE(desktop.rows().size(), 0);
        clearRecord();
    }
    QCOMPARE(record(), kStored + QStringList({"LiveCameraGrabber#1.close(true)",
                                              "LiveCameraGrabber#1.~LiveCameraGrabber()",
                                              "LiveCameraGrabber#2.close(true)",
                                              "LiveCameraGrabber#2.~LiveCameraGrabber()",
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
    // The settings first, cameras before streams, then the enumeration, and only then the service.
    QCOMPARE(record(),
             kStored + QStringList({"LiveCameraGrabber#1.close(true)",
                                    "LiveCameraGrabber#1.~LiveCameraGrabber()",
                                    "LiveCameraGrabber#2.close(true)",
                                    "LiveCameraGrabber#2.~LiveCameraGrabber()",
                                    "UDPOutput#1.close()", "UDPOutput#1.~UDPOutput()",
                                    "ArgusCamera.deleteProviderInstance()", kQuery, "pause 500",
                                    "sudo systemctl restart kor_vistrel_cli.service"}));
    const QStringList messages = log.debugMessages(QStringLiteral("[KORVistrel]"));
    QCOMPARE(messages.mid(messages.size() - 2),
             (QStringList{"[KORVistrel] Restarting Vistrel", "[KORVistrel] Activate CLI mode"}));
    QCOMPARE(log.debugMessages(QStringLiteral("[WARNING]")), QStringList());
}

// Only what the service's restart prints is logged.
void AppGuiTest::commandsThatTalk()
{
    addTwoCameras();
    standIns->answer("systemctl", "enabled\n");
    standIns->answer("sudo", "a word\n");
    const MessageLog log;
    {
        const Desktop desktop;
    }
    QCOMPARE(record().filter("sudo").size(), 3);
    const QStringList talk = log.messages().filter("Process");
    QCOMPARE(talk.size(), 1);
    QVERIFY(talk.first().contains("\"sudo systemctl restart kor_vistrel_cli.service\" outputs"));
}

// One text for all of the window's connections; the program goes on without them.
void AppGuiTest::connectionsThatFail()
{
    addTwoCameras();
    qtcalls::failing = {"MainWindow", "AppGui"};
    const MessageLog log;
    Desktop desktop;
    const QString text = QStringLiteral("[KORVistrel] Unable to connect the stream enable signal.");
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Unable")),
             (QStringList{text, text, text}));
    QCOMPARE(desktop.panels().size(), 2);
    qtcalls::failing = {"VirtualCameraStreamer"};
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.controller.triggerStream(kVirtual, true);
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Unable")).mid(3),
             QStringList{"[KORVistrel] Unable to connect the stream update signal."});
    QVERIFY(sdkfake::lastSender().opened);
}

void AppGuiTest::waitsAreShown()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    QVERIFY(QTest::qWaitForWindowExposed(desktop.window));
    WaitTexts waits;
    const auto press = [&](QPushButton* button) {
        waits.texts.clear();
        waits.cursors.clear();
        button->click();
    };
    press(desktop.part<QPushButton>("ApplyResFPSButton"));
    QCOMPARE(waits.texts, QStringList{"Opening the cameras..."});
    QCOMPARE(waits.cursors, QList<bool>{true});
    press(desktop.streamButton());
    QCOMPARE(waits.texts, QStringList{"Starting the stream..."});
    QCOMPARE(waits.cursors, QList<bool>{true});
    press(desktop.part<QPushButton>("ReloadCamButton"));
    QCOMPARE(waits.texts,
             (QStringList{"Restarting the camera daemon...", "Opening the cameras..."}));
    QVERIFY(QApplication::overrideCursor() == nullptr);
    QCOMPARE(desktop.part<QLabel>("statusLine")->text(), QString());
}

// What is waited for is on the screen before the first camera is touched, and nothing else that is
// due is done in between.
void AppGuiTest::waitIsShownBeforeACameraIsTouched()
{
    addTwoCameras();
    const Desktop desktop;
    QVERIFY(QTest::qWaitForWindowExposed(desktop.window));
    const WaitTexts waits;
    QStringList shownBefore;
    bool eventDelivered = false;
    const auto note = [&] { shownBefore << (waits.texts.isEmpty() ? "" : waits.texts.last()); };
    const MessageActions opening(QStringLiteral("[KORVistrel] Opening"), note);
    QMetaObject::invokeMethod(
        desktop.window, [&eventDelivered] { eventDelivered = true; }, Qt::QueuedConnection);
    desktop.window->requestCameras();
    QCOMPARE(shownBefore, QStringList{"Opening the cameras..."});
    QVERIFY(!eventDelivered);
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
            member(3, kLeft, kRight, "\"Width\":0,\"Height\":600,\"FPS\":30") + ',' +
            member(4, kLeft, kRight, "\"Width\":1920,\"Height\":0,\"FPS\":30") + "}\n");
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
    QCOMPARE(desktop.part<QLabel>("statusLine")->text(),
             QStringLiteral("Plug a camera in and press Reload"));
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
    sandbox::writeFile(kConfig, '{' + member(kVirtual, kLeft, kRight, kSmall) + "}\n");
    {
        const Desktop desktop;
    }
    const QSettings store(QStringLiteral("Vellmark"), QStringLiteral("Vistrel"));
    QCOMPARE(store.value("input/width").toInt(), 3200);
    QCOMPARE(store.value("input/height").toInt(), 1800);
    QCOMPARE(store.value("input/fps").toInt(), 15);
    QCOMPARE(store.value("input/hdr_mode").toInt(), 0);  // no text says HDR
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

    const auto* const line = desktop.part<QLabel>("statusLine");
    QCOMPARE(line->text(),
             QStringLiteral("No camera is open: different models are connected. Unplug those of "
                            "one model and press Reload"));
    const QList<const char*> useless{"addVCamButton", "ApplyResFPSButton", "ResolutionComboBox",
                                     "FPSComboBox"};
    for (const char* const name : useless) {
        QVERIFY2(!desktop.part<QWidget>(name)->isEnabled(), name);
    }
    QVERIFY(desktop.part<QWidget>("ApplyButton")->isEnabled());

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
    for (const char* const name : useless) {
        QVERIFY2(desktop.part<QWidget>(name)->isEnabled(), name);
    }
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
    // By then it is known which cameras are there.
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Camera")),
             (QStringList{"[KORVistrel] Camera S/N 30123457 is not available",
                          "[KORVistrel] Camera S/N 30123457 is not connected",
                          "[KORVistrel] Camera S/N 30123458 is not connected"}));
    QCOMPARE(desktop.rows().size(), 2);
    QCOMPARE(desktop.choice(0, "LeftSensorSNChoice")->currentText(), QStringLiteral("30123456"));
    // The row keeps the absent camera.
    QCOMPARE(desktop.choice(0, "RightSensorSNChoice")->currentText(), QStringLiteral("30123457"));
    QVERIFY(desktop.choice(0, "RightSensorSNChoice")->property("waiting").toBool());
    attach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(desktop.choice(0, "RightSensorSNChoice")->currentText(), QStringLiteral("30123457"));
    QVERIFY(!desktop.choice(0, "RightSensorSNChoice")->property("waiting").toBool());
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
    QCOMPARE(calls.mid(6, 3), (QStringList{kRestartDaemon, "pause 1000", kEnumerate}));
    QCOMPARE(calls.at(5), QStringLiteral("LiveCameraGrabber#3.~LiveCameraGrabber()"));
    QCOMPARE(desktop.panels(), (QStringList{"30123456", "30123457"}));
    QCOMPARE(desktop.rows().at(0)->getInfos().leftSerialNumber, std::uint64_t(kLeft));
    QCOMPARE(desktop.rows().at(0)->getInfos().rightSerialNumber, std::uint64_t(kRight));
    QCOMPARE(desktop.rows().at(1)->getInfos().leftSerialNumber, std::uint64_t(kRight));
    QCOMPARE(desktop.rows().at(1)->getInfos().rightSerialNumber, std::uint64_t(kThird));
    QCOMPARE(desktop.choice(0, "LeftSensorSNChoice")->count(), 2);
    QCOMPARE(boxes.seen.size(), 0);
    // The settings of the last run are selected anew, which stops by the shown numbers; the choices
    // themselves stop nothing.
    QCOMPARE(disabled.count(), 2);
    QList<int> stopped{disabled.at(0).first().toInt(), disabled.at(1).first().toInt()};
    std::sort(stopped.begin(), stopped.end());  // rows are visited by their random keys
    QCOMPARE(stopped, (QList<int>{kVirtual, kVirtual + 1}));
}

void AppGuiTest::absentCamerasStayInTheirRow()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    detach(0, kLeft);
    detach(1, kRight);
    for (int reload = 0; reload < 2; ++reload) {
        desktop.part<QPushButton>("ReloadCamButton")->click();
        QCOMPARE(desktop.rows().at(0)->getInfos().leftSerialNumber, std::uint64_t(kLeft));
        QCOMPARE(desktop.rows().at(0)->getInfos().rightSerialNumber, std::uint64_t(kRight));
        QCOMPARE(desktop.choice(0, "LeftSensorSNChoice")->count(), 1);  // no heap of absent ones
        QVERIFY(desktop.choice(0, "LeftSensorSNChoice")->property("waiting").toBool());
    }
    attach(0, kLeft);
    attach(1, kRight);
    desktop.part<QPushButton>("ReloadCamButton")->click();
    QCOMPARE(desktop.rows().at(0)->getInfos().leftSerialNumber, std::uint64_t(kLeft));
    QCOMPARE(desktop.choice(0, "LeftSensorSNChoice")->count(), 2);
    QVERIFY(!desktop.choice(0, "LeftSensorSNChoice")->property("waiting").toBool());
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
        QCOMPARE(desktop.part<QLabel>("statusLine")->text(),
                 QStringLiteral("No pictures from 30123456: it could not be opened"));
        desktop.part<QPushButton>("addVCamButton")->click();
        QCOMPARE(desktop.choice(0, "LeftSensorSNChoice")->count(), 1);
    }
    // The worker of the failed camera is never taken down, deliberately.
    QVERIFY(record().filter("LiveCameraGrabber#1.~").isEmpty());
    QVERIFY(record().filter("LiveCameraGrabber#1.close").isEmpty());
    QVERIFY(!record().filter("LiveCameraGrabber#2.~").isEmpty());
}

int main(int argc, char** argv)
{
    AppGuiTest test;
    return runInSandbox(test, argc, argv);
}

#include "appgui_test.moc"
