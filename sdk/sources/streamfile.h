// SPDX-License-Identifier: Apache-2.0
// A file that was recorded from a stream: times, inertial data, and its pictures one after another.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sdk/sources/picture.h"
#include "tq_kor/types.h"

namespace tq {

/// Half of a side-by-side picture.
enum class StreamEye { LEFT, RIGHT };

/// Reads MPEG-TS as vistrel-receive records it. Both cameras of a file share one, so that every
/// picture is decoded once. Thread safe.
class StreamFile {
public:
    /// Reads what there is, without decoding it; the one that others hold open is shared.
    /// @param mostEntries frames or packets that a file may have
    /// @throws std::runtime_error with one line when it is no such file
    static std::shared_ptr<StreamFile> open(const std::string& path, std::size_t mostEntries);

    ~StreamFile();
    StreamFile(const StreamFile&) = delete;
    StreamFile& operator=(const StreamFile&) = delete;

    /// Capture times of the frames, growing; ns since 1970. Never empty.
    const std::vector<Timestamp>& frameTimes() const { return times; }
    /// In the order of their times, which differ. Sequence numbers are the recorded ones.
    const std::vector<IMUPacket>& imuPackets() const { return packets; }

    /// One eye of a frame. Frames are decoded in their order; one is found as long as nobody has
    /// asked for one that lies far behind it.
    /// @param number of the frame; those of the file's next round follow on the last one
    /// @return nothing when it is too late for it, or it cannot be decoded
    /// @throws InvalidVideo when the file cannot be read any more
    std::optional<Picture> picture(std::uint64_t number, StreamEye eye);

private:
    struct Contents;
    struct Decoder;
    struct Decoded;

    StreamFile(const std::string& path, std::size_t mostEntries);
    bool decodeUpTo(std::uint64_t number);

    const std::string file;
    std::string codec;  // "h264" or "h265"
    std::vector<Timestamp> times;
    std::vector<std::uint64_t> places;  // of the frames in the file, ns
    std::vector<IMUPacket> packets;

    std::mutex mutex;  // guards what follows
    std::unique_ptr<Decoder> decoder;
    std::uint64_t round = 0;  // that the decoder is in
    std::deque<Decoded> decoded;
};

}  // namespace tq
