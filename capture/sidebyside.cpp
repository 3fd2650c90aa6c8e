// SPDX-License-Identifier: Apache-2.0
// Joins two images side by side.
#include "capture/sidebyside.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

/// Where one eye's rows come from and how much of them there is.
struct EyeRows {
    EyeRows(const tq::Mat& image, std::size_t eyeRowBytes)
        : pixels(image.getPtr<unsigned char>(sdk::kHostMemory)),
          step(image.getStepBytes(sdk::kHostMemory)),
          rows(pixels != nullptr ? sdk::heightOf(image) : 0),
          copied(std::min(step, eyeRowBytes)),
          padded(eyeRowBytes - copied)
    {
    }

    void copyRow(std::size_t row, unsigned char* out) const
    {
        if (row < rows) {
            std::memcpy(out, pixels + row * step, copied);
            blacken(out + copied, padded);
        } else {
            blacken(out, copied + padded);
        }
    }

    /// Black in full-range YUYV: luma 0, chroma 128.
    static void blacken(unsigned char* out, std::size_t bytes)
    {
        for (std::size_t i = 0; i < bytes; ++i) {
            out[i] = (i % 2 == 0) ? 0 : 128;
        }
    }

    const unsigned char* pixels;
    std::size_t step;
    std::size_t rows;
    std::size_t copied;
    std::size_t padded;
};

}  // namespace

void joinSideBySide(const tq::Mat& left, const tq::Mat& right, int eyeWidth, int eyeHeight,
                    unsigned char* out)
{
    const std::size_t eyeRowBytes =
        static_cast<std::size_t>(std::max(eyeWidth, 0)) * sdk::kYuyvBytesPerPixel;
    const auto rows = static_cast<std::size_t>(std::max(eyeHeight, 0));
    const EyeRows leftRows(left, eyeRowBytes);
    const EyeRows rightRows(right, eyeRowBytes);
    for (std::size_t row = 0; row < rows; ++row) {
        unsigned char* const outRow = out + 2 * row * eyeRowBytes;
        leftRows.copyRow(row, outRow);
        rightRows.copyRow(row, outRow + eyeRowBytes);
    }
}
