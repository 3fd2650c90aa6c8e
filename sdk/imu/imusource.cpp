// SPDX-License-Identifier: Apache-2.0
// Factory of inertial units, and the recorded one.
#include "sdk/imu/imusource.h"

#include <algorithm>
#include <utility>
#include <variant>

#include "sdk/core/clock.h"
#include "sdk/sources/recording.h"

namespace tq {

namespace {

constexpr int kLowRateDivisor = 4;

}  // namespace

ImuSource recordedImu(const rig::RecordingSettings& settings, std::size_t everyNth)
{
    Recording recording(settings, systemClock().now());
    std::vector<IMUPacket> packets;
    const std::vector<IMUPacket> all = recording.readImu();
    for (std::size_t i = 0; i < all.size(); i += everyNth) {
        packets.push_back(all[i]);
    }
    return [recording = std::move(recording), packets = std::move(packets)](
               Timestamp from, Timestamp to, std::vector<IMUPacket>& into) {
        recording.playImu(packets, from, to, into);
    };
}

ImuSource makeImuSource(const rig::CameraSettings& camera, IMU_FREQ frequency)
{
    if (camera.imu.kind == rig::ImuKind::NONE) {
        return nullptr;
    }
    if (frequency == IMU_FREQ::OFF) {
        return [](Timestamp, Timestamp, std::vector<IMUPacket>&) {};
    }
    const int divisor = frequency == IMU_FREQ::LOW ? kLowRateDivisor : 1;
    return camera.imu.kind == rig::ImuKind::SIMULATED
               ? simulatedImu(std::max(1, camera.imu.rate / divisor))
               : recordedImu(std::get<rig::RecordingSettings>(camera.source),
                             static_cast<std::size_t>(divisor));
}

}  // namespace tq
