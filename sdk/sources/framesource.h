// SPDX-License-Identifier: Apache-2.0
// What every camera source is: something that fills buffers with timed frames.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include "sdk/core/clock.h"
#include "sdk/rig/rig.h"
#include "tq_kor/types.h"

namespace tq {

/// What is asked of a source, and what it delivers.
struct FrameFormat {
    int width = 0;   ///< pixels, even
    int height = 0;  ///< pixels
    int fps = 0;

    std::size_t bytes() const
    {
        return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2;
    }
};

/// Where a source writes one frame. The same index means the same memory, with nothing written
/// to it by others since the source filled it last.
struct FrameBuffer {
    unsigned char* pixels = nullptr;  ///< packed YUYV
    int index = 0;                    ///< 0 to kFrameBuffers - 1
};

constexpr int kFrameBuffers = 3;

/// A device, pipeline or recording is there, but delivers no usable video.
class InvalidVideo : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One camera. open(), next() and the destructor are called one after another; only stop() may
/// be called from another thread while open() or next() waits.
class FrameSource {
public:
    virtual ~FrameSource() = default;
    FrameSource() = default;
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;

    /// Opens the source; called once.
    /// @return what is delivered
    /// @throws InvalidVideo, or another std::exception when it cannot be opened at all; both say
    ///         why in one line
    virtual FrameFormat open(const FrameFormat& wanted) = 0;

    /// Writes the next frame and returns at its capture time or later.
    /// @param timestamp capture time, ns of the real-time clock
    /// @return false when stop() was called
    /// @throws std::exception with one line when there will be no more frames
    virtual bool next(const FrameBuffer& buffer, Timestamp& timestamp) = 0;

    /// Makes open() and next() return soon. Any thread.
    virtual void stop() { stopping.store(true); }

    /// Frames that were left out because the source came too late.
    virtual std::uint64_t skippedFrames() const { return 0; }

protected:
    std::atomic<bool> stopping{false};
};

/// The source that a camera's settings ask for.
/// @param clock must outlive the source
std::unique_ptr<FrameSource> makeFrameSource(const rig::CameraSettings& camera,
                                             const Clock& clock = systemClock());

}  // namespace tq
