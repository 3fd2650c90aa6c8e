// SPDX-License-Identifier: Apache-2.0
// The one door to the camera SDK: all code outside sdk/ includes this header and no other of it.
#pragma once

#ifndef VISTREL_SDK_HEADER
#define VISTREL_SDK_HEADER <tq_kor/tq_kor.h>
#endif
#include VISTREL_SDK_HEADER

#include <QMetaType>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

Q_DECLARE_METATYPE(tq::Mat)
Q_DECLARE_METATYPE(tq::IMUPacket)
Q_DECLARE_METATYPE(std::vector<tq::IMUPacket>)

// Whatever library stands behind the declarations, these sizes are what the program relies on.
static_assert(sizeof(tq::Mat) == 128, "tq::Mat is 128 bytes");
static_assert(sizeof(tq::Timestamp) == 8, "timestamps are 64-bit nanoseconds");
static_assert(sizeof(tq::Resolution) == 16, "a resolution is two 64-bit integers");
static_assert(sizeof(tq::MODEL) == 4, "models are 32-bit");
static_assert(sizeof(tq::IMUPacket) == 360, "IMU packets are 360 bytes");
static_assert(sizeof(tq::DeviceProperties) == 144, "device records are 144 bytes");
static_assert(sizeof(tq::kvfrw::kvfSampleMetadata) == 256, "frame metadata is 256 bytes");
static_assert(sizeof(tq::UDPOutConfig) == 96, "sender configurations are 96 bytes");

// So are these places, and the widths of the fields there.
#define VISTREL_PIN_FIELD(record, field, type, offset)                                          \
    static_assert(                                                                              \
        offsetof(record, field) == (offset) && sizeof(decltype(record::field)) == sizeof(type), \
        #record "::" #field " is " #type " at byte " #offset)
VISTREL_PIN_FIELD(tq::DeviceProperties, id, std::int32_t, 4);
VISTREL_PIN_FIELD(tq::DeviceProperties, model, std::int32_t, 24);
VISTREL_PIN_FIELD(tq::DeviceProperties, serialNumber, std::int32_t, 28);
VISTREL_PIN_FIELD(tq::UDPOutConfig, layout, std::int32_t, 0);
VISTREL_PIN_FIELD(tq::UDPOutConfig, port, std::uint16_t, 4);
VISTREL_PIN_FIELD(tq::UDPOutConfig, bitrate, std::int32_t, 8);
VISTREL_PIN_FIELD(tq::UDPOutConfig, keyFrameInterval, std::int32_t, 16);
VISTREL_PIN_FIELD(tq::UDPOutConfig, chunkSize, std::uint16_t, 22);
VISTREL_PIN_FIELD(tq::UDPOutConfig, width, std::int32_t, 24);
VISTREL_PIN_FIELD(tq::UDPOutConfig, height, std::int32_t, 28);
VISTREL_PIN_FIELD(tq::UDPOutConfig, fps, std::int32_t, 40);
VISTREL_PIN_FIELD(tq::UDPOutConfig, serialNumber, std::int32_t, 44);
VISTREL_PIN_FIELD(tq::UDPOutConfig, deviceVersion, std::int32_t, 48);
VISTREL_PIN_FIELD(tq::UDPOutConfig, imuRate, std::int32_t, 52);
VISTREL_PIN_FIELD(tq::UDPOutConfig, modelCode, std::int32_t, 56);
VISTREL_PIN_FIELD(tq::UDPOutConfig, eyes, std::int32_t, 92);
#undef VISTREL_PIN_FIELD

namespace sdk {

/// Arguments whose meaning is the SDK's own; passed as stated by the maker.
constexpr tq::INPUT_TYPE kGrabberInput = tq::INPUT_TYPE(4);
constexpr tq::INPUT_TYPE kCaptureInput = tq::INPUT_TYPE(3);
constexpr int kGrabberBuffers = 2;
constexpr tq::IMU_FREQ kImuFrequency = tq::IMU_FREQ(2);
constexpr tq::STREAMING_MODE kStreamingMode = tq::STREAMING_MODE(0);

/// Packed YUYV: two 8-bit channels, 2 bytes per pixel.
constexpr tq::MAT_TYPE kYuyv = tq::MAT_TYPE(5);
constexpr std::size_t kYuyvBytesPerPixel = 2;
constexpr tq::MEM kHostMemory = tq::MEM(1);
constexpr tq::MEM kAllMemory = tq::MEM(3);

/// The two models that can be one eye of a virtual camera, and the "no model yet" sentinel.
constexpr tq::MODEL kSoloGs = tq::MODEL(30);
constexpr tq::MODEL kSoloUhd = tq::MODEL(31);
constexpr tq::MODEL kNoModel = tq::MODEL(32);

/// Where an image object keeps its capture time; the SDK has no accessor for it.
constexpr std::size_t kMatTimestampOffset = 120;
static_assert(kMatTimestampOffset + sizeof(tq::Timestamp) == sizeof(tq::Mat),
              "the capture time is an image object's last field");

/// Capture time carried by an image, nanoseconds.
inline tq::Timestamp captureTime(const tq::Mat& image)
{
    tq::Timestamp time = 0;
    std::memcpy(&time, reinterpret_cast<const unsigned char*>(&image) + kMatTimestampOffset,
                sizeof time);
    return time;
}

/// Makes an image carry a capture time, nanoseconds.
inline void setCaptureTime(tq::Mat& image, tq::Timestamp time)
{
    std::memcpy(reinterpret_cast<unsigned char*>(&image) + kMatTimestampOffset, &time, sizeof time);
}

/// Size of an image, pixels. Where an SDK's header spells these two otherwise, this is the only
/// place that must know.
inline std::size_t widthOf(const tq::Mat& image)
{
    return image.getWidth();
}
inline std::size_t heightOf(const tq::Mat& image)
{
    return image.getHeight();
}

/// Registers the records that travel through queued signals. Idempotent; any thread.
void registerMetaTypes();

}  // namespace sdk
