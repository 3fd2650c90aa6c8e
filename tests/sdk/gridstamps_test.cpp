// SPDX-License-Identifier: Apache-2.0
// Cameras without a common trigger, stamped with the instants of the frame grid, on a clock that
// costs no time.
#include "sdk/sources/gridstamps.h"

#include <QtTest>
#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "sdk/core/eyetimes.h"
#include "sdk/stream/eyeoffset.h"
#include "tests/sdk/patterndecoder.h"
#include "tests/sdk/sdktesting.h"

namespace {

using tq::FrameGrid;
using tq::GridStamps;
using tq::Timestamp;

constexpr int kFps = 30;
constexpr std::int64_t kPeriod = 33333333;
constexpr Timestamp kStart = 1700000000000000123;

/// The frames of a camera of the rig: when they were captured, and what they are stamped with.
class Camera {
public:
    Camera(double phase, double drift, double jitter, std::uint64_t seed,
           tq::rig::Timestamps timestamps = tq::rig::Timestamps::GRID, int frameWidth = 320,
           int frameHeight = 200)
        : width(frameWidth),
          height(frameHeight),
          pixels(static_cast<std::size_t>(width * height) * 2)
    {
        settings.serial = static_cast<int>(30000000 + seed);
        settings.timestamps = timestamps;
        tq::rig::SimulatedSettings simulated;
        simulated.phase = phase;
        simulated.drift = drift;
        simulated.jitter = jitter;
        simulated.seed = seed;
        settings.source = simulated;
        source = tq::makeFrameSource(settings, clock);
        source->open({width, height, kFps});
    }

    /// Stamps until some seconds after the opening.
    std::set<Timestamp> stamps(int seconds)
    {
        std::set<Timestamp> found;
        Timestamp last = 0;
        while (last < kStart + static_cast<Timestamp>(seconds) * 1000000000) {
            last = next();
            if (!found.empty() && last <= *found.rbegin())
                qFatal("two frames of one instant, or backwards");
            found.insert(last);
        }
        return found;
    }

    Timestamp next()
    {
        Timestamp stamp = 0;
        source->next({pixels.data(), 0}, stamp);
        return stamp;
    }

    Timestamp captured() const
    {
        return decodePattern(pixels.data(), 2, width * 2, width)
            .value_or(DecodedPattern{})
            .timestamp;
    }

    const int width;
    const int height;
    TestClock clock;
    tq::rig::CameraSettings settings;
    std::unique_ptr<tq::FrameSource> source;
    std::vector<unsigned char> pixels;
};

/// Instants of the grid that one of two cameras left out, from where both have begun to where one
/// ends.
int instantsWithoutPair(const std::set<Timestamp>& left, const std::set<Timestamp>& right)
{
    const FrameGrid grid(kFps);
    const std::uint64_t first = grid.frameAt(std::max(*left.begin(), *right.begin()));
    const std::uint64_t last = grid.frameAt(std::min(*left.rbegin(), *right.rbegin()));
    int missing = 0;
    for (std::uint64_t k = first; k <= last; ++k)
        missing += left.count(grid.instant(k)) == 0 || right.count(grid.instant(k)) == 0 ? 1 : 0;
    return missing;
}

/// Two pictures side by side, as a sender gets them.
std::vector<unsigned char> sideBySide(const Camera& left, const Camera& right)
{
    std::vector<unsigned char> pair;
    const auto bytes = static_cast<std::ptrdiff_t>(left.width) * 2;
    for (std::ptrdiff_t row = 0; row < left.height; ++row) {
        for (const Camera* eye : {&left, &right})
            pair.insert(pair.end(), eye->pixels.begin() + row * bytes,
                        eye->pixels.begin() + (row + 1) * bytes);
    }
    return pair;
}

}  // namespace

class GridStampsTest : public QObject {
    Q_OBJECT

private slots:
    void everyStartGivesPairs();
    void driftCostsAnInstantPerPeriod_data();
    void driftCostsAnInstantPerPeriod();
    void jitterAtHalfAPeriodCostsNothing();
    void stampIsTheNearestInstant();
    void lostFramesLeaveTheirInstants();
    void clockThatIsSetIsFollowed();
    void timeBetweenEyesIsMeasured();
    void picturesWithoutNoiseAreTold();
    void longTimeBetweenEyesIsLogged();
};

