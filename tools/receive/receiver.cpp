// SPDX-License-Identifier: Apache-2.0
// The pipeline of vistrel-receive.
#include "tools/receive/receiver.h"

#include <gio/gio.h>
#include <gst/rtp/gstrtpbuffer.h>
#include <gst/video/video.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>
#include <iostream>
#include <sstream>
#include <thread>

namespace receive {

using tq::CapsPtr;
using tq::Failure;
using tq::GObjectPtr;
using tq::MessagePtr;
using tq::SamplePtr;
using Lock = std::lock_guard<std::mutex>;

namespace {

constexpr GstClockTime kPoll = 20 * GST_MSECOND;
constexpr auto kClosePatience = std::chrono::seconds(1);
constexpr GstClockTime kSnapshotPatience = 10 * GST_SECOND;
constexpr int kQueueBytes = 64000000;  // what waits to be decoded, or recorded, at most
constexpr int kEyeGrid = 24;           // samples per row and column of an eye
// In a pipeline that plays, a sink must not wait for a first frame before the others get any.
constexpr const char* kSink = "fakesink sync=false async=false enable-last-sample=false";

/// ns since 1970
std::uint64_t realTime()
{
    const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(now.count());
}

double seconds(std::chrono::steady_clock::duration time)
{
    return std::chrono::duration<double>(time).count();
}

void tell(const std::string& text)
{
    std::cerr << "vistrel-receive: " << printable(text) << '\n';
}

/// Memory of this process's own, without programs and libraries, MB
std::uint64_t memoryInUse()
{
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    std::uint64_t shared = 0;
    std::ifstream("/proc/self/statm") >> size >> resident >> shared;
    return (resident - shared) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) / 1000000u;
}

/// Does something that may wait for others. When it takes longer than that, it goes on.
/// @return whether it is done
template <typename Task>
bool doneWithin(std::chrono::seconds patience, Task task)
{
    std::packaged_task<void()> packaged(std::move(task));
    const std::future<void> done = packaged.get_future();
    std::thread(std::move(packaged)).detach();
    return done.wait_for(patience) == std::future_status::ready;
}

/// "H264", "SMPTE336M" and so on; empty if it is not known.
std::string encodingOf(const GstCaps* caps)
{
    const char* const name =
        caps ? gst_structure_get_string(gst_caps_get_structure(caps, 0), "encoding-name") : nullptr;
    return name ? name : "";
}

bool isVideo(const std::string& encoding)
{
    return encoding == "H264" || encoding == "H265";
}

/// Writes a whole file; errno says why it cannot.
bool writeFile(const std::string& path, const void* data, std::size_t bytes)
{
    std::ofstream file(path, std::ios::binary);
    file.write(static_cast<const char*>(data), static_cast<std::streamsize>(bytes));
    file.close();
    return file.good();
}

/// What is wrong with a certificate, in words.
std::string objections(GTlsCertificateFlags flags)
{
    struct Objection {
        GTlsCertificateFlags flag;
        const char* text;
    };
    std::string list;
    for (const Objection& objection :
         {Objection{G_TLS_CERTIFICATE_UNKNOWN_CA, "its authority is not known here"},
          Objection{G_TLS_CERTIFICATE_BAD_IDENTITY, "it is of another host"},
          Objection{G_TLS_CERTIFICATE_NOT_ACTIVATED, "it is not valid yet"},
          Objection{G_TLS_CERTIFICATE_EXPIRED, "it has expired"},
          Objection{G_TLS_CERTIFICATE_REVOKED, "it was revoked"},
          Objection{G_TLS_CERTIFICATE_INSECURE, "it is too weak"}}) {
        if ((flags & objection.flag) != 0) {
            list += (list.empty() ? "" : ", ") + std::string(objection.text);
        }
    }
    return list.empty() ? "it cannot be verified" : list;
}

/// Asked about a certificate that could not be verified; a thread of GStreamer's.
gboolean acceptCertificate(GstElement*, GTlsConnection*, GTlsCertificate*,
                           GTlsCertificateFlags flags, const Options* options)
{
    if (!options->insecure) {
        tell("the sender's certificate is refused: " + objections(flags) +
             " (see --ca and --insecure)");
    }
    return options->insecure ? TRUE : FALSE;
}

/// The installed decoder for "h264" or "h265", its plug-in loaded; empty if there is none.
std::string decoderFor(const std::string& codec)
{
    for (const std::string& name :
         {"avdec_" + codec, std::string(codec == "h265" ? "libde265dec" : "openh264dec")}) {
        const GObjectPtr<GstElementFactory> factory(gst_element_factory_find(name.c_str()));
        if (factory) {
            const GObjectPtr<GstPluginFeature> loaded(
                gst_plugin_feature_load(GST_PLUGIN_FEATURE(factory.get())));
            return name;
        }
    }
    return {};
}

/// Notes the RTP timestamp under the PTS, by which it is found when the packet is unwrapped.
/// @return bytes of the payload
std::size_t remember(Latest<GstClockTime, std::uint32_t>& times, GstBuffer* packet)
{
    GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
    if (!gst_rtp_buffer_map(packet, GST_MAP_READ, &rtp)) {
        return 0;
    }
    if (GST_BUFFER_PTS_IS_VALID(packet)) {
        times.add(GST_BUFFER_PTS(packet), gst_rtp_buffer_get_timestamp(&rtp));
    }
    const std::size_t bytes = gst_rtp_buffer_get_payload_len(&rtp);
    gst_rtp_buffer_unmap(&rtp);
    return bytes;
}

/// Luma of one eye on a coarse grid.
std::vector<std::uint8_t> sampleEye(const GstVideoFrame& frame, int eye)
{
    const int width = GST_VIDEO_FRAME_WIDTH(&frame) / 2;
    const int height = GST_VIDEO_FRAME_HEIGHT(&frame);
    const auto* luma = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    std::vector<std::uint8_t> sample;
    for (int row = 0; row < kEyeGrid; ++row) {
        const auto* line =
            luma + static_cast<std::ptrdiff_t>((2 * row + 1) * height / (2 * kEyeGrid)) * stride;
        for (int column = 0; column < kEyeGrid; ++column) {
            sample.push_back(line[eye * width + (2 * column + 1) * width / (2 * kEyeGrid)]);
        }
    }
    return sample;
}

}  // namespace

