// SPDX-License-Identifier: Apache-2.0
// One stream, or one recorded file: from the network or the disk to coded frames, pictures and
// data.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "sdk/core/glibptr.h"
#include "sdk/stream/recordreader.h"
#include "tools/receive/statistics.h"

// Its header and Qt's do not go together.
using GTlsDatabase = struct _GTlsDatabase;

namespace receive {

/// What to receive, and how.
struct Source {
    std::string url;          ///< rtsp:// or rtsps:// address, or the path of a recorded file
    unsigned jitter = 200;    ///< how long a missing packet is waited for, ms
    bool tcp = false;         ///< media through the RTSP connection
    std::string authorities;  ///< PEM file of the authorities to trust, empty: the system's
    bool insecure = false;    ///< accept any certificate
    bool decode = true;

    /// Whether it is a recorded file.
    bool isFile() const { return url.find("://") == std::string::npos; }
    /// Whether the stream comes by TLS, its media included.
    bool isSecure() const { return url.rfind("rtsps://", 0) == 0; }
};

/// A frame, coded or decoded. Valid during the call that it comes with.
struct Frame {
    GstBuffer* buffer;
    GstCaps* caps;
    /// In 1/90000 s, equal to that of the frame's data unit: of a stream the RTP timestamp, of a
    /// file counted from its beginning.
    std::uint32_t time;
};

/// One unit of the data stream. Valid during the call that it comes with.
struct DataUnit {
    const std::uint8_t* bytes;
    std::size_t size;
    std::uint32_t time;  ///< as that of frames
};

/// Who is told what arrives; called by threads of the session, for frames and data at once.
struct SessionEvents {
    std::function<void(std::size_t bytes)> videoBytes;
    /// Packets that never came, or too late.
    std::function<void(unsigned packets)> videoPacketsLost = [](unsigned) {};
    std::function<void(const Frame&)> codedFrame;
    std::function<void(const Frame&)> picture;
    std::function<void(const DataUnit&)> dataUnit;
    std::function<void(const std::string&)> remark;  ///< why a certificate is refused
};

/// Receives one stream or reads one file.
class Session {
public:
    Session(const Source& sessionSource, SessionEvents sessionEvents)
        : source(sessionSource), events(std::move(sessionEvents))
    {
    }

    /// Reads the authorities to trust, before it begins.
    /// @return why they cannot be read, or empty
    std::string trust();

    /// Begins; what arrives is told from now on.
    /// @return why it cannot, or empty
    std::string start();

    /// Waits for the end for a while.
    /// @return nothing when it goes on; empty at the end of a file; else why it ended
    std::optional<std::string> ended(GstClockTime patience);

    /// Readable when ended() has something to say. After start(), until stop().
    int descriptor() const;

    /// Ends it; a sender that goes on talking can hold this up for ever.
    void stop();

    /// "H.264" or "H.265", empty when there is no video yet. Any thread.
    std::string codec() const;

    /// Whether there is a data stream, known when the first frame comes. Any thread.
    bool hasData() const { return data; }

private:
    void address(GstElement* element);
    bool accepts(unsigned flags) const;
    bool wants(guint stream, const GstCaps* caps);
    void onPad(GstPad* pad);
    std::string decoding(const std::string& codec) const;
    void connect(GstPad* pad, const std::string& description);
    template <void (Session::*handle)(GstElement*, GstBuffer*)>
    void watch(GstElement* bin, const char* name);
    void watchVideo(GstElement* bin);

    // Each takes a buffer that passes the element at that place.
    GstBuffer* onVideoPacket(GstBuffer* packet);
    void onCodedFrame(GstElement* place, GstBuffer* frame);
    void onPicture(GstElement* place, GstBuffer* picture);
    void onDataPacket(GstElement*, GstBuffer* packet);
    void onDataBuffer(GstElement*, GstBuffer* buffer);
    void hand(const std::function<void(const Frame&)>& to, GstElement* place, GstBuffer* buffer);
    std::optional<std::uint32_t> timeOf(const GstBuffer* frame);

    const Source source;
    const SessionEvents events;
    tq::GObjectPtr<GstElement> pipeline;
    tq::GObjectPtr<GTlsDatabase> authorities;  // null: the system's
    std::atomic<bool> videoConnected{false};
    std::atomic<bool> dataConnected{false};
    std::atomic<bool> data{false};
    std::optional<guint> videoStream;  // of the session that is wanted
    std::optional<guint> dataStream;
    tq::wire::UnitCollector units;                 // of the data's thread
    DistinctTimes frameTimes;                      // of the video's thread
    std::optional<std::uint16_t> lastVideoPacket;  // of the video's thread

    mutable std::mutex mutex;                      // guards what follows
    Latest<GstClockTime, std::uint32_t> rtpTimes;  // of frames, by PTS
    std::string codecShown;
};

}  // namespace receive
