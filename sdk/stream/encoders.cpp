// SPDX-License-Identifier: Apache-2.0
// The encoders that the sender knows, their settings, and the trial that tells which work.
#include "sdk/stream/encoders.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <tuple>
#include <vector>

#include "sdk/core/glibptr.h"

namespace tq::stream {

namespace {

constexpr GstClockTime kTrialTimeout = 5 * GST_SECOND;
// Hardware H.264 encoders often stop here, and so do many decoders.
constexpr int kWidestH264 = 4096;

struct KnownEncoder {
    const char* element;
    Codec codec;
    bool hardware;
    GstVideoFormat inputFormat;
    const char* before;  // between our buffers and the encoder
    const char* after;
    std::string settings;  // name=value, with blanks between
};

/// In the order of preference.
std::vector<KnownEncoder> knownEncoders(const VideoFormat& format)
{
    constexpr const char* kToJetson = "nvvidconv ! video/x-raw(memory:NVMM),format=NV12 ! ";
    constexpr auto kI420 = GST_VIDEO_FORMAT_I420;
    constexpr auto kNV12 = GST_VIDEO_FORMAT_NV12;
    // Parameter sets travel in the picture data, once in front of every key frame.
    constexpr const char* kParseH264 =
        " ! h264parse config-interval=-1 ! video/x-h264,stream-format=byte-stream,alignment=au";
    constexpr const char* kParseH265 =
        " ! h265parse config-interval=-1 ! video/x-h265,stream-format=byte-stream,alignment=au";
    constexpr const char* kByteStream = " ! video/x-h264,stream-format=byte-stream";

    const std::string kbits = "bitrate=" + std::to_string(format.bitrate);
    const std::string bits = "bitrate=" + std::to_string(format.bitrate * 1000);
    const std::string interval = std::to_string(format.keyFrameInterval);
    const std::string threads =
        std::to_string(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
    const std::string jetson = bits + " control-rate=1 iframeinterval=" + interval +
                               " idrinterval=" + interval +
                               " insert-sps-pps=true preset-level=1 maxperf-enable=true";
    const std::string va = kbits + " rate-control=cbr key-int-max=" +
                           std::to_string(std::min(format.keyFrameInterval, 1024)) +
                           " b-frames=0 ref-frames=1 target-usage=7";
    const std::string vaapi = kbits + " rate-control=cbr keyframe-period=" + interval +
                              " max-bframes=0 refs=1 quality-level=7";
    // The small buffer keeps key frames small, so that they cross the network in one frame time.
    const std::string x264 = kbits +
                             " speed-preset=ultrafast tune=zerolatency aud=false"
                             " sliced-threads=true vbv-buf-capacity=300 bframes=0 threads=" +
                             threads + " key-int-max=" + interval;
    const std::string openH264 = bits +
                                 " rate-control=bitrate complexity=low usage-type=camera"
                                 " slice-mode=n-slices enable-frame-skip=false gop-size=" +
                                 interval + " num-slices=" + threads + " multi-thread=" + threads;
    const std::string x265 =
        kbits + " speed-preset=ultrafast tune=zerolatency log-level=error key-int-max=" + interval;
    return {
        {"nvv4l2h264enc", Codec::H264, true, kNV12, kToJetson, kParseH264, jetson},
        {"nvv4l2h265enc", Codec::H265, true, kNV12, kToJetson, kParseH265, jetson},
        {"vah264enc", Codec::H264, true, kNV12, "", kParseH264, va},
        {"vah265enc", Codec::H265, true, kNV12, "", kParseH265, va},
        {"vaapih264enc", Codec::H264, true, kNV12, "", kParseH264, vaapi},
        {"vaapih265enc", Codec::H265, true, kNV12, "", kParseH265, vaapi},
        {"x264enc", Codec::H264, false, kNV12, "", kByteStream, x264},
        {"openh264enc", Codec::H264, false, kI420, "", kByteStream, openH264},
        {"x265enc", Codec::H265, false, kI420, "", kParseH265, x265},
    };
}

/// The launch line, with those settings that the installed version of the element has. Empty when
/// it is not installed.
std::string describe(const KnownEncoder& encoder)
{
    const GObjectPtr<GstElement> probe(gst_element_factory_make(encoder.element, nullptr));
    if (!probe) {
        return {};
    }
    gst_object_ref_sink(probe.get());
    std::string line = encoder.before + std::string(encoder.element) + " name=encoder";
    std::istringstream settings(encoder.settings);
    for (std::string setting; settings >> setting;) {
        const std::string name = setting.substr(0, setting.find('='));
        if (g_object_class_find_property(G_OBJECT_GET_CLASS(probe.get()), name.c_str())) {
            line += " " + setting;
        }
    }
    return line + encoder.after;
}

BufferPtr blackPicture(const GstVideoInfo& info)
{
    BufferPtr picture(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr));
    gst_buffer_memset(picture.get(), 0, 0x80, GST_VIDEO_INFO_SIZE(&info));
    return picture;
}

enum class TrialResult { WORKS, FAILS, NO_ANSWER };

/// Whether the pipeline reported an error or ended, and so has no picture to come.
bool hasFailed(GstElement* pipeline, GstElement* sink)
{
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline));
    const MessagePtr message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
    return message || gst_app_sink_is_eos(GST_APP_SINK(sink)) != FALSE;
}