ExitStatus Receiver::run(const volatile std::sig_atomic_t& stop)
{
    if (!openAuthorities()) {
        return WRONG_USE;
    }
    if (!openFiles()) {
        tell(fileError);
        return FILE_ERROR;
    }
    if (start()) {
        while (stop == 0 && !finished() && !streamEnded()) {
            showStatus();
        }
    }
    finishRecording();
    std::unique_lock<std::mutex> lock(mutex);  // nothing is counted and written meanwhile
    finishFiles();
    if (!fileError.empty()) {
        tell(fileError);
    }
    const bool written = writeStatistics() && fileError.empty();
    const bool received = counts.totals.frames > 0 && counts.totals.frames >= options.frames;
    const ExitStatus status = !written ? FILE_ERROR : received ? SUCCESS : NO_FRAMES;
    lock.unlock();
    // A sender that goes on talking can hold this up for ever.
    if (!doneWithin(std::min(patience, kClosePatience),
                    [this] { gst_element_set_state(pipeline.get(), GST_STATE_NULL); })) {
        std::_Exit(status);
    }
    lock.lock();  // what the streaming threads did comes before what follows
    return status;
}

bool Receiver::openFiles()
{
    if (!options.imuFile.empty()) {
        imuFile.open(options.imuFile);
        imuFile.precision(17);  // reads back as the same number
        imuFile << "timestamp_ns,sequence,valid_fields,acceleration_x,acceleration_y,"
                   "acceleration_z,angular_rate_x,angular_rate_y,angular_rate_z,magnetic_x,"
                   "magnetic_y,magnetic_z,orientation_x,orientation_y,orientation_z,"
                   "orientation_w,temperature,pressure\n";
        if (!imuFile) {
            fileFailed(options.imuFile, std::strerror(errno));
        }
    }
    for (const std::string& path : {options.snapshot, options.recording}) {
        if (fileError.empty() && !path.empty() && !writeFile(path, "", 0)) {
            fileFailed(path, std::strerror(errno));
        }
    }
    return fileError.empty();
}

