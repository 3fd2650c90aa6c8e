// SPDX-License-Identifier: Apache-2.0
// Turns two mono cameras into one virtual stereo camera and streams it.
#pragma once

#include <QSemaphore>
#include <QThread>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <vector>

#include "capture/VirtualCameraInfos.h"
#include "capture/pairing.h"
#include "capture/sdk.h"

/// Images of a stream that were given up for newer ones.
struct DroppedImages {
    std::uint64_t left = 0;
    std::uint64_t right = 0;
};

/// Pairs left and right frames by capture time, joins them side by side and gives them to the
/// SDK's network sender on a thread of its own.
class VirtualCameraStreamer : public QThread {
    Q_OBJECT

public:
    VirtualCameraStreamer();
    ~VirtualCameraStreamer() override;

    /// Opens the sender and starts the thread. On an open streamer the sender is replaced, once a
    /// frame that is being sent has been sent, and the thread goes on.
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

    /// What was dropped unsent since the thread was started. Any thread.
    DroppedImages droppedImages();

    /// How many images of both sides have been queued since the streamer was made. Any thread.
    std::uint64_t receivedImages();

    /// How much later the right camera takes its images than the left one, µs, once there has been
    /// no pair for two seconds although both deliver; 0 otherwise. Any thread.
    std::int64_t apartUs() const { return apart; }

    void run() override;

signals:
    /// The thread's loop has ended: virtual serial number, as configured last, and false.
    void StreamUpdated(int serial, bool streaming);

public slots:
    /// Queues a deep copy of a left image and forwards its IMU packets. Any thread; never waits
    /// for a frame that is being sent.
    /// @param serial physical serial number
    /// @param image  packed YUYV
    /// @param imu    the camera's latest IMU packet
    /// @param imus   packets since the frame before
    void ingestLeftImage(int serial, tq::Mat image, tq::IMUPacket imu,
                         std::vector<tq::IMUPacket> imus);

    /// Queues a deep copy of a right image; its IMU packets are ignored. Any thread, like the left
    /// one.
    void ingestRightImage(int serial, tq::Mat image, tq::IMUPacket imu,
                          std::vector<tq::IMUPacket> imus);

protected:
    /// Logs what was dropped, if that has changed, at most every ten seconds.
    void reportDrops(std::chrono::steady_clock::time_point now);

    /// The reports of pairs begin anew: whatever was before does not count.
    void beginReport(std::chrono::steady_clock::time_point now);

    /// Logs once why there has been no pair for two seconds, and once that there are pairs again.
    void reportPairs(std::chrono::steady_clock::time_point now);

private:
    /// The images of one side, oldest first, numbered as they came. An image waits until a match
    /// consumes it or the streamer closes; of more than 512 MB the oldest go.
    struct Eye {
        std::mutex mutex;  // held for every access to the rest
        std::deque<std::unique_ptr<tq::Mat>> images;
        std::uint64_t first = 0;  // number of the oldest
        std::size_t bytes = 0;
        std::uint64_t dropped = 0;
        std::uint64_t camera = 0;  // physical serial number

        std::uint64_t end();
        std::uint64_t serial();
        const tq::Mat* at(std::uint64_t number) const;  // with the mutex held
        std::optional<std::int64_t> timeUs(std::uint64_t number);
        std::vector<std::int64_t> timesUs(std::uint64_t endNumber);
        void append(const tq::Mat& image);
        void consume(std::uint64_t number);
        void clear();
        void dropOldest();  // with the mutex held
        void popOldest();   // with the mutex held
    };
    /// Numbers of images.
    struct Pair {
        std::uint64_t left;
        std::uint64_t right;
    };
    /// Numbers behind the newest images: of those that are searched, and of those that were there
    /// at the last look.
    struct Search {
        std::uint64_t leftEnd;
        std::uint64_t rightEnd;
        std::uint64_t knownLeft;
        std::uint64_t knownRight;
    };

    void stopThread();
    void configure(const VirtualCameraInfos& infos);
    std::optional<Pair> findPair();
    bool searchPair(std::optional<Pair>& found);
    bool isOvertaken(Search& search);
    bool joinPair(const Pair& pair, tq::Mat& out, tq::Timestamp& ts);
    void fitFrame(tq::Mat& frame) const;
    bool isFitting(const tq::Mat& frame) const;
    void warnAboutSize(const tq::Mat& left, const tq::Mat& right);
    void sendPair(tq::Mat& frame);
    void logDrops();
    void report(std::chrono::steady_clock::time_point now);
    void logPairs(PairReport::News news, std::int64_t offsetUs);
    int serialNumber();

    std::atomic<bool> running{false};
    // Shared while the sender is used, exclusive while it is replaced. Taken before the eyes' own.
    std::shared_mutex senderMutex;
    std::unique_ptr<tq::UDPOutput> udp;
    // Written with this mutex and both eyes' held, so that any one of them is enough to read.
    tq::UDPOutConfig config{};
    int sbsWidth = 0;         // of one eye
    int sbsHeight = 0;        // of one eye
    bool sizeWarned = false;  // guarded by both eyes' mutexes
    tq::IMUPacket lastIMU{};  // guarded by the left eye's mutex
    Eye leftEye;              // where both eyes' mutexes are needed, this one's is taken first
    Eye rightEye;
    QSemaphore arrivals;  // images that came since the last look
    std::uint64_t reportedDrops = 0;
    std::chrono::steady_clock::time_point nextReport{};
    std::uint64_t pairs = 0;  // since the streamer was made
    PairReport pairReport;
    std::atomic<std::int64_t> apart{0};  // µs, as logged
};
