// SPDX-License-Identifier: Apache-2.0
// Turns two mono cameras into one virtual stereo camera and streams it.
#include "capture/Streamer.h"

#include <QDebug>
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <utility>

#include "capture/lostimages.h"
#include "capture/sidebyside.h"

namespace {

constexpr unsigned long kLoopIntervalUs = 100;
constexpr unsigned long kStopTimeoutMs = 2000;
constexpr unsigned long kSearchPauseUs = 10;
constexpr int kLongestWaitMs = 100;
constexpr std::chrono::seconds kReportInterval{10};
constexpr std::uint64_t kNsPerUs = 1000;
constexpr int kNoPair = 1;
constexpr double kUsPerMs = 1000;
constexpr std::size_t kMaxQueueBytes = 512'000'000;
constexpr std::size_t kImageBytes = 4096;  // what an image needs beside its pixels, generously

// Each time is cut to whole microseconds by itself before two are compared, so that 5000.999 µs may
// still pair and 5000.001 µs may not. Deliberate: it is how pairs have always been chosen.
std::int64_t captureTimeUs(const tq::Mat& image)
{
    return static_cast<std::int64_t>(sdk::captureTime(image) / kNsPerUs);
}

std::size_t bytesOf(const tq::Mat& image)
{
    return image.getStepBytes(sdk::kHostMemory) * sdk::heightOf(image) + kImageBytes;
}

bool hasPair(std::vector<std::int64_t> leftUs, std::vector<std::int64_t> rightUs)
{
    const auto offset = nearestOffset(std::move(leftUs), std::move(rightUs));
    return offset && isPair(0, *offset);
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

void warnAboutPort(const VirtualCameraInfos& infos)
{
    if (infos.port == 0 || infos.port > std::numeric_limits<std::uint16_t>::max()) {
        qWarning() << "[VirtualCameraStreamer] Virtual camera" << infos.virtualSerialNumber
                   << "has no possible port:" << static_cast<std::int32_t>(infos.port)
                   << "is not from 1 to 65535, the sender is given"
                   << static_cast<std::uint16_t>(infos.port);
    }
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
    warnAboutPort(infos);
    int result = 0;
    {
        const std::unique_lock<std::shared_mutex> lock(senderMutex);
        // The sender that is replaced is not closed but destroyed at once. Deliberate: its
        // destruction ends the stream.
        udp.reset();
        udp = std::make_unique<tq::UDPOutput>(sdk::kStreamingMode, true);
        configure(infos);
        result = udp->open(config);
        if (result != 0) {
            udp.reset();
        }
    }
    if (result != 0) {
        std::cout << "Streaming Error " << result << std::endl;
        stopThread();
        return -1;
    }
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
    udp.reset();
}

void VirtualCameraStreamer::stopThread()
{
    if (!running.exchange(false)) {
        return;
    }
    arrivals.release();
    if (!wait(kStopTimeoutMs)) {
        terminate();
        wait();
    }
    // Reads what run() wrote last: shows the thread sanitizer, which does not see into Qt, that all
    // the thread did comes before what follows.
    running.exchange(false);
}

void VirtualCameraStreamer::configure(const VirtualCameraInfos& infos)
{
    const std::lock_guard<std::mutex> leftLock(leftEye.mutex);
    const std::lock_guard<std::mutex> rightLock(rightEye.mutex);
    config = senderConfig(infos);
    leftEye.camera = infos.leftSerialNumber;
    rightEye.camera = infos.rightSerialNumber;
    sbsWidth = infos.width;
    sbsHeight = infos.height;
    sizeWarned = false;
}

void VirtualCameraStreamer::clearImageQueues()
{
    leftEye.clear();
    rightEye.clear();
}

// The lock cannot be had only while the sender is being replaced or released: there is none then.
void VirtualCameraStreamer::ingestLeftImage(int, tq::Mat image, tq::IMUPacket imu,
                                            std::vector<tq::IMUPacket> imus)
{
    const std::shared_lock<std::shared_mutex> lock(senderMutex, std::try_to_lock);
    if (!lock || !udp) {
        return;
    }
    if (config.imuRate > 0) {
        {
            const std::lock_guard<std::mutex> imuLock(leftEye.mutex);
            lastIMU = imu;
        }
        for (const tq::IMUPacket& packet : imus) {
            udp->ingestIMU(packet);
        }
    }
    leftEye.append(image);
    arrivals.release();
}

// Only the left camera's IMU data is streamed. Deliberate.
void VirtualCameraStreamer::ingestRightImage(int, tq::Mat image, tq::IMUPacket,
                                             std::vector<tq::IMUPacket>)
{
    const std::shared_lock<std::shared_mutex> lock(senderMutex, std::try_to_lock);
    if (!lock || !udp) {
        return;
    }
    rightEye.append(image);
    arrivals.release();
}

int VirtualCameraStreamer::createSBS(tq::Mat& out, tq::Timestamp& ts)
{
    const std::optional<Pair> pair = findPair();
    if (!pair || !joinPair(*pair, out, ts)) {
        return kNoPair;
    }
    leftEye.consume(pair->left);
    rightEye.consume(pair->right);
    ++pairs;
    return 0;
}

// Among many images without partners one search takes minutes. So it ends with the stream, and
// begins anew with the images that came meanwhile when there is a pair among all but none among
// those that it looks through: the next search would find that pair, too.
std::optional<VirtualCameraStreamer::Pair> VirtualCameraStreamer::findPair()
{
    std::optional<Pair> found;
    while (!searchPair(found)) {
    }
    return found;
}

// The first match wins: the newest left image that has any partner, with its newest partner. False
// when the search must begin anew.
bool VirtualCameraStreamer::searchPair(std::optional<Pair>& found)
{
    Search search{leftEye.end(), rightEye.end(), 0, 0};
    search.knownLeft = search.leftEnd;
    search.knownRight = search.rightEnd;
    for (std::uint64_t i = search.leftEnd; i-- > 0;) {
        const std::optional<std::int64_t> leftTime = leftEye.timeUs(i);
        if (!leftTime || !rightEye.timeUs(search.rightEnd - 1)) {
            return true;  // where one image is gone, all older ones are
        }
        for (std::uint64_t j = search.rightEnd; j-- > 0;) {
            const std::optional<std::int64_t> rightTime = rightEye.timeUs(j);
            if (!rightTime) {
                break;
            }
            if (!running) {
                return true;
            }
            if (isPair(*leftTime, *rightTime)) {
                found = Pair{i, j};
                return true;
            }
            usleep(kSearchPauseUs);
            if (isOvertaken(search)) {
                return false;
            }
        }
    }
    return true;
}

bool VirtualCameraStreamer::isOvertaken(Search& search)
{
    const std::uint64_t left = leftEye.end();
    const std::uint64_t right = rightEye.end();
    if (left == search.knownLeft && right == search.knownRight) {
        return false;
    }
    search.knownLeft = left;
    search.knownRight = right;
    report(std::chrono::steady_clock::now());
    return !hasPair(leftEye.timesUs(search.leftEnd), rightEye.timesUs(search.rightEnd)) &&
           hasPair(leftEye.timesUs(left), rightEye.timesUs(right));
}

// An image that has been dropped since the search found it is not replaced by another one.
bool VirtualCameraStreamer::joinPair(const Pair& pair, tq::Mat& out, tq::Timestamp& ts)
{
    const std::lock_guard<std::mutex> leftLock(leftEye.mutex);
    const std::lock_guard<std::mutex> rightLock(rightEye.mutex);
    const tq::Mat* const left = leftEye.at(pair.left);
    const tq::Mat* const right = rightEye.at(pair.right);
    if (left == nullptr || right == nullptr) {
        return false;
    }
    ts = sdk::captureTime(*left);
    warnAboutSize(*left, *right);
    fitFrame(out);
    joinSideBySide(*left, *right, sbsWidth, sbsHeight, out.getPtr<unsigned char>(sdk::kHostMemory));
    return true;
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
void VirtualCameraStreamer::fitFrame(tq::Mat& frame) const
{
    if (!isFitting(frame)) {
        frame.alloc(static_cast<unsigned long>(std::max(sbsWidth, 0)) * 2,
                    static_cast<unsigned long>(std::max(sbsHeight, 0)), sdk::kYuyv,
                    sdk::kHostMemory);
    }
}

bool VirtualCameraStreamer::isFitting(const tq::Mat& frame) const
{
    return sdk::widthOf(frame) == static_cast<std::size_t>(std::max(sbsWidth, 0)) * 2 &&
           sdk::heightOf(frame) == static_cast<std::size_t>(std::max(sbsHeight, 0));
}

void VirtualCameraStreamer::run()
{
    tq::Mat frame;
    {
        const std::lock_guard<std::mutex> leftLock(leftEye.mutex);
        const std::lock_guard<std::mutex> rightLock(rightEye.mutex);
        fitFrame(frame);
        leftEye.dropped = 0;
        rightEye.dropped = 0;
    }
    beginReport(std::chrono::steady_clock::now());
    qDebug() << "[VirtualCameraStreamer] --> Enter <--";
    while (running) {
        if (arrivals.tryAcquire(1, kLongestWaitMs)) {
            arrivals.tryAcquire(arrivals.available());
        }
        sendPair(frame);
        report(std::chrono::steady_clock::now());
        usleep(kLoopIntervalUs);
    }
    clearImageQueues();
    logDrops();
    qDebug() << "[VirtualCameraStreamer] --> Exit <--";
    emit StreamUpdated(serialNumber(), false);
    running = false;
}

void VirtualCameraStreamer::sendPair(tq::Mat& frame)
{
    tq::Timestamp ts = 0;
    if (createSBS(frame, ts) != 0) {
        return;
    }
    const std::shared_lock<std::shared_mutex> lock(senderMutex);
    // A frame that was joined for a sender which has been replaced since goes nowhere.
    if (!udp || !isFitting(frame)) {
        return;
    }
    tq::kvfrw::kvfSampleMetadata metadata{};
    if (config.imuRate > 0) {
        // The packet received last with any left image, which may be newer than this frame when the
        // thread is late. Deliberate: receivers get the newest measurement there is.
        const std::lock_guard<std::mutex> imuLock(leftEye.mutex);
        tq::kvfrw::convertMetadataFromMCUData(metadata, lastIMU);
    }
    udp->ingestYUVFrame(frame.getPtr<unsigned char>(sdk::kHostMemory), ts, metadata);
}

DroppedImages VirtualCameraStreamer::droppedImages()
{
    const std::lock_guard<std::mutex> leftLock(leftEye.mutex);
    const std::lock_guard<std::mutex> rightLock(rightEye.mutex);
    return {leftEye.dropped, rightEye.dropped};
}

std::uint64_t VirtualCameraStreamer::receivedImages()
{
    return leftEye.end() + rightEye.end();
}

void VirtualCameraStreamer::reportDrops(std::chrono::steady_clock::time_point now)
{
    const DroppedImages dropped = droppedImages();
    if (now < nextReport || dropped.left + dropped.right == reportedDrops) {
        return;
    }
    reportedDrops = dropped.left + dropped.right;
    nextReport = now + kReportInterval;
    logDrops();
}

void VirtualCameraStreamer::logDrops()
{
    const DroppedImages dropped = droppedImages();
    if (dropped.left + dropped.right > 0) {
        qDebug() << "[VirtualCameraStreamer] Virtual camera" << serialNumber() << "dropped"
                 << dropped.left << "left and" << dropped.right << "right images for newer ones";
    }
}

void VirtualCameraStreamer::report(std::chrono::steady_clock::time_point now)
{
    reportDrops(now);
    reportPairs(now);
}

void VirtualCameraStreamer::beginReport(std::chrono::steady_clock::time_point now)
{
    pairReport.start(now, {leftEye.end(), rightEye.end(), pairs});
    apart = 0;
}

void VirtualCameraStreamer::reportPairs(std::chrono::steady_clock::time_point now)
{
    const PairReport::Counts counts{leftEye.end(), rightEye.end(), pairs};
    const PairReport::News news = pairReport.look(now, counts);
    if (news == PairReport::News::None) {
        return;
    }
    const auto offset = nearestOffset(leftEye.timesUs(counts.left), rightEye.timesUs(counts.right));
    if (news == PairReport::News::Apart && (!offset || isPair(0, *offset))) {
        pairReport.retract();  // the next search finds a pair
        return;
    }
    apart = news == PairReport::News::Apart ? *offset : 0;
    logPairs(news, offset.value_or(0));
}

void VirtualCameraStreamer::logPairs(PairReport::News news, std::int64_t offsetUs)
{
    using News = PairReport::News;
    const std::uint64_t left = leftEye.serial();
    const std::uint64_t right = rightEye.serial();
    const char* const order = offsetUs < 0 ? "before" : "after";
    QDebug log = qWarning();
    log << "[VirtualCameraStreamer] Virtual camera" << serialNumber();
    if (news == News::Again) {
        log << "has pairs of images again, after" << pairReport.gap().count() << "ms";
    } else if (news == News::BothSilent) {
        log << "has no pair of images: cameras" << left << "and" << right << "deliver nothing";
    } else if (news == News::Apart) {
        log << "has no pair of images: those of camera" << right << "are taken"
            << static_cast<double>(std::abs(offsetUs)) / kUsPerMs << "ms" << order
            << "those of camera" << left << "and at most 5 ms make a pair";
    } else {
        log << "has no pair of images: camera" << (news == News::LeftSilent ? left : right)
            << "delivers nothing";
    }
}

int VirtualCameraStreamer::serialNumber()
{
    const std::lock_guard<std::mutex> lock(leftEye.mutex);
    return config.serialNumber;
}

std::uint64_t VirtualCameraStreamer::Eye::end()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return first + images.size();
}

std::uint64_t VirtualCameraStreamer::Eye::serial()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return camera;
}

const tq::Mat* VirtualCameraStreamer::Eye::at(std::uint64_t number) const
{
    const bool there = number >= first && number - first < images.size();
    return there ? images[number - first].get() : nullptr;
}

std::optional<std::int64_t> VirtualCameraStreamer::Eye::timeUs(std::uint64_t number)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const tq::Mat* const image = at(number);
    return image != nullptr ? std::optional(captureTimeUs(*image)) : std::nullopt;
}

