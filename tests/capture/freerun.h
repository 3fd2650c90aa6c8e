// SPDX-License-Identifier: Apache-2.0
// Whether a frame of a free running camera is whole.
#pragma once

#include <algorithm>
#include <cstring>

#include "capture/sdk.h"
#include "tests/sdk_fake/sdk_fake.h"

namespace freerun {

inline tq::Timestamp timestampOf(const tq::Mat& image)
{
    tq::Timestamp timestamp;
    std::memcpy(&timestamp, reinterpret_cast<const char*>(&image) + 120, sizeof timestamp);
    return timestamp;
}

/// Whether every byte is the one that belongs to the image's timestamp.
inline bool isIntact(const tq::Mat& image, const sdkfake::FreeRun& run)
{
    const auto* const bytes = image.getPtr<unsigned char>(tq::MEM(1));
    const std::size_t count = image.getStepBytes(tq::MEM(1)) * image.getHeight();
    const std::uint8_t pattern = sdkfake::FreeRun::patternOf(run.numberOf(timestampOf(image)));
    return count > 0 && bytes[0] == pattern && std::memcmp(bytes, bytes + 1, count - 1) == 0;
}

/// Whether both halves of a joined frame are those of its timestamp. Cameras that were started one
/// after the other have the same timestamps.
inline bool isIntact(const unsigned char* joined, int eyeWidth, int eyeHeight,
                     tq::Timestamp timestamp, const sdkfake::FreeRun& run)
{
    const auto bytes = static_cast<std::size_t>(eyeWidth) * static_cast<std::size_t>(eyeHeight) * 4;
    const std::uint8_t pattern = sdkfake::FreeRun::patternOf(run.numberOf(timestamp));
    return joined[0] == pattern && std::memcmp(joined, joined + 1, bytes - 1) == 0;
}

}  // namespace freerun
