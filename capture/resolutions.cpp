// SPDX-License-Identifier: Apache-2.0
// Catalogue of the capture resolutions that each mono camera model offers.
#include "capture/Camera.h"

std::vector<CameraResolutionDefinition> KTCamera::getAvailableResolutions(const tq::MODEL& model)
{
    if (model == sdk::kSoloUhd) {
        return {
            {1920, 1080, false}, {1920, 1200, false}, {3200, 1800, false},
            {3840, 2160, false}, {1920, 1200, true},  {3200, 1800, true},
        };
    }
    if (model == sdk::kSoloGs) {
        return {{1920, 1200, false}, {1920, 1080, false}, {960, 600, false}};
    }
    return {};
}

std::vector<CameraResolutionDefinition> KTCamera::getAvailableResolutions(const QString& text)
{
    const QString family = text.left(2);
    if (family == QLatin1String("31")) {
        return getAvailableResolutions(sdk::kSoloUhd);
    }
    if (family == QLatin1String("30")) {
        return getAvailableResolutions(sdk::kSoloGs);
    }
    return {};
}
