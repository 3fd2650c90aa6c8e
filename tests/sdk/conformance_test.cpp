// SPDX-License-Identifier: Apache-2.0
// What the program relies on of a camera SDK. Runs against any implementation of it, with the
// cameras that it finds; at least one mono camera must be attached and free. The sender is opened
// on ports that are free.
#include "tests/sdk/conformance.h"
#include "tests/support/memory.h"

#include <QCoreApplication>
#include <QProcess>
#include <QtTest>
#include <algorithm>
#include <cstdio>
#include <list>
#include <memory>

namespace {

constexpr const char* kHolderOption = "--hold-camera";

/// The second process of the test of busy cameras: holds a camera until its input ends.
int holdCamera(int id)
{
    for (const Device& device : monoCameras()) {
        Camera camera;
        if (device.id == id && camera.open(device) == 0 && camera.waitForFrame()) {
            std::puts("held");
            std::fflush(stdout);
            (void)std::getchar();
            camera.grabber.close(true);
            return 0;
        }
    }
    return 1;
}

/// Nearest distance of a time to a sorted list, ns.
tq::Timestamp distance(const std::vector<tq::Timestamp>& times, tq::Timestamp to)
{
    tq::Timestamp nearest = ~tq::Timestamp(0);
    for (const tq::Timestamp time : times) {
        nearest = std::min(nearest, time > to ? time - to : to - time);
    }
    return nearest;
}

}  // namespace

class Conformance : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void modelsHaveNames();
    void camerasAreEnumerated();
    void enumerationIsRepeatable();
    void unknownIdIsRefused();
    void absurdSizeIsRefused();
    void openedCameraDescribesItself();
    void framesArriveAtTheAskedRate();
    void pixelsStayUntouchedUntilTheNextFrame();
    void aLateReaderSeesTheNewestFrame();
    void aSecondGrabberIsRefused();
    void aSecondProcessIsRefused();
    void aKilledProcessReleasesItsCamera();
    void twoCamerasPair();
    void batchesHoldEveryPacketOnce();
    void camerasWithoutInertialUnitSaySo();
    void camerasCanBeClosedAndReopened();
    void imagesShareAndClone();
    void cloningKeepsNothing_data();
    void cloningKeepsNothing();
    void imagesCarryTheirCaptureTime();
    void imagesAreAllocatedPacked();
    void imagesCanBeReleasedOnAnyThread();
    void imagesKnowTheirSize();
    void metadataFollowsThePacket();
    void senderTakesFramesAndPackets();
    void senderWithoutImuRate();
    void senderRefusesATakenPort();
    void closedSenderFreesItsPort();
    void senderCanBeReopened();
    void destructionEndsTheStream();

private:
    std::vector<Device> cameras;
};

void Conformance::initTestCase()
{
    cameras = monoCameras();
    QVERIFY2(!cameras.empty(), "attach at least one mono camera");
    for (const Device& device : cameras) {
        QVERIFY2(device.state == 0, "a camera is in use by another process");
    }
}

void Conformance::modelsHaveNames()
{
    QCOMPARE(tq::toString(sdk::kSoloGs).c_str(), "KOR T Solo GS");
    QCOMPARE(tq::toString(sdk::kSoloUhd).c_str(), "KOR T Solo UHD");
}

void Conformance::camerasAreEnumerated()
{
    QSet<int> ids;
    QSet<int> serials;
    for (const Device& device : cameras) {
        QVERIFY(device.serial > 0);
        // The program tells the families apart by these digits.
        QCOMPARE(QString::number(device.serial).left(2),
                 QString::number(static_cast<int>(device.model)));
        QVERIFY2(!ids.contains(device.id), "ids are unique");
        QVERIFY2(!serials.contains(device.serial), "serial numbers are unique");
        ids << device.id;
        serials << device.serial;
    }
}

void Conformance::enumerationIsRepeatable()
{
    for (int round = 0; round < 2; ++round) {
        const std::vector<Device> again = monoCameras();
        QCOMPARE(again.size(), cameras.size());
        for (std::size_t i = 0; i < again.size(); ++i) {
            QCOMPARE(again[i].id, cameras[i].id);
            QCOMPARE(again[i].serial, cameras[i].serial);
        }
        ArgusCamera::deleteProviderInstance();
    }
    cameras = monoCameras();
}

