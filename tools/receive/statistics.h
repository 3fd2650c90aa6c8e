// SPDX-License-Identifier: Apache-2.0
// What vistrel-receive has seen of a stream.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/receive/datarecords.h"

namespace receive {

/// A distribution of latencies in constant memory.
class LatencyHistogram {
public:
    LatencyHistogram();

    /// @param milliseconds from capture to here; negative when the clocks disagree
    void add(double milliseconds);

    /// @param share 0 to 1; 0.5 is the median
    /// @return milliseconds, to a tenth; nothing before the first value
    std::optional<double> percentile(double share) const;
    std::optional<double> least() const;
    std::optional<double> most() const;

private:
    std::vector<std::uint32_t> buckets;
    std::uint64_t count = 0;
    double smallest = 0;
    double largest = 0;
};

/// Luma of one eye, sampled on a coarse grid.
struct EyeSample {
    std::vector<std::uint8_t> luma;
};

/// The state of one eye over the last status interval.
enum class EyeState { NONE, DARK, STILL, MOVING };
const char* toString(EyeState state);

/// Collects what arrives. Thread safe.
class Statistics {
public:
    /// A video packet arrived.
    void videoPacket(std::size_t bytes);
    /// A whole coded frame arrived.
    void codedFrame(bool keyFrame);
    /// A frame left the last stage: the decoder, or the network without one.
    /// @param rtpTime      RTP timestamp of the frame
    /// @param now          ns since 1970
    void finishedFrame(std::uint32_t rtpTime, std::uint64_t now);
    void pictureSize(int width, int height);
    void eyes(EyeSample left, EyeSample right);
    void codecName(const std::string& name);

    void frameRecord(const FrameRecord& record, std::uint32_t rtpTime);
    void imuRecord(const ImuRecord& record);
    void malformedRecord();

    std::uint64_t frames() const;

    /// One line on the time since the line before.
    std::string statusLine(double seconds);

    /// Everything since the beginning.
    /// @param seconds since the first frame
    std::string json(const std::string& url, double seconds) const;

private:
    struct Interval {
        std::uint64_t frames = 0;
        std::uint64_t videoBytes = 0;
        std::uint64_t imuPackets = 0;
        double latencySum = 0;
        std::uint64_t latencyCount = 0;
    };
    struct Eye {
        EyeSample last;
        EyeState interval = EyeState::NONE;
        EyeState shown = EyeState::NONE;
        double mean = 0;

        void update(EyeSample sample);
    };

    std::uint64_t captureTimeOf(std::uint32_t rtpTime, std::uint64_t now) const;
    std::string eyeText(const char* name, const Eye& eye) const;

    mutable std::mutex mutex;
    std::string codec;
    int width = 0;
    int height = 0;
    Interval interval;
    std::uint64_t framesFinished = 0;
    std::uint64_t framesReceived = 0;
    std::uint64_t keyFrames = 0;
    std::uint64_t framesLost = 0;
    std::uint64_t videoBytes = 0;
    std::uint64_t frameRecords = 0;
    std::uint64_t framesWithoutRecord = 0;
    std::uint64_t malformedRecords = 0;
    std::uint64_t imuPackets = 0;
    std::uint64_t imuGaps = 0;
    std::optional<FrameRecord> lastRecord;
    std::uint64_t firstCaptureTime = 0;
    std::optional<std::uint64_t> lastImuSequence;
    std::uint64_t firstImuTime = 0;
    std::uint64_t lastImuTime = 0;
    std::map<std::uint32_t, std::uint64_t> captureTimes;  // by RTP timestamp, the latest ones
    std::vector<std::uint32_t> captureOrder;
    std::size_t captureNext = 0;
    LatencyHistogram latency;
    Eye left;
    Eye right;
};

/// Capture time that belongs to an RTP timestamp of a stream of this kind: the RTP timestamp is
/// the capture time in 1/90000 s, modulo 2^32.
/// @param near a time within six hours of it, ns since 1970
/// @return ns since 1970, exact to 12 µs
std::uint64_t captureTimeFromRtp(std::uint32_t rtpTime, std::uint64_t near);

}  // namespace receive
