// SPDX-License-Identifier: Apache-2.0
// Pipeline, clock and session description of the media that clients receive.
#include "sdk/stream/stereomedia.h"

#include <gst/app/gstappsrc.h>
#include <gst/base/gstbasesink.h>
#include <gst/rtp/gstrtphdrext.h>

#include <cstring>
#include <mutex>
#include <string>

#include "sdk/core/log.h"
#include "sdk/stream/derivedtype.h"
#include "sdk/stream/packetforwarder.h"

namespace tq::stream {

namespace {

constexpr const char* kFeedKey = "kor-feed";
constexpr const char* kWaitingKey = "kor-waiting";
constexpr GstClockTime kNtpEpochOffset = G_GUINT64_CONSTANT(2208988800) * GST_SECOND;
constexpr guint kNtpExtensionId = 1;
constexpr guint kMostTcpBacklog = 8u << 20;  // bytes
constexpr guint64 kLongestTcpBacklog = GST_SECOND;
// Of them the first pair that is free is taken: those that no service is registered for.
constexpr guint16 kFirstMediaPort = 49152;
constexpr guint16 kLastMediaPort = 65535;
constexpr unsigned kVideoPacketsPerMillisecond = 64;
constexpr unsigned kDataPacketsPerMillisecond = 16;
constexpr const char* kNtpExtensionElement = "rtphdrextntp64";  // GStreamer 1.22

void addAttribute(GstSDPMessage* sdp, const char* name, const std::string& value)
{
    gst_sdp_message_add_attribute(sdp, name, value.c_str());
}

void describeStream(GstSDPMessage* sdp, const FrameRecord& identity)
{
    const std::string serial = std::to_string(identity.serial);
    gst_sdp_message_set_session_name(sdp, ("KOR stereo " + serial).c_str());
    gst_sdp_message_set_information(sdp, "Side by side, left eye first");
    addAttribute(sdp, "x-kor-serial", serial);
    addAttribute(sdp, "x-kor-eye-size",
                 std::to_string(identity.eyeWidth) + "x" + std::to_string(identity.eyeHeight));
    addAttribute(sdp, "x-kor-fps", std::to_string(identity.fps));
    addAttribute(sdp, "x-kor-imu-rate", std::to_string(identity.imuRate));
    addAttribute(sdp, "x-kor-model", std::to_string(identity.modelCode));
    addAttribute(sdp, "x-kor-device-version", std::to_string(identity.deviceVersion));
}

gboolean setupDescription(GstRTSPMedia* media, GstSDPMessage* sdp, GstSDPInfo* info)
{
    auto* base = GST_RTSP_MEDIA_CLASS(g_type_class_peek(GST_TYPE_RTSP_MEDIA));
    if (!base->setup_sdp(media, sdp, info)) {
        return FALSE;
    }
    if (gpointer const feed = g_object_get_data(G_OBJECT(media), kFeedKey)) {
        describeStream(sdp, SharedData<StreamFeed>::get(feed)->streamIdentity());
    }
    return TRUE;
}

/// The library waits for a first frame on the server's one thread, for up to 20 s. When none comes,
/// that ends; @p context is that of the media's own thread.
void limitWaiting(GstRTSPMedia* media, GMainContext* context)
{
    gpointer const feed = g_object_get_data(G_OBJECT(media), kFeedKey);
    if (!feed) {
        return;
    }
    struct Waiting {
        std::shared_ptr<StreamFeed> feed;
        GObjectPtr<GstElement> element;
    };
    auto waiting = std::make_shared<Waiting>();
    waiting->feed = SharedData<StreamFeed>::get(feed);
    waiting->element.reset(gst_rtsp_media_get_element(media));
    GSource* timer =
        g_timeout_source_new(static_cast<guint>(waiting->feed->waitingInterval().count()));
    g_source_set_callback(
        timer,
        [](gpointer data) -> gboolean {
            const std::shared_ptr<Waiting> shared = SharedData<Waiting>::get(data);
            shared->feed->waitForPictures(shared->element.get());
            return G_SOURCE_CONTINUE;
        },
        SharedData<Waiting>::make(waiting), SharedData<Waiting>::release);
    g_source_attach(timer, context);
    // The media's thread may end first, and a timer cannot be taken from a context that is gone.
    struct Timer {
        MainContextPtr context;
        GSourcePtr source;
    };
    g_object_set_data_full(
        G_OBJECT(media), kWaitingKey,
        new Timer{MainContextPtr(g_main_context_ref(context)), GSourcePtr(timer)},
        [](gpointer owned) { delete static_cast<Timer*>(owned); });
}

gboolean prepare(GstRTSPMedia* media, GstRTSPThread* thread)
{
    auto* base = GST_RTSP_MEDIA_CLASS(g_type_class_peek(GST_TYPE_RTSP_MEDIA));
    limitWaiting(media, thread->context);
    return base->prepare(media, thread);
}

gboolean unprepare(GstRTSPMedia* media)
{
    auto* base = GST_RTSP_MEDIA_CLASS(g_type_class_peek(GST_TYPE_RTSP_MEDIA));
    const GObjectPtr<GstElement> element(gst_rtsp_media_get_element(media));
    StreamFeed::endSinks(element.get());
    return base->unprepare(media);
}

void onPrepared(GstRTSPMedia* media, gpointer)
{
    g_object_set_data(G_OBJECT(media), kWaitingKey, nullptr);
}

/// A media whose session description names the virtual camera.
GType mediaType()
{
    static const GType type =
        deriveType(GST_TYPE_RTSP_MEDIA, "StereoMedia", [](gpointer media, gpointer) {
            GST_RTSP_MEDIA_CLASS(media)->setup_sdp = setupDescription;
            GST_RTSP_MEDIA_CLASS(media)->prepare = prepare;
            GST_RTSP_MEDIA_CLASS(media)->unprepare = unprepare;
        });
    return type;
}

/// A factory whose clients share one media however they spell the address. The library's own key
/// has the port and the query in it, and a client behind a port forwarding names another port.
GType factoryType()
{
    static const GType type = deriveType(
        GST_TYPE_RTSP_MEDIA_FACTORY, "StereoMediaFactory", [](gpointer factory, gpointer) {
            GST_RTSP_MEDIA_FACTORY_CLASS(factory)->gen_key =
                [](GstRTSPMediaFactory*, const GstRTSPUrl*) { return g_strdup("stereo"); };
        });
    return type;
}

void onNeedData(GstAppSrc* source, guint, gpointer data)
{
    SharedData<StreamFeed>::get(data)->encoderReady(source);
}

void configureVideoSource(GstAppSrc* source, const std::shared_ptr<StreamFeed>& feed)
{
    const CapsPtr caps(gst_video_info_to_caps(&feed->videoInfo()));
    gst_app_src_set_caps(source, caps.get());
    GstAppSrcCallbacks callbacks{};
    callbacks.need_data = onNeedData;
    gst_app_src_set_callbacks(source, &callbacks, SharedData<StreamFeed>::make(feed),
                              SharedData<StreamFeed>::release);
}

GstPadProbeReturn addCaptureTime(GstPad*, GstPadProbeInfo* info, gpointer data)
{
    GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    if (GST_BUFFER_PTS_IS_VALID(buffer)) {
        gst_buffer_add_reference_timestamp_meta(buffer, static_cast<GstCaps*>(data),
                                                GST_BUFFER_PTS(buffer) + kNtpEpochOffset,
                                                GST_CLOCK_TIME_NONE);
    }
    return GST_PAD_PROBE_OK;
}

/// Every frame's first packet carries the capture time as RFC 6051 has it.
void addNtpExtension(GstElement* payloader)
{
    GstElement* element = gst_element_factory_make(kNtpExtensionElement, nullptr);
    if (!element) {
        static std::once_flag once;
        std::call_once(once, [] {
            logLine(
                "the installed GStreamer has no rtphdrextntp64: "
                "packets go without the NTP-64 header extension");
        });
        return;
    }
    const GObjectPtr<GstElement> extension(GST_ELEMENT(gst_object_ref_sink(element)));
    gst_rtp_header_extension_set_id(GST_RTP_HEADER_EXTENSION(extension.get()), kNtpExtensionId);
    g_signal_emit_by_name(payloader, "add-extension", extension.get());
    const GObjectPtr<GstPad> sink(gst_element_get_static_pad(payloader, "sink"));
    gst_pad_add_probe(sink.get(), GST_PAD_PROBE_TYPE_BUFFER, addCaptureTime,
                      gst_caps_new_empty_simple("timestamp/x-ntp"),
                      [](gpointer caps) { gst_caps_unref(static_cast<GstCaps*>(caps)); });
}

// Packets leave when they are there. Waiting for their time would add latency, and would stop the
// stream when the real-time clock is set back. The server library sets it to true later on.
void keepUnsynchronised(GObject* sink, GParamSpec*, gpointer)
{
    gboolean synchronised = FALSE;
    g_object_get(sink, "sync", &synchronised, nullptr);
    if (synchronised) {
        g_object_set(sink, "sync", FALSE, nullptr);
    }
}

void connect(gpointer object, const char* signal, GCallback handler,
             const std::shared_ptr<StreamFeed>& feed)
{
    g_signal_connect_data(object, signal, handler, SharedData<StreamFeed>::make(feed),
                          SharedData<StreamFeed>::releaseClosure, GConnectFlags(0));
}

void onTcpBacklog(GstElement*, gpointer feed)
{
    SharedData<StreamFeed>::get(feed)->sinkIsFull();
}

// Clients that take their media by TCP have a branch of their own. When it comes to a standstill
// because none of them reads, it loses packets rather than hold up those who take them by UDP.
void makeLeaky(GstPad*, GstPad* peer, gpointer feed)
{
    const GObjectPtr<GstElement> before(gst_pad_get_parent_element(peer));
    GstElementFactory* factory = before ? gst_element_get_factory(before.get()) : nullptr;
    if (!factory || std::strcmp(GST_OBJECT_NAME(factory), "queue") != 0) {
        return;
    }
    gst_util_set_object_arg(G_OBJECT(before.get()), "leaky", "downstream");
    g_object_set(before.get(), "max-size-buffers", 0u, "max-size-time", kLongestTcpBacklog,
                 "max-size-bytes", kMostTcpBacklog, nullptr);
    connect(before.get(), "overrun", G_CALLBACK(onTcpBacklog), SharedData<StreamFeed>::get(feed));
}

void onElementAdded(GstBin*, GstBin*, GstElement* element, gpointer feed)
{
    const GstElementFactory* factory = gst_element_get_factory(element);
    const char* name = factory ? GST_OBJECT_NAME(factory) : "";
    if (std::strcmp(name, "rtpbin") == 0) {
        // Sender reports relate RTP time to the capture time, not to the time of sending.
        g_object_set(element, "rtcp-sync-send-time", FALSE, nullptr);
        // It would replace the capture time in the header extension by an estimate of its own,
        // which is off by some microseconds. Where it cannot (GStreamer before 1.22), it has no
        // such key.
        constexpr const char* kReplaceTime = "update-ntp64-header-ext";
        if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), kReplaceTime) != nullptr) {
            g_object_set(element, kReplaceTime, FALSE, nullptr);
        }
    } else if (GST_IS_BASE_SINK(element)) {
        g_signal_connect(element, "notify::sync", G_CALLBACK(keepUnsynchronised), nullptr);
        // A client that joins adds sinks while the others play. One that wants a first packet
        // takes the whole pipeline out of playing, and now and then a sink stayed behind.
        g_object_set(element, "sync", FALSE, "async", FALSE, nullptr);
        if (std::strcmp(name, "appsink") == 0) {
            const GObjectPtr<GstPad> sink(gst_element_get_static_pad(element, "sink"));
            connect(sink.get(), "linked", G_CALLBACK(makeLeaky), SharedData<StreamFeed>::get(feed));
        }
    }
}

