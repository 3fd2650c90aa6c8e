// SPDX-License-Identifier: Apache-2.0
// Queueing between the application's threads and the encoder's.
#include "sdk/stream/streamfeed.h"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <algorithm>
#include <functional>
#include <string>

#include "sdk/core/log.h"

namespace tq::stream {

namespace {

// Buffers that the encoder may hold besides those that wait.
constexpr unsigned kEncoderBuffers = 6;
// Packets that wait behind a frame; with an encoder that hangs and no more frames coming, the rest
// overtakes it.
constexpr std::size_t kMostWaiting = 8192;
constexpr auto kShortestSilence = std::chrono::seconds(2);
constexpr int kMostWaits = 4;
constexpr auto kStandstill = std::chrono::milliseconds(500);
// A loss ends soon after somebody came, who may read, and needs his first pictures whole.
constexpr auto kLongLoss = std::chrono::milliseconds(10000);
constexpr auto kShortLoss = std::chrono::milliseconds(200);
constexpr auto kFirstPictures = std::chrono::seconds(3);
constexpr auto kReportInterval = std::chrono::seconds(10);

// A quarter of a second, so that a busy moment of the machine costs no frame.
std::size_t waitingLimit(int fps)
{
    return static_cast<std::size_t>(std::clamp(fps / 4, 2, 8));
}

// Some periods, so that slow streams are not taken for dead ones.
std::chrono::nanoseconds silence(int fps)
{
    return std::max<std::chrono::nanoseconds>(
        kShortestSilence, std::chrono::nanoseconds(std::chrono::seconds(3)) / fps);
}

GstAppSrc* appSource(GstElement* pipeline, const char* name)
{
    return GST_APP_SRC(gst_bin_get_by_name(GST_BIN(pipeline), name));
}

/// Calls a function for every sink of packets that viewers take by TCP.
void forEachTcpSink(GstElement* media, const std::function<void(GstAppSink*)>& act)
{
    const GObjectPtr<GstObject> pipeline(gst_object_get_parent(GST_OBJECT(media)));
    const std::unique_ptr<GstIterator, decltype(&gst_iterator_free)> sinks(
        gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline.get()), "appsink"),
        gst_iterator_free);
    gst_iterator_foreach(
        sinks.get(),
        [](const GValue* sink, gpointer function) {
            (*static_cast<const std::function<void(GstAppSink*)>*>(function))(
                GST_APP_SINK(g_value_get_object(sink)));
        },
        const_cast<std::function<void(GstAppSink*)>*>(&act));
}

// A media without its first frame would keep the server waiting; an error ends that.
void endWaiting(GstElement* source)
{
    GST_ELEMENT_ERROR(source, RESOURCE, CLOSE, ("There are no pictures"), (nullptr));
}

}  // namespace

StreamFeed::StreamFeed(const VideoFormat& format, GstVideoFormat pixelFormat,
                       const FrameRecord& streamIdentity)
    : identity(streamIdentity),
      mostWaiting(waitingLimit(format.fps)),
      longestSilence(silence(format.fps)),
      converter(format, pixelFormat, static_cast<unsigned>(mostWaiting) + kEncoderBuffers),
      lastFrame(std::chrono::steady_clock::now())
{
}

void StreamFeed::ingestFrame(const std::uint8_t* yuyv, Timestamp timestamp,
                             const kvfrw::kvfSampleMetadata& metadata)
{
    const std::lock_guard<std::mutex> oneFrame(ingestMutex);
    relieveSinks();
    const std::int32_t offset = eyeOffset.of(identity, yuyv, timestamp);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++counts.framesIngested;
        lastFrame = std::chrono::steady_clock::now();
        waits = 0;
        if (!wantsFrame()) {
            ++counts.framesUnwanted;
            return;
        }
    }
    BufferPtr picture = converter.convert(yuyv);
    if (!picture) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            dropOldestFrame();
        }
        picture = converter.convert(yuyv);
    }
    const std::lock_guard<std::mutex> lock(mutex);
    if (!wantsFrame()) {
        ++counts.framesUnwanted;
        return;
    }
    WaitingFrame frame{std::move(picture), identity};
    frame.record.counter = nextCounter++;
    frame.record.captureTime = timestamp;
    frame.record.eyeOffset = offset;
    frame.record.metadata = metadata;
    if (!frame.picture) {
        ++counts.framesDropped;
    } else {
        GST_BUFFER_PTS(frame.picture.get()) = timestamp;
        if (waitingFrames >= mostWaiting) {
            dropOldestFrame();
        }
        waiting.emplace_back(std::move(frame));
        ++waitingFrames;
        pump();
    }
    reportDrops();
}

