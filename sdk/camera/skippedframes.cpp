// SPDX-License-Identifier: Apache-2.0
// Tells which frames of a camera nobody got.
#include "sdk/camera/skippedframes.h"

#include <utility>

#include "sdk/core/log.h"

namespace tq {

namespace {

constexpr double kLinesAtOnce = 20;
constexpr double kLinesPerSecond = 1;

}  // namespace

SkippedFrames::SkippedFrames(std::string camera, Time now)
    : name(std::move(camera)), allowance(kLinesAtOnce, kLinesPerSecond, now)
{
}

void SkippedFrames::delivered(Timestamp time, std::uint64_t due, Time now)
{
    const std::uint64_t skipped = lastDue == 0 ? 0 : due - lastDue - 1;
    if (skipped > 0 && untold == 0) {
        before = lastTime;
    }
    untold += skipped;
    lastDue = due;
    lastTime = time;
    if (untold > 0 && allowance.take(1, now)) {
        logLine(name + " skipped " + std::to_string(untold) + " frames between those of " +
                std::to_string(before) + " and " + std::to_string(time));
        untold = 0;
    }
}

}  // namespace tq
