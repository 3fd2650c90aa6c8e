// SPDX-License-Identifier: Apache-2.0
// Factory of camera sources.
#include "sdk/sources/framesource.h"

#include <utility>
#include <variant>

#include "sdk/sources/gridstamps.h"
#include "sdk/sources/gstreamersource.h"
#include "sdk/sources/recordingsource.h"
#include "sdk/sources/simulatedsource.h"

namespace tq {

namespace {

std::unique_ptr<FrameSource> makeSource(const rig::CameraSettings& camera, const Clock& clock)
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

}  // namespace

std::unique_ptr<FrameSource> makeFrameSource(const rig::CameraSettings& camera, const Clock& clock)
{
    std::unique_ptr<FrameSource> source = makeSource(camera, clock);
    if (camera.timestamps == rig::Timestamps::GRID) {
        return std::make_unique<GridStampedSource>(std::move(source), camera.serial);
    }
    return source;
}

}  // namespace tq
