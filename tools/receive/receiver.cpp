// SPDX-License-Identifier: Apache-2.0
// The pipeline of vistrel-receive.
#include "tools/receive/receiver.h"

#include <gst/app/gstappsink.h>
#include <gst/rtp/gstrtpbuffer.h>
#include <gst/video/video.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

namespace receive {

using tq::CapsPtr;
using tq::Failure;
using tq::GObjectPtr;
using tq::MessagePtr;
using tq::SamplePtr;

namespace {

constexpr std::size_t kFramesUnderWay = 512;
constexpr auto kRecordingPatience = std::chrono::seconds(5);
constexpr GstClockTime kSnapshotPatience = 10 * GST_SECOND;
constexpr int kEyeGrid = 24;  // samples per row and column of an eye

std::uint64_t realTime()
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<std::uint64_t>(t.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(t.tv_nsec);
}

/// The first of the elements that is installed, or null.
const char* firstInstalled(std::initializer_list<const char*> elements)
{
    for (const char* element : elements) {
        const GObjectPtr<GstElementFactory> factory(gst_element_factory_find(element));
        if (factory) {
            return element;
        }
    }
    return nullptr;
}

const char* decoderFor(const std::string& encoding)
{
    return encoding == "H265" ? firstInstalled({"avdec_h265", "libde265dec"})
                              : firstInstalled({"avdec_h264", "openh264dec"});
}

/// Loads the decoders' plug-ins ahead of time, which else would delay the first frames.
void loadDecoders()
{
    for (const char* encoding : {"H264", "H265"}) {
        if (const char* decoder = decoderFor(encoding)) {
            const GObjectPtr<GstElementFactory> factory(gst_element_factory_find(decoder));
            const GObjectPtr<GstPluginFeature> loaded(
                gst_plugin_feature_load(GST_PLUGIN_FEATURE(factory.get())));
        }
    }
}

bool readRtpTime(GstBuffer* packet, std::uint32_t& rtpTime, std::size_t& payloadBytes)
{
    GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
    if (!gst_rtp_buffer_map(packet, GST_MAP_READ, &rtp)) {
        return false;
    }
    rtpTime = gst_rtp_buffer_get_timestamp(&rtp);
    payloadBytes = gst_rtp_buffer_get_payload_len(&rtp);
    gst_rtp_buffer_unmap(&rtp);
    return true;
}

void remember(std::map<GstClockTime, std::uint32_t>& times, GstBuffer* packet,
              std::uint32_t rtpTime)
{
    if (!GST_BUFFER_PTS_IS_VALID(packet)) {
        return;
    }
    times[GST_BUFFER_PTS(packet)] = rtpTime;
    if (times.size() > kFramesUnderWay) {
        times.erase(times.begin());
    }
}

EyeSample sampleEye(const GstVideoFrame& frame, int eye)
{
    const int width = GST_VIDEO_FRAME_WIDTH(&frame) / 2;
    const int height = GST_VIDEO_FRAME_HEIGHT(&frame);
    const auto* luma = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    EyeSample sample;
    for (int row = 0; row < kEyeGrid; ++row) {
        const auto* line =
            luma + static_cast<std::ptrdiff_t>((2 * row + 1) * height / (2 * kEyeGrid)) * stride;
        for (int column = 0; column < kEyeGrid; ++column) {
            sample.luma.push_back(line[eye * width + (2 * column + 1) * width / (2 * kEyeGrid)]);
        }
    }
    return sample;
}

}  // namespace

/// Brings GStreamer's callbacks to the receiver.
struct ReceiverCallbacks {
    static void padAdded(GstElement*, GstPad* pad, gpointer self)
    {
        static_cast<Receiver*>(self)->onPad(pad);
    }