bool Receiver::openAuthorities()
{
    Failure failed;
    if (!options.authorities.empty()) {
        authorities.reset(g_tls_file_database_new(options.authorities.c_str(), failed.place()));
        if (!authorities) {
            tell(options.authorities + ": " + failed.text("is no PEM file"));
            return false;
        }
    }
    return true;
}

/// Says how the media come, and whom to trust.
void Receiver::protect(GstElement* source)
{
    gst_util_set_object_arg(G_OBJECT(source), "protocols",
                            options.tcp || options.isSecure() ? "tcp" : "udp+tcp");
    if (authorities) {
        g_object_set(source, "tls-database", authorities.get(), nullptr);
    }
    g_signal_connect(source, "accept-certificate", G_CALLBACK(acceptCertificate),
                     const_cast<Options*>(&options));
}

bool Receiver::start()
{
    pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("receive"))));
    // Else their loading would delay the first frames.
    decoderFor("h264");
    decoderFor("h265");
    GstElement* source = gst_element_factory_make("rtspsrc", "source");
    if (!source) {
        tell("the GStreamer element rtspsrc is not installed");
        return false;
    }
    g_object_set(source, "location", options.url.c_str(), "latency", options.jitter, "timeout",
                 guint64{2000000}, nullptr);
    protect(source);
    g_signal_connect(source, "select-stream",
                     G_CALLBACK(+[](GstElement*, guint stream, GstCaps* caps, Receiver* self) {
                         return static_cast<gboolean>(self->wants(stream, caps));
                     }),
                     this);
    // Each of what claims to be a further source of a stream would have threads of its own.
    g_signal_connect(source, "new-manager",
                     G_CALLBACK(+[](GstElement*, GstElement* manager, gpointer) {
                         g_object_set(manager, "max-streams", 1u, nullptr);
                     }),
                     nullptr);
    g_signal_connect(
        source, "pad-added",
        G_CALLBACK(+[](GstElement*, GstPad* pad, Receiver* self) { self->onPad(pad); }), this);
    gst_bin_add(GST_BIN(pipeline.get()), source);
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    gst_bus_set_sync_handler(bus.get(), onMessage, this, nullptr);
    if (gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        tell("the address cannot be used");
        return false;
    }
    return true;
}

bool Receiver::finished()
{
    const Clock::time_point now = Clock::now();
    const Lock lock(mutex);
    if ((options.frames > 0 && counts.totals.frames >= options.frames) ||
        (options.duration > 0 && seconds(now - began) >= options.duration)) {
        return true;
    }
    if (options.timeout > 0 && seconds(now - lastFrame) >= options.timeout) {
        std::ostringstream reason;
        reason << "no frame for " << options.timeout << " s";
        tell(reason.str());
        return true;
    }
    if (memoryInUse() > options.memory) {
        patience = {};  // or it would go on growing
        tell("more than " + std::to_string(options.memory) +
             " MB of memory are in use (--memory allows more)");
        return true;
    }
    return false;
}

/// Waits for news of the pipeline for a while.
bool Receiver::streamEnded()
{
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    const MessagePtr message(gst_bus_timed_pop(bus.get(), kPoll));
    if (!message) {
        return false;
    }
    Failure failed;
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
        gst_message_parse_error(message.get(), failed.place(), nullptr);
    }
    const Lock lock(mutex);
    if (fileError.empty()) {
        tell(failed.text("the stream has ended"));
    }
    return true;
}

void Receiver::showStatus()
{
    const Clock::time_point now = Clock::now();
    const double passed = seconds(now - shown);
    if (passed < 1) {
        return;
    }
    shown = now;
    const Lock lock(mutex);
    const std::string line = counts.statusLine(passed);
    if (!options.quiet && counts.totals.frames > 0) {
        std::cout << line << '\n' << std::flush;
    }
}

