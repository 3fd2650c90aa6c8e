// SPDX-License-Identifier: Apache-2.0
// Camera source `simulated`: a rendered stereo scene with faults on demand.
#pragma once

#include <atomic>
#include <memory>

#include "sdk/sources/framegrid.h"
#include "sdk/sources/framesource.h"
#include "sdk/sources/scene.h"

namespace tq {

/// Frames on the common grid, moved, lost or held back as the settings ask.
class SimulatedSource : public FrameSource {
public:
    SimulatedSource(const rig::SimulatedSettings& settings, int serial, const Clock& clock);

    SourceResult open(const FrameRequest& request) override;
    FrameFormat format() const override { return delivered; }
    FrameResult next(const FrameBuffer& buffer, Timestamp& timestamp) override;
    void stop() override { stopping.store(true); }
    std::uint64_t skippedFrames() const override { return skipped.load(); }

private:
    Timestamp captureTime(std::uint64_t frame) const;
    bool isLost(std::uint64_t frame, Timestamp time) const;
    bool isDead(Timestamp time) const;
    void restartAt(Timestamp time);
    void catchUp();
    double randomAt(std::uint64_t frame, std::uint64_t purpose) const;

    const rig::SimulatedSettings settings;
    const int serial;
    const Clock& clock;
    FrameGrid grid{1};
    FrameFormat delivered;
    std::unique_ptr<Scene> scene;
    Timestamp opened = 0;
    std::uint64_t firstFrame = 0;
    std::uint64_t nextFrame = 0;
    Timestamp lastTime = 0;
    std::atomic<std::uint64_t> skipped{0};
    std::atomic<bool> stopping{false};
};

}  // namespace tq
