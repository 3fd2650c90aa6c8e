// SPDX-License-Identifier: Apache-2.0
// Where inertial data come from: a function of time that is asked for ranges.
#pragma once

#include <memory>
#include <vector>

#include "sdk/rig/rig.h"
#include "tq_kor/types.h"

namespace tq {

/// Inertial measurements as a function of real time, so that what precedes a frame is always
/// there when the frame is.
class ImuSource {
public:
    virtual ~ImuSource() = default;

    /// Appends the packets with from < timestamp <= to, oldest first.
    virtual void collect(Timestamp from, Timestamp to, std::vector<IMUPacket>& into) const = 0;
};

/// At rest for some seconds, then gently moving, again and again. Body axes: x forward, y left,
/// z up; at rest the acceleration is +9.81 m/s² along z.
class SimulatedImu : public ImuSource {
public:
    /// @param packetsPerSecond on a common grid: packet n is due at n / rate seconds
    explicit SimulatedImu(int packetsPerSecond);

    void collect(Timestamp from, Timestamp to, std::vector<IMUPacket>& into) const override;

    /// The measurement at one instant; sequence is 0.
    static IMUPacket measure(Timestamp time);

private:
    int rate;
};

/// The packets of a recording, played in the loop of its pictures.
class RecordedImu : public ImuSource {
public:
    /// @param everyNth every how many packets one is delivered
    RecordedImu(const rig::RecordingSettings& recordingSettings, int everyNth);

    /// Reads the recording; called once.
    /// @return false with a reason when it has no usable inertial data
    bool open(std::string& reason);

    void collect(Timestamp from, Timestamp to, std::vector<IMUPacket>& into) const override;

private:
    const rig::RecordingSettings settings;
    const std::size_t thinning;
    std::vector<IMUPacket> packets;
    Timestamp first = 0;
    Timestamp duration = 1;
};

/// Outcome of makeImuSource().
struct ImuSourceResult {
    std::unique_ptr<ImuSource> source;  ///< null when the camera has no inertial unit
    std::string error;                  ///< one line when the unit cannot be opened
};

/// The inertial unit that a camera's settings ask for.
/// @param frequency HIGH: its full rate, LOW: a quarter of it, OFF: no packets
ImuSourceResult makeImuSource(const rig::CameraSettings& camera, IMU_FREQ frequency);

}  // namespace tq
