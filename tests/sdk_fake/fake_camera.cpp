// SPDX-License-Identifier: Apache-2.0
// The SDK's side of the scripted cameras: enumeration, grabber and micro-controller.
#include <algorithm>
#include <cstring>

#include "tests/sdk_fake/world.h"

using sdkfake::Control;
using sdkfake::Frame;
using sdkfake::Inside;
using sdkfake::join;
using sdkfake::misuse;
using sdkfake::Query;
using sdkfake::record;
using sdkfake::world;

std::vector<tq::DeviceProperties> ArgusCamera::getGMSLDevices(bool refresh, bool verbose)
{
    std::vector<tq::DeviceProperties> devices;
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        for (const auto& camera : world().cameras) {
            tq::DeviceProperties device{};
            device.state = camera->setup.state;
            device.id = camera->setup.id;
            device.model = camera->setup.model;
            device.serialNumber = camera->setup.serial;
            std::snprintf(device.bus, sizeof device.bus, "fake");
            std::snprintf(device.name, sizeof device.name, "%s %d",
                          tq::toString(device.model).c_str(), device.serialNumber);
            devices.push_back(device);
        }
    }
    record(Control, "ArgusCamera", "getGMSLDevices", join(refresh, verbose));
    return devices;
}

void ArgusCamera::deleteProviderInstance()
{
    record(Control, "ArgusCamera", "deleteProviderInstance", "");
}

namespace tq {

struct KORmcu::Private {
    std::string name;
    std::shared_ptr<sdkfake::CameraState> camera;
};

struct LiveCameraGrabber::Private {
    std::string name;
    std::shared_ptr<sdkfake::CameraState> camera;  // null while closed
    KORmcu* mcu = nullptr;
    int width = 0;
    int height = 0;
    int fps = 0;
    // The reader may look at the current frame until the next one is taken, no longer.
    std::vector<std::uint8_t> current;
    std::vector<std::uint8_t> previous;
    Timestamp timestamp = 0;
    IMUPacket latestImu{};
    bool hasFrame = false;
    std::atomic<int> inside{0};

    std::size_t frameBytes() const
    {
        return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2;
    }
    bool takePushed();
    bool takeFreeRunning();
    void present(std::uint8_t value);
};

KORmcu::KORmcu(std::unique_ptr<Private> implementation) : d(std::move(implementation)) {}

KORmcu::~KORmcu() = default;

std::list<IMUPacket> KORmcu::getIMUPacketBatch(unsigned long from, unsigned long to)
{
    std::list<IMUPacket> batch;
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        for (const IMUPacket& packet : d->camera->imuHistory) {
            if (packet.timestamp > from && packet.timestamp <= to) {
                batch.push_back(packet);
            }
        }
        const auto& run = d->camera->freeRun;
        if (run && run->imuPerFrame > 0 && to >= run->base) {
            const Timestamp step = run->period() / static_cast<Timestamp>(run->imuPerFrame);
            const std::uint64_t last = (to - run->base) / step;
            std::uint64_t first = from < run->base ? 0 : (from - run->base) / step + 1;
            if (from == 0) {
                constexpr std::uint64_t kHistory = 1000;
                first = last >= kHistory ? last - kHistory + 1 : 0;
            }
            for (std::uint64_t m = first; m <= last; ++m) {
                batch.push_back(sdkfake::makeImuPacket(m, run->base + m * step));
            }
        }
    }
    record(Frame, d->name, "getIMUPacketBatch", join(from, to), std::to_string(batch.size()));
    return batch;
}

LiveCameraGrabber::LiveCameraGrabber(INPUT_TYPE type) : d(std::make_unique<Private>())
{
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        d->name = "LiveCameraGrabber#" + std::to_string(++world().grabbers);
        ++world().livingObjects;
    }
    record(Control, d->name, "LiveCameraGrabber", join(static_cast<int>(type)));
}

LiveCameraGrabber::~LiveCameraGrabber()
{
    record(Control, d->name, "~LiveCameraGrabber", "");
    if (d->inside != 0) {
        misuse(d->name + " destroyed while a thread is inside");
    }
    if (d->camera) {
        misuse(d->name + " destroyed while open");
        delete d->mcu;
    }
    const std::lock_guard<std::mutex> lock(world().mutex);
    --world().livingObjects;
}

void LiveCameraGrabber::setMonoCapture(bool on)
{
    record(Control, d->name, "setMonoCapture", join(on));
}

void LiveCameraGrabber::setInputType(INPUT_TYPE type)
{
    record(Control, d->name, "setInputType", join(static_cast<int>(type)));
}

int LiveCameraGrabber::setUp(int& id, int width, int height, int fps, int bufferCount, bool flip,
                             IMU_FREQ imuFrequency, bool verbose, bool hdr)
{
    const std::string arguments = join(id, width, height, fps, bufferCount, flip,
                                       static_cast<int>(imuFrequency), verbose, hdr);
    std::shared_ptr<sdkfake::CameraState> camera;
    int result = static_cast<int>(ErrorCode::CAMERA_NOT_FOUND);
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        camera = sdkfake::cameraById(id);
        if (d->camera) {
            result = static_cast<int>(ErrorCode::ALREADY_OPEN);
        } else if (camera) {
            result = camera->setup.setUpResult;
        }
        if (result == 0) {
            d->camera = camera;
            d->width = camera->setup.effectiveWidth.value_or(width);
            d->height = camera->setup.effectiveHeight.value_or(height);
            d->fps = camera->setup.effectiveFps.value_or(fps);
            d->hasFrame = false;
            id = camera->setup.rewrittenId.value_or(id);
        }
    }
    if (result == 0 && camera->setup.hasMcu) {
        auto implementation = std::make_unique<KORmcu::Private>();
        implementation->name = "KORmcu" + d->name.substr(d->name.find('#'));
        implementation->camera = camera;
        d->mcu = new KORmcu(std::move(implementation));
    }
    record(Control, d->name, "setUp", arguments, std::to_string(result));
    return result;
}

