// SPDX-License-Identifier: Apache-2.0
// True capture times of frames, found by what a sender sees of them.
#include "sdk/core/eyetimes.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string_view>

namespace tq {

namespace {

// As far apart as the timestamps of a pair may be.
constexpr std::int64_t kPairingLimit = 5001000;
constexpr int kRows = 16;

/// A hash of some rows of an eye.
/// @param eyes side by side in the picture
std::size_t markOf(const unsigned char* pixels, int width, int height, int eyes, int eye)
{
    const auto bytes = static_cast<std::size_t>(width) * 2;
    std::size_t mark = 0;
    for (int i = 0; i < kRows; ++i) {
        const int row = height * (2 * i + 1) / (2 * kRows) * eyes + eye;
        const auto* const begin =
            reinterpret_cast<const char*>(pixels) + static_cast<std::size_t>(row) * bytes;
        mark = mark * 31 + std::hash<std::string_view>()({begin, bytes});
    }
    return mark;
}

}  // namespace

void EyeTimes::add(int serial, Timestamp stamp, Timestamp captured, const unsigned char* pixels,
                   int width, int height)
{
    const Frame frame{serial, stamp, captured, markOf(pixels, width, height, 1, 0)};
    const std::lock_guard<std::mutex> lock(mutex);
    frames[added++ % kFrames] = frame;
}

std::optional<std::int64_t> EyeTimes::offset(Timestamp stamp, const unsigned char* pixels,
                                             int width, int height) const
{
    const auto isOfThePair = [stamp](const Frame& frame) { return frame.stamp == stamp; };
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (std::none_of(frames.begin(), frames.end(), isOfThePair)) {
            return std::nullopt;
        }
    }
    const std::size_t leftMark = markOf(pixels, width, height, 2, 0);
    const std::size_t rightMark = markOf(pixels, width, height, 2, 1);
    const std::lock_guard<std::mutex> lock(mutex);
    for (const Frame& left : frames) {
        if (!isOfThePair(left) || left.mark != leftMark) {
            continue;
        }
        for (const Frame& right : frames) {
            if (right.serial != left.serial && right.mark == rightMark &&
                std::abs(static_cast<std::int64_t>(right.stamp - stamp)) < kPairingLimit) {
                return static_cast<std::int64_t>(right.captured - left.captured);
            }
        }
    }
    return std::nullopt;
}

EyeTimes& eyeTimes()
{
    // Never destroyed, so that cameras with static lifetime may use it at exit.
    static auto* const times = new EyeTimes;
    return *times;
}

}  // namespace tq
