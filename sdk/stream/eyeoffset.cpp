// SPDX-License-Identifier: Apache-2.0
// Measuring and reporting of the time between the eyes.
#include "sdk/stream/eyeoffset.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "sdk/core/log.h"

namespace tq::stream {

namespace {

constexpr std::int64_t kWorthALine = 2000000;
constexpr Timestamp kBetweenLines = 60000000000;

std::string milliseconds(std::int64_t nanoseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(nanoseconds) * 1e-6);
    return text;
}

}  // namespace

std::int32_t EyeOffset::of(const FrameRecord& stream, const std::uint8_t* yuyv, Timestamp stamp)
{
    const std::int64_t offset = times
                                    .offset(stamp, yuyv, static_cast<int>(stream.eyeWidth),
                                            static_cast<int>(stream.eyeHeight))
                                    .value_or(0);
    // A clock that was set back gives a difference beyond all minutes.
    if (std::abs(offset) > kWorthALine && stamp - lastLine >= kBetweenLines) {
        lastLine = stamp;
        logLine("stream " + std::to_string(stream.serial) + ": the eyes are " +
                milliseconds(std::abs(offset)) + " ms apart, their cameras run freely");
    }
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(offset, Limits::min(), Limits::max()));
}

}  // namespace tq::stream
