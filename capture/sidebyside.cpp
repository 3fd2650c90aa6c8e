// SPDX-License-Identifier: Apache-2.0
// Joins two images side by side.
#include "capture/sidebyside.h"

#include <algorithm>
#include <cstring>

namespace {

/// Copies one row of an eye; what the image does not cover is black: luma 0, chroma 128.
void copyRow(const tq::Mat& image, std::size_t row, std::size_t rowBytes, unsigned char* out)
{
    const auto* const pixels = image.getPtr<unsigned char>(sdk::kHostMemory);
    std::size_t filled = 0;
    if (pixels != nullptr && row < sdk::heightOf(image)) {
        const std::size_t step = image.getStepBytes(sdk::kHostMemory);
        filled = std::min(step, rowBytes);
        std::memcpy(out, pixels + row * step, filled);
    }
    for (; filled < rowBytes; ++filled) {
        out[filled] = filled % 2 == 0 ? 0 : 128;
    }
}

}  // namespace

void joinSideBySide(const tq::Mat& left, const tq::Mat& right, int eyeWidth, int eyeHeight,
                    unsigned char* out)
{
    const std::size_t rowBytes =
        static_cast<std::size_t>(std::max(eyeWidth, 0)) * sdk::kYuyvBytesPerPixel;
    const auto rows = static_cast<std::size_t>(std::max(eyeHeight, 0));
    for (std::size_t row = 0; row < rows; ++row) {
        copyRow(left, row, rowBytes, out + 2 * row * rowBytes);
        copyRow(right, row, rowBytes, out + (2 * row + 1) * rowBytes);
    }
}
