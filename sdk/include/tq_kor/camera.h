// SPDX-License-Identifier: Apache-2.0
// Camera enumeration, capture and the camera's micro-controller.
#pragma once

#include <list>
#include <memory>
#include <vector>

#include "tq_kor/types.h"

namespace tq {

/// The micro-controller of an opened camera: a bounded history of its IMU packets.
/// Thread safe. Lives as long as the grabber that handed it out stays open.
class TQ_KOR_API KORmcu {
public:
    /// Packets with from < timestamp <= to, oldest first, so that batches taken with the end of
    /// one as the start of the next hold every packet exactly once. @p from = 0 returns at most
    /// the history that is kept.
    /// @param from,to nanoseconds of the real-time clock
    std::list<IMUPacket> getIMUPacketBatch(unsigned long from, unsigned long to);

    ~KORmcu();
    KORmcu(const KORmcu&) = delete;
    KORmcu& operator=(const KORmcu&) = delete;

private:
    friend class LiveCameraGrabber;
    struct TQ_KOR_PRIVATE Private;
    explicit KORmcu(std::unique_ptr<Private> implementation);

    std::unique_ptr<Private> d;
};

/// Captures one camera.
///
/// setUp(), close() and the frame functions belong to one thread at a time, but that close() may
/// come while another thread waits in getFrameStatus(). The functions that describe the camera
/// (size, rate, serial, model, hasMCU) may be called from any thread.
class TQ_KOR_API LiveCameraGrabber {
public:
    explicit LiveCameraGrabber(INPUT_TYPE type);
    ~LiveCameraGrabber();
    LiveCameraGrabber(const LiveCameraGrabber&) = delete;
    LiveCameraGrabber& operator=(const LiveCameraGrabber&) = delete;

    /// Captures a single camera rather than a stereo pair.
    void setMonoCapture(bool on);
    void setInputType(INPUT_TYPE type);

    /// Opens a camera and starts its capture.
    /// @param id            number of the camera as enumerated; may be rewritten
    /// @param width,height  wanted size, pixels; see getEffectiveWidth()
    /// @param fps           wanted frames per second
    /// @param bufferCount   frames between producer and reader
    /// @param flip          must be false: this implementation does not turn pictures
    /// @param imuFrequency  sampling of the inertial unit
    /// @param verbose       log each state change
    /// @param hdr           use the sensor's high-dynamic-range mode
    /// @return 0, else the number of an ErrorCode
    int setUp(int& id, int width, int height, int fps, int bufferCount, bool flip,
              IMU_FREQ imuFrequency, bool verbose, bool hdr);

    int getEffectiveWidth() const;   ///< pixels, 0 while closed
    int getEffectiveHeight() const;  ///< pixels, 0 while closed
    int getFPS() const;              ///< frames per second, 0 while closed
    int getSerialNumber() const;     ///< 0 while closed
    MODEL getCameraModel() const;    ///< MODEL::LAST while closed
    bool hasMCU() const;             ///< whether the camera has an inertial unit

    /// Waits up to 20 ms for a new frame of an opened camera.
    /// @return 1 once for every new frame, which then is the current one, the newest; 0 when there
    ///         is none, also while a camera that failed is opened anew
    int getFrameStatus();

    /// Pixels of the current frame: packed YUYV, width × height × 2 bytes. They stay untouched
    /// until the next getFrameStatus() that returns 1. Null before the first frame.
    unsigned char* getPixels();

    /// Capture time of the current frame.
    Timestamp getTimeStamp();

    /// Latest IMU packet at the time of the current frame; all zero without an inertial unit.
    IMUPacket& getIMUPacket();

    /// The camera's micro-controller, or null when it has none or is closed.
    KORmcu* getMCU();

    /// Stops the capture and releases the camera.
    /// @param force do not wait for the frame in flight
    void close(bool force);

private:
    struct TQ_KOR_PRIVATE Private;
    std::unique_ptr<Private> d;
};

}  // namespace tq

/// Enumerates the GMSL cameras.
class TQ_KOR_API ArgusCamera {
public:
    /// The cameras of the rig, in rig order.
    /// @param refresh look again rather than return the list of the last call
    /// @param verbose log each camera
    static std::vector<tq::DeviceProperties> getGMSLDevices(bool refresh, bool verbose);

    /// Releases what the enumeration holds; the next enumeration starts afresh.
    static void deleteProviderInstance();
};
