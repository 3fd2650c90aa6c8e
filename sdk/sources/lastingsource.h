// SPDX-License-Identifier: Apache-2.0
// A source that outlives the failures of its camera.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "sdk/sources/framesource.h"

namespace tq {

/// Opens a camera that fails anew, after 1, 2, 4, 8, 16, 30, 30 ... seconds, until it delivers
/// again. The log says so once each way. Meanwhile next() waits, as for a camera that is silent.
class LastingSource : public FrameSource {
public:
    using Maker = std::function<std::unique_ptr<FrameSource>()>;

    /// @param makeSource  a source of the camera, for one opening
    /// @param cameraName  for the log
    /// @param sourceClock for the waits; must outlive the source
    LastingSource(Maker makeSource, std::string cameraName, const Clock& sourceClock);

    /// Tries once, so that a camera which cannot be opened at all is refused.
    FrameFormat open(const FrameFormat& wantedFormat) override;
    /// Throws nothing.
    bool next(const FrameBuffer& buffer, Timestamp& timestamp) override;
    void stop() override;
    std::uint64_t skippedFrames() const override;

private:
    FrameFormat openSource();
    void reopen();
    bool waitAfter(const std::string& failure);
    void reportReturn();

    const Maker make;
    const std::string name;
    const Clock& clock;
    FrameFormat wanted;
    FrameFormat promised;
    mutable std::mutex mutex;             // stop() may come while the source is exchanged
    std::unique_ptr<FrameSource> source;  // null between two attempts
    std::uint64_t skippedBefore = 0;      // by sources that have failed
    Timestamp pause = 0;   // before the next attempt, ns; 0 while the camera delivers
    Timestamp failed = 0;  // when the camera failed
    bool sizeReported = false;
};

}  // namespace tq