// The muxer completes the file when its input ends; the rest of the pipeline goes on meanwhile.
void Receiver::finishRecording()
{
    std::unique_lock<std::mutex> lock(mutex);
    if (!recordingInput || recordingOver) {
        return;
    }
    lock.unlock();
    const bool told = doneWithin(patience, [this] {
        const GObjectPtr<GstPad> tee(gst_pad_get_peer(recordingInput.get()));
        gst_pad_unlink(tee.get(), recordingInput.get());
        gst_pad_send_event(recordingInput.get(), gst_event_new_eos());
    });
    lock.lock();
    if (!told || !recordingEnded.wait_for(lock, patience, [this] { return recordingOver; })) {
        fileFailed(options.recording, "could not be completed");
    }
}

/// The mutex is held.
void Receiver::finishFiles()
{
    if (imuFile.is_open()) {
        imuFile.close();
        if (!imuFile) {
            fileFailed(options.imuFile, std::strerror(errno));
        }
    }
    // What was removed in the meantime has been written to nobody's use.
    for (const std::string& path : {options.snapshot, options.recording, options.imuFile}) {
        struct stat status = {};
        if (!path.empty() && stat(path.c_str(), &status) != 0) {
            fileFailed(path, std::strerror(errno));
        }
    }
}

bool Receiver::writeStatistics()
{
    if (options.statistics.empty()) {
        return true;
    }
    const std::string text =
        counts.json(withoutCredentials(options.url), seconds(lastFrame - firstFrame)) + '\n';
    if (options.statistics == "-") {
        std::cout << text << std::flush;
        return std::cout.good();
    }
    if (!writeFile(options.statistics, text.data(), text.size())) {
        tell(options.statistics + ": " + std::strerror(errno));
        return false;
    }
    return true;
}

/// Whether a stream of the session is received: the first video and the first data.
bool Receiver::wants(guint stream, const GstCaps* caps)
{
    const std::string encoding = encodingOf(caps);
    if (!isVideo(encoding) && encoding != "SMPTE336M") {
        return false;
    }
    std::optional<guint>& wanted = isVideo(encoding) ? videoStream : dataStream;
    if (!wanted) {
        wanted = stream;
    }
    // Asked again when the media are asked for by TCP instead.
    return *wanted == stream;
}

void Receiver::onPad(GstPad* pad)
{
    const CapsPtr caps(gst_pad_get_current_caps(pad));
    std::string encoding = encodingOf(caps.get());
    if (encoding == "SMPTE336M" && !dataConnected.exchange(true)) {
        connect(pad, std::string("identity name=data-packets ! ") + kSink);
    }
    if (!isVideo(encoding) || videoConnected.exchange(true)) {
        return;
    }
    const std::string codec = encoding == "H265" ? "h265" : "h264";
    if (options.decode && decoderFor(codec).empty()) {
        GST_ELEMENT_ERROR(pipeline.get(), CORE, MISSING_PLUGIN,
                          ("no decoder for %s is installed", encoding.c_str()), (nullptr));
        return;
    }
    connect(pad, videoLine(codec));
    const Lock lock(mutex);
    counts.codec = encoding.insert(1, ".");
}

// What is recorded has a parser of its own, as the muxer may need another form of the stream than
// the decoder.
std::string Receiver::videoLine(const std::string& codec) const
{
    std::string line = "identity name=packets ! rtp" + codec + "depay ! " + codec +
                       "parse ! identity name=frames ! tee name=t t. ! ";
    if (options.decode) {
        line += "queue max-size-bytes=" + std::to_string(kQueueBytes) + " ! " + decoderFor(codec) +
                " ! identity name=pictures ! ";
    }
    line += kSink;
    if (!options.recording.empty()) {
        line +=
            " t. ! queue name=record max-size-buffers=0 max-size-time=3000000000 max-size-bytes=" +
            std::to_string(kQueueBytes) + " ! " + codec +
            "parse name=record-parser ! matroskamux name=record-muxer ! "
            // A full disk shows at once, and nothing is left to write when the muxer has ended.
            "filesink name=record-file buffer-mode=unbuffered async=false";
    }
    return line;
}

