// SPDX-License-Identifier: Apache-2.0
// A recorded picture: read from PNG, scaled to packed YUYV.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tq {

/// Planar picture, 8 bits, full range. Grey pictures have no chroma planes.
struct Picture {
    int width = 0;   ///< pixels
    int height = 0;  ///< pixels
    std::vector<std::uint8_t> luma;
    std::vector<std::uint8_t> u;  ///< half as wide, rounded up
    std::vector<std::uint8_t> v;
};

/// Reads a PNG file: grey as it is, everything else converted with the BT.601 matrix.
/// @throws InvalidVideo when the file is no usable picture
Picture readPng(const std::string& path);

/// Scales pictures; keeps its working memory.
class PictureScaler {
public:
    /// @param width,height size to scale to, pixels; width even
    PictureScaler(int width, int height);

    /// @param yuyv packed, width × height × 2 bytes
    void scale(const Picture& picture, std::uint8_t* yuyv);

private:
    int width;
    int height;
    std::vector<std::uint8_t> luma;
    std::vector<std::uint8_t> u;
    std::vector<std::uint8_t> v;
    std::vector<std::uint8_t> neutral;
};

}  // namespace tq
