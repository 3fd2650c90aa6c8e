// SPDX-License-Identifier: Apache-2.0
// Tests of the simulated camera's timing and faults, on a clock that costs no time.
#include "sdk/sources/simulatedsource.h"

#include <QtTest>
#include <memory>
#include <vector>

#include "tests/sdk/patterndecoder.h"
#include "tests/sdk/sdktesting.h"

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 200;
constexpr tq::Timestamp kPeriod30 = 33333333;

/// A camera on a test clock and the frames that it delivered.
struct Run {
    explicit Run(const tq::rig::SimulatedSettings& settings, int fps = 30)
        : source(settings, 30123456, clock), pixels(kWidth * kHeight * 2)
    {
        opened = clock.now();
        source.open({kWidth, kHeight, fps});
    }

    bool next()
    {
        tq::Timestamp time = 0;
        const bool delivered = source.next({pixels.data(), 0}, time);
        if (delivered) {
            times.push_back(time);
            const auto pattern = decodePattern(pixels.data(), 2, kWidth * 2, kWidth);
            patterns.push_back(pattern.value_or(DecodedPattern{}));
        }
        return delivered;
    }

    void frames(int count)
    {
        for (int i = 0; i < count; ++i) {
            QVERIFY(next());
        }
    }

    TestClock clock;
    tq::Timestamp opened = 0;
    tq::SimulatedSource source;
    std::vector<unsigned char> pixels;
    std::vector<tq::Timestamp> times;
    std::vector<DecodedPattern> patterns;
};

}  // namespace

class SimulatedTest : public QObject {
    Q_OBJECT

private slots:
    void framesLieOnTheCommonGrid_data();
    void framesLieOnTheCommonGrid();
    void pictureTellsTheReportedTime();
    void phaseMovesEveryFrame();
    void driftGrows();
    void jitterIsBoundedAndRepeatable();
    void droppedFramesAreRepeatable();
    void everyFrameMayBeLost();
    void stallEnds();
    void deathIsForEver();
    void deadCameraLivesAgain();
    void shortDelaysAreCaughtUp();
    void longDelaysSkipToTheNewestFrame();
    void clockSetBackIsFollowed();
    void clockSetForwardIsFollowed();
    void stopEndsTheWait();
};

void SimulatedTest::framesLieOnTheCommonGrid_data()
{
    QTest::addColumn<int>("fps");
    for (const int fps : {15, 30, 60}) {
        QTest::addRow("%d", fps) << fps;
    }
}

void SimulatedTest::framesLieOnTheCommonGrid()
{
    QFETCH(int, fps);
    Run run({}, fps);
    run.frames(100);
    const tq::FrameGrid grid(fps);
    const std::uint64_t first = grid.frameAt(run.opened) + 1;
    for (std::size_t i = 0; i < run.times.size(); ++i) {
        QCOMPARE(run.times[i], grid.instant(first + i));
        QCOMPARE(run.patterns[i].counter, static_cast<std::uint32_t>(first + i));
    }
    QCOMPARE(run.source.skippedFrames(), std::uint64_t(0));
}

void SimulatedTest::pictureTellsTheReportedTime()
{
    tq::rig::SimulatedSettings settings;
    settings.jitter = 500;
    settings.phase = 123.456;
    Run run(settings);
    run.frames(50);
    for (std::size_t i = 0; i < run.times.size(); ++i) {
        QCOMPARE(run.patterns[i].timestamp, std::uint64_t(run.times[i]));
        QCOMPARE(run.patterns[i].serial, 30123456u);
    }
}

void SimulatedTest::phaseMovesEveryFrame()
{
    for (const double phase : {4000.0, -4000.0, 50000.0}) {
        tq::rig::SimulatedSettings settings;
        settings.phase = phase;
        Run run(settings);
        run.frames(10);
        const tq::FrameGrid grid(30);
        for (const tq::Timestamp time : run.times) {
            const auto unmoved = time - static_cast<tq::Timestamp>(std::int64_t(phase * 1000));
            QCOMPARE(grid.instant(grid.frameAt(unmoved)), unmoved);
        }
        QVERIFY(run.times.front() > run.opened);
        QVERIFY(run.times.front() <= run.opened + kPeriod30 + 1);
    }
}

void SimulatedTest::driftGrows()
{
    tq::rig::SimulatedSettings settings;
    settings.drift = 100;
    Run run(settings);
    run.frames(301);
    // 100 ppm of ten seconds are one millisecond.
    const double grown = double(run.times.back() - run.times.front()) - 10e9;
    QVERIFY2(std::abs(grown - 1e6) < 10, qPrintable(QString::number(grown)));
}

void SimulatedTest::jitterIsBoundedAndRepeatable()
{
    tq::rig::SimulatedSettings settings;
    settings.jitter = 2000;
    settings.seed = 5;
    Run run(settings);
    Run again(settings);
    settings.seed = 6;
    Run other(settings);
    run.frames(200);
    again.frames(200);
    other.frames(200);
    QVERIFY(run.times == again.times);
    QVERIFY(run.times != other.times);
    const tq::FrameGrid grid(30);
    const std::uint64_t first = grid.frameAt(run.opened) + 1;
    double largest = 0;
    for (std::size_t i = 0; i < run.times.size(); ++i) {
        const auto off = static_cast<std::int64_t>(run.times[i] - grid.instant(first + i));
        largest = std::max(largest, std::abs(double(off)));
    }
    QVERIFY2(largest <= 2e6 && largest > 1.5e6, qPrintable(QString::number(largest)));

    settings.jitter = 1e6;  // far more than a period
    Run wild(settings);
    wild.frames(200);
    QVERIFY(std::is_sorted(wild.times.begin(), wild.times.end(), std::less_equal<>()));
}

