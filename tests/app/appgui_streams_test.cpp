// SPDX-License-Identifier: Apache-2.0
// The desktop controller: streams, and the resolution of cameras that stream.
#include "tests/app/appgui_testing.h"

using namespace appgui;

class AppGuiStreamsTest : public AppGuiTesting {
    Q_OBJECT

private slots:
    void streamingAPair();
    void enablingARunningStreamStopsIt();
    void serialsThatDoNothing();
    void statusLineSaysWhatIsMissing();
    void statusLineSaysThatSizesDiffer();
    void sameCameraTwice();
    void senderThatDoesNotOpen();
    void streamThatEndsByItself();
    void lateReportOfAStoppedStream();
    void removingTheRowStopsItsStream();
    void removingOneOfTwoEqualRowsStopsNothing();
    void renumberedStreamGoesOn();
    void changedPairOfALoadedRow();
    void changingTheResolution();
    void changingTheResolutionGoesByTheShownNumbers();
    void changingThePairsResolution();
    void cameraThatDoesNotReopen();
    void reloadKeepsFedStreams();
    void reloadShowsWhatStreams();
    void reloadAtAnotherSizeStopsStreams();
    void camerasOutOfStepAreTold();
};

// Its frames come without end: both cameras deliver, but never at one time.
void AppGuiStreamsTest::camerasOutOfStepAreTold()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    tq::Timestamp time = 0;
    QTimer frames;
    frames.callOnTimeout([&time] {
        time += 33'000'000;
        sdkfake::pushFrame(kLeft, time, 1);
        sdkfake::pushFrame(kRight, time + 16'500'000, 2);
    });
    frames.start(200);  // images wait for partners: not too many
    const auto* const line = desktop.part<QLabel>("statusLine");
    QTRY_COMPARE_WITH_TIMEOUT(
        line->text(),
        QStringLiteral("101234567 sends nothing: its cameras take their pictures 16.5 ms apart, at "
                       "most 5 make a pair"),
        30000);
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
    desktop.streamButton()->click();
    QTRY_COMPARE_WITH_TIMEOUT(line->text(), QString(), 30000);
}

void AppGuiStreamsTest::streamingAPair()
{
    addTwoCameras();
    const MessageLog log;
    Desktop desktop;
    desktop.addRow(kVirtual, kRight, kLeft);
    desktop.streams.clear();
    clearRecord();
    desktop.streamButton()->click();
    // Both eyes are connected before the sender opens.
    QCOMPARE(record().mid(0, 3), (QStringList{kEye, kEye, "UDPOutput#1.UDPOutput(0, true)"}));
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

void AppGuiStreamsTest::enablingARunningStreamStopsIt()
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

void AppGuiStreamsTest::serialsThatDoNothing()
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

void AppGuiStreamsTest::statusLineSaysWhatIsMissing()
{
    addTwoCameras();
    MessageBoxes boxes;
    Desktop desktop;
    const auto* const line = desktop.part<QLabel>("statusLine");
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

    QCOMPARE(boxes.seen.size(), 0);
}

void AppGuiStreamsTest::statusLineSaysThatSizesDiffer()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    emit desktop.window->resolutionChanged({kRight}, 960, 600, false);
    desktop.streamButton()->click();
    const auto* const line = desktop.part<QLabel>("statusLine");
    QCOMPARE(line->text(),
             QStringLiteral("Cameras 30123456 and 30123457 have different resolutions"));
    // Another row with the same number can be streamed.
    emit desktop.window->resolutionChanged({kRight}, 1920, 1200, false);
    desktop.addRow(kVirtual, kLeft, 0);
    desktop.streamButton(1)->click();
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
    QCOMPARE(line->text(), QString());
}

void AppGuiStreamsTest::sameCameraTwice()
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

