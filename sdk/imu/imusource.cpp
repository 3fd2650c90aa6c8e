// SPDX-License-Identifier: Apache-2.0
// Factory of inertial units, and the recorded one.
#include "sdk/imu/imusource.h"

#include <algorithm>

#include "sdk/sources/recording.h"

namespace tq {

namespace {

constexpr int kLowRateDivisor = 4;

/// A unit that is switched off.
class SilentImu : public ImuSource {
public:
    void collect(Timestamp, Timestamp, std::vector<IMUPacket>&) const override {}
};

}  // namespace

RecordedImu::RecordedImu(const rig::RecordingSettings& recordingSettings, int everyNth)
    : settings(recordingSettings), thinning(static_cast<std::size_t>(std::max(1, everyNth)))
{
}

bool RecordedImu::open(std::string& reason)
{
    Recording recording(settings.path);
    if (!recording.readCamera(settings.camera, reason) || !recording.readImu(reason)) {
        return false;
    }
    first = recording.loop().first;
    duration = recording.loop().duration;
    for (std::size_t i = 0; i < recording.packets().size(); i += thinning) {
        packets.push_back(recording.packets()[i]);
    }
    return true;
}

void RecordedImu::collect(Timestamp from, Timestamp to, std::vector<IMUPacket>& into) const
{
    for (Timestamp start = from - from % duration; start <= to; start += duration) {
        for (IMUPacket packet : packets) {
            packet.timestamp = start + (packet.timestamp - first);
            if (packet.timestamp > from && packet.timestamp <= to) {
                into.push_back(packet);
            }
        }
    }
}

ImuSourceResult makeImuSource(const rig::CameraSettings& camera, IMU_FREQ frequency)
{
    ImuSourceResult result;
    if (camera.imu.kind == rig::ImuKind::NONE) {
        return result;
    }
    if (frequency == IMU_FREQ::OFF) {
        result.source = std::make_unique<SilentImu>();
        return result;
    }
    const int divisor = frequency == IMU_FREQ::LOW ? kLowRateDivisor : 1;
    if (camera.imu.kind == rig::ImuKind::SIMULATED) {
        result.source = std::make_unique<SimulatedImu>(std::max(1, camera.imu.rate / divisor));
        return result;
    }
    auto recorded =
        std::make_unique<RecordedImu>(std::get<rig::RecordingSettings>(camera.source), divisor);
    if (recorded->open(result.error)) {
        result.source = std::move(recorded);
    }
    return result;
}

}  // namespace tq