void Conformance::unknownIdIsRefused()
{
    int unknown = 0;
    for (const tq::DeviceProperties& record : ArgusCamera::getGMSLDevices(true, false)) {
        unknown = std::max(unknown, fieldAt<int>(record, 4) + 1);
    }
    Camera camera;
    QVERIFY(camera.open(unknown, 1920, 1200) != 0);
    QVERIFY(camera.grabber.getFrameStatus() != 1);
}

void Conformance::absurdSizeIsRefused()
{
    Camera camera;
    QVERIFY(camera.open(cameras.front().id, 0, 0) != 0);
    QVERIFY(camera.open(cameras.front().id, -1920, 1200) != 0);
    QVERIFY(camera.open(cameras.front().id, 1920, 1200, 0) != 0);
    QVERIFY2(camera.open(cameras.front()) == 0, "refused attempts leave the camera free");
}

void Conformance::openedCameraDescribesItself()
{
    for (const Device& device : cameras) {
        Camera camera;
        QCOMPARE(camera.open(device), 0);
        QCOMPARE(camera.grabber.getEffectiveWidth(), 1920);
        QCOMPARE(camera.grabber.getEffectiveHeight(), defaultHeight(device.model));
        QVERIFY(camera.grabber.getFPS() > 0);
        QCOMPARE(camera.grabber.getSerialNumber(), device.serial);
        QVERIFY(camera.grabber.getCameraModel() == device.model);
        QCOMPARE(camera.grabber.hasMCU(), camera.grabber.getMCU() != nullptr);
    }
}

void Conformance::framesArriveAtTheAskedRate()
{
    constexpr int kFrames = 45;
    Camera camera;
    QCOMPARE(camera.open(cameras.front()), 0);
    QVERIFY(camera.waitForFrame());
    const tq::Timestamp first = camera.grabber.getTimeStamp();
    tq::Timestamp last = first;
    tq::Timestamp lastTaken = realTime();
    std::vector<tq::Timestamp> intervals;
    for (int i = 0; i < kFrames; ++i) {
        QVERIFY(camera.waitForFrame());
        const tq::Timestamp now = realTime();
        const tq::Timestamp time = camera.grabber.getTimeStamp();
        QVERIFY2(time > last, "capture times increase");
        QVERIFY2(time <= now, "a frame is not from the future");
        // A machine that halts makes the frame as old as the halt.
        QVERIFY2(now - time < 500000000u + (now - lastTaken), "a frame is recent");
        intervals.push_back(time - last);
        last = time;
        lastTaken = now;
    }
    // The median, so that a busy machine that misses some frames still measures the camera.
    std::nth_element(intervals.begin(), intervals.begin() + kFrames / 2, intervals.end());
    const double period = static_cast<double>(intervals[kFrames / 2]);
    const double expected = 1e9 / camera.grabber.getFPS();
    QVERIFY2(period > expected * 0.9 && period < expected * 1.1,
             qPrintable(QString("%1 ns instead of %2 ns").arg(period).arg(expected)));
}

void Conformance::pixelsStayUntouchedUntilTheNextFrame()
{
    Camera camera;
    QCOMPARE(camera.open(cameras.front()), 0);
    for (int i = 0; i < 5; ++i) {
        QVERIFY(camera.waitForFrame());
        const unsigned char* address = camera.grabber.getPixels();
        const tq::Timestamp time = camera.grabber.getTimeStamp();
        const QByteArray before = camera.pixels();
        QThread::msleep(static_cast<unsigned long>(5 * 1000 / camera.grabber.getFPS()));
        QVERIFY(camera.pixels() == before);
        QVERIFY(camera.grabber.getPixels() == address);
        QCOMPARE(camera.grabber.getTimeStamp(), time);
    }
}

