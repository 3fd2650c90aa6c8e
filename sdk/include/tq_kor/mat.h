// SPDX-License-Identifier: Apache-2.0
// Reference-counted image buffer.
#pragma once

#include <memory>

#include "tq_kor/types.h"

namespace tq {

/// An image in processor memory. Copies share the pixels; clone() makes a deep copy.
///
/// The reference count is atomic, so copies may be made and destroyed on any thread. The pixels
/// themselves are not guarded: one writer at a time, and no reader while it writes.
/// Pixel memory comes from a process-wide pool, so buffers of a size that was in use before cost
/// no system allocation.
class TQ_KOR_API Mat {
public:
    Mat() noexcept;
    /// Shares the pixels of @p other and takes over its size and timestamp.
    Mat(const Mat& other) noexcept;
    Mat& operator=(const Mat& other) noexcept;
    ~Mat();

    /// Gives this object uninitialised pixels of its own; what it held before is released.
    /// @param width,height size in pixels; 0 × 0 leaves the object empty
    /// @param type         pixel layout
    /// @param memory       must contain MEM::HOST
    /// @throws std::bad_alloc when memory is exhausted, std::length_error for an absurd size
    void alloc(unsigned long width, unsigned long height, MAT_TYPE type, MEM memory);

    /// Releases this object's hold on its pixels; other copies keep theirs.
    void free(MEM memory) noexcept;

    /// Makes this object a deep copy of @p other: pixels, size and timestamp. Pixels of the right
    /// size that are held by this object alone are reused.
    void clone(const Mat& other);

    /// First byte of the first row, or null when the image is empty or @p memory is not host
    /// memory.
    template <typename T>
    T* getPtr(MEM memory) const noexcept
    {
        return reinterpret_cast<T*>(data(memory));
    }

    /// Bytes from one row to the next; rows are packed.
    std::size_t getStepBytes(MEM memory) const noexcept;

    std::size_t getWidth() const noexcept { return width; }    ///< pixels
    std::size_t getHeight() const noexcept { return height; }  ///< pixels
    MAT_TYPE getType() const noexcept { return type; }

private:
    std::uint8_t* data(MEM memory) const noexcept;
    void release() noexcept;

    [[maybe_unused]] std::uint64_t reserved0 = 0;
    std::uint64_t width = 0;
    std::uint64_t height = 0;
    std::uint64_t step = 0;
    MAT_TYPE type = MAT_TYPE::U8_C2;
    [[maybe_unused]] std::int32_t reserved36 = 0;
    std::shared_ptr<std::uint8_t> storage;
    [[maybe_unused]] std::uint64_t reserved56[8] = {};
    // Capture time; users of the library read and write it at byte 120.
    [[maybe_unused]] Timestamp timestamp = 0;

    friend struct MatLayout;
};

/// Pins where the capture time lies.
struct MatLayout {
    static_assert(sizeof(Mat) == 128, "image objects are 128 bytes");
    static_assert(std::is_standard_layout<Mat>::value, "offsets are well defined");
    static_assert(offsetof(Mat, timestamp) == 120, "the capture time lies at byte 120");
};

}  // namespace tq
