// SPDX-License-Identifier: Apache-2.0
// What vistrel-receive has seen of a stream.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sdk/stream/recordreader.h"

namespace receive {

using tq::wire::FrameRecord;
using tq::wire::ImuRecord;

/// The latest values by their keys, which come in runs of the same key.
template <typename Key, typename Value>
class Latest {
public:
    void add(Key key, Value value)
    {
        if (!entries.empty() && entries.back().first == key) {
            entries.pop_back();
        }
        entries.emplace_back(key, value);
        if (entries.size() > kMost) {
            entries.pop_front();
        }
    }

    std::optional<Value> find(Key key) const
    {
        const auto found = std::find_if(entries.rbegin(), entries.rend(),
                                        [&](const auto& entry) { return entry.first == key; });
        return found == entries.rend() ? std::nullopt : std::optional<Value>(found->second);
    }

private:
    static constexpr std::size_t kMost = 512;
    std::deque<std::pair<Key, Value>> entries;
};

/// Gives every frame a time of its own: packets of several frames that come at once, after the
/// sender stood still, may all have the same.
class DistinctTimes {
public:
    /// @param rtpTime RTP timestamp of a packet
    /// @param time    when it was received, ns
    /// @return ns, the same for all packets of a frame, later than those of all frames before
    std::uint64_t of(std::uint32_t rtpTime, std::uint64_t time)
    {
        if (!last || last->first != rtpTime) {
            last = {rtpTime, last ? std::max(time, last->second + 1) : time};
        }
        return last->second;
    }

private:
    std::optional<std::pair<std::uint32_t, std::uint64_t>> last;
};

/// A distribution of latencies in constant memory. What is not known yet is NaN.
class LatencyHistogram {
public:
    /// @param milliseconds from capture to here; negative when the clocks disagree
    void add(double milliseconds);

    /// @param share 0 to 1; 0.5 is the median
    /// @return milliseconds, to a tenth
    double percentile(double share) const;

    double least = NAN;
    double most = NAN;

private:
    static constexpr double kBucketsPerMs = 10;
    // Ten seconds; what lies beyond counts as that.
    std::vector<std::uint32_t> buckets = std::vector<std::uint32_t>(100000);
    std::uint64_t count = 0;
};

/// Counts what is missing between counters that a sender gives out one by one.
class LossCounter {
public:
    /// @param mostPerSecond how many a sender gives out at most
    explicit LossCounter(double mostPerSecond) : rate(mostPerSecond) {}

    /// Takes the next counter that arrives. One that is no larger than the one before, or so large
    /// that no sender can have got there, belongs to a sender that was started again.
    /// @param elapsed seconds since anything can have been lost
    void add(std::uint64_t counter, double elapsed);

    /// The next counter belongs to another sender.
    void restart() { last.reset(); }

    std::uint64_t lost = 0;

private:
    double rate;
    std::optional<std::uint64_t> last;
};

/// Where a file is read, from times of 90000 ticks per second that wrap.
class MediaTime {
public:
    /// @return seconds from the first time that was given
    double at(std::uint32_t time)
    {
        if (!last) {
            last = time;
        }
        ticks += static_cast<std::int32_t>(time - *last);
        last = time;
        return seconds();
    }
    double seconds() const { return static_cast<double>(ticks) / 90000; }

private:
    std::optional<std::uint32_t> last;
    std::int64_t ticks = 0;
};

/// The state of one eye over a status interval.
enum class EyeState { NONE, DARK, STILL, MOVING };

struct Eye {
    /// @param sample luma on a coarse grid
    void update(std::vector<std::uint8_t> sample);

    std::vector<std::uint8_t> last;
    EyeState interval = EyeState::NONE;
    EyeState shown = EyeState::NONE;
    double mean = 0;
};

/// Collects what arrives.
struct Statistics {
    /// A frame left the last stage: the decoder, or the network without one.
    /// @param rtpTime      RTP timestamp of the frame
    /// @param now          ns since 1970; 0: it was recorded, and has no latency
    void finishedFrame(std::uint32_t rtpTime, std::uint64_t now);
    /// @param rtpTime      RTP timestamp of the frame
    /// @param elapsed      seconds since the stream was asked for
    void frameRecord(const FrameRecord& record, std::uint32_t rtpTime, double elapsed);
    void imuRecord(const ImuRecord& record, double elapsed);

    /// One line on the time since the line before.
    std::string statusLine(double seconds);

    /// Everything since the beginning.
    /// @param seconds from the first frame to the last
    std::string json(const std::string& url, double seconds) const;

    std::string codec;
    int width = 0;   ///< of the picture, pixels
    int height = 0;  ///< of the picture, pixels
    Eye left;
    Eye right;
    /// What the status line shows the growth of.
    struct Totals {
        std::uint64_t frames = 0;  ///< finished
        std::uint64_t videoBytes = 0;
        std::uint64_t imuPackets = 0;
        std::uint64_t timedFrames = 0;  ///< of them, those with a latency
        double latency = 0;             ///< of these together, ms
    } totals, shown;
    double eyesApart = 0;              ///< most since the last status line, ms
    double mostEyesApart = 0;          ///< ms
    std::uint64_t framesReceived = 0;  ///< whole coded frames
    std::uint64_t videoPacketsLost = 0;
    std::uint64_t keyFrames = 0;
    LossCounter framesLost{1000};
    std::uint64_t frameRecords = 0;
    std::uint64_t framesWithoutRecord = 0;
    std::uint64_t malformedRecords = 0;
    std::uint64_t pairsWritten = 0;  ///< as pictures
    std::uint64_t pairsLeftOut = 0;
    LossCounter imuPacketsLost{10000};
    std::optional<FrameRecord> lastRecord;
    std::uint64_t firstCaptureTime = 0;
    std::optional<ImuRecord> lastImu;
    std::uint64_t firstImuTime = 0;
    /// What a frame's record says of its place among the others.
    struct Place {
        std::uint64_t counter = 0;
        std::uint64_t captureTime = 0;
        std::uint64_t framesDropped = 0;
    };
    Latest<std::uint32_t, Place> places;  ///< by RTP timestamp
    /// From one finished frame with a record to the last one, since the sender began to count. The
    /// first pictures are made before the sender may go on, so a second passes first.
    struct Span {
        Place first;
        Place last;
        std::uint64_t frames = 0;  ///< finished from there to here, with those that have no record
    };
    std::optional<Span> span;
    std::optional<Place> firstPlace;  ///< since the sender began to count
    Place lastPlace;
    std::uint64_t framesBeforeSpan = 0;
    void extendSpan(const Place& place);
    LatencyHistogram latency;
};

/// Capture time that belongs to an RTP timestamp of a stream of this kind: the RTP timestamp is
/// the capture time in 1/90000 s, modulo 2^32.
/// @param near a time within six hours of it, ns since 1970
/// @return ns since 1970, exact to 12 µs
std::uint64_t captureTimeFromRtp(std::uint32_t rtpTime, std::uint64_t near);

}  // namespace receive
