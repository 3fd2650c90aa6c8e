// SPDX-License-Identifier: Apache-2.0
// Wire form of the data stream's records: SMPTE 336M key, length, value, all big-endian.
#include "sdk/stream/datarecords.h"

#include <array>
#include <cstring>

namespace tq::stream {

namespace {

enum class RecordKind : std::uint8_t { FRAME = 1, IMU = 2 };
constexpr std::uint8_t kRecordVersion = 1;

/// Appends big-endian fields to a record.
class RecordWriter {
public:
    RecordWriter(RecordKind kind, std::size_t valueBytes)
    {
        // SMPTE 336M: a fixed-length pack of the experimental class, then "KOR".
        const std::array<std::uint8_t, kLabelBytes> label = {
            0x06,           0x0E, 0x2B, 0x34, 0x02, 0x05, 0x01,
            0x01,           0x0F, 0x4B, 0x4F, 0x52, 0x01, static_cast<std::uint8_t>(kind),
            kRecordVersion, 0x00};
        bytes.reserve(kLabelBytes + 3 + valueBytes);
        bytes.assign(label.begin(), label.end());
        bytes.push_back(0x82);  // BER long form: two bytes of length follow
        put<std::uint16_t>(static_cast<std::uint16_t>(valueBytes));
    }

    template <typename T>
    void put(T value)
    {
        static_assert(std::is_unsigned<T>::value, "fields are unsigned");
        for (std::size_t shift = sizeof(T) * 8; shift != 0; shift -= 8) {
            bytes.push_back(static_cast<std::uint8_t>(value >> (shift - 8)));
        }
    }

    void put(double value)
    {
        std::uint64_t bits = 0;
        static_assert(sizeof bits == sizeof value, "IEEE 754 doubles");
        std::memcpy(&bits, &value, sizeof bits);
        put(bits);
    }

    template <std::size_t N>
    void put(const double (&values)[N])
    {
        for (double value : values) {
            put(value);
        }
    }

    std::vector<std::uint8_t> take() { return std::move(bytes); }

private:
    std::vector<std::uint8_t> bytes;
};

}  // namespace

std::vector<std::uint8_t> encodeFrameRecord(const FrameRecord& record)
{
    RecordWriter out(RecordKind::FRAME, kFrameValueBytes);
    out.put(record.serial);
    out.put(record.metadata.validFields);
    out.put(record.counter);
    out.put(std::uint64_t{record.captureTime});
    out.put(record.framesDropped);
    out.put(record.layout);
    out.put(record.eyes);
    out.put(record.eyeWidth);
    out.put(record.eyeHeight);
    out.put(record.fps);
    out.put(record.imuRate);
    out.put(record.deviceVersion);
    out.put(record.modelCode);
    out.put(static_cast<std::uint32_t>(record.eyeOffset));
    out.put(std::uint64_t{record.metadata.imuTimestamp});
    out.put(record.metadata.imuSequence);
    out.put(record.metadata.acceleration);
    out.put(record.metadata.angularRate);
    out.put(record.metadata.magneticField);
    out.put(record.metadata.orientation);
    out.put(record.metadata.temperature);
    out.put(record.metadata.pressure);
    return out.take();
}

std::vector<std::uint8_t> encodeImuRecord(std::uint32_t serial, const IMUPacket& packet)
{
    RecordWriter out(RecordKind::IMU, kImuValueBytes);
    out.put(serial);
    out.put(packet.validFields);
    out.put(std::uint64_t{packet.timestamp});
    out.put(packet.sequence);
    out.put(packet.acceleration);
    out.put(packet.angularRate);
    out.put(packet.magneticField);
    out.put(packet.orientation);
    out.put(packet.temperature);
    out.put(packet.pressure);
    out.put(packet.accelerationCovariance);
    out.put(packet.angularRateCovariance);
    out.put(packet.orientationCovariance);
    return out.take();
}

}  // namespace tq::stream
