// SPDX-License-Identifier: Apache-2.0
// Reference-counted image buffer on a pool of pixel memory.
#include "tq_kor/mat.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include <sys/mman.h>

namespace tq {

namespace {

constexpr std::size_t kAlignment = 64;
constexpr std::size_t kMappedBytes = 1u << 20;
constexpr std::size_t kMaxPooledBytes = 128u << 20;

/// Releases what allocate() gave.
struct Release {
    std::size_t bytes = 0;

    void operator()(std::uint8_t* pixels) const noexcept
    {
        if (bytes >= kMappedBytes) {
            munmap(pixels, bytes);
        } else {
            ::operator delete (pixels, std::align_val_t{kAlignment});
        }
    }
};
using Memory = std::unique_ptr<std::uint8_t, Release>;

/// Pixel memory. What is large is mapped, so that the system has it back when it is freed, whatever
/// lies beside it in the heap.
Memory allocate(std::size_t bytes)
{
    void* const memory = bytes < kMappedBytes ? ::operator new (bytes, std::align_val_t{kAlignment})
                                              : mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                                                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return Memory(static_cast<std::uint8_t*>(memory), Release{bytes});
}

/// Keeps released pixel memory for the next image of the same size, up to kMaxPooledBytes.
class PixelPool {
public:
    /// Pixels that come back when their last image goes.
    std::shared_ptr<std::uint8_t> take(std::size_t bytes)
    {
        return {takeMemory(bytes).release(),
                [this, bytes](std::uint8_t* pixels) { giveBack(Memory(pixels, Release{bytes})); }};
    }

private:
    Memory takeMemory(std::size_t bytes)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            const auto found = std::find_if(
                spare.rbegin(), spare.rend(),
                [bytes](const Memory& memory) { return memory.get_deleter().bytes == bytes; });
            if (found != spare.rend()) {
                Memory memory = std::move(*found);
                spare.erase(std::next(found).base());
                pooledBytes -= bytes;
                return memory;
            }
        }
        return allocate(bytes);
    }

    void giveBack(Memory memory) noexcept
    {
        const std::size_t bytes = memory.get_deleter().bytes;
        if (bytes > kMaxPooledBytes) {
            return;
        }
        const std::lock_guard<std::mutex> lock(mutex);
        // The size in use is the newest; older sizes make room for it.
        while (pooledBytes + bytes > kMaxPooledBytes) {
            pooledBytes -= spare.front().get_deleter().bytes;
            spare.erase(spare.begin());
        }
        try {
            spare.push_back(std::move(memory));
            pooledBytes += bytes;
        } catch (const std::bad_alloc&) {
            return;  // then the system has it back
        }
    }

    std::mutex mutex;
    std::vector<Memory> spare;
    std::size_t pooledBytes = 0;
};

// Never destroyed, so that images with static lifetime may be released at any point of the exit.
PixelPool& pool()
{
    static auto* const instance = new PixelPool;
    return *instance;
}

bool inHostMemory(MEM memory) noexcept
{
    return (static_cast<int>(memory) & static_cast<int>(MEM::HOST)) != 0;
}

}  // namespace

std::size_t bytesPerPixel(MAT_TYPE type) noexcept
{
    switch (type) {
        case MAT_TYPE::U8_C1: return 1;
        case MAT_TYPE::U8_C2: return 2;
        case MAT_TYPE::U8_C3: return 3;
        case MAT_TYPE::U8_C4: return 4;
    }
    return 0;
}

Mat::Mat() noexcept = default;

Mat::Mat(const Mat& other) noexcept = default;

Mat& Mat::operator=(const Mat& other) noexcept = default;

Mat::~Mat() = default;

void Mat::release() noexcept
{
    storage.reset();
    width = 0;
    height = 0;
    step = 0;
}

void Mat::alloc(unsigned long newWidth, unsigned long newHeight, MAT_TYPE newType, MEM memory)
{
    release();
    const std::size_t pixelBytes = bytesPerPixel(newType);
    if (newWidth == 0 || newHeight == 0 || pixelBytes == 0 || !inHostMemory(memory)) {
        return;
    }
    constexpr std::size_t kLargest = std::numeric_limits<std::ptrdiff_t>::max();
    if (newWidth > kLargest / pixelBytes / newHeight) {
        throw std::length_error("tq::Mat::alloc: image too large");
    }
    storage = pool().take(newWidth * newHeight * pixelBytes);
    width = newWidth;
    height = newHeight;
    step = newWidth * pixelBytes;
    type = newType;
}

void Mat::free(MEM memory) noexcept
{
    if (inHostMemory(memory)) {
        release();
    }
}

void Mat::clone(const Mat& other)
{
    if (this == &other) {
        return;
    }
    // Given back first: pixels of the right size that nobody else holds are those that come back.
    release();
    std::shared_ptr<std::uint8_t> pixels;
    if (other.storage != nullptr) {
        pixels = pool().take(other.step * other.height);
        std::memcpy(pixels.get(), other.storage.get(), other.step * other.height);
    }
    *this = other;
    storage = std::move(pixels);
}

std::size_t Mat::getStepBytes(MEM memory) const noexcept
{
    return inHostMemory(memory) ? step : 0;
}

std::uint8_t* Mat::data(MEM memory) const noexcept
{
    return inHostMemory(memory) ? storage.get() : nullptr;
}

}  // namespace tq
