// SPDX-License-Identifier: Apache-2.0
// Reads the records of the data stream; docs/stream-format.md has the byte tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace receive {

/// What the sender says about one frame, as far as this program uses it.
struct FrameRecord {
    std::uint32_t serial = 0;
    std::uint64_t counter = 0;
    std::uint64_t captureTime = 0;    ///< ns since 1970
    std::uint64_t framesDropped = 0;  ///< by the sender so far
    std::uint32_t eyeWidth = 0;       ///< pixels
    std::uint32_t eyeHeight = 0;      ///< pixels
    std::uint32_t fps = 0;
};

/// One measurement of the inertial unit.
struct ImuRecord {
    std::uint32_t serial = 0;
    std::uint32_t validFields = 0;
    std::uint64_t timestamp = 0;  ///< ns since 1970
    std::uint64_t sequence = 0;
    /// Acceleration x, y, z (m/s²), angular rate x, y, z (rad/s), magnetic field x, y, z (µT),
    /// orientation x, y, z, w, temperature (°C), pressure (hPa)
    double values[15] = {};
};

struct RecordHandler {
    std::function<void(const FrameRecord&)> frame;
    std::function<void(const ImuRecord&)> imu;
};

/// Reads all records of one unit of the data stream. Records of other kinds are passed over.
/// @return false when the bytes are not a whole number of records
bool readRecords(const std::uint8_t* bytes, std::size_t size, const RecordHandler& handler);

}  // namespace receive
