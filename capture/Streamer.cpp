// SPDX-License-Identifier: Apache-2.0
// Turns two mono cameras into one virtual stereo camera and streams it.
#include "capture/Streamer.h"

#include <QDebug>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <thread>

#include "capture/sidebyside.h"

namespace {

constexpr unsigned long kLoopIntervalUs = 100;
constexpr unsigned long kStopTimeoutMs = 2000;
constexpr std::chrono::microseconds kSearchPause{10};
constexpr std::uint64_t kNsPerUs = 1000;
constexpr std::int64_t kMaxPairDistanceUs = 5000;
constexpr std::size_t kMaxSpareImages = 8;
constexpr int kNoPair = 1;

// How long images may wait for the streamer's thread: enough for a machine that was halted for some
// frames, and too little to hold up the receiving thread when the sender is slow for good.
constexpr std::chrono::milliseconds kMaxPatience{100};
constexpr int kPatienceShare = 20;         // grows by one part in so many of the time that passes
constexpr std::size_t kLookedThrough = 8;  // newest images of each eye

// Each time is cut to whole microseconds by itself before two are compared, so that 5000.999 µs may
// still pair and 5000.001 µs may not. Deliberate: it is how pairs have always been chosen.
std::int64_t captureTimeUs(const tq::Mat& image)
{
    return static_cast<std::int64_t>(sdk::captureTime(image) / kNsPerUs);
}

bool isPair(std::int64_t leftTimeUs, std::int64_t rightTimeUs)
{
    const std::int64_t distance = rightTimeUs - leftTimeUs;
    return distance <= kMaxPairDistanceUs && distance >= -kMaxPairDistanceUs;
}

/// Fills the sender's configuration; the constants are the SDK's own.
tq::UDPOutConfig senderConfig(const VirtualCameraInfos& infos)
{
    tq::UDPOutConfig config{};
    config.layout = 1;
    config.port = static_cast<std::uint16_t>(infos.port);
    config.bitrate = 20000;
    config.keyFrameInterval = 120;
    config.chunkSize = 16000;
    config.width = infos.width;
    config.height = infos.height;
    config.fps = infos.fps;
    config.serialNumber = static_cast<std::int32_t>(infos.virtualSerialNumber);
    config.deviceVersion = 1523;
    config.imuRate = infos.imu ? 2000 : 0;
    config.modelCode = 11;
    config.eyes = 2;
    return config;
}

}  // namespace

VirtualCameraStreamer::VirtualCameraStreamer()
{
    sdk::registerMetaTypes();
}

VirtualCameraStreamer::~VirtualCameraStreamer()
{
    close();
}

int VirtualCameraStreamer::open(VirtualCameraInfos infos)
{
    int result = 0;
    // A running thread may search long queues for minutes; it must let go of the sender first.
    searchInterrupted = true;
    {
        const std::unique_lock<std::shared_mutex> lock(senderMutex);
        // The sender that is replaced is not closed but destroyed at once. Deliberate: its
        // destruction ends the stream.
        udp.reset();
        udp = std::make_unique<tq::UDPOutput>(sdk::kStreamingMode, true);
        config = senderConfig(infos);
        sbsWidth = infos.width;
        sbsHeight = infos.height;
        sizeWarned = false;
        result = udp->open(config);
        if (result != 0) {
            udp.reset();
        }
    }
    if (result != 0) {
        stopThread();
        std::cout << "Streaming Error " << result << std::endl;
        return -1;
    }
    searchInterrupted = false;
    running = true;
    qDebug() << "[VirtualCameraStreamer] Creating Streamer for " << infos.width << "x"
             << infos.height << "@" << infos.fps;
    start();
    return 0;
}

void VirtualCameraStreamer::close()
{
    stopThread();
    const std::unique_lock<std::shared_mutex> lock(senderMutex);
    if (udp) {
        udp->close();
    }
    clearImageQueues();
    {
        const std::lock_guard<std::mutex> spareLock(spareMutex);
        spareImages.clear();
    }
    udp.reset();
    running = false;
}

void VirtualCameraStreamer::stopThread()
{
    if (!running) {
        return;
    }
    searchInterrupted = true;
    running = false;
    announceHandOver();
    if (!wait(kStopTimeoutMs)) {
        terminate();
        wait();
    }
    ended.exchange(false);
}

void VirtualCameraStreamer::clearImageQueues()
{
    {
        const std::lock_guard<std::mutex> lock(leftMutex);
        leftImages.clear();
    }
    {
        const std::lock_guard<std::mutex> lock(rightMutex);
        rightImages.clear();
    }
    announceHandOver();
}

