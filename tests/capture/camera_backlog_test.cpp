// SPDX-License-Identifier: Apache-2.0
// The capture worker while the thread that receives its frames is late.
#include <QtTest>
#include <algorithm>
#include <cstring>
#include <set>

#include "capture/Camera.h"
#include "capture/Streamer.h"
#include "tests/capture/freerun.h"
#include "tests/capture/images.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"
#include "tests/support/sanitizers.h"

namespace {

constexpr int kSerial = 31123456;
constexpr std::size_t kMegabyte = 1'000'000;
constexpr std::size_t kLargestBacklog = 256 * kMegabyte;
constexpr std::size_t kLargestRest = 150 * kMegabyte;

/// A line of /proc/self/status that is given in kB, as bytes; 0 when it cannot be read.
std::size_t memoryStatus(const char* key)
{
    QFile file("/proc/self/status");
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith(key)) {
            return line.mid(static_cast<int>(std::strlen(key)))
                       .simplified()
                       .split(' ')[0]
                       .toULongLong() *
                   1024;
        }
    }
    return 0;
}

/// Resident memory of this process at its highest since the last call.
std::size_t peakMemory()
{
    const std::size_t peak = memoryStatus("VmHWM:");
    QFile reset("/proc/self/clear_refs");
    if (reset.open(QIODevice::WriteOnly)) {
        reset.write("5");
    }
    return peak;
}

/// How many frames the worker has copied out of the SDK.
std::size_t copiedFrames()
{
    const std::vector<sdkfake::Call> calls = sdkfake::calls(sdkfake::Frame);
    return static_cast<std::size_t>(
        std::count_if(calls.begin(), calls.end(),
                      [](const sdkfake::Call& call) { return call.function == "getPixels"; }));
}

/// How many images of a size are allocated.
std::size_t allocatedImages(int width, int height)
{
    const QString alloc = QString("Mat.alloc(%1, %2, 5, 1)").arg(width).arg(height);
    const QStringList calls = toList(sdkfake::callTexts(sdkfake::Image));
    return static_cast<std::size_t>(calls.count(alloc) - calls.count("Mat.free(3)"));
}

/// Keeps the event loop from running until the worker has had no room for a frame for more than
/// a second; gives up on a worker that has copied much more than it may keep.
void stallUntilNothingIsCopied(std::size_t frameBytes)
{
    constexpr int kLimitMs = 30000;
    QElapsedTimer total;
    QElapsedTimer unchanged;
    total.start();
    unchanged.start();
    const std::size_t before = copiedFrames();
    std::size_t copied = before;
    while (unchanged.elapsed() < 1300 && (copied - before) * frameBytes < 2 * kLargestBacklog &&
           total.elapsed() < kLimitMs) {
        QThread::msleep(50);
        if (const std::size_t now = copiedFrames(); now != copied) {
            copied = now;
            unchanged.start();
        }
    }
}

}  // namespace

class CameraBacklogTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        sdkfake::reset();
        sdkfake::CameraSetup setup;
        setup.serial = kSerial;
        setup.model = tq::MODEL::KOR_TSOLO_UHD;
        sdkfake::addCamera(setup);
    }
    void cleanup() { QCOMPARE(toList(sdkfake::misuses()), QStringList()); }

    void longStallIsBounded_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::newRow("1920x1200") << 1920 << 1200;
        QTest::newRow("3840x2160") << 3840 << 2160;
    }
    // While nobody takes the frames for seconds, memory stays bounded: later frames are dropped,
    // what is delivered afterwards is whole, and no IMU packet is lost with a dropped frame.
    void longStallIsBounded()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        sdkfake::FreeRun run;
        run.imuPerFrame = 4;
        int count = 0;
        int torn = 0;
        int disordered = 0;
        int malformedBatches = 0;
        std::vector<std::uint64_t> sequences;
        tq::Timestamp previous = 0;
        tq::Timestamp largestGap = 0;

        KTCamera camera;
        QObject receiver;
        connect(
            &camera, &KTCamera::sendYUYVImage, &receiver,
            [&](int, tq::Mat image, const tq::IMUPacket&, const std::vector<tq::IMUPacket>& imus) {
                const tq::Timestamp timestamp = freerun::timestampOf(image);
                torn += freerun::isIntact(image, run) ? 0 : 1;
                disordered += timestamp > previous ? 0 : 1;
                if (previous != 0) {
                    largestGap = std::max(largestGap, timestamp - previous);
                }
                previous = timestamp;
                malformedBatches += imus.size() % 2 == 0 ? 0 : 1;
                for (std::size_t i = imus.size() / 2; i < imus.size(); ++i) {
                    sequences.push_back(imus[i].sequence);
                }
                ++count;
            });
        QCOMPARE(camera.open(0,
                             tq::Resolution(static_cast<std::uint64_t>(width),
                                            static_cast<std::uint64_t>(height)),
                             60, false),
                 0);
        sdkfake::startFreeRun(kSerial, run);
        QTRY_VERIFY_WITH_TIMEOUT(count >= 3, 30000);
        peakMemory();
        const std::size_t before = memoryStatus("VmRSS:");
        const std::size_t frameBytes =
            static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2;
        stallUntilNothingIsCopied(frameBytes);
        const std::size_t peak = std::max(peakMemory(), memoryStatus("VmRSS:"));
        const std::size_t buffers = allocatedImages(width, height);
        const int beforeDrain = count;
        QTRY_VERIFY_WITH_TIMEOUT(count >= beforeDrain + 60, 60000);
        camera.close();
        QCoreApplication::processEvents();  // the pool goes with the last acknowledgement
        const std::size_t after = std::max(memoryStatus("VmRSS:"), before);

        const QString figures = QString(
                                    "%1 buffers of %2 MB, %3 MB more resident, gap %4 ms, "
                                    "afterwards %5 MB")
                                    .arg(buffers)
                                    .arg(frameBytes / kMegabyte)
                                    .arg((std::max(peak, before) - before) / kMegabyte)
                                    .arg(largestGap / 1'000'000)
                                    .arg((after - before) / kMegabyte);
        qInfo().noquote() << figures;
        QVERIFY2(buffers == FramePool::depth(width, height), qPrintable(figures));
        QVERIFY2(buffers * frameBytes <= kLargestBacklog, qPrintable(figures));
        if (!kSanitized) {
            QVERIFY2(peak <= before + kLargestBacklog, qPrintable(figures));
            // What the images' own pool keeps.
            QVERIFY2(after <= before + kLargestRest, qPrintable(figures));
        }
        QCOMPARE(torn, 0);
        QCOMPARE(disordered, 0);
        // The stall must have cost frames, or this test shows nothing.
        QVERIFY2(largestGap > 1'000'000'000, qPrintable(figures));

        QCOMPARE(malformedBatches, 0);
        QVERIFY(sequences.size() > 100);
        for (std::size_t i = 1; i < sequences.size(); ++i) {
            QCOMPARE(sequences[i], sequences[i - 1] + 1);
        }
    }

    // Frames that are on their way when the worker closes, changes its size or goes: what arrives
    // is whole, and the buffers of the second size does not wait for acknowledgements of the first.
    void closedWithFramesUnderWay()
    {
        const sdkfake::FreeRun run;
        std::set<std::size_t> widths;
        int torn = 0;
        int count = 0;
        QObject receiver;
        {
            KTCamera camera;
            connect(
                &camera, &KTCamera::sendYUYVImage, &receiver,
                [&](int, tq::Mat image, const tq::IMUPacket&, const std::vector<tq::IMUPacket>&) {
                    torn += freerun::isIntact(image, run) ? 0 : 1;
                    widths.insert(sdk::widthOf(image));
                    ++count;
                });
            QCOMPARE(camera.open(0, tq::Resolution(64, 32), 60, false), 0);
            sdkfake::startFreeRun(kSerial, run);
            // Without the event loop, so that they are all still on their way.
            QElapsedTimer timer;
            timer.start();
            while (copiedFrames() < 5 && timer.elapsed() < 30000) {
                QThread::msleep(10);
            }
            camera.close();
            QCOMPARE(camera.open(0, tq::Resolution(32, 64), 60, false), 0);
            QTRY_VERIFY(widths.count(64) == 1 && widths.count(32) == 1);
            const int former = count;
            QTRY_VERIFY_WITH_TIMEOUT(count >= former + 120, 30000);
        }
        QCoreApplication::processEvents();
        QCOMPARE(torn, 0);
        sdkfake::stopFreeRun(kSerial);
    }

    // Two cameras and a streamer, as the controllers connect them, while the main thread stands
    // still for 250 ms again and again: every frame that reaches the sender is one left and one
    // right frame of the same instant, whole.
    void noTornFrameReachesTheSender()
    {
        constexpr int kRightSerial = kSerial + 1;
        constexpr int kStalls = 6;
        sdkfake::CameraSetup setup;
        setup.id = 1;
        setup.serial = kRightSerial;
        sdkfake::addCamera(setup);
        sdkfake::keepPixels(false);
        const sdkfake::FreeRun run;
        VirtualCameraInfos infos = images::infos(960, 600);
        std::atomic<int> sent{0};
        std::atomic<int> torn{0};
        sdkfake::onFrame([&](const sdkfake::Sender&, const unsigned char* pixels,
                             tq::Timestamp timestamp) {
            torn += freerun::isIntact(pixels, infos.width, infos.height, timestamp, run) ? 0 : 1;
            ++sent;
        });
        {
            VirtualCameraStreamer streamer;
            KTCamera left;
            KTCamera right;
            connect(&left, &KTCamera::sendYUYVImage, &streamer,
                    &VirtualCameraStreamer::ingestLeftImage);
            connect(&right, &KTCamera::sendYUYVImage, &streamer,
                    &VirtualCameraStreamer::ingestRightImage);
            const tq::Resolution resolution(960, 600);
            QCOMPARE(left.open(0, resolution, 60, false), 0);
            QCOMPARE(right.open(1, resolution, 60, false), 0);
            QCOMPARE(streamer.open(infos), 0);
            sdkfake::startFreeRun(kSerial, run);
            sdkfake::startFreeRun(kRightSerial, run);
            for (int stall = 0; stall < kStalls; ++stall) {
                const int before = sent;
                QTRY_VERIFY_WITH_TIMEOUT(sent >= before + 10, 30000);
                QThread::msleep(250);
            }
        }
        QCOMPARE(torn.load(), 0);
        QVERIFY(sent >= 10 * kStalls);
    }
};

QTEST_GUILESS_MAIN(CameraBacklogTest)
#include "camera_backlog_test.moc"
