// SPDX-License-Identifier: Apache-2.0
// Pairs pictures with their records and keeps them until they are read.
#pragma once

#include <gst/video/video.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "tools/receive/session.h"
#include "tools/receive/statistics.h"

namespace receive {

/// A decoded picture in the decoder's memory, kept and mapped for as long as this lives.
class Picture {
public:
    explicit Picture(const Frame& frame);
    ~Picture();
    Picture(const Picture&) = delete;
    Picture& operator=(const Picture&) = delete;

    /// Whether it can be read.
    bool isMapped() const { return mapped; }
    const GstVideoFrame& pixels() const { return video; }

private:
    GstVideoFrame video = {};
    bool mapped = false;
};

/// One stereo frame and the inertial data since the one that was read before.
struct StereoFrame {
    std::shared_ptr<const Picture> picture;
    std::uint64_t captureTime = 0;  ///< ns since 1970; exact to 12 µs without the record
    std::optional<FrameRecord> record;
    std::vector<ImuRecord> imu;
    int width = 0;   ///< of one eye, pixels
    int height = 0;  ///< of one eye, pixels
};

/// Frames that wait for the program that reads them. Thread safe.
class FrameQueue {
public:
    /// @param most  how many wait at most
    /// @param waits picture() waits while so many do; otherwise the oldest is dropped and counted
    FrameQueue(std::size_t most, bool waits);
    ~FrameQueue();
    FrameQueue(const FrameQueue&) = delete;
    FrameQueue& operator=(const FrameQueue&) = delete;

    /// Takes a decoded picture.
    /// @param withData there is a data stream beside the video
    void picture(const Frame& frame, bool withData);
    /// Takes a record of the data stream. Records come in their order.
    /// @param time as its frame has it
    void record(const FrameRecord& content, std::uint32_t time);
    void packet(const ImuRecord& content);

    /// Nothing follows any more: what waits for its record goes without, and nobody is kept
    /// waiting.
    void finish();

    /// @param newest leave out all but the newest
    std::optional<StereoFrame> take(bool newest);

    bool isEmpty() const;
    /// Frames that were dropped because too many waited, but for those that take(true) would have
    /// left out.
    std::uint64_t dropped() const;
    /// Readable while there is something to take, or after finish().
    int descriptor() const { return event; }

private:
    struct Record {
        std::uint32_t time;  // as Frame has it
        FrameRecord content;
        std::uint64_t imuEnd;  // packets that came before it, since the beginning
    };
    struct Waiting {
        StereoFrame frame;
        std::uint32_t time = 0;
        std::uint64_t imuEnd = 0;
    };

    void settle(bool withRecords);
    bool isWaitedFor(std::uint32_t time) const;
    void complete(Waiting waiting);
    std::uint64_t timeWithoutRecord(std::uint32_t time) const;
    void takeImu(StereoFrame& frame, std::uint64_t end);
    void signal() const;

    const std::size_t limit;
    const bool patient;
    const int event;  // an eventfd

    mutable std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    bool over = false;
    std::deque<Waiting> early;   // without their record yet
    std::deque<Waiting> ready;   // to be taken
    std::deque<Record> records;  // without their picture yet
    std::optional<Record> last;
    std::deque<ImuRecord> imu;
    std::uint64_t imuBegin = 0;  // packets that came before those that are kept
    std::uint64_t overflowed = 0;
    std::uint64_t lost = 0;
};

}  // namespace receive
