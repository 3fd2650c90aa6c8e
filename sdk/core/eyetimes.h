// SPDX-License-Identifier: Apache-2.0
// When the two eyes of a pair were really captured, for cameras that are stamped with a grid.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

#include "tq_kor/types.h"

namespace tq {

/// The newest frames of this program's cameras whose timestamps are not their capture times. A
/// sender is given pairs without their cameras: it finds the two frames here by timestamp, and by
/// some of their bytes. (Pictures without any noise may be alike; then the sign of the offset says
/// nothing.) Thread safe.
class EyeTimes {
public:
    /// Notes a frame.
    /// @param stamp    what it is given as its time, ns
    /// @param captured ns
    /// @param pixels   packed YUYV
    void add(int serial, Timestamp stamp, Timestamp captured, const unsigned char* pixels,
             int width, int height);

    /// How much later than the left eye of a pair the right one was captured, ns; nothing when one
    /// of them is not known.
    /// @param stamp  of the left eye, ns
    /// @param pixels packed YUYV, left eye beside right eye
    /// @param width  of one eye
    std::optional<std::int64_t> offset(Timestamp stamp, const unsigned char* pixels, int width,
                                       int height) const;

private:
    struct Frame {
        int serial = 0;  // of the camera; 0: none yet
        Timestamp stamp = 0;
        Timestamp captured = 0;
        std::size_t mark = 0;  // of the picture
    };
    static constexpr std::size_t kFrames = 512;

    mutable std::mutex mutex;
    std::array<Frame, kFrames> frames;  // a ring
    std::size_t added = 0;
};

/// Those of this program.
EyeTimes& eyeTimes();

}  // namespace tq
