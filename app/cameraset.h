// SPDX-License-Identifier: Apache-2.0
// What both controllers do with cameras and streamers.
#pragma once

#include <QMap>
#include <QString>

#include "capture/Camera.h"
#include "capture/Streamer.h"

using Cameras = QMap<int, KTCamera*>;                 ///< by physical serial; owned
using Streamers = QMap<int, VirtualCameraStreamer*>;  ///< by virtual serial; owned

/// Whether a camera can be one eye of a virtual camera.
bool isSolo(tq::MODEL model);

/// What the operator reads when a camera's model differs from that of the cameras before it.
QString incompatibleModelText(tq::MODEL model, tq::MODEL remembered);

/// A size as the SDK takes it.
/// @param width,height pixels
tq::Resolution resolutionOf(int width, int height);

/// Connects a streamer's two eyes to their cameras; a null one leaves its eye unconnected. The
/// automatic connection type queues frames to the thread that owns the streamer.
void connectEyes(const KTCamera* left, const KTCamera* right, VirtualCameraStreamer* streamer);

/// Deletes every worker or streamer, which stops its thread; the keys stay, with null.
template <typename Owned>
void release(QMap<int, Owned*>& owned)
{
    for (Owned*& entry : owned) {
        delete entry;
        entry = nullptr;
    }
}
