// SPDX-License-Identifier: Apache-2.0
// A stereo + IMU recording in the ASL folder layout, and where it stands on the real-time clock.
#pragma once

#include <string>
#include <vector>

#include "tq_kor/types.h"

namespace tq {

/// One line of a camera's data.csv.
struct RecordedFrame {
    Timestamp time = 0;  ///< of the recording, ns
    std::string file;    ///< absolute path
};

/// The endless loop in which a recording is played. It follows from the recorded times and the
/// real-time clock alone, so everyone who plays the recording is at the same place of it.
struct PlaybackLoop {
    Timestamp first = 0;     ///< earliest recorded frame, ns
    Timestamp duration = 1;  ///< from the first frame of a round to the first of the next, ns

    /// When a recorded instant is played in the round that begins at @p start.
    Timestamp played(Timestamp recorded, Timestamp start) const
    {
        return start + (recorded - first);
    }
};

/// Reads the lists of a recording.
class Recording {
public:
    /// @param path the folder that holds `mav0`, or `mav0` itself
    explicit Recording(const std::string& path);

    /// Frames of one camera, oldest first, and the loop over all cameras.
    /// @return false with a reason when the recording cannot be used
    bool readCamera(const std::string& camera, std::string& reason);

    /// Packets of `imu0`, oldest first. Times are those of the recording. Call after readCamera().
    bool readImu(std::string& reason);

    const std::vector<RecordedFrame>& frames() const { return cameraFrames; }
    const std::vector<IMUPacket>& packets() const { return imuPackets; }
    const PlaybackLoop& loop() const { return playback; }
    int framesPerSecond() const { return fps; }

private:
    bool readFrames(const std::string& camera, std::vector<RecordedFrame>& into,
                    std::string& reason) const;
    void makeLoop();

    std::string folder;
    std::vector<RecordedFrame> cameraFrames;
    std::vector<IMUPacket> imuPackets;
    PlaybackLoop playback;
    int fps = 0;
};

}  // namespace tq