void Conformance::aLateReaderSeesTheNewestFrame()
{
    Camera camera;
    QCOMPARE(camera.open(cameras.front()), 0);
    QVERIFY(camera.waitForFrame());
    // The camera, too, stands still while the machine does.
    tq::Timestamp longestPause = 0;
    tq::Timestamp now = realTime();
    for (const tq::Timestamp begin = now; now < begin + 400000000u;) {
        QThread::msleep(1);
        const tq::Timestamp before = now;
        now = realTime();
        longestPause = std::max(longestPause, now - before);
    }
    QVERIFY(camera.waitForFrame());
    const tq::Timestamp age = now - std::min(now, camera.grabber.getTimeStamp());
    QVERIFY2(age < 200000000u + longestPause, qPrintable(QString("%1 ns old").arg(age)));
}

void Conformance::aSecondGrabberIsRefused()
{
    Camera first;
    Camera second;
    QCOMPARE(first.open(cameras.front()), 0);
    QVERIFY(second.open(cameras.front()) != 0);
    QVERIFY2(first.waitForFrame(), "the first user is not disturbed");
    first.grabber.close(true);
    QCOMPARE(second.open(cameras.front()), 0);
}

void Conformance::aSecondProcessIsRefused()
{
    QProcess other;
    other.start(QCoreApplication::applicationFilePath(),
                {kHolderOption, QString::number(cameras.front().id)});
    QVERIFY(other.waitForReadyRead(60000));
    QCOMPARE(other.readLine().trimmed(), QByteArray("held"));

    for (const Device& device : monoCameras()) {
        QCOMPARE(device.state != 0, device.id == cameras.front().id);
    }
    Camera camera;
    QVERIFY(camera.open(cameras.front()) != 0);

    other.closeWriteChannel();
    QVERIFY(other.waitForFinished(60000));
    QCOMPARE(other.exitCode(), 0);
    QCOMPARE(camera.open(cameras.front()), 0);
}

void Conformance::aKilledProcessReleasesItsCamera()
{
    QProcess other;
    other.start(QCoreApplication::applicationFilePath(),
                {kHolderOption, QString::number(cameras.front().id)});
    QVERIFY(other.waitForReadyRead(60000));
    other.kill();
    QVERIFY(other.waitForFinished(60000));
    Camera camera;
    int result = -1;
    QTRY_VERIFY((result == 0 || (result = camera.open(cameras.front())) == 0));
    QVERIFY(camera.waitForFrame());
}

void Conformance::twoCamerasPair()
{
    if (cameras.size() < 2 || cameras[0].model != cameras[1].model) {
        QSKIP("needs two cameras of the same model");
    }
    Camera left;
    Camera right;
    QCOMPARE(left.open(cameras[0]), 0);
    QCOMPARE(right.open(cameras[1]), 0);
    QVERIFY(left.waitForFrame());
    QVERIFY(right.waitForFrame());
    std::vector<tq::Timestamp> lefts;
    std::vector<tq::Timestamp> rights;
    QElapsedTimer timer;
    timer.start();
    while (!timer.hasExpired(1500)) {
        if (left.grabber.getFrameStatus() == 1) {
            lefts.push_back(left.grabber.getTimeStamp());
        }
        if (right.grabber.getFrameStatus() == 1) {
            rights.push_back(right.grabber.getTimeStamp());
        }
        QThread::usleep(100);
    }
    QVERIFY(lefts.size() > 15);
    const auto paired = std::count_if(lefts.begin(), lefts.end(), [&](tq::Timestamp time) {
        return distance(rights, time) <= 5000000u;
    });
    // A busy machine misses frames of either camera; cameras out of step pair never.
    QVERIFY2(paired * 2 >= static_cast<int>(lefts.size()),
             qPrintable(QString("%1 of %2 frames have a partner").arg(paired).arg(lefts.size())));
}

