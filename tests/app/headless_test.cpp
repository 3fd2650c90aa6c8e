// SPDX-License-Identifier: Apache-2.0
// The headless controller on scripted cameras: each scenario is a process of its own.
#include <QtTest>
#include <map>
#include <memory>

#include "tests/sandbox/sandbox.h"

namespace {

constexpr char kDaemonCommand[] = "sudo systemctl restart nvargus-daemon";
constexpr int kLimit = 60000;

/// One member of the configuration file.
QByteArray member(const QByteArray& name, int left, int right, int port,
                  const QByteArray& more = "\"Width\":8,\"Height\":4,\"FPS\":30,\"HDR\":0",
                  bool imu = true)
{
    return '"' + name + "\":{\"Left\":" + QByteArray::number(left) +
           ",\"Right\":" + QByteArray::number(right) + ",\"Port\":" + QByteArray::number(port) +
           ",\"IMU\":" + (imu ? "true," : "false,") + more + '}';
}

QByteArray document(const QByteArrayList& members)
{
    return '{' + members.join(',') + '}';
}

/// What a grabber does until it is opened, and its setUp.
QStringList opened(int number, const QString& setUp)
{
    const QString grabber = QString("LiveCameraGrabber#%1.").arg(number);
    return {grabber + "LiveCameraGrabber(4)", grabber + "setMonoCapture(true)",
            grabber + "setInputType(3)", grabber + "setUp(" + setUp};
}

QStringList closed(int number)
{
    const QString grabber = QString("LiveCameraGrabber#%1.").arg(number);
    return {grabber + "close(true)", grabber + "~LiveCameraGrabber()"};
}

/// The eyes of a streamer are connected, then its sender is opened.
QStringList streaming(int number, const QString& open, int eyes = 2)
{
    const QString sender = QString("UDPOutput#%1.").arg(number);
    QStringList lines;
    for (int eye = 0; eye < eyes; ++eye) {
        // 0 is the automatic type, which queues what comes from the camera's thread.
        lines << "VirtualCameraStreamer connected, type 0";
    }
    return lines << sender + "UDPOutput(0, true)" << sender + "open(" + open;
}

QStringList stopped(int number)
{
    const QString sender = QString("UDPOutput#%1.").arg(number);
    return {sender + "close()", sender + "~UDPOutput()"};
}

/// How every scenario begins that has a configuration.
const QStringList kBegun = {"daemon", "pause 2000", "ArgusCamera.getGMSLDevices(true, false)"};

/// A process that runs the controller, with everything that it sees and leaves.
struct Scenario {
    QTemporaryDir settings;
    QTemporaryDir own;
    sandbox::StandIns standIns;
    QProcess process;
    QByteArray output;
    QByteArray error;

    QString recordFile() const { return own.filePath("record"); }

    void start(const QStringList& arguments)
    {
        // So that the command's place among the SDK's calls is known.
        standIns.script("sudo", "[ \"$(pwd -P)\" = '" +
                                    QDir::current().canonicalPath().toLocal8Bit() +
                                    "' ] && echo daemon >>'" + recordFile().toLocal8Bit() + "'\n");
        sandbox::Options options;
        options.settings = settings.path();
        options.standIns = &standIns;
        sandbox::prepare(process, options, HEADLESS_SCENARIO,
                         QStringList(recordFile()) + arguments);
        process.start();
    }

    void finish()
    {
        if (process.state() != QProcess::NotRunning && !process.waitForFinished(kLimit)) {
            process.kill();
            process.waitForFinished();
        }
        output += process.readAllStandardOutput();
        error += process.readAllStandardError();
    }

    /// Calls to the SDK and the daemon's restart, in order.
    QStringList record() const
    {
        return QString::fromLocal8Bit(sandbox::readFile(recordFile()))
            .split('\n', Qt::SkipEmptyParts);
    }

