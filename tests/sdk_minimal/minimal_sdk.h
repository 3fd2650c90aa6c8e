// SPDX-License-Identifier: Apache-2.0
// The camera SDK as far as the program may use it, and nothing else: what is missing here must not
// be relied on, since an installed SDK may not have it. Only compiled against, never linked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

namespace tq {
class Mat;
}
namespace sdk {
std::size_t widthOf(const tq::Mat& image);
std::size_t heightOf(const tq::Mat& image);
}  // namespace sdk

namespace tq {

using Timestamp = std::uint64_t;

enum class MODEL : std::int32_t {};
enum class MAT_TYPE : std::int32_t {};
enum class MEM : std::int32_t {};
enum class INPUT_TYPE : std::int32_t {};
enum class IMU_FREQ : std::int32_t {};
enum class STREAMING_MODE : std::int32_t {};

class String {
public:
    ~String();
    const char* c_str() const;
};
String toString(const MODEL& model);

struct Resolution {
    Resolution(std::uint64_t width, std::uint64_t height);
    std::uint64_t width;
    std::uint64_t height;
};

struct IMUPacket {
    unsigned char bytes[360];
};

struct DeviceProperties {
    unsigned char before[4];
    std::int32_t id;
    unsigned char between[16];
    MODEL model;
    std::int32_t serialNumber;
    unsigned char behind[112];
};

struct UDPOutConfig {
    std::int32_t layout;
    std::uint16_t port;
    std::int32_t bitrate;
    std::int32_t at12;
    std::int32_t keyFrameInterval;
    std::uint16_t at20;
    std::uint16_t chunkSize;
    std::int32_t width;
    std::int32_t height;
    std::int32_t at32[2];
    std::int32_t fps;
    std::int32_t serialNumber;
    std::int32_t deviceVersion;
    std::int32_t imuRate;
    std::int32_t modelCode;
    std::int32_t at60[8];
    std::int32_t eyes;
};

class Mat {
public:
    Mat();
    Mat(const Mat& other);
    Mat& operator=(const Mat& other) = delete;
    ~Mat();
    void alloc(unsigned long width, unsigned long height, MAT_TYPE type, MEM memory);
    void free(MEM memory);
    void clone(const Mat& other);
    template <typename T>
    T* getPtr(MEM memory) const = delete;
    std::size_t getStepBytes(MEM memory) const;

private:
    // An SDK may spell these otherwise; only two functions of capture/sdk.h know them.
    friend std::size_t sdk::widthOf(const Mat& image);
    friend std::size_t sdk::heightOf(const Mat& image);
    std::size_t getWidth() const;
    std::size_t getHeight() const;

    alignas(8) unsigned char bytes[128];
};
template <>
unsigned char* Mat::getPtr<unsigned char>(MEM memory) const;

class KORmcu {
public:
    std::list<IMUPacket> getIMUPacketBatch(unsigned long from, unsigned long to);
};

class LiveCameraGrabber {
public:
    explicit LiveCameraGrabber(INPUT_TYPE type);
    ~LiveCameraGrabber();
    LiveCameraGrabber(const LiveCameraGrabber&) = delete;
    LiveCameraGrabber& operator=(const LiveCameraGrabber&) = delete;
    void setMonoCapture(bool on);
    void setInputType(INPUT_TYPE type);
    int setUp(int& id, int width, int height, int fps, int buffers, bool, IMU_FREQ imu, bool,
              bool hdr);
    int getEffectiveWidth();
    int getEffectiveHeight();
    int getFPS();
    int getSerialNumber();
    MODEL getCameraModel();
    bool hasMCU();
    int getFrameStatus();
    unsigned char* getPixels();
    Timestamp getTimeStamp();
    IMUPacket& getIMUPacket();
    KORmcu* getMCU();
    void close(bool force);
};

namespace kvfrw {

struct kvfSampleMetadata {
    unsigned char bytes[256];
};
void convertMetadataFromMCUData(kvfSampleMetadata& metadata, IMUPacket packet);

}  // namespace kvfrw

class UDPOutput {
public:
    UDPOutput(STREAMING_MODE mode, bool verbose);
    ~UDPOutput();
    UDPOutput(const UDPOutput&) = delete;
    UDPOutput& operator=(const UDPOutput&) = delete;
    int open(UDPOutConfig config);
    void ingestYUVFrame(unsigned char* yuyv, Timestamp timestamp,
                        kvfrw::kvfSampleMetadata metadata);
    void ingestIMU(IMUPacket packet);
    void close();
};

}  // namespace tq

class ArgusCamera {
public:
    static std::vector<tq::DeviceProperties> getGMSLDevices(bool, bool);
    static void deleteProviderInstance();
};
