// SPDX-License-Identifier: Apache-2.0
// Reads the records of the data stream: key, length and value, all big-endian.
#include "tools/receive/datarecords.h"

#include <cstring>
#include <optional>

namespace receive {

namespace {

constexpr std::size_t kLabelBytes = 16;
constexpr std::size_t kKindOffset = 13;
constexpr std::size_t kFrameBytes = 200;
constexpr std::size_t kImuBytes = 360;
// The label up to the kind of record.
constexpr std::uint8_t kLabelStart[kKindOffset] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x05, 0x01,
                                                   0x01, 0x0F, 0x4B, 0x4F, 0x52, 0x01};
constexpr std::uint8_t kFrameKind = 1;
constexpr std::uint8_t kImuKind = 2;

/// A run of bytes that is read from the front.
class Reader {
public:
    Reader(const std::uint8_t* first, std::size_t count) : next(first), left(count) {}

    std::size_t remaining() const { return left; }
    const std::uint8_t* position() const { return next; }

    void skip(std::size_t count)
    {
        next += count;
        left -= count;
    }

    std::uint64_t number(std::size_t bytes)
    {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i) {
            value = value << 8 | next[i];
        }
        skip(bytes);
        return value;
    }

    std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }
    std::uint64_t u64() { return number(8); }

    double real()
    {
        const std::uint64_t bits = number(8);
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    template <std::size_t N>
    void reals(double (&values)[N])
    {
        for (double& value : values) {
            value = real();
        }
    }

private:
    const std::uint8_t* next;
    std::size_t left;
};

/// Reads a BER length; nothing when it is malformed.
std::optional<std::size_t> readLength(Reader& in)
{
    if (in.remaining() < 1) {
        return std::nullopt;
    }
    const auto first = static_cast<std::size_t>(in.number(1));
    if (first < 0x80) {
        return first;
    }
    const std::size_t bytes = first - 0x80;
    if (bytes == 0 || bytes > 4 || bytes > in.remaining()) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(in.number(bytes));
}

FrameRecord readFrame(Reader in)
{
    FrameRecord record;
    record.serial = in.u32();
    in.skip(4);
    record.counter = in.u64();
    record.captureTime = in.u64();
    record.framesDropped = in.u64();
    in.skip(4);
    record.eyeWidth = in.u32();
    record.eyeHeight = in.u32();
    record.fps = in.u32();
    return record;
}

ImuRecord readImu(Reader in)
{
    ImuRecord record;
    record.serial = in.u32();
    record.validFields = in.u32();
    record.timestamp = in.u64();
    record.sequence = in.u64();
    in.reals(record.acceleration);
    in.reals(record.angularRate);
    in.reals(record.magneticField);
    in.reals(record.orientation);
    record.temperature = in.real();
    record.pressure = in.real();
    return record;
}

}  // namespace

bool readRecords(const std::uint8_t* bytes, std::size_t size, const RecordHandler& handler)
{
    Reader in(bytes, size);
    while (in.remaining() > 0) {
        if (in.remaining() < kLabelBytes) {
            return false;
        }
        const std::uint8_t* label = in.position();
        in.skip(kLabelBytes);
        const auto length = readLength(in);
        if (!length || *length > in.remaining()) {
            return false;
        }
        if (std::memcmp(label, kLabelStart, kKindOffset) == 0) {
            if (label[kKindOffset] == kFrameKind && *length >= kFrameBytes) {
                handler.frame(readFrame(Reader(in.position(), *length)));
            } else if (label[kKindOffset] == kImuKind && *length >= kImuBytes) {
                handler.imu(readImu(Reader(in.position(), *length)));
            }
        }
        in.skip(*length);
    }
    return true;
}

}  // namespace receive
