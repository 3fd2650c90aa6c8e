// SPDX-License-Identifier: Apache-2.0
// Waiting for the frames of a grid, and catching up with it.
#include "sdk/sources/gridsource.h"

#include <algorithm>

#include "sdk/core/log.h"

namespace tq {

namespace {

// A source that is late by fewer frames makes up for them, as the queue of a camera driver would;
// one that is later leaves frames out.
constexpr Timestamp kPatienceFrames = 4;

}  // namespace

void GridSource::begin(int framesPerSecond, Timestamp time)
{
    period = 1000000000u / static_cast<Timestamp>(framesPerSecond);
    nextFrame = firstAfter(time);
}

void GridSource::catchUp()
{
    const Timestamp now = clock.now();
    if (captureTime(nextFrame) + kPatienceFrames * period >= now) {
        return;
    }
    const std::uint64_t late = nextFrame;
    nextFrame = std::max(firstAfter(now) - 1, late + 1);  // the newest that is due
    skipped.fetch_add(nextFrame - late);
}

bool GridSource::next(const FrameBuffer& buffer, Timestamp& timestamp)
{
    while (!stopping.load()) {
        catchUp();
        const Timestamp time = std::max(captureTime(nextFrame), lastTime + 1);
        const bool drawn = draw(nextFrame, time, buffer);
        const Wake wake = clock.sleepUntil(time, stopping);
        if (wake == Wake::STOPPED) {
            break;
        }
        if (wake == Wake::SET_BACK) {
            logLine("the real-time clock was set back, " + name() + " follows");
            lastTime = 0;
            nextFrame = firstAfter(clock.now());
            continue;
        }
        ++nextFrame;
        lastTime = time;
        if (drawn) {
            timestamp = time;
            return true;
        }
    }
    return false;
}

}  // namespace tq
