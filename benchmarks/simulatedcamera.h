// SPDX-License-Identifier: Apache-2.0
// A simulated camera of the open SDK, for peers that shall show the same pictures.
#pragma once

#include <memory>

#include "sdk/sources/framesource.h"

/// Opens one eye of the simulated scene.
inline std::unique_ptr<tq::FrameSource> openSimulatedCamera(tq::rig::Eye eye,
                                                            const tq::FrameFormat& format)
{
    tq::rig::CameraSettings settings;
    settings.serial = eye == tq::rig::Eye::LEFT ? 30123456 : 30123457;
    settings.model = tq::MODEL::KOR_TSOLO_GS;
    tq::rig::SimulatedSettings source;
    source.eye = eye;
    settings.source = source;
    auto camera = tq::makeFrameSource(settings);
    camera->open(format);
    return camera;
}
