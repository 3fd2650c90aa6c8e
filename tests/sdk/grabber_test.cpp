// SPDX-License-Identifier: Apache-2.0
// Tests of enumeration and capture through the public interface of the open SDK.
#include <QtTest>
#include <cstring>
#include <thread>

#include "sdk/core/clock.h"
#include "tests/sdk/patterndecoder.h"
#include "tests/sdk/sdktesting.h"

namespace {

int code(tq::ErrorCode error)
{
    return static_cast<int>(error);
}

struct Grabber : tq::LiveCameraGrabber {
    Grabber() : tq::LiveCameraGrabber(tq::INPUT_TYPE::GMSL_RAW) {}
};

DecodedPattern patternOf(tq::LiveCameraGrabber& grabber)
{
    const int width = grabber.getEffectiveWidth();
    return decodePattern(grabber.getPixels(), 2, width * 2, width).value_or(DecodedPattern{});
}

/// Stops this whole process for somewhat more than 220 ms, soon.
class Halt {
public:
    Halt()
    {
        shell.start("sh", {"-c", QString("sleep 0.05; kill -STOP %1; sleep 0.22; "
                                         "date +%s%N > '%2'; kill -CONT %1")
                                     .arg(QCoreApplication::applicationPid())
                                     .arg(folder.filePath("ended"))});
    }
    ~Halt() { shell.waitForFinished(); }

    /// When it ended, ns since 1970; 0 before.
    tq::Timestamp ended() const
    {
        QFile file(folder.filePath("ended"));
        return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toULongLong() : 0;
    }

private:
    QTemporaryDir folder;
    QProcess shell;
};

}  // namespace

class GrabberTest : public QObject {
    Q_OBJECT

private slots:
    void devicesAreDescribed();
    void enumerationIsKeptUntilRefreshed();
    void openedCameraKeepsTheEnumeratedRig();
    void heldCameraIsNotAvailable();
    void setUpRefusals();
    void closedGrabberDescribesNothing();
    void sizesAreMadeEven();
    void framesTellTheirTimeAndNumber();
    void bothEyesBurnTheSameCounter();
    void skippedFramesAreCounted();
    void halt_ofTheProcess_losesNoFrame();
    void flippedPicture();
    void imuComesWithTheFrames();
    void imuRateFollowsTheFrequency();
    void cameraWithoutUnit();
    void deadCameraStaysSilent();
    void closingIsQuickAtSlowRates();
    void destructorReleasesTheCamera();
    void describedFromAnotherThread();
};

void GrabberTest::devicesAreDescribed()
{
    TemporaryRig rig;
    const int first = rig.add(simulated());
    const int second = rig.add(simulated("right"), {}, 31);
    const auto devices = ArgusCamera::getGMSLDevices(true, false);
    QCOMPARE(devices.size(), std::size_t(2));
    QCOMPARE(devices[0].serialNumber, first);
    QVERIFY(devices[0].model == tq::MODEL::KOR_TSOLO_GS);
    QVERIFY(devices[0].state == tq::DeviceState::AVAILABLE);
    QCOMPARE(devices[0].bus, "gmsl-0");
    QCOMPARE(devices[0].name, "KOR T Solo GS");
    QCOMPARE(devices[1].serialNumber, second);
    QCOMPARE(devices[1].id, 1);
    QVERIFY(devices[1].model == tq::MODEL::KOR_TSOLO_UHD);
    const ErrorLog log;
    ArgusCamera::getGMSLDevices(true, true);
    QCOMPARE(log.lines().size(), 2);
    QCOMPARE(log.lines().front(),
             QString("camera 0: KOR T Solo GS, S/N %1, gmsl-0, available").arg(first));
}

void GrabberTest::enumerationIsKeptUntilRefreshed()
{
    TemporaryRig rig;
    rig.add(simulated());
    QCOMPARE(ArgusCamera::getGMSLDevices(false, false).size(), std::size_t(1));
    QFile::remove(rig.path());
    QCOMPARE(ArgusCamera::getGMSLDevices(false, false).size(), std::size_t(1));
    const ErrorLog quiet;
    QCOMPARE(ArgusCamera::getGMSLDevices(true, false).size(), std::size_t(0));
}

void GrabberTest::openedCameraKeepsTheEnumeratedRig()
{
    TemporaryRig rig;
    const int serial = rig.add(simulated());
    ArgusCamera::getGMSLDevices(true, false);
    QFile file(rig.path());
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("{\"cameras\": []}");
    file.close();
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0), 0);
    QCOMPARE(grabber.getSerialNumber(), serial);
}

