// SPDX-License-Identifier: Apache-2.0
// The pipeline of vistrel-receive: from the network to decoded pictures, files and statistics.
#pragma once

#include <gio/gio.h>
#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>

#include "sdk/core/glibptr.h"
#include "tools/receive/options.h"
#include "tools/receive/statistics.h"

namespace receive {

/// Receives one stream.
class Receiver {
public:
    explicit Receiver(const Options& receiveOptions) : options(receiveOptions) {}

    /// Follows the stream until there is a reason to end, and completes the files. Shows status
    /// lines and tells what goes wrong.
    /// @param stop ends it when it is not 0, from a signal handler
    ExitStatus run(const volatile std::sig_atomic_t& stop);

private:
    using Clock = std::chrono::steady_clock;

    bool openAuthorities();
    bool openFiles();
    void protect(GstElement* source);
    bool start();
    bool finished();
    bool streamEnded();
    void showStatus();
    void finishRecording();
    void finishFiles();
    bool writeStatistics();

    bool wants(guint stream, const GstCaps* caps);
    void onPad(GstPad* pad);
    std::string videoLine(const std::string& codec) const;
    void connect(GstPad* pad, const std::string& description);
    template <void (Receiver::*handle)(GstElement*, GstBuffer*)>
    void watch(GstElement* bin, const char* name);

    // Each takes a buffer that passes the element at that place.
    void onVideoPacket(GstElement*, GstBuffer* packet);
    void onCodedFrame(GstElement*, GstBuffer* frame);
    void onPicture(GstElement* place, GstBuffer* picture);
    void onDataPacket(GstElement*, GstBuffer* packet);
    static GstBusSyncReply onMessage(GstBus*, GstMessage* message, gpointer self);
    static GstPadProbeReturn onRecordingEvent(GstPad*, GstPadProbeInfo* info, gpointer self);

    void finishedFrame(GstBuffer* frame, std::uint64_t now);
    void readUnit(const std::vector<std::uint8_t>& unit, std::uint32_t rtpTime);
    void writeSnapshot(GstBuffer* picture, GstCaps* caps);
    void writeImu(const ImuRecord& record);
    void fileFailed(const std::string& path, const char* reason);
    double elapsed() const;

    const Options options;
    tq::GObjectPtr<GstElement> pipeline;
    tq::GObjectPtr<GTlsDatabase> authorities;  // null: the system's
    const Clock::time_point began = Clock::now();
    Clock::time_point shown = began;
    std::atomic<bool> videoConnected{false};
    std::atomic<bool> dataConnected{false};
    std::optional<guint> videoStream;  // of the session that is wanted
    std::optional<guint> dataStream;
    bool snapshotWritten = false;
    std::chrono::seconds patience{5};  // with what has to be completed at the end

    std::mutex mutex;  // guards what follows; streaming threads
    UnitCollector units;
    Statistics counts;
    Clock::time_point firstFrame = began;
    Clock::time_point lastFrame = began;
    Latest<GstClockTime, std::uint32_t> rtpTimes;  // of frames, by PTS
    tq::GObjectPtr<GstPad> recordingInput;
    bool recordingOver = false;  // complete, or failed
    std::condition_variable recordingEnded;
    std::string fileError;
    std::ofstream imuFile;
};

}  // namespace receive
