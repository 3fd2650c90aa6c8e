// SPDX-License-Identifier: Apache-2.0
// Tests of the inertial units and of their history.
#include <QtTest>
#include <cmath>

#include "sdk/imu/imuhistory.h"
#include "tests/sdk/sdktesting.h"

namespace {

constexpr tq::Timestamp kSecond = 1000000000;
constexpr tq::Timestamp kStart = 1700000000ull * kSecond + 1;

std::vector<tq::IMUPacket> collect(const tq::ImuSource& source, tq::Timestamp from,
                                   tq::Timestamp to)
{
    std::vector<tq::IMUPacket> packets;
    source(from, to, packets);
    return packets;
}

/// Product of two quaternions x, y, z, w.
void multiply(const double* a, const double* b, double* out)
{
    out[0] = a[3] * b[0] + a[0] * b[3] + a[1] * b[2] - a[2] * b[1];
    out[1] = a[3] * b[1] - a[0] * b[2] + a[1] * b[3] + a[2] * b[0];
    out[2] = a[3] * b[2] + a[0] * b[1] - a[1] * b[0] + a[2] * b[3];
    out[3] = a[3] * b[3] - a[0] * b[0] - a[1] * b[1] - a[2] * b[2];
}

/// Turns a vector of the body into the world.
void intoWorld(const double* q, const double* body, double* world)
{
    const double vector[4] = {body[0], body[1], body[2], 0};
    const double inverse[4] = {-q[0], -q[1], -q[2], q[3]};
    double half[4];
    double result[4];
    multiply(q, vector, half);
    multiply(half, inverse, result);
    std::copy(result, result + 3, world);
}

/// One packet per millisecond, as the history's source in these tests.
void everyMillisecond(tq::Timestamp from, tq::Timestamp to, std::vector<tq::IMUPacket>& into)
{
    for (tq::Timestamp time = (from / 1000000 + 1) * 1000000; time <= to; time += 1000000) {
        tq::IMUPacket packet{};
        packet.timestamp = time;
        into.push_back(packet);
    }
}

}  // namespace

class ImuTest : public QObject {
    Q_OBJECT

private slots:
    void packetsLieOnAGrid();
    void neighbouringRangesJoin();
    void gravityPointsUpAtRest();
    void gravityIsRightInMotion();
    void gyroAgreesWithOrientation();
    void factoryFollowsTheFrequency();
    void batchesHoldEveryPacketOnce();
    void rangesAreHalfOpen();
    void historyIsBounded();
    void latestPacketIsNotFromTheFuture();
    void firstFrameHasAPacket();
    void clockSetBackIsFollowed();
    void clockSetForwardIsBounded();
};

void ImuTest::packetsLieOnAGrid()
{
    const tq::ImuSource imu = tq::simulatedImu(200);
    const auto packets = collect(imu, kStart, kStart + kSecond);
    QCOMPARE(packets.size(), std::size_t(200));
    for (const tq::IMUPacket& packet : packets) {
        QCOMPARE(packet.timestamp % 5000000, tq::Timestamp(0));
        QCOMPARE(packet.validFields, 63u);
    }
    QVERIFY(collect(imu, kStart, kStart).empty());
}

void ImuTest::neighbouringRangesJoin()
{
    const tq::ImuSource imu = tq::simulatedImu(333);
    std::vector<tq::Timestamp> joined;
    for (tq::Timestamp from = kStart; from < kStart + kSecond; from += 12345678) {
        for (const auto& packet : collect(imu, from, from + 12345678)) {
            joined.push_back(packet.timestamp);
        }
    }
    std::vector<tq::Timestamp> whole;
    for (const auto& packet : collect(imu, kStart, kStart + 82 * 12345678ull)) {
        whole.push_back(packet.timestamp);
    }
    QVERIFY(joined == whole);
}

