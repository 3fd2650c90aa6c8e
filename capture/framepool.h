// SPDX-License-Identifier: Apache-2.0
// The frame buffers of one capture worker.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <vector>

#include "capture/sdk.h"

/// Frame buffers that are written again only after their receivers are done with them.
///
/// A frame travels to its receivers as a shallow copy in a queued signal. Whoever takes a buffer
/// gives it back when that signal has been delivered; until then it is not written. When all are
/// out the frame is lost whole rather than torn. Thread safe.
class FramePool {
public:
    /// Allocates the first buffer; the others follow as they are needed.
    /// @param width,height image size, pixels
    FramePool(int width, int height);
    FramePool(const FramePool&) = delete;
    FramePool& operator=(const FramePool&) = delete;

    /// How many buffers there may be: 240 MB of them, but at least two.
    static std::size_t depth(int width, int height);

    /// A buffer with pixels that nobody uses, or null when all are out.
    tq::Mat* take();

    /// A buffer may be written again. What many buffers at once held is given back to the system.
    void giveBack(tq::Mat* buffer);

    /// Frees all buffers, those that are out as well: images that were emitted keep their pixels.
    void free();

private:
    const int width;
    const int height;
    std::mutex mutex;
    std::deque<tq::Mat> buffers;  // addresses stay valid
    std::vector<tq::Mat*> idle;   // the one used last at the back: it is still cached
};
