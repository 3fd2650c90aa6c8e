// SPDX-License-Identifier: Apache-2.0
// Playing of a recording.
#include "sdk/sources/recordingsource.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "sdk/core/log.h"
#include "sdk/sources/streamfile.h"

namespace tq {

namespace {

// Frames of recordings up to this size are made once, while a camera opens; of longer ones as they
// are played.
constexpr std::size_t kReadyBytes = 64u << 20;
constexpr std::size_t kReadyFrames = 100;

}  // namespace

RecordingSource::RecordingSource(const rig::RecordingSettings& sourceSettings,
                                 const Clock& sourceClock)
    : GridSource(sourceClock), settings(sourceSettings)
{
}

FrameFormat RecordingSource::open(const FrameFormat& wanted)
{
    recording = std::make_unique<const Recording>(settings, clock.now());
    scaler = std::make_unique<PictureScaler>(wanted.width, wanted.height);
    if (!recording->video()) {
        preload(wanted.bytes());
    }
    begin(recording->framesPerSecond(), clock.now());
    return {wanted.width, wanted.height, recording->framesPerSecond()};
}

void RecordingSource::preload(std::size_t frameBytes)
{
    const std::vector<RecordedFrame>& frames = recording->frames();
    if (frames.size() > std::min(kReadyFrames, kReadyBytes / frameBytes)) {
        return;
    }
    for (const RecordedFrame& frame : frames) {
        scaler->scale(readPng(frame.file), pictures.emplace_back(frameBytes).data());
    }
}

Timestamp RecordingSource::captureTime(std::uint64_t number) const
{
    return recording->playedFrame(number);
}

std::uint64_t RecordingSource::firstAfter(Timestamp time) const
{
    return recording->firstAfter(time);
}

std::string RecordingSource::name() const
{
    return "the recording " + settings.path;
}

bool RecordingSource::draw(std::uint64_t number, Timestamp, const FrameBuffer& buffer)
{
    if (recording->isOver(number)) {
        logLine(name() + " is over, its " + settings.camera + " is silent from now on");
        return false;
    }
    const std::size_t index = number % recording->frames().size();
    if (recording->video()) {
        const std::optional<Picture> picture =
            recording->video()->picture(number, recording->eye());
        if (picture) {
            scaler->scale(*picture, buffer.pixels);
        }
        return picture.has_value();
    }
    if (pictures.empty()) {
        scaler->scale(readPng(recording->frames()[index].file), buffer.pixels);
    } else {
        std::copy(pictures[index].begin(), pictures[index].end(), buffer.pixels);
    }
    return true;
}

}  // namespace tq
