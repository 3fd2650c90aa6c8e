// SPDX-License-Identifier: Apache-2.0
// The frame buffers of a capture worker without the guard: there is one, and it is written again
// whether or not its receivers are done with it.
#include "capture/framepool.h"

FramePool::FramePool(int widthPixels, int heightPixels) : width(widthPixels), height(heightPixels)
{
    buffers.emplace_back().alloc(static_cast<unsigned long>(width),
                                 static_cast<unsigned long>(height), sdk::kYuyv, sdk::kHostMemory);
}

std::size_t FramePool::depth(int, int)
{
    return 1;
}

tq::Mat* FramePool::take()
{
    return &buffers.front();
}

void FramePool::giveBack(tq::Mat*) {}

void FramePool::free()
{
    buffers.front().free(sdk::kAllMemory);
}
