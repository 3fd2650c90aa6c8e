// SPDX-License-Identifier: Apache-2.0
// Reference-counted image buffer on a pool of pixel memory.
#include "tq_kor/mat.h"

#include <array>
#include <atomic>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include <sys/mman.h>

#include "cmake/threadsanitizer.h"

namespace tq {

namespace {

constexpr std::size_t kAlignment = 64;
constexpr std::size_t kMappedBytes = 1u << 20;
constexpr std::size_t kMaxPooledBytes = 128u << 20;

}  // namespace

namespace detail {

/// Pixel memory shared by the copies of one image. What is large is mapped, so that the system has
/// it back when it is freed, whatever lies beside it in the heap.
class PixelStorage {
public:
    explicit PixelStorage(std::size_t byteCount) : bytes(byteCount), pixels(allocate(byteCount)) {}
    ~PixelStorage()
    {
        if (bytes >= kMappedBytes) {
            munmap(pixels, bytes);
        } else {
            ::operator delete (pixels, std::align_val_t{kAlignment});
        }
    }
    PixelStorage(const PixelStorage&) = delete;
    PixelStorage& operator=(const PixelStorage&) = delete;

    /// One more image holds these pixels. A copy may have come from another thread.
    void share() noexcept
    {
        references.fetch_add(1, std::memory_order_relaxed);
        threadsanitizer::release(this);
        threadsanitizer::acquire(this);
    }

    const std::size_t bytes;
    std::uint8_t* const pixels;
    std::atomic<int> references{1};

private:
    static std::uint8_t* allocate(std::size_t byteCount)
    {
        if (byteCount < kMappedBytes) {
            return static_cast<std::uint8_t*>(
                ::operator new (byteCount, std::align_val_t{kAlignment}));
        }
        void* const memory =
            mmap(nullptr, byteCount, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        return static_cast<std::uint8_t*>(memory);
    }
};

/// Keeps released pixel memory for the next image of the same size, up to kMaxPooledBytes.
class PixelPool {
public:
    PixelStorage* take(std::size_t bytes)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            for (std::size_t i = spare.size(); i-- > 0;) {
                if (spare[i]->bytes == bytes) {
                    PixelStorage* storage = spare[i].release();
                    spare.erase(spare.begin() + static_cast<std::ptrdiff_t>(i));
                    pooledBytes -= bytes;
                    storage->references.store(1, std::memory_order_relaxed);
                    return storage;
                }
            }
        }
        return new PixelStorage(bytes);
    }

    void giveBack(PixelStorage* storage) noexcept
    {
        std::unique_ptr<PixelStorage> owned(storage);
        std::unique_ptr<PixelStorage> evicted;  // released after the lock
        const std::lock_guard<std::mutex> lock(mutex);
        if (owned->bytes > kMaxPooledBytes) {
            evicted = std::move(owned);
            return;
        }
        // The size in use is the newest; older sizes make room for it.
        while (pooledBytes + owned->bytes > kMaxPooledBytes) {
            pooledBytes -= spare.front()->bytes;
            spare.erase(spare.begin());
        }
        pooledBytes += owned->bytes;
        try {
            spare.push_back(std::move(owned));
        } catch (const std::bad_alloc&) {
            pooledBytes -= owned->bytes;
        }
    }

private:
    std::mutex mutex;
    std::vector<std::unique_ptr<PixelStorage>> spare;
    std::size_t pooledBytes = 0;
};

}  // namespace detail

namespace {

// Never destroyed, so that images with static lifetime may be released at any point of the exit.
detail::PixelPool& pool()
{
    static auto* const instance = new detail::PixelPool;
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

Mat::Mat(const Mat& other) noexcept
    : storage(other.storage),
      width(other.width),
      height(other.height),
      step(other.step),
      type(other.type),
      timestamp(other.timestamp)
{
    if (storage != nullptr) {
        storage->share();
    }
}

Mat& Mat::operator=(const Mat& other) noexcept
{
    if (this != &other) {
        if (other.storage != nullptr) {
            other.storage->share();
        }
        release();
        storage = other.storage;
        width = other.width;
        height = other.height;
        step = other.step;
        type = other.type;
        timestamp = other.timestamp;
    }
    return *this;
}

Mat::~Mat()
{
    release();
}

void Mat::release() noexcept
{
    if (storage != nullptr && storage->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        pool().giveBack(storage);
    }
    storage = nullptr;
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
    if (other.storage == nullptr) {
        release();
        type = other.type;
        timestamp = other.timestamp;
        return;
    }
    const bool reusable = storage != nullptr && storage != other.storage &&
                          storage->bytes == other.storage->bytes &&
                          storage->references.load(std::memory_order_acquire) == 1;
    if (!reusable) {
        release();
        storage = pool().take(other.storage->bytes);
    }
    width = other.width;
    height = other.height;
    step = other.step;
    type = other.type;
    timestamp = other.timestamp;
    std::memcpy(storage->pixels, other.storage->pixels, storage->bytes);
}

std::size_t Mat::getStepBytes(MEM memory) const noexcept
{
    return inHostMemory(memory) ? step : 0;
}

std::uint8_t* Mat::data(MEM memory) const noexcept
{
    return storage != nullptr && inHostMemory(memory) ? storage->pixels : nullptr;
}

}  // namespace tq
