// SPDX-License-Identifier: Apache-2.0
// Camera source `recording`: a recording played in an endless loop.
#pragma once

#include <memory>
#include <vector>

#include "sdk/sources/gridsource.h"
#include "sdk/sources/picture.h"
#include "sdk/sources/recording.h"

namespace tq {

/// Plays one camera of a recording in real time, scaled to the wanted size.
class RecordingSource : public GridSource {
public:
    RecordingSource(const rig::RecordingSettings& settings, const Clock& clock);

    SourceResult open(const FrameRequest& request) override;
    std::string failure() const override { return reason; }

private:
    std::string name() const override;
    Timestamp captureTime(std::uint64_t number) const override;
    std::uint64_t firstAfter(Timestamp time) const override;
    Drawing draw(std::uint64_t number, Timestamp time, const FrameBuffer& buffer) override;
    bool preload();
    const Picture* picture(std::size_t index);

    const rig::RecordingSettings settings;
    Recording recording;
    std::unique_ptr<PictureScaler> scaler;
    std::vector<Picture> pictures;  // all of them, or empty when they are read as they are played
    Picture current;
    std::string reason;
};

}  // namespace tq
