// SPDX-License-Identifier: Apache-2.0
// Capture of one camera: a thread that fills buffers from the camera's source.
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "sdk/camera/cameralock.h"
#include "sdk/camera/frameslots.h"
#include "sdk/camera/skippedframes.h"
#include "sdk/core/log.h"
#include "sdk/imu/imuhistory.h"
#include "sdk/rig/currentrig.h"
#include "sdk/sources/framesource.h"
#include "sdk/sources/lastingsource.h"
#include "tq_kor/camera.h"

namespace tq {

namespace {

constexpr int kNewFrame = 1;
constexpr int kNoNewFrame = 0;
constexpr int kWidest = 8192;
constexpr int kHighest = 8192;
constexpr int kFastest = 240;
// A reader that asks again at once sleeps here between two frames.
constexpr std::chrono::milliseconds kPatience{20};

bool isUsable(const FrameFormat& wanted)
{
    return wanted.width >= 2 && wanted.width <= kWidest && wanted.height >= 1 &&
           wanted.height <= kHighest && wanted.fps >= 1 && wanted.fps <= kFastest;
}

int report(ErrorCode code, const std::string& what, const std::string& reason)
{
    logLine(what + ": " + (reason.empty() ? toString(code).c_str() : reason));
    return static_cast<int>(code);
}

}  // namespace

struct KORmcu::Private {
    std::shared_ptr<ImuHistory> history;
};

KORmcu::KORmcu(std::unique_ptr<Private> implementation) : d(std::move(implementation)) {}

KORmcu::~KORmcu() = default;

std::list<IMUPacket> KORmcu::getIMUPacketBatch(unsigned long from, unsigned long to)
{
    return d->history->between(from, to, systemClock().now());
}

struct LiveCameraGrabber::Private {
    std::atomic<bool> isOpen{false};
    std::mutex reading;  // held while a frame is waited for; nothing in there ends a thread
    bool verbose = false;
    CameraLock lock;
    std::unique_ptr<FrameSource> source;
    std::unique_ptr<FrameSlots> slots;
    std::unique_ptr<SkippedFrames> skipped;
    std::uint64_t produced = 0;
    std::shared_ptr<ImuHistory> history;
    std::unique_ptr<KORmcu> mcu;
    std::thread producer;
    std::uint64_t delivered = 0;
    std::uint64_t beforeReader = 0;  // frames overwritten before anyone asked for one
    bool hasFrame = false;
    IMUPacket noPacket{};

    // Read by any thread.
    std::atomic<int> width{0};
    std::atomic<int> height{0};
    std::atomic<int> fps{0};
    std::atomic<int> serial{0};
    std::atomic<MODEL> model{MODEL::LAST};
    std::atomic<bool> mcuPresent{false};

