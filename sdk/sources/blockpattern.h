// SPDX-License-Identifier: Apache-2.0
// The machine-readable pattern in the corner of simulated pictures; see docs/rig.md.
#pragma once

#include <algorithm>
#include <array>
#include <bitset>
#include <cstdint>

#include "tq_kor/types.h"

namespace tq {

/// What the pattern says.
struct PatternContent {
    std::uint32_t counter = 0;  ///< frame number on the common grid, low 32 bits
    std::uint32_t serial = 0;   ///< of the physical camera
    Timestamp timestamp = 0;    ///< capture time, ns
};

/// Layout of the pattern: rows of square cells within a dark border of one cell.
struct BlockPattern {
    static constexpr int kColumns = 18;
    static constexpr int kRows = 8;
    static constexpr int kBits = kColumns * kRows;
    static constexpr std::uint8_t kBlack = 16;
    static constexpr std::uint8_t kWhite = 235;

    /// Edge of one cell in pixels, even, for a picture of this width.
    static int cellSize(int width) { return std::max(4, width / 120 / 2 * 2); }

    /// The cells, first row first: counter, serial, timestamp and checksum, most significant bit
    /// first; a set bit is a white cell.
    static std::bitset<kBits> encode(const PatternContent& content)
    {
        std::array<std::uint8_t, kBits / 8> bytes{};
        put(bytes.data(), content.counter, 4);
        put(bytes.data() + 4, content.serial, 4);
        put(bytes.data() + 8, content.timestamp, 8);
        put(bytes.data() + 16, checksum(bytes.data(), 16), 2);
        std::bitset<kBits> cells;
        for (int i = 0; i < kBits; ++i) {
            const auto index = static_cast<std::size_t>(i);
            cells[index] = (bytes[index / 8] >> (7 - i % 8) & 1) != 0;
        }
        return cells;
    }

    /// CRC-16 with polynomial 0x1021 and initial value 0xFFFF.
    static std::uint16_t checksum(const std::uint8_t* bytes, int count)
    {
        unsigned crc = 0xFFFF;
        for (int i = 0; i < count; ++i) {
            crc ^= static_cast<unsigned>(bytes[i]) << 8;
            for (int bit = 0; bit < 8; ++bit) {
                crc = (crc & 0x8000u) != 0 ? (crc << 1 ^ 0x1021u) & 0xFFFFu : crc << 1 & 0xFFFFu;
            }
        }
        return static_cast<std::uint16_t>(crc);
    }

private:
    static void put(std::uint8_t* to, std::uint64_t value, int bytes)
    {
        for (int i = 0; i < bytes; ++i) {
            to[i] = static_cast<std::uint8_t>(value >> (8 * (bytes - 1 - i)));
        }
    }
};

}  // namespace tq
