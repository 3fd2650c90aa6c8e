// SPDX-License-Identifier: Apache-2.0
// A client of the streams, written from docs/stream-format.md.
#include "tests/system/streamclient.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <cstring>
#include <mutex>

namespace {

constexpr unsigned char kLabelStart[] = {0x06, 0x0E, 0x2B, 0x34};
constexpr std::size_t kKindAt = 13;
constexpr std::size_t kValueAt = 19;  // label, length of the length, length
constexpr unsigned char kFrameKind = 1;
constexpr unsigned char kImuKind = 2;

template <typename T>
T bigEndian(const unsigned char* bytes)
{
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        value = static_cast<T>(value << 8 | bytes[i]);
    }
    return value;
}

double bigEndianDouble(const unsigned char* bytes)
{
    const auto bits = bigEndian<std::uint64_t>(bytes);
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

FrameRecord parseFrame(const unsigned char* value)
{
    FrameRecord record;
    record.serial = bigEndian<std::uint32_t>(value);
    record.counter = bigEndian<std::uint64_t>(value + 8);
    record.captureTime = bigEndian<std::uint64_t>(value + 16);
    record.dropped = bigEndian<std::uint64_t>(value + 24);
    record.eyeWidth = bigEndian<std::uint32_t>(value + 36);
    record.eyeHeight = bigEndian<std::uint32_t>(value + 40);
    record.imuTimestamp = bigEndian<std::uint64_t>(value + 64);
    return record;
}

ImuRecord parseImu(const unsigned char* value)
{
    ImuRecord record;
    record.serial = bigEndian<std::uint32_t>(value);
    record.timestamp = bigEndian<std::uint64_t>(value + 8);
    record.sequence = bigEndian<std::uint64_t>(value + 16);
    for (int axis = 0; axis < 3; ++axis) {
        record.acceleration[axis] = bigEndianDouble(value + 24 + 8 * axis);
    }
    return record;
}

Picture pictureOf(GstSample* sample)
{
    GstVideoInfo info;
    GstVideoFrame frame;
    Picture picture;
    if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) ||
        !gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ)) {
        return picture;
    }
    picture.width = GST_VIDEO_FRAME_WIDTH(&frame);
    picture.height = GST_VIDEO_FRAME_HEIGHT(&frame);
    const auto* row = static_cast<const char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    for (int y = 0; y < picture.height; ++y, row += GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0)) {
        picture.luma.append(row, picture.width);
    }
    gst_video_frame_unmap(&frame);
    return picture;
}

}  // namespace

struct StreamClient::Private {
    mutable std::mutex mutex;
    std::vector<Picture> pictures;
    std::vector<FrameRecord> frames;
    std::vector<ImuRecord> imu;
    std::vector<GstElement*> jitterBuffers;
    GstElement* pipeline = nullptr;

    ~Private()
    {
        for (GstElement* const buffer : jitterBuffers) {
            gst_object_unref(buffer);
        }
    }

    static GstFlowReturn onPicture(GstAppSink* sink, gpointer self)
    {
        GstSample* const sample = gst_app_sink_pull_sample(sink);
        if (sample != nullptr) {
            Picture picture = pictureOf(sample);
            gst_sample_unref(sample);
            auto* const d = static_cast<Private*>(self);
            const std::lock_guard<std::mutex> lock(d->mutex);
            d->pictures.push_back(std::move(picture));
        }
        return GST_FLOW_OK;
    }

