// SPDX-License-Identifier: Apache-2.0
// A line in the log for each image that is lost, for those who ask for it.
#include "capture/lostimages.h"

Q_LOGGING_CATEGORY(lostImages, "vistrel.images", QtInfoMsg)
