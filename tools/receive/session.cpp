// SPDX-License-Identifier: Apache-2.0
// The pipeline that receives a stream or reads a file.
#include "tools/receive/session.h"

#include <gio/gio.h>
#include <gst/rtp/gstrtpbuffer.h>

#include <utility>

namespace receive {

using tq::CapsPtr;
using tq::Failure;
using tq::GObjectPtr;
using tq::MessagePtr;
using Lock = std::lock_guard<std::mutex>;

namespace {

constexpr const char* kDataEncoding = "SMPTE336M";
constexpr int kQueueBytes = 64000000;  // what waits to be decoded at most
// In a pipeline that plays, a sink must not wait for a first frame before the others get any.
constexpr const char* kSink = "fakesink sync=false async=false enable-last-sample=false";

/// "H264", "H265", "SMPTE336M" and so on, by RTP or as they are; empty if it is not known.
std::string encodingOf(const GstCaps* caps)
{
    const GstStructure* const media = caps ? gst_caps_get_structure(caps, 0) : nullptr;
    const char* const carried = media ? gst_structure_get_string(media, "encoding-name") : nullptr;
    if (carried) {
        return carried;
    }
    const std::string name = media ? gst_structure_get_name(media) : "";
    return name == "video/x-h264"   ? "H264"
           : name == "video/x-h265" ? "H265"
           : name == "meta/x-klv"   ? kDataEncoding
                                    : "";
}

bool isVideo(const std::string& encoding)
{
    return encoding == "H264" || encoding == "H265";
}

/// A time of a file in 1/90000 s, as it was written.
std::uint32_t mediaTime(GstClockTime time)
{
    return static_cast<std::uint32_t>(gst_util_uint64_scale_round(time, 90000, GST_SECOND));
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

/// Lets pass what ends the stream; a sender can cause any number of others.
GstBusSyncReply onMessage(GstBus*, GstMessage* message, gpointer)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR ||
        GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
        return GST_BUS_PASS;
    }
    gst_message_unref(message);
    return GST_BUS_DROP;
}

}  // namespace

std::string Session::trust()
{
    Failure failed;
    if (!source.authorities.empty()) {
        authorities.reset(g_tls_file_database_new(source.authorities.c_str(), failed.place()));
    }
    return authorities || source.authorities.empty()
               ? ""
               : source.authorities + ": " + failed.text("is no PEM file");
}

std::string Session::start()
{
    // Else their loading would delay the first frames.
    decoderFor("h264");
    decoderFor("h265");
    pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("receive"))));
    const std::string reader = source.isFile() ? "tsdemux" : "rtspsrc";
    GstElement* const element = gst_element_factory_make(reader.c_str(), "source");
    if (!element) {
        return "the GStreamer element " + reader + " is not installed";
    }
    gst_bin_add(GST_BIN(pipeline.get()), element);
    g_signal_connect(element, "pad-added", G_CALLBACK(+[](GstElement*, GstPad* pad, Session* self) {
                         self->onPad(pad);
                         const Lock lock(self->mutex);  // it comes before the end, see stop()
                     }),
                     this);
    if (source.isFile()) {
        GstElement* const file = gst_element_factory_make("filesrc", nullptr);
        g_object_set(file, "location", source.url.c_str(), nullptr);
        gst_bin_add(GST_BIN(pipeline.get()), file);
        gst_element_link(file, element);
    } else {
        address(element);
    }
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    gst_bus_set_sync_handler(bus.get(), onMessage, nullptr, nullptr);
    if (gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        return ended(0).value_or("the address cannot be used");
    }
    return {};
}

/// Says where the stream is, how its media come, and whom to trust.
void Session::address(GstElement* element)
{
    g_object_set(element, "location", source.url.c_str(), "latency", source.jitter, "timeout",
                 guint64{2000000}, nullptr);
    gst_util_set_object_arg(G_OBJECT(element), "protocols",
                            source.tcp || source.isSecure() ? "tcp" : "udp+tcp");
    if (authorities) {
        g_object_set(element, "tls-database", authorities.get(), nullptr);
    }
    g_signal_connect(
        element, "accept-certificate",
        G_CALLBACK(+[](GstElement*, GTlsConnection*, GTlsCertificate*, GTlsCertificateFlags flags,
                       Session* self) { return static_cast<gboolean>(self->accepts(flags)); }),
        this);
    g_signal_connect(element, "select-stream",
                     G_CALLBACK(+[](GstElement*, guint stream, GstCaps* caps, Session* self) {
                         return static_cast<gboolean>(self->wants(stream, caps));
                     }),
                     this);
    // Each of what claims to be a further source of a stream would have threads of its own.
    g_signal_connect(element, "new-manager",
                     G_CALLBACK(+[](GstElement*, GstElement* manager, gpointer) {
                         g_object_set(manager, "max-streams", 1u, nullptr);
                     }),
                     nullptr);
}

