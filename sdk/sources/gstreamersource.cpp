// SPDX-License-Identifier: Apache-2.0
// Capture through a GStreamer pipeline.
#include "sdk/sources/gstreamersource.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <limits>
#include <thread>
#include <utility>

#include "sdk/core/log.h"

namespace tq {

namespace {

constexpr GstClockTime kPullSlice = 20 * GST_MSECOND;
constexpr std::chrono::seconds kStopLimit{3};
// Smaller differences between two readings of the clocks are noise of the reading.
constexpr std::int64_t kOffsetNoise = 200000;
constexpr int kOffsetReadings = 8;
constexpr Timestamp kQuickReading = 20000;

bool initialize(std::string& reason)
{
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error) != FALSE) {
        return true;
    }
    reason = error != nullptr ? error->message : "GStreamer cannot be initialised";
    g_clear_error(&error);
    return false;
}

std::string replaced(std::string text, const std::string& name, int value)
{
    const std::string number = std::to_string(value);
    for (std::size_t at = text.find(name); at != std::string::npos;
         at = text.find(name, at + number.size())) {
        text.replace(at, name.size(), number);
    }
    return text;
}

std::string describe(const rig::GStreamerSettings& settings, const FrameRequest& request)
{
    std::string text = settings.pipeline;
    text = replaced(text, "{width}", request.width);
    text = replaced(text, "{height}", request.height);
    text = replaced(text, "{fps}", request.fps);
    return text + " ! videoconvert ! videoscale ! video/x-raw,format=YUY2,width=" +
           std::to_string(request.width) + ",height=" + std::to_string(request.height) +
           ",pixel-aspect-ratio=1/1 ! appsink name=kor_sink max-buffers=4 drop=true";
}

std::string messageText(GstMessage* message)
{
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const std::string element = GST_MESSAGE_SRC_NAME(message);
    std::string text = element + ": " + (error != nullptr ? error->message : "unknown error");
    g_clear_error(&error);
    return text;
}

/// By how much the real-time clock is ahead of a pipeline's.
std::int64_t offsetBetween(const Clock& clock, GstClock* pipelineClock)
{
    // A thread that is interrupted between the readings measures nonsense; the quickest counts.
    std::int64_t offset = 0;
    Timestamp shortest = std::numeric_limits<Timestamp>::max();
    for (int i = 0; i < kOffsetReadings && shortest > kQuickReading; ++i) {
        const Timestamp before = clock.now();
        const GstClockTime between = gst_clock_get_time(pipelineClock);
        const Timestamp took = clock.now() - before;
        if (took < shortest) {
            shortest = took;
            offset = static_cast<std::int64_t>(before + took / 2 - between);
        }
    }
    return offset;
}

}  // namespace

/// The pipeline and what belongs to it.
struct GStreamerSource::Pipeline {
    GstElement* element = nullptr;
    GstElement* sink = nullptr;
    GstBus* bus = nullptr;
    GstSample* sample = nullptr;
    bool live = false;

    Pipeline() = default;
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    ~Pipeline()
    {
        dropSample();
        if (sink != nullptr) {
            gst_object_unref(sink);
        }
        if (bus != nullptr) {
            gst_object_unref(bus);
        }
        if (element != nullptr) {
            shutDown();
        }
    }

    void dropSample()
    {
        if (sample != nullptr) {
            gst_sample_unref(sample);
            sample = nullptr;
        }
    }

    // A driver that hangs must not hang the caller: then the pipeline is left to itself.
    void shutDown()
    {
        std::promise<void> promise;
        std::future<void> ended = promise.get_future();
        std::thread worker(
            [stopped = element](std::promise<void> done) {
                gst_element_set_state(stopped, GST_STATE_NULL);
                gst_object_unref(stopped);
                done.set_value();
            },
            std::move(promise));
        if (ended.wait_for(kStopLimit) == std::future_status::ready) {
            worker.join();
            return;
        }
        logLine("a camera pipeline does not stop, it is abandoned");
        worker.detach();
    }

    /// The first error on the bus, or "" while there is none.
    std::string error() const
    {
        std::string text;
        GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
        if (message != nullptr) {
            text = messageText(message);
            gst_message_unref(message);
        }
        return text;
    }
};

GStreamerSource::GStreamerSource(const rig::GStreamerSettings& sourceSettings,
                                 const Clock& sourceClock)
    : settings(sourceSettings), clock(sourceClock)
{
}

GStreamerSource::~GStreamerSource() = default;

SourceResult GStreamerSource::open(const FrameRequest& request)
{
    if (!initialize(reason)) {
        return {ErrorCode::SOURCE_UNAVAILABLE, reason};
    }
    delivered = {request.width, request.height, request.fps};
    SourceResult started = start(describe(settings, request));
    if (started.code != ErrorCode::SUCCESS) {
        pipeline.reset();
        return started;
    }
    // The first frame shows that the device works, and what it delivers.
    if (pull() != Pull::SAMPLE) {
        pipeline.reset();
        return {ErrorCode::SOURCE_INVALID, reason};
    }
    GstVideoInfo info;
    if (gst_video_info_from_caps(&info, gst_sample_get_caps(pipeline->sample)) != FALSE &&
        info.fps_n > 0 && info.fps_d > 0) {
        delivered.fps = std::max(1, (info.fps_n + info.fps_d / 2) / info.fps_d);
    }
    return {};
}

