// SPDX-License-Identifier: Apache-2.0
// How pictures, records and inertial data come together for a program that reads them.
#include "python/framequeue.h"

#include <poll.h>

#include <QTest>
#include <future>

using namespace receive;

namespace {

constexpr std::uint64_t kFirst = 1700000000000000007;
constexpr std::uint64_t kPeriod = 33333333;
constexpr std::uint32_t kTicks = 3000;

std::uint32_t timeOf(std::uint32_t number)
{
    return 0xFFFFF000u + number * kTicks;  // wraps soon
}

/// A stereo picture as a decoder gives it.
class Stereo {
public:
    explicit Stereo(std::uint32_t number, int width = 16, int height = 4) : time(timeOf(number))
    {
        const std::size_t bytes =
            static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
        buffer.reset(
            gst_buffer_new_memdup(std::vector<std::uint8_t>(bytes, number % 256).data(), bytes));
        caps.reset(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "GRAY8", "width",
                                       G_TYPE_INT, width, "height", G_TYPE_INT, height, "framerate",
                                       GST_TYPE_FRACTION, 30, 1, nullptr));
    }
    Frame frame() const { return {buffer.get(), caps.get(), time}; }

private:
    std::uint32_t time;
    tq::BufferPtr buffer;
    tq::CapsPtr caps;
};

void give(FrameQueue& queue, std::uint32_t number)
{
    queue.picture(Stereo(number).frame(), true);
}

void tell(FrameQueue& queue, std::uint32_t number, int packets = 0)
{
    static std::uint64_t sequence = 0;
    for (int i = 0; i < packets; ++i) {
        ImuRecord packet;
        packet.sequence = sequence++;
        queue.packet(packet);
    }
    FrameRecord record;
    record.counter = number;
    record.captureTime = kFirst + number * kPeriod;
    record.eyeHeight = 3;
    queue.record(record, timeOf(number));
}

bool isReadable(const FrameQueue& queue)
{
    pollfd one = {queue.descriptor(), POLLIN, 0};
    return poll(&one, 1, 0) == 1;
}

std::uint64_t counterOf(const std::optional<StereoFrame>& frame)
{
    return frame && frame->record ? frame->record->counter : UINT64_MAX;
}

}  // namespace

class FrameQueueTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QCOMPARE(tq::initialiseGStreamer(), std::string()); }
    void pairsPicturesWithRecords();
    void waitsForALateRecord();
    void goesOnWithoutALostRecord();
    void goesOnWithoutAnyRecords();
    void givesAllInertialData();
    void boundsInertialData();
    void dropsTheOldest();
    void givesTheNewest();
    void letsAFileWait();
    void completesWhatWaitsAtTheEnd();
    void keepsPicturesThatAreInUse();
};

void FrameQueueTest::pairsPicturesWithRecords()
{
    FrameQueue queue(4, false);
    QVERIFY(!isReadable(queue));
    for (std::uint32_t number : {0u, 1u}) {
        tell(queue, number);
    }
    give(queue, 1);  // the picture before it was lost
    QVERIFY(isReadable(queue));
    const std::optional<StereoFrame> frame = queue.take(false);
    QCOMPARE(counterOf(frame), std::uint64_t{1});
    QCOMPARE(frame->captureTime, kFirst + kPeriod);
    QCOMPARE(frame->width, 8);
    QCOMPARE(frame->height, 3);  // without the row that makes it even
    QVERIFY(!isReadable(queue));
    QVERIFY(!queue.take(false));
}

void FrameQueueTest::waitsForALateRecord()
{
    FrameQueue queue(4, false);
    tell(queue, 0);
    give(queue, 1);
    give(queue, 2);
    QVERIFY(queue.isEmpty());
    tell(queue, 1);
    QCOMPARE(counterOf(queue.take(false)), std::uint64_t{1});
    QVERIFY(queue.isEmpty());
    tell(queue, 2);
    QCOMPARE(counterOf(queue.take(false)), std::uint64_t{2});
}

void FrameQueueTest::goesOnWithoutALostRecord()
{
    FrameQueue queue(4, false);
    tell(queue, 0);
    give(queue, 0);
    queue.take(false);
    give(queue, 1);
    QVERIFY(queue.isEmpty());
    tell(queue, 2, 3);
    const std::optional<StereoFrame> without = queue.take(false);
    QVERIFY(without && !without->record);
    QVERIFY(without->imu.empty());
    const auto error = static_cast<std::int64_t>(without->captureTime - kFirst - kPeriod);
    QVERIFY2(std::abs(error) < 12000, qPrintable(QString::number(error)));
    give(queue, 2);
    QCOMPARE(queue.take(false)->imu.size(), std::size_t{3});
}