/// Asked about a certificate that could not be verified.
bool Session::accepts(unsigned flags) const
{
    if (!source.insecure) {
        events.remark("the sender's certificate is refused: " +
                      objections(static_cast<GTlsCertificateFlags>(flags)));
    }
    return source.insecure;
}

void Session::stop()
{
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    const Lock lock(mutex);  // what the streaming threads did comes before what follows
}

std::optional<std::string> Session::ended(GstClockTime patience)
{
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    const MessagePtr message(gst_bus_timed_pop(bus.get(), patience));
    if (!message) {
        return std::nullopt;
    }
    Failure failed;
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
        gst_message_parse_error(message.get(), failed.place(), nullptr);
    }
    if (!source.isFile()) {
        // What GStreamer says of that helps nobody.
        const bool unreachable =
            failed.get() &&
            g_error_matches(failed.get(), GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_READ_WRITE);
        return unreachable ? "no connection could be made" : failed.text("the stream has ended");
    }
    // What GStreamer says of a file without a stream is no help.
    const bool strange =
        codec().empty() && (!failed.get() || failed.get()->domain == GST_STREAM_ERROR);
    return strange        ? source.url + ": is no recording in MPEG-TS"
           : failed.get() ? source.url + ": " + failed.text("")
                          : "";
}

int Session::descriptor() const
{
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    GPollFD poll = {};
    gst_bus_get_pollfd(bus.get(), &poll);
    return poll.fd;
}

std::string Session::codec() const
{
    const Lock lock(mutex);
    return codecShown;
}

/// Whether a stream of the session is received: the first video and the first data.
bool Session::wants(guint stream, const GstCaps* caps)
{
    const std::string encoding = encodingOf(caps);
    if (!isVideo(encoding) && encoding != kDataEncoding) {
        return false;
    }
    std::optional<guint>& wanted = isVideo(encoding) ? videoStream : dataStream;
    if (!wanted) {
        wanted = stream;
        data = data || !isVideo(encoding);
    }
    // Asked again when the media are asked for by TCP instead.
    return *wanted == stream;
}

void Session::onPad(GstPad* pad)
{
    const CapsPtr caps(gst_pad_get_current_caps(pad));
    const std::string encoding = encodingOf(caps.get());
    const std::string codec = encoding == "H265" ? "h265" : "h264";
    const bool file = source.isFile();
    if (encoding == kDataEncoding && !dataConnected.exchange(true)) {
        data = true;
        connect(pad,
                std::string("identity name=") + (file ? "data ! " : "data-packets ! ") + kSink);
    } else if (isVideo(encoding) && !videoConnected.exchange(true)) {
        if (source.decode && decoderFor(codec).empty()) {
            GST_ELEMENT_ERROR(pipeline.get(), CORE, MISSING_PLUGIN,
                              ("no decoder for %s is installed", encoding.c_str()), (nullptr));
            return;
        }
        {
            const Lock lock(mutex);
            codecShown = codec == "h265" ? "H.265" : "H.264";
        }
        connect(pad, (file ? "" : "identity name=packets ! rtp" + codec + "depay ! ") + codec +
                         "parse ! identity name=frames ! " + decoding(codec) + kSink);
    } else if (file) {
        connect(pad, kSink);
    }
}

std::string Session::decoding(const std::string& codec) const
{
    // Of a file, pictures keep close to the data that are read meanwhile.
    const std::string most = source.isFile() ? " max-size-buffers=2" : "";
    return source.decode ? "queue max-size-bytes=" + std::to_string(kQueueBytes) + most + " ! " +
                               decoderFor(codec) + " ! identity name=pictures ! "
                         : "";
}

void Session::connect(GstPad* pad, const std::string& description)
{
    Failure failed;
    GstElement* bin = gst_parse_bin_from_description_full(
        description.c_str(), TRUE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, failed.place());
    if (!bin) {
        GST_ELEMENT_ERROR(pipeline.get(), CORE, MISSING_PLUGIN, ("%s", failed.text("")), (nullptr));
        return;
    }
    gst_bin_add(GST_BIN(pipeline.get()), bin);
    watchVideo(bin);
    watch<&Session::onCodedFrame>(bin, "frames");
    watch<&Session::onPicture>(bin, "pictures");
    watch<&Session::onDataPacket>(bin, "data-packets");
    watch<&Session::onDataBuffer>(bin, "data");
    const GObjectPtr<GstPad> sink(gst_element_get_static_pad(bin, "sink"));
    gst_element_sync_state_with_parent(bin);
    gst_pad_link(pad, sink.get());
}

