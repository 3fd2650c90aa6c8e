// SPDX-License-Identifier: Apache-2.0
// Turning of packed YUYV pictures.
#pragma once

#include <cstddef>

namespace tq {

/// Copies a picture turned by 180°.
/// @param from,to packed YUYV, width × height × 2 bytes, not overlapping; width even
inline void turnAround(const unsigned char* from, unsigned char* to, int width, int height)
{
    const std::size_t bytes =
        static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2;
    // Two pixels share their chroma: their order is reversed, but not that of their chroma.
    for (const unsigned char* pair = from + bytes; pair != from; to += 4) {
        pair -= 4;
        to[0] = pair[2];
        to[1] = pair[1];
        to[2] = pair[0];
        to[3] = pair[3];
    }
}

}  // namespace tq
