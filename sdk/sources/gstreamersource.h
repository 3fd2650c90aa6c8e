// SPDX-License-Identifier: Apache-2.0
// Camera source `gstreamer`: any pipeline that ends in raw video.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "sdk/sources/framesource.h"

namespace tq {

/// Converts and scales what a pipeline delivers. The capture time of a frame is its buffer's
/// timestamp on the pipeline's clock, carried over to the real-time clock.
class GStreamerSource : public FrameSource {
public:
    /// How long a driver may take to open a camera, before it counts as hanging.
    static constexpr std::chrono::seconds kOpenLimit{10};

    /// @param serialNumber of the camera, for the log
    GStreamerSource(const rig::GStreamerSettings& sourceSettings, int serialNumber,
                    const Clock& sourceClock,
                    std::chrono::milliseconds longestOpening = kOpenLimit);
    ~GStreamerSource() override;

    FrameFormat open(const FrameFormat& wanted) override;
    bool next(const FrameBuffer& buffer, Timestamp& timestamp) override;

private:
    struct Pipeline;

    void start(const std::string& description);
    bool pull();
    void copyFrame(unsigned char* pixels) const;
    Timestamp captureTime();

    const rig::GStreamerSettings settings;
    const int serial;
    const Clock& clock;
    const std::chrono::milliseconds openLimit;
    FrameFormat delivered;
    std::unique_ptr<Pipeline> pipeline;
    std::int64_t clockOffset = 0;
    bool clockOffsetKnown = false;
    Timestamp lastTime = 0;
};

}  // namespace tq
