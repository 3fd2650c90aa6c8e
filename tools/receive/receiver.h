// SPDX-License-Identifier: Apache-2.0
// The pipeline of vistrel-receive: from the network to decoded pictures, files and statistics.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "sdk/core/glibptr.h"
#include "tools/receive/options.h"
#include "tools/receive/statistics.h"

namespace receive {

struct FileClose {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileClose>;

/// Receives one stream. The public functions belong to one thread.
class Receiver {
public:
    explicit Receiver(const Options& options);
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Opens the files and starts to receive.
    /// @return empty, or why a file cannot be written
    std::string start();

    /// Looks after the pipeline for a while.
    /// @return false when the stream has ended; error() says why
    bool poll(int milliseconds);

    /// Ends the reception and completes the files.
    /// @return empty, or why a file could not be written
    std::string stop();

    const std::string& error() const { return failure; }
    Statistics& statistics() { return counts; }

private:
    using RtpTimes = std::map<GstClockTime, std::uint32_t>;  // by PTS, of what is under way

    void onPad(GstPad* pad);
    void connectVideo(GstPad* pad, const std::string& encoding);
    void connectData(GstPad* pad);
    std::string videoLine(const std::string& encoding) const;
    GstElement* addBin(const std::string& description);

    void onVideoPacket(GstBuffer* packet);
    void onCodedFrame(GstBuffer* frame);
    void onPicture(GstSample* sample);
    void onDataPacket(GstBuffer* packet);
    void onData(GstSample* sample);
    void writeSnapshot(GstSample* sample);
    void writeImu(const ImuRecord& record);
    bool recall(const RtpTimes& times, GstClockTime pts, std::uint32_t& rtpTime);
    void finishRecording();
    void fail(const std::string& reason);

    const Options options;
    Statistics counts;
    tq::GObjectPtr<GstElement> pipeline;
    std::string failure;

    std::mutex mutex;       // guards what follows; streaming threads
    RtpTimes rtpTimes;      // of frames
    RtpTimes dataRtpTimes;  // of units of the data stream
    tq::GObjectPtr<GstPad> recordingInput;
    bool recordingDone = false;
    std::condition_variable recordingChanged;
    std::atomic<bool> videoConnected{false};
    std::atomic<bool> dataConnected{false};
    bool snapshotWritten = false;
    std::string fileError;
    FilePtr imuFile;

    friend struct ReceiverCallbacks;
};

}  // namespace receive