    QStringList printed() const
    {
        return QString::fromLocal8Bit(output).split('\n', Qt::SkipEmptyParts);
    }
};

// Two models, an unusable one and one that nobody wants among them.
const QStringList kCameras = {"camera=3,30000002,30,0", "camera=0,30000001,31,0",
                              "camera=1,30000004,4,0", "camera=5,30000009,30,0",
                              "camera=2,30000003,30,0"};

}  // namespace

class HeadlessTest : public QObject {
    Q_OBJECT

    std::map<QByteArray, std::unique_ptr<Scenario>> scenarios;

    /// Starts a scenario; null configuration: the file does not exist.
    Scenario& begin(const QByteArray& name, const QByteArray& configuration,
                    const QStringList& arguments, const QByteArray& daemonOutput = {},
                    const QByteArray& daemonError = {}, int daemonStatus = 0)
    {
        auto scenario = std::make_unique<Scenario>();
        if (!configuration.isNull()) {
            sandbox::writeFile(scenario->settings.filePath("virtual_tsolo_config.json"),
                               configuration);
        }
        scenario->standIns.answer("sudo", daemonOutput, daemonError, daemonStatus);
        scenario->start(arguments);
        return *(scenarios[name] = std::move(scenario));
    }

    Scenario& result(const QByteArray& name)
    {
        Scenario& scenario = *scenarios.at(name);
        scenario.finish();
        return scenario;
    }

    /// A scenario that must have run to its end, the controller destroyed.
    Scenario* regular(const QByteArray& name)
    {
        Scenario& scenario = result(name);
        const QStringList printed = scenario.printed();
        const bool good = scenario.process.exitStatus() == QProcess::NormalExit &&
                          scenario.process.exitCode() == 0 && printed.contains("destroyed") &&
                          printed.filter("misuse").isEmpty() &&
                          !printed.contains("frames are missing") &&
                          scenario.standIns.calls() == QStringList(kDaemonCommand);
        if (!good) {
            qWarning().noquote() << "status" << scenario.process.exitCode() << "\n"
                                 << scenario.output << scenario.error << scenario.record()
                                 << scenario.standIns.calls();
        }
        return good ? &scenario : nullptr;
    }

private slots:
    // Each scenario is a process of its own, so they all run at the same time.
    void initTestCase()
    {
        sandbox::skipProgramUnlessAvailable();
        begin("shared camera",
              document({member("100000001", 30000001, 30000002, 30000),
                        member("100000002", 30000002, 30000003, 30002)}),
              kCameras + QStringList({"imu=30000001,1,11", "imu=30000002,2,22", "imu=30000003,3,33",
                                      "frame=30000001,1000,1", "frame=30000002,1000,2",
                                      "frame=30000003,1000,3", "await=30000,1", "await=30002,1"}));
        begin("settings",
              document(
                  {member("9", 30000002, 30000003, 30002,
                          "\"Width\":6,\"Height\":2,\"FPS\":25,\"HDR\":2"),
                   member("10", 30000001, 30000002, 30000, "\"Width\":8,\"Height\":4,\"FPS\":60")}),
              kCameras);
        begin("settings without HDR",
              document(
                  {member("1", 30000002, 30000003, 30002,
                          "\"Width\":8,\"Height\":4,\"FPS\":60,\"HDR\":1"),
                   member("2", 30000001, 30000002, 30000, "\"Width\":6,\"Height\":2,\"FPS\":25")}),
              kCameras);
        begin("unusable model", document({member("5", 30000004, 30000002, 30000)}), kCameras);
        begin("absent camera", document({member("5", 30000001, 30000777, 30000)}),
              kCameras + QStringList("frame=30000001,1000,1"));
        // The first is not the serial's owner any more once it is open.
        begin("other serial",
              document(
                  {member("5", 30000001, 30000003, 30000), member("6", 30000005, 30000003, 30002)}),
              {"camera=0,30000001,30,0,0,30000005", "camera=2,30000003,30,0"});
        begin("not available", document({member("5", 30000001, 30000003, 30000)}),
              {"camera=0,30000001,30,0,1", "camera=2,30000003,30,0"});
        begin("same camera twice", document({member("5", 30000003, 30000003, 30000)}),
              kCameras + QStringList({"frame=30000003,1000,7", "await=30000,1"}));
        begin("equal serials",
              document({member("7", 30000001, 30000002, 30000),
                        member("4294967303", 30000002, 30000003, 30002)}),
              kCameras + QStringList({"frame=30000001,1000,1", "frame=30000002,1000,2",
                                      "frame=30000003,1000,3", "await=30000,1"}));
        begin("camera failure",
              document(
                  {member("5", 30000001, 30000002, 30000), member("6", 30000002, 30000003, 30002)}),
              {"camera=3,30000002,30,0", "camera=0,30000001,31,2", "camera=2,30000003,30,0"});
        begin("sender failure",
              document({member("5", 30000001, 30000002, 30000),
                        member("6", 30000002, 30000003, 30002),
                        member("7", 30000002, 30000003, 30004)}),
              kCameras + QStringList("sender=30002,21"));
        begin("no file", QByteArray(), kCameras);
        begin("empty", "{}\n", kCameras);
        begin("no camera", document({member("5", 30000001, 30000002, 30000)}), {});
        begin("missing key", "{\"5\":{\"Left\":1}}", kCameras);
        begin("not JSON", "left=1", kCameras);
        begin("array", "[1]", kCameras);
        begin("daemon talks", "{}", {}, "hello\n", "Failed: \"no\"\n", 1);
    }

