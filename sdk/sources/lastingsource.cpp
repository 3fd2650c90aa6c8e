// SPDX-License-Identifier: Apache-2.0
// Opening of failed cameras anew.
#include "sdk/sources/lastingsource.h"

#include <algorithm>
#include <utility>

#include "sdk/core/log.h"

namespace tq {

namespace {

constexpr Timestamp kSecond = 1000000000;
constexpr Timestamp kLongestPause = 30 * kSecond;

std::string sizeOf(const FrameFormat& format)
{
    return std::to_string(format.width) + " x " + std::to_string(format.height);
}

}  // namespace

LastingSource::LastingSource(Maker makeSource, std::string cameraName, const Clock& sourceClock)
    : make(std::move(makeSource)), name(std::move(cameraName)), clock(sourceClock)
{
}

FrameFormat LastingSource::open(const FrameFormat& wantedFormat)
{
    wanted = wantedFormat;
    promised = openSource();
    return promised;
}

FrameFormat LastingSource::openSource()
{
    std::unique_ptr<FrameSource> opened = make();
    FrameSource* const current = opened.get();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        source = std::move(opened);
        if (stopping.load()) {
            source->stop();
        }
    }
    return current->open(wanted);
}

void LastingSource::reopen()
{
    const FrameFormat format = openSource();
    // Readers have made their buffers by what the first opening promised.
    if (format.width != promised.width || format.height != promised.height) {
        const std::string sizes = sizeOf(format) + " instead of " + sizeOf(promised);
        if (!std::exchange(sizeReported, true)) {
            logLine(name + " came back with pictures of " + sizes + ", it is tried again");
        }
        throw InvalidVideo("pictures of " + sizes);
    }
}

bool LastingSource::next(const FrameBuffer& buffer, Timestamp& timestamp)
{
    while (!stopping.load()) {
        std::string failure;
        try {
            if (source == nullptr) {
                reopen();
            }
            if (!source->next(buffer, timestamp)) {
                return false;
            }
            reportReturn();
            return true;
        } catch (const std::exception& error) {
            failure = error.what();
        }
        if (!waitAfter(failure)) {
            return false;
        }
    }
    return false;
}

/// @return false when it was stopped
bool LastingSource::waitAfter(const std::string& failure)
{
    std::unique_ptr<FrameSource> gone;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        gone = std::move(source);
        skippedBefore += gone != nullptr ? gone->skippedFrames() : 0;
    }
    gone.reset();
    if (stopping.load()) {
        return false;
    }
    if (pause == 0) {
        failed = clock.now();
        logLine(name + " failed: " + failure + "; it is opened anew until it delivers again");
    }
    pause = std::clamp(2 * pause, kSecond, kLongestPause);
    // A clock that is set cuts the wait short, which does no harm.
    return clock.sleepUntil(clock.now() + pause, stopping) != Wake::STOPPED;
}

void LastingSource::reportReturn()
{
    if (pause == 0) {
        return;
    }
    const Timestamp away = std::max(clock.now(), failed) - failed;
    logLine(name + " delivers again after " + std::to_string((away + kSecond / 2) / kSecond) +
            " s");
    pause = 0;
    sizeReported = false;
}

void LastingSource::stop()
{
    const std::lock_guard<std::mutex> lock(mutex);
    FrameSource::stop();
    if (source != nullptr) {
        source->stop();
    }
}

std::uint64_t LastingSource::skippedFrames() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return skippedBefore + (source != nullptr ? source->skippedFrames() : 0);
}

}  // namespace tq