void Receiver::connect(GstPad* pad, const std::string& description)
{
    Failure failed;
    GstElement* bin = gst_parse_bin_from_description_full(
        description.c_str(), TRUE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, failed.place());
    if (!bin) {
        GST_ELEMENT_ERROR(pipeline.get(), CORE, MISSING_PLUGIN, ("%s", failed.text("")), (nullptr));
        return;
    }
    gst_bin_add(GST_BIN(pipeline.get()), bin);
    watch<&Receiver::onVideoPacket>(bin, "packets");
    watch<&Receiver::onCodedFrame>(bin, "frames");
    watch<&Receiver::onPicture>(bin, "pictures");
    watch<&Receiver::onDataPacket>(bin, "data-packets");
    const GObjectPtr<GstElement> file(gst_bin_get_by_name(GST_BIN(bin), "record-file"));
    if (file) {
        g_object_set(file.get(), "location", options.recording.c_str(), nullptr);
        const GObjectPtr<GstPad> end(gst_element_get_static_pad(file.get(), "sink"));
        gst_pad_add_probe(end.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, onRecordingEvent, this,
                          nullptr);
        const GObjectPtr<GstElement> record(gst_bin_get_by_name(GST_BIN(bin), "record"));
        const Lock lock(mutex);
        recordingInput.reset(gst_element_get_static_pad(record.get(), "sink"));
    }
    const GObjectPtr<GstPad> sink(gst_element_get_static_pad(bin, "sink"));
    gst_element_sync_state_with_parent(bin);
    gst_pad_link(pad, sink.get());
}

/// Has a function called for every buffer that passes the element of this name, if there is one.
template <void (Receiver::*handle)(GstElement*, GstBuffer*)>
void Receiver::watch(GstElement* bin, const char* name)
{
    const GObjectPtr<GstElement> element(gst_bin_get_by_name(GST_BIN(bin), name));
    const auto call = [](GstElement* place, GstBuffer* buffer, Receiver* self) {
        (self->*handle)(place, buffer);
    };
    if (element) {
        g_signal_connect(element.get(), "handoff", G_CALLBACK(+call), this);
    }
}

GstPadProbeReturn Receiver::onRecordingEvent(GstPad*, GstPadProbeInfo* info, gpointer self)
{
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) != GST_EVENT_EOS) {
        return GST_PAD_PROBE_OK;
    }
    // Taken before the file element sees it, after the muxer has written its end.
    auto* const receiver = static_cast<Receiver*>(self);
    const Lock lock(receiver->mutex);
    receiver->recordingOver = true;
    receiver->recordingEnded.notify_all();
    return GST_PAD_PROBE_REMOVE;
}

/// Lets pass what ends the stream; a sender can cause any number of others. Takes note of what went
/// wrong with the recording.
GstBusSyncReply Receiver::onMessage(GstBus*, GstMessage* message, gpointer self)
{
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
            return GST_BUS_PASS;
        }
        gst_message_unref(message);
        return GST_BUS_DROP;
    }
    if (g_str_has_prefix(GST_MESSAGE_SRC_NAME(message), "record")) {
        auto* const receiver = static_cast<Receiver*>(self);
        Failure failed;
        gst_message_parse_error(message, failed.place(), nullptr);
        const Lock lock(receiver->mutex);
        receiver->fileFailed(receiver->options.recording, failed.text("cannot be written"));
        receiver->recordingOver = true;
        receiver->recordingEnded.notify_all();
    }
    return GST_BUS_PASS;
}

void Receiver::onVideoPacket(GstElement*, GstBuffer* packet)
{
    const Lock lock(mutex);
    counts.totals.videoBytes += remember(rtpTimes, packet);
}

void Receiver::onDataPacket(GstElement*, GstBuffer* packet)
{
    GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
    if (!gst_rtp_buffer_map(packet, GST_MAP_READ, &rtp)) {
        return;
    }
    const Lock lock(mutex);
    const std::vector<std::uint8_t>* const unit =
        units.add(gst_rtp_buffer_get_seq(&rtp), gst_rtp_buffer_get_marker(&rtp) != FALSE,
                  static_cast<const std::uint8_t*>(gst_rtp_buffer_get_payload(&rtp)),
                  gst_rtp_buffer_get_payload_len(&rtp));
    if (unit) {
        readUnit(*unit, gst_rtp_buffer_get_timestamp(&rtp));
    }
    gst_rtp_buffer_unmap(&rtp);
}

