// SPDX-License-Identifier: Apache-2.0
// The simulated inertial unit: a motion given by formulas, so that its fields agree.
#include <array>
#include <cmath>

#include "sdk/imu/imusource.h"
#include "sdk/sources/framegrid.h"

namespace tq {

namespace {

using Vector = std::array<double, 3>;

constexpr double kPi = 3.141592653589793;
constexpr double kGravity = 9.81;
constexpr Timestamp kCycle = 10000000000;  // at rest first, then in motion
constexpr double kRest = 4;                // seconds
constexpr double kMotion = 6;              // seconds
constexpr Vector kMagneticField{20, 0, -44};

/// An angle and its derivative.
struct Swing {
    double angle;
    double rate;
};

/// A swing that begins and ends at rest.
Swing swing(double amplitude, double frequency, double seconds)
{
    if (seconds <= 0) {
        return {0, 0};
    }
    const double slow = kPi / kMotion;
    const double fast = 2 * kPi * frequency;
    const double rising = std::sin(slow * seconds);
    const double envelope = rising * rising;
    const double envelopeRate = 2 * slow * rising * std::cos(slow * seconds);
    return {amplitude * envelope * std::sin(fast * seconds),
            amplitude * (envelopeRate * std::sin(fast * seconds) +
                         envelope * fast * std::cos(fast * seconds))};
}

/// Rotates a vector of the world into the body, whose orientation is a quaternion x, y, z, w.
Vector intoBody(const double* q, const Vector& world)
{
    const double x = -q[0];
    const double y = -q[1];
    const double z = -q[2];
    const double w = q[3];
    const Vector t{2 * (y * world[2] - z * world[1]), 2 * (z * world[0] - x * world[2]),
                   2 * (x * world[1] - y * world[0])};
    return {world[0] + w * t[0] + y * t[2] - z * t[1], world[1] + w * t[1] + z * t[0] - x * t[2],
            world[2] + w * t[2] + x * t[1] - y * t[0]};
}

void setOrientation(double roll, double pitch, double yaw, double* q)
{
    const double cr = std::cos(roll / 2);
    const double sr = std::sin(roll / 2);
    const double cp = std::cos(pitch / 2);
    const double sp = std::sin(pitch / 2);
    const double cy = std::cos(yaw / 2);
    const double sy = std::sin(yaw / 2);
    q[0] = sr * cp * cy - cr * sp * sy;
    q[1] = cr * sp * cy + sr * cp * sy;
    q[2] = cr * cp * sy - sr * sp * cy;
    q[3] = cr * cp * cy + sr * sp * sy;
}

void setDiagonal(double (&matrix)[9], double value)
{
    matrix[0] = matrix[4] = matrix[8] = value;
}

}  // namespace

IMUPacket simulatedMeasurement(Timestamp time)
{
    const double seconds = static_cast<double>(time % kCycle) * 1e-9 - kRest;
    const Swing roll = swing(0.10, 0.5, seconds);
    const Swing pitch = swing(0.08, 0.7, seconds);
    const Swing yaw = swing(0.20, 0.3, seconds);
    const double heave = swing(0.3, 1.0, seconds).angle;  // vertical acceleration, m/s²

    IMUPacket packet{};
    packet.timestamp = time;
    setOrientation(roll.angle, pitch.angle, yaw.angle, packet.orientation);
    packet.angularRate[0] = roll.rate - yaw.rate * std::sin(pitch.angle);
    packet.angularRate[1] =
        pitch.rate * std::cos(roll.angle) + yaw.rate * std::sin(roll.angle) * std::cos(pitch.angle);
    packet.angularRate[2] = -pitch.rate * std::sin(roll.angle) +
                            yaw.rate * std::cos(roll.angle) * std::cos(pitch.angle);
    const Vector acceleration = intoBody(packet.orientation, {0, 0, kGravity + heave});
    const Vector magnetic = intoBody(packet.orientation, kMagneticField);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        packet.acceleration[axis] = acceleration[axis];
        packet.magneticField[axis] = magnetic[axis];
    }
    packet.temperature = 35;
    packet.pressure = 1013.25;
    setDiagonal(packet.accelerationCovariance, 1e-4);
    setDiagonal(packet.angularRateCovariance, 1e-6);
    setDiagonal(packet.orientationCovariance, 1e-6);
    packet.validFields = IMU_ACCELERATION | IMU_ANGULAR_RATE | IMU_MAGNETIC_FIELD |
                         IMU_ORIENTATION | IMU_TEMPERATURE | IMU_PRESSURE;
    return packet;
}

ImuSource simulatedImu(int packetsPerSecond)
{
    return [grid = FrameGrid(packetsPerSecond)](Timestamp from, Timestamp to,
                                                std::vector<IMUPacket>& into) {
        for (std::uint64_t n = grid.frameAt(from) + 1; grid.instant(n) <= to; ++n) {
            into.push_back(simulatedMeasurement(grid.instant(n)));
        }
    };
}

}  // namespace tq
