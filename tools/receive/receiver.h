// SPDX-License-Identifier: Apache-2.0
// The pipeline of vistrel-receive: from the network to decoded pictures, files and statistics.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <future>
#include <mutex>
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

    bool openFiles();
    bool start();
    bool finished();
    bool streamEnded();
    void showStatus();
    void finishRecording();
    bool writeStatistics();

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
    void onData(GstElement*, GstBuffer* unit);
    static GstPadProbeReturn onRecordingEvent(GstPad*, GstPadProbeInfo* info, gpointer self);

    void finishedFrame(GstBuffer* frame, std::uint64_t now);
    void writeSnapshot(GstBuffer* picture, GstCaps* caps);
    void writeImu(const ImuRecord& record);
    void fileFailed(const std::string& path, const char* reason);

    const Options options;
    tq::GObjectPtr<GstElement> pipeline;
    const Clock::time_point began = Clock::now();
    Clock::time_point shown = began;
    std::atomic<bool> videoConnected{false};
    std::atomic<bool> dataConnected{false};
    bool snapshotWritten = false;
    std::promise<void> recorded;

    std::mutex mutex;  // guards what follows; streaming threads
    Statistics counts;
    Clock::time_point firstFrame = began;
    Clock::time_point lastFrame = began;
    Latest<GstClockTime, std::uint32_t> rtpTimes;      // of frames, by PTS
    Latest<GstClockTime, std::uint32_t> dataRtpTimes;  // of units of the data stream
    tq::GObjectPtr<GstPad> recordingInput;
    std::string fileError;
    std::ofstream imuFile;
};

}  // namespace receive
