// SPDX-License-Identifier: Apache-2.0
// Playing of a recording.
#include "sdk/sources/recordingsource.h"

namespace tq {

namespace {

// Recordings up to this size are decoded once; longer ones ahead of every frame.
constexpr std::size_t kDecodedBytes = 64u << 20;

}  // namespace

RecordingSource::RecordingSource(const rig::RecordingSettings& sourceSettings,
                                 const Clock& sourceClock)
    : GridSource(sourceClock), settings(sourceSettings), recording(sourceSettings.path)
{
}

SourceResult RecordingSource::open(const FrameRequest& request)
{
    if (!recording.readCamera(settings.camera, reason)) {
        return {ErrorCode::SOURCE_UNAVAILABLE, reason};
    }
    if (!preload()) {
        return {ErrorCode::SOURCE_INVALID, reason};
    }
    scaler = std::make_unique<PictureScaler>(request.width, request.height);
    begin({request.width, request.height, recording.framesPerSecond()}, clock.now());
    return {};
}

bool RecordingSource::preload()
{
    const std::vector<RecordedFrame>& frames = recording.frames();
    if (!readPng(frames.front().file, current, reason)) {
        return false;
    }
    if (current.bytes() * frames.size() > kDecodedBytes) {
        return true;
    }
    for (const RecordedFrame& frame : frames) {
        Picture decoded;
        if (!readPng(frame.file, decoded, reason)) {
            return false;
        }
        pictures.push_back(std::move(decoded));
    }
    return true;
}

const Picture* RecordingSource::picture(std::size_t index)
{
    if (!pictures.empty()) {
        return &pictures[index];
    }
    return readPng(recording.frames()[index].file, current, reason) ? &current : nullptr;
}

Timestamp RecordingSource::captureTime(std::uint64_t number) const
{
    const std::size_t count = recording.frames().size();
    const PlaybackLoop& loop = recording.loop();
    return loop.played(recording.frames()[number % count].time, number / count * loop.duration);
}

std::uint64_t RecordingSource::firstAfter(Timestamp time) const
{
    std::uint64_t number = time / recording.loop().duration * recording.frames().size();
    while (captureTime(number) <= time) {
        ++number;
    }
    return number;
}

std::string RecordingSource::name() const
{
    return "the recording " + settings.path;
}

GridSource::Drawing RecordingSource::draw(std::uint64_t number, Timestamp,
                                          const FrameBuffer& buffer)
{
    const Picture* frame = picture(number % recording.frames().size());
    if (frame == nullptr) {
        return Drawing::FAILED;
    }
    scaler->scale(*frame, buffer.pixels);
    return Drawing::DONE;
}

}  // namespace tq
