// SPDX-License-Identifier: Apache-2.0
// Counts the allocations of each thread by replacing operator new. Included by exactly one source
// file of a program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace allocations {

inline thread_local std::uint64_t counter = 0;
inline thread_local std::uint64_t alignedCounter = 0;

/// Allocations of the calling thread so far.
inline std::uint64_t ofThisThread()
{
    return counter;
}

/// Those of them that are aligned specially: the pixels of an image that is smaller than 1 MB.
inline std::uint64_t ofPixelsByThisThread()
{
    return alignedCounter;
}

inline void* counted(void* memory)
{
    ++counter;
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace allocations

// The forms for arrays and those that do not throw call these.
// NOLINTBEGIN(misc-definitions-in-headers)
void* operator new(std::size_t bytes)
{
    return allocations::counted(std::malloc(bytes != 0 ? bytes : 1));
}

void* operator new(std::size_t bytes, std::align_val_t alignment)
{
    // The size must be a multiple of the alignment.
    ++allocations::alignedCounter;
    const auto unit = static_cast<std::size_t>(alignment);
    return allocations::counted(std::aligned_alloc(unit, (bytes + unit - 1) / unit * unit));
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}
// NOLINTEND(misc-definitions-in-headers)
