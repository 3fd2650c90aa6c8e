// SPDX-License-Identifier: Apache-2.0
// The frame buffers of one capture worker.
#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <mutex>
#include <vector>

#include "capture/sdk.h"

/// Frame buffers that are written again only after their receivers are done with them.
///
/// A frame travels to its receivers as a shallow copy in a queued signal, so its buffer must not
/// be written while that signal waits. The capture thread takes a free buffer, fills and emits it
/// and marks it as in flight; the owner's event loop, which delivers events in the order in which
/// they were posted, gives it back when everything posted before has been delivered. When all
/// buffers are in flight there is none to take and the frame is lost whole rather than torn. What a
/// late receiver needed beyond 300 ms of frames is freed as it catches up. Where no event loop can
/// deliver anything, the capture thread gives each buffer back itself. Thread safe.
class FrameRing {
public:
    /// @param width,height image size, pixels
    /// @param fps          frames per second; sets how many buffers are kept for good
    FrameRing(int width, int height, int fps);

    /// Frees the buffers; images that were emitted keep their pixels until their receivers are
    /// done.
    ~FrameRing();
    FrameRing(const FrameRing&) = delete;
    FrameRing& operator=(const FrameRing&) = delete;

    /// How many buffers there may be: 240 MB of them, but at least two and at most 1000.
    static std::size_t depth(int width, int height);

    /// How many there may be until the first one comes back: 64 MB of them, but at least
    /// keptDepth() and at most 1000. While the program starts, nobody misses a frame.
    static std::size_t startDepth(int width, int height, int fps);

    /// How many buffers stay allocated while they are idle: enough for a receiver that is 300 ms
    /// late, and at most depth().
    static std::size_t keptDepth(int width, int height, int fps);

    /// A buffer that nobody uses, or null when all are in flight. Capture thread.
    tq::Mat* acquire();

    /// The buffer taken last is not used any more. Capture thread.
    void giveBack(tq::Mat* buffer);

    /// The buffer taken last has been emitted. Capture thread.
    void markInFlight(tq::Mat* buffer);

    /// Everything emitted up to the oldest buffer in flight has been delivered.
    void release();

    /// Whether the owner's event loop has given a buffer back, that is, whether it runs.
    bool hasDelivered() const { return delivered; }

private:
    const int width;
    const int height;
    const std::size_t limit;
    const std::size_t startLimit;
    const std::size_t kept;

    std::atomic<bool> delivered{false};
    std::mutex mutex;
    std::list<tq::Mat> buffers;  // allocated ones; addresses stay valid
    std::vector<tq::Mat*> idle;  // the one used last at the back: it is still cached
    // A ring of limit entries, so that nothing is allocated per frame.
    std::vector<tq::Mat*> inFlight;
    std::size_t oldestInFlight = 0;
    std::size_t inFlightCount = 0;
};