void Receiver::onCodedFrame(GstElement*, GstBuffer* frame)
{
    const Lock lock(mutex);
    ++counts.framesReceived;
    if (!GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT)) {
        ++counts.keyFrames;
    }
    if (!options.decode) {
        finishedFrame(frame, realTime());
    }
}

void Receiver::onPicture(GstElement* place, GstBuffer* picture)
{
    const std::uint64_t now = realTime();
    const GObjectPtr<GstPad> pad(gst_element_get_static_pad(place, "sink"));
    const CapsPtr caps(gst_pad_get_current_caps(pad.get()));
    if (!options.snapshot.empty() && !std::exchange(snapshotWritten, true)) {
        writeSnapshot(picture, caps.get());
    }
    const Lock lock(mutex);
    GstVideoInfo info;
    GstVideoFrame frame;
    if (gst_video_info_from_caps(&info, caps.get()) &&
        gst_video_frame_map(&frame, &info, picture, GST_MAP_READ)) {
        counts.width = GST_VIDEO_FRAME_WIDTH(&frame);
        counts.height = GST_VIDEO_FRAME_HEIGHT(&frame);
        counts.left.update(sampleEye(frame, 0));
        counts.right.update(sampleEye(frame, 1));
        gst_video_frame_unmap(&frame);
    }
    finishedFrame(picture, now);
}

/// Counts a frame whose packets were seen. The mutex is held.
void Receiver::finishedFrame(GstBuffer* frame, std::uint64_t now)
{
    if (const auto rtpTime = rtpTimes.find(GST_BUFFER_PTS(frame))) {
        lastFrame = Clock::now();
        firstFrame = counts.totals.frames == 0 ? lastFrame : firstFrame;
        counts.finishedFrame(*rtpTime, now);
    }
}

/// The mutex is held.
void Receiver::readUnit(const std::vector<std::uint8_t>& unit, std::uint32_t rtpTime)
{
    RecordHandler handler;
    handler.frame = [&](const FrameRecord& record) {
        counts.frameRecord(record, rtpTime, elapsed());
    };
    handler.imu = [&](const ImuRecord& record) {
        counts.imuRecord(record, elapsed());
        writeImu(record);
    };
    if (!readRecords(unit.data(), unit.size(), handler)) {
        ++counts.malformedRecords;
    }
}

void Receiver::writeSnapshot(GstBuffer* picture, GstCaps* caps)
{
    const SamplePtr raw(gst_sample_new(picture, caps, nullptr, nullptr));
    const CapsPtr format(gst_caps_new_empty_simple("image/png"));
    Failure failed;
    const SamplePtr png(
        gst_video_convert_sample(raw.get(), format.get(), kSnapshotPatience, failed.place()));
    GstBuffer* const file = png ? gst_sample_get_buffer(png.get()) : nullptr;
    GstMapInfo map;
    if (!file || !gst_buffer_map(file, &map, GST_MAP_READ)) {
        const Lock lock(mutex);
        fileFailed(options.snapshot, failed.text("cannot be coded"));
        return;
    }
    if (!writeFile(options.snapshot, map.data, map.size)) {
        const Lock lock(mutex);
        fileFailed(options.snapshot, std::strerror(errno));
    }
    gst_buffer_unmap(file, &map);
}

void Receiver::writeImu(const ImuRecord& record)
{
    if (!imuFile.is_open() || !imuFile) {
        return;
    }
    imuFile << record.timestamp << ',' << record.sequence << ',' << record.validFields;
    for (const double value : record.values) {
        imuFile << ',' << value;
    }
    imuFile << '\n';
    if (!imuFile) {
        fileFailed(options.imuFile, std::strerror(errno));
    }
}

/// Seconds since this began.
double Receiver::elapsed() const
{
    return seconds(Clock::now() - began);
}

/// Keeps the first reason. The mutex is held where streaming threads run.
void Receiver::fileFailed(const std::string& path, const char* reason)
{
    if (fileError.empty()) {
        fileError = path + ": " + reason;
    }
}

}  // namespace receive