    /// For every buffer that passes a pad, by itself or in a list.
    template <void (Receiver::*handle)(GstBuffer*)>
    static GstPadProbeReturn buffers(GstPad*, GstPadProbeInfo* info, gpointer self)
    {
        auto* receiver = static_cast<Receiver*>(self);
        if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER_LIST) {
            GstBufferList* list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
            for (guint i = 0; i < gst_buffer_list_length(list); ++i) {
                (receiver->*handle)(gst_buffer_list_get(list, i));
            }
        } else {
            (receiver->*handle)(GST_PAD_PROBE_INFO_BUFFER(info));
        }
        return GST_PAD_PROBE_OK;
    }

    template <void (Receiver::*handle)(GstSample*)>
    static GstFlowReturn samples(GstAppSink* sink, gpointer self)
    {
        const SamplePtr sample(gst_app_sink_pull_sample(sink));
        if (!sample) {
            return GST_FLOW_EOS;
        }
        (static_cast<Receiver*>(self)->*handle)(sample.get());
        return GST_FLOW_OK;
    }

    template <void (Receiver::*handle)(GstSample*)>
    static void watchSink(GstElement* sink, Receiver* receiver)
    {
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = samples<handle>;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, receiver, nullptr);
    }

    template <void (Receiver::*handle)(GstBuffer*)>
    static void watchPad(GstElement* element, Receiver* receiver)
    {
        probe(element, GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST, buffers<handle>,
              receiver);
    }

    static void probe(GstElement* element, int types, GstPadProbeCallback callback,
                      Receiver* receiver)
    {
        const GObjectPtr<GstPad> pad(gst_element_get_static_pad(element, "sink"));
        gst_pad_add_probe(pad.get(), static_cast<GstPadProbeType>(types), callback, receiver,
                          nullptr);
    }

    static void watchRecording(GstElement* file, Receiver* receiver)
    {
        probe(file, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, recordingEnd, receiver);
    }

    static GstPadProbeReturn recordingEnd(GstPad*, GstPadProbeInfo* info, gpointer self)
    {
        if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS) {
            // Taken before the file element sees it, after the muxer has written its end.
            auto* receiver = static_cast<Receiver*>(self);
            const std::lock_guard<std::mutex> lock(receiver->mutex);
            receiver->recordingDone = true;
            receiver->recordingChanged.notify_all();
        }
        return GST_PAD_PROBE_OK;
    }

    static GstPadProbeReturn cutRecording(GstPad* tee, GstPadProbeInfo*, gpointer)
    {
        const GObjectPtr<GstPad> input(gst_pad_get_peer(tee));
        if (input) {
            gst_pad_unlink(tee, input.get());
            gst_pad_send_event(input.get(), gst_event_new_eos());
        }
        return GST_PAD_PROBE_REMOVE;
    }
};

Receiver::Receiver(const Options& receiveOptions) : options(receiveOptions) {}

Receiver::~Receiver()
{
    stop();
}

std::string Receiver::start()
{
    if (!options.imuFile.empty()) {
        imuFile.reset(std::fopen(options.imuFile.c_str(), "we"));
        if (!imuFile) {
            return options.imuFile + ": " + std::strerror(errno);
        }
        std::fputs(
            "timestamp_ns,sequence,valid_fields,acceleration_x,acceleration_y,"
            "acceleration_z,angular_rate_x,angular_rate_y,angular_rate_z,magnetic_x,"
            "magnetic_y,magnetic_z,orientation_x,orientation_y,orientation_z,"
            "orientation_w,temperature,pressure\n",
            imuFile.get());
    }
    for (const std::string& path : {options.snapshot, options.recording}) {
        const FilePtr file(path.empty() ? nullptr : std::fopen(path.c_str(), "we"));
        if (!path.empty() && !file) {
            return path + ": " + std::strerror(errno);
        }
    }
    pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("receive"))));
    loadDecoders();
    GstElement* source = gst_element_factory_make("rtspsrc", "source");
    if (!source) {
        fail("the GStreamer element rtspsrc is not installed");
        return {};
    }
    g_object_set(source, "location", options.url.c_str(), "latency", options.jitter, "timeout",
                 static_cast<guint64>(2000000), nullptr);
    gst_util_set_object_arg(G_OBJECT(source), "protocols", options.tcp ? "tcp" : "udp+tcp");
    g_signal_connect(source, "pad-added", G_CALLBACK(ReceiverCallbacks::padAdded), this);
    gst_bin_add(GST_BIN(pipeline.get()), source);
    if (gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        fail("the address cannot be used");
    }
    return {};
}