    ErrorCode openCamera(const rig::CameraSettings& camera, const FrameFormat& wanted,
                         IMU_FREQ imuFrequency, std::string& reason);
    void open(const rig::CameraSettings& camera, const FrameFormat& wanted, IMU_FREQ imuFrequency);
    void produce();
    bool produceInto(FrameSlots::Slot& slot);
    void reset();
};

ErrorCode LiveCameraGrabber::Private::openCamera(const rig::CameraSettings& camera,
                                                 const FrameFormat& wanted, IMU_FREQ imuFrequency,
                                                 std::string& reason)
{
    const ErrorCode locked = lock.acquire(camera.serial, reason);
    if (locked != ErrorCode::SUCCESS) {
        return locked;
    }
    try {
        open(camera, wanted, imuFrequency);
    } catch (const InvalidVideo& error) {
        reason = error.what();
        return ErrorCode::SOURCE_INVALID;
    } catch (const std::exception& error) {
        reason = error.what();
        return ErrorCode::SOURCE_UNAVAILABLE;
    }
    return ErrorCode::SUCCESS;
}

void LiveCameraGrabber::Private::open(const rig::CameraSettings& camera, const FrameFormat& wanted,
                                      IMU_FREQ imuFrequency)
{
    ImuSource imu = makeImuSource(camera, imuFrequency);
    const Timestamp opening = systemClock().now();
    source = std::make_unique<LastingSource>([camera] { return makeFrameSource(camera); },
                                             "camera S/N " + std::to_string(camera.serial),
                                             systemClock());
    const FrameFormat format = source->open(wanted);
    if (imu) {
        history = std::make_shared<ImuHistory>(std::move(imu), opening);
        mcu.reset(new KORmcu(std::make_unique<KORmcu::Private>(KORmcu::Private{history})));
    }
    slots = std::make_unique<FrameSlots>(format.bytes());
    skipped = std::make_unique<SkippedFrames>("camera S/N " + std::to_string(camera.serial),
                                              std::chrono::steady_clock::now());
    produced = 0;
    width = format.width;
    height = format.height;
    fps = format.fps;
    serial = camera.serial;
    model = camera.model;
    mcuPresent = history != nullptr;
}

bool LiveCameraGrabber::Private::produceInto(FrameSlots::Slot& slot)
{
    if (!source->next({slot.pixels.data(), slots->fillingIndex()}, slot.timestamp)) {
        return false;
    }
    slot.due = ++produced + source->skippedFrames();
    if (history != nullptr) {
        history->advance(slot.timestamp);
        slot.imu = history->latest(slot.timestamp);
    }
    return true;
}

void LiveCameraGrabber::Private::produce()
{
    while (produceInto(slots->filling())) {
        slots->publish();
    }
}

void LiveCameraGrabber::Private::reset()
{
    mcu.reset();
    history.reset();
    source.reset();
    slots.reset();
    skipped.reset();
    lock.release();
    hasFrame = false;
    delivered = 0;
    width = height = fps = serial = 0;
    model = MODEL::LAST;
    mcuPresent = false;
}

LiveCameraGrabber::LiveCameraGrabber(INPUT_TYPE) : d(std::make_unique<Private>()) {}

LiveCameraGrabber::~LiveCameraGrabber()
{
    close(true);
}

// A rig has mono cameras only, and its sources decide themselves what they are connected to.
void LiveCameraGrabber::setMonoCapture(bool) {}
void LiveCameraGrabber::setInputType(INPUT_TYPE) {}

int LiveCameraGrabber::setUp(int& id, int width, int height, int fps, int, bool flip,
                             IMU_FREQ imuFrequency, bool verbose, bool)
{
    const std::string what = "camera " + std::to_string(id);
    if (d->isOpen) {
        return report(ErrorCode::ALREADY_OPEN, what, "");
    }
    const FrameFormat wanted{width / 2 * 2, height, fps};
    if (!isUsable(wanted)) {
        return report(ErrorCode::INVALID_RESOLUTION, what, "");
    }
    if (flip) {
        return report(ErrorCode::INVALID_CONFIGURATION, what, "pictures cannot be turned");
    }
    const rig::SharedRig rig = rig::currentRig();
    if (!*rig) {
        return report(ErrorCode::INVALID_RIG, what, rig->error);
    }
    const rig::CameraSettings* camera = rig->rig->find(id);
    if (camera == nullptr) {
        return report(ErrorCode::CAMERA_NOT_FOUND, what, "");
    }
    d->verbose = verbose;
    std::string reason;
    const ErrorCode code = d->openCamera(*camera, wanted, imuFrequency, reason);
    if (code != ErrorCode::SUCCESS) {
        d->reset();
        return report(code, what, code == ErrorCode::CAMERA_BUSY ? "" : reason);
    }
    d->isOpen = true;
    d->producer = std::thread(&Private::produce, d.get());
    if (verbose) {
        logLine(what + " opened");
    }
    return 0;
}

int LiveCameraGrabber::getEffectiveWidth() const
{
    return d->width;
}

int LiveCameraGrabber::getEffectiveHeight() const
{
    return d->height;
}

int LiveCameraGrabber::getFPS() const
{
    return d->fps;
}

int LiveCameraGrabber::getSerialNumber() const
{
    return d->serial;
}

MODEL LiveCameraGrabber::getCameraModel() const
{
    return d->model;
}

bool LiveCameraGrabber::hasMCU() const
{
    return d->mcuPresent;
}

int LiveCameraGrabber::getFrameStatus()
{
    const std::lock_guard<std::mutex> lock(d->reading);
    if (!d->isOpen) {
        return kNoNewFrame;
    }
    if (d->slots->takeNewest(kPatience)) {
        if (!d->hasFrame) {
            d->beforeReader = d->slots->overwrittenFrames();
            d->hasFrame = true;
        }
        ++d->delivered;
        const FrameSlots::Slot& frame = d->slots->reading();
        d->skipped->delivered(frame.timestamp, frame.due, std::chrono::steady_clock::now());
        return kNewFrame;
    }
    return kNoNewFrame;
}

unsigned char* LiveCameraGrabber::getPixels()
{
    return d->hasFrame ? d->slots->reading().pixels.data() : nullptr;
}

Timestamp LiveCameraGrabber::getTimeStamp()
{
    return d->hasFrame ? d->slots->reading().timestamp : 0;
}

IMUPacket& LiveCameraGrabber::getIMUPacket()
{
    return d->hasFrame ? d->slots->reading().imu : d->noPacket;
}

KORmcu* LiveCameraGrabber::getMCU()
{
    return d->mcu.get();
}

void LiveCameraGrabber::close(bool)
{
    if (!d->isOpen.exchange(false)) {
        return;
    }
    // The frame in flight takes some milliseconds at most, so there is nothing to force.
    d->source->stop();
    d->producer.join();
    const std::lock_guard<std::mutex> lock(d->reading);
    std::uint64_t skipped = d->source->skippedFrames();
    if (d->hasFrame) {
        skipped += d->slots->overwrittenFrames() - d->beforeReader;
    }
    if (skipped > 0 || d->verbose) {
        logLine("camera S/N " + std::to_string(d->serial) +
                " closed: " + std::to_string(d->delivered) + " frames delivered, " +
                std::to_string(skipped) + " skipped");
    }
    d->reset();
}

}  // namespace tq
