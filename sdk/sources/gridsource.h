// SPDX-License-Identifier: Apache-2.0
// A source whose frames are due at known instants, and the one place that catches up.
#pragma once

#include <atomic>
#include <string>

#include "sdk/sources/framesource.h"

namespace tq {

/// Delivers the frames of a grid of instants of the real-time clock, each when it is due.
class GridSource : public FrameSource {
public:
    FrameFormat format() const override { return delivered; }
    FrameResult next(const FrameBuffer& buffer, Timestamp& timestamp) override;
    void stop() override { stopping.store(true); }
    std::uint64_t skippedFrames() const override { return skipped.load(); }

protected:
    /// What became of a frame.
    enum class Drawing { DONE, LOST, FAILED };

    explicit GridSource(const Clock& sourceClock) : clock(sourceClock) {}

    /// Who follows the clock, for the log.
    virtual std::string name() const = 0;
    /// When a frame is due; ns, growing with its number.
    virtual Timestamp captureTime(std::uint64_t frame) const = 0;
    /// The first frame that is due after an instant.
    virtual std::uint64_t firstAfter(Timestamp time) const = 0;
    virtual Drawing draw(std::uint64_t frame, Timestamp time, const FrameBuffer& buffer) = 0;

    /// The grid is known: begins with the frame after @p time.
    void begin(const FrameFormat& format, Timestamp time);

    const Clock& clock;

private:
    void catchUp();

    FrameFormat delivered;
    std::uint64_t nextFrame = 0;
    Timestamp lastTime = 0;
    std::atomic<std::uint64_t> skipped{0};
    std::atomic<bool> stopping{false};
};

}  // namespace tq
