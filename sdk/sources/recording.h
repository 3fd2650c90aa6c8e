// SPDX-License-Identifier: Apache-2.0
// A stereo + IMU recording in the ASL folder layout, and where it stands on the real-time clock.
#pragma once

#include <string>
#include <vector>

#include "sdk/rig/rig.h"
#include "tq_kor/types.h"

namespace tq {

/// One line of a camera's data.csv.
struct RecordedFrame {
    Timestamp time = 0;  ///< of the recording, ns
    std::string file;    ///< absolute path
};

/// The lists of a recording, and the endless loop in which it is played. The loop follows from the
/// recorded times and the real-time clock alone, so everyone who plays the recording is at the same
/// place of it.
class Recording {
public:
    /// Reads the frames of one camera and the loop over all cameras.
    /// @throws std::runtime_error with one line when the recording cannot be used
    explicit Recording(const rig::RecordingSettings& settings);

    /// Packets of `imu0` within the loop, oldest first. Times are those of the recording.
    /// @throws std::runtime_error with one line when there are none
    std::vector<IMUPacket> readImu() const;

    /// When a recorded instant is played in the round that begins at @p start.
    Timestamp played(Timestamp recorded, Timestamp start) const
    {
        return start + (recorded - first);
    }

    const std::vector<RecordedFrame>& frames() const { return cameraFrames; }  ///< oldest first
    int framesPerSecond() const { return fps; }
    Timestamp round() const { return duration; }  ///< one round of the loop, ns

private:
    std::vector<RecordedFrame> readFrames(const std::string& camera) const;
    void makeLoop();

    std::string folder;
    std::vector<RecordedFrame> cameraFrames;
    Timestamp first = 0;  // earliest recorded frame, ns
    Timestamp duration = 1;
    int fps = 0;
};

}  // namespace tq