/// The pipeline's running time is the real-time clock itself. Capture times then are running
/// times, and RTP timestamps follow from them without an offset.
void useRealTimeClock(GstRTSPMedia* media, GstElement* pipeline)
{
    const GObjectPtr<GstClock> clock(GST_CLOCK(
        g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", GST_CLOCK_TYPE_REALTIME, nullptr)));
    gst_rtsp_media_set_clock(media, clock.get());
    gst_rtsp_media_set_publish_clock_mode(media, GST_RTSP_PUBLISH_CLOCK_MODE_NONE);
    gst_element_set_start_time(pipeline, GST_CLOCK_TIME_NONE);
    gst_element_set_base_time(pipeline, 0);
}

void onNewState(GstRTSPMedia* media, gint state, gpointer data)
{
    const GObjectPtr<GstElement> element(gst_rtsp_media_get_element(media));
    SharedData<StreamFeed>::get(data)->setPlaying(element.get(), state == GST_STATE_PLAYING);
}

void onUnprepared(GstRTSPMedia* media, gpointer data)
{
    const GObjectPtr<GstElement> element(gst_rtsp_media_get_element(media));
    SharedData<StreamFeed>::get(data)->detach(element.get());
}

void forwardPacketsOf(GstBin* bin, const char* payloader, unsigned packetsPerMillisecond)
{
    const GObjectPtr<GstElement> last(gst_bin_get_by_name(bin, payloader));
    const GObjectPtr<GstPad> pad(gst_element_get_static_pad(last.get(), "src"));
    forwardPackets(pad.get(), packetsPerMillisecond);
}

void onMediaConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data)
{
    const std::shared_ptr<StreamFeed> feed = SharedData<StreamFeed>::get(data);
    const GObjectPtr<GstElement> element(gst_rtsp_media_get_element(media));
    g_object_set_data_full(G_OBJECT(media), kFeedKey, SharedData<StreamFeed>::make(feed),
                           SharedData<StreamFeed>::release);
    const GObjectPtr<GstObject> pipeline(gst_object_get_parent(GST_OBJECT(element.get())));
    connect(pipeline.get(), "deep-element-added", G_CALLBACK(onElementAdded), feed);
    useRealTimeClock(media, GST_ELEMENT(pipeline.get()));

    GstBin* bin = GST_BIN(element.get());
    const GObjectPtr<GstElement> video(gst_bin_get_by_name(bin, "video"));
    configureVideoSource(GST_APP_SRC(video.get()), feed);
    const GObjectPtr<GstElement> payloader(gst_bin_get_by_name(bin, "pay0"));
    addNtpExtension(payloader.get());
    forwardPacketsOf(bin, "pay0", kVideoPacketsPerMillisecond);
    forwardPacketsOf(bin, "pay1", kDataPacketsPerMillisecond);
    g_signal_connect(media, "prepared", G_CALLBACK(onPrepared), nullptr);
    connect(media, "new-state", G_CALLBACK(onNewState), feed);
    connect(media, "unprepared", G_CALLBACK(onUnprepared), feed);
    feed->attach(element.get());
}

// Without a pool the library binds its UDP sockets to all addresses, whatever the server's own is.
void bindMedia(GstRTSPMediaFactory* factory, const std::string& address)
{
    const GObjectPtr<GstRTSPAddressPool> pool(gst_rtsp_address_pool_new());
    const auto add = [&pool](const char* bound) {
        gst_rtsp_address_pool_add_range(pool.get(), bound, bound, kFirstMediaPort, kLastMediaPort,
                                        0);
    };
    add(address.c_str());
    if (address == GST_RTSP_ADDRESS_POOL_ANY_IPV6) {
        add(GST_RTSP_ADDRESS_POOL_ANY_IPV4);  // the server listens to both
    }
    gst_rtsp_media_factory_set_address_pool(factory, pool.get());
}

// appsrc "video" holds one frame at most: the feed keeps what waits. The queue gives the network a
// thread of its own, so that sending does not hold up the encoder.
std::string launchLine(const EncoderChoice& encoder, const rig::StreamSettings& settings,
                       std::uint32_t serial)
{
    const std::string common = " timestamp-offset=0 mtu=" + std::to_string(settings.mtu);
    return "( appsrc name=video is-live=true format=time max-buffers=1 max-bytes=0 ! " +
           encoder.description + " ! queue max-size-buffers=8 max-size-bytes=0 max-size-time=0 ! " +
           (encoder.codec == Codec::H264 ? "rtph264pay" : "rtph265pay") +
           " name=pay0 pt=96 config-interval=0 " +
           "aggregate-mode=zero-latency ssrc=" + std::to_string(videoSsrc(serial)) + common +
           " appsrc name=data is-live=true format=time max-bytes=4194304 leaky-type=downstream "
           "caps=\"meta/x-klv,parsed=(boolean)true\" ! rtpklvpay name=pay1 pt=97 ssrc=" +
           std::to_string(dataSsrc(serial)) + common + " )";
}

}  // namespace

