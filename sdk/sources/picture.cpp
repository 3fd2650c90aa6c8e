// SPDX-License-Identifier: Apache-2.0
// Reading and scaling of recorded pictures with libpng and libyuv.
#include "sdk/sources/picture.h"

#include <libyuv.h>
#include <png.h>

#include "sdk/core/readfile.h"
#include "sdk/sources/framesource.h"

namespace tq {

namespace {

// No camera has more, and one picture takes six bytes for each of its pixels while it is decoded.
constexpr unsigned kLargestEdge = 8192;
constexpr std::size_t kLargestFile = 256u << 20;

/// A file that is being decoded, released on every way out.
struct PngReader {
    explicit PngReader(const std::string& file)
        : path(file), contents(readRegularFile(path, kLargestFile))
    {
        if (!contents) {
            throw InvalidVideo(path + ": " + contents.error);
        }
        image.version = PNG_IMAGE_VERSION;
        check(png_image_begin_read_from_memory(&image, contents.bytes->data(),
                                               contents.bytes->size()));
    }
    ~PngReader() { png_image_free(&image); }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;

    void read(png_uint_32 format, std::vector<std::uint8_t>& pixels)
    {
        png_color black{};
        image.format = format;
        pixels.resize(PNG_IMAGE_SIZE(image));
        check(png_image_finish_read(&image, &black, pixels.data(), 0, nullptr));
    }

    const std::string path;
    const FileContents contents;
    png_image image{};

private:
    // libpng has released what it held when it reports an error.
    void check(int success) const
    {
        if (success == 0) {
            throw InvalidVideo(path + ": " + image.message);
        }
    }
};

}  // namespace

Picture readPng(const std::string& path)
{
    PngReader reader(path);
    if (reader.image.width > kLargestEdge || reader.image.height > kLargestEdge) {
        throw InvalidVideo(path + ": is larger than 8192 pixels");
    }
    Picture picture;
    picture.width = static_cast<int>(reader.image.width);
    picture.height = static_cast<int>(reader.image.height);
    if ((reader.image.format & PNG_FORMAT_FLAG_COLOR) == 0) {
        reader.read(PNG_FORMAT_GRAY, picture.luma);
        return picture;
    }
    // libyuv's "ARGB" is blue first in memory.
    std::vector<std::uint8_t> colours;
    reader.read(PNG_FORMAT_BGRA, colours);
    const int half = (picture.width + 1) / 2;
    picture.luma.resize(colours.size() / 4);
    picture.u.resize(static_cast<std::size_t>(half) * reader.image.height);
    picture.v.resize(picture.u.size());
    libyuv::ARGBToJ422(colours.data(), picture.width * 4, picture.luma.data(), picture.width,
                       picture.u.data(), half, picture.v.data(), half, picture.width,
                       picture.height);
    return picture;
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