int LiveCameraGrabber::getEffectiveWidth() const
{
    record(Query, d->name, "getEffectiveWidth", "", std::to_string(d->width));
    return d->width;
}

int LiveCameraGrabber::getEffectiveHeight() const
{
    record(Query, d->name, "getEffectiveHeight", "", std::to_string(d->height));
    return d->height;
}

int LiveCameraGrabber::getFPS() const
{
    record(Query, d->name, "getFPS", "", std::to_string(d->fps));
    return d->fps;
}

int LiveCameraGrabber::getSerialNumber() const
{
    const int serial = d->camera ? d->camera->setup.ownSerial.value_or(d->camera->setup.serial) : 0;
    record(Query, d->name, "getSerialNumber", "", std::to_string(serial));
    return serial;
}

MODEL LiveCameraGrabber::getCameraModel() const
{
    const MODEL model = d->camera ? d->camera->setup.model : MODEL::LAST;
    record(Query, d->name, "getCameraModel", "", std::to_string(static_cast<int>(model)));
    return model;
}

bool LiveCameraGrabber::hasMCU() const
{
    const bool has = d->camera && d->camera->setup.hasMcu;
    record(Query, d->name, "hasMCU", "", join(has));
    return has;
}

void LiveCameraGrabber::Private::present(std::uint8_t value)
{
    current.assign(frameBytes(), value);
}

bool LiveCameraGrabber::Private::takePushed()
{
    sdkfake::PushedFrame frame;
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        if (camera->pushed.empty()) {
            return false;
        }
        frame = std::move(camera->pushed.front());
        camera->pushed.pop_front();
    }
    // Whoever still reads the frame before sees rubbish.
    std::swap(current, previous);
    std::fill(previous.begin(), previous.end(), std::uint8_t{0xDD});
    if (frame.pixels.empty()) {
        present(frame.value);
    } else {
        if (frame.pixels.size() != frameBytes()) {
            misuse("a frame of the wrong size was pushed");
        }
        frame.pixels.resize(frameBytes());
        current = std::move(frame.pixels);
    }
    timestamp = frame.timestamp;
    latestImu = frame.imu;
    return true;
}

bool LiveCameraGrabber::Private::takeFreeRunning()
{
    std::int64_t number = -1;
    sdkfake::FreeRun run;
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        if (!camera->freeRun) {
            return false;
        }
        run = *camera->freeRun;
        const std::chrono::nanoseconds age =
            std::chrono::steady_clock::now() - camera->freeRunStart;
        number = age.count() / static_cast<std::int64_t>(run.period());
        if (number <= camera->lastDelivered) {
            return false;
        }
        camera->lastDelivered = number;
    }
    const auto n = static_cast<std::uint64_t>(number);
    present(sdkfake::FreeRun::patternOf(n));
    timestamp = run.base + n * run.period();
    latestImu = IMUPacket{};
    if (run.imuPerFrame > 0) {
        latestImu =
            sdkfake::makeImuPacket(n * static_cast<std::uint64_t>(run.imuPerFrame), timestamp);
    }
    return true;
}

int LiveCameraGrabber::getFrameStatus()
{
    const Inside inside(d->inside);
    if (!d->camera) {
        misuse(d->name + ".getFrameStatus while closed");
        return 0;
    }
    sdkfake::waitWhile(d->camera->blocked);
    ++d->camera->polls;
    if (!d->takePushed() && !d->takeFreeRunning()) {
        const std::lock_guard<std::mutex> lock(world().mutex);
        return d->camera->setup.idleStatus;
    }
    d->hasFrame = true;
    record(Frame, d->name, "getFrameStatus", "", "1");
    return 1;
}

unsigned char* LiveCameraGrabber::getPixels()
{
    const Inside inside(d->inside);
    record(Frame, d->name, "getPixels", "");
    if (!d->hasFrame) {
        misuse(d->name + ".getPixels before the first frame");
        return nullptr;
    }
    return d->current.data();
}

Timestamp LiveCameraGrabber::getTimeStamp()
{
    const Inside inside(d->inside);
    record(Frame, d->name, "getTimeStamp", "", std::to_string(d->timestamp));
    return d->timestamp;
}

IMUPacket& LiveCameraGrabber::getIMUPacket()
{
    const Inside inside(d->inside);
    record(Frame, d->name, "getIMUPacket", "", std::to_string(d->latestImu.sequence));
    return d->latestImu;
}

KORmcu* LiveCameraGrabber::getMCU()
{
    record(Query, d->name, "getMCU", "", join(d->mcu != nullptr));
    return d->mcu;
}

void LiveCameraGrabber::close(bool force)
{
    record(Control, d->name, "close", join(force));
    if (d->inside != 0) {
        misuse(d->name + " closed while a thread is inside");
    }
    delete d->mcu;
    d->mcu = nullptr;
    d->camera.reset();
    d->width = 0;
    d->height = 0;
    d->fps = 0;
    d->hasFrame = false;
}

}  // namespace tq