    static GstFlowReturn onData(GstAppSink* sink, gpointer self)
    {
        GstSample* const sample = gst_app_sink_pull_sample(sink);
        GstMapInfo map;
        if (sample != nullptr &&
            gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ)) {
            static_cast<Private*>(self)->parse(map.data, map.size);
            gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
        }
        if (sample != nullptr) {
            gst_sample_unref(sample);
        }
        return GST_FLOW_OK;
    }

    // One buffer may hold several records, one behind the other.
    void parse(const unsigned char* data, std::size_t size)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        while (size > kValueAt && std::memcmp(data, kLabelStart, sizeof kLabelStart) == 0) {
            const std::size_t length = kValueAt + bigEndian<std::uint16_t>(data + kValueAt - 2);
            if (length > size) {
                return;
            }
            if (data[kKindAt] == kFrameKind) {
                frames.push_back(parseFrame(data + kValueAt));
            } else if (data[kKindAt] == kImuKind) {
                imu.push_back(parseImu(data + kValueAt));
            }
            data += length;
            size -= length;
        }
    }

    // Links each stream to its branch. A description with two links that wait for pads of one
    // element would leave that to the library, which tries every pad with every such link, on the
    // threads of both streams at once; now and then one of them stays without a branch.
    static void onPad(GstElement* source, GstPad* pad, gpointer /*self*/)
    {
        GstObject* const pipeline = gst_element_get_parent(source);
        GstCaps* const caps = gst_pad_get_current_caps(pad);
        const char* const media =
            caps == nullptr ? nullptr
                            : gst_structure_get_string(gst_caps_get_structure(caps, 0), "media");
        const bool video = g_strcmp0(media, "video") == 0;
        GstElement* const branch =
            gst_bin_get_by_name(GST_BIN(pipeline), video ? "video-branch" : "data-branch");
        GstPad* const sink = gst_element_get_static_pad(branch, "sink");
        if (gst_pad_link(pad, sink) != GST_PAD_LINK_OK) {
            GST_ELEMENT_ERROR(branch, CORE, PAD, ("cannot link the stream of %s", media),
                              (nullptr));
        }
        gst_object_unref(sink);
        gst_object_unref(branch);
        gst_object_unref(pipeline);
        if (caps != nullptr) {
            gst_caps_unref(caps);
        }
    }

    // They alone know what was lost on the way.
    static void onJitterBuffer(GstElement* /*manager*/, GstElement* buffer, guint /*session*/,
                               guint /*source*/, gpointer self)
    {
        auto* const d = static_cast<Private*>(self);
        const std::lock_guard<std::mutex> lock(d->mutex);
        d->jitterBuffers.push_back(GST_ELEMENT(gst_object_ref(buffer)));
    }

    static void onManager(GstElement* /*source*/, GstElement* manager, gpointer self)
    {
        g_signal_connect(manager, "new-jitterbuffer", G_CALLBACK(&Private::onJitterBuffer), self);
    }

    void listen(const char* name, GstFlowReturn (*callback)(GstAppSink*, gpointer))
    {
        GstElement* const sink = gst_bin_get_by_name(GST_BIN(pipeline), name);
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = callback;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
        gst_object_unref(sink);
    }
};

StreamClient::StreamClient(const QString& url, const QString& protocols)
    : d(std::make_unique<Private>())
{
    gst_init(nullptr, nullptr);
    const QString description =
        QStringLiteral(
            "rtspsrc name=source location=%1 protocols=%2 latency=500 "
            "decodebin name=video-branch ! videoconvert ! video/x-raw,format=I420 "
            "! appsink name=video sync=false "
            "rtpklvdepay name=data-branch ! appsink name=data sync=false")
            .arg(url, protocols);
    d->pipeline = gst_parse_launch(description.toUtf8().constData(), nullptr);
    if (d->pipeline != nullptr) {
        d->listen("video", &Private::onPicture);
        d->listen("data", &Private::onData);
        GstElement* const source = gst_bin_get_by_name(GST_BIN(d->pipeline), "source");
        g_signal_connect(source, "pad-added", G_CALLBACK(&Private::onPad), nullptr);
        g_signal_connect(source, "new-manager", G_CALLBACK(&Private::onManager), d.get());
        gst_object_unref(source);
        gst_element_set_state(d->pipeline, GST_STATE_PLAYING);
    }
}

StreamClient::~StreamClient()
{
    if (d->pipeline != nullptr) {
        gst_element_set_state(d->pipeline, GST_STATE_NULL);
        gst_object_unref(d->pipeline);
    }
    // What the streaming threads wrote last, they wrote under this lock.
    const std::lock_guard<std::mutex> lock(d->mutex);
}

std::vector<Picture> StreamClient::pictures() const
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    return d->pictures;
}

std::vector<FrameRecord> StreamClient::frames() const
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    return d->frames;
}

std::vector<ImuRecord> StreamClient::imu() const
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    return d->imu;
}

std::uint64_t StreamClient::lost() const
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    std::uint64_t sum = 0;
    for (GstElement* const buffer : d->jitterBuffers) {
        GstStructure* stats = nullptr;
        guint64 count = 0;
        g_object_get(buffer, "stats", &stats, nullptr);
        if (stats != nullptr) {
            gst_structure_get_uint64(stats, "num-lost", &count);
            gst_structure_free(stats);
        }
        sum += count;
    }
    return sum;
}

QString StreamClient::error() const
{
    if (d->pipeline == nullptr) {
        return QStringLiteral("the pipeline cannot be built");
    }
    GstBus* const bus = gst_element_get_bus(d->pipeline);
    GstMessage* const message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    gst_object_unref(bus);
    if (message == nullptr) {
        return QString();
    }
    GError* reason = nullptr;
    gst_message_parse_error(message, &reason, nullptr);
    const QString text = QString::fromUtf8(reason->message);
    g_error_free(reason);
    gst_message_unref(message);
    return text;
}