void Conformance::batchesHoldEveryPacketOnce()
{
    Camera camera;
    QCOMPARE(camera.open(cameras.front()), 0);
    tq::KORmcu* mcu = camera.grabber.getMCU();
    if (mcu == nullptr) {
        QSKIP("the camera attached first has no inertial unit");
    }
    QVERIFY(camera.waitForFrame());
    const tq::Timestamp begin = camera.grabber.getTimeStamp();
    tq::Timestamp end = begin;
    std::list<tq::IMUPacket> collected;
    for (int i = 0; i < 30; ++i) {
        QVERIFY(camera.waitForFrame());
        const tq::Timestamp time = camera.grabber.getTimeStamp();
        collected.splice(collected.end(), mcu->getIMUPacketBatch(end, time));
        end = time;
    }
    const std::list<tq::IMUPacket> whole = mcu->getIMUPacketBatch(begin, end);
    QVERIFY(!whole.empty());
    QCOMPARE(collected.size(), whole.size());
    // Compared as bytes: the program copies packets whole and never looks into them.
    QVERIFY(std::equal(whole.begin(), whole.end(), collected.begin(),
                       [](const tq::IMUPacket& a, const tq::IMUPacket& b) {
                           return std::memcmp(&a, &b, sizeof a) == 0;
                       }));
    QVERIFY2(mcu->getIMUPacketBatch(end, end).empty(), "an empty range holds nothing");
}

void Conformance::camerasWithoutInertialUnitSaySo()
{
    for (const Device& device : cameras) {
        Camera camera;
        QCOMPARE(camera.open(device), 0);
        QCOMPARE(camera.grabber.getMCU() != nullptr, camera.grabber.hasMCU());
        QVERIFY(camera.waitForFrame());
        // The reference is valid with and without a unit.
        const tq::IMUPacket packet = camera.grabber.getIMUPacket();
        Q_UNUSED(packet)
    }
}

void Conformance::camerasCanBeClosedAndReopened()
{
    const int heights[] = {defaultHeight(cameras.front().model), 1080, 1200};
    Camera camera;
    for (const int height : heights) {
        QCOMPARE(camera.open(cameras.front().id, 1920, height), 0);
        QCOMPARE(camera.grabber.getEffectiveHeight(), height);
        QVERIFY(camera.waitForFrame());
        camera.grabber.close(true);
        QVERIFY(camera.grabber.getFrameStatus() != 1);
    }
}

void Conformance::imagesShareAndClone()
{
    tq::Mat image;
    image.alloc(64, 8, sdk::kYuyv, sdk::kHostMemory);
    auto* pixels = image.getPtr<unsigned char>(sdk::kHostMemory);
    QVERIFY(pixels != nullptr);
    std::memset(pixels, 7, 64 * 8 * 2);

    tq::Mat shared(image);
    QVERIFY2(shared.getPtr<unsigned char>(sdk::kHostMemory) == pixels, "copies share the pixels");
    tq::Mat deep;
    deep.clone(image);
    auto* own = deep.getPtr<unsigned char>(sdk::kHostMemory);
    QVERIFY2(own != nullptr && own != pixels, "a clone has pixels of its own");
    pixels[100] = 9;
    QCOMPARE(int(shared.getPtr<unsigned char>(sdk::kHostMemory)[100]), 9);
    QCOMPARE(int(own[100]), 7);

    image.free(sdk::kAllMemory);
    QVERIFY(image.getPtr<unsigned char>(sdk::kHostMemory) == nullptr);
    QCOMPARE(int(shared.getPtr<unsigned char>(sdk::kHostMemory)[100]), 9);
}

void Conformance::cloningKeepsNothing_data()
{
    QTest::addColumn<int>("otherWidth");
    QTest::newRow("same size") << 960;
    QTest::newRow("another size") << 640;
}

// The image that is cloned into holds pixels already, as one that is used again does.
void Conformance::cloningKeepsNothing()
{
    constexpr int kRounds = 1000;
    constexpr qint64 kMostGrowth = 50 << 20;  // a thousand images are a thousand MB
    QFETCH(int, otherWidth);
    tq::Mat images[2];
    images[0].alloc(960, 600, sdk::kYuyv, sdk::kHostMemory);
    images[1].alloc(static_cast<unsigned long>(otherWidth), 600, sdk::kYuyv, sdk::kHostMemory);
    for (int i = 0; i < 2; ++i) {
        std::memset(images[i].getPtr<unsigned char>(sdk::kHostMemory), i + 1,
                    images[i].getStepBytes(sdk::kHostMemory) * 600);
    }
    tq::Mat target;
    qint64 before = 0;
    for (int round = 0; round < kRounds; ++round) {
        const tq::Mat& image = images[round % 2];
        target.clone(image);
        const std::size_t step = target.getStepBytes(sdk::kHostMemory);
        QCOMPARE(step, image.getStepBytes(sdk::kHostMemory));
        const auto* pixels = target.getPtr<unsigned char>(sdk::kHostMemory);
        QVERIFY(pixels != image.getPtr<unsigned char>(sdk::kHostMemory));
        QCOMPARE(int(pixels[0]), round % 2 + 1);
        QCOMPARE(int(pixels[step * 600 - 1]), round % 2 + 1);
        if (round == 10) {
            before = residentBytes();
        }
    }
    const qint64 grown = residentBytes() - before;
    QVERIFY2(before > 0 && grown < kMostGrowth, qPrintable(QString("%1 bytes").arg(grown)));
}

