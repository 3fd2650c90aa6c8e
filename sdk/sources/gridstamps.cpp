// SPDX-License-Identifier: Apache-2.0
// Stamping of frames with instants of the grid.
#include "sdk/sources/gridstamps.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "sdk/core/eyetimes.h"

namespace tq {

namespace {

// Frames over which the mean phase is formed.
constexpr std::int64_t kFramesOfMean = 64;
// By this part of a period the mean phase goes beyond half of one before the camera changes over to
// the next instant, so that jitter does not take it to and fro.
constexpr std::int64_t kMargin = 8;
// Without frames for so many periods the clock was set, or the camera stood still.
constexpr std::int64_t kMostPeriods = 30;

}  // namespace

GridStamps::GridStamps(int framesPerSecond)
    : grid(framesPerSecond), period(1000000000 / framesPerSecond)
{
}

std::optional<Timestamp> GridStamps::stamp(Timestamp captured)
{
    const auto since = static_cast<std::int64_t>(captured - lastCaptured);
    lastCaptured = captured;
    if (since <= 0 || since > kMostPeriods * period) {
        phase = 0;
        frames = 0;
        lastFrame = 0;
    }
    const std::uint64_t frame = grid.nearest(captured - static_cast<Timestamp>(phase));
    const auto offset = static_cast<std::int64_t>(captured - grid.instant(frame));
    frames = std::min(frames + 1, kFramesOfMean);
    phase += (offset - phase) / frames;
    if (std::abs(phase) > period / 2 + period / kMargin) {
        phase += phase > 0 ? -period : period;
    }
    if (frame <= lastFrame) {
        return std::nullopt;
    }
    lastFrame = frame;
    return grid.instant(frame);
}

GridStampedSource::GridStampedSource(std::unique_ptr<FrameSource> cameraSource, int serialNumber)
    : source(std::move(cameraSource)), serial(serialNumber)
{
}

FrameFormat GridStampedSource::open(const FrameFormat& wanted)
{
    format = source->open(wanted);
    stamps.emplace(format.fps);
    return format;
}

bool GridStampedSource::next(const FrameBuffer& buffer, Timestamp& timestamp)
{
    Timestamp captured = 0;
    while (source->next(buffer, captured)) {
        if (const std::optional<Timestamp> stamp = stamps->stamp(captured)) {
            eyeTimes().add(serial, *stamp, captured, buffer.pixels, format.width, format.height);
            timestamp = *stamp;
            return true;
        }
    }
    return false;
}

}  // namespace tq