GObjectPtr<GstRTSPMediaFactory> makeStereoMediaFactory(const EncoderChoice& encoder,
                                                       const rig::StreamSettings& settings,
                                                       const std::shared_ptr<StreamFeed>& feed)
{
    GObjectPtr<GstRTSPMediaFactory> factory(
        GST_RTSP_MEDIA_FACTORY(g_object_new(factoryType(), nullptr)));
    gst_rtsp_media_factory_set_launch(
        factory.get(), launchLine(encoder, settings, feed->streamIdentity().serial).c_str());
    gst_rtsp_media_factory_set_media_gtype(factory.get(), mediaType());
    gst_rtsp_media_factory_set_shared(factory.get(), TRUE);
    gst_rtsp_media_factory_set_latency(factory.get(), static_cast<guint>(settings.latency));
    gst_rtsp_media_factory_set_profiles(factory.get(), GST_RTSP_PROFILE_AVP);
    // Through the encrypted connection only, where there is one: RTP by UDP is as plain as ever.
    const auto plain = GstRTSPLowerTrans(GST_RTSP_LOWER_TRANS_UDP | GST_RTSP_LOWER_TRANS_TCP);
    gst_rtsp_media_factory_set_protocols(
        factory.get(), settings.certificate.empty() ? plain : GST_RTSP_LOWER_TRANS_TCP);
    bindMedia(factory.get(), settings.bindAddress);
    gst_rtsp_media_factory_set_buffer_size(factory.get(), 1 << 20);
    connect(factory.get(), "media-configure", G_CALLBACK(onMediaConfigure), feed);
    return factory;
}

}  // namespace tq::stream