void GrabberTest::heldCameraIsNotAvailable()
{
    TemporaryRig rig;
    rig.add(simulated());
    rig.add(simulated("right"));
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 1), 0);
    const auto state = [](std::size_t index) {
        return ArgusCamera::getGMSLDevices(true, false).at(index).state;
    };
    QVERIFY(state(0) == tq::DeviceState::AVAILABLE);
    QVERIFY(state(1) == tq::DeviceState::NOT_AVAILABLE);
    grabber.close(true);
    QVERIFY(state(1) == tq::DeviceState::AVAILABLE);
}

void GrabberTest::setUpRefusals()
{
    TemporaryRig rig;
    const int serial = rig.add(simulated());
    Grabber grabber;
    Grabber other;
    const ErrorLog log;
    QCOMPARE(openCamera(grabber, 5), code(tq::ErrorCode::CAMERA_NOT_FOUND));
    QCOMPARE(openCamera(grabber, 0, 0, 100), code(tq::ErrorCode::INVALID_RESOLUTION));
    QCOMPARE(openCamera(grabber, 0, 1, 100), code(tq::ErrorCode::INVALID_RESOLUTION));
    QCOMPARE(openCamera(grabber, 0, 100, -1), code(tq::ErrorCode::INVALID_RESOLUTION));
    QCOMPARE(openCamera(grabber, 0, 100000, 100), code(tq::ErrorCode::INVALID_RESOLUTION));
    QCOMPARE(openCamera(grabber, 0, 320, 200, 0), code(tq::ErrorCode::INVALID_RESOLUTION));
    QCOMPARE(openCamera(grabber, 0, 320, 200, 241), code(tq::ErrorCode::INVALID_RESOLUTION));
    QCOMPARE(openCamera(grabber, 0), 0);
    QCOMPARE(openCamera(grabber, 0), code(tq::ErrorCode::ALREADY_OPEN));
    QCOMPARE(openCamera(other, 0), code(tq::ErrorCode::CAMERA_BUSY));
    QCOMPARE(log.lines().size(), 9);
    QCOMPARE(log.lines().last(), QString("camera 0: the camera is used by another process"));
    QCOMPARE(waitForFrame(grabber), 1);
    grabber.close(true);

    QFile::remove(Serials::lockFile(serial));
    QVERIFY(QDir().mkdir(Serials::lockFile(serial)));
    const int result = openCamera(grabber, 0);
    QVERIFY(QDir().rmdir(Serials::lockFile(serial)));
    QCOMPARE(result, code(tq::ErrorCode::CAMERA_LOCK_FAILED));
}

void GrabberTest::closedGrabberDescribesNothing()
{
    TemporaryRig rig;
    rig.add(simulated(), {{"type", "simulated"}});
    Grabber grabber;
    const auto isBlank = [&grabber] {
        return grabber.getEffectiveWidth() == 0 && grabber.getEffectiveHeight() == 0 &&
               grabber.getFPS() == 0 && grabber.getSerialNumber() == 0 &&
               grabber.getCameraModel() == tq::MODEL::LAST && !grabber.hasMCU() &&
               grabber.getFrameStatus() == 0 && grabber.getPixels() == nullptr &&
               grabber.getTimeStamp() == 0 && grabber.getIMUPacket().timestamp == 0 &&
               grabber.getMCU() == nullptr;
    };
    QVERIFY(isBlank());
    QCOMPARE(openCamera(grabber, 0), 0);
    QVERIFY2(grabber.getPixels() == nullptr, "no frame yet");
    QCOMPARE(waitForFrame(grabber), 1);
    QVERIFY(!isBlank());
    grabber.close(false);
    QVERIFY(isBlank());
    grabber.close(true);
}

void GrabberTest::sizesAreMadeEven()
{
    TemporaryRig rig;
    rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 321, 201), 0);
    QCOMPARE(grabber.getEffectiveWidth(), 320);
    QCOMPARE(grabber.getEffectiveHeight(), 201);
    QCOMPARE(waitForFrame(grabber), 1);
}

void GrabberTest::framesTellTheirTimeAndNumber()
{
    TemporaryRig rig;
    const int serial = rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 320, 200, 60), 0);
    std::uint32_t last = 0;
    for (int i = 0; i < 40; ++i) {
        QCOMPARE(waitForFrame(grabber), 1);
        const DecodedPattern pattern = patternOf(grabber);
        QCOMPARE(pattern.serial, static_cast<std::uint32_t>(serial));
        QCOMPARE(pattern.timestamp, std::uint64_t(grabber.getTimeStamp()));
        QVERIFY(pattern.counter > last);
        last = pattern.counter;
    }
}

