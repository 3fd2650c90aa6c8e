// SPDX-License-Identifier: Apache-2.0
// Camera source `gstreamer`: any pipeline that ends in raw video.
#pragma once

#include <atomic>
#include <memory>

#include "sdk/sources/framesource.h"

namespace tq {

/// Converts and scales what a pipeline delivers. The capture time of a frame is its buffer's
/// timestamp on the pipeline's clock, carried over to the real-time clock.
class GStreamerSource : public FrameSource {
public:
    GStreamerSource(const rig::GStreamerSettings& settings, const Clock& clock);
    ~GStreamerSource() override;

    SourceResult open(const FrameRequest& request) override;
    FrameFormat format() const override { return delivered; }
    FrameResult next(const FrameBuffer& buffer, Timestamp& timestamp) override;
    void stop() override { stopping.store(true); }
    std::string failure() const override { return reason; }

private:
    struct Pipeline;
    enum class Pull { SAMPLE, STOPPED, FAILED };

    SourceResult start(const std::string& description);
    Pull pull();
    bool copyFrame(unsigned char* pixels);
    Timestamp captureTime();

    const rig::GStreamerSettings settings;
    const Clock& clock;
    FrameFormat delivered;
    std::unique_ptr<Pipeline> pipeline;
    std::int64_t clockOffset = 0;
    bool clockOffsetKnown = false;
    Timestamp lastTime = 0;
    std::string reason;
    std::atomic<bool> stopping{false};
};

}  // namespace tq
