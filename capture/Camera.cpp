// SPDX-License-Identifier: Apache-2.0
// Capture worker of one physical camera.
#include "capture/Camera.h"

#include <QAbstractEventDispatcher>
#include <QDebug>
#include <QMetaObject>
#include <cstring>
#include <list>

#include "capture/lostimages.h"
#include "cmake/threadsanitizer.h"

namespace {

constexpr unsigned long kPollIntervalUs = 100;
constexpr unsigned long kStopTimeoutMs = 2000;
constexpr int kNewFrame = 1;

}  // namespace

KTCamera::KTCamera() : grabber(std::make_shared<tq::LiveCameraGrabber>(sdk::kGrabberInput))
{
    sdk::registerMetaTypes();
    grabber->setMonoCapture(true);
    grabber->setInputType(sdk::kCaptureInput);
}

KTCamera::~KTCamera()
{
    graceFullyExit();
}

int KTCamera::open(int cameraId, tq::Resolution res, int wantedFps, bool hdrMode)
{
    if (isRunning()) {
        return -1;
    }
    const int result =
        grabber->setUp(cameraId, static_cast<int>(res.width), static_cast<int>(res.height),
                       wantedFps, sdk::kGrabberBuffers, false, sdk::kImuFrequency, false, hdrMode);
    if (result != 0) {
        qDebug() << "[KTCamera] Setup State error : " << result;
        return result;
    }
    running = true;
    id = cameraId;
    width = grabber->getEffectiveWidth();
    height = grabber->getEffectiveHeight();
    serialNumber = grabber->getSerialNumber();
    fps = grabber->getFPS();
    hdr = hdrMode;
    qDebug() << "[KTCamera] Camera " << serialNumber << " opened at resolution " << width << " x "
             << height << " and fps " << fps;
    start();
    return 0;
}

void KTCamera::close()
{
    graceFullyExit();
}

void KTCamera::graceFullyExit()
{
    if (!isRunning()) {
        running = false;
        return;
    }
    running = false;
    if (!wait(kStopTimeoutMs)) {
        terminate();
        wait();
    }
    // Reads what run() wrote last: shows the thread sanitizer, which does not see into Qt, that all
    // the thread did comes before what follows.
    running.exchange(false);
    grabber->close(true);
}

std::int64_t KTCamera::getSN() const
{
    return serialNumber;
}

int KTCamera::getWith() const
{
    return width;
}

int KTCamera::getHeight() const
{
    return height;
}

CameraInfos KTCamera::getInfos() const
{
    CameraInfos infos;
    infos.id = id;
    infos.serial_number = serialNumber;
    infos.model = grabber->getCameraModel();
    infos.width = width;
    infos.height = height;
    infos.fps = fps;
    infos.hasMCU = grabber->hasMCU();
    infos.hdr = hdr;
    return infos;
}

void KTCamera::run()
{
    const auto pool = std::make_shared<FramePool>(width, height);
    tq::KORmcu* const mcu = grabber->getMCU();
    lastBatchEnd = 0;
    while (running) {
        if (grabber->getFrameStatus() == kNewFrame) {
            captureFrame(pool, mcu);
        }
        usleep(kPollIntervalUs);
    }
    reportLostFrames();
    pool->free();
    running = false;
}

void KTCamera::captureFrame(const std::shared_ptr<FramePool>& pool, tq::KORmcu* mcu)
{
    tq::Mat* const frame = pool->take();
    if (frame == nullptr) {
        // The IMU packets up to this frame stay in the camera and come with the next one.
        ++lostFrames;
        qCDebug(lostImages) << "[KTCamera] Camera" << serialNumber << "image of"
                            << grabber->getTimeStamp() << "lost: the receiver was late";
        return;
    }
    reportLostFrames();
    std::memcpy(frame->getPtr<unsigned char>(sdk::kHostMemory), grabber->getPixels(),
                static_cast<std::size_t>(width) * static_cast<std::size_t>(height) *
                    sdk::kYuyvBytesPerPixel);
    lastTimestamp = grabber->getTimeStamp();
    sdk::setCaptureTime(*frame, lastTimestamp);
    const tq::IMUPacket& imu = grabber->getIMUPacket();
    if (mcu != nullptr) {
        fetchImu(mcu);
    }
    emit sendYUYVImage(static_cast<int>(serialNumber), tq::Mat(*frame), imu, pendingImu);
    pendingImu.clear();
    if (QAbstractEventDispatcher::instance(thread()) != nullptr) {
        // Posted behind the frame, hence executed by the owner's event loop after the frame's
        // receivers on that thread.
        threadsanitizer::release(frame);
        QMetaObject::invokeMethod(
            this,
            [pool, frame] {
                threadsanitizer::acquire(frame);
                pool->giveBack(frame);
            },
            Qt::QueuedConnection);
    } else {
        // Nobody can say when a receiver is done: it keeps these pixels, the next frame gets
        // others.
        frame->free(sdk::kAllMemory);
        pool->giveBack(frame);
    }
}

void KTCamera::fetchImu(tq::KORmcu* mcu)
{
    const std::list<tq::IMUPacket> batch = mcu->getIMUPacketBatch(lastBatchEnd, lastTimestamp);
    // As many empty packets as real ones, the real ones last: receivers have always been given
    // both. Deliberate.
    pendingImu.resize(batch.size());
    pendingImu.insert(pendingImu.end(), batch.begin(), batch.end());
    lastBatchEnd = lastTimestamp;
}

void KTCamera::reportLostFrames()
{
    if (lostFrames > 0) {
        qDebug() << "[KTCamera] Camera " << serialNumber << " lost " << lostFrames
                 << " frames: the receiver was late";
        lostFrames = 0;
    }
}
