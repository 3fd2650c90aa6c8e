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
    bool next(const FrameBuffer& buffer, Timestamp& timestamp) override;
    std::uint64_t skippedFrames() const override { return skipped.load(); }

protected:
    explicit GridSource(const Clock& sourceClock) : clock(sourceClock) {}

    /// Who follows the clock, for the log.
    virtual std::string name() const = 0;
    /// When a frame is due; ns, growing with its number.
    virtual Timestamp captureTime(std::uint64_t frame) const = 0;
    /// The first frame that is due after an instant.
    virtual std::uint64_t firstAfter(Timestamp time) const = 0;
    /// @return false when the frame is lost
    virtual bool draw(std::uint64_t frame, Timestamp time, const FrameBuffer& buffer) = 0;

    /// The grid is known: begins with the frame after @p time.
    void begin(int framesPerSecond, Timestamp time);

    const Clock& clock;

private:
    void catchUp();

    Timestamp period = 0;  // ns
    std::uint64_t nextFrame = 0;
    Timestamp lastTime = 0;
    std::atomic<std::uint64_t> skipped{0};
};

}  // namespace tq
