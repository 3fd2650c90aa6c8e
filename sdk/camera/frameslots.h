// SPDX-License-Identifier: Apache-2.0
// Three frame buffers between the thread that fills them and the one that reads.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <vector>

#include "sdk/sources/framesource.h"

namespace tq {

/// One buffer is being filled, one is being read, and one waits with the newest complete frame.
/// Without locks: a thread that is terminated holds up nobody. Only a reader that asks for it
/// waits, and never longer than it says.
class FrameSlots {
public:
    struct Slot {
        std::vector<unsigned char> pixels;
        Timestamp timestamp = 0;
        std::uint64_t due = 0;  ///< frames that were due so far, with this one
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
        futex(FUTEX_WAKE_PRIVATE, 1, nullptr);
    }

    /// Makes the newest frame the current one. Reader's thread.
    /// @param patience how long to wait for one; an interrupted wait ends earlier
    /// @return whether there was one that had not been current before
    bool takeNewest(std::chrono::nanoseconds patience = {})
    {
        unsigned seen = waiting.load(std::memory_order_relaxed);
        if ((seen & kFresh) == 0 && patience.count() > 0) {
            // The system compares the value once more, so a frame published meanwhile is not
            // missed.
            const timespec limit{static_cast<time_t>(patience.count() / kSecond),
                                 static_cast<long>(patience.count() % kSecond)};
            futex(FUTEX_WAIT_PRIVATE, seen, &limit);
            seen = waiting.load(std::memory_order_relaxed);
        }
        if ((seen & kFresh) == 0) {
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
    static constexpr std::int64_t kSecond = 1000000000;
    static_assert(sizeof(std::atomic<unsigned>) == 4 && std::atomic<unsigned>::is_always_lock_free,
                  "the system waits on 32 bits");

    // A condition variable would end a terminated reader in the middle of its wait; this does not.
    void futex(int operation, unsigned value, const timespec* limit)
    {
        ::syscall(SYS_futex, &waiting, operation, value, limit, nullptr, 0);
    }

    std::array<Slot, kFrameBuffers> buffers;
    unsigned fillIndex = 0;
    std::atomic<unsigned> waiting{1};
    unsigned readIndex = 2;
    std::atomic<std::uint64_t> overwritten{0};
};

}  // namespace tq