void Conformance::imagesCarryTheirCaptureTime()
{
    tq::Mat image;
    image.alloc(16, 4, sdk::kYuyv, sdk::kHostMemory);
    sdk::setCaptureTime(image, 1700000000123456789u);
    const tq::Mat shared(image);
    tq::Mat deep;
    deep.clone(shared);
    QCOMPARE(sdk::captureTime(shared), tq::Timestamp(1700000000123456789u));
    QCOMPARE(sdk::captureTime(deep), tq::Timestamp(1700000000123456789u));
}

void Conformance::imagesAreAllocatedPacked()
{
    for (const auto& [width, height] : {std::pair{1920, 1200}, {3840, 1200}, {7680, 2160}}) {
        tq::Mat image;
        image.alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height),
                    sdk::kYuyv, sdk::kHostMemory);
        QCOMPARE(image.getStepBytes(sdk::kHostMemory), static_cast<std::size_t>(width) * 2);
        auto* pixels = image.getPtr<unsigned char>(sdk::kHostMemory);
        QVERIFY(pixels != nullptr);
        pixels[static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2 - 1] = 1;
    }
}

void Conformance::imagesCanBeReleasedOnAnyThread()
{
    tq::Mat image;
    image.alloc(640, 480, sdk::kYuyv, sdk::kHostMemory);
    std::memset(image.getPtr<unsigned char>(sdk::kHostMemory), 5, 640 * 480 * 2);
    std::vector<std::unique_ptr<QThread>> threads;
    QAtomicInt wrong;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(QThread::create([copy = tq::Mat(image), &wrong] {
            for (int k = 0; k < 2000; ++k) {
                const tq::Mat shared(copy);
                if (shared.getPtr<unsigned char>(sdk::kHostMemory)[k] != 5) {
                    wrong.ref();
                }
            }
        }));
        threads.back()->start();
    }
    image.free(sdk::kAllMemory);
    for (const auto& thread : threads) {
        QVERIFY(thread->wait(10000));
    }
    QCOMPARE(wrong.loadAcquire(), 0);
}

void Conformance::imagesKnowTheirSize()
{
    tq::Mat image;
    QCOMPARE(sdk::widthOf(image), std::size_t{0});
    QCOMPARE(sdk::heightOf(image), std::size_t{0});
    image.alloc(64, 8, sdk::kYuyv, sdk::kHostMemory);
    const tq::Mat shared(image);
    tq::Mat deep;
    deep.clone(image);
    for (const tq::Mat* each : std::initializer_list<const tq::Mat*>{&image, &shared, &deep}) {
        QCOMPARE(sdk::widthOf(*each), std::size_t{64});
        QCOMPARE(sdk::heightOf(*each), std::size_t{8});
    }
    // Allocating again changes the size of this object alone.
    image.alloc(32, 16, sdk::kYuyv, sdk::kHostMemory);
    QCOMPARE(sdk::widthOf(image), std::size_t{32});
    QCOMPARE(sdk::heightOf(image), std::size_t{16});
    QCOMPARE(sdk::widthOf(shared), std::size_t{64});
}

