// SPDX-License-Identifier: Apache-2.0
// Timing and faults of the simulated camera.
#include "sdk/sources/simulatedsource.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "sdk/core/log.h"

namespace tq {

namespace {

enum Purpose : std::uint64_t { JITTER = 1, DROP = 2 };

std::uint64_t mixed(std::uint64_t value)
{
    // SplitMix64: every input bit changes half of the output bits.
    value += 0x9E3779B97F4A7C15u;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
    return value ^ (value >> 31);
}

std::int64_t nanoseconds(double microseconds)
{
    return std::llround(microseconds * 1000);
}

double secondsBetween(Timestamp from, Timestamp to)
{
    return static_cast<double>(static_cast<std::int64_t>(to - from)) * 1e-9;
}

}  // namespace

SimulatedSource::SimulatedSource(const rig::SimulatedSettings& sourceSettings, int serialNumber,
                                 const Clock& sourceClock)
    : settings(sourceSettings), serial(serialNumber), clock(sourceClock)
{
}

SourceResult SimulatedSource::open(const FrameRequest& request)
{
    delivered = {request.width, request.height, request.fps};
    grid = FrameGrid(request.fps);
    scene = std::make_unique<Scene>(request.width, request.height, settings.eye, serial);
    opened = clock.now();
    restartAt(opened);
    firstFrame = nextFrame;
    return {};
}

void SimulatedSource::restartAt(Timestamp time)
{
    const auto shifted = static_cast<std::int64_t>(time) - nanoseconds(settings.phase);
    nextFrame = grid.frameAt(static_cast<Timestamp>(std::max<std::int64_t>(shifted, 0))) + 1;
}

double SimulatedSource::randomAt(std::uint64_t frame, std::uint64_t purpose) const
{
    // Counted from the opening, so that every run sees the same faults.
    const std::uint64_t index = frame - firstFrame;
    const std::uint64_t bits = mixed(mixed(settings.seed * 4 + purpose) ^ index);
    return static_cast<double>(bits >> 11) * 0x1.0p-53;
}

Timestamp SimulatedSource::captureTime(std::uint64_t frame) const
{
    const Timestamp due = grid.instant(frame);
    std::int64_t offset = nanoseconds(settings.phase);
    offset += std::llround(secondsBetween(opened, due) * settings.drift * 1000);
    if (settings.jitter > 0) {
        offset += nanoseconds(settings.jitter * (2 * randomAt(frame, JITTER) - 1));
    }
    return due + static_cast<Timestamp>(offset);
}

bool SimulatedSource::isLost(std::uint64_t frame, Timestamp time) const
{
    if (settings.stall) {
        const double age = secondsBetween(opened, time);
        if (age >= settings.stall->at && age < settings.stall->at + settings.stall->duration) {
            return true;
        }
    }
    return settings.drop > 0 && randomAt(frame, DROP) < settings.drop;
}

bool SimulatedSource::isDead(Timestamp time) const
{
    return settings.deathAfter && secondsBetween(opened, time) >= *settings.deathAfter;
}

void SimulatedSource::catchUp()
{
    const Timestamp now = clock.now();
    const Timestamp patience = kPatienceFrames * grid.period();
    if (captureTime(nextFrame) + patience >= now) {
        return;
    }
    const std::uint64_t late = nextFrame;
    restartAt(now);
    nextFrame = std::max(nextFrame - 1, late + 1);  // the newest that is due
    skipped.fetch_add(nextFrame - late);
}

FrameResult SimulatedSource::next(const FrameBuffer& buffer, Timestamp& timestamp)
{
    while (!stopping.load()) {
        catchUp();
        const std::uint64_t frame = nextFrame;
        const Timestamp time = std::max(captureTime(frame), lastTime + 1);
        if (isDead(time)) {
            clock.sleepUntil(std::numeric_limits<Timestamp>::max() / 4, stopping);
            continue;
        }
        const bool lost = isLost(frame, time);
        if (!lost) {
            scene->render(buffer, static_cast<std::uint32_t>(frame), time);
        }
        const Wake wake = clock.sleepUntil(time, stopping);
        if (wake == Wake::SET_BACK) {
            logLine("the real-time clock was set back, camera " + std::to_string(serial) +
                    " follows");
            lastTime = 0;
            restartAt(clock.now());
            continue;
        }
        if (wake == Wake::STOPPED) {
            break;
        }
        ++nextFrame;
        lastTime = time;
        if (!lost) {
            timestamp = time;
            return FrameResult::FRAME;
        }
    }
    return FrameResult::STOPPED;
}

}  // namespace tq
