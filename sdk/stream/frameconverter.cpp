// SPDX-License-Identifier: Apache-2.0
// One pass from the caller's YUYV into the encoder's buffer.
#include "sdk/stream/frameconverter.h"

#include <libyuv/convert.h>
#include <libyuv/planar_functions.h>

#include <cstddef>
#include <cstring>
#include <utility>

namespace tq::stream {

namespace {

std::uint8_t* plane(GstVideoFrame& frame, unsigned index)
{
    return static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, index));
}

}  // namespace

void yuyvToNv12(const std::uint8_t* yuyv, int width, int height, std::uint8_t* luma, int lumaStride,
                std::uint8_t* chroma, int chromaStride)
{
    // libyuv's vector code gets the last colours of a row wrong when 18 to 30 pixels are left over
    // after the last 32, so those of the last 16 are a part of their own.
    constexpr int kSafe = 16;
    const int first = width - width % kSafe;
    for (const auto& [x, columns] : {std::pair{0, first}, std::pair{first, width - first}}) {
        if (columns > 0) {
            libyuv::YUY2ToNV12(yuyv + 2 * static_cast<std::ptrdiff_t>(x), width * 2, luma + x,
                               lumaStride, chroma + x, chromaStride, columns, height);
        }
    }
}

FrameConverter::FrameConverter(const VideoFormat& format, GstVideoFormat pixelFormat,
                               unsigned mostBuffers)
    : info(inputInfo(format, pixelFormat)),
      sourceHeight(format.height),
      pool(gst_video_buffer_pool_new())
{
    GstStructure* config = gst_buffer_pool_get_config(pool.get());
    const CapsPtr caps(gst_video_info_to_caps(&info));
    gst_buffer_pool_config_set_params(
        config, caps.get(), static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), 0, mostBuffers);
    gst_buffer_pool_set_config(pool.get(), config);
    gst_buffer_pool_set_active(pool.get(), TRUE);
}

FrameConverter::~FrameConverter()
{
    gst_buffer_pool_set_active(pool.get(), FALSE);
}

BufferPtr FrameConverter::convert(const std::uint8_t* yuyv)
{
    GstBufferPoolAcquireParams params{};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    GstBuffer* acquired = nullptr;
    if (gst_buffer_pool_acquire_buffer(pool.get(), &acquired, &params) != GST_FLOW_OK) {
        return nullptr;
    }
    BufferPtr buffer(acquired);
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &info, buffer.get(), GST_MAP_WRITE)) {
        return nullptr;
    }
    convertInto(frame, yuyv);
    gst_video_frame_unmap(&frame);
    return buffer;
}

void FrameConverter::convertInto(GstVideoFrame& frame, const std::uint8_t* yuyv) const
{
    const int width = GST_VIDEO_INFO_WIDTH(&info);
    const int lumaStride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    std::uint8_t* luma = plane(frame, 0);
    if (GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_NV12) {
        yuyvToNv12(yuyv, width, sourceHeight, luma, lumaStride, plane(frame, 1),
                   GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 1));
    } else {
        libyuv::YUY2ToI420(yuyv, width * 2, luma, lumaStride, plane(frame, 1),
                           GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 1), plane(frame, 2),
                           GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 2), width, sourceHeight);
    }
    if (sourceHeight % 2 != 0) {
        std::uint8_t* last = luma + static_cast<std::ptrdiff_t>(sourceHeight) * lumaStride;
        std::memcpy(last, last - lumaStride, static_cast<std::size_t>(width));
    }
}

}  // namespace tq::stream