/// Codes three pictures and waits for the first.
TrialResult encodeAPicture(const EncoderChoice& choice, const VideoFormat& format)
{
    const std::string line =
        "appsrc name=in format=time ! " + choice.description + " ! appsink name=out sync=false";
    Failure failure;
    const GObjectPtr<GstElement> pipeline(
        gst_parse_launch_full(line.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, failure.place()));
    if (!pipeline) {
        return TrialResult::FAILS;
    }
    const GObjectPtr<GstElement> in(gst_bin_get_by_name(GST_BIN(pipeline.get()), "in"));
    const GObjectPtr<GstElement> out(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));

    const GstVideoInfo info = inputInfo(format, choice.inputFormat);
    const CapsPtr caps(gst_video_info_to_caps(&info));
    gst_app_src_set_caps(GST_APP_SRC(in.get()), caps.get());
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    for (unsigned i = 0; i < 3; ++i) {
        BufferPtr picture = blackPicture(info);
        GST_BUFFER_PTS(picture.get()) = i * GST_SECOND / static_cast<unsigned>(format.fps);
        gst_app_src_push_buffer(GST_APP_SRC(in.get()), picture.release());
    }
    gst_app_src_end_of_stream(GST_APP_SRC(in.get()));
    // A failing encoder ends the stream without a picture, so this seldom waits for the time-out.
    const SamplePtr sample(gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), kTrialTimeout));
    const bool failed = !sample && hasFailed(pipeline.get(), out.get());
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return sample ? TrialResult::WORKS : (failed ? TrialResult::FAILS : TrialResult::NO_ANSWER);
}

/// The trial's result, from memory when this encoder met this size before. One without an answer is
/// not remembered: the machine may have been too busy.
bool works(const EncoderChoice& choice, const VideoFormat& format)
{
    static std::mutex mutex;
    static std::map<std::tuple<std::string, int, int>, bool> results;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto key = std::make_tuple(choice.element, format.width, format.codedHeight());
    const auto known = results.find(key);
    if (known != results.end()) {
        return known->second;
    }
    const TrialResult result = encodeAPicture(choice, format);
    if (result != TrialResult::NO_ANSWER) {
        results[key] = result == TrialResult::WORKS;
    }
    return result == TrialResult::WORKS;
}

std::vector<KnownEncoder> candidates(const VideoFormat& format, rig::CodecChoice codec,
                                     const std::string& element)
{
    std::vector<KnownEncoder> list;
    for (const KnownEncoder& encoder : knownEncoders(format)) {
        const bool codecFits = codec == rig::CodecChoice::AUTO ||
                               (codec == rig::CodecChoice::H264) == (encoder.codec == Codec::H264);
        if (codecFits && (element.empty() || element == encoder.element)) {
            list.push_back(encoder);
        }
    }
    const bool preferH265 = format.width > kWidestH264;
    std::stable_sort(list.begin(), list.end(), [&](const KnownEncoder& a, const KnownEncoder& b) {
        const auto rank = [&](const KnownEncoder& encoder) {
            const bool preferred = (encoder.codec == Codec::H265) == preferH265;
            return encoder.hardware ? (preferred ? 0 : 1) : 2;
        };
        return rank(a) < rank(b);
    });
    return list;
}

}  // namespace

GstVideoInfo inputInfo(const VideoFormat& format, GstVideoFormat pixelFormat)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, pixelFormat, static_cast<guint>(format.width),
                              static_cast<guint>(format.codedHeight()));
    GST_VIDEO_INFO_FPS_N(&info) = format.fps;
    GST_VIDEO_INFO_FPS_D(&info) = 1;
    // The cameras' YUYV is full range with the coefficients of BT.601, as the preview shows it.
    info.colorimetry.range = GST_VIDEO_COLOR_RANGE_0_255;
    info.colorimetry.matrix = GST_VIDEO_COLOR_MATRIX_BT601;
    info.colorimetry.transfer = GST_VIDEO_TRANSFER_BT709;
    info.colorimetry.primaries = GST_VIDEO_COLOR_PRIMARIES_BT709;
    return info;
}

std::optional<EncoderChoice> chooseEncoder(const VideoFormat& format, rig::CodecChoice codec,
                                           const std::string& element, std::string& reason)
{
    std::string tried;
    for (const KnownEncoder& encoder : candidates(format, codec, element)) {
        EncoderChoice choice;
        choice.element = encoder.element;
        choice.codec = encoder.codec;
        choice.inputFormat = encoder.inputFormat;
        choice.description = describe(encoder);
        if (!choice.description.empty() && works(choice, format)) {
            return choice;
        }
        tried += (tried.empty() ? "" : ", ") + choice.element +
                 (choice.description.empty() ? " (not installed)" : " (fails)");
    }
    reason = tried.empty() ? "no encoder called \"" + element + "\" is known for this codec"
                           : "no video encoder works for " + std::to_string(format.width) + "x" +
                                 std::to_string(format.codedHeight()) + ": " + tried;
    return std::nullopt;
}

}  // namespace tq::stream