void GridStampsTest::everyStartGivesPairs()
{
    std::mt19937 random(1);
    std::uniform_real_distribution<double> phase(-kPeriod / 2e3, kPeriod / 2e3);
    int withoutGrid = 0;
    for (std::uint64_t start = 0; start < 100; ++start) {
        const double phases[] = {phase(random), phase(random)};
        Camera left(phases[0], 0, 2000, 2 * start, tq::rig::Timestamps::GRID, 64, 40);
        Camera right(phases[1], 0, 2000, 2 * start + 1, tq::rig::Timestamps::GRID, 64, 40);
        QCOMPARE(instantsWithoutPair(left.stamps(10), right.stamps(10)), 0);
        withoutGrid += std::abs(phases[0] - phases[1]) > 9000 ? 1 : 0;
    }
    QVERIFY(withoutGrid > 40);  // would have had no pair at all
}

void GridStampsTest::driftCostsAnInstantPerPeriod_data()
{
    QTest::addColumn<double>("leftDrift");
    QTest::addColumn<double>("rightDrift");
    QTest::addColumn<int>("slow");  // cameras that take fewer frames than there are instants
    QTest::newRow("one fast") << 0.0 << -200.0 << 0;
    QTest::newRow("one slow") << 0.0 << 200.0 << 1;
    QTest::newRow("both fast") << -200.0 << -200.0 << 0;
    QTest::newRow("both slow") << 200.0 << 200.0 << 2;
    QTest::newRow("apart") << -200.0 << 200.0 << 1;
}

// In ten minutes of 200 ppm a camera passes 3.6 periods: as many frames it takes too many or too
// few. One too many is left out, and every instant has its pair; one too few is nowhere to be had.
void GridStampsTest::driftCostsAnInstantPerPeriod()
{
    QFETCH(double, leftDrift);
    QFETCH(double, rightDrift);
    QFETCH(int, slow);
    constexpr int kSeconds = 600;
    const auto stamps = [](double phase, double drift, std::uint64_t seed) {
        return Camera(phase, drift, 2000, seed, tq::rig::Timestamps::GRID, 64, 40).stamps(kSeconds);
    };
    const int missing =
        instantsWithoutPair(stamps(-7000, leftDrift, 1), stamps(12000, rightDrift, 2));
    QVERIFY2(missing >= 3 * slow && missing <= 4 * slow, qPrintable(QString::number(missing)));
}

// Where a frame lies exactly between two instants, each would be as good as the other.
void GridStampsTest::jitterAtHalfAPeriodCostsNothing()
{
    for (const double jitter : {100.0, 1000.0, 5000.0, 10000.0}) {
        const std::set<Timestamp> stamps =
            Camera(kPeriod / 2e3, 0, jitter, 3, tq::rig::Timestamps::GRID, 64, 40).stamps(600);
        QCOMPARE(instantsWithoutPair(stamps, stamps), 0);
        QVERIFY(stamps.size() >= 17999);
    }
}

void GridStampsTest::stampIsTheNearestInstant()
{
    const FrameGrid grid(kFps);
    for (const double phase : {-16000.0, -5000.0, 0.0, 16000.0}) {
        Camera camera(phase, 0, 0, 4);
        for (int i = 0; i < 100; ++i) {
            const Timestamp stamp = camera.next();
            QCOMPARE(grid.instant(grid.frameAt(stamp)), stamp);
            const auto off = static_cast<std::int64_t>(camera.captured() - stamp);
            QCOMPARE(off / 1000, static_cast<std::int64_t>(phase));
        }
    }
    // The default tells the capture itself.
    Camera camera(16000, 0, 0, 4, tq::rig::Timestamps::CAPTURE);
    const Timestamp stamp = camera.next();
    QCOMPARE(stamp, camera.captured());
}

void GridStampsTest::lostFramesLeaveTheirInstants()
{
    const FrameGrid grid(kFps);
    const std::uint64_t first = grid.frameAt(kStart) + 1;
    GridStamps stamps(kFps);
    for (const std::uint64_t k : {0, 1, 2, 5, 6, 20, 21, 500, 501})
        QCOMPARE(stamps.stamp(grid.instant(first + k) + 14000000).value_or(0),
                 grid.instant(first + k));
    // A frame too many.
    QVERIFY(!stamps.stamp(grid.instant(first + 501) + 15000000));
    QVERIFY(stamps.stamp(grid.instant(first + 502) + 14000000));
}

