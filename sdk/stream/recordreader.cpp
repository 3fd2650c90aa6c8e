// SPDX-License-Identifier: Apache-2.0
// Reads the records of the data stream: key, length and value, all big-endian.
#include "sdk/stream/recordreader.h"

#include <gst/base/gstbytereader.h>

#include <cstring>
#include <utility>

namespace tq::wire {

namespace {

constexpr guint kLabelBytes = 16;
constexpr std::size_t kUniversalBytes = 4;  // that all labels begin with
constexpr std::size_t kKindOffset = 13;
constexpr std::size_t kVersionOffset = 14;
constexpr std::size_t kMostUnitBytes = 65536;
constexpr guint kFrameBytes = 200;
constexpr guint kImuBytes = 360;
// The label up to the kind of record.
constexpr std::uint8_t kLabelStart[kKindOffset] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x05, 0x01,
                                                   0x01, 0x0F, 0x4B, 0x4F, 0x52, 0x01};
constexpr std::uint8_t kFrameKind = 1;
constexpr std::uint8_t kImuKind = 2;

/// Takes one big-endian number. GStreamer's own functions would load it from an address that need
/// not be aligned.
template <typename Number>
Number take(GstByteReader& in)
{
    const guint8* const bytes = gst_byte_reader_get_data_unchecked(&in, sizeof(Number));
    Number number = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) {
        number = number << 8 | bytes[i];
    }
    return number;
}

/// Reads a BER length; false when it is malformed.
bool readLength(GstByteReader& in, guint& length)
{
    guint8 first = 0;
    if (!gst_byte_reader_get_uint8(&in, &first)) {
        return false;
    }
    const guint bytes = first < 0x80 ? 0 : first - 0x80u;
    if (first == 0x80 || bytes > 4 || bytes > gst_byte_reader_get_remaining(&in)) {
        return false;
    }
    length = bytes == 0 ? first : 0;
    for (guint i = 0; i < bytes; ++i) {
        length = length << 8 | gst_byte_reader_get_uint8_unchecked(&in);
    }
    return true;
}

FrameRecord readFrame(GstByteReader& in)
{
    FrameRecord record;
    record.serial = take<std::uint32_t>(in);
    gst_byte_reader_skip_unchecked(&in, 4);
    record.counter = take<std::uint64_t>(in);
    record.captureTime = take<std::uint64_t>(in);
    record.framesDropped = take<std::uint64_t>(in);
    gst_byte_reader_skip_unchecked(&in, 4);
    record.eyeWidth = take<std::uint32_t>(in);
    record.eyeHeight = take<std::uint32_t>(in);
    record.fps = take<std::uint32_t>(in);
    gst_byte_reader_skip_unchecked(&in, 12);
    record.eyeOffset = static_cast<std::int32_t>(take<std::uint32_t>(in));
    return record;
}

ImuRecord readImu(GstByteReader& in)
{
    ImuRecord record;
    record.serial = take<std::uint32_t>(in);
    record.validFields = take<std::uint32_t>(in);
    record.timestamp = take<std::uint64_t>(in);
    record.sequence = take<std::uint64_t>(in);
    const auto takeDoubles = [&in](auto& values) {
        for (double& value : values) {
            const auto bits = take<std::uint64_t>(in);
            std::memcpy(&value, &bits, sizeof value);
        }
    };
    takeDoubles(record.values);
    takeDoubles(record.covariances);
    return record;
}

/// Whether a value of this length can hold the record: the first version has a length of its own,
/// later ones append to it.
bool fits(guint length, guint bytes, std::uint8_t version)
{
    return version <= 1 ? length == bytes : length >= bytes;
}

bool beginsRecord(const std::uint8_t* bytes, std::size_t size)
{
    return size >= kUniversalBytes && std::memcmp(bytes, kLabelStart, kUniversalBytes) == 0;
}

}  // namespace

bool readRecords(const std::uint8_t* bytes, std::size_t size, const RecordHandler& handler)
{
    GstByteReader in;
    gst_byte_reader_init(&in, bytes, static_cast<guint>(size));
    while (gst_byte_reader_get_remaining(&in) > 0) {
        const guint8* label = nullptr;
        guint length = 0;
        const guint8* value = nullptr;
        if (!gst_byte_reader_get_data(&in, kLabelBytes, &label) ||
            !beginsRecord(label, kLabelBytes) || !readLength(in, length) ||
            !gst_byte_reader_get_data(&in, length, &value)) {
            return false;
        }
        GstByteReader fields;
        gst_byte_reader_init(&fields, value, length);
        const std::uint8_t kind =
            std::memcmp(label, kLabelStart, kKindOffset) == 0 ? label[kKindOffset] : 0;
        if ((kind == kFrameKind && !fits(length, kFrameBytes, label[kVersionOffset])) ||
            (kind == kImuKind && !fits(length, kImuBytes, label[kVersionOffset]))) {
            return false;
        }
        if (kind == kFrameKind) {
            handler.frame(readFrame(fields));
        } else if (kind == kImuKind) {
            handler.imu(readImu(fields));
        }
    }
    return true;
}

const std::vector<std::uint8_t>* UnitCollector::add(std::uint16_t sequence, bool marker,
                                                    const std::uint8_t* payload, std::size_t size)
{
    if (sequence != expected) {
        // The end of a unit may be among what was lost.
        skipping = !beginsRecord(payload, size);
        ended = true;
    }
    expected = static_cast<std::uint16_t>(sequence + 1);
    if (std::exchange(ended, marker)) {
        unit.clear();
    }
    if (skipping) {
        skipping = !marker;
        return nullptr;
    }
    unit.insert(unit.end(), payload, payload + size);
    skipping = !marker && unit.size() > kMostUnitBytes;
    return marker || skipping ? &unit : nullptr;
}

}  // namespace tq::wire
