// SPDX-License-Identifier: Apache-2.0
// How far apart the eyes of a stream's pairs are in time.
#pragma once

#include <cstdint>

#include "sdk/core/eyetimes.h"
#include "sdk/stream/datarecords.h"

namespace tq::stream {

/// Measures every pair, and logs at most one line a minute while the eyes are far apart. A minute
/// is one of the pairs' timestamps.
class EyeOffset {
public:
    explicit EyeOffset(const EyeTimes& cameraTimes = eyeTimes()) : times(cameraTimes) {}

    /// @param stream whose pair it is
    /// @param yuyv   the pair, packed, left eye beside right eye
    /// @param stamp  of the left eye, ns
    /// @return how much later than the left eye the right one was captured, ns; 0 also for cameras
    ///         that tell the time of capture themselves
    std::int32_t of(const FrameRecord& stream, const std::uint8_t* yuyv, Timestamp stamp);

private:
    const EyeTimes& times;
    Timestamp lastLine = 0;
};

}  // namespace tq::stream
