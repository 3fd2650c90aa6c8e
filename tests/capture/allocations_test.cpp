// SPDX-License-Identifier: Apache-2.0
// What the image path allocates once its pools are filled: no pixels.
#include <QtTest>
#include <memory>
#include <vector>

#include "capture/framepool.h"
#include "tests/capture/images.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/allocations.h"

namespace {

constexpr int kFrames = 2000;
constexpr tq::Timestamp kPeriod = 33'333'333;

}  // namespace

class AllocationsTest : public QObject {
    Q_OBJECT

private slots:
    void init() { sdkfake::reset(); }

    // A count that stays 0 whatever happens would show nothing.
    void allocationsAreCounted()
    {
        constexpr std::align_val_t kAlignment{64};
        const std::uint64_t before = allocations::ofThisThread();
        ::operator delete(::operator new(10));
        const std::uint64_t plain = allocations::ofThisThread();
        ::operator delete(::operator new(10, kAlignment), kAlignment);
        const std::uint64_t aligned = allocations::ofThisThread();
        QCOMPARE(plain, before + 1);
        QCOMPARE(aligned, before + 2);

        constexpr int kUnusedWidth = 131;  // nothing of this size is in the pool of the images
        const std::uint64_t pixels = allocations::ofPixelsByThisThread();
        const tq::Mat image = images::filled(kUnusedWidth, 3, 0, 0);
        QCOMPARE(allocations::ofPixelsByThisThread(), pixels + 1);
    }

    void framePool_data()
    {
        QTest::addColumn<int>("backlog");
        QTest::newRow("in time") << 1;
        QTest::newRow("a little late") << 4;
    }
    void framePool()
    {
        QFETCH(int, backlog);
        FramePool pool(16, 8);
        std::vector<tq::Mat*> out;
        const auto round = [&] {
            for (int n = 0; n < backlog; ++n) {
                out.push_back(pool.take());
            }
            for (tq::Mat* buffer : out) {
                pool.giveBack(buffer);
            }
            out.clear();
        };
        round();
        const std::uint64_t before = allocations::ofThisThread();
        for (int frame = 0; frame < kFrames; ++frame) {
            round();
        }
        QCOMPARE(allocations::ofThisThread() - before, std::uint64_t{0});
    }

    void streamer_data()
    {
        QTest::addColumn<int>("backlog");
        QTest::newRow("one pair at a time") << 1;
        QTest::newRow("three in the queues") << 3;
    }
    // Both slots, both queues and the join; the left eye's images come first by some frames.
    void streamer()
    {
        QFETCH(int, backlog);
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(16, 8)), 0);
        tq::Mat left = images::filled(16, 8, 0, 1);
        tq::Mat right = images::filled(16, 8, 0, 2);
        tq::Mat out = images::joined(16, 8);
        tq::Timestamp now = 0;
        int missing = 0;
        const auto round = [&] {
            for (int n = 0; n < backlog; ++n) {
                images::setTimestamp(left, now + static_cast<tq::Timestamp>(n) * kPeriod);
                streamer.left(left);
            }
            now += static_cast<tq::Timestamp>(backlog - 1) * kPeriod;
            images::setTimestamp(right, now);
            streamer.right(right);
            tq::Timestamp timestamp = 0;
            missing += streamer.createSBS(out, timestamp) == 0 && timestamp == now ? 0 : 1;
            now += kPeriod;
        };
        round();
        const std::uint64_t before = allocations::ofPixelsByThisThread();
        for (int frame = 0; frame < kFrames; ++frame) {
            round();
        }
        const std::uint64_t made = allocations::ofPixelsByThisThread() - before;
        QCOMPARE(missing, 0);
        QCOMPARE(made, std::uint64_t{0});
    }
};

QTEST_GUILESS_MAIN(AllocationsTest)
#include "allocations_test.moc"
