// SPDX-License-Identifier: Apache-2.0
// Camera source `recording`: a recording, played in an endless loop or once.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sdk/sources/gridsource.h"
#include "sdk/sources/picture.h"
#include "sdk/sources/recording.h"

namespace tq {

/// Plays one camera of a recording in real time, scaled to the wanted size. What is played once is
/// silent afterwards.
class RecordingSource : public GridSource {
public:
    RecordingSource(const rig::RecordingSettings& settings, const Clock& clock);

    FrameFormat open(const FrameFormat& wanted) override;

private:
    std::string name() const override;
    Timestamp captureTime(std::uint64_t number) const override;
    std::uint64_t firstAfter(Timestamp time) const override;
    bool draw(std::uint64_t number, Timestamp time, const FrameBuffer& buffer) override;
    void preload(std::size_t frameBytes);

    const rig::RecordingSettings settings;
    std::unique_ptr<const Recording> recording;
    std::unique_ptr<PictureScaler> scaler;
    std::vector<std::vector<std::uint8_t>> pictures;  // YUYV; none when made as they are played
};

}  // namespace tq