bool Receiver::poll(int milliseconds)
{
    if (!failure.empty()) {
        return false;
    }
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    const MessagePtr message(gst_bus_timed_pop_filtered(
        bus.get(), static_cast<GstClockTime>(milliseconds) * GST_MSECOND,
        static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
    if (!message) {
        return true;
    }
    Failure failed;
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
        gst_message_parse_error(message.get(), failed.place(), nullptr);
    }
    fail(failed.text("the stream has ended"));
    return false;
}

std::string Receiver::stop()
{
    if (pipeline) {
        finishRecording();
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        pipeline.reset();
    }
    const std::lock_guard<std::mutex> lock(mutex);
    recordingInput.reset();
    if (imuFile && std::fclose(imuFile.release()) != 0 && fileError.empty()) {
        fileError = options.imuFile + ": " + std::strerror(errno);
    }
    return fileError;
}

void Receiver::onPad(GstPad* pad)
{
    const CapsPtr caps(gst_pad_get_current_caps(pad));
    const char* name =
        caps ? gst_structure_get_string(gst_caps_get_structure(caps.get(), 0), "encoding-name")
             : nullptr;
    const std::string encoding = name ? name : "";
    if (encoding == "H264" || encoding == "H265") {
        if (!videoConnected.exchange(true)) {
            connectVideo(pad, encoding);
        }
    } else if (encoding == "SMPTE336M" && !dataConnected.exchange(true)) {
        connectData(pad);
    }
}

// The sinks are added to a pipeline that plays: they must not wait for a first frame of their own
// before the others get any. What is recorded has a parser of its own, as the muxer may need
// another form of the stream than the decoder.
std::string Receiver::videoLine(const std::string& encoding) const
{
    const bool h265 = encoding == "H265";
    const char* decoder = decoderFor(encoding);
    const std::string parser = h265 ? "h265parse" : "h264parse";
    std::string line = h265 ? "rtph265depay" : "rtph264depay";
    line += " name=depay ! " + parser + " ! tee name=t";
    line += options.decode && decoder
                ? " t. ! queue max-size-bytes=0 ! " + std::string(decoder) +
                      " ! appsink name=pictures sync=false async=false enable-last-sample=false"
                : std::string(" t. ! fakesink sync=false async=false");
    if (!options.recording.empty()) {
        line +=
            " t. ! queue name=record max-size-bytes=0 max-size-buffers=0 "
            "max-size-time=3000000000 ! " +
            parser + " ! matroskamux ! filesink name=file async=false";
    }
    return line;
}

GstElement* Receiver::addBin(const std::string& description)
{
    Failure failed;
    GstElement* bin = gst_parse_bin_from_description_full(
        description.c_str(), TRUE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, failed.place());
    if (!bin) {
        GST_ELEMENT_ERROR(pipeline.get(), CORE, MISSING_PLUGIN, ("%s", failed.text("")), (nullptr));
        return nullptr;
    }
    gst_bin_add(GST_BIN(pipeline.get()), bin);
    return bin;
}

void Receiver::connectVideo(GstPad* pad, const std::string& encoding)
{
    if (options.decode && !decoderFor(encoding)) {
        GST_ELEMENT_ERROR(pipeline.get(), CORE, MISSING_PLUGIN,
                          ("no decoder for %s is installed", encoding.c_str()), (nullptr));
        return;
    }
    GstElement* bin = addBin(videoLine(encoding));
    if (!bin) {
        return;
    }
    counts.codecName(encoding == "H265" ? "H.265" : "H.264");
    const GObjectPtr<GstElement> depay(gst_bin_get_by_name(GST_BIN(bin), "depay"));
    ReceiverCallbacks::watchPad<&Receiver::onVideoPacket>(depay.get(), this);
    const GObjectPtr<GstElement> tee(gst_bin_get_by_name(GST_BIN(bin), "t"));
    ReceiverCallbacks::watchPad<&Receiver::onCodedFrame>(tee.get(), this);
    const GObjectPtr<GstElement> pictures(gst_bin_get_by_name(GST_BIN(bin), "pictures"));
    if (pictures) {
        ReceiverCallbacks::watchSink<&Receiver::onPicture>(pictures.get(), this);
    }
    const GObjectPtr<GstElement> record(gst_bin_get_by_name(GST_BIN(bin), "record"));
    if (record) {
        const GObjectPtr<GstElement> file(gst_bin_get_by_name(GST_BIN(bin), "file"));
        g_object_set(file.get(), "location", options.recording.c_str(), nullptr);
        ReceiverCallbacks::watchRecording(file.get(), this);
        const std::lock_guard<std::mutex> lock(mutex);
        recordingInput.reset(gst_element_get_static_pad(record.get(), "sink"));
    }
    const GObjectPtr<GstPad> sink(gst_element_get_static_pad(bin, "sink"));
    gst_element_sync_state_with_parent(bin);
    gst_pad_link(pad, sink.get());
}

void Receiver::connectData(GstPad* pad)
{
    GstElement* bin = addBin(
        "rtpklvdepay name=depay ! appsink name=data sync=false async=false "
        "enable-last-sample=false");
    if (!bin) {
        return;
    }
    const GObjectPtr<GstElement> depay(gst_bin_get_by_name(GST_BIN(bin), "depay"));
    ReceiverCallbacks::watchPad<&Receiver::onDataPacket>(depay.get(), this);
    const GObjectPtr<GstElement> data(gst_bin_get_by_name(GST_BIN(bin), "data"));
    ReceiverCallbacks::watchSink<&Receiver::onData>(data.get(), this);
    const GObjectPtr<GstPad> sink(gst_element_get_static_pad(bin, "sink"));
    gst_element_sync_state_with_parent(bin);
    gst_pad_link(pad, sink.get());
}

void Receiver::onVideoPacket(GstBuffer* packet)
{
    std::uint32_t rtpTime = 0;
    std::size_t bytes = 0;
    if (!readRtpTime(packet, rtpTime, bytes)) {
        return;
    }
    counts.videoPacket(bytes);
    const std::lock_guard<std::mutex> lock(mutex);
    remember(rtpTimes, packet, rtpTime);
}

void Receiver::onDataPacket(GstBuffer* packet)
{
    std::uint32_t rtpTime = 0;
    std::size_t bytes = 0;
    if (readRtpTime(packet, rtpTime, bytes)) {
        const std::lock_guard<std::mutex> lock(mutex);
        remember(dataRtpTimes, packet, rtpTime);
    }
}

void Receiver::onCodedFrame(GstBuffer* frame)
{
    counts.codedFrame(!GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT));
    std::uint32_t rtpTime = 0;
    if (!options.decode && recall(rtpTimes, GST_BUFFER_PTS(frame), rtpTime)) {
        counts.finishedFrame(rtpTime, realTime());
    }
}

