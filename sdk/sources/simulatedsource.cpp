// SPDX-License-Identifier: Apache-2.0
// Timing and faults of the simulated camera.
#include "sdk/sources/simulatedsource.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tq {

namespace {

constexpr Timestamp kNever = std::numeric_limits<Timestamp>::max() / 4;

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
    : GridSource(sourceClock), settings(sourceSettings), serial(serialNumber)
{
}

FrameFormat SimulatedSource::open(const FrameFormat& wanted)
{
    grid = FrameGrid(wanted.fps);
    scene =
        std::make_unique<Scene>(wanted.width, wanted.height, settings.eye, serial, settings.scene);
    opened = clock.now();
    firstFrame = firstAfter(opened);
    begin(wanted.fps, opened);
    return wanted;
}

std::string SimulatedSource::name() const
{
    return "camera " + std::to_string(serial);
}

std::uint64_t SimulatedSource::firstAfter(Timestamp time) const
{
    const auto shifted = static_cast<std::int64_t>(time) - nanoseconds(settings.phase);
    return grid.frameAt(static_cast<Timestamp>(std::max<std::int64_t>(shifted, 0))) + 1;
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
    const Timestamp time = due + static_cast<Timestamp>(offset);
    // A dead camera is silent, not failed.
    const bool gone = settings.deathAfter && !settings.reviveAfter &&
                      secondsBetween(opened, time) >= *settings.deathAfter;
    return gone ? kNever : time;
}

bool SimulatedSource::isLost(std::uint64_t frame, Timestamp time) const
{
    const double age = secondsBetween(opened, time);
    const auto isWithin = [age](double at, double duration) {
        return age >= at && age < at + duration;
    };
    if ((settings.stall && isWithin(settings.stall->at, settings.stall->duration)) ||
        (settings.reviveAfter && isWithin(*settings.deathAfter, *settings.reviveAfter))) {
        return true;
    }
    return settings.drop > 0 && randomAt(frame, DROP) < settings.drop;
}

bool SimulatedSource::draw(std::uint64_t frame, Timestamp time, const FrameBuffer& buffer)
{
    if (time >= kNever || isLost(frame, time)) {
        return false;
    }
    scene->render(buffer, static_cast<std::uint32_t>(frame), time);
    return true;
}

}  // namespace tq
