// SPDX-License-Identifier: Apache-2.0
// A stereo + IMU recording, a folder in the ASL layout or a file that was recorded from a stream,
// and where it stands on the real-time clock.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sdk/rig/rig.h"
#include "tq_kor/types.h"

namespace tq {

class StreamFile;
enum class StreamEye;

/// One frame of one camera.
struct RecordedFrame {
    Timestamp time = 0;  ///< of the recording, ns
    std::string file;    ///< absolute path of its picture; empty when that is in a video
};

/// What a recording lists, and when it is played. A folder that is played in a loop follows from
/// the recorded times and the real-time clock alone, so everyone who plays it is at the same place
/// of it. A file, and what is played once, begins a moment after the first of this process
/// opened it, for all that play it then.
class Recording {
public:
    /// From the first opening to the begin, ns. A viewer who comes at once is still waited for.
    static constexpr Timestamp kLead = 900000000;

    /// Reads the frames of one camera and the loop over all cameras.
    /// @param now real time, ns
    /// @throws std::runtime_error with one line when the recording cannot be used
    Recording(const rig::RecordingSettings& settings, Timestamp now);

    /// Packets within the loop, oldest first. Times are those of the recording.
    /// @throws std::runtime_error with one line when there are none
    std::vector<IMUPacket> readImu() const;

    /// When a frame is played, ns; frames count on from round to round. What is played once has
    /// its further frames in the next century.
    Timestamp playedFrame(std::uint64_t number) const;

    /// The first frame that is played after an instant.
    std::uint64_t firstAfter(Timestamp time) const;

    /// Appends those of the packets, which readImu() gave, that are played with
    /// from < timestamp <= to.
    void playImu(const std::vector<IMUPacket>& packets, Timestamp from, Timestamp to,
                 std::vector<IMUPacket>& into) const;

    const std::vector<RecordedFrame>& frames() const { return cameraFrames; }  ///< oldest first
    int framesPerSecond() const { return fps; }
    Timestamp round() const { return duration; }  ///< one round of the loop, ns
    bool isOver(std::uint64_t number) const { return !loop && number >= cameraFrames.size(); }

    /// The file that holds all pictures; null when each has a file of its own.
    const std::shared_ptr<StreamFile>& video() const { return stream; }
    StreamEye eye() const { return streamEye; }  ///< of the file

private:
    void openFolder(const rig::RecordingSettings& settings);
    void openFile(const rig::RecordingSettings& settings);
    std::vector<RecordedFrame> readFrames(const std::string& camera) const;
    void findRate(const std::string& list);
    void makeLoop();
    std::vector<IMUPacket> readImuList() const;

    const bool loop;
    std::string folder;
    std::shared_ptr<StreamFile> stream;
    StreamEye streamEye{};
    std::vector<RecordedFrame> cameraFrames;
    Timestamp first = 0;  // earliest recorded frame, ns
    Timestamp duration = 1;
    int fps = 0;
    std::shared_ptr<const Timestamp> begin;  // of the first round, shared by all that play it
};

}  // namespace tq
