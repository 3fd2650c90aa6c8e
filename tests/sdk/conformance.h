// SPDX-License-Identifier: Apache-2.0
// Cameras and senders as the program uses them, for the conformance suite.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QSet>
#include <QThread>
#include <cstring>
#include <ctime>
#include <vector>

#include "capture/sdk.h"
#include "tests/support/senderconfig.h"

constexpr int kRate = 30;
constexpr int kFrameLimit = 5000;  // ms

/// One enumerated camera, as far as the program reads the record.
struct Device {
    int state;
    int id;
    tq::MODEL model;
    int serial;
};

template <typename T>
T fieldAt(const tq::DeviceProperties& record, std::size_t offset)
{
    T value;
    std::memcpy(&value, reinterpret_cast<const char*>(&record) + offset, sizeof value);
    return value;
}

inline std::vector<Device> monoCameras()
{
    std::vector<Device> found;
    for (const tq::DeviceProperties& record : ArgusCamera::getGMSLDevices(true, false)) {
        const Device device{fieldAt<int>(record, 0), fieldAt<int>(record, 4),
                            fieldAt<tq::MODEL>(record, 24), fieldAt<int>(record, 28)};
        if (device.model == sdk::kSoloGs || device.model == sdk::kSoloUhd) {
            found.push_back(device);
        }
    }
    return found;
}

inline tq::Timestamp realTime()
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<tq::Timestamp>(time.tv_sec) * 1000000000u +
           static_cast<tq::Timestamp>(time.tv_nsec);
}

inline int defaultHeight(tq::MODEL model)
{
    return model == sdk::kSoloUhd ? 1080 : 1200;
}

/// A grabber that is set up as the program does.
struct Camera {
    Camera() : grabber(sdk::kGrabberInput)
    {
        grabber.setMonoCapture(true);
        grabber.setInputType(sdk::kCaptureInput);
    }

    int open(int wanted, int width, int height, int fps = kRate)
    {
        id = wanted;
        return grabber.setUp(id, width, height, fps, sdk::kGrabberBuffers, false,
                             sdk::kImuFrequency, false, false);
    }

    int open(const Device& device) { return open(device.id, 1920, defaultHeight(device.model)); }

    bool waitForFrame(int limit = kFrameLimit)
    {
        QElapsedTimer timer;
        timer.start();
        while (grabber.getFrameStatus() != 1) {
            if (timer.hasExpired(limit)) {
                return false;
            }
            QThread::usleep(100);
        }
        return true;
    }

    QByteArray pixels()
    {
        return {reinterpret_cast<const char*>(grabber.getPixels()),
                grabber.getEffectiveWidth() * grabber.getEffectiveHeight() * 2};
    }

    tq::LiveCameraGrabber grabber;
    int id = 0;
};

constexpr int kSenderWidth = 320;  // of one eye
constexpr int kSenderHeight = 240;

/// Whether a socket can be bound to a port.
inline bool isFree(int type, int port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return bound;
}

/// A port that is free for whatever transport the sender has, below those that the system gives to
/// whoever asks for any; another one every time.
inline int freePort()
{
    static QSet<int> given;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const int port = QRandomGenerator::system()->bounded(20000, 30000) & ~1;
        if (!given.contains(port) && isFree(SOCK_STREAM, port) && isFree(SOCK_DGRAM, port)) {
            given << port;
            return port;
        }
    }
    return 0;
}

/// The sender's configuration as the program fills it.
inline tq::UDPOutConfig senderConfig(int port, int imuRate = 2000)
{
    return programsSenderConfig(port, kSenderWidth, kSenderHeight, 101234567, kRate, imuRate);
}

/// Gives a sender some frames at the pace of a camera, each with an IMU packet before it.
inline void ingest(tq::UDPOutput& sender, int frames)
{
    std::vector<unsigned char> pixels(std::size_t{2} * kSenderWidth * kSenderHeight * 2, 128);
    tq::kvfrw::kvfSampleMetadata metadata;
    std::memset(&metadata, 0, sizeof metadata);
    tq::IMUPacket packet;
    std::memset(&packet, 0, sizeof packet);
    for (int n = 0; n < frames; ++n) {
        std::fill(pixels.begin(), pixels.begin() + 1000, static_cast<unsigned char>(n));
        sender.ingestIMU(packet);
        sender.ingestYUVFrame(pixels.data(), realTime(), metadata);
        QThread::msleep(1000 / kRate);
    }
}
