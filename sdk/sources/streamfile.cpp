// SPDX-License-Identifier: Apache-2.0
// Demultiplexing and decoding of recorded streams.
#include "sdk/sources/streamfile.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <stdexcept>
#include <utility>

#include "sdk/core/glibptr.h"
#include "sdk/sources/framesource.h"
#include "sdk/stream/recordreader.h"

namespace tq {

namespace {

constexpr std::size_t kKeptPictures = 8;  // that one eye may be behind the other
constexpr GstClockTime kPatience = 10 * GST_SECOND;

struct PipelineRelease {
    void operator()(GstElement* pipeline) const noexcept
    {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
};
using PipelinePtr = std::unique_ptr<GstElement, PipelineRelease>;

/// A pipeline that begins with the file.
PipelinePtr describePipeline(const std::string& file, const std::string& rest)
{
    Failure failed;
    PipelinePtr pipeline(gst_parse_launch_full(("filesrc name=file ! " + rest).c_str(), nullptr,
                                               GST_PARSE_FLAG_FATAL_ERRORS, failed.place()));
    if (!pipeline) {
        throw std::runtime_error(failed.text("the pipeline cannot be built"));
    }
    const GObjectPtr<GstElement> source(gst_bin_get_by_name(GST_BIN(pipeline.get()), "file"));
    g_object_set(source.get(), "location", file.c_str(), nullptr);
    return pipeline;
}

/// Waits for the end, or what went wrong before.
std::string endOf(GstElement* pipeline)
{
    const GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline));
    const MessagePtr message(gst_bus_timed_pop_filtered(
        bus.get(), GST_CLOCK_TIME_NONE, GstMessageType(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
    Failure failed;
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
        gst_message_parse_error(message.get(), failed.place(), nullptr);
    }
    return failed.text("");
}

IMUPacket packetOf(const wire::ImuRecord& record)
{
    IMUPacket packet{};
    packet.timestamp = record.timestamp;
    packet.sequence = record.sequence;
    packet.validFields = record.validFields;
    const double* value = record.values;
    const auto take = [&value](auto& field) {
        std::copy_n(value, std::size(field), std::begin(field));
        value += std::size(field);
    };
    take(packet.acceleration);
    take(packet.angularRate);
    take(packet.magneticField);
    take(packet.orientation);
    packet.temperature = *value++;
    packet.pressure = *value;
    value = record.covariances;
    take(packet.accelerationCovariance);
    take(packet.angularRateCovariance);
    take(packet.orientationCovariance);
    return packet;
}

/// A plane's part.
void copyPart(const GstVideoFrame& frame, unsigned plane, int left, int width, int height,
              int repeated, std::vector<std::uint8_t>& to)
{
    const auto* row = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
    for (int y = 0; y < height; ++y) {
        const auto* const part = row + static_cast<std::ptrdiff_t>(y / repeated) * stride + left;
        to.insert(to.end(), part, part + width);
    }
}

Picture eyeOf(GstSample* sample, StreamEye eye)
{
    GstVideoInfo info;
    GstVideoFrame frame;
    Picture picture;
    if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) ||
        !gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ)) {
        throw InvalidVideo("a picture cannot be read");
    }
    picture.width = GST_VIDEO_FRAME_WIDTH(&frame) / 2;
    picture.height = GST_VIDEO_FRAME_HEIGHT(&frame);
    const int left = eye == StreamEye::LEFT ? 0 : picture.width;
    const int half = (picture.width + 1) / 2;
    copyPart(frame, 0, left, picture.width, picture.height, 1, picture.luma);
    // Pictures have all rows of colours.
    copyPart(frame, 1, left / 2, half, picture.height, 2, picture.u);
    copyPart(frame, 2, left / 2, half, picture.height, 2, picture.v);
    gst_video_frame_unmap(&frame);
    return picture;
}

}  // namespace