void GrabberTest::bothEyesBurnTheSameCounter()
{
    TemporaryRig rig;
    rig.add(simulated());
    rig.add(simulated("right"));
    Grabber left;
    Grabber right;
    QCOMPARE(openCamera(left, 0), 0);
    QCOMPARE(openCamera(right, 1), 0);
    QMap<tq::Timestamp, std::uint32_t> lefts;
    QMap<tq::Timestamp, std::uint32_t> rights;
    for (int i = 0; i < 30; ++i) {
        QCOMPARE(waitForFrame(left), 1);
        lefts[left.getTimeStamp()] = patternOf(left).counter;
        QCOMPARE(waitForFrame(right), 1);
        rights[right.getTimeStamp()] = patternOf(right).counter;
    }
    int pairs = 0;
    for (auto frame = rights.cbegin(); frame != rights.cend(); ++frame) {
        if (lefts.contains(frame.key())) {
            QCOMPARE(frame.value(), lefts[frame.key()]);
            ++pairs;
        }
    }
    QVERIFY2(pairs >= 15, qPrintable(QString::number(pairs)));
}

void GrabberTest::skippedFramesAreCounted()
{
    TemporaryRig rig;
    const int serial = rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 320, 200, 100), 0);
    QCOMPARE(waitForFrame(grabber), 1);
    const std::uint32_t first = patternOf(grabber).counter;
    // When the machine halts, too, a reader may find the frame from before the halt.
    std::uint32_t taken = 1;
    std::uint32_t skipped = 0;
    for (int round = 0; round < 10 && skipped < 20; ++round) {
        QThread::msleep(300);
        QCOMPARE(waitForFrame(grabber), 1);
        ++taken;
        skipped = patternOf(grabber).counter - first + 1 - taken;
    }
    QVERIFY(skipped >= 20);
    const ErrorLog log;
    grabber.close(true);
    QCOMPARE(log.lines().size(), 1);
    const QRegularExpression line(
        QString("^camera S/N %1 closed: %2 frames delivered, (\\d+) skipped$")
            .arg(serial)
            .arg(taken));
    const auto match = line.match(log.lines().front());
    QVERIFY2(match.hasMatch(), qPrintable(log.lines().front()));
    QVERIFY(match.captured(1).toUInt() >= skipped);
}

void GrabberTest::halt_ofTheProcess_losesNoFrame()
{
    // Slow enough for instrumented programs, too.
    constexpr int kFps = 10;
    constexpr tq::Timestamp kPeriod = 1000000000 / kFps;
    TemporaryRig rig;
    rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 320, 200, kFps), 0);
    QCOMPARE(waitForFrame(grabber), 1);
    std::uint32_t last = patternOf(grabber).counter;
    tq::Timestamp lastTaken = tq::systemClock().now();
    int madeUpFor = 0;
    bool excused = false;
    for (int round = 0; round < 20 && madeUpFor < 3; ++round) {
        Halt halt;
        for (int frame = 0; frame < 10; ++frame) {
            QCOMPARE(waitForFrame(grabber), 1);
            const std::uint32_t counter = patternOf(grabber).counter;
            const tq::Timestamp taken = tq::systemClock().now();
            const tq::Timestamp gap = taken - lastTaken;
            const tq::Timestamp ended = halt.ended();
            const bool wasHalted = ended > lastTaken && taken < ended + kPeriod / 2;
            // The machine may hold up the process, or this thread alone, for longer than what is
            // made up for. What it costs shows until frames come on time again.
            if (gap > 2 * kPeriod && !(wasHalted && gap < 7 * kPeriod / 2)) {
                excused = true;
            }
            if (!excused) {
                QCOMPARE(counter, last + 1);
                madeUpFor += gap > 2 * kPeriod ? 1 : 0;
            }
            if (taken < grabber.getTimeStamp() + kPeriod) {
                excused = false;
            }
            last = counter;
            lastTaken = taken;
        }
    }
    QVERIFY2(madeUpFor >= 3, "the process was never halted for two to four periods");
}

void GrabberTest::flippedPicture()
{
    TemporaryRig rig;
    const int serial = rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 320, 200, 30, true), 0);
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(waitForFrame(grabber), 1);
        // Read from the last pixel backwards, the picture is upright again.
        const unsigned char* lastLuma = grabber.getPixels() + (320 * 200 - 1) * 2;
        const auto pattern = decodePattern(lastLuma, -2, -320 * 2, 320);
        QVERIFY(pattern.has_value());
        QCOMPARE(pattern->serial, static_cast<std::uint32_t>(serial));
        QCOMPARE(pattern->timestamp, std::uint64_t(grabber.getTimeStamp()));
    }
}

