// SPDX-License-Identifier: Apache-2.0
// Joins two images side by side.
#pragma once

#include "capture/sdk.h"

/// Joins two images side by side: every output row is the left row followed by the right row.
///
/// Images larger than the eye are cropped at the right and bottom; smaller ones are padded with
/// black, so that nothing is ever read or written outside a buffer.
/// @param left,right        packed YUYV, 2 bytes per pixel
/// @param eyeWidth,eyeHeight size of one eye, pixels
/// @param out               (2 × eyeWidth) × eyeHeight pixels, packed YUYV
void joinSideBySide(const tq::Mat& left, const tq::Mat& right, int eyeWidth, int eyeHeight,
                    unsigned char* out);