    void cleanupTestCase()
    {
        for (auto& scenario : scenarios) {
            scenario.second->finish();
        }
    }

    void sharedCamera()
    {
        Scenario* const scenario = regular("shared camera");
        QVERIFY(scenario != nullptr);
        // Cameras in the order of enumeration, streamers in that of the file; on the way out the
        // workers go first, by serial, then the streamers.
        QStringList expected = kBegun;
        expected << opened(1, "3, 8, 4, 30, 2, false, 2, false, false) = 0")
                 << opened(2, "0, 8, 4, 30, 2, false, 2, false, false) = 0")
                 << opened(3, "2, 8, 4, 30, 2, false, 2, false, false) = 0")
                 << streaming(1, "port 30000, serial 100000001, 8x4@30, imu 2000) = 0")
                 << streaming(2, "port 30002, serial 100000002, 8x4@30, imu 2000) = 0") << "started"
                 << closed(2) << closed(1) << closed(3) << stopped(1) << stopped(2);
        QCOMPARE(scenario->record(), expected);

        // The shared camera is the right eye of the first and the left eye of the second; IMU
        // packets are the left cameras', each batch preceded by as many empty ones.
        const QStringList printed = scenario->printed();
        QCOMPARE(printed.filter("port "),
                 QStringList({"port 30000: frame 1000 left 1 right 2", "port 30000: imu 0 11",
                              "port 30002: frame 1000 left 2 right 3", "port 30002: imu 0 22"}));
    }

    void daemonRestart()
    {
        Scenario* const scenario = regular("shared camera");
        QVERIFY(scenario != nullptr);
        // A silent restart is not logged.
        QVERIFY2(!scenario->error.contains("Process"), scenario->error);
        QCOMPARE(scenario->record().mid(0, kBegun.size()), kBegun);
    }

    void daemonOutputIsLogged()
    {
        Scenario* const scenario = regular("daemon talks");
        QVERIFY(scenario != nullptr);
        const QRegularExpression line(
            "^\\[ \"(.*)\" \\]   Process  \"sudo systemctl restart nvargus-daemon\" outputs  "
            "\"hello\\\\nFailed: \\\\\"no\\\\\"\\\\n\"$",
            QRegularExpression::MultilineOption);
        const QRegularExpressionMatch match = line.match(QString::fromLocal8Bit(scenario->error));
        QVERIFY2(match.hasMatch(), scenario->error);
        QVERIFY2(QDateTime::fromString(match.captured(1)).isValid(), qPrintable(match.captured(1)));
        // A failed restart changes nothing else.
        QCOMPARE(scenario->record(), kBegun + QStringList("started"));
    }

