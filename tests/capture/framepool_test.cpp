// SPDX-License-Identifier: Apache-2.0
// The frame buffers of a capture worker: how many there are, and that they are freed.
#include <QtTest>
#include <set>
#include <vector>

#include "capture/framepool.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"

namespace {

constexpr std::size_t kMegabyte = 1'000'000;

std::size_t frameBytes(int width, int height)
{
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2;
}

std::size_t count(const char* call)
{
    return static_cast<std::size_t>(toList(sdkfake::callTexts(sdkfake::Image)).count(call));
}

std::size_t allocations()
{
    return count("Mat.alloc(6, 4, 5, 1)");
}

std::size_t allocated()
{
    return allocations() - count("Mat.free(3)");
}

}  // namespace

class FramePoolTest : public QObject {
    Q_OBJECT

private slots:
    void init() { sdkfake::reset(); }

    void depth_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("depth");
        QTest::newRow("960x600") << 960 << 600 << 207;
        QTest::newRow("1920x1200") << 1920 << 1200 << 52;
        QTest::newRow("3840x2160") << 3840 << 2160 << 14;
        QTest::newRow("at least two") << 20000 << 10000 << 2;
        QTest::newRow("no size") << 0 << 0 << 58593;
    }
    void depth()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, depth);
        QCOMPARE(FramePool::depth(width, height), static_cast<std::size_t>(depth));
    }

    void memoryIsBounded()
    {
        for (int width = 2; width <= 8000; width += 98) {
            const int height = width / 2;
            const std::size_t bytes = FramePool::depth(width, height) * frameBytes(width, height);
            QVERIFY2(
                bytes <= 240 * kMegabyte,
                qPrintable(QString("%1 MB at a width of %2").arg(bytes / kMegabyte).arg(width)));
        }
    }

    // Until all are out each is another one; then there is none, until any of them comes back.
    void allAreOut()
    {
        constexpr int kWidth = 3840;
        constexpr int kHeight = 2160;
        FramePool pool(kWidth, kHeight);
        const std::size_t depth = FramePool::depth(kWidth, kHeight);
        std::vector<tq::Mat*> out;
        for (std::size_t n = 0; n < depth; ++n) {
            out.push_back(pool.take());
            QVERIFY(out.back() != nullptr);
        }
        QCOMPARE(std::set<tq::Mat*>(out.begin(), out.end()).size(), depth);
        QVERIFY(pool.take() == nullptr);
        for (std::size_t n : {std::size_t{3}, std::size_t{0}, depth - 1}) {
            pool.giveBack(out[n]);
            QCOMPARE(pool.take(), out[n]);
            QVERIFY(pool.take() == nullptr);
        }
    }

    void oneBufferIsThereFromTheStart()
    {
        FramePool pool(6, 4);
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Image)), QStringList("Mat.alloc(6, 4, 5, 1)"));
        for (int n = 0; n < 100; ++n) {
            pool.giveBack(pool.take());
        }
        QCOMPARE(allocations(), std::size_t{1});
    }

    // A long halt needs more buffers; when it is over all but four are freed, and none is allocated
    // for what follows.
    void surplusIsFreed()
    {
        FramePool pool(6, 4);
        for (std::size_t needed : {5u, 40u}) {
            std::vector<tq::Mat*> out;
            for (std::size_t n = 0; n < needed; ++n) {
                out.push_back(pool.take());
            }
            QCOMPARE(allocated(), needed);
            for (tq::Mat* buffer : out) {
                pool.giveBack(buffer);
            }
            QCOMPARE(allocated(), std::size_t{4});
            const std::size_t before = allocations();
            for (int round = 0; round < 10; ++round) {
                const std::vector<tq::Mat*> few = {pool.take(), pool.take(), pool.take(),
                                                   pool.take()};
                for (tq::Mat* buffer : few) {
                    QVERIFY(buffer->getPtr<unsigned char>(tq::MEM(1)) != nullptr);
                    pool.giveBack(buffer);
                }
            }
            QCOMPARE(allocations(), before);
        }
    }

    // In all kinds of memory, those that are out as well; what was emitted keeps its pixels.
    void free()
    {
        FramePool pool(6, 4);
        tq::Mat* const out = pool.take();
        out->getPtr<unsigned char>(tq::MEM(1))[47] = 9;
        const tq::Mat emitted(*out);
        pool.giveBack(pool.take());
        QCOMPARE(allocated(), std::size_t{2});
        pool.free();
        QCOMPARE(allocated(), std::size_t{0});
        QCOMPARE(int(emitted.getPtr<unsigned char>(tq::MEM(1))[47]), 9);
        pool.giveBack(out);
        QCOMPARE(count("Mat.free(3)"), std::size_t{2});
    }
};

QTEST_GUILESS_MAIN(FramePoolTest)
#include "framepool_test.moc"
