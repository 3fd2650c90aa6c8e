// SPDX-License-Identifier: Apache-2.0
// Converts packed YUYV into pooled 4:2:0 buffers.
#pragma once

#include <gst/video/video.h>

#include <cstdint>

#include "sdk/core/glibptr.h"
#include "sdk/stream/encoders.h"

namespace tq::stream {

/// Converts packed YUYV to NV12: a plane of luma and one of interleaved chroma of half its height.
/// @param width,height       pixels, the width even
/// @param lumaStride,chromaStride bytes from one row to the next
void yuyvToNv12(const std::uint8_t* yuyv, int width, int height, std::uint8_t* luma, int lumaStride,
                std::uint8_t* chroma, int chromaStride);

/// Owns the pool of 4:2:0 buffers of one sender. One thread at a time.
class FrameConverter {
public:
    /// @param pixelFormat GST_VIDEO_FORMAT_I420 or GST_VIDEO_FORMAT_NV12
    /// @param mostBuffers buffers that exist at most
    FrameConverter(const VideoFormat& format, GstVideoFormat pixelFormat, unsigned mostBuffers);
    ~FrameConverter();
    FrameConverter(const FrameConverter&) = delete;
    FrameConverter& operator=(const FrameConverter&) = delete;

    /// Converts one picture into a buffer of the pool.
    /// @param yuyv packed YUYV of the format's size
    /// @return null when all buffers are in use
    BufferPtr convert(const std::uint8_t* yuyv);

    const GstVideoInfo& videoInfo() const { return info; }

private:
    void convertInto(GstVideoFrame& frame, const std::uint8_t* yuyv) const;

    GstVideoInfo info;
    int sourceHeight;
    GObjectPtr<GstBufferPool> pool;
};

}  // namespace tq::stream