SourceResult GStreamerSource::start(const std::string& description)
{
    pipeline = std::make_unique<Pipeline>();
    GError* error = nullptr;
    pipeline->element =
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
    if (pipeline->element == nullptr || error != nullptr) {
        reason = error != nullptr ? error->message : "the pipeline cannot be built";
        g_clear_error(&error);
        return {ErrorCode::SOURCE_UNAVAILABLE, reason};
    }
    pipeline->bus = gst_element_get_bus(pipeline->element);
    pipeline->sink = gst_bin_get_by_name(GST_BIN(pipeline->element), "kor_sink");
    const GstStateChangeReturn paused = gst_element_set_state(pipeline->element, GST_STATE_PAUSED);
    // Live frames are due when they come; files are played at their own pace.
    pipeline->live = paused == GST_STATE_CHANGE_NO_PREROLL;
    g_object_set(pipeline->sink, "sync", pipeline->live ? FALSE : TRUE, nullptr);
    if (paused == GST_STATE_CHANGE_FAILURE ||
        gst_element_set_state(pipeline->element, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        reason = pipeline->error();
        if (reason.empty()) {
            reason = "the pipeline cannot be started";
        }
        return {ErrorCode::SOURCE_UNAVAILABLE, reason};
    }
    return {};
}

GStreamerSource::Pull GStreamerSource::pull()
{
    using Steady = std::chrono::steady_clock;
    const auto deadline = Steady::now() + std::chrono::duration<double>(settings.timeout);
    while (!stopping.load()) {
        pipeline->sample = gst_app_sink_try_pull_sample(GST_APP_SINK(pipeline->sink), kPullSlice);
        if (pipeline->sample != nullptr) {
            return Pull::SAMPLE;
        }
        reason = pipeline->error();
        if (!reason.empty()) {
            return Pull::FAILED;
        }
        if (gst_app_sink_is_eos(GST_APP_SINK(pipeline->sink)) != FALSE) {
            reason = "the pipeline has come to its end";
            return Pull::FAILED;
        }
        if (Steady::now() > deadline) {
            reason = "the pipeline delivers no frames";
            return Pull::FAILED;
        }
    }
    return Pull::STOPPED;
}

bool GStreamerSource::copyFrame(unsigned char* pixels)
{
    GstVideoInfo info;
    GstVideoFrame frame;
    GstCaps* caps = gst_sample_get_caps(pipeline->sample);
    if (caps == nullptr || gst_video_info_from_caps(&info, caps) == FALSE ||
        GST_VIDEO_INFO_WIDTH(&info) != delivered.width ||
        GST_VIDEO_INFO_HEIGHT(&info) != delivered.height ||
        gst_video_frame_map(&frame, &info, gst_sample_get_buffer(pipeline->sample), GST_MAP_READ) ==
            FALSE) {
        reason = "the pipeline delivered a frame that cannot be read";
        return false;
    }
    const auto rowBytes = static_cast<std::size_t>(delivered.width) * 2;
    const auto* row = static_cast<const unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    for (int y = 0; y < delivered.height; ++y) {
        std::memcpy(pixels, row, rowBytes);
        pixels += rowBytes;
        row += GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    }
    gst_video_frame_unmap(&frame);
    return true;
}

Timestamp GStreamerSource::captureTime()
{
    const Timestamp now = clock.now();
    GstBuffer* buffer = gst_sample_get_buffer(pipeline->sample);
    const GstSegment* segment = gst_sample_get_segment(pipeline->sample);
    GstClock* pipelineClock = gst_element_get_clock(pipeline->element);
    Timestamp time = now;
    if (pipelineClock != nullptr && GST_BUFFER_PTS_IS_VALID(buffer)) {
        const std::int64_t offset = offsetBetween(clock, pipelineClock);
        if (!clockOffsetKnown || std::abs(offset - clockOffset) > kOffsetNoise) {
            clockOffset = offset;
            clockOffsetKnown = true;
        }
        const guint64 running =
            gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
        if (GST_CLOCK_TIME_IS_VALID(running)) {
            time = static_cast<Timestamp>(clockOffset) +
                   gst_element_get_base_time(pipeline->element) + running;
        }
    }
    if (pipelineClock != nullptr) {
        gst_object_unref(pipelineClock);
    }
    // Pipelines that stamp a frame with the end of its exposure, or not at all, may repeat a time.
    const bool setBack = lastTime > now + GST_SECOND;
    return setBack ? time : std::max(time, lastTime + 1);
}

FrameResult GStreamerSource::next(const FrameBuffer& buffer, Timestamp& timestamp)
{
    if (pipeline->sample == nullptr) {
        switch (pull()) {
            case Pull::SAMPLE: break;
            case Pull::STOPPED: return FrameResult::STOPPED;
            case Pull::FAILED: return FrameResult::FAILED;
        }
    }
    const bool copied = copyFrame(buffer.pixels);
    lastTime = captureTime();
    timestamp = lastTime;
    pipeline->dropSample();
    return copied ? FrameResult::FRAME : FrameResult::FAILED;
}

}  // namespace tq
