// SPDX-License-Identifier: Apache-2.0
// Free-running cameras on the common frame grid.
#pragma once

#include <memory>
#include <optional>

#include "sdk/sources/framegrid.h"
#include "sdk/sources/framesource.h"

namespace tq {

/// Finds the instants of the grid for the frames of a camera that no trigger keeps in step: the
/// nearest ones, as seen from the camera's mean phase, so that jitter makes neither gaps nor
/// doubles while the phase passes half a period.
class GridStamps {
public:
    explicit GridStamps(int framesPerSecond);

    /// @param captured ns of the real-time clock, growing unless that clock is set
    /// @return the frame's instant; nothing when the frame before has it, as now and then with a
    ///         camera that is faster than the grid. One that is slower leaves an instant out
    std::optional<Timestamp> stamp(Timestamp captured);

private:
    const FrameGrid grid;
    const std::int64_t period;    // ns
    std::int64_t phase = 0;       // mean one of the camera against the grid, ns
    std::int64_t frames = 0;      // that the mean is of
    std::uint64_t lastFrame = 0;  // that was stamped
    Timestamp lastCaptured = 0;
};

/// Stamps the frames of another source with instants of the grid, and notes when they were captured
/// (see EyeTimes). A frame may be stamped up to about half a period ahead of its capture.
class GridStampedSource : public FrameSource {
public:
    GridStampedSource(std::unique_ptr<FrameSource> cameraSource, int serialNumber);

    FrameFormat open(const FrameFormat& wanted) override;
    bool next(const FrameBuffer& buffer, Timestamp& timestamp) override;
    void stop() override { source->stop(); }
    std::uint64_t skippedFrames() const override { return source->skippedFrames(); }

private:
    const std::unique_ptr<FrameSource> source;
    const int serial;
    FrameFormat format;
    std::optional<GridStamps> stamps;
};

}  // namespace tq