    // All cameras get the settings of the member with the greatest key in string order.
    void lastRecordsSettings()
    {
        Scenario* const scenario = regular("settings");
        QVERIFY(scenario != nullptr);
        QStringList expected = kBegun;
        expected << opened(1, "3, 6, 2, 25, 2, false, 2, false, true) = 0")
                 << opened(2, "0, 6, 2, 25, 2, false, 2, false, true) = 0")
                 << opened(3, "2, 6, 2, 25, 2, false, 2, false, true) = 0")
                 << streaming(1, "port 30000, serial 10, 8x4@60, imu 2000) = 0")
                 << streaming(2, "port 30002, serial 9, 6x2@25, imu 2000) = 0");
        QCOMPARE(scenario->record().mid(0, expected.size()), expected);
    }

    void lastRecordWithoutHdr()
    {
        Scenario* const scenario = regular("settings without HDR");
        QVERIFY(scenario != nullptr);
        QCOMPARE(scenario->record().filter("setUp"),
                 QStringList({"LiveCameraGrabber#1.setUp(3, 6, 2, 25, 2, false, 2, false, false)"
                              " = 0",
                              "LiveCameraGrabber#2.setUp(0, 6, 2, 25, 2, false, 2, false, false)"
                              " = 0",
                              "LiveCameraGrabber#3.setUp(2, 6, 2, 25, 2, false, 2, false, false)"
                              " = 0"}));
    }

    void unusableModelIsSkipped()
    {
        Scenario* const scenario = regular("unusable model");
        QVERIFY(scenario != nullptr);
        QStringList expected = kBegun;
        expected << opened(1, "3, 8, 4, 30, 2, false, 2, false, false) = 0")
                 << streaming(1, "port 30000, serial 5, 8x4@30, imu 2000) = 0", 1) << "started"
                 << closed(1) << stopped(1);
        QCOMPARE(scenario->record(), expected);
    }

    void absentCameraIsTolerated()
    {
        Scenario* const scenario = regular("absent camera");
        QVERIFY(scenario != nullptr);
        QStringList expected = kBegun;
        expected << opened(1, "0, 8, 4, 30, 2, false, 2, false, false) = 0")
                 << streaming(1, "port 30000, serial 5, 8x4@30, imu 2000) = 0", 1) << "started"
                 << closed(1) << stopped(1);
        QCOMPARE(scenario->record(), expected);
    }

    // Workers are known by the serial that the opened camera gives.
    void openedCamerasSerialCounts()
    {
        Scenario* const scenario = regular("other serial");
        QVERIFY(scenario != nullptr);
        QStringList expected = kBegun;
        expected << opened(1, "0, 8, 4, 30, 2, false, 2, false, false) = 0")
                 << opened(2, "2, 8, 4, 30, 2, false, 2, false, false) = 0")
                 << streaming(1, "port 30000, serial 5, 8x4@30, imu 2000) = 0", 1)
                 << streaming(2, "port 30002, serial 6, 8x4@30, imu 2000) = 0", 2);
        QCOMPARE(scenario->record().mid(0, expected.size()), expected);
    }

    // What the enumeration says of a camera's availability does not count: opening it decides.
    void availabilityIsNotAsked()
    {
        Scenario* const scenario = regular("not available");
        QVERIFY(scenario != nullptr);
        QCOMPARE(scenario->record().filter("setUp").size(), 2);
    }

    void oneCameraCanBeBothEyes()
    {
        Scenario* const scenario = regular("same camera twice");
        QVERIFY(scenario != nullptr);
        QCOMPARE(scenario->record().filter("setUp").size(), 1);
        QCOMPARE(scenario->printed().filter("frame"),
                 QStringList("port 30000: frame 1000 left 7 right 7"));
    }

