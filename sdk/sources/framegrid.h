// SPDX-License-Identifier: Apache-2.0
// The common frame grid: frame k of a camera is due at k / fps seconds of the real-time clock.
#pragma once

#include "tq_kor/types.h"

namespace tq {

/// Arithmetic of the grid, exact to the nanosecond for every frame rate.
class FrameGrid {
public:
    explicit FrameGrid(int framesPerSecond) : fps(static_cast<std::uint64_t>(framesPerSecond)) {}

    /// Instant of frame k: k · 1e9 / fps ns, rounded down.
    Timestamp instant(std::uint64_t k) const { return k / fps * kSecond + k % fps * kSecond / fps; }

    /// The last frame that is not after an instant.
    std::uint64_t frameAt(Timestamp time) const
    {
        const std::uint64_t k = time / kSecond * fps + time % kSecond * fps / kSecond;
        return instant(k + 1) <= time ? k + 1 : k;
    }

    /// The frame whose instant is nearest.
    std::uint64_t nearest(Timestamp time) const
    {
        const std::uint64_t k = frameAt(time);
        return instant(k + 1) - time < time - instant(k) ? k + 1 : k;
    }

private:
    static constexpr Timestamp kSecond = 1000000000;
    std::uint64_t fps;
};

}  // namespace tq
