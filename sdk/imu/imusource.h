// SPDX-License-Identifier: Apache-2.0
// Where inertial data come from: a function of time that is asked for ranges.
#pragma once

#include <functional>
#include <vector>

#include "sdk/rig/rig.h"
#include "tq_kor/types.h"

namespace tq {

/// Inertial measurements as a function of real time, so that what precedes a frame is always
/// there when the frame is: appends the packets with from < timestamp <= to, oldest first.
using ImuSource = std::function<void(Timestamp from, Timestamp to, std::vector<IMUPacket>& into)>;

/// What the simulated unit measures at one instant; sequence is 0. It is at rest for some seconds,
/// then gently moving, again and again. Body axes: x forward, y left, z up; at rest the
/// acceleration is +9.81 m/s² along z.
IMUPacket simulatedMeasurement(Timestamp time);

/// A simulated unit.
/// @param packetsPerSecond on a common grid: packet n is due at n / rate seconds
ImuSource simulatedImu(int packetsPerSecond);

/// The packets of a recording, played in the loop of its pictures.
/// @param everyNth every how many packets one is delivered
/// @throws std::runtime_error with one line when it has no usable inertial data
ImuSource recordedImu(const rig::RecordingSettings& settings, std::size_t everyNth);

/// The inertial unit that a camera's settings ask for; an empty function when it has none.
/// @param frequency HIGH: its full rate, LOW: a quarter of it, OFF: no packets
/// @throws std::runtime_error with one line when the unit cannot be opened
ImuSource makeImuSource(const rig::CameraSettings& camera, IMU_FREQ frequency);

}  // namespace tq
