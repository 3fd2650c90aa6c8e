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
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "sdk/core/glibptr.h"
#include "sdk/core/log.h"

namespace tq {

namespace {

using Steady = std::chrono::steady_clock;

constexpr const char* kSink = "kor_sink";
constexpr GstClockTime kPullSlice = 20 * GST_MSECOND;
constexpr std::chrono::milliseconds kLook{20};
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
           ",pixel-aspect-ratio=1/1 ! appsink name=" + kSink + " max-buffers=4 drop=true";
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

/// Stops a pipeline before it lets it go.
struct StopAndRelease {
    void operator()(GstElement* element) const noexcept
    {
        gst_element_set_state(element, GST_STATE_NULL);
        g_object_unref(element);
    }
};
using PipelinePtr = std::unique_ptr<GstElement, StopAndRelease>;

GObjectPtr<GstElement> sinkOf(GstElement* pipeline)
{
    return GObjectPtr<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline), kSink));
}

/// The first error on a pipeline's bus, or "" while there is none.
std::string errorOf(GstElement* pipeline)
{
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline));
    const MessagePtr message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
    return message ? messageText(message.get()) : "";
}

/// Calls into a driver may never return. A camera has at most one thread that waits for such a
/// call: until it returns, the camera is not opened again.
class AbandonedCalls {
public:
    bool stillHangs(int serial)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return !threads[serial].expired();
    }
    void add(int serial, const std::weak_ptr<void>& thread)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        threads[serial] = thread;
    }

private:
    std::mutex mutex;
    std::map<int, std::weak_ptr<void>> threads;
};

AbandonedCalls& abandonedCalls()
{
    // Never destroyed, so that cameras with static lifetime may use it at exit.
    static auto* const calls = new AbandonedCalls;
    return *calls;
}

/// Makes calls into a camera's driver in a thread of its own. Calls that do not return in time are
/// left to themselves, with all that they hold.
/// @param isLate whether it is time to leave them; asked again and again
/// @return whether they returned
template <typename Calls, typename IsLate>
bool returnInTime(int serial, Calls calls, IsLate isLate)
{
    std::promise<void> promise;
    const std::future<void> returned = promise.get_future();
    auto alive = std::make_shared<int>(serial);
    const std::weak_ptr<void> thread = alive;
    std::thread worker([calls = std::move(calls), promise = std::move(promise),
                        alive = std::move(alive)]() mutable {
        calls();
        promise.set_value();
    });
    while (returned.wait_for(kLook) != std::future_status::ready) {
        if (isLate()) {
            abandonedCalls().add(serial, thread);
            worker.detach();
            return false;
        }
    }
    worker.join();
    return true;
}

void stopPipeline(int serial, PipelinePtr pipeline)
{
    if (!pipeline) {
        return;
    }
    const auto limit = Steady::now() + kStopLimit;
    if (!returnInTime(
            serial, [stopped = std::move(pipeline)]() mutable { stopped.reset(); },
            [limit] { return Steady::now() > limit; })) {
        logLine("camera S/N " + std::to_string(serial) +
                ": its pipeline does not stop, it is abandoned");
    }
}

/// The opening of a pipeline, and what came of it.
struct Opening {
    std::string description;
    PipelinePtr pipeline;
    std::string failure;

    void run()
    {
        Failure failed;
        pipeline.reset(gst_parse_launch_full(description.c_str(), nullptr,
                                             GST_PARSE_FLAG_FATAL_ERRORS, failed.place()));
        if (!pipeline || failed.get() != nullptr) {
            failure = failed.text("the pipeline cannot be built");
        } else if (!play()) {
            failure = errorOf(pipeline.get());
            failure = failure.empty() ? "the pipeline cannot be started" : failure;
        }
    }

private:
    bool play() const
    {
        GstElement* const element = pipeline.get();
        const GstStateChangeReturn paused = gst_element_set_state(element, GST_STATE_PAUSED);
        // Live frames are due when they come; files are played at their own pace.
        const bool live = paused == GST_STATE_CHANGE_NO_PREROLL;
        g_object_set(sinkOf(element).get(), "sync", live ? FALSE : TRUE, nullptr);
        return paused != GST_STATE_CHANGE_FAILURE &&
               gst_element_set_state(element, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
    }
};

}  // namespace

/// The pipeline and what belongs to it.
struct GStreamerSource::Pipeline {
    Pipeline(int cameraSerial, PipelinePtr playing)
        : serial(cameraSerial), element(std::move(playing)), sink(sinkOf(element.get()))
    {
    }
    ~Pipeline()
    {
        sample.reset();
        sink.reset();
        stopPipeline(serial, std::move(element));
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    const int serial;
    PipelinePtr element;
    GObjectPtr<GstElement> sink;
    SamplePtr sample;
};

GStreamerSource::GStreamerSource(const rig::GStreamerSettings& sourceSettings, int serialNumber,
                                 const Clock& sourceClock, std::chrono::milliseconds longestOpening)
    : settings(sourceSettings), serial(serialNumber), clock(sourceClock), openLimit(longestOpening)
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
    if (abandonedCalls().stillHangs(serial)) {
        throw std::runtime_error("its former pipeline still hangs");
    }
    const auto opening = std::make_shared<Opening>(Opening{description, nullptr, ""});
    // Who stops waits as long for the end of an opening as for the end of a pipeline.
    const auto isLate = [this, limit = Steady::now() + openLimit, stopSeen = false]() mutable {
        if (stopping.load() && !std::exchange(stopSeen, true)) {
            limit = std::min(limit, Steady::now() + kStopLimit);
        }
        return Steady::now() > limit;
    };
    if (!returnInTime(
            serial, [opening] { opening->run(); }, isLate)) {
        logLine("camera S/N " + std::to_string(serial) +
                ": its pipeline hangs while it is opened, it is abandoned");
        throw std::runtime_error("the pipeline hangs while it is opened");
    }
    if (!opening->failure.empty()) {
        stopPipeline(serial, std::move(opening->pipeline));
        throw std::runtime_error(opening->failure);
    }
    pipeline = std::make_unique<Pipeline>(serial, std::move(opening->pipeline));
}

/// Waits for the next sample.
/// @return false when it was stopped
bool GStreamerSource::pull()
{
    const auto deadline = Steady::now() + std::chrono::duration<double>(settings.timeout);
    auto* const sink = GST_APP_SINK(pipeline->sink.get());
    while (!stopping.load()) {
        pipeline->sample.reset(gst_app_sink_try_pull_sample(sink, kPullSlice));
        if (pipeline->sample) {
            return true;
        }
        const std::string error = errorOf(pipeline->element.get());
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
