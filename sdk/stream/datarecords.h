// SPDX-License-Identifier: Apache-2.0
// The records of the data stream in their wire form; docs/stream-format.md has the byte tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tq_kor/types.h"

namespace tq::stream {

inline constexpr std::size_t kLabelBytes = 16;        ///< universal label in front of every record
inline constexpr std::size_t kFrameValueBytes = 200;  ///< value of a frame record
inline constexpr std::size_t kImuValueBytes = 360;    ///< value of an IMU record

/// What the sender says about one frame.
struct FrameRecord {
    std::uint32_t serial = 0;         ///< virtual serial number
    std::uint64_t counter = 0;        ///< counts frames from 0
    Timestamp captureTime = 0;        ///< ns since 1970
    std::uint64_t framesDropped = 0;  ///< frames that the sender has dropped so far
    std::uint16_t layout = 1;         ///< 1: side by side, left eye first
    std::uint16_t eyes = 2;
    std::uint32_t eyeWidth = 0;   ///< pixels
    std::uint32_t eyeHeight = 0;  ///< pixels
    std::uint32_t fps = 0;        ///< nominal frames per second
    std::uint32_t imuRate = 0;    ///< announced IMU packets per second
    std::uint32_t deviceVersion = 0;
    std::uint32_t modelCode = 0;
    std::int32_t eyeOffset = 0;  ///< capture of the right eye after that of the left one, ns
    kvfrw::kvfSampleMetadata metadata{};
};

/// One frame record: label, length and value.
std::vector<std::uint8_t> encodeFrameRecord(const FrameRecord& record);

/// One IMU record: label, length and value.
/// @param serial virtual serial number
std::vector<std::uint8_t> encodeImuRecord(std::uint32_t serial, const IMUPacket& packet);

}  // namespace tq::stream
