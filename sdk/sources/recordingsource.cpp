// SPDX-License-Identifier: Apache-2.0
// Playing of a recording.
#include "sdk/sources/recordingsource.h"

#include <optional>
#include <utility>

#include "sdk/core/log.h"
#include "sdk/sources/streamfile.h"

namespace tq {

namespace {

// Recordings up to this size are decoded once; longer ones ahead of every frame.
constexpr std::size_t kDecodedBytes = 64u << 20;

}  // namespace

RecordingSource::RecordingSource(const rig::RecordingSettings& sourceSettings,
                                 const Clock& sourceClock)
    : GridSource(sourceClock), settings(sourceSettings)
{
}

FrameFormat RecordingSource::open(const FrameFormat& wanted)
{
    recording = std::make_unique<const Recording>(settings, clock.now());
    if (!recording->video()) {
        preload();
    }
    scaler = std::make_unique<PictureScaler>(wanted.width, wanted.height);
    begin(recording->framesPerSecond(), clock.now());
    return {wanted.width, wanted.height, recording->framesPerSecond()};
}

void RecordingSource::preload()
{
    const std::vector<RecordedFrame>& frames = recording->frames();
    std::size_t bytes = 0;
    for (const RecordedFrame& frame : frames) {
        Picture picture = readPng(frame.file);
        bytes += picture.bytes();
        // The first picture foretells the sum, if they are all alike.
        const std::size_t expected = pictures.empty() ? picture.bytes() * frames.size() : bytes;
        if (expected > kDecodedBytes) {
            pictures = {};
            return;
        }
        pictures.push_back(std::move(picture));
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
        scaler->scale(pictures[index], buffer.pixels);
    }
    return true;
}

}  // namespace tq