// The records are compared as bytes: the program never looks into them.
void Conformance::metadataFollowsThePacket()
{
    const auto metadataOf = [](const tq::IMUPacket& packet) {
        tq::kvfrw::kvfSampleMetadata metadata;
        std::memset(&metadata, 0, sizeof metadata);
        tq::kvfrw::convertMetadataFromMCUData(metadata, packet);
        return QByteArray(reinterpret_cast<const char*>(&metadata), sizeof metadata);
    };
    Camera camera;
    QCOMPARE(camera.open(cameras.front()), 0);
    if (!camera.grabber.hasMCU()) {
        QSKIP("the camera attached first has no inertial unit");
    }
    std::vector<tq::IMUPacket> packets;
    for (int i = 0; i < 30; ++i) {
        QVERIFY(camera.waitForFrame());
        packets.push_back(camera.grabber.getIMUPacket());
    }
    const QByteArray nothing(sizeof(tq::kvfrw::kvfSampleMetadata), 0);
    QSet<QByteArray> different;
    for (const tq::IMUPacket& packet : packets) {
        const QByteArray metadata = metadataOf(packet);
        QCOMPARE(metadata.toHex(), metadataOf(packet).toHex());
        // A unit that starts with its camera may have measured nothing yet, but never again.
        QVERIFY(metadata != nothing || different.isEmpty());
        if (metadata != nothing) {
            different << metadata;
        }
    }
    QVERIFY2(different.size() > 15, "the metadata of different packets differs");
}

// Nobody receives: a sender must neither fail nor hold up the program then.
void Conformance::senderTakesFramesAndPackets()
{
    constexpr int kFrames = 30;
    tq::UDPOutput sender(sdk::kStreamingMode, true);
    QCOMPARE(sender.open(senderConfig(freePort())), 0);
    QElapsedTimer timer;
    timer.start();
    ingest(sender, kFrames);
    QVERIFY2(timer.elapsed() < 10000, qPrintable(QString("%1 ms").arg(timer.elapsed())));
    sender.close();
}

void Conformance::senderWithoutImuRate()
{
    tq::UDPOutput sender(sdk::kStreamingMode, true);
    QCOMPARE(sender.open(senderConfig(freePort(), 0)), 0);
    ingest(sender, 3);
    sender.close();
}

void Conformance::senderRefusesATakenPort()
{
    const int port = freePort();
    tq::UDPOutput first(sdk::kStreamingMode, true);
    QCOMPARE(first.open(senderConfig(port)), 0);
    {
        tq::UDPOutput second(sdk::kStreamingMode, true);
        QVERIFY2(second.open(senderConfig(port)) != 0, "the port is in use");
    }
    // The one that had it first is not disturbed, and another port is still to be had.
    ingest(first, 3);
    tq::UDPOutput other(sdk::kStreamingMode, true);
    QCOMPARE(other.open(senderConfig(freePort())), 0);
}

void Conformance::closedSenderFreesItsPort()
{
    const int port = freePort();
    tq::UDPOutput first(sdk::kStreamingMode, true);
    QCOMPARE(first.open(senderConfig(port)), 0);
    ingest(first, 3);
    first.close();
    tq::UDPOutput second(sdk::kStreamingMode, true);
    QCOMPARE(second.open(senderConfig(port)), 0);
    ingest(second, 3);
}

void Conformance::senderCanBeReopened()
{
    const int ports[] = {freePort(), freePort()};
    tq::UDPOutput sender(sdk::kStreamingMode, true);
    for (const int port : {ports[0], ports[0], ports[1]}) {
        QCOMPARE(sender.open(senderConfig(port)), 0);
        ingest(sender, 3);
        sender.close();
    }
}

// The program replaces a sender by destroying it, without closing it first.
void Conformance::destructionEndsTheStream()
{
    const int port = freePort();
    for (int round = 0; round < 3; ++round) {
        auto sender = std::make_unique<tq::UDPOutput>(sdk::kStreamingMode, true);
        QCOMPARE(sender->open(senderConfig(port)), 0);
        ingest(*sender, 3);
        sender.reset();
    }
    // One that was never opened goes as well.
    const tq::UDPOutput unopened(sdk::kStreamingMode, true);
}

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == kHolderOption) {
        return holdCamera(arguments.value(2).toInt());
    }
    Conformance suite;
    return QTest::qExec(&suite, argc, argv);
}

#include "conformance_test.moc"
