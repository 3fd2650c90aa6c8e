// SPDX-License-Identifier: Apache-2.0
// Decoder of the block pattern in simulated pictures, written from docs/rig.md.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

/// What a picture's pattern says.
struct DecodedPattern {
    std::uint32_t counter = 0;
    std::uint32_t serial = 0;
    std::uint64_t timestamp = 0;
};

/// Decodes the pattern of one eye.
/// @param luma        first luma byte of the eye's picture
/// @param pixelStep   bytes from one pixel to the next: 2 in YUYV, 1 in a luma plane
/// @param rowStep     bytes from one row to the next
/// @param width       of the eye, pixels
/// @return nothing when the checksum does not fit
inline std::optional<DecodedPattern> decodePattern(const unsigned char* luma, int pixelStep,
                                                   std::ptrdiff_t rowStep, int width)
{
    constexpr int kColumns = 18;
    constexpr int kBytes = 18;
    const int cell = width / 120 / 2 * 2 < 4 ? 4 : width / 120 / 2 * 2;
    std::array<std::uint8_t, kBytes> bytes{};
    for (int bit = 0; bit < kBytes * 8; ++bit) {
        const int left = (2 + bit % kColumns) * cell + cell / 4;
        const int top = (2 + bit / kColumns) * cell + cell / 4;
        int sum = 0;
        for (int y = top; y < top + cell / 2; ++y) {
            for (int x = left; x < left + cell / 2; ++x) {
                sum += luma[y * rowStep + static_cast<std::ptrdiff_t>(x) * pixelStep];
            }
        }
        const bool white = sum > 126 * (cell / 2) * (cell / 2);
        auto& byte = bytes[static_cast<std::size_t>(bit / 8)];
        byte = static_cast<std::uint8_t>(byte << 1 | (white ? 1 : 0));
    }
    std::uint32_t crc = 0xFFFF;
    for (std::size_t i = 0; i < 16; ++i) {
        crc ^= static_cast<std::uint32_t>(bytes[i]) << 8;
        for (int k = 0; k < 8; ++k) {
            crc = ((crc & 0x8000) != 0 ? crc << 1 ^ 0x1021 : crc << 1) & 0xFFFF;
        }
    }
    if (crc != static_cast<std::uint32_t>(bytes[16] << 8 | bytes[17])) {
        return std::nullopt;
    }
    DecodedPattern pattern;
    for (std::size_t i = 0; i < 4; ++i) {
        pattern.counter = pattern.counter << 8 | bytes[i];
        pattern.serial = pattern.serial << 8 | bytes[4 + i];
    }
    for (std::size_t i = 8; i < 16; ++i) {
        pattern.timestamp = pattern.timestamp << 8 | bytes[i];
    }
    return pattern;
}
