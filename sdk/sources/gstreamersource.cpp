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

#include "sdk/core/glibptr.h"
#include "sdk/core/log.h"

namespace tq {

namespace {

constexpr GstClockTime kPullSlice = 20 * GST_MSECOND;
constexpr std::chrono::seconds kStopLimit{3};
// Smaller differences between two readings of the clocks are noise of the reading.
constexpr std::int64_t kOffsetNoise = 200000;
constexpr int kOffsetReadings = 8;
constexpr Timestamp kQuickReading = 20000;

std::string replaced(std::string text, const std::string& name, int value)
{
    const std::string number = std::to_string(value);
    for (std::size_t at = text.find(name); at != std::string::npos;
         at = text.find(name, at + number.size())) {
        text.replace(at, name.size(), number);
    }
    return text;
}

std::string describe(const rig::GStreamerSettings& settings, const FrameFormat& wanted)
{
    std::string text = settings.pipeline;
    text = replaced(text, "{width}", wanted.width);
    text = replaced(text, "{height}", wanted.height);
    text = replaced(text, "{fps}", wanted.fps);
    return text + " ! videoconvert ! videoscale ! video/x-raw,format=YUY2,width=" +
           std::to_string(wanted.width) + ",height=" + std::to_string(wanted.height) +
           ",pixel-aspect-ratio=1/1 ! appsink name=kor_sink max-buffers=4 drop=true";
}

std::string messageText(GstMessage* message)
{
    Failure failure;
    gst_message_parse_error(message, failure.place(), nullptr);
    return std::string(GST_MESSAGE_SRC_NAME(message)) + ": " + failure.text("unknown error");
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
    GObjectPtr<GstElement> element;
    GObjectPtr<GstElement> sink;
    GObjectPtr<GstBus> bus;
    SamplePtr sample;

    ~Pipeline()
    {
        sample.reset();
        if (element) {
            shutDown();
        }
    }

    // A driver that hangs must not hang the caller: then the pipeline is left to itself.
    void shutDown()
    {
        std::promise<void> promise;
        std::future<void> ended = promise.get_future();
        std::thread worker(
            [](GObjectPtr<GstElement> stopped, std::promise<void> done) {
                gst_element_set_state(stopped.get(), GST_STATE_NULL);
                stopped.reset();
                done.set_value();
            },
            std::move(element), std::move(promise));
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
        const MessagePtr message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
        return message ? messageText(message.get()) : "";
    }
};

GStreamerSource::GStreamerSource(const rig::GStreamerSettings& sourceSettings,
                                 const Clock& sourceClock)
    : settings(sourceSettings), clock(sourceClock)
{
}

GStreamerSource::~GStreamerSource() = default;

FrameFormat GStreamerSource::open(const FrameFormat& wanted)
{
    const std::string problem = initialiseGStreamer();
    if (!problem.empty()) {
        throw std::runtime_error(problem);
    }
    delivered = wanted;
    start(describe(settings, wanted));
    // The first frame shows that the device works, and what it delivers.
    GstVideoInfo info;
    if (pull() && gst_video_info_from_caps(&info, gst_sample_get_caps(pipeline->sample.get())) &&
        info.fps_n > 0 && info.fps_d > 0) {
        delivered.fps = std::max(1, (info.fps_n + info.fps_d / 2) / info.fps_d);
    }
    return delivered;
}

void GStreamerSource::start(const std::string& description)
{
    pipeline = std::make_unique<Pipeline>();
    Failure failed;
    pipeline->element.reset(gst_parse_launch_full(description.c_str(), nullptr,
                                                  GST_PARSE_FLAG_FATAL_ERRORS, failed.place()));
    GstElement* const element = pipeline->element.get();
    if (element == nullptr || failed.get() != nullptr) {
        throw std::runtime_error(failed.text("the pipeline cannot be built"));
    }
    pipeline->bus.reset(gst_element_get_bus(element));
    pipeline->sink.reset(gst_bin_get_by_name(GST_BIN(element), "kor_sink"));
    const GstStateChangeReturn paused = gst_element_set_state(element, GST_STATE_PAUSED);
    // Live frames are due when they come; files are played at their own pace.
    const bool live = paused == GST_STATE_CHANGE_NO_PREROLL;
    g_object_set(pipeline->sink.get(), "sync", live ? FALSE : TRUE, nullptr);
    if (paused == GST_STATE_CHANGE_FAILURE ||
        gst_element_set_state(element, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        const std::string error = pipeline->error();
        throw std::runtime_error(error.empty() ? "the pipeline cannot be started" : error);
    }
}

/// Waits for the next sample.
/// @return false when it was stopped
bool GStreamerSource::pull()
{
    using Steady = std::chrono::steady_clock;
    const auto deadline = Steady::now() + std::chrono::duration<double>(settings.timeout);
    auto* const sink = GST_APP_SINK(pipeline->sink.get());
    while (!stopping.load()) {
        pipeline->sample.reset(gst_app_sink_try_pull_sample(sink, kPullSlice));
        if (pipeline->sample) {
            return true;
        }
        const std::string error = pipeline->error();
        if (!error.empty()) {
            throw InvalidVideo(error);
        }
        if (gst_app_sink_is_eos(sink) != FALSE) {
            throw InvalidVideo("the pipeline has come to its end");
        }
        if (Steady::now() > deadline) {
            throw InvalidVideo("the pipeline delivers no frames");
        }
    }
    return false;
}

void GStreamerSource::copyFrame(unsigned char* pixels) const
{
    GstVideoInfo info;
    GstVideoFrame frame;
    GstCaps* caps = gst_sample_get_caps(pipeline->sample.get());
    if (caps == nullptr || gst_video_info_from_caps(&info, caps) == FALSE ||
        GST_VIDEO_INFO_WIDTH(&info) != delivered.width ||
        GST_VIDEO_INFO_HEIGHT(&info) != delivered.height ||
        gst_video_frame_map(&frame, &info, gst_sample_get_buffer(pipeline->sample.get()),
                            GST_MAP_READ) == FALSE) {
        throw InvalidVideo("the pipeline delivered a frame that cannot be read");
    }
    const auto rowBytes = static_cast<std::size_t>(delivered.width) * 2;
    const auto* row = static_cast<const unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    for (int y = 0; y < delivered.height; ++y) {
        std::memcpy(pixels, row, rowBytes);
        pixels += rowBytes;
        row += GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    }
    gst_video_frame_unmap(&frame);
}

Timestamp GStreamerSource::captureTime()
{
    const Timestamp now = clock.now();
    GstBuffer* buffer = gst_sample_get_buffer(pipeline->sample.get());
    const GstSegment* segment = gst_sample_get_segment(pipeline->sample.get());
    const GObjectPtr<GstClock> pipelineClock(gst_element_get_clock(pipeline->element.get()));
    Timestamp time = now;
    if (pipelineClock && GST_BUFFER_PTS_IS_VALID(buffer)) {
        const std::int64_t offset = offsetBetween(clock, pipelineClock.get());
        if (!clockOffsetKnown || std::abs(offset - clockOffset) > kOffsetNoise) {
            clockOffset = offset;
            clockOffsetKnown = true;
        }
        const guint64 running =
            gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
        if (GST_CLOCK_TIME_IS_VALID(running)) {
            time = static_cast<Timestamp>(clockOffset) +
                   gst_element_get_base_time(pipeline->element.get()) + running;
        }
    }
    // Pipelines that stamp a frame with the end of its exposure, or not at all, may repeat a time.
    const bool setBack = lastTime > now + GST_SECOND;
    return setBack ? time : std::max(time, lastTime + 1);
}

bool GStreamerSource::next(const FrameBuffer& buffer, Timestamp& timestamp)
{
    if (!pipeline->sample && !pull()) {
        return false;
    }
    copyFrame(buffer.pixels);
    timestamp = lastTime = captureTime();
    pipeline->sample.reset();
    return true;
}

}  // namespace tq