void AppGuiStreamsTest::senderThatDoesNotOpen()
{
    addTwoCameras();
    sdkfake::setSenderResult(21);
    MessageBoxes boxes;
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streams.clear();
    desktop.window->setFont(QFont(QStringLiteral("DejaVu Sans Mono"), 13));
    StandardOutput output;
    desktop.streamButton()->click();
    QVERIFY(output.finish().contains("Streaming Error 21\n"));
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().title, QStringLiteral("Information"));
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("Unable to stream virtual camera 101234567. Error -1"));
    QCOMPARE(boxes.seen.first().styleSheet, desktop.window->styleSheet());
    QCOMPARE(boxes.seen.first().font.family(), QStringLiteral("DejaVu Sans Mono"));
    QCOMPARE(boxes.seen.first().font.pointSize(), 13);
    QCOMPARE(desktop.streams.count(), 0);
    // It is not kept: the next press starts it.
    sdkfake::setSenderResult(0);
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual, true}));
}

void AppGuiStreamsTest::streamThatEndsByItself()
{
    addTwoCameras();
    Desktop desktop;
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    desktop.streams.clear();
    auto* const streamer =
        qobject_cast<VirtualCameraStreamer*>(qtcalls::lastSender("VirtualCameraStreamer"));
    emit streamer->StreamUpdated(kVirtual, false);
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, false}));
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Stream"));
}

void AppGuiStreamsTest::lateReportOfAStoppedStream()
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
    QCoreApplication::processEvents();  // the threads have ended, so all reports wait here
    QCOMPARE(desktop.streams.count(), 11);
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
    QVERIFY(!sdkfake::lastSender().closed);
}

void AppGuiStreamsTest::removingTheRowStopsItsStream()
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

void AppGuiStreamsTest::removingOneOfTwoEqualRowsStopsNothing()
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

// A stream goes by the number it was started with. Removing the row stops what no row shows.
void AppGuiStreamsTest::renumberedStreamGoesOn()
{
    addTwoCameras();
    Desktop desktop;
    VirtualCamHandler* const row = desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    row->setVirtualSN(kVirtual + 1);
    desktop.streams.clear();
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual + 1, true}));
    QCOMPARE(sdkfake::senders().size(), std::size_t(2));
    QVERIFY(!sdkfake::senders().front().closed);
    row->triggerRemove();
    QCOMPARE(desktop.streams.count(), 3);
    QVERIFY(sdkfake::senders().front().destroyed);
    QVERIFY(sdkfake::lastSender().destroyed);
}

// A row from the configuration asks to stop the stream 0 when its cameras change: nothing stops.
void AppGuiStreamsTest::changedPairOfALoadedRow()
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
    QCOMPARE(desktop.streams.count(), 0);
    QVERIFY(!sdkfake::lastSender().closed);
    // The next press stops it, and the one after that starts the new pair.
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual, false}));
    QVERIFY(sdkfake::lastSender().destroyed);
    desktop.streamButton()->click();
    QCOMPARE(desktop.streams.last(), (QVariantList{kVirtual, true}));
    sdkfake::pushFrame(kLeft, 1000, 1);
    sdkfake::pushFrame(kThird, 1000, 2);
    QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t(1));
}

void AppGuiStreamsTest::changingTheResolution()
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
             (QStringList{"UDPOutput#1.close()", "UDPOutput#1.~UDPOutput()", kNoPreview,
                          "LiveCameraGrabber#1.close(true)", kNoPreview,
                          "LiveCameraGrabber#2.close(true)",
                          "LiveCameraGrabber#1.setUp(0, 960, 600, 15, 2, false, 2, false, false) "
                          "= 0",
                          kPreview,
                          "LiveCameraGrabber#2.setUp(1, 960, 600, 15, 2, false, 2, false, false) "
                          "= 0",
                          kPreview}));
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

// Streams are stopped by the numbers that the rows show, and by nothing else.
void AppGuiStreamsTest::changingTheResolutionGoesByTheShownNumbers()
{
    addTwoCameras();
    Desktop desktop;
    VirtualCamHandler* const row = desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    desktop.streams.clear();
    row->setVirtualSN(kVirtual + 1);
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    QCOMPARE(desktop.streams.count(), 0);
    QVERIFY(!sdkfake::lastSender().closed);
}

