// SPDX-License-Identifier: Apache-2.0
// The test's side of the scripted SDK.
#include "tests/sdk_fake/sdk_fake.h"

#include <algorithm>
#include <cstring>

#include "tests/sdk_fake/world.h"

namespace sdkfake {

namespace {

std::shared_ptr<CameraState> requireCamera(int serial)
{
    auto camera = cameraBySerial(serial);
    if (!camera) {
        std::fprintf(stderr, "sdkfake: no camera %d was added\n", serial);
        std::abort();
    }
    return camera;
}

}  // namespace

void reset()
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    if (world().livingObjects != 0) {
        std::fprintf(stderr, "sdkfake: reset while %d SDK objects exist\n", world().livingObjects);
        std::abort();
    }
    world().calls.clear();
    world().misuses.clear();
    world().mirror = nullptr;
    world().cameras.clear();
    world().senders.clear();
    world().resultByPort.clear();
    world().senderResult = 0;
    world().grabbers = 0;
    world().keepPixels = true;
    world().onFrame = nullptr;
    world().ingestBlocked = false;
    world().openBlocked = false;
}

std::string Call::text() const
{
    return object + "." + function + "(" + arguments + ")" +
           (result.empty() ? std::string() : " = " + result);
}

std::vector<Call> calls(unsigned kinds)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    std::vector<Call> chosen;
    std::copy_if(world().calls.begin(), world().calls.end(), std::back_inserter(chosen),
                 [kinds](const Call& call) { return (call.kind & kinds) != 0; });
    return chosen;
}

std::vector<std::string> callTexts(unsigned kinds)
{
    std::vector<std::string> texts;
    for (const Call& call : calls(kinds)) {
        texts.push_back(call.text());
    }
    return texts;
}

void clearCalls()
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    world().calls.clear();
}

void mirrorCalls(std::FILE* stream)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    world().mirror = stream;
}

std::vector<std::string> misuses()
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    return world().misuses;
}

void addCamera(const CameraSetup& setup)
{
    auto camera = std::make_shared<CameraState>();
    camera->setup = setup;
    const std::lock_guard<std::mutex> lock(world().mutex);
    world().cameras.push_back(std::move(camera));
}

void changeCamera(const CameraSetup& setup)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    requireCamera(setup.serial)->setup = setup;
}

tq::IMUPacket makeImuPacket(std::uint64_t sequence, tq::Timestamp timestamp)
{
    tq::IMUPacket packet;
    auto* const bytes = reinterpret_cast<unsigned char*>(&packet);
    for (std::size_t i = 0; i < sizeof packet; ++i) {
        bytes[i] = static_cast<unsigned char>(1 + (sequence * 31 + i * 7) % 255);
    }
    packet.timestamp = timestamp;
    packet.sequence = sequence;
    return packet;
}

void pushFrame(int serial, tq::Timestamp timestamp, std::uint8_t value,
               const tq::IMUPacket& latestImu)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    requireCamera(serial)->pushed.push_back({{}, value, timestamp, latestImu});
}

void pushFrame(int serial, tq::Timestamp timestamp, std::vector<std::uint8_t> pixels,
               const tq::IMUPacket& latestImu)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    requireCamera(serial)->pushed.push_back({std::move(pixels), 0, timestamp, latestImu});
}

std::size_t waitingFrames(int serial)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    return requireCamera(serial)->pushed.size();
}

void pushImu(int serial, const tq::IMUPacket& packet)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    requireCamera(serial)->imuHistory.push_back(packet);
}

void startFreeRun(int serial, const FreeRun& run)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    const auto camera = requireCamera(serial);
    camera->freeRun = run;
    camera->freeRunStart = std::chrono::steady_clock::now();
    camera->lastDelivered = -1;
}

void stopFreeRun(int serial)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    requireCamera(serial)->freeRun.reset();
}

int polls(int serial)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    return requireCamera(serial)->polls;
}

void blockFrameStatus(int serial, bool block)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    requireCamera(serial)->blocked = block;
}

int Sender::port() const
{
    std::uint16_t port;
    std::memcpy(&port, config.data() + 4, sizeof port);
    return port;
}

int Sender::serialNumber() const
{
    std::int32_t serial;
    std::memcpy(&serial, config.data() + 44, sizeof serial);
    return serial;
}

std::vector<Sender> senders()
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    std::vector<Sender> records;
    for (const auto& sender : world().senders) {
        records.push_back(sender->record);
    }
    return records;
}

Sender lastSender()
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    return world().senders.empty() ? Sender() : world().senders.back()->record;
}

Sender senderOnPort(int port)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    for (auto sender = world().senders.rbegin(); sender != world().senders.rend(); ++sender) {
        if ((*sender)->record.opened && (*sender)->record.port() == port) {
            return (*sender)->record;
        }
    }
    return {};
}

void setSenderResult(int code)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    world().senderResult = code;
}

void setSenderResult(int port, int code)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    world().resultByPort[port] = code;
}

void keepPixels(bool keep)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    world().keepPixels = keep;
}

void onFrame(
    std::function<void(const Sender&, const unsigned char* pixels, tq::Timestamp)> function)
{
    const std::lock_guard<std::mutex> lock(world().mutex);
    world().onFrame = std::move(function);
}

int heldCalls()
{
    return world().heldCalls;
}

void blockIngest(bool block)
{
    world().ingestBlocked = block;
}

void blockOpen(bool block)
{
    world().openBlocked = block;
}

}  // namespace sdkfake
