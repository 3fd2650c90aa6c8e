// SPDX-License-Identifier: Apache-2.0
// The frame buffers of one capture worker.
#include "capture/framepool.h"

#include <algorithm>

namespace {

constexpr std::size_t kMaxBytes = 240'000'000;
constexpr std::size_t kEventBytes = 4096;  // what travels with a frame, generously
constexpr std::size_t kMinBuffers = 2;
constexpr std::size_t kKeptIdle = 4;

void freePixels(tq::Mat& buffer)
{
    if (buffer.getPtr<unsigned char>(sdk::kHostMemory) != nullptr) {
        buffer.free(sdk::kAllMemory);
    }
}

}  // namespace

FramePool::FramePool(int widthPixels, int heightPixels) : width(widthPixels), height(heightPixels)
{
    giveBack(take());
}

std::size_t FramePool::depth(int width, int height)
{
    const std::size_t frameBytes = static_cast<std::size_t>(width) *
                                   static_cast<std::size_t>(height) * sdk::kYuyvBytesPerPixel;
    return std::max(kMaxBytes / (frameBytes + kEventBytes), kMinBuffers);
}

tq::Mat* FramePool::take()
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (idle.empty()) {
        if (buffers.size() >= depth(width, height)) {
            return nullptr;
        }
        idle.push_back(&buffers.emplace_back());
    }
    tq::Mat* const buffer = idle.back();
    idle.pop_back();
    if (buffer->getPtr<unsigned char>(sdk::kHostMemory) == nullptr) {
        buffer->alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height),
                      sdk::kYuyv, sdk::kHostMemory);
    }
    return buffer;
}

void FramePool::giveBack(tq::Mat* buffer)
{
    const std::lock_guard<std::mutex> lock(mutex);
    idle.push_back(buffer);
    if (idle.size() > kKeptIdle) {
        freePixels(*idle[idle.size() - 1 - kKeptIdle]);
    }
}

void FramePool::free()
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (tq::Mat& buffer : buffers) {
        freePixels(buffer);
    }
}
