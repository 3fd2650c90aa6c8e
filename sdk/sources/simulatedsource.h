// SPDX-License-Identifier: Apache-2.0
// Camera source `simulated`: a rendered stereo scene with faults on demand.
#pragma once

#include <memory>
#include <string>

#include "sdk/sources/framegrid.h"
#include "sdk/sources/gridsource.h"
#include "sdk/sources/scene.h"

namespace tq {

/// Frames on the common grid, moved, lost or held back as the settings ask.
class SimulatedSource : public GridSource {
public:
    SimulatedSource(const rig::SimulatedSettings& settings, int serial, const Clock& clock);

    FrameFormat open(const FrameFormat& wanted) override;

private:
    std::string name() const override;
    Timestamp captureTime(std::uint64_t frame) const override;
    std::uint64_t firstAfter(Timestamp time) const override;
    bool draw(std::uint64_t frame, Timestamp time, const FrameBuffer& buffer) override;
    bool isLost(std::uint64_t frame, Timestamp time) const;
    double randomAt(std::uint64_t frame, std::uint64_t purpose) const;

    const rig::SimulatedSettings settings;
    const int serial;
    FrameGrid grid{1};
    std::unique_ptr<Scene> scene;
    Timestamp opened = 0;
    std::uint64_t firstFrame = 0;
};

}  // namespace tq
