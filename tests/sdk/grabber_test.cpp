// SPDX-License-Identifier: Apache-2.0
// Tests of enumeration and capture through the public interface of the open SDK.

#include <QtTest>
#include <atomic>
#include <cstring>
#include <thread>

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

/// The frames that a grabber says it skipped when it was closed; -1 when it said nothing.
int skippedWhenClosed(tq::LiveCameraGrabber& grabber)
{
    const ErrorLog log;
    grabber.close(true);
    const auto match = QRegularExpression(", (\\d+) skipped$").match(log.lines().value(0));
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

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
    void lateReaderSeesTheNewestFrame();
    void askingWaitsForAFrame();
    void failedCameraIsWaitedForToo();
    void closingEndsAWait();
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
    int id = 0;
    QCOMPARE(grabber.setUp(id, 320, 200, 30, 2, true, tq::IMU_FREQ::HIGH, false, false),
             code(tq::ErrorCode::INVALID_CONFIGURATION));
    QCOMPARE(openCamera(grabber, 0), 0);
    QCOMPARE(openCamera(grabber, 0), code(tq::ErrorCode::ALREADY_OPEN));
    QCOMPARE(openCamera(other, 0), code(tq::ErrorCode::CAMERA_BUSY));
    QCOMPARE(log.lines().size(), 10);
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

// The producer goes on while nobody reads; what it replaced is counted, what came is the newest.
void GrabberTest::lateReaderSeesTheNewestFrame()
{
    constexpr std::uint64_t kPeriod = 10000000;  // ns
    TemporaryRig rig;
    rig.add(simulated());
    const ErrorLog log;
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 320, 200, 100), 0);
    QCOMPARE(waitForFrame(grabber), 1);
    const DecodedPattern first = patternOf(grabber);
    // The pattern of another camera of the common grid tells when enough frames went by.
    rig.add(simulated("right"));
    ArgusCamera::getGMSLDevices(true, false);
    Grabber watch;
    QCOMPARE(openCamera(watch, 1, 320, 200, 100), 0);
    DecodedPattern seen;
    do {
        QCOMPARE(waitForFrame(watch), 1);
        seen = patternOf(watch);
    } while (seen.counter < first.counter + 30);
    QCOMPARE(waitForFrame(grabber), 1);
    const DecodedPattern newest = patternOf(grabber);
    // Within the frames that a source makes up for when the machine was late.
    QVERIFY2(newest.timestamp + 5 * kPeriod >= seen.timestamp,
             qPrintable(QString::number(seen.timestamp - newest.timestamp)));
    const int between = static_cast<int>(newest.counter - first.counter) - 1;
    QVERIFY2(between > 20, qPrintable(QString::number(between)));
    const QString line = QString("camera S/N %1 skipped %2 frames between those of %3 and %4")
                             .arg(first.serial)
                             .arg(between)
                             .arg(first.timestamp)
                             .arg(newest.timestamp);
    QVERIFY2(log.lines().contains(line), log.text().constData());
    const int skipped = skippedWhenClosed(grabber);
    QVERIFY2(skipped >= between, qPrintable(QString("%1 of %2").arg(skipped).arg(between)));
}

// Whoever never pauses between two questions sleeps in them.
void GrabberTest::askingWaitsForAFrame()
{
    TemporaryRig rig;
    rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 320, 200, 5), 0);
    int questions = 0;
    for (int frame = 0; frame < 5; ++frame) {
        int status = 0;
        while ((status = grabber.getFrameStatus()) == 0) {
            ++questions;
        }
        QCOMPARE(status, 1);
    }
    // Ten waits of 20 ms between two frames.
    QVERIFY2(questions <= 100, qPrintable(QString::number(questions)));
}

void GrabberTest::failedCameraIsWaitedForToo()
{
    TemporaryRig rig;
    rig.add({{"type", "gstreamer"}, {"pipeline", "videotestsrc num-buffers=2"}});
    Grabber grabber;
    const ErrorLog log;
    QCOMPARE(openCamera(grabber, 0), 0);
    while (log.lines().isEmpty()) {
        QVERIFY(grabber.getFrameStatus() >= 0);
    }
    while (grabber.getFrameStatus() == 1) {
    }
    QElapsedTimer timer;
    timer.start();
    // It is opened anew a second after it failed.
    for (int question = 0; question < 5; ++question) {
        QCOMPARE(grabber.getFrameStatus(), 0);
    }
    QVERIFY2(timer.elapsed() >= 95, qPrintable(QString::number(timer.elapsed())));
}

void GrabberTest::closingEndsAWait()
{
    TemporaryRig rig;
    rig.add(simulated());
    Grabber grabber;
    QCOMPARE(openCamera(grabber, 0, 320, 200, 1), 0);
    std::atomic<bool> asked{false};
    std::atomic<bool> closed{false};
    std::thread reader([&] {
        while (!closed) {
            grabber.getFrameStatus();
            asked = true;
        }
    });
    while (!asked) {
        std::this_thread::yield();
    }
    grabber.close(true);
    closed = true;
    reader.join();
    QCOMPARE(grabber.getFrameStatus(), 0);
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
        openCamera(grabber, 0, 320, 200, 20, frequency);
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
    for (int silent = 0; silent < 50; ++silent) {  // a whole second
        if (grabber.getFrameStatus() == 1) {
            ++frames;
            silent = 0;
        }
    }
    QVERIFY2(frames >= 1 && frames <= 9, qPrintable(QString::number(frames)));
    QCOMPARE(grabber.getFrameStatus(), 0);
    QElapsedTimer timer;
    timer.start();
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