void VirtualCameraStreamer::ingestLeftImage(int, tq::Mat image, tq::IMUPacket imu,
                                            std::vector<tq::IMUPacket> imus)
{
    awaitHandOver();
    const std::shared_lock<std::shared_mutex> lock(senderMutex);
    if (!udp) {
        return;
    }
    if (config.imuRate > 0) {
        {
            const std::lock_guard<std::mutex> imuLock(imuMutex);
            lastIMU = imu;
        }
        for (const tq::IMUPacket& packet : imus) {
            udp->ingestIMU(packet);
        }
    }
    enqueue(image, leftImages, leftMutex);
}

// Only the left camera's IMU data is streamed. Deliberate.
void VirtualCameraStreamer::ingestRightImage(int, tq::Mat image, tq::IMUPacket,
                                             std::vector<tq::IMUPacket>)
{
    awaitHandOver();
    const std::shared_lock<std::shared_mutex> lock(senderMutex);
    if (!udp) {
        return;
    }
    enqueue(image, rightImages, rightMutex);
}

// The queues have no bound: an image waits until a match consumes it or the streamer closes.
void VirtualCameraStreamer::enqueue(const tq::Mat& image, ImageQueue& queue, std::mutex& mutex)
{
    std::unique_ptr<tq::Mat> copy;
    {
        const std::lock_guard<std::mutex> lock(spareMutex);
        if (!spareImages.empty()) {
            copy = std::move(spareImages.back());
            spareImages.pop_back();
        }
    }
    if (!copy) {
        copy = std::make_unique<tq::Mat>();
    }
    copy->clone(image);
    const std::lock_guard<std::mutex> lock(mutex);
    queue.push(std::move(copy));
}

// One camera may be some frames ahead of the other, so the newest images need not be the pair.
bool VirtualCameraStreamer::pairWaits()
{
    const std::lock_guard<std::mutex> leftLock(leftMutex);
    const std::lock_guard<std::mutex> rightLock(rightMutex);
    const auto oldestOf = [](const ImageQueue& queue) {
        return queue.size() - std::min(queue.size(), kLookedThrough);
    };
    for (std::size_t i = oldestOf(leftImages); i < leftImages.size(); ++i) {
        for (std::size_t j = oldestOf(rightImages); j < rightImages.size(); ++j) {
            if (isPair(captureTimeUs(leftImages[i]), captureTimeUs(rightImages[j]))) {
                return true;
            }
        }
    }
    return false;
}

void VirtualCameraStreamer::awaitHandOver()
{
    using Clock = std::chrono::steady_clock;
    std::unique_lock<std::mutex> lock(handOverMutex);
    const Clock::time_point now = Clock::now();
    const auto taken = [this] { return !running || !isRunning() || !pairWaits(); };
    patience = std::min<Clock::duration>(patience + (now - patienceCounted) / kPatienceShare,
                                         kMaxPatience);
    patienceCounted = now;
    if (handedOver.wait_for(lock, patience, taken)) {
        patience -= std::min(patience, Clock::now() - now);
    } else {
        patience = {};
    }
}

void VirtualCameraStreamer::announceHandOver()
{
    {
        const std::lock_guard<std::mutex> lock(handOverMutex);
    }
    handedOver.notify_all();
}

int VirtualCameraStreamer::createSBS(tq::Mat& out, tq::Timestamp& ts)
{
    Pair pair{};
    if (!findPair(pair) || !joinPair(pair, out, ts)) {
        return kNoPair;
    }
    consume(pair);
    announceHandOver();
    return 0;
}

// The first match wins: the newest left image that has any partner, with its newest partner.
bool VirtualCameraStreamer::findPair(Pair& pair)
{
    const auto sizeOf = [](const ImageQueue& queue, std::mutex& mutex) {
        const std::lock_guard<std::mutex> lock(mutex);
        return queue.size();
    };
    const auto timeOf = [](const ImageQueue& queue, std::mutex& mutex, std::size_t index,
                           std::int64_t& time) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (queue.size() <= index) {
            return false;
        }
        time = captureTimeUs(queue[index]);
        return true;
    };

    const std::size_t leftCount = sizeOf(leftImages, leftMutex);
    const std::size_t rightCount = sizeOf(rightImages, rightMutex);
    for (std::size_t i = leftCount; i-- > 0;) {
        std::int64_t leftTime = 0;
        if (rightCount == 0 || !timeOf(leftImages, leftMutex, i, leftTime)) {
            return false;
        }
        for (std::size_t j = rightCount; j-- > 0;) {
            std::int64_t rightTime = 0;
            if (searchInterrupted || !timeOf(rightImages, rightMutex, j, rightTime)) {
                return false;
            }
            if (isPair(leftTime, rightTime)) {
                pair = {i, j};
                return true;
            }
            std::this_thread::sleep_for(kSearchPause);
        }
    }
    return false;
}