void ImuTest::gravityPointsUpAtRest()
{
    // The ten-second cycle begins with four seconds of rest.
    for (tq::Timestamp time = 0; time < 4 * kSecond; time += 100000000) {
        const tq::IMUPacket packet = tq::simulatedMeasurement(1700000000ull * kSecond + time);
        QCOMPARE(packet.acceleration[0], 0.0);
        QCOMPARE(packet.acceleration[1], 0.0);
        QCOMPARE(packet.acceleration[2], 9.81);
        for (const double rate : packet.angularRate) {
            QCOMPARE(rate, 0.0);
        }
        QCOMPARE(packet.orientation[3], 1.0);
    }
}

void ImuTest::gravityIsRightInMotion()
{
    double sum[3] = {};
    double largestTilt = 0;
    const auto packets = collect(tq::simulatedImu(200), kStart, kStart + 10 * kSecond);
    for (const tq::IMUPacket& packet : packets) {
        double world[3];
        intoWorld(packet.orientation, packet.acceleration, world);
        for (int axis = 0; axis < 3; ++axis) {
            sum[axis] += world[axis] / double(packets.size());
        }
        largestTilt = std::max(largestTilt, std::abs(packet.acceleration[0]));
    }
    QVERIFY(std::abs(sum[0]) < 1e-9);
    QVERIFY(std::abs(sum[1]) < 1e-9);
    QVERIFY2(std::abs(sum[2] - 9.81) < 0.02, qPrintable(QString::number(sum[2])));
    QVERIFY2(largestTilt > 0.3, "the motion tilts the unit");
}

void ImuTest::gyroAgreesWithOrientation()
{
    const tq::Timestamp step = 1000000;
    double largestRate = 0;
    double q[4] = {0, 0, 0, 1};
    for (tq::Timestamp time = 0; time < 10 * kSecond; time += step) {
        const tq::Timestamp begin = 1700000000ull * kSecond + time;
        const tq::IMUPacket middle = tq::simulatedMeasurement(begin + step / 2);
        const double* w = middle.angularRate;
        const double norm = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
        largestRate = std::max(largestRate, norm);
        const double half = norm * 0.5e-3;
        const double scale = norm > 0 ? std::sin(half) / norm : 0;
        const double turn[4] = {w[0] * scale, w[1] * scale, w[2] * scale, std::cos(half)};
        double turned[4];
        multiply(q, turn, turned);
        std::copy(turned, turned + 4, q);
        const tq::IMUPacket end = tq::simulatedMeasurement(begin + step);
        for (int i = 0; i < 4; ++i) {
            QVERIFY2(std::abs(q[i] - end.orientation[i]) < 1e-5, "integrated rates give the pose");
        }
    }
    QVERIFY(largestRate > 0.1);
}

void ImuTest::factoryFollowsTheFrequency()
{
    tq::rig::CameraSettings camera;
    QVERIFY(tq::makeImuSource(camera, tq::IMU_FREQ::HIGH) == nullptr);
    camera.imu.kind = tq::rig::ImuKind::SIMULATED;
    camera.imu.rate = 400;
    const auto count = [&camera](tq::IMU_FREQ frequency) {
        return int(collect(tq::makeImuSource(camera, frequency), kStart, kStart + kSecond).size());
    };
    QCOMPARE(count(tq::IMU_FREQ::HIGH), 400);
    QCOMPARE(count(tq::IMU_FREQ::LOW), 100);
    QCOMPARE(count(tq::IMU_FREQ::OFF), 0);
}

void ImuTest::batchesHoldEveryPacketOnce()
{
    tq::ImuHistory history(everyMillisecond, kStart);
    std::uint64_t expected = 0;
    tq::Timestamp last = 0;
    for (int frame = 1; frame <= 300; ++frame) {
        const tq::Timestamp time = kStart + tq::Timestamp(frame) * 33333333;
        history.advance(time);
        for (const tq::IMUPacket& packet : history.between(last, time, time)) {
            QCOMPARE(packet.sequence, expected++);
        }
        last = time;
    }
    // One more than were measured since the opening: the last one from before.
    QCOMPARE(expected, std::uint64_t(300) * 33333333 / 1000000 + 1);
}

