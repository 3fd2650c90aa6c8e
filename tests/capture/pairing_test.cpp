// SPDX-License-Identifier: Apache-2.0
// Which left image is paired with which right one, and what is consumed.
#include <sys/prctl.h>

#include <QtTest>
#include <deque>
#include <memory>
#include <random>

#include "tests/capture/images.h"
#include "tests/capture/pauses.h"
#include "tests/sdk_fake/sdk_fake.h"

namespace {

constexpr tq::Timestamp kMicrosecond = 1000;
constexpr tq::Timestamp kMillisecond = 1'000'000;

struct Entry {
    tq::Timestamp timestamp;
    std::uint32_t number;
};

/// The rule, written for reading: the newest left image that has any partner, with the newest of
/// its partners; both queues lose everything up to the pair.
class Model {
public:
    std::deque<Entry> left;
    std::deque<Entry> right;

    static bool match(tq::Timestamp a, tq::Timestamp b)
    {
        const auto microseconds = [](tq::Timestamp t) { return static_cast<long long>(t / 1000); };
        const long long difference = microseconds(a) - microseconds(b);
        return difference >= -5000 && difference <= 5000;
    }

    bool take(Entry& leftChosen, Entry& rightChosen)
    {
        for (std::size_t i = left.size(); i-- > 0;) {
            for (std::size_t j = right.size(); j-- > 0;) {
                if (match(left[i].timestamp, right[j].timestamp)) {
                    leftChosen = left[i];
                    rightChosen = right[j];
                    left.erase(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(i) + 1);
                    right.erase(right.begin(), right.begin() + static_cast<std::ptrdiff_t>(j) + 1);
                    return true;
                }
            }
        }
        return false;
    }
};

/// Timestamps that often lie close to the limit of another one.
class Timestamps {
public:
    explicit Timestamps(std::mt19937_64& source) : random(source)
    {
        static constexpr tq::Timestamp kBases[] = {0, 20 * kMillisecond, 1'700'000'000'000'000'000};
        base = kBases[pick(3)];
    }

    tq::Timestamp next()
    {
        const std::uint64_t kind = pick(10);
        tq::Timestamp timestamp = 0;
        if (kind < 4 || earlier.empty()) {
            timestamp = base + pick(60) * kMillisecond + pick(2) * pick(kMillisecond);
        } else if (kind < 8) {
            // Around the limit, on both sides of a full microsecond.
            const tq::Timestamp other = earlier[pick(earlier.size())];
            const tq::Timestamp distance =
                4998 * kMicrosecond + pick(4) * kMicrosecond + pick(3) * 499 + pick(2);
            timestamp = pick(2) == 0 && other >= distance ? other - distance : other + distance;
        } else {
            timestamp = earlier[pick(earlier.size())];
        }
        earlier.push_back(timestamp);
        return timestamp;
    }

    std::uint64_t pick(std::uint64_t limit) { return random() % limit; }

private:
    std::mt19937_64& random;
    tq::Timestamp base = 0;
    std::vector<tq::Timestamp> earlier;
};

std::uint32_t numberAt(const tq::Mat& joined, std::size_t offset)
{
    std::uint32_t number;
    std::memcpy(&number, joined.getPtr<unsigned char>(images::kHost) + offset, sizeof number);
    return number;
}

}  // namespace