bool VirtualCameraStreamer::joinPair(const Pair& pair, tq::Mat& out, tq::Timestamp& ts)
{
    const std::lock_guard<std::mutex> leftLock(leftMutex);
    const std::lock_guard<std::mutex> rightLock(rightMutex);
    if (leftImages.size() <= pair.left || rightImages.size() <= pair.right || !fitFrame(out)) {
        return false;
    }
    const tq::Mat& left = leftImages[pair.left];
    const tq::Mat& right = rightImages[pair.right];
    ts = sdk::captureTime(left);
    warnAboutSize(left, right);
    joinSideBySide(left, right, sbsWidth, sbsHeight, out.getPtr<unsigned char>(sdk::kHostMemory));
    return true;
}

// Everything up to the pair is older than what was sent, so it is of no use any more.
void VirtualCameraStreamer::consume(const Pair& pair)
{
    recycle(leftImages, leftMutex, pair.left + 1);
    recycle(rightImages, rightMutex, pair.right + 1);
}

void VirtualCameraStreamer::recycle(ImageQueue& queue, std::mutex& mutex, std::size_t count)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const std::lock_guard<std::mutex> spareLock(spareMutex);
    for (std::size_t n = std::min(count, queue.size()); n > 0; --n) {
        std::unique_ptr<tq::Mat> image = queue.pop();
        if (spareImages.size() < kMaxSpareImages) {
            spareImages.push_back(std::move(image));
        }
    }
}

void VirtualCameraStreamer::warnAboutSize(const tq::Mat& left, const tq::Mat& right)
{
    const auto matches = [this](const tq::Mat& image) {
        return sdk::widthOf(image) == static_cast<std::size_t>(sbsWidth) &&
               sdk::heightOf(image) == static_cast<std::size_t>(sbsHeight);
    };
    if (!sizeWarned && !(matches(left) && matches(right))) {
        sizeWarned = true;
        qWarning() << "[VirtualCameraStreamer] Virtual camera" << config.serialNumber
                   << "is configured for eyes of" << sbsWidth << "x" << sbsHeight
                   << "but its cameras deliver" << sdk::widthOf(left) << "x" << sdk::heightOf(left)
                   << "and" << sdk::widthOf(right) << "x" << sdk::heightOf(right)
                   << ": the pictures are cropped or padded";
    }
}

/// Gives the frame the joined size if it has another one.
bool VirtualCameraStreamer::fitFrame(tq::Mat& frame) const
{
    const auto joinedWidth = static_cast<std::size_t>(std::max(sbsWidth, 0)) * 2;
    const auto joinedHeight = static_cast<std::size_t>(std::max(sbsHeight, 0));
    if (sdk::widthOf(frame) != joinedWidth || sdk::heightOf(frame) != joinedHeight) {
        frame.alloc(joinedWidth, joinedHeight, sdk::kYuyv, sdk::kHostMemory);
    }
    return frame.getPtr<unsigned char>(sdk::kHostMemory) != nullptr;
}

void VirtualCameraStreamer::run()
{
    tq::Mat frame;
    {
        const std::shared_lock<std::shared_mutex> lock(senderMutex);
        fitFrame(frame);
    }
    qDebug() << "[VirtualCameraStreamer] --> Enter <--";
    while (running) {
        processQueues(frame);
        usleep(kLoopIntervalUs);
    }
    clearImageQueues();
    qDebug() << "[VirtualCameraStreamer] --> Exit <--";
    int serial = 0;
    {
        const std::shared_lock<std::shared_mutex> lock(senderMutex);
        serial = config.serialNumber;
    }
    emit StreamUpdated(serial, false);
    ended = true;
}

void VirtualCameraStreamer::processQueues(tq::Mat& frame)
{
    const std::shared_lock<std::shared_mutex> lock(senderMutex);
    tq::Timestamp ts = 0;
    if (!udp || createSBS(frame, ts) != 0) {
        return;
    }
    tq::kvfrw::kvfSampleMetadata metadata{};
    if (config.imuRate > 0) {
        // The packet received last with any left image, which may be newer than this frame when the
        // thread is late. Deliberate: receivers get the newest measurement there is.
        const std::lock_guard<std::mutex> imuLock(imuMutex);
        tq::kvfrw::convertMetadataFromMCUData(metadata, lastIMU);
    }
    udp->ingestYUVFrame(frame.getPtr<unsigned char>(sdk::kHostMemory), ts, metadata);
}
