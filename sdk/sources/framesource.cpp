// SPDX-License-Identifier: Apache-2.0
// Factory of camera sources.
#include "sdk/sources/framesource.h"

#include <variant>

#include "sdk/sources/gstreamersource.h"
#include "sdk/sources/recordingsource.h"
#include "sdk/sources/simulatedsource.h"

namespace tq {

std::unique_ptr<FrameSource> makeFrameSource(const rig::CameraSettings& camera, const Clock& clock)
{
    if (const auto* settings = std::get_if<rig::SimulatedSettings>(&camera.source)) {
        return std::make_unique<SimulatedSource>(*settings, camera.serial, clock);
    }
    if (const auto* settings = std::get_if<rig::RecordingSettings>(&camera.source)) {
        return std::make_unique<RecordingSource>(*settings, clock);
    }
    return std::make_unique<GStreamerSource>(std::get<rig::GStreamerSettings>(camera.source),
                                             camera.serial, clock);
}

}  // namespace tq