void ImuTest::rangesAreHalfOpen()
{
    tq::ImuHistory history(everyMillisecond, kStart);
    const tq::Timestamp base = 1700000000ull * kSecond;
    history.advance(base + 10000000);
    const auto packets = history.between(base + 2000000, base + 5000000, base + 10000000);
    QCOMPARE(packets.size(), std::size_t(3));
    QCOMPARE(packets.front().timestamp, base + 3000000);
    QCOMPARE(packets.back().timestamp, base + 5000000);
    QVERIFY(history.between(base + 5000000, base + 5000000, base + 10000000).empty());
    QVERIFY(history.between(base + 5000000, base + 2000000, base + 10000000).empty());
    // A range that reaches beyond the frame is served up to now, and not twice.
    QCOMPARE(history.between(base + 9000000, ~0ul, base + 12000000).size(), std::size_t(3));
    history.advance(base + 12000000);
    QCOMPARE(history.between(base + 9000000, ~0ul, base + 12000000).size(), std::size_t(3));
}

void ImuTest::historyIsBounded()
{
    tq::ImuHistory history(everyMillisecond, kStart);
    const tq::Timestamp end = kStart + 60 * kSecond;
    for (tq::Timestamp time = kStart; time <= end; time += kSecond / 10) {
        history.advance(time);
    }
    const auto packets = history.between(0, end, end);
    QVERIFY2(packets.size() >= 9999 && packets.size() <= 10001,
             qPrintable(QString::number(packets.size())));
}

void ImuTest::latestPacketIsNotFromTheFuture()
{
    tq::ImuHistory history(everyMillisecond, kStart);
    const tq::Timestamp base = 1700000000ull * kSecond;
    QCOMPARE(history.latest(base - 1).timestamp, tq::Timestamp(0));
    history.advance(base + 50000000);
    QCOMPARE(history.latest(base + 20500000).timestamp, base + 20000000);
    QCOMPARE(history.latest(base + 21000000).timestamp, base + 21000000);
}

// The first frame may come before the first packet after the opening.
void ImuTest::firstFrameHasAPacket()
{
    const tq::Timestamp base = 1700000000ull * kSecond;
    tq::ImuHistory history(everyMillisecond, base + 300000);
    history.advance(base + 400000);
    QCOMPARE(history.latest(base + 400000).timestamp, base);
    const auto packets = history.between(0, base + 1400000, base + 1400000);
    QCOMPARE(packets.size(), std::size_t(2));
    QCOMPARE(packets.front().timestamp, base);
    QCOMPARE(packets.back().timestamp, base + 1000000);
    QCOMPARE(packets.back().sequence, packets.front().sequence + 1);
    // The slowest unit, just before its next packet.
    tq::ImuHistory slow(tq::simulatedImu(1), base + kSecond - 1);
    QCOMPARE(slow.latest(base + kSecond - 1).timestamp, base);
    // A clock that is set back begins a history as an opening does.
    history.advance(base - 3600 * kSecond + 100);
    QCOMPARE(history.latest(base - 3600 * kSecond + 100).timestamp, base - 3600 * kSecond);
}

void ImuTest::clockSetBackIsFollowed()
{
    tq::ImuHistory history(everyMillisecond, kStart);
    history.advance(kStart + kSecond);
    const tq::Timestamp earlier = kStart - 3600 * kSecond;
    history.advance(earlier);
    history.advance(earlier + 10000000);
    QCOMPARE(history.between(earlier, earlier + 10000000, earlier + 10000000).size(),
             std::size_t(10));
    QCOMPARE(history.latest(kStart).timestamp, earlier - 1 + 10000000);
}

void ImuTest::clockSetForwardIsBounded()
{
    tq::ImuHistory history(everyMillisecond, kStart);
    const tq::Timestamp later = kStart + 1000000 * kSecond;
    history.advance(later);
    QVERIFY(history.between(0, later, later).size() <= 10001);
}

QTEST_GUILESS_MAIN(ImuTest)
#include "imu_test.moc"