void SimulatedTest::droppedFramesAreRepeatable()
{
    tq::rig::SimulatedSettings settings;
    settings.drop = 0.25;
    Run run(settings);
    Run later(settings);
    run.frames(600);
    later.frames(600);
    const auto delivered = double(run.patterns.back().counter - run.patterns.front().counter + 1);
    QVERIFY2(std::abs(600 / delivered - 0.75) < 0.05, qPrintable(QString::number(600 / delivered)));
    QVERIFY(run.times == later.times);
    QCOMPARE(run.source.skippedFrames(), std::uint64_t(0));
}

void SimulatedTest::everyFrameMayBeLost()
{
    tq::rig::SimulatedSettings settings;
    settings.drop = 1;
    Run run(settings);
    int slept = 0;
    run.clock.beforeSleep = [&](tq::Timestamp) {
        if (++slept == 100) {
            run.source.stop();
        }
        return tq::Wake::REACHED;
    };
    QVERIFY(!run.next());
    QCOMPARE(slept, 100);
}

void SimulatedTest::stallEnds()
{
    tq::rig::SimulatedSettings settings;
    settings.stall = tq::rig::Stall{1, 2};
    Run run(settings);
    run.frames(60);
    int before = 0;
    for (const tq::Timestamp time : run.times) {
        const double age = double(time - run.opened) * 1e-9;
        QVERIFY2(age < 1 || age >= 3, qPrintable(QString::number(age)));
        before += age < 1 ? 1 : 0;
    }
    QVERIFY(before == 29 || before == 30);
}

void SimulatedTest::deathIsForEver()
{
    tq::rig::SimulatedSettings settings;
    settings.deathAfter = 1;
    Run run(settings);
    run.clock.beforeSleep = [&](tq::Timestamp instant) {
        if (instant > run.opened + 10000000000u) {
            run.source.stop();
            return tq::Wake::STOPPED;
        }
        return tq::Wake::REACHED;
    };
    while (run.next()) {
    }
    QVERIFY(run.times.size() == 29 || run.times.size() == 30);
    QVERIFY(run.times.back() < run.opened + 1000000000u);
}

void SimulatedTest::deadCameraLivesAgain()
{
    tq::rig::SimulatedSettings settings;
    settings.deathAfter = 1;
    settings.reviveAfter = 60;
    Run run(settings);
    run.frames(120);
    int before = 0;
    for (const tq::Timestamp time : run.times) {
        const double age = double(time - run.opened) * 1e-9;
        QVERIFY2(age < 1 || age >= 61, qPrintable(QString::number(age)));
        before += age < 1 ? 1 : 0;
    }
    QVERIFY(before == 29 || before == 30);
    const tq::Timestamp first = run.times.at(std::size_t(before));
    QVERIFY2(first < run.opened + 61000000000u + kPeriod30 + 1, "it comes back with a frame");
}

void SimulatedTest::shortDelaysAreCaughtUp()
{
    Run run({});
    run.frames(1);
    run.clock.time += 2 * kPeriod30;
    run.frames(10);
    for (std::size_t i = 1; i < run.patterns.size(); ++i) {
        QCOMPARE(run.patterns[i].counter, run.patterns[i - 1].counter + 1);
    }
    QCOMPARE(run.source.skippedFrames(), std::uint64_t(0));
}

void SimulatedTest::longDelaysSkipToTheNewestFrame()
{
    Run run({});
    run.frames(1);
    run.clock.time = run.times.back() + 10 * kPeriod30 + 1000;
    run.frames(1);
    QCOMPARE(run.patterns[1].counter, run.patterns[0].counter + 10);
    QCOMPARE(run.source.skippedFrames(), std::uint64_t(9));
    run.frames(1);
    QCOMPARE(run.patterns[2].counter, run.patterns[1].counter + 1);
}

void SimulatedTest::clockSetBackIsFollowed()
{
    Run run({});
    run.frames(5);
    const tq::Timestamp hour = 3600ull * 1000000000ull;
    run.clock.beforeSleep = [&, set = false](tq::Timestamp) mutable {
        if (set) {
            return tq::Wake::REACHED;
        }
        set = true;
        run.clock.time -= hour;
        return tq::Wake::SET_BACK;
    };
    const ErrorLog log;
    run.frames(5);
    QCOMPARE(log.lines().size(), 1);
    QVERIFY(log.lines().front().contains("set back"));
    QCOMPARE(run.times.size(), std::size_t(10));
    for (std::size_t i = 5; i < 10; ++i) {
        QVERIFY(run.times[i] + hour > run.times[4]);
        QVERIFY(run.times[i] + hour < run.times[4] + 6 * kPeriod30 + 1000);
        QCOMPARE(run.patterns[i].counter,
                 static_cast<std::uint32_t>(tq::FrameGrid(30).frameAt(run.times[i])));
    }
}

void SimulatedTest::clockSetForwardIsFollowed()
{
    Run run({});
    run.frames(5);
    run.clock.time += 86400ull * 1000000000ull;
    const tq::Timestamp now = run.clock.time;
    run.frames(2);
    QVERIFY(run.times[5] <= now && run.times[5] + kPeriod30 + 1 > now);
    QVERIFY(run.times[6] > now);
}

void SimulatedTest::stopEndsTheWait()
{
    Run run({});
    run.source.stop();
    QVERIFY(!run.next());
}

QTEST_GUILESS_MAIN(SimulatedTest)
#include "simulated_test.moc"