    // Keys that are equal once narrowed to an int: the later record's streamer replaces the first.
    void equalSerialReplacesTheStreamer()
    {
        Scenario* const scenario = regular("equal serials");
        QVERIFY(scenario != nullptr);
        QStringList expected;
        expected << streaming(1, "port 30002, serial 7, 8x4@30, imu 2000) = 0") << stopped(1)
                 << streaming(2, "port 30000, serial 7, 8x4@30, imu 2000) = 0") << "started"
                 << closed(2) << closed(1) << closed(3) << stopped(2);
        QCOMPARE(scenario->record().mid(15), expected);
        QCOMPARE(scenario->printed().filter("frame"),
                 QStringList("port 30000: frame 1000 left 1 right 2"));
    }

    void cameraFailureEndsTheProcess()
    {
        Scenario& scenario = result("camera failure");
        QVERIFY(scenario.process.exitStatus() == QProcess::NormalExit);
        QCOMPARE(scenario.process.exitCode(), 1);
        QStringList expected = kBegun;
        expected << opened(1, "3, 8, 4, 30, 2, false, 2, false, false) = 0")
                 << opened(2, "0, 8, 4, 30, 2, false, 2, false, false) = 2");
        QCOMPARE(scenario.record().mid(0, expected.size()), expected);
        QVERIFY(scenario.record().filter("UDPOutput").isEmpty());
        QVERIFY(scenario.record().filter("LiveCameraGrabber#3").isEmpty());
        QVERIFY2(scenario.error.contains("[KTCamera] Setup State error :  2"), scenario.error);
        QCOMPARE(scenario.output, QByteArray("begun\n"));
    }

    void senderFailureEndsTheProcess()
    {
        Scenario& scenario = result("sender failure");
        QVERIFY(scenario.process.exitStatus() == QProcess::NormalExit);
        QCOMPARE(scenario.process.exitCode(), 1);
        QCOMPARE(scenario.output, QByteArray("begun\nStreaming Error 21\n"));
        QCOMPARE(scenario.record().filter("open(port"),
                 QStringList({"UDPOutput#1.open(port 30000, serial 5, 8x4@30, imu 2000) = 0",
                              "UDPOutput#2.open(port 30002, serial 6, 8x4@30, imu 2000) = 21"}));
    }

    void missingFileEndsTheProcess()
    {
        Scenario& scenario = result("no file");
        QVERIFY(scenario.process.exitStatus() == QProcess::NormalExit);
        QCOMPARE(scenario.process.exitCode(), 1);
        // Not even the daemon was restarted.
        QCOMPARE(scenario.record(), QStringList("pause 2000"));
        QCOMPARE(scenario.standIns.calls(), QStringList());
    }

    void emptyConfigurationIdles()
    {
        Scenario* const scenario = regular("empty");
        QVERIFY(scenario != nullptr);
        QCOMPARE(scenario->record(), kBegun + QStringList("started"));
    }

    void streamersWithoutCameras()
    {
        Scenario* const scenario = regular("no camera");
        QVERIFY(scenario != nullptr);
        QStringList expected = kBegun;
        expected << streaming(1, "port 30000, serial 5, 8x4@30, imu 2000) = 0", 0) << "started"
                 << stopped(1);
        QCOMPARE(scenario->record(), expected);
    }

    void badConfigurationAborts_data()
    {
        QTest::addColumn<QByteArray>("scenario");
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("missing key")
            << QByteArray("missing key") << QByteArray("type must be number, but is null");
        QTest::newRow("not JSON") << QByteArray("not JSON") << QByteArray("parse error at line 1");
        QTest::newRow("array") << QByteArray("array")
                               << QByteArray("cannot use key() for non-object iterators");
    }
    void badConfigurationAborts()
    {
        QFETCH(QByteArray, scenario);
        QFETCH(QByteArray, message);
        Scenario& run = result(scenario);
        QCOMPARE(run.process.exitCode(), 128 + 6);
        QVERIFY2(run.error.contains(message), run.error);
        QCOMPARE(run.record(), QStringList({"daemon", "pause 2000"}));
    }
};

QTEST_GUILESS_MAIN(HeadlessTest)
#include "headless_test.moc"