void GrabberTest::imuComesWithTheFrames()
{
    TemporaryRig rig;
    rig.add(simulated(), {{"type", "simulated"}, {"rate", 500}});
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0), 0);
    QVERIFY(grabber.hasMCU());
    tq::KORmcu* mcu = grabber.getMCU();
    QVERIFY(mcu != nullptr);
    tq::Timestamp end = 0;
    std::uint64_t expected = 0;
    for (int i = 0; i < 20; ++i) {
        QCOMPARE(waitForFrame(grabber), 1);
        const tq::Timestamp time = grabber.getTimeStamp();
        const auto batch = mcu->getIMUPacketBatch(end, time);
        for (const tq::IMUPacket& packet : batch) {
            QVERIFY(packet.timestamp > end && packet.timestamp <= time);
            QCOMPARE(packet.sequence, expected++);
        }
        if (i > 0) {
            QVERIFY2(batch.size() >= 16, "two milliseconds lie between packets");
            QVERIFY(time - grabber.getIMUPacket().timestamp < 2000000);
            QCOMPARE(grabber.getIMUPacket().timestamp, batch.back().timestamp);
        }
        end = time;
    }
}

void GrabberTest::imuRateFollowsTheFrequency()
{
    TemporaryRig rig;
    rig.add(simulated(), {{"type", "simulated"}, {"rate", 400}});
    Grabber grabber;
    const auto packetsPerSecond = [&grabber](tq::IMU_FREQ frequency) {
        openCamera(grabber, 0, 320, 200, 20, false, frequency);
        waitForFrame(grabber);
        const tq::Timestamp time = grabber.getTimeStamp();
        waitForFrame(grabber);
        const tq::Timestamp next = grabber.getTimeStamp();
        const int exact = static_cast<int>(grabber.getMCU()->getIMUPacketBatch(time, next).size());
        grabber.close(true);
        return double(exact) / (double(next - time) * 1e-9);
    };
    QVERIFY(std::abs(packetsPerSecond(tq::IMU_FREQ::HIGH) - 400) < 25);
    QVERIFY(std::abs(packetsPerSecond(tq::IMU_FREQ::LOW) - 100) < 25);
    QCOMPARE(packetsPerSecond(tq::IMU_FREQ::OFF), 0.0);
}

void GrabberTest::cameraWithoutUnit()
{
    TemporaryRig rig;
    rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0), 0);
    QVERIFY(!grabber.hasMCU());
    QVERIFY(grabber.getMCU() == nullptr);
    QCOMPARE(waitForFrame(grabber), 1);
    const tq::IMUPacket empty{};
    QCOMPARE(std::memcmp(&grabber.getIMUPacket(), &empty, sizeof empty), 0);
}

void GrabberTest::deadCameraStaysSilent()
{
    TemporaryRig rig;
    QJsonObject source = simulated();
    source["deathAfter"] = 0.3;
    rig.add(source);
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0), 0);
    int frames = 0;
    QElapsedTimer timer;
    timer.start();
    while (!timer.hasExpired(1200)) {
        frames += grabber.getFrameStatus() == 1 ? 1 : 0;
        QThread::usleep(500);
    }
    QVERIFY2(frames >= 1 && frames <= 9, qPrintable(QString::number(frames)));
    QCOMPARE(grabber.getFrameStatus(), 0);
    timer.restart();
    grabber.close(true);
    QVERIFY(timer.elapsed() < 2000);
    QCOMPARE(openCamera(grabber, 0), 0);
    QCOMPARE(waitForFrame(grabber), 1);
}

void GrabberTest::closingIsQuickAtSlowRates()
{
    TemporaryRig rig;
    rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 320, 200, 1), 0);
    QElapsedTimer timer;
    timer.start();
    grabber.close(true);
    QVERIFY2(timer.elapsed() < 500, qPrintable(QString::number(timer.elapsed())));
}

void GrabberTest::destructorReleasesTheCamera()
{
    TemporaryRig rig;
    rig.add(simulated());
    {
        Grabber grabber;
        QCOMPARE(openCamera(grabber, 0), 0);
    }
    Grabber next;
    QCOMPARE(openCamera(next, 0), 0);
}

void GrabberTest::describedFromAnotherThread()
{
    TemporaryRig rig;
    const int serial = rig.add(simulated(), {{"type", "simulated"}});
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0), 0);
    std::atomic<bool> right{true};
    std::thread other([&] {
        for (int i = 0; i < 1000; ++i) {
            right = right && grabber.getSerialNumber() == serial && grabber.hasMCU() &&
                    grabber.getEffectiveWidth() == 320 && grabber.getFPS() == 30;
        }
    });
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(waitForFrame(grabber), 1);
    }
    other.join();
    QVERIFY(right);
}

QTEST_GUILESS_MAIN(GrabberTest)
#include "grabber_test.moc"