std::vector<std::int64_t> VirtualCameraStreamer::Eye::timesUs(std::uint64_t endNumber)
{
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::int64_t> times;
    for (std::uint64_t number = first; number < endNumber && at(number) != nullptr; ++number) {
        times.push_back(captureTimeUs(*at(number)));
    }
    return times;
}

void VirtualCameraStreamer::Eye::append(const tq::Mat& image)
{
    const std::lock_guard<std::mutex> lock(mutex);
    auto copy = std::make_unique<tq::Mat>();
    copy->clone(image);
    bytes += bytesOf(*copy);
    images.push_back(std::move(copy));
    while (bytes > kMaxQueueBytes && images.size() > 1) {
        dropOldest();
    }
}

// Everything up to the image that was sent is older, so it is of no use any more.
void VirtualCameraStreamer::Eye::consume(std::uint64_t number)
{
    const std::lock_guard<std::mutex> lock(mutex);
    while (!images.empty() && first < number) {
        dropOldest();
    }
    if (!images.empty() && first == number) {
        popOldest();
    }
}

void VirtualCameraStreamer::Eye::clear()
{
    const std::lock_guard<std::mutex> lock(mutex);
    while (!images.empty()) {
        popOldest();
    }
}

void VirtualCameraStreamer::Eye::dropOldest()
{
    qCDebug(lostImages) << "[VirtualCameraStreamer] Camera" << camera << "image of"
                        << sdk::captureTime(*images.front()) << "dropped for newer ones";
    ++dropped;
    popOldest();
}

void VirtualCameraStreamer::Eye::popOldest()
{
    bytes -= bytesOf(*images.front());
    images.pop_front();
    ++first;
}
