// SPDX-License-Identifier: Apache-2.0
// Takes the place of the catalogue of resolutions: as many modes, in sizes that cost next to
// nothing, so that thousands of actions take minutes.
#include "capture/Camera.h"

std::vector<CameraResolutionDefinition> KTCamera::getAvailableResolutions(const tq::MODEL& model)
{
    if (model == sdk::kSoloUhd) {
        return {{192, 108, false}, {192, 120, false}, {192, 120, true}, {3000, 32, false}};
    }
    if (model == sdk::kSoloGs) {
        return {{192, 120, false}, {192, 108, false}, {96, 60, false}};
    }
    return {};
}

std::vector<CameraResolutionDefinition> KTCamera::getAvailableResolutions(const QString& text)
{
    return getAvailableResolutions(text.startsWith(QLatin1String("31")) ? sdk::kSoloUhd
                                                                        : sdk::kSoloGs);
}