void Receiver::onPicture(GstSample* sample)
{
    const std::uint64_t now = realTime();
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    std::uint32_t rtpTime = 0;
    if (!buffer || !recall(rtpTimes, GST_BUFFER_PTS(buffer), rtpTime)) {
        return;
    }
    GstVideoInfo info;
    GstVideoFrame frame;
    if (gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) &&
        gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ)) {
        counts.pictureSize(GST_VIDEO_FRAME_WIDTH(&frame), GST_VIDEO_FRAME_HEIGHT(&frame));
        counts.eyes(sampleEye(frame, 0), sampleEye(frame, 1));
        gst_video_frame_unmap(&frame);
    }
    if (!options.snapshot.empty() && !std::exchange(snapshotWritten, true)) {
        writeSnapshot(sample);
    }
    counts.finishedFrame(rtpTime, now);
}

void Receiver::onData(GstSample* sample)
{
    GstBuffer* unit = gst_sample_get_buffer(sample);
    std::uint32_t rtpTime = 0;
    GstMapInfo map;
    if (!unit || !gst_buffer_map(unit, &map, GST_MAP_READ)) {
        return;
    }
    recall(dataRtpTimes, GST_BUFFER_PTS(unit), rtpTime);
    RecordHandler handler;
    handler.frame = [&](const FrameRecord& record) { counts.frameRecord(record, rtpTime); };
    handler.imu = [&](const ImuRecord& record) {
        counts.imuRecord(record);
        writeImu(record);
    };
    if (!readRecords(map.data, map.size, handler)) {
        counts.malformedRecord();
    }
    gst_buffer_unmap(unit, &map);
}

