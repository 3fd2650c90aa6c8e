// SPDX-License-Identifier: Apache-2.0
// Tells which frames of a camera nobody got.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "sdk/core/tokenbucket.h"
#include "tq_kor/types.h"

namespace tq {

/// Logs frames that were left out before one that is delivered: 20 lines at once and one per
/// second, of which each may stand for several gaps. One thread.
class SkippedFrames {
public:
    using Time = TokenBucket::Time;

    /// @param camera who skips, for the log
    SkippedFrames(std::string camera, Time now);

    /// A frame is delivered.
    /// @param time capture time, ns
    /// @param due  how many frames the camera should have delivered so far, this one included
    void delivered(Timestamp time, std::uint64_t due, Time now);

private:
    const std::string name;
    TokenBucket allowance;
    std::uint64_t lastDue = 0;  // 0: none was delivered
    Timestamp lastTime = 0;
    std::uint64_t untold = 0;  // skipped and not logged yet
    Timestamp before = 0;      // the last one that was delivered before these
};

}  // namespace tq
