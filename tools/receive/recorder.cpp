// SPDX-License-Identifier: Apache-2.0
// The pipeline that writes a recording.
#include "tools/receive/recorder.h"

#include <algorithm>
#include <utility>

namespace receive {

using tq::BufferPtr;
using tq::Failure;
using tq::GObjectPtr;
using tq::SamplePtr;
using Lock = std::unique_lock<std::mutex>;

namespace {

constexpr std::uint64_t kMostWaiting = 64000000;  // bytes of video
constexpr std::int64_t kTicks = 90000;            // per second
// Data may be older than the first frame, and files have no times before their beginning.
constexpr std::int64_t kLead = kTicks;
// The muxer waits for data that old before it writes a frame.
constexpr GstClockTime kPatience = GST_SECOND;

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// What is recorded has a parser of its own, as the muxer may need another form of the stream than
/// the decoder. A full disk shows at once, and nothing is left to write when the muxer has ended.
std::string describe(const std::string& parser, const std::string& muxer, bool withData)
{
    return "appsrc name=video format=time max-bytes=0 min-percent=50 ! " + parser +
           " config-interval=-1 ! " + muxer +
           " name=muxer ! filesink name=file buffer-mode=unbuffered async=false" +
           (withData ? " appsrc name=data format=time max-bytes=0 "
                       "caps=meta/x-klv,parsed=(boolean)true ! muxer."
                     : "");
}

}  // namespace

bool Recorder::add(const Frame& frame, bool withData)
{
    Lock lock(mutex);
    if (!pipeline && !over) {
        begin(frame, withData);
    }
    if (over) {
        return false;
    }
    const BufferPtr buffer(gst_buffer_copy(frame.buffer));
    GST_BUFFER_PTS(buffer.get()) = fileTime(frame.time);
    GST_BUFFER_DTS(buffer.get()) = GST_CLOCK_TIME_NONE;
    const SamplePtr sample(gst_sample_new(buffer.get(), frame.caps, nullptr, nullptr));
    if (gst_app_src_push_sample(GST_APP_SRC(video.get()), sample.get()) != GST_FLOW_OK) {
        return false;  // the recording is being completed
    }
    bridgeSilence(GST_BUFFER_PTS(buffer.get()));
    changed.wait(lock, [this] {
        return over || gst_app_src_get_current_level_bytes(GST_APP_SRC(video.get())) < kMostWaiting;
    });
    return true;
}

bool Recorder::add(const DataUnit& unit)
{
    const Lock lock(mutex);
    if (over) {
        return false;
    }
    if (data) {
        return push(unit);
    }
    if (!pipeline) {
        early.push_back({{unit.bytes, unit.bytes + unit.size}, unit.time});
    }
    return true;
}

void Recorder::begin(const Frame& first, bool withData)
{
    const std::string media =
        gst_structure_get_name(gst_caps_get_structure(first.caps, 0)) + sizeof "video/x";
    const bool stream = endsWith(path, ".ts");
    Failure failed;
    GstElement* const made = gst_parse_launch_full(
        describe(media + "parse", stream ? "mpegtsmux alignment=0" : "matroskamux",
                 stream && withData)
            .c_str(),
        nullptr, GST_PARSE_FLAG_FATAL_ERRORS, failed.place());
    if (!made) {
        over = true;
        onFailure(failed.text("cannot be written"));
        return;
    }
    pipeline.reset(GST_ELEMENT(gst_object_ref_sink(made)));
    reference = first.time;
    video.reset(gst_bin_get_by_name(GST_BIN(pipeline.get()), "video"));
    data.reset(gst_bin_get_by_name(GST_BIN(pipeline.get()), "data"));
    const GObjectPtr<GstElement> file(gst_bin_get_by_name(GST_BIN(pipeline.get()), "file"));
    g_object_set(file.get(), "location", path.c_str(), nullptr);
    GstAppSrcCallbacks callbacks{};
    callbacks.need_data = onNeedData;
    gst_app_src_set_callbacks(GST_APP_SRC(video.get()), &callbacks, this, nullptr);
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    gst_bus_set_sync_handler(bus.get(), onMessage, this, nullptr);
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    for (const EarlyUnit& unit : std::exchange(early, {})) {
        if (data) {
            push({unit.bytes.data(), unit.bytes.size(), unit.time});
        }
    }
}

/// Records keep their order, and stand before the frame of the last frame record: an inertial one
/// may be newer than the frame that waits for the encoder, and has its time in itself.
bool Recorder::push(const DataUnit& unit)
{
    bool isFrame = false;
    tq::wire::RecordHandler handler;
    handler.frame = [&](const tq::wire::FrameRecord&) { isFrame = true; };
    handler.imu = [](const tq::wire::ImuRecord&) {};
    tq::wire::readRecords(unit.bytes, unit.size, handler);
    const GstClockTime time = fileTime(unit.time);
    lastRecord = isFrame ? time : lastRecord;
    lastData = std::min(time, lastRecord.value_or(time));
    GstBuffer* const buffer = gst_buffer_new_memdup(unit.bytes, unit.size);
    GST_BUFFER_PTS(buffer) = lastData;
    return gst_app_src_push_buffer(GST_APP_SRC(data.get()), buffer) == GST_FLOW_OK;
}

/// The muxer goes on without data when there are none.
void Recorder::bridgeSilence(GstClockTime now)
{
    if (data && now > lastData + kPatience) {
        gst_element_send_event(data.get(), gst_event_new_gap(lastData, now - kPatience - lastData));
        lastData = now - kPatience;
    }
}

/// Where a time is in the file. Exact in ticks: what is rounded up here a muxer rounds down.
GstClockTime Recorder::fileTime(std::uint32_t time)
{
    const auto step =
        static_cast<std::int32_t>(time - reference - static_cast<std::uint32_t>(newest));
    if (step < -kTicks) {
        // The sender's clock was set back: the file goes on.
        reference = time - static_cast<std::uint32_t>(newest);
    } else {
        newest += step;
    }
    const std::int64_t ticks = std::max<std::int64_t>(newest + kLead, 0);
    return gst_util_uint64_scale_ceil(static_cast<guint64>(ticks), GST_SECOND, kTicks);
}

bool Recorder::finish(std::chrono::seconds patience)
{
    Lock lock(mutex);
    if (pipeline && !over) {
        for (GstElement* const input : {video.get(), data.get()}) {
            if (input) {
                gst_app_src_end_of_stream(GST_APP_SRC(input));
            }
        }
        changed.wait_for(lock, patience, [this] { return over; });
    }
    return std::exchange(over, true) || !pipeline;
}

void Recorder::stop()
{
    if (pipeline) {
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    }
    const Lock lock(mutex);  // what the streaming threads did comes before what follows
}

void Recorder::onNeedData(GstAppSrc*, guint, gpointer self)
{
    auto* const recorder = static_cast<Recorder*>(self);
    const Lock lock(recorder->mutex);
    recorder->changed.notify_all();
}

GstBusSyncReply Recorder::onMessage(GstBus*, GstMessage* message, gpointer self)
{
    auto* const recorder = static_cast<Recorder*>(self);
    const bool failed = GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR;
    if (failed || GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
        Lock lock(recorder->mutex);
        const bool first = !std::exchange(recorder->over, true);
        recorder->changed.notify_all();
        lock.unlock();
        if (failed && first) {
            Failure failure;
            gst_message_parse_error(message, failure.place(), nullptr);
            recorder->onFailure(failure.text("cannot be written"));
        }
    }
    gst_message_unref(message);
    return GST_BUS_DROP;
}

}  // namespace receive
