// SPDX-License-Identifier: Apache-2.0
// Carries frames and IMU packets from the application to the media that is being served.
#pragma once

#include <gst/app/gstappsrc.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <variant>

#include "sdk/stream/datarecords.h"
#include "sdk/stream/eyeoffset.h"
#include "sdk/stream/frameconverter.h"

namespace tq::stream {

/// What happened to the frames and packets of one sender since it was opened.
struct SenderStatistics {
    std::uint64_t framesIngested = 0;  ///< given to the sender
    std::uint64_t framesUnwanted = 0;  ///< left alone because nobody watches
    std::uint64_t framesEncoded = 0;   ///< handed to the encoder
    std::uint64_t framesDropped = 0;   ///< given up because the encoder is behind
    std::uint64_t imuSent = 0;         ///< handed to the network
};

/// The way in of one sender. Frames are converted on the caller's thread and wait in a short queue
/// until the encoder asks for one; when the queue is full the oldest is dropped. IMU packets keep
/// their place between the frames.
///
/// Thread safe. No function blocks on the encoder or on the network.
class StreamFeed {
public:
    /// @param identity what every frame record says about this stream
    StreamFeed(const VideoFormat& format, GstVideoFormat pixelFormat, const FrameRecord& identity);

    /// Takes one frame; see UDPOutput::ingestYUVFrame().
    void ingestFrame(const std::uint8_t* yuyv, Timestamp timestamp,
                     const kvfrw::kvfSampleMetadata& metadata);

    /// Takes one IMU packet; empty ones are ignored.
    void ingestIMU(const IMUPacket& packet);

    /// Names the media to feed from now on; the one before gets nothing more.
    /// @param pipeline holds appsrc "video", appsrc "data" and "encoder"
    void attach(GstElement* pipeline);

    /// The media's clients want frames, or want none.
    void setPlaying(GstElement* pipeline, bool on);

    /// The media is gone.
    void detach(GstElement* pipeline);

    /// The encoder can take a frame.
    void encoderReady(GstAppSrc* source);

    /// Whether a newcomer can be served at once: somebody is watching, or frames come. No frame for
    /// two seconds, or three periods if that is more, is silence.
    bool hasPictures() const;

    /// How often to call waitForPictures() while a media waits for its first frame.
    std::chrono::milliseconds waitingInterval() const;

    /// Ends that wait at the fourth call in a row without a frame, and until the next frame there
    /// are no pictures for anybody. Calls are counted, not seconds: a machine that stood still is
    /// no silent camera.
    void waitForPictures(GstElement* pipeline);

    /// None of the viewers by TCP reads. For some seconds the sinks lose packets instead of waiting
    /// for them, so that the library looks for others that read; so it is, too, when the encoder
    /// stands still behind such a sink. A key frame follows. Any thread.
    void sinkIsFull();

    /// A client has begun to play: the encoder begins its next frame afresh. Any thread.
    void viewerCame();

    /// Feeds nothing more, and ends all waiting: of a media for its first frame, of its sinks for
    /// the next one.
    void shutdown();

    /// Ends the sinks of a media that ends, for viewers by TCP. One that dropped what the library
    /// was about to send keeps it waiting for the next, with a lock held that it needs to end. Any
    /// thread.
    static void endSinks(GstElement* media);

    SenderStatistics statistics() const;

    const GstVideoInfo& videoInfo() const { return converter.videoInfo(); }
    const FrameRecord& streamIdentity() const { return identity; }

private:
    struct WaitingFrame {
        BufferPtr picture;
        FrameRecord record;
    };
    using Waiting = std::variant<WaitingFrame, IMUPacket>;

    void requestKeyFrame();
    void relieveSinks();
    void setLosing(std::unique_lock<std::mutex> lock, bool lose);
    bool wantsFrame() const;
    bool isSilent() const;
    void pump();
    void sendFrame(WaitingFrame& frame);
    void sendIMU(const IMUPacket& packet);
    void sendLeadingPackets();
    void sendRecord(const std::vector<std::uint8_t>& record, Timestamp time);
    void dropOldestFrame();
    void reportDrops();
    void leaveWaiting();
    void forget();

    const FrameRecord identity;
    const std::size_t mostWaiting;
    const std::chrono::nanoseconds longestSilence;

    std::mutex ingestMutex;  // one frame is converted at a time; taken before mutex
    FrameConverter converter;
    EyeOffset eyeOffset;

    mutable std::mutex mutex;
    GObjectPtr<GstElement> media;
    GObjectPtr<GstAppSrc> video;
    GObjectPtr<GstAppSrc> data;
    GObjectPtr<GstElement> encoder;
    bool playing = false;
    bool ready = false;  // the encoder waits for a frame
    bool ended = false;
    std::deque<Waiting> waiting;  // begins with a frame whenever it is not empty
    std::size_t waitingFrames = 0;
    std::uint64_t nextCounter = 0;
    Timestamp lastDataTime = 0;
    std::chrono::steady_clock::time_point lastFrame;  // or the begin
    int waits = 0;                                    // in a row for a first frame
    std::chrono::steady_clock::time_point lastTaken;  // by the encoder
    bool losing = false;                              // packets for viewers by TCP
    std::chrono::steady_clock::time_point lossEnd;
    std::chrono::steady_clock::time_point lastViewer;
    SenderStatistics counts;
    std::uint64_t reportedDrops = 0;
    std::chrono::steady_clock::time_point lastReport{};
};

}  // namespace tq::stream