/// Collects what a file holds, on the thread of its pipeline.
struct StreamFile::Contents {
    explicit Contents(std::size_t mostEntries) : most(mostEntries) {}

    /// GLib orders the turns of its threads by locks that the thread sanitizer does not see.
    struct Turn {
        explicit Turn(Contents& mine) : of(mine) { threadsanitizer::acquire(&of); }
        ~Turn() { threadsanitizer::release(&of); }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        Contents& of;
    };

    const std::size_t most;
    std::string codec;
    std::vector<std::uint64_t> places;            // of coded frames
    std::map<std::uint64_t, Timestamp> captured;  // by the places of the records
    std::vector<IMUPacket> packets;

    void onPad(GstElement* pipeline, GstPad* pad)
    {
        const Turn turn(*this);
        const CapsPtr caps(gst_pad_get_current_caps(pad));
        const std::string media =
            caps ? gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)) : "";
        GstElement* const sink = gst_element_factory_make("fakesink", nullptr);
        g_object_set(sink, "sync", FALSE, "async", FALSE, "signal-handoffs", TRUE, nullptr);
        if (media == "meta/x-klv") {
            g_signal_connect(sink, "handoff", G_CALLBACK(+onData), this);
        } else if ((media == "video/x-h264" || media == "video/x-h265") && codec.empty()) {
            codec = media.substr(media.size() - 4);
            g_signal_connect(sink, "handoff", G_CALLBACK(+onVideo), this);
        }
        gst_bin_add(GST_BIN(pipeline), sink);
        gst_element_sync_state_with_parent(sink);
        const GObjectPtr<GstPad> input(gst_element_get_static_pad(sink, "sink"));
        gst_pad_link(pad, input.get());
    }

    static void onVideo(GstElement*, GstBuffer* buffer, GstPad*, Contents* self)
    {
        const Turn turn(*self);
        if (GST_BUFFER_PTS_IS_VALID(buffer) && self->places.size() <= self->most) {
            self->places.push_back(GST_BUFFER_PTS(buffer));
        }
    }

    static void onData(GstElement*, GstBuffer* buffer, GstPad*, Contents* self)
    {
        const Turn turn(*self);
        GstMapInfo map;
        if (!GST_BUFFER_PTS_IS_VALID(buffer) || !gst_buffer_map(buffer, &map, GST_MAP_READ)) {
            return;
        }
        wire::RecordHandler handler;
        handler.frame = [&](const wire::FrameRecord& record) {
            if (self->captured.size() <= self->most) {
                self->captured[GST_BUFFER_PTS(buffer)] = record.captureTime;
            }
        };
        handler.imu = [self](const wire::ImuRecord& record) {
            if (self->packets.size() <= self->most &&
                (self->packets.empty() || record.timestamp > self->packets.back().timestamp)) {
                self->packets.push_back(packetOf(record));
            }
        };
        wire::readRecords(map.data, map.size, handler);
        gst_buffer_unmap(buffer, &map);
    }
};

struct StreamFile::Decoded {
    std::uint64_t number;
    SamplePtr picture;
};

/// Decodes one round.
struct StreamFile::Decoder {
    Decoder(const std::string& file, const std::string& codec)
        : pipeline(describePipeline(
              file, "tsdemux ! " + codec +
                        "parse ! decodebin ! videoconvert ! video/x-raw,format=I420 ! "
                        "appsink name=pictures sync=false max-buffers=4")),
          sink(gst_bin_get_by_name(GST_BIN(pipeline.get()), "pictures"))
    {
        gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    }

    /// The next picture; null at the end.
    SamplePtr next() const
    {
        SamplePtr sample(gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), kPatience));
        if (!sample && !gst_app_sink_is_eos(GST_APP_SINK(sink.get()))) {
            throw InvalidVideo("the recording cannot be decoded any more");
        }
        return sample;
    }

    PipelinePtr pipeline;
    GObjectPtr<GstElement> sink;
};

StreamFile::~StreamFile() = default;

