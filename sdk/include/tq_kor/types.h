// SPDX-License-Identifier: Apache-2.0
// Value types and records shared by every part of the camera SDK.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "tq_kor/export.h"

namespace tq {

/// Capture time in nanoseconds of the system's real-time clock (CLOCK_REALTIME).
using Timestamp = std::uint64_t;

/// A short text returned by value across the library boundary.
class String {
public:
    String() = default;
    explicit String(std::string content) : text(std::move(content)) {}

    /// Zero-terminated text; valid while this object lives.
    const char* c_str() const noexcept { return text.c_str(); }

private:
    std::string text;
};

/// Image size in pixels.
struct Resolution {
    std::uint64_t width = 0;
    std::uint64_t height = 0;

    Resolution() = default;
    Resolution(std::uint64_t widthPixels, std::uint64_t heightPixels)
        : width(widthPixels), height(heightPixels)
    {
    }
};

/// Camera model, as burned into the camera.
enum class MODEL : std::int32_t {
    KOR_T = 4,           ///< stereo camera, not usable as one eye of a virtual camera
    KOR_T_MINI = 5,      ///< stereo camera, not usable as one eye of a virtual camera
    KOR_TSOLO_GS = 30,   ///< mono camera with a global shutter
    KOR_TSOLO_UHD = 31,  ///< mono camera with a 4K sensor
    LAST = 32,           ///< one past the last model; also "no model"
};

/// Display name of a camera model, "N/A" for an unknown one.
TQ_KOR_API String toString(const MODEL& model);

/// Pixel layout of an image buffer.
enum class MAT_TYPE : std::int32_t {
    U8_C1 = 4,  ///< one 8-bit channel
    U8_C2 = 5,  ///< two 8-bit channels: packed YUYV, 2 bytes per pixel
    U8_C3 = 6,  ///< three 8-bit channels
    U8_C4 = 7,  ///< four 8-bit channels: RGBA
};

/// Bytes per pixel of a layout; 0 for a value that is none of the enumerators.
TQ_KOR_API std::size_t bytesPerPixel(MAT_TYPE type) noexcept;

/// Where an image buffer lives. The values are bits.
enum class MEM : std::int32_t {
    HOST = 1,    ///< processor memory
    DEVICE = 2,  ///< graphics memory; not provided by this implementation
    ALL = 3,     ///< both
};

/// What a grabber is connected to.
enum class INPUT_TYPE : std::int32_t {
    FILE = 1,      ///< a recording made by the maker's tools
    GMSL = 3,      ///< a camera on a GMSL link
    GMSL_RAW = 4,  ///< a camera on a GMSL link, unrectified images
};

/// Rate at which the camera's micro-controller samples its inertial sensors.
enum class IMU_FREQ : std::int32_t {
    OFF = 0,
    LOW = 1,
    HIGH = 2,
};

/// How the network sender works.
enum class STREAMING_MODE : std::int32_t {
    LIVE = 0,  ///< newest frame first, waiting frames are dropped
};

/// Result of the fallible SDK operations. Zero is success; the values are stable.
enum class ErrorCode : std::int32_t {
    SUCCESS = 0,
    CAMERA_NOT_FOUND = 1,        ///< no camera of the rig has this id
    CAMERA_BUSY = 2,             ///< another process (or grabber) holds the camera
    CAMERA_LOCK_FAILED = 3,      ///< the lock file could not be created
    INVALID_RESOLUTION = 4,      ///< size or frame rate is not positive, or too large
    SOURCE_UNAVAILABLE = 5,      ///< device, pipeline or recording cannot be opened
    SOURCE_INVALID = 6,          ///< device, pipeline or recording delivers no usable video
    INVALID_RIG = 7,             ///< the rig description is not usable
    ALREADY_OPEN = 8,            ///< the grabber or sender is open
    INVALID_CONFIGURATION = 20,  ///< the sender's configuration makes no sense
    PORT_TAKEN = 21,             ///< the sender's port is used by someone else
    NO_ENCODER = 22,             ///< no video encoder works on this machine
    SERVER_FAILED = 23,          ///< the stream server could not be started
};

/// One-line description of a result.
TQ_KOR_API String toString(ErrorCode code);

/// One measurement of a camera's inertial unit.
struct IMUPacket {
    Timestamp timestamp;               ///< 0 marks an empty packet
    std::uint64_t sequence;            ///< counts the camera's packets from 0
    double acceleration[3];            ///< x, y, z in m/s², gravity included
    double angularRate[3];             ///< x, y, z in rad/s
    double magneticField[3];           ///< x, y, z in µT
    double orientation[4];             ///< unit quaternion x, y, z, w
    double temperature;                ///< °C
    double accelerationCovariance[9];  ///< row-major, (m/s²)²
    double angularRateCovariance[9];   ///< row-major, (rad/s)²
    double orientationCovariance[9];   ///< row-major, rad²
    double pressure;                   ///< hPa
    std::uint32_t validFields;         ///< bits of IMUField
    std::uint32_t reserved;
};

/// Which fields of an IMUPacket carry a measurement.
enum IMUField : std::uint32_t {
    IMU_ACCELERATION = 1u << 0,
    IMU_ANGULAR_RATE = 1u << 1,
    IMU_MAGNETIC_FIELD = 1u << 2,
    IMU_ORIENTATION = 1u << 3,
    IMU_TEMPERATURE = 1u << 4,
    IMU_PRESSURE = 1u << 5,
};

static_assert(sizeof(IMUPacket) == 360, "IMU packets are 360 bytes");
static_assert(std::is_trivially_copyable<IMUPacket>::value, "IMU packets are copied whole");
static_assert(offsetof(IMUPacket, acceleration) == 16, "packet layout");
static_assert(offsetof(IMUPacket, orientation) == 88, "packet layout");
static_assert(offsetof(IMUPacket, validFields) == 352, "packet layout");

/// Availability of an enumerated camera.
enum class DeviceState : std::int32_t {
    AVAILABLE = 0,
    NOT_AVAILABLE = 1,  ///< held by another process
};

/// One camera found by the enumeration.
struct DeviceProperties {
    DeviceState state;
    std::int32_t id;  ///< the number to open it with
    char bus[16];     ///< where it is attached, zero-terminated
    MODEL model;
    std::int32_t serialNumber;
    char name[112];  ///< display name, zero-terminated
};

static_assert(sizeof(DeviceProperties) == 144, "device records are 144 bytes");
static_assert(offsetof(DeviceProperties, state) == 0, "device record layout");
static_assert(offsetof(DeviceProperties, id) == 4, "device record layout");
static_assert(offsetof(DeviceProperties, model) == 24, "device record layout");
static_assert(offsetof(DeviceProperties, serialNumber) == 28, "device record layout");

/// Configuration of the network sender. Fields left 0 take the sender's default.
struct UDPOutConfig {
    std::int32_t layout;  ///< 1: side by side, left eye first
    std::uint16_t port;   ///< network port
    std::uint16_t reserved6;
    std::int32_t bitrate;  ///< video bit rate, kbit/s
    std::int32_t reserved12;
    std::int32_t keyFrameInterval;  ///< frames between two key frames
    std::uint16_t reserved20;
    std::uint16_t chunkSize;  ///< largest datagram of the maker's own transport, bytes
    std::int32_t width;       ///< width of one eye, pixels
    std::int32_t height;      ///< height of one eye, pixels
    std::int32_t reserved32;
    std::int32_t reserved36;
    std::int32_t fps;            ///< frames per second
    std::int32_t serialNumber;   ///< serial under which the stream is announced
    std::int32_t deviceVersion;  ///< firmware version under which the stream is announced
    std::int32_t imuRate;        ///< IMU packets per second announced, 0: no IMU data
    std::int32_t modelCode;      ///< model under which the stream is announced
    std::int32_t reserved60[8];
    std::int32_t eyes;  ///< 2: stereo
};

static_assert(sizeof(UDPOutConfig) == 96, "sender configurations are 96 bytes");
static_assert(std::is_trivially_copyable<UDPOutConfig>::value, "passed by value");
static_assert(offsetof(UDPOutConfig, layout) == 0, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, port) == 4, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, bitrate) == 8, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, keyFrameInterval) == 16, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, chunkSize) == 22, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, width) == 24, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, height) == 28, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, fps) == 40, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, serialNumber) == 44, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, deviceVersion) == 48, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, imuRate) == 52, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, modelCode) == 56, "sender configuration layout");
static_assert(offsetof(UDPOutConfig, eyes) == 92, "sender configuration layout");

namespace kvfrw {

/// Metadata that travels with one video frame.
struct kvfSampleMetadata {
    Timestamp imuTimestamp;  ///< 0: the frame carries no IMU data
    std::uint64_t imuSequence;
    double acceleration[3];     ///< m/s²
    double angularRate[3];      ///< rad/s
    double magneticField[3];    ///< µT
    double orientation[4];      ///< unit quaternion x, y, z, w
    double temperature;         ///< °C
    double pressure;            ///< hPa
    std::uint32_t validFields;  ///< bits of IMUField
    std::uint32_t reserved140;
    std::uint8_t reserved144[112];
};

static_assert(sizeof(kvfSampleMetadata) == 256, "frame metadata records are 256 bytes");
static_assert(std::is_trivially_copyable<kvfSampleMetadata>::value, "passed by value");

/// Fills a frame's metadata from the camera's latest IMU packet.
/// @param metadata record to fill; its reserved bytes are left as they are
/// @param packet   packet to take the values from
TQ_KOR_API void convertMetadataFromMCUData(kvfSampleMetadata& metadata, IMUPacket packet);

}  // namespace kvfrw
}  // namespace tq
