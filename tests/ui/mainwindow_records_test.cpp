// SPDX-License-Identifier: Apache-2.0
// The main window: what the rows say, and what streams.
#include "tests/ui/mainwindow_testing.h"

#include <algorithm>

using namespace mainwindow;

class MainWindowRecordsTest : public MainWindowTesting {
    Q_OBJECT

private slots:
    void recordsComeInTheOrderOfTheKeys();
    void recordsTakeTheLeftCamerasSettings();
    void recordsNeedOnlyTheLeftCamera();
    void recordsWithoutTheLeftCamera();
    void recordsOfDifferentSizesAreLeftOut();
    void recordToStream();
    void recordToStreamNeedsBothCameras_data();
    void recordToStreamNeedsBothCameras();
    void streamingStatusByShownSerial();
    void stoppingWalksTheKeys();
    void pairsResolution();
};

void MainWindowRecordsTest::recordsComeInTheOrderOfTheKeys()
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

void MainWindowRecordsTest::recordsTakeTheLeftCamerasSettings()
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

void MainWindowRecordsTest::recordsNeedOnlyTheLeftCamera()
{
    Window window;
    attach(window, camera(kLeftCamera));
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);  // says something else
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const VirtualCameraInfos infos = window.getVirtualCameras().first();
    QCOMPARE(infos.width, 1920);
    QCOMPARE(infos.height, 1200);
    QCOMPARE(infos.fps, 30);
    QCOMPARE(infos.hdr, 1);
    QCOMPARE(infos.imu, true);
}

// A row from the configuration keeps what the file had, a new one has zeros; the lists fill
// nothing.
void MainWindowRecordsTest::recordsWithoutTheLeftCamera()
{
    Window window;
    attach(window, camera(kRightCamera));
    window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
    window.updateSerialList(kSerials);
    window.identities = QStringList{"{a}", "{b}"};
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.addVirtualCamHandler();
    window.rows().last()->setSerial(0, kLeftCamera);
    window.rows().last()->setSerial(1, kRightCamera);
    const QList<VirtualCameraInfos> records = window.getVirtualCameras();
    QCOMPARE(records.size(), 2);
    QCOMPARE(records.at(0).width, 960);
    QCOMPARE(records.at(0).height, 600);
    QCOMPARE(records.at(0).fps, 60);
    QCOMPARE(records.at(0).hdr, 1);
    QCOMPARE(records.at(0).imu, true);
    QCOMPARE(records.at(1).leftSerialNumber, std::uint64_t(kLeftCamera));
    QCOMPARE(records.at(1).width, 0);
    QCOMPARE(records.at(1).height, 0);
    QCOMPARE(records.at(1).fps, 0);
    QCOMPARE(records.at(1).hdr, 0);
    QCOMPARE(records.at(1).imu, false);
}

void MainWindowRecordsTest::recordsOfDifferentSizesAreLeftOut()
{
    Window window;
    attach(window, camera(kLeftCamera));
    attach(window, camera(kRightCamera, 1920, 1080));
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    QCOMPARE(window.getVirtualCameras().size(), 0);
    QCOMPARE(window.getVirtualCameraInfo(101234567).virtualSerialNumber, std::uint64_t(0));
}

void MainWindowRecordsTest::recordToStream()
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

void MainWindowRecordsTest::recordToStreamNeedsBothCameras_data()
{
    QTest::addColumn<bool>("leftThere");
    QTest::addColumn<int>("rightWidth");
    QTest::addColumn<bool>("rightChosen");
    QTest::addColumn<QString>("obstacle");
    QTest::newRow("all") << true << 1920 << true << "";
    QTest::newRow("no left panel") << false << 1920 << true << "Camera 30123456 is not available";
    QTest::newRow("no right panel") << true << 0 << true << "Camera 30123457 is not available";
    QTest::newRow("no right choice") << true << 1920 << false << "Choose both cameras first";
    QTest::newRow("two sizes") << true << 960 << true
                               << "Cameras 30123456 and 30123457 have different resolutions";
}

// Whether there is a record to stream, and what the operator is told, is one answer.
void MainWindowRecordsTest::recordToStreamNeedsBothCameras()
{
    QFETCH(bool, leftThere);
    QFETCH(int, rightWidth);
    QFETCH(bool, rightChosen);
    QFETCH(QString, obstacle);
    Window window;
    if (leftThere) {
        attach(window, camera(kLeftCamera));
    }
    if (rightWidth > 0) {
        attach(window, camera(kRightCamera, rightWidth));
    }
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(
        record(101234567, kLeftCamera, rightChosen ? kRightCamera : 0));
    QCOMPARE(window.getVirtualCameraInfo(101234567).virtualSerialNumber,
             std::uint64_t(obstacle.isEmpty() ? 101234567 : 0));
    QCOMPARE(window.streamObstacle(101234567), obstacle);
    QCOMPARE(window.streamObstacle(0), QStringLiteral("Press Generate first"));
    window.addVirtualCamHandlerFromConfig(record(101234568, 0, kRightCamera));
    QCOMPARE(window.streamObstacle(101234568), QStringLiteral("Choose both cameras first"));
}

void MainWindowRecordsTest::streamingStatusByShownSerial()
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

void MainWindowRecordsTest::stoppingWalksTheKeys()
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
    // Each row's button is idle before its stream is stopped.
    QList<int> idle;
    connect(&window, &MainWindow::disableStream, this, [&] {
        const QList<VirtualCamHandler*> rows = window.rows();
        idle << static_cast<int>(
            std::count_if(rows.begin(), rows.end(), [](const VirtualCamHandler* row) {
                return rowPart<QPushButton>(row, "TestButton")->text() == "Stream";
            }));
    });
    window.stopVirtualStreamers();
    QCOMPARE(idle, (QList<int>{1, 2, 3}));
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

void MainWindowRecordsTest::pairsResolution()
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

QTEST_MAIN(MainWindowRecordsTest)
#include "mainwindow_records_test.moc"