void StreamFeed::ingestIMU(const IMUPacket& packet)
{
    if (packet.timestamp == 0) {
        return;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    if (!media || !playing || ended) {
        return;
    }
    if (waiting.empty() || waiting.size() >= kMostWaiting) {
        sendIMU(packet);
    } else {
        waiting.emplace_back(packet);
    }
}

void StreamFeed::attach(GstElement* pipeline)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (ended) {
        return;
    }
    forget();
    media = shareObject(pipeline);
    losing = false;
    video.reset(appSource(pipeline, "video"));
    data.reset(appSource(pipeline, "data"));
    encoder.reset(gst_bin_get_by_name(GST_BIN(pipeline), "encoder"));
}

void StreamFeed::setPlaying(GstElement* pipeline, bool on)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (media.get() != pipeline) {
        return;
    }
    playing = on;
    lastTaken = std::chrono::steady_clock::now();
    if (!on) {
        leaveWaiting();
    }
}

void StreamFeed::detach(GstElement* pipeline)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (media.get() == pipeline) {
        forget();
    }
}

void StreamFeed::encoderReady(GstAppSrc* source)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (video.get() == source && !ended) {
            ready = true;
            pump();
        }
        if (video.get() == source || !ended) {
            return;
        }
    }
    // It was being made when the feed ended, too early to be told then.
    endWaiting(GST_ELEMENT(source));
}

void StreamFeed::viewerCame()
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        lastViewer = std::chrono::steady_clock::now();
        lossEnd = std::min(lossEnd, lastViewer + kShortLoss);
    }
    requestKeyFrame();
}

void StreamFeed::requestKeyFrame()
{
    GObjectPtr<GstPad> pad;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (encoder) {
            pad.reset(gst_element_get_static_pad(encoder.get(), "src"));
        }
    }
    if (pad) {
        gst_pad_send_event(
            pad.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
    }
}

bool StreamFeed::hasPictures() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return playing || (waits < kMostWaits && !isSilent());
}

std::chrono::milliseconds StreamFeed::waitingInterval() const
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(longestSilence / (2 * kMostWaits));
}

void StreamFeed::waitForPictures(GstElement* pipeline)
{
    GObjectPtr<GstElement> source;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (media.get() == pipeline && !playing && ++waits >= kMostWaits) {
            source = shareObject(GST_ELEMENT(video.get()));
        }
    }
    if (source) {
        endWaiting(source.get());
    }
}

void StreamFeed::relieveSinks()
{
    std::unique_lock<std::mutex> lock(mutex);
    const auto now = std::chrono::steady_clock::now();
    if (losing && now > lossEnd) {
        setLosing(std::move(lock), false);
        requestKeyFrame();
    } else if (playing && waitingFrames >= mostWaiting && now - lastTaken > kStandstill) {
        setLosing(std::move(lock), true);
    }
}

void StreamFeed::sinkIsFull()
{
    setLosing(std::unique_lock<std::mutex>(mutex), true);
}

void StreamFeed::setLosing(std::unique_lock<std::mutex> lock, bool lose)
{
    if (lose == losing || !media) {
        return;
    }
    losing = lose;
    const auto now = std::chrono::steady_clock::now();
    lossEnd = now + (now - lastViewer < kFirstPictures ? kShortLoss : kLongLoss);
    const GObjectPtr<GstElement> element = shareObject(media.get());
    lock.unlock();
    forEachTcpSink(element.get(),
                   [lose](GstAppSink* sink) { gst_app_sink_set_drop(sink, lose ? TRUE : FALSE); });
}