/// Sees every packet of the video, and may put another in its place.
void Session::watchVideo(GstElement* bin)
{
    const GObjectPtr<GstElement> element(gst_bin_get_by_name(GST_BIN(bin), "packets"));
    const GObjectPtr<GstPad> pad(element ? gst_element_get_static_pad(element.get(), "sink")
                                         : nullptr);
    const auto change = [](GstPad*, GstPadProbeInfo* info, gpointer self) {
        info->data = static_cast<Session*>(self)->onVideoPacket(GST_PAD_PROBE_INFO_BUFFER(info));
        return GST_PAD_PROBE_OK;
    };
    if (pad) {
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, change, this, nullptr);
    }
}

/// Has a function called for every buffer that passes the element of this name, if there is one.
template <void (Session::*handle)(GstElement*, GstBuffer*)>
void Session::watch(GstElement* bin, const char* name)
{
    const GObjectPtr<GstElement> element(gst_bin_get_by_name(GST_BIN(bin), name));
    const auto call = [](GstElement* place, GstBuffer* buffer, Session* self) {
        (self->*handle)(place, buffer);
    };
    if (element) {
        g_signal_connect(element.get(), "handoff", G_CALLBACK(+call), this);
    }
}

/// Gives each frame a PTS of its own, and notes its RTP timestamp under it: by the PTS a picture
/// leads back to its packets, through parser and decoder.
GstBuffer* Session::onVideoPacket(GstBuffer* packet)
{
    GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
    if (!gst_rtp_buffer_map(packet, GST_MAP_READ, &rtp)) {
        return packet;
    }
    const std::uint32_t rtpTime = gst_rtp_buffer_get_timestamp(&rtp);
    const std::uint16_t number = gst_rtp_buffer_get_seq(&rtp);
    const std::size_t bytes = gst_rtp_buffer_get_payload_len(&rtp);
    gst_rtp_buffer_unmap(&rtp);
    if (GST_BUFFER_PTS_IS_VALID(packet)) {
        const GstClockTime time = frameTimes.of(rtpTime, GST_BUFFER_PTS(packet));
        packet = gst_buffer_make_writable(packet);
        GST_BUFFER_PTS(packet) = time;
        GST_BUFFER_DTS(packet) = time;
        const Lock lock(mutex);
        rtpTimes.add(time, rtpTime);
    }
    const std::uint16_t expected = lastVideoPacket ? *lastVideoPacket + 1 : number;
    lastVideoPacket = number;
    if (number != expected) {
        events.videoPacketsLost(static_cast<std::uint16_t>(number - expected));
    }
    events.videoBytes(bytes);
    return packet;
}

void Session::onDataPacket(GstElement*, GstBuffer* packet)
{
    GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
    if (!gst_rtp_buffer_map(packet, GST_MAP_READ, &rtp)) {
        return;
    }
    const std::vector<std::uint8_t>* const unit =
        units.add(gst_rtp_buffer_get_seq(&rtp), gst_rtp_buffer_get_marker(&rtp) != FALSE,
                  static_cast<const std::uint8_t*>(gst_rtp_buffer_get_payload(&rtp)),
                  gst_rtp_buffer_get_payload_len(&rtp));
    if (unit) {
        events.dataUnit({unit->data(), unit->size(), gst_rtp_buffer_get_timestamp(&rtp)});
    }
    gst_rtp_buffer_unmap(&rtp);
}

void Session::onDataBuffer(GstElement*, GstBuffer* buffer)
{
    GstMapInfo map;
    if (GST_BUFFER_PTS_IS_VALID(buffer) && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        events.dataUnit({map.data, map.size, mediaTime(GST_BUFFER_PTS(buffer))});
        gst_buffer_unmap(buffer, &map);
    }
}

void Session::onCodedFrame(GstElement* place, GstBuffer* frame)
{
    if (source.isFile()) {
        events.videoBytes(gst_buffer_get_size(frame));
    }
    hand(events.codedFrame, place, frame);
}

void Session::onPicture(GstElement* place, GstBuffer* picture)
{
    hand(events.picture, place, picture);
}

/// Gives away a frame whose packets were seen.
void Session::hand(const std::function<void(const Frame&)>& to, GstElement* place,
                   GstBuffer* buffer)
{
    const std::optional<std::uint32_t> time = timeOf(buffer);
    if (time) {
        const GObjectPtr<GstPad> pad(gst_element_get_static_pad(place, "sink"));
        const CapsPtr caps(gst_pad_get_current_caps(pad.get()));
        to({buffer, caps.get(), *time});
    }
}

std::optional<std::uint32_t> Session::timeOf(const GstBuffer* frame)
{
    if (source.isFile()) {
        return GST_BUFFER_PTS_IS_VALID(frame)
                   ? std::optional<std::uint32_t>(mediaTime(GST_BUFFER_PTS(frame)))
                   : std::nullopt;
    }
    const Lock lock(mutex);
    return rtpTimes.find(GST_BUFFER_PTS(frame));
}

}  // namespace receive
