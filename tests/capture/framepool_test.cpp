// SPDX-License-Identifier: Apache-2.0
// The frame buffers of a capture worker: how many there are, in which order they come back, and
// that they are freed.
#include <QtTest>
#include <set>
#include <vector>

#include "capture/FrameRing.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"

namespace {

constexpr std::size_t kMegabyte = 1'000'000;
constexpr std::size_t kMemoryLimit = 256 * kMegabyte;

std::size_t frameBytes(int width, int height)
{
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2;
}

}  // namespace

class FrameRingTest : public QObject {
    Q_OBJECT

private slots:
    void init() { sdkfake::reset(); }

    void depth_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        QTest::addColumn<int>("fps");
        QTest::addColumn<int>("depth");
        QTest::addColumn<int>("start");
        QTest::addColumn<int>("kept");
        QTest::newRow("300 ms and three more") << 960 << 600 << 30 << 208 << 55 << 12;
        QTest::newRow("rounded up") << 960 << 600 << 25 << 208 << 55 << 11;
        QTest::newRow("no rate") << 960 << 600 << 0 << 208 << 55 << 4;
        QTest::newRow("GS") << 1920 << 1200 << 60 << 52 << 21 << 21;
        QTest::newRow("UHD is bounded by memory") << 3840 << 2160 << 60 << 14 << 14 << 14;
        QTest::newRow("at least two") << 20000 << 10000 << 30 << 2 << 2 << 2;
        QTest::newRow("at most a thousand") << 4 << 2 << 30 << 1000 << 1000 << 12;
        QTest::newRow("no size") << 0 << 0 << 30 << 1000 << 1000 << 12;
    }
    void depth()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        QFETCH(int, fps);
        QFETCH(int, depth);
        QFETCH(int, start);
        QFETCH(int, kept);
        QCOMPARE(FrameRing::depth(width, height), static_cast<std::size_t>(depth));
        QCOMPARE(FrameRing::startDepth(width, height, fps), static_cast<std::size_t>(start));
        QCOMPARE(FrameRing::keptDepth(width, height, fps), static_cast<std::size_t>(kept));
    }

    void memoryIsBounded()
    {
        for (int width = 100; width <= 8000; width += 100) {
            const int height = width / 2;
            const std::size_t bytes = FrameRing::depth(width, height) * frameBytes(width, height);
            QVERIFY2(
                bytes < kMemoryLimit,
                qPrintable(QString("%1 MB at a width of %2").arg(bytes / kMegabyte).arg(width)));
        }
    }

    // Buffers come back in the order in which they were emitted, around the ring several times.
    void oldestComesBackFirst()
    {
        constexpr int kWidth = 3840;
        constexpr int kHeight = 2160;
        FrameRing ring(kWidth, kHeight, 60);
        const std::size_t depth = FrameRing::depth(kWidth, kHeight);
        std::vector<tq::Mat*> emitted;
        for (std::size_t n = 0; n < depth; ++n) {
            emitted.push_back(ring.acquire());
            QVERIFY(emitted.back() != nullptr);
            ring.markInFlight(emitted.back());
        }
        QCOMPARE(std::set<tq::Mat*>(emitted.begin(), emitted.end()).size(), depth);
        QVERIFY(ring.acquire() == nullptr);
        QVERIFY(!ring.hasDelivered());
        for (std::size_t n = 0; n < 5 * depth + 1; ++n) {
            ring.release();
            QVERIFY(ring.hasDelivered());
            tq::Mat* const buffer = ring.acquire();
            QCOMPARE(buffer, emitted[n % depth]);
            QVERIFY(ring.acquire() == nullptr);
            ring.markInFlight(buffer);
        }
    }

    // A long halt needs more buffers; when it is over they are freed, and none is allocated for
    // what follows.
    void surplusIsFreed()
    {
        const auto count = [](const char* call) {
            return static_cast<std::size_t>(toList(sdkfake::callTexts(sdkfake::Image)).count(call));
        };
        const auto allocated = [&count] {
            return count("Mat.alloc(4, 2, 5, 1)") - count("Mat.free(3)");
        };
        const std::size_t kept = FrameRing::keptDepth(4, 2, 30);
        {
            FrameRing ring(4, 2, 30);
            for (std::size_t needed : {kept + 5, kept + 40}) {
                for (std::size_t n = 0; n < needed; ++n) {
                    ring.markInFlight(ring.acquire());
                }
                QCOMPARE(allocated(), needed);
                for (std::size_t n = 0; n < needed; ++n) {
                    ring.release();
                }
                QCOMPARE(allocated(), kept);
                const std::size_t before = count("Mat.alloc(4, 2, 5, 1)");
                std::set<tq::Mat*> taken;
                for (std::size_t n = 0; n < kept; ++n) {
                    tq::Mat* const buffer = ring.acquire();
                    taken.insert(buffer);
                    ring.markInFlight(buffer);
                }
                QCOMPARE(count("Mat.alloc(4, 2, 5, 1)"), before);
                QCOMPARE(taken.size(), kept);
                for (std::size_t n = 0; n < kept; ++n) {
                    ring.release();
                }
            }
        }
        QCOMPARE(allocated(), std::size_t{0});
    }

    // Until the first one comes back there are fewer.
    void start()
    {
        constexpr int kWidth = 1920;
        constexpr int kHeight = 1200;
        FrameRing ring(kWidth, kHeight, 30);
        const auto fill = [&ring] {
            std::size_t taken = 0;
            while (tq::Mat* const buffer = ring.acquire()) {
                ring.markInFlight(buffer);
                ++taken;
            }
            return taken;
        };
        const std::size_t start = FrameRing::startDepth(kWidth, kHeight, 30);
        const std::size_t depth = FrameRing::depth(kWidth, kHeight);
        QVERIFY(start < depth);
        QCOMPARE(fill(), start);
        ring.release();
        QCOMPARE(fill(), depth - start + 1);
    }

    void givenBackAtOnce()
    {
        FrameRing ring(4, 2, 30);
        tq::Mat* const waits = ring.acquire();
        ring.markInFlight(waits);
        for (int n = 0; n < 2000; ++n) {
            tq::Mat* const buffer = ring.acquire();
            QVERIFY(buffer != nullptr && buffer != waits);
            ring.giveBack(buffer);
        }
        QVERIFY(!ring.hasDelivered());
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Image)).count("Mat.alloc(4, 2, 5, 1)"), 2);
    }

    void releaseWithNothingInFlight()
    {
        FrameRing ring(4, 2, 30);
        ring.release();
        tq::Mat* const buffer = ring.acquire();
        QVERIFY(buffer != nullptr);
        QVERIFY(ring.acquire() != buffer);
    }

    void buffersAreAllocatedAndFreed()
    {
        tq::Mat emitted;
        {
            FrameRing ring(6, 4, 30);
            tq::Mat* const first = ring.acquire();
            first->getPtr<unsigned char>(tq::MEM(1))[47] = 9;
            emitted = *first;
            ring.markInFlight(first);
            QVERIFY(ring.acquire() != nullptr);
            QCOMPARE(toList(sdkfake::callTexts(sdkfake::Image)),
                     QStringList({"Mat.alloc(6, 4, 5, 1)", "Mat.alloc(6, 4, 5, 1)"}));
        }
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Image)).mid(2),
                 QStringList({"Mat.free(3)", "Mat.free(3)"}));
        // A receiver that still holds an image keeps its pixels.
        QCOMPARE(int(emitted.getPtr<unsigned char>(tq::MEM(1))[47]), 9);
    }
};

QTEST_GUILESS_MAIN(FrameRingTest)
#include "framepool_test.moc"