void Receiver::writeSnapshot(GstSample* sample)
{
    const CapsPtr png(gst_caps_new_empty_simple("image/png"));
    Failure failed;
    const SamplePtr picture(
        gst_video_convert_sample(sample, png.get(), kSnapshotPatience, failed.place()));
    GstBuffer* const file = picture ? gst_sample_get_buffer(picture.get()) : nullptr;
    std::string problem;
    GstMapInfo map;
    if (!file) {
        problem = failed.text("cannot be coded");
    } else if (gst_buffer_map(file, &map, GST_MAP_READ)) {
        FilePtr out(std::fopen(options.snapshot.c_str(), "we"));
        const bool written = out && std::fwrite(map.data, 1, map.size, out.get()) == map.size;
        if (!written || std::fclose(out.release()) != 0) {
            problem = std::strerror(errno);
        }
        gst_buffer_unmap(file, &map);
    }
    const std::lock_guard<std::mutex> lock(mutex);
    if (!problem.empty() && fileError.empty()) {
        fileError = options.snapshot + ": " + problem;
    }
}

void Receiver::writeImu(const ImuRecord& record)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (!imuFile) {
        return;
    }
    std::string line = std::to_string(record.timestamp) + ',' + std::to_string(record.sequence) +
                       ',' + std::to_string(record.validFields);
    for (const double value : record.values) {
        char text[32];
        // The shortest form that reads back as the same number has at most 17 digits.
        std::snprintf(text, sizeof text, ",%.17g", value);
        line += text;
    }
    line += '\n';
    if (std::fputs(line.c_str(), imuFile.get()) < 0 && fileError.empty()) {
        fileError = options.imuFile + ": " + std::strerror(errno);
    }
}

bool Receiver::recall(const RtpTimes& times, GstClockTime pts, std::uint32_t& rtpTime)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = times.find(pts);
    if (found == times.end()) {
        return false;
    }
    rtpTime = found->second;
    return true;
}

// The muxer completes the file when its input ends; the rest of the pipeline goes on meanwhile.
void Receiver::finishRecording()
{
    std::unique_lock<std::mutex> lock(mutex);
    if (!recordingInput || recordingDone) {
        return;
    }
    const GObjectPtr<GstPad> tee(gst_pad_get_peer(recordingInput.get()));
    lock.unlock();
    if (!tee) {
        return;
    }
    gst_pad_add_probe(tee.get(), GST_PAD_PROBE_TYPE_IDLE, ReceiverCallbacks::cutRecording, nullptr,
                      nullptr);
    lock.lock();
    if (!recordingChanged.wait_for(lock, kRecordingPatience, [this] { return recordingDone; }) &&
        fileError.empty()) {
        fileError = options.recording + ": could not be completed";
    }
}

void Receiver::fail(const std::string& reason)
{
    if (failure.empty()) {
        failure = reason;
    }
}

}  // namespace receive