void FrameQueueTest::goesOnWithoutAnyRecords()
{
    FrameQueue silent(10, false);
    for (std::uint32_t number = 0; number < 6; ++number) {
        give(silent, number);
    }
    QVERIFY(silent.take(false) && silent.take(false));
    QVERIFY(!silent.take(false));  // four wait for the data stream
    FrameQueue videoOnly(4, false);
    videoOnly.picture(Stereo(0).frame(), false);
    QVERIFY(videoOnly.take(false));
}

void FrameQueueTest::givesAllInertialData()
{
    FrameQueue queue(2, false);
    std::vector<std::uint64_t> sequences;
    for (std::uint32_t number = 0; number < 7; ++number) {
        tell(queue, number, 3);
        if (number != 2) {
            give(queue, number);
        }
        if (number % 3 == 0) {
            const std::optional<StereoFrame> frame = queue.take(false);
            for (const ImuRecord& packet : frame->imu) {
                sequences.push_back(packet.sequence);
            }
        }
    }
    // Those that came with frame 6, which is not read yet, are still here.
    QCOMPARE(sequences.size(), std::size_t{18});
    for (std::size_t i = 1; i < sequences.size(); ++i) {
        QCOMPARE(sequences[i], sequences[i - 1] + 1);
    }
}

void FrameQueueTest::boundsInertialData()
{
    FrameQueue queue(2, false);
    tell(queue, 0, 60000);
    give(queue, 0);
    tell(queue, 1, 10);
    give(queue, 1);
    QCOMPARE(queue.take(false)->imu.size(), std::size_t{49990});
    QCOMPARE(queue.take(false)->imu.size(), std::size_t{10});
}

void FrameQueueTest::dropsTheOldest()
{
    FrameQueue queue(3, false);
    for (std::uint32_t number = 0; number < 10; ++number) {
        tell(queue, number);
        give(queue, number);
    }
    QCOMPARE(counterOf(queue.take(false)), std::uint64_t{7});
    QCOMPARE(queue.dropped(), std::uint64_t{7});
    QCOMPARE(counterOf(queue.take(false)), std::uint64_t{8});
    QCOMPARE(queue.dropped(), std::uint64_t{7});
}

void FrameQueueTest::givesTheNewest()
{
    FrameQueue queue(3, false);
    for (std::uint32_t number = 0; number < 10; ++number) {
        tell(queue, number, 1);
        give(queue, number);
    }
    const std::optional<StereoFrame> frame = queue.take(true);
    QCOMPARE(counterOf(frame), std::uint64_t{9});
    QCOMPARE(frame->imu.size(), std::size_t{10});
    QCOMPARE(queue.dropped(), std::uint64_t{0});  // left out, as was asked for
    QVERIFY(!queue.take(true));
}

void FrameQueueTest::letsAFileWait()
{
    FrameQueue queue(2, true);
    const std::future<void> reading = std::async(std::launch::async, [&queue] {
        for (std::uint32_t number = 0; number < 50; ++number) {
            tell(queue, number);
            give(queue, number);
        }
        queue.finish();
    });
    for (std::uint64_t number = 0; number < 50; ++number) {
        pollfd one = {queue.descriptor(), POLLIN, 0};
        QCOMPARE(poll(&one, 1, 60000), 1);
        QCOMPARE(counterOf(queue.take(number % 2 == 0)), number);
    }
    reading.wait();
    QCOMPARE(queue.dropped(), std::uint64_t{0});
    QVERIFY(isReadable(queue));  // so that whoever waits learns of the end
}

void FrameQueueTest::completesWhatWaitsAtTheEnd()
{
    FrameQueue queue(2, true);
    give(queue, 0);
    QVERIFY(queue.isEmpty());
    queue.finish();
    QVERIFY(queue.take(false));
    QVERIFY(!queue.take(false));
    // Nobody is kept waiting any more.
    for (std::uint32_t number = 1; number < 5; ++number) {
        give(queue, number);
    }
}

void FrameQueueTest::keepsPicturesThatAreInUse()
{
    std::optional<StereoFrame> frame;
    {
        FrameQueue queue(2, false);
        tell(queue, 7);
        give(queue, 7);
        frame = queue.take(false);
    }
    QCOMPARE(static_cast<const std::uint8_t*>(
                 GST_VIDEO_FRAME_PLANE_DATA(&frame->picture->pixels(), 0))[3],
             std::uint8_t{7});
}

QTEST_GUILESS_MAIN(FrameQueueTest)
#include "framequeue_test.moc"
