// SPDX-License-Identifier: Apache-2.0
// Turns two mono cameras into one virtual stereo camera and streams it.
#pragma once

#include <QThread>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "capture/ImageQueue.h"
#include "capture/VirtualCameraInfos.h"
#include "capture/sdk.h"

/// Pairs left and right frames by capture time, joins them side by side and gives them to the
/// SDK's network sender on a thread of its own.
class VirtualCameraStreamer : public QThread {
    Q_OBJECT

public:
    VirtualCameraStreamer();
    ~VirtualCameraStreamer() override;

    /// Opens the sender and starts the thread. On an open streamer the sender is replaced and the
    /// thread goes on.
    /// @return 0, or -1 when the sender cannot be opened; the streamer is closed then
    int open(VirtualCameraInfos infos);

    /// Stops the thread (waits 2000 ms, then terminates it) and releases the sender.
    void close();

    /// Deletes every queued image.
    void clearImageQueues();

    /// Builds one side-by-side frame from the newest left image that has a partner within
    /// 5000 µs, and consumes both queues up to that pair. Called by the streamer's own thread.
    /// @param out packed YUYV, (2 × eye width) × eye height; given this size if it has another
    /// @param ts  capture time of the left image, ns
    /// @return 0, or 1 when no pair is available
    int createSBS(tq::Mat& out, tq::Timestamp& ts);

    void run() override;

signals:
    /// The thread's loop has ended: virtual serial number, as configured last, and false.
    void StreamUpdated(int serial, bool streaming);

public slots:
    /// Queues a deep copy of a left image and forwards its IMU packets. Any thread. Where a pair
    /// waits already, the thread that sends is first given up to 100 ms to take it, and up to one
    /// twentieth of the time in the long run.
    /// @param serial physical serial number
    /// @param image  packed YUYV
    /// @param imu    the camera's latest IMU packet
    /// @param imus   packets since the frame before
    void ingestLeftImage(int serial, tq::Mat image, tq::IMUPacket imu,
                         std::vector<tq::IMUPacket> imus);

    /// Queues a deep copy of a right image; its IMU packets are ignored. Any thread. Waits like
    /// the left one.
    void ingestRightImage(int serial, tq::Mat image, tq::IMUPacket imu,
                          std::vector<tq::IMUPacket> imus);

private:
    struct Pair {
        std::size_t left;
        std::size_t right;
    };

    void stopThread();
    void awaitHandOver();
    bool pairWaits();
    void processQueues(tq::Mat& frame);
    bool fitFrame(tq::Mat& frame) const;
    bool findPair(Pair& pair);
    bool joinPair(const Pair& pair, tq::Mat& out, tq::Timestamp& ts);
    void consume(const Pair& pair);
    void enqueue(const tq::Mat& image, ImageQueue& queue, std::mutex& mutex);
    void announceHandOver();
    void recycle(ImageQueue& queue, std::mutex& mutex, std::size_t count);
    void warnAboutSize(const tq::Mat& left, const tq::Mat& right);

    std::atomic<bool> running{false};
    // Set last by the thread and cleared when it has been waited for: shows the thread sanitizer,
    // which does not see into Qt, that all the thread did comes before what follows the wait.
    std::atomic<bool> ended{false};
    std::unique_ptr<tq::UDPOutput> udp;
    tq::UDPOutConfig config{};
    tq::IMUPacket lastIMU{};
    int sbsWidth = 0;   // of one eye
    int sbsHeight = 0;  // of one eye
    ImageQueue leftImages;
    ImageQueue rightImages;
    std::mutex leftMutex;
    std::mutex rightMutex;

    // Guards sender, configuration and eye size: shared while they are used, exclusive while they
    // are replaced. Taken before every other mutex.
    mutable std::shared_mutex senderMutex;
    std::mutex imuMutex;  // guards lastIMU
    std::mutex spareMutex;
    std::vector<std::unique_ptr<tq::Mat>> spareImages;  // consumed images, for the next to arrive
    std::atomic<bool> searchInterrupted{false};         // ends a long search for a pair

    // Of two pairs that wait only the newer is sent, so the next image lets the streamer's thread
    // take a pair first, as long as there is time left to spend on that.
    std::mutex handOverMutex;
    std::condition_variable handedOver;
    std::chrono::steady_clock::duration patience{};
    std::chrono::steady_clock::time_point patienceCounted{};
    bool sizeWarned = false;
};