void GridStampsTest::clockThatIsSetIsFollowed()
{
    const FrameGrid grid(kFps);
    GridStamps stamps(kFps);
    std::uint64_t k = grid.frameAt(kStart);
    QCOMPARE(stamps.stamp(grid.instant(k) + 16000000).value_or(0), grid.instant(k));
    for (const Timestamp back : {Timestamp{3600000000000}, Timestamp{5000000000}}) {
        k = grid.frameAt(kStart - back);
        for (int i = 0; i < 100; ++i)
            QCOMPARE(stamps.stamp(grid.instant(k + i) - 16000000).value_or(0), grid.instant(k + i));
    }
}

void GridStampsTest::timeBetweenEyesIsMeasured()
{
    // Two pairs on the same instants, and one camera that a trigger keeps in step.
    Camera a(-9000, 0, 500, 11);
    Camera b(4000, 0, 500, 12);
    Camera c(16000, 0, 500, 13);
    Camera triggered(0, 0, 0, 14, tq::rig::Timestamps::CAPTURE);
    b.next();  // a had been opened too late for that one
    c.next();
    for (int i = 0; i < 100; ++i) {
        const Timestamp stamp = a.next();
        QCOMPARE(b.next(), stamp);
        QCOMPARE(c.next(), stamp);
        QCOMPARE(triggered.next(), stamp);
        const auto offset = [stamp](const Camera& left, const Camera& right) {
            return tq::eyeTimes().offset(stamp, sideBySide(left, right).data(), left.width,
                                         left.height);
        };
        const auto between = [](const Camera& left, const Camera& right) {
            return static_cast<std::int64_t>(right.captured() - left.captured());
        };
        QCOMPARE(offset(a, b).value_or(0), between(a, b));
        QCOMPARE(offset(b, a).value_or(0), -between(a, b));
        QCOMPARE(offset(c, b).value_or(0), between(c, b));
        QVERIFY(!offset(a, triggered));
        QVERIFY(!offset(triggered, a));
    }
}

void GridStampsTest::picturesWithoutNoiseAreTold()
{
    const std::vector<unsigned char> black(64 * 40 * 4);
    tq::EyeTimes times;
    for (int i = 0; i < 5000; ++i) {
        const Timestamp stamp = kStart + static_cast<Timestamp>(i) * kPeriod;
        times.add(1, stamp, stamp - 3, black.data(), 64, 40);
        times.add(2, stamp, stamp + 4, black.data(), 64, 40);
        QCOMPARE(std::abs(times.offset(stamp, black.data(), 64, 40).value_or(0)), std::int64_t{7});
    }
    QVERIFY(!times.offset(kStart, black.data(), 64, 40));  // forgotten
}

void GridStampsTest::longTimeBetweenEyesIsLogged()
{
    tq::stream::FrameRecord stream;
    stream.serial = 100000001;
    stream.eyeWidth = 64;
    stream.eyeHeight = 40;
    const std::vector<unsigned char> black(64 * 40 * 4);
    tq::EyeTimes times;
    tq::stream::EyeOffset offset(times);
    const ErrorLog log;
    const auto pairs = [&](int seconds, std::int64_t apart, Timestamp start) {
        for (int i = 0; i < seconds * kFps; ++i) {
            const Timestamp stamp = start + static_cast<Timestamp>(i) * kPeriod;
            times.add(1, stamp, stamp, black.data(), 64, 40);
            times.add(2, stamp, stamp + static_cast<Timestamp>(apart), black.data(), 64, 40);
            QCOMPARE(std::abs(offset.of(stream, black.data(), stamp)), static_cast<int>(apart));
        }
    };
    pairs(120, 2000000, kStart);
    QCOMPARE(log.lines().size(), 0);
    pairs(179, 12345678, kStart + 120000000000);
    const QString line = "stream 100000001: the eyes are 12.3 ms apart, their cameras run freely";
    QCOMPARE(log.lines(), QStringList({line, line, line}));
    pairs(1, 12345678, kStart - 3600000000000);  // the clock was set
    QCOMPARE(log.lines().size(), 4);
}

QTEST_GUILESS_MAIN(GridStampsTest)
#include "gridstamps_test.moc"
