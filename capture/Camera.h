// SPDX-License-Identifier: Apache-2.0
// Capture worker of one physical camera, and the catalogue of capture resolutions.
#pragma once

#include <QString>
#include <QThread>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "capture/framepool.h"
#include "capture/sdk.h"

/// One opened physical camera.
struct CameraInfos {
    int id = 0;                       ///< number given by the SDK
    std::int64_t serial_number = 0;   ///< physical serial number
    tq::MODEL model = sdk::kNoModel;  ///< camera model
    int width = 0;                    ///< effective image width, pixels
    int height = 0;                   ///< effective image height, pixels
    int fps = 0;                      ///< frames per second
    bool hasMCU = false;              ///< has a micro-controller, that is, IMU data
    bool hdr = false;                 ///< opened in HDR mode
};

/// One capture resolution that a camera model offers.
struct CameraResolutionDefinition {
    std::uint64_t width = 0;   ///< pixels
    std::uint64_t height = 0;  ///< pixels
    bool hdr = false;          ///< the camera's second mode at this size
};

/// Captures one camera on a thread of its own and emits every frame with its IMU packets.
///
/// getWith() and graceFullyExit() are spelt as they always were. Deliberate: callers know them so.
///
/// All functions belong to the thread that owns the object; only run() executes on the capture
/// thread. A buffer is written again only after the owner's event loop has delivered the signal
/// that carried it, so that a receiver living on the owner's thread never sees a torn frame,
/// however late it is. Where that thread has no event dispatcher each frame has a buffer of its
/// own.
class KTCamera : public QThread {
    Q_OBJECT

public:
    KTCamera();
    ~KTCamera() override;

    /// Opens the camera and starts its thread.
    /// @param id  camera number as enumerated
    /// @param res wanted image size, pixels
    /// @param fps wanted frames per second
    /// @param hdr use the sensor's high-dynamic-range mode
    /// @return 0; -1 when already running; else the SDK's error code, and the thread is not started
    int open(int id, tq::Resolution res, int fps, bool hdr);

    /// Same as graceFullyExit().
    void close();

    /// Stops the thread (waits 2000 ms, then terminates it) and closes the camera. On a worker
    /// that is not running nothing is closed.
    void graceFullyExit();

    std::int64_t getSN() const;  ///< physical serial number
    int getWith() const;         ///< effective image width, pixels
    int getHeight() const;       ///< effective image height, pixels

    /// Description of the opened camera; model and micro-controller are asked of the SDK.
    CameraInfos getInfos() const;

    /// Resolutions that a model offers, in the order in which they are listed to the operator.
    static std::vector<CameraResolutionDefinition> getAvailableResolutions(const tq::MODEL& model);

    /// The same for a physical serial number, whose first two digits name the model.
    static std::vector<CameraResolutionDefinition> getAvailableResolutions(const QString& text);

signals:
    /// One captured frame. Emitted on the capture thread.
    /// @param serial physical serial number
    /// @param image  shallow copy of the worker's frame buffer, capture time included: packed YUYV
    /// @param imu    the camera's latest IMU packet
    /// @param imus   packets since the frame before, preceded by as many empty ones
    void sendYUYVImage(int serial, tq::Mat image, tq::IMUPacket imu,
                       std::vector<tq::IMUPacket> imus);

protected:
    void run() override;

private:
    void captureFrame(const std::shared_ptr<FramePool>& pool, tq::KORmcu* mcu);
    void fetchImu(tq::KORmcu* mcu);
    void reportLostFrames();

    std::atomic<bool> running{false};
    std::shared_ptr<tq::LiveCameraGrabber> grabber;
    tq::Mat unusedImage;  // no operation uses it; kept in the record
    int id = 0;
    int width = 0;
    int height = 0;
    std::int64_t serialNumber = 0;
    int fps = 0;
    bool hdr = false;
    tq::Timestamp lastTimestamp = 0;
    std::vector<tq::IMUPacket> pendingImu;
    tq::Timestamp lastBatchEnd = 0;
    unsigned long lostFrames = 0;  // since the last one that was emitted
};