std::shared_ptr<StreamFile> StreamFile::open(const std::string& path, std::size_t mostEntries)
{
    static std::mutex opening;
    static std::map<std::string, std::weak_ptr<StreamFile>> files;
    struct stat status {};
    ::stat(path.c_str(), &status);
    const std::string name = path + "|" + std::to_string(status.st_ino) + "|" +
                             std::to_string(status.st_size) + "|" +
                             std::to_string(status.st_mtim.tv_sec);
    const std::lock_guard<std::mutex> lock(opening);
    std::shared_ptr<StreamFile> file = files[name].lock();
    if (!file) {
        file.reset(new StreamFile(path, mostEntries));
        files[name] = file;
    }
    return file;
}

StreamFile::StreamFile(const std::string& path, std::size_t mostEntries) : file(path)
{
    std::string problem = initialiseGStreamer();
    if (!problem.empty()) {
        throw std::runtime_error(problem);
    }
    Contents contents(mostEntries);
    {
        const PipelinePtr pipeline = describePipeline(path, "tsdemux name=parts");
        const GObjectPtr<GstElement> parts(gst_bin_get_by_name(GST_BIN(pipeline.get()), "parts"));
        g_signal_connect(
            parts.get(), "pad-added",
            G_CALLBACK(+[](GstElement* element, GstPad* pad, Contents* into) {
                const GObjectPtr<GstObject> parent(gst_object_get_parent(GST_OBJECT(element)));
                into->onPad(GST_ELEMENT(parent.get()), pad);
            }),
            &contents);
        threadsanitizer::release(&contents);
        gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
        problem = endOf(pipeline.get());
    }
    const Contents::Turn turn(contents);
    if (std::max({contents.places.size(), contents.captured.size(), contents.packets.size()}) >
        mostEntries) {
        throw std::runtime_error(path + ": has more than " + std::to_string(mostEntries) +
                                 " entries");
    }
    codec = contents.codec;
    packets = std::move(contents.packets);
    for (const std::uint64_t place : contents.places) {
        const auto record = contents.captured.find(place);
        if (record != contents.captured.end() && (times.empty() || record->second > times.back())) {
            times.push_back(record->second);
            places.push_back(place);
        }
    }
    if (times.empty()) {
        throw std::runtime_error(path + ": " +
                                 (codec.empty() || problem.empty()
                                      ? "is no recording of a stream with its data"
                                      : problem));
    }
}

std::optional<Picture> StreamFile::picture(std::uint64_t number, StreamEye eye)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto find = [&] {
        return std::find_if(decoded.begin(), decoded.end(),
                            [number](const Decoded& one) { return one.number == number; });
    };
    auto found = find();
    if (found == decoded.end() && decodeUpTo(number)) {
        found = find();
    }
    return found == decoded.end() ? std::nullopt
                                  : std::optional<Picture>(eyeOf(found->picture.get(), eye));
}

/// @return false when it has passed
bool StreamFile::decodeUpTo(std::uint64_t number)
{
    const std::uint64_t wantedRound = number / times.size();
    if (!decoded.empty() && number < decoded.back().number) {
        return false;
    }
    if (!decoder || wantedRound != round) {
        decoder = std::make_unique<Decoder>(file, codec);
        round = wantedRound;
    }
    while (SamplePtr sample = decoder->next()) {
        const GstClockTime place = GST_BUFFER_PTS(gst_sample_get_buffer(sample.get()));
        const auto at = std::lower_bound(places.begin(), places.end(), place);
        if (at == places.end() || *at != place) {
            continue;  // it has no record
        }
        const auto index = static_cast<std::uint64_t>(at - places.begin());
        decoded.push_back({round * times.size() + index, std::move(sample)});
        if (decoded.size() > kKeptPictures) {
            decoded.pop_front();
        }
        if (decoded.back().number >= number) {
            break;
        }
    }
    return true;
}

}  // namespace tq
