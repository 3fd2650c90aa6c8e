// SPDX-License-Identifier: Apache-2.0
// What every camera source is: something that fills buffers with timed frames.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "sdk/core/clock.h"
#include "sdk/rig/rig.h"
#include "tq_kor/types.h"

namespace tq {

/// What the user of a camera asks for.
struct FrameRequest {
    int width = 0;   ///< pixels
    int height = 0;  ///< pixels
    int fps = 0;
    bool hdr = false;
};

/// What a source delivers.
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

/// Outcome of opening a source.
struct SourceResult {
    ErrorCode code = ErrorCode::SUCCESS;
    std::string reason;  ///< one line, empty on success
};

/// Outcome of waiting for a frame.
enum class FrameResult {
    FRAME,    ///< the buffer holds the next frame
    STOPPED,  ///< stop() was called
    FAILED,   ///< there will be no more frames; failure() says why
};

/// One camera. open(), next() and the destructor are called one after another; only stop() may
/// be called from another thread while next() waits.
class FrameSource {
public:
    virtual ~FrameSource() = default;
    FrameSource() = default;
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;

    /// Opens the source; called once.
    virtual SourceResult open(const FrameRequest& request) = 0;

    /// What is delivered; valid after open().
    virtual FrameFormat format() const = 0;

    /// Writes the next frame and returns at its capture time or later.
    /// @param timestamp capture time, ns of the real-time clock
    virtual FrameResult next(const FrameBuffer& buffer, Timestamp& timestamp) = 0;

    /// Makes next() return soon. Any thread.
    virtual void stop() = 0;

    /// Frames that were left out because the source came too late.
    virtual std::uint64_t skippedFrames() const { return 0; }

    /// One line, after next() returned FAILED.
    virtual std::string failure() const { return {}; }
};

/// The source that a camera's settings ask for.
/// @param clock must outlive the source
std::unique_ptr<FrameSource> makeFrameSource(const rig::CameraSettings& camera,
                                             const Clock& clock = systemClock());

}  // namespace tq
