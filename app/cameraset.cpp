// SPDX-License-Identifier: Apache-2.0
// What both controllers do with cameras and streamers.
#include "app/cameraset.h"

#include <cstdint>

bool isSolo(tq::MODEL model)
{
    return model == sdk::kSoloGs || model == sdk::kSoloUhd;
}

QString incompatibleModelText(tq::MODEL model, tq::MODEL remembered)
{
    return QStringLiteral(
               "Incompatible camera model: %1 instead of %2. You cannot use different models at "
               "the same time with this version.")
        .arg(QString::fromUtf8(tq::toString(model).c_str()),
             QString::fromUtf8(tq::toString(remembered).c_str()));
}

tq::Resolution resolutionOf(int width, int height)
{
    return {static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height)};
}

void connectEyes(const KTCamera* left, const KTCamera* right, VirtualCameraStreamer* streamer)
{
    if (left != nullptr) {
        QObject::connect(left, &KTCamera::sendYUYVImage, streamer,
                         &VirtualCameraStreamer::ingestLeftImage);
    }
    if (right != nullptr) {
        QObject::connect(right, &KTCamera::sendYUYVImage, streamer,
                         &VirtualCameraStreamer::ingestRightImage);
    }
}
