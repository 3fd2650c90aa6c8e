// SPDX-License-Identifier: Apache-2.0
// Reads the records of the data stream, for the receiver and for recorded streams that are played;
// docs/stream-format.md has the byte tables. Knows nothing of how they are written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace tq::wire {

/// What the sender says about one frame, as far as it is used.
struct FrameRecord {
    std::uint32_t serial = 0;
    std::uint64_t counter = 0;
    std::uint64_t captureTime = 0;    ///< ns since 1970
    std::uint64_t framesDropped = 0;  ///< by the sender so far
    std::uint32_t eyeWidth = 0;       ///< pixels
    std::uint32_t eyeHeight = 0;      ///< pixels
    std::uint32_t fps = 0;
    std::int32_t eyeOffset = 0;  ///< capture of the right eye after that of the left one, ns
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
    /// Covariances of acceleration, angular rate and orientation, 3 × 3 each, row by row
    double covariances[27] = {};
};

struct RecordHandler {
    std::function<void(const FrameRecord&)> frame;
    std::function<void(const ImuRecord&)> imu;
};

/// Reads all records of one unit of the data stream. Records of other kinds are passed over.
/// @return false when the bytes are not a whole number of records, or a record is too short
bool readRecords(const std::uint8_t* bytes, std::size_t size, const RecordHandler& handler);

/// Puts the units of the data stream together from RTP packets, which come in their order. The
/// units that a lost packet belongs to are left out.
class UnitCollector {
public:
    /// Takes the next packet.
    /// @param marker    it is the last of its unit
    /// @param payload   its bytes behind the RTP header
    /// @return the unit when this packet ends it, valid until the next call; else nullptr. One
    ///         that grows beyond what a sender makes is given out as it is, and its rest left out
    const std::vector<std::uint8_t>* add(std::uint16_t sequence, bool marker,
                                         const std::uint8_t* payload, std::size_t size);

private:
    std::vector<std::uint8_t> unit;
    std::optional<std::uint16_t> expected;  // sequence number
    bool skipping = false;                  // until the next unit
    bool ended = true;                      // the unit is whole: the next packet begins another
};

}  // namespace tq::wire