class PairingTest : public QObject {
    Q_OBJECT

private slots:
    // The search sleeps 10 µs after each failed comparison; without this it would be 60 µs.
    void initTestCase() { QVERIFY(prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL) == 0); }
    void init() { sdkfake::reset(); }

    void limit_data()
    {
        QTest::addColumn<quint64>("left");
        QTest::addColumn<quint64>("right");
        QTest::addColumn<bool>("pairs");
        const quint64 ms = kMillisecond;
        QTest::newRow("same") << 100 * ms << 100 * ms << true;
        QTest::newRow("right 5000 us later") << 100 * ms << 105 * ms << true;
        QTest::newRow("right 5000 us earlier") << 105 * ms << 100 * ms << true;
        QTest::newRow("right 5001 us later") << 100 * ms << 105 * ms + 1000 << false;
        QTest::newRow("right 5001 us earlier") << 105 * ms + 1000 << 100 * ms << false;
        // Each timestamp is cut to microseconds by itself before they are compared.
        QTest::newRow("5000.999 us, cut to 5000") << 100 * ms << 105 * ms + 999 << true;
        QTest::newRow("5000.999 us, cut, earlier") << 105 * ms + 999 << 100 * ms << true;
        QTest::newRow("5000.001 us, cut to 5001") << 100 * ms + 999 << 105 * ms + 1000 << false;
        QTest::newRow("5000.001 us, cut, earlier") << 105 * ms + 1000 << 100 * ms + 999 << false;
        QTest::newRow("today") << quint64{1'700'000'000'000'000'000}
                               << quint64{1'700'000'000'005'000'000} << true;
        QTest::newRow("today, too far")
            << quint64{1'700'000'000'000'000'000} << quint64{1'700'000'000'005'001'000} << false;
        QTest::newRow("zero and late") << quint64{0} << quint64{1'700'000'000'000'000'000} << false;
        QTest::newRow("one zero") << quint64{0} << 5 * ms << true;
        QTest::newRow("largest") << ~quint64{0} << ~quint64{0} - 5 * ms << true;
        QTest::newRow("largest and zero") << ~quint64{0} << quint64{0} << false;
        QTest::newRow("a second and a bit") << 100 * ms << 1105 * ms << false;
        // Differences that would be small if they were kept in 32 bits.
        QTest::newRow("2^32 us apart") << 100 * ms << 100 * ms + (quint64{1} << 32) * 1000 << false;
    }
    void limit()
    {
        QFETCH(quint64, left);
        QFETCH(quint64, right);
        QFETCH(bool, pairs);
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        streamer.left(images::numbered(2, 1, left, 1));
        streamer.right(images::numbered(2, 1, right, 2));
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 4711;
        QCOMPARE(streamer.createSBS(out, timestamp), pairs ? 0 : 1);
        if (pairs) {
            QCOMPARE(timestamp, tq::Timestamp{left});
            QCOMPARE(numberAt(out, 0), 1u);
            QCOMPARE(numberAt(out, 4), 2u);
        }
    }

    void emptyQueues()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.left(images::numbered(2, 1, 100, 1));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.clearImageQueues();
        streamer.right(images::numbered(2, 1, 100, 2));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.left(images::numbered(2, 1, 100, 3));
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
    }

    // Newer left images without a partner are passed over and stay; of two partners the newer wins.
    void newestFirst()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::Timestamp ms = kMillisecond;
        for (const std::uint32_t n : {0u, 1u, 2u, 3u}) {
            streamer.left(images::numbered(2, 1, (100 + 33 * n) * ms, n));
        }
        streamer.right(images::numbered(2, 1, 100 * ms, 10));
        streamer.right(images::numbered(2, 1, 130 * ms, 11));
        streamer.right(images::numbered(2, 1, 136 * ms, 12));
        streamer.right(images::numbered(2, 1, 150 * ms, 13));
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 1u);
        QCOMPARE(numberAt(out, 4), 12u);
        QCOMPARE(timestamp, 133 * ms);

        // Left 2 and 3 and right 13 are still there; left 0 and right 10 and 11 are gone.
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.right(images::numbered(2, 1, 166 * ms, 14));
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 2u);
        QCOMPARE(numberAt(out, 4), 14u);
        streamer.right(images::numbered(2, 1, 199 * ms, 15));
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 3u);
    }

    // Three on each side, only the oldest left image has a partner: the newer ones stay queued.
    void onlyOldestLeftMatches()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::Timestamp ms = kMillisecond;
        for (const std::uint32_t n : {1u, 2u, 3u}) {
            streamer.left(images::numbered(2, 1, n * 100 * ms, n));
            streamer.right(images::numbered(2, 1, 70 * ms + n * 26 * ms, 10 + n));
        }
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 1u);
        QCOMPARE(numberAt(out, 4), 11u);
        QCOMPARE(timestamp, 100 * ms);
        streamer.right(images::numbered(2, 1, 200 * ms, 20));
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 2u);
        QCOMPARE(numberAt(out, 4), 20u);
        // Of the right images all older than the partner are gone, 122 and 148 ms included.
        streamer.left(images::numbered(2, 1, 122 * ms, 21));
        streamer.left(images::numbered(2, 1, 148 * ms, 22));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
    }

    // Three on each side, only the newest left image has a partner, the middle one of the right
    // images: all three left images go, and the right images up to the partner.
    void onlyNewestLeftMatches()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::Timestamp ms = kMillisecond;
        for (const std::uint32_t n : {1u, 2u, 3u}) {
            streamer.left(images::numbered(2, 1, n * 100 * ms, n));
            streamer.right(images::numbered(2, 1, 220 * ms + n * 40 * ms, 10 + n));
        }
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 3u);
        QCOMPARE(numberAt(out, 4), 12u);
        // Partners of what is gone find nothing; the newest right image is still there.
        streamer.right(images::numbered(2, 1, 100 * ms, 20));
        streamer.right(images::numbered(2, 1, 200 * ms, 21));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.left(images::numbered(2, 1, 340 * ms, 22));
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 22u);
        QCOMPARE(numberAt(out, 4), 13u);
    }

    void backlogOfTheOtherEyeIsConsumedUpToThePartner()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::Timestamp ms = kMillisecond;
        for (const std::uint32_t n : {1u, 2u, 3u}) {
            streamer.left(images::numbered(2, 1, n * 100 * ms, n));
            streamer.right(images::numbered(2, 1, n * 100 * ms, 10 + n));
        }
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, 0), 3u);
        QCOMPARE(numberAt(out, 4), 13u);
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        // Nothing older is left on either side.
        streamer.right(images::numbered(2, 1, 100 * ms, 30));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.left(images::numbered(2, 1, 200 * ms, 31));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
    }

    // The queues have no bound: the oldest image still finds its partner behind all the newer ones.
    void longBacklog_data()
    {
        QTest::addColumn<bool>("left");
        QTest::newRow("of left images") << true;
        QTest::newRow("of right images") << false;
    }
    void longBacklog()
    {
        constexpr std::uint32_t kImages = 2000;
        QFETCH(bool, left);
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const auto ingest = [&streamer](bool leftEye, const tq::Mat& image) {
            leftEye ? streamer.left(image) : streamer.right(image);
        };
        for (std::uint32_t n = 0; n < kImages; ++n) {
            ingest(left, images::numbered(2, 1, (100 + n * 10) * kMillisecond, 1 + n));
        }
        ingest(!left, images::numbered(2, 1, 97 * kMillisecond, 7777));
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(numberAt(out, left ? 0 : 4), 1u);
        QCOMPARE(numberAt(out, left ? 4 : 0), 7777u);
        // Only the pair went: the second oldest and the newest are there, in their places.
        for (const std::uint32_t n : {1u, kImages - 1}) {
            ingest(!left, images::numbered(2, 1, (103 + n * 10) * kMillisecond, 8000 + n));
            QCOMPARE(streamer.createSBS(out, timestamp), 0);
            QCOMPARE(numberAt(out, left ? 0 : 4), 1u + n);
            QCOMPARE(numberAt(out, left ? 4 : 0), 8000 + n);
        }
    }

    // The search gives way to the slots for 10 µs after each failed comparison.
    void searchPausesBetweenComparisons()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        for (std::uint32_t n = 0; n < 20; ++n) {
            streamer.left(images::numbered(2, 1, n * 10 * kMillisecond, n));
            streamer.right(images::numbered(2, 1, (1000 + n * 10) * kMillisecond, n));
        }
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        pauses::reset();
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        QVERIFY(pauses::ofThread(std::this_thread::get_id()) == (pauses::Counts{{10, 20 * 20}}));
        // Five right images are passed over before the newest left one's partner.
        streamer.left(images::numbered(2, 1, 1140 * kMillisecond, 20));
        pauses::reset();
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QVERIFY(pauses::ofThread(std::this_thread::get_id()) == (pauses::Counts{{10, 5}}));
    }

    void randomSequences()
    {
        constexpr int kCases = 10000;
        std::mt19937_64 random(20261121);
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        tq::Mat out = images::joined(2, 1);
        std::uint32_t number = 0;
        int pairs = 0;
        int failures = 0;
        for (int sequence = 0; sequence < kCases; ++sequence) {
            streamer.clearImageQueues();
            Model model;
            Timestamps timestamps(random);
            const std::uint64_t steps = 1 + timestamps.pick(14);
            for (std::uint64_t step = 0; step < steps; ++step) {
                const std::uint64_t action = timestamps.pick(5);
                if (action < 4) {
                    const Entry entry{timestamps.next(), ++number};
                    const tq::Mat image = images::numbered(2, 1, entry.timestamp, entry.number);
                    if (action < 2) {
                        streamer.left(image);
                        model.left.push_back(entry);
                    } else {
                        streamer.right(image);
                        model.right.push_back(entry);
                    }
                    continue;
                }
                Entry left{};
                Entry right{};
                const bool expected = model.take(left, right);
                tq::Timestamp timestamp = 0;
                const QByteArray where = QByteArray("case ") + QByteArray::number(sequence) +
                                         " step " + QByteArray::number(static_cast<int>(step));
                QVERIFY2(streamer.createSBS(out, timestamp) == (expected ? 0 : 1), where);
                if (expected) {
                    QVERIFY2(timestamp == left.timestamp, where);
                    QVERIFY2(numberAt(out, 0) == left.number, where);
                    QVERIFY2(numberAt(out, 4) == right.number, where);
                }
                (expected ? pairs : failures) += 1;
            }
        }
        // The sequences are of use only if both outcomes are frequent.
        QVERIFY2(pairs > 1000 && failures > 1000,
                 qPrintable(QString("%1 pairs, %2 without").arg(pairs).arg(failures)));
    }
};

QTEST_GUILESS_MAIN(PairingTest)
#include "pairing_test.moc"
