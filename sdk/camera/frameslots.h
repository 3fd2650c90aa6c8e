// SPDX-License-Identifier: Apache-2.0
// Three frame buffers between the thread that fills them and the one that reads.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "sdk/sources/framesource.h"

namespace tq {

/// One buffer is being filled, one is being read, and one waits with the newest complete frame.
/// Without locks: neither side ever waits for the other, even if one of them is terminated.
class FrameSlots {
public:
    struct Slot {
        std::vector<unsigned char> pixels;
        Timestamp timestamp = 0;
        IMUPacket imu{};
    };

    explicit FrameSlots(std::size_t frameBytes)
    {
        for (Slot& slot : buffers) {
            slot.pixels.resize(frameBytes);
        }
    }

    /// The buffer to fill. Producer's thread.
    Slot& filling() { return buffers[fillIndex]; }
    int fillingIndex() const { return static_cast<int>(fillIndex); }

    /// Makes the filled buffer the newest frame. Producer's thread.
    void publish()
    {
        const unsigned before = waiting.exchange(fillIndex | kFresh, std::memory_order_acq_rel);
        if ((before & kFresh) != 0) {
            overwritten.fetch_add(1, std::memory_order_relaxed);
        }
        fillIndex = before & kIndex;
    }

    /// Whether the newest frame has not been taken yet.
    bool hasUnread() const { return (waiting.load(std::memory_order_relaxed) & kFresh) != 0; }

    /// Makes the newest frame the current one. Reader's thread.
    /// @return whether there was one that had not been current before
    bool takeNewest()
    {
        if (!hasUnread()) {
            return false;
        }
        readIndex = waiting.exchange(readIndex, std::memory_order_acq_rel) & kIndex;
        return true;
    }

    /// The current frame; stays untouched until takeNewest() returns true. Reader's thread.
    Slot& reading() { return buffers[readIndex]; }

    /// Frames that were replaced by newer ones before the reader came.
    std::uint64_t overwrittenFrames() const { return overwritten.load(std::memory_order_relaxed); }

private:
    static constexpr unsigned kIndex = 3;
    static constexpr unsigned kFresh = 4;

    std::array<Slot, kFrameBuffers> buffers;
    unsigned fillIndex = 0;
    std::atomic<unsigned> waiting{1};
    unsigned readIndex = 2;
    std::atomic<std::uint64_t> overwritten{0};
};

}  // namespace tq
