// SPDX-License-Identifier: Apache-2.0
// Reading and scaling of recorded pictures with libpng and libyuv.
#include "sdk/sources/picture.h"

#include <libyuv.h>
#include <png.h>

namespace tq {

namespace {

constexpr unsigned kLargestEdge = 16384;

/// Releases libpng's reader on every way out.
struct PngReader {
    PngReader() { image.version = PNG_IMAGE_VERSION; }
    ~PngReader() { png_image_free(&image); }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;

    png_image image{};
};

bool readPixels(PngReader& reader, std::uint8_t* pixels)
{
    png_color black{};
    return png_image_finish_read(&reader.image, &black, pixels, 0, nullptr) != 0;
}

}  // namespace

bool readPng(const std::string& path, Picture& picture, std::string& reason)
{
    PngReader reader;
    if (png_image_begin_read_from_file(&reader.image, path.c_str()) == 0) {
        reason = path + ": " + reader.image.message;
        return false;
    }
    const unsigned columns = reader.image.width;
    const unsigned rows = reader.image.height;
    if (columns > kLargestEdge || rows > kLargestEdge) {
        reason = path + ": is larger than 16384 pixels";
        return false;
    }
    const bool grey = (reader.image.format & PNG_FORMAT_FLAG_COLOR) == 0;
    picture = Picture{};
    picture.width = static_cast<int>(columns);
    picture.height = static_cast<int>(rows);
    picture.luma.resize(static_cast<std::size_t>(columns) * rows);
    if (grey) {
        reader.image.format = PNG_FORMAT_GRAY;
        if (readPixels(reader, picture.luma.data())) {
            return true;
        }
        reason = path + ": " + reader.image.message;
        return false;
    }
    // libyuv's "ARGB" is blue first in memory.
    reader.image.format = PNG_FORMAT_BGRA;
    std::vector<std::uint8_t> colours(picture.luma.size() * 4);
    if (!readPixels(reader, colours.data())) {
        reason = path + ": " + reader.image.message;
        return false;
    }
    const int half = (picture.width + 1) / 2;
    picture.u.resize(static_cast<std::size_t>(half) * rows);
    picture.v.resize(picture.u.size());
    libyuv::ARGBToJ422(colours.data(), picture.width * 4, picture.luma.data(), picture.width,
                       picture.u.data(), half, picture.v.data(), half, picture.width,
                       picture.height);
    return true;
}

PictureScaler::PictureScaler(int targetWidth, int targetHeight)
    : width(targetWidth),
      height(targetHeight),
      luma(static_cast<std::size_t>(targetWidth) * static_cast<std::size_t>(targetHeight)),
      neutral(static_cast<std::size_t>(targetWidth / 2), 128)
{
}

void PictureScaler::scale(const Picture& picture, std::uint8_t* yuyv)
{
    // Averaging avoids aliases, but rounds down; it pays from half the size on.
    const bool muchSmaller = picture.width >= 2 * width || picture.height >= 2 * height;
    const libyuv::FilterMode filter = muchSmaller ? libyuv::kFilterBox : libyuv::kFilterBilinear;
    const std::uint8_t* scaledLuma = picture.luma.data();
    if (picture.width != width || picture.height != height) {
        libyuv::ScalePlane(picture.luma.data(), picture.width, picture.width, picture.height,
                           luma.data(), width, width, height, filter);
        scaledLuma = luma.data();
    }
    if (picture.u.empty()) {
        // One neutral row serves for all of them.
        libyuv::I422ToYUY2(scaledLuma, width, neutral.data(), 0, neutral.data(), 0, yuyv, width * 2,
                           width, height);
        return;
    }
    const int half = (picture.width + 1) / 2;
    u.resize(luma.size() / 2);
    v.resize(luma.size() / 2);
    libyuv::ScalePlane(picture.u.data(), half, half, picture.height, u.data(), width / 2, width / 2,
                       height, filter);
    libyuv::ScalePlane(picture.v.data(), half, half, picture.height, v.data(), width / 2, width / 2,
                       height, filter);
    libyuv::I422ToYUY2(scaledLuma, width, u.data(), width / 2, v.data(), width / 2, yuyv, width * 2,
                       width, height);
}

}  // namespace tq