void AppGuiStreamsTest::changingThePairsResolution()
{
    addTwoCameras();
    addCamera(2, kThird);
    const Desktop desktop;
    clearRecord();
    emit desktop.window->resolutionChanged({kRight, kThird, 5}, 1920, 1080, true);
    // The others stay as they are; the frame rate is the global one.
    QCOMPARE(record(), (QStringList{kNoPreview, "LiveCameraGrabber#2.close(true)", kNoPreview,
                                    "LiveCameraGrabber#3.close(true)",
                                    "LiveCameraGrabber#2.setUp(1, 1920, 1080, 30, 2, false, 2, "
                                    "false, true) = 0",
                                    kPreview,
                                    "LiveCameraGrabber#3.setUp(2, 1920, 1080, 30, 2, false, 2, "
                                    "false, true) = 0",
                                    kPreview}));
}

void AppGuiStreamsTest::cameraThatDoesNotReopen()
{
    addTwoCameras();
    Desktop desktop;
    sdkfake::CameraSetup broken;
    broken.id = 0;
    broken.serial = kLeft;
    broken.setUpResult = 5;
    sdkfake::changeCamera(broken);
    const MessageLog log;
    clearRecord();
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    QCOMPARE(record().filter(kPreview).size(), 1);  // of the other camera
    QCOMPARE(desktop.panels().size(), 2);
    QCOMPARE(log.debugMessages(QStringLiteral("[KORVistrel] Failed")),
             QStringList{"[KORVistrel] Failed  to reopen the camera ==> ErrCode= 5"});
    QCOMPARE(desktop.part<QLabel>("statusLine")->text(),
             QStringLiteral("No pictures from 30123456: it could not be opened again"));
    // Its description stays, and starting the pair follows the same steps as ever.
    QCOMPARE(desktop.part<QLabel>("resolutionLabel")->text(),
             QStringLiteral("Resolution: 1920x1200: 30FPS"));
    desktop.addRow(kVirtual, kLeft, kRight);
    desktop.streamButton()->click();
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
    desktop.streamButton()->click();
    // It is kept and tried again at the next change.
    broken.setUpResult = 0;
    sdkfake::changeCamera(broken);
    clearRecord();
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    QCOMPARE(record().filter("setUp").size(), 2);
    QCOMPARE(desktop.part<QLabel>("resolutionLabel")->text(),
             QStringLiteral("Resolution: 1920x1200: 30FPS"));
    QCOMPARE(desktop.part<QLabel>("statusLine")->text(), QString());
}

void AppGuiStreamsTest::reloadKeepsFedStreams()
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

// Selecting the configured size anew puts all stream buttons back; the ones of streams that go on
// show it again.
void AppGuiStreamsTest::reloadShowsWhatStreams()
{
    addTwoCameras();
    sandbox::writeFile(kConfig, '{' + member(kVirtual, kLeft, kRight, kSmall) + "}\n");
    Desktop desktop;
    desktop.streamButton()->click();
    desktop.streams.clear();
    desktop.window->requestCameras();
    QCOMPARE(desktop.streams.count(), 0);
    QVERIFY(!sdkfake::lastSender().closed);
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Streaming..."));
}

void AppGuiStreamsTest::reloadAtAnotherSizeStopsStreams()
{
    addTwoCameras();
    sandbox::writeFile(kConfig, '{' + member(kVirtual, kLeft, kRight, kSmall) + "}\n");
    Desktop desktop;
    desktop.part<QComboBox>("ResolutionComboBox")->setCurrentText(QStringLiteral("1920 x 1080"));
    desktop.part<QPushButton>("ApplyResFPSButton")->click();
    desktop.streamButton()->click();
    desktop.streams.clear();
    desktop.window->requestCameras();
    QCOMPARE(desktop.streams.count(), 1);
    QCOMPARE(desktop.streams.first(), (QVariantList{kVirtual, false}));
    QVERIFY(sdkfake::lastSender().destroyed);
    QCOMPARE(desktop.streamButton()->text(), QStringLiteral("Stream"));
}

int main(int argc, char** argv)
{
    AppGuiStreamsTest test;
    return runInSandbox(test, argc, argv);
}

#include "appgui_streams_test.moc"
