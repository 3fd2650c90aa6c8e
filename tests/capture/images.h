// SPDX-License-Identifier: Apache-2.0
// Images and streamers for the tests of the streamer.
#pragma once

#include <QByteArray>
#include <cstdint>
#include <cstring>
#include <vector>

#include "capture/Streamer.h"

namespace images {

constexpr tq::MEM kHost = tq::MEM(1);
constexpr tq::Timestamp kMillisecond = 1'000'000;

/// Gives an image a capture time, which lies at byte 120.
inline void setTimestamp(tq::Mat& image, tq::Timestamp timestamp)
{
    std::memcpy(reinterpret_cast<char*>(&image) + 120, &timestamp, sizeof timestamp);
}

/// An image whose bytes are all @p value.
inline tq::Mat filled(int width, int height, tq::Timestamp timestamp, int value)
{
    tq::Mat image;
    image.alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height),
                tq::MAT_TYPE(5), kHost);
    std::memset(image.getPtr<unsigned char>(kHost), value,
                image.getStepBytes(kHost) * static_cast<std::size_t>(height));
    setTimestamp(image, timestamp);
    return image;
}

/// An image whose first four bytes are @p number; at least 2 × 1 pixels.
inline tq::Mat numbered(int width, int height, tq::Timestamp timestamp, std::uint32_t number)
{
    tq::Mat image = filled(width, height, timestamp, 0);
    std::memcpy(image.getPtr<unsigned char>(kHost), &number, sizeof number);
    return image;
}

/// Buffer for a joined frame of two eyes.
inline tq::Mat joined(int eyeWidth, int eyeHeight)
{
    return filled(2 * eyeWidth, eyeHeight, 0, 0xEE);
}

inline VirtualCameraInfos infos(int width, int height, bool imu = true)
{
    VirtualCameraInfos record;
    record.virtualSerialNumber = 101234567;
    record.leftSerialNumber = 30123456;
    record.rightSerialNumber = 30123457;
    record.imu = imu;
    record.width = width;
    record.height = height;
    record.fps = 30;
    record.port = 30000;
    return record;
}

}  // namespace images

/// A streamer whose thread does nothing, so that the test alone takes frames from the queues.
///
/// Tests make streamers on the heap: the thread sanitizer sees when memory is released, but not
/// that a std::mutex at the same place of the stack is another one than in the test before.
class QuietStreamer : public VirtualCameraStreamer {
public:
    // A thread that starts late must still find this class's run().
    ~QuietStreamer() override { wait(); }

    void run() override {}

    void left(const tq::Mat& image) { ingestLeftImage(30123456, image, {}, {}); }
    void right(const tq::Mat& image) { ingestRightImage(30123457, image, {}, {}); }
    using VirtualCameraStreamer::beginReport;
    using VirtualCameraStreamer::reportDrops;
    using VirtualCameraStreamer::reportPairs;
};

/// Bytes as text, for comparison.
inline QByteArray hex(const void* data, int count)
{
    return QByteArray(static_cast<const char*>(data), count).toHex(' ');
}

/// Sends one left and one right image that belong together.
inline void sendPair(VirtualCameraStreamer& streamer, tq::Timestamp timestamp,
                     const tq::IMUPacket& imu = {}, const std::vector<tq::IMUPacket>& imus = {})
{
    streamer.ingestLeftImage(1, images::filled(2, 1, timestamp, 1), imu, imus);
    streamer.ingestRightImage(2, images::filled(2, 1, timestamp, 2), {}, {});
}
