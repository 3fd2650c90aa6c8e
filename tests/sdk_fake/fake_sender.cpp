// SPDX-License-Identifier: Apache-2.0
// The SDK's side of the scripted network sender.
#include <cstring>

#include "tests/sdk_fake/world.h"

using sdkfake::Control;
using sdkfake::Frame;
using sdkfake::Inside;
using sdkfake::join;
using sdkfake::misuse;
using sdkfake::record;
using sdkfake::world;

namespace tq {

struct UDPOutput::Private {
    std::string name;
    std::shared_ptr<sdkfake::SenderState> state;
    std::size_t frameBytes = 0;

    bool isOpen() const
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        return state->record.opened && !state->record.closed;
    }
};

UDPOutput::UDPOutput(STREAMING_MODE mode, bool verbose) : d(std::make_unique<Private>())
{
    d->state = std::make_shared<sdkfake::SenderState>();
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        sdkfake::Sender& sender = d->state->record;
        sender.number = static_cast<int>(world().senders.size()) + 1;
        sender.mode = static_cast<int>(mode);
        sender.verbose = verbose;
        world().senders.push_back(d->state);
        ++world().livingObjects;
        d->name = "UDPOutput#" + std::to_string(sender.number);
    }
    record(Control, d->name, "UDPOutput", join(static_cast<int>(mode), verbose));
}

UDPOutput::~UDPOutput()
{
    record(Control, d->name, "~UDPOutput", "");
    if (d->state->inside != 0) {
        misuse(d->name + " destroyed while a thread is inside");
    }
    const std::lock_guard<std::mutex> lock(world().mutex);
    d->state->record.destroyed = true;
    --world().livingObjects;
}

int UDPOutput::open(UDPOutConfig config)
{
    sdkfake::waitWhile(world().openBlocked);
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        sdkfake::Sender& sender = d->state->record;
        std::memcpy(sender.config.data(), &config, sizeof config);
        const auto special = world().resultByPort.find(sender.port());
        result = special != world().resultByPort.end() ? special->second : world().senderResult;
        sender.opened = result == 0;
    }
    d->frameBytes =
        static_cast<std::size_t>(config.width) * 2 * static_cast<std::size_t>(config.height) * 2;
    record(
        Control, d->name, "open",
        join("port " + std::to_string(config.port), "serial " + std::to_string(config.serialNumber),
             std::to_string(config.width) + "x" + std::to_string(config.height) + "@" +
                 std::to_string(config.fps),
             "imu " + std::to_string(config.imuRate)),
        std::to_string(result));
    return result;
}

void UDPOutput::ingestYUVFrame(unsigned char* yuyv, Timestamp timestamp,
                               kvfrw::kvfSampleMetadata metadata)
{
    const Inside inside(d->state->inside);
    if (!d->isOpen()) {
        misuse(d->name + ".ingestYUVFrame while not open");
    }
    record(Frame, d->name, "ingestYUVFrame", join(timestamp));
    sdkfake::waitWhile(world().ingestBlocked);
    auto frame = std::make_shared<sdkfake::IngestedFrame>();
    frame->timestamp = timestamp;
    frame->thread = std::this_thread::get_id();
    std::memcpy(frame->metadata.data(), &metadata, sizeof metadata);

    bool keep = false;
    sdkfake::Sender sender;
    decltype(world().onFrame) observer;
    {
        const std::lock_guard<std::mutex> lock(world().mutex);
        keep = world().keepPixels;
        observer = world().onFrame;
        if (observer) {
            sender = d->state->record;
        }
    }
    if (keep) {
        frame->pixels.assign(yuyv, yuyv + d->frameBytes);
    }
    if (observer) {
        observer(sender, yuyv, timestamp);
    }
    const std::lock_guard<std::mutex> lock(world().mutex);
    d->state->record.frames.push_back(std::move(frame));
}

void UDPOutput::ingestIMU(IMUPacket packet)
{
    const Inside inside(d->state->inside);
    if (!d->isOpen()) {
        misuse(d->name + ".ingestIMU while not open");
    }
    record(Frame, d->name, "ingestIMU", join(packet.timestamp));
    const std::lock_guard<std::mutex> lock(world().mutex);
    d->state->record.imuPackets.push_back(packet);
}

void UDPOutput::close()
{
    record(Control, d->name, "close", "");
    const std::lock_guard<std::mutex> lock(world().mutex);
    d->state->record.closed = true;
}

}  // namespace tq
