// SPDX-License-Identifier: Apache-2.0
// Camera source `recording`: a recording played in an endless loop.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "sdk/sources/framesource.h"
#include "sdk/sources/picture.h"
#include "sdk/sources/recording.h"

namespace tq {

/// Plays one camera of a recording in real time, scaled to the wanted size.
class RecordingSource : public FrameSource {
public:
    RecordingSource(const rig::RecordingSettings& settings, const Clock& clock);

    SourceResult open(const FrameRequest& request) override;
    FrameFormat format() const override { return delivered; }
    FrameResult next(const FrameBuffer& buffer, Timestamp& timestamp) override;
    void stop() override { stopping.store(true); }
    std::uint64_t skippedFrames() const override { return skipped.load(); }
    std::string failure() const override { return reason; }

private:
    Timestamp captureTime(std::uint64_t number) const;
    std::uint64_t firstAfter(Timestamp time) const;
    void catchUp();
    bool preload();
    const Picture* picture(std::size_t index);

    const rig::RecordingSettings settings;
    const Clock& clock;
    Recording recording;
    FrameFormat delivered;
    std::unique_ptr<PictureScaler> scaler;
    std::vector<Picture> pictures;  // all of them, or empty when they are read as they are played
    Picture current;
    std::uint64_t nextFrame = 0;  // counted over all rounds
    std::string reason;
    std::atomic<std::uint64_t> skipped{0};
    std::atomic<bool> stopping{false};
};

}  // namespace tq