void StreamFeed::shutdown()
{
    GObjectPtr<GstElement> last;
    GObjectPtr<GstElement> player;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ended = true;
        // One that plays waits for nothing; it is known until it is gone.
        if (playing) {
            leaveWaiting();
            player = shareObject(media.get());
        } else {
            last = shareObject(GST_ELEMENT(video.get()));
            forget();
        }
    }
    if (last) {
        endWaiting(last.get());
    }
    if (player) {
        endSinks(player.get());
    }
}

void StreamFeed::endSinks(GstElement* media)
{
    forEachTcpSink(media, [](GstAppSink* sink) {
        gst_element_set_locked_state(GST_ELEMENT(sink), TRUE);
        gst_element_set_state(GST_ELEMENT(sink), GST_STATE_NULL);
    });
}

SenderStatistics StreamFeed::statistics() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return counts;
}

// Before a client plays, the server needs a first frame for its description, and the encoder asks
// for some more until what is behind it is full.
bool StreamFeed::wantsFrame() const
{
    return media && !ended && (playing || ready);
}

bool StreamFeed::isSilent() const
{
    return std::chrono::steady_clock::now() - lastFrame > longestSilence;
}

void StreamFeed::pump()
{
    if (!ready || waiting.empty()) {
        return;
    }
    ready = false;
    WaitingFrame frame = std::get<WaitingFrame>(std::move(waiting.front()));
    waiting.pop_front();
    --waitingFrames;
    sendFrame(frame);
    sendLeadingPackets();
}

void StreamFeed::sendFrame(WaitingFrame& frame)
{
    frame.record.framesDropped = counts.framesDropped;
    sendRecord(encodeFrameRecord(frame.record), frame.record.captureTime);
    ++counts.framesEncoded;
    lastTaken = std::chrono::steady_clock::now();
    gst_app_src_push_buffer(video.get(), frame.picture.release());
}

// The data stream's time never runs backwards on account of an IMU packet.
void StreamFeed::sendIMU(const IMUPacket& packet)
{
    sendRecord(encodeImuRecord(identity.serial, packet), std::max(packet.timestamp, lastDataTime));
    ++counts.imuSent;
}

void StreamFeed::sendLeadingPackets()
{
    while (!waiting.empty() && std::holds_alternative<IMUPacket>(waiting.front())) {
        sendIMU(std::get<IMUPacket>(waiting.front()));
        waiting.pop_front();
    }
}

void StreamFeed::sendRecord(const std::vector<std::uint8_t>& record, Timestamp time)
{
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, record.size(), nullptr);
    gst_buffer_fill(buffer, 0, record.data(), record.size());
    GST_BUFFER_PTS(buffer) = time;
    lastDataTime = time;
    gst_app_src_push_buffer(data.get(), buffer);
}

void StreamFeed::dropOldestFrame()
{
    if (waiting.empty()) {
        return;
    }
    waiting.pop_front();
    --waitingFrames;
    ++counts.framesDropped;
    sendLeadingPackets();
}

void StreamFeed::reportDrops()
{
    const auto now = std::chrono::steady_clock::now();
    if (counts.framesDropped == reportedDrops || now - lastReport < kReportInterval) {
        return;
    }
    logLine("stream " + std::to_string(identity.serial) + ": the encoder is behind, " +
            std::to_string(counts.framesDropped) + " of " + std::to_string(nextCounter) +
            " frames dropped so far");
    reportedDrops = counts.framesDropped;
    lastReport = now;
}

// Nobody is there to take it any more.
void StreamFeed::leaveWaiting()
{
    counts.framesUnwanted += waitingFrames;
    waiting.clear();
    waitingFrames = 0;
}

void StreamFeed::forget()
{
    leaveWaiting();
    playing = false;
    ready = false;
    lastDataTime = 0;
    media.reset();
    video.reset();
    data.reset();
    encoder.reset();
}

}  // namespace tq::stream
