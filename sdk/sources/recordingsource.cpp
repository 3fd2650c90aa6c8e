// SPDX-License-Identifier: Apache-2.0
// Playing of a recording.
#include "sdk/sources/recordingsource.h"

#include <algorithm>

#include "sdk/core/log.h"

namespace tq {

namespace {

// Recordings up to this size are decoded once; longer ones ahead of every frame.
constexpr std::size_t kDecodedBytes = 64u << 20;

}  // namespace

RecordingSource::RecordingSource(const rig::RecordingSettings& sourceSettings,
                                 const Clock& sourceClock)
    : settings(sourceSettings), clock(sourceClock), recording(sourceSettings.path)
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
    delivered = {request.width, request.height, recording.framesPerSecond()};
    scaler = std::make_unique<PictureScaler>(request.width, request.height);
    nextFrame = firstAfter(clock.now());
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

void RecordingSource::catchUp()
{
    const Timestamp now = clock.now();
    const Timestamp period = 1000000000u / static_cast<Timestamp>(delivered.fps);
    if (captureTime(nextFrame) + kPatienceFrames * period >= now) {
        return;
    }
    const std::uint64_t late = nextFrame;
    nextFrame = std::max(firstAfter(now) - 1, late + 1);  // the newest that is due
    skipped.fetch_add(nextFrame - late);
}

FrameResult RecordingSource::next(const FrameBuffer& buffer, Timestamp& timestamp)
{
    while (!stopping.load()) {
        catchUp();
        const Picture* frame = picture(nextFrame % recording.frames().size());
        if (frame == nullptr) {
            return FrameResult::FAILED;
        }
        scaler->scale(*frame, buffer.pixels);
        const Timestamp time = captureTime(nextFrame);
        const Wake wake = clock.sleepUntil(time, stopping);
        if (wake == Wake::SET_BACK) {
            logLine("the real-time clock was set back, the recording " + settings.path +
                    " follows");
            nextFrame = firstAfter(clock.now());
            continue;
        }
        if (wake == Wake::REACHED) {
            ++nextFrame;
            timestamp = time;
            return FrameResult::FRAME;
        }
    }
    return FrameResult::STOPPED;
}

}  // namespace tq
