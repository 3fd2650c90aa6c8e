// SPDX-License-Identifier: Apache-2.0
// Images that find no partner: how many are kept, how soon a pair is found among them, and what is
// said about it.
#include <sys/prctl.h>

#include <QSemaphore>
#include <QtTest>
#include <atomic>
#include <memory>
#include <thread>

#include "tests/capture/images.h"
#include "tests/capture/pauses.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/memory.h"
#include "tests/support/messagelog.h"
#include "tests/support/sanitizers.h"

namespace {

using images::kMillisecond;
using std::chrono::milliseconds;

constexpr qint64 kLimit = 512'000'000;
constexpr int kWidth = 1920;
constexpr int kHeight = 1200;
constexpr std::size_t kImageBytes = std::size_t{kWidth} * kHeight * 2;

tq::Mat large(tq::Timestamp timestamp, std::uint32_t number)
{
    return images::numbered(kWidth, kHeight, timestamp, number);
}

std::uint32_t numberAt(const tq::Mat& joined, std::size_t offset)
{
    std::uint32_t number = 0;
    std::memcpy(&number, joined.getPtr<unsigned char>(images::kHost) + offset, sizeof number);
    return number;
}

}  // namespace

class BacklogTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL) == 0); }
    void init() { sdkfake::reset(); }
    void cleanup() { pauses::onSleep(nullptr); }

    // Of the images of an eye whose partner is dead the oldest go; all others still find theirs.
    void oneEyeIsBounded_data()
    {
        QTest::addColumn<bool>("left");
        QTest::newRow("left") << true;
        QTest::newRow("right") << false;
    }
    void oneEyeIsBounded()
    {
        QFETCH(bool, left);
        const auto kept = static_cast<std::uint32_t>(kLimit / (kImageBytes + 4096));
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(kWidth, kHeight)), 0);
        const auto ingest = [&streamer](bool leftEye, const tq::Mat& image) {
            leftEye ? streamer.left(image) : streamer.right(image);
        };
        const qint64 before = residentBytes();
        for (std::uint32_t n = 0; n < kept + 7; ++n) {
            ingest(left, large((100 + n * 10) * kMillisecond, n));
        }
        QVERIFY2(kSanitized || residentBytes() - before < kLimit + 100'000'000,
                 qPrintable(QString::number((residentBytes() - before) / 1'000'000) + " MB"));
        const DroppedImages dropped = streamer.droppedImages();
        QCOMPARE(left ? dropped.left : dropped.right, std::uint64_t{7});
        QCOMPARE(left ? dropped.right : dropped.left, std::uint64_t{0});

        tq::Mat out = images::joined(kWidth, kHeight);
        tq::Timestamp timestamp = 0;
        ingest(!left, large((100 + 6 * 10) * kMillisecond, 6));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        for (const std::uint32_t n : {7u, kept + 6}) {
            ingest(!left, large((100 + n * 10) * kMillisecond, n));
            QCOMPARE(streamer.createSBS(out, timestamp), 0);
            QCOMPARE(numberAt(out, 0), n);
            QCOMPARE(numberAt(out, std::size_t{kWidth} * 2), n);
        }
    }

    // An image that goes while the search is under way pairs with nothing, nor does another one in
    // its place.
    void imagesThatGoDuringTheSearch()
    {
        const auto kept = static_cast<std::uint32_t>(kLimit / (kImageBytes + 4096));
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(kWidth, kHeight)), 0);
        for (std::uint32_t n = 0; n < kept; ++n) {
            streamer.left(large((100 + n * 10) * kMillisecond, n));
        }
        streamer.right(large(100 * kMillisecond, 0));
        std::uint32_t added = 0;
        pauses::onSleep([&](unsigned long) {
            if (added < 2) {
                streamer.left(large((10'000 + added * 10) * kMillisecond, kept + added));
                ++added;
            }
        });
        tq::Mat out = images::joined(kWidth, kHeight);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        QCOMPARE(streamer.droppedImages().left, std::uint64_t{2});
        streamer.right(large(120 * kMillisecond, 2));
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 2u);
        QCOMPARE(numberAt(out, std::size_t{kWidth} * 2), 2u);
        // Only what is older than that pair went with it.
        streamer.right(large(150 * kMillisecond, 5));
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 5u);
    }

    // One pair has a dead eye; the other one loses nothing, and the process does not grow.
    void deadEyeCostsItsOwnPairOnly()
    {
        constexpr int kFill = 120;
        sdkfake::keepPixels(false);
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        const auto otherMemory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraInfos infos = images::infos(kWidth, kHeight);
        QCOMPARE(memory->open(infos), 0);
        infos.port += 2;
        QCOMPARE(otherMemory->open(infos), 0);
        const tq::IMUPacket none{};
        QSemaphore sent;
        sdkfake::onFrame(
            [&](const sdkfake::Sender&, const unsigned char*, tq::Timestamp) { sent.release(); });
        qint64 filled = 0;
        tq::Mat image = large(0, 0);
        for (int n = 1; n <= 2 * kFill; ++n) {
            images::setTimestamp(image, static_cast<tq::Timestamp>(n) * 33 * kMillisecond);
            memory->ingestLeftImage(1, image, none, {});
            otherMemory->ingestLeftImage(3, image, none, {});
            otherMemory->ingestRightImage(4, image, none, {});
            QVERIFY(sent.tryAcquire(1, 5000));
            filled = n == kFill ? residentBytes() : filled;
        }
        QVERIFY2(kSanitized || residentBytes() < filled + filled / 10,
                 qPrintable(QStringLiteral("from %1 to %2").arg(filled).arg(residentBytes())));
        QCOMPARE(otherMemory->droppedImages().left, std::uint64_t{0});

        // The eye is back.
        memory->ingestRightImage(2, image, none, {});
        QVERIFY(sent.tryAcquire(1, 5000));
        QTRY_COMPARE(sdkfake::senders()[0].frames.size(), std::size_t{1});
        QTRY_COMPARE(sdkfake::senders()[1].frames.size(), std::size_t{2 * kFill});
        sdkfake::onFrame(nullptr);
    }

    // Cameras of small images that were out of step get into step: the search that is under way
    // among the old ones would take minutes, and gives way to the first pair.
    void pairDuringAHopelessSearch()
    {
        constexpr std::uint32_t kImages = 1860;
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        for (std::uint32_t n = 1; n <= kImages; ++n) {
            streamer.left(images::numbered(2, 1, n * 33 * kMillisecond, n));
            streamer.right(images::numbered(2, 1, (n * 33 + 16) * kMillisecond, n));
        }
        int sleeps = 0;
        pauses::onSleep([&](unsigned long) {
            ++sleeps;
            if (sleeps == 10) {
                streamer.left(images::numbered(2, 1, 100'000 * kMillisecond, 7));
            } else if (sleeps == 20) {
                streamer.right(images::numbered(2, 1, 100'004 * kMillisecond, 8));
            }
        });
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(sleeps, 20);
        QCOMPARE(numberAt(out, 0), 7u);
        QCOMPARE(numberAt(out, 4), 8u);
    }

    // One camera's images come a little later than the other's, so that the newest left one never
    // has its partner: a search that will find a pair goes on, whatever comes meanwhile.
    void newerPairsDoNotHoldUpASearch()
    {
        constexpr std::uint32_t kImages = 500;
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        for (std::uint32_t n = 1; n <= kImages; ++n) {
            streamer.left(images::numbered(2, 1, n * 33 * kMillisecond, n));
            streamer.right(images::numbered(2, 1, (n * 33 + 16) * kMillisecond, n));
        }
        const auto time = [](int n) { return (100'000 + n * 33) * kMillisecond; };
        streamer.left(images::numbered(2, 1, time(0), 1000));
        int sleeps = 0;
        pauses::onSleep([&](unsigned long) {
            ++sleeps;
            if (sleeps % 100 == 0) {
                const int n = sleeps / 100;
                streamer.left(images::numbered(2, 1, time(n), 1000 + static_cast<unsigned>(n)));
                streamer.right(
                    images::numbered(2, 1, time(n - 1), 1000 + static_cast<unsigned>(n - 1)));
            }
        });
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 1000u);
        QCOMPARE(numberAt(out, 4), 1000u);
        // 100 until the first pair, and the newest left image against all right ones.
        QCOMPARE(sleeps, 100 + 501);
    }

    // Images that come during a search and make no pair leave it as it is.
    void newerImagesWithoutPartner()
    {
        constexpr int kImages = 20;
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        for (std::uint32_t n = 1; n <= kImages; ++n) {
            streamer.left(images::numbered(2, 1, n * 33 * kMillisecond, n));
            streamer.right(images::numbered(2, 1, (n * 33 + 16) * kMillisecond, n));
        }
        int sleeps = 0;
        pauses::onSleep([&](unsigned long) {
            ++sleeps;
            streamer.left(images::numbered(2, 1, 100'000 * kMillisecond, 7));
        });
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        QCOMPARE(sleeps, kImages * kImages);
    }

    void reports_data()
    {
        QTest::addColumn<int>("left");   // offset of the images, ms; -1: none
        QTest::addColumn<int>("right");  // the same
        QTest::addColumn<QString>("line");
        const QString none = QStringLiteral("has no pair of images: ");
        QTest::newRow("left is silent") << -1 << 0 << none + "camera 30123456 delivers nothing";
        QTest::newRow("right is silent") << 0 << -1 << none + "camera 30123457 delivers nothing";
        QTest::newRow("both are silent")
            << -1 << -1 << none + "cameras 30123456 and 30123457 deliver nothing";
        QTest::newRow("right is late")
            << 0 << 6
            << none +
                   "those of camera 30123457 are taken 6 ms after those of camera 30123456 and "
                   "at most 5 ms make a pair";
        QTest::newRow("right is early")
            << 10 << 3
            << none +
                   "those of camera 30123457 are taken 7 ms before those of camera 30123456 and "
                   "at most 5 ms make a pair";
    }
    void reports()
    {
        QFETCH(int, left);
        QFETCH(int, right);
        QFETCH(QString, line);
        const MessageLog log;
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        std::chrono::steady_clock::time_point now{};
        int ms = 0;
        tq::Mat out = images::joined(2, 1);
        const auto lines = [&] { return log.messages().filter("pair"); };
        const auto pass = [&](int until) {
            for (; ms < until; ms += 33) {
                now = std::chrono::steady_clock::time_point(milliseconds(ms));
                const auto at = [&](int offset) {
                    return images::numbered(
                        2, 1, static_cast<tq::Timestamp>(ms + offset) * kMillisecond, 1);
                };
                if (left >= 0) {
                    streamer.left(at(left));
                }
                if (right >= 0) {
                    streamer.right(at(right));
                }
                streamer.reportPairs(now);
            }
        };
        streamer.beginReport(now);
        pass(1990);
        QCOMPARE(lines(), QStringList());
        pass(60'000);
        const QString prefix = QStringLiteral("[VirtualCameraStreamer] Virtual camera 101234567 ");
        QCOMPARE(lines(), QStringList(prefix + line));
        const bool bothDeliver = left >= 0 && right >= 0;
        QCOMPARE(streamer.apartUs(), std::int64_t(bothDeliver ? 1000 * (right - left) : 0));

        sendPair(streamer, 100'000 * kMillisecond);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        streamer.reportPairs(now + milliseconds(250));
        QCOMPARE(lines().size(), 2);
        QCOMPARE(lines().constLast(),
                 prefix + QStringLiteral("has pairs of images again, after %1 ms")
                              .arg(now.time_since_epoch() / milliseconds(1) + 250));
        QCOMPARE(streamer.apartUs(), std::int64_t(0));
        streamer.reportPairs(now + milliseconds(2249));
        QCOMPARE(lines().size(), 2);
        streamer.reportPairs(now + milliseconds(2250));
        QCOMPARE(lines().size(), 3);
    }

    // A pair that waits because the thread was held up is nothing to report.
    void waitingPairIsNotReported()
    {
        const MessageLog log;
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const std::chrono::steady_clock::time_point now{};
        streamer.beginReport(now);
        sendPair(streamer, kMillisecond);
        streamer.reportPairs(now + milliseconds(2000));
        QCOMPARE(log.messages().filter("pair"), QStringList());
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        streamer.reportPairs(now + milliseconds(2100));
        QCOMPARE(log.messages().filter("pair"), QStringList());
    }

    // The thread reports while it is in a long search, too.
    void threadReports_data()
    {
        QTest::addColumn<int>("images");
        QTest::newRow("waiting") << 0;
        QTest::newRow("searching") << 1860;
    }
    void threadReports()
    {
        QFETCH(int, images);
        const MessageLog log;
        std::atomic<int> sleeps{0};
        pauses::onSleep([&](unsigned long) {
            ++sleeps;
            std::this_thread::sleep_for(milliseconds(images > 0 ? 5 : 0));
        });
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::Mat left = images::filled(2, 1, kMillisecond, 1);
        const tq::Mat right = images::filled(2, 1, 500 * kMillisecond, 2);
        for (int n = 0; n < images; ++n) {
            streamer.ingestLeftImage(1, left, {}, {});
            streamer.ingestRightImage(2, right, {}, {});
        }
        const auto reported = [&] {
            if (images > 0) {
                streamer.ingestLeftImage(1, left, {}, {});
                streamer.ingestRightImage(2, right, {}, {});
            }
            return log.messages().filter("has no pair of images").size();
        };
        QTRY_COMPARE_WITH_TIMEOUT(reported(), 1, 30000);
        // The search that was going on has not come to its end.
        QVERIFY(images == 0 || sleeps < images);
        QCOMPARE(log.messages().filter("499 ms after").size(), images > 0 ? 1 : 0);
    }
};

QTEST_GUILESS_MAIN(BacklogTest)
#include "backlog_test.moc"
