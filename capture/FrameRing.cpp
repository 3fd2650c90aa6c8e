// SPDX-License-Identifier: Apache-2.0
// The frame buffers of one capture worker.
#include "capture/FrameRing.h"

#include <algorithm>

namespace {

constexpr std::size_t kMaxBytes = 240'000'000;
constexpr std::size_t kMaxStartBytes = 64'000'000;
constexpr std::size_t kMinBuffers = 2;
constexpr std::size_t kMaxBuffers = 1000;
constexpr int kUsualDelayMs = 300;
constexpr int kSpareBuffers = 3;

// How many buffers so many bytes hold.
std::size_t affordable(std::size_t bytes, int width, int height)
{
    const std::size_t frameBytes =
        std::max<std::size_t>(1, static_cast<std::size_t>(width) *
                                     static_cast<std::size_t>(height) * sdk::kYuyvBytesPerPixel);
    return std::clamp(bytes / frameBytes, kMinBuffers, kMaxBuffers);
}

}  // namespace

FrameRing::FrameRing(int widthPixels, int heightPixels, int fps)
    : width(widthPixels),
      height(heightPixels),
      limit(depth(widthPixels, heightPixels)),
      startLimit(startDepth(widthPixels, heightPixels, fps)),
      kept(keptDepth(widthPixels, heightPixels, fps))
{
    idle.reserve(kept);
    inFlight.resize(limit);
}

FrameRing::~FrameRing()
{
    for (tq::Mat& buffer : buffers) {
        buffer.free(sdk::kAllMemory);
    }
}

std::size_t FrameRing::depth(int width, int height)
{
    return affordable(kMaxBytes, width, height);
}

std::size_t FrameRing::startDepth(int width, int height, int fps)
{
    return std::max(affordable(kMaxStartBytes, width, height), keptDepth(width, height, fps));
}

std::size_t FrameRing::keptDepth(int width, int height, int fps)
{
    const int wanted = (std::max(fps, 1) * kUsualDelayMs + 999) / 1000 + kSpareBuffers;
    return std::min(static_cast<std::size_t>(wanted), depth(width, height));
}

tq::Mat* FrameRing::acquire()
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (!idle.empty()) {
        tq::Mat* const buffer = idle.back();
        idle.pop_back();
        return buffer;
    }
    if (buffers.size() >= (delivered ? limit : startLimit)) {
        return nullptr;
    }
    tq::Mat& buffer = buffers.emplace_back();
    buffer.alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height), sdk::kYuyv,
                 sdk::kHostMemory);
    return &buffer;
}

void FrameRing::giveBack(tq::Mat* buffer)
{
    const std::lock_guard<std::mutex> lock(mutex);
    idle.push_back(buffer);
}

void FrameRing::markInFlight(tq::Mat* buffer)
{
    const std::lock_guard<std::mutex> lock(mutex);
    inFlight[(oldestInFlight + inFlightCount) % limit] = buffer;
    ++inFlightCount;
}

void FrameRing::release()
{
    delivered = true;
    const std::lock_guard<std::mutex> lock(mutex);
    if (inFlightCount == 0) {
        return;
    }
    tq::Mat* const buffer = inFlight[oldestInFlight];
    oldestInFlight = (oldestInFlight + 1) % limit;
    --inFlightCount;
    if (idle.size() < kept) {
        idle.push_back(buffer);
        return;
    }
    buffer->free(sdk::kAllMemory);
    buffers.remove_if([buffer](const tq::Mat& other) { return &other == buffer; });
}
