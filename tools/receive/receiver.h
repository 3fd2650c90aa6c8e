// SPDX-License-Identifier: Apache-2.0
// vistrel-receive: follows a session, shows how it does, and writes files.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>

#include "tools/receive/aslwriter.h"
#include "tools/receive/options.h"
#include "tools/receive/recorder.h"
#include "tools/receive/session.h"
#include "tools/receive/statistics.h"

namespace receive {

/// Receives one stream, or reads one file.
class Receiver {
public:
    explicit Receiver(const Options& receiveOptions);

    /// Follows the stream until there is a reason to end, and completes the files. Shows status
    /// lines and tells what goes wrong.
    /// @param stop ends it when it is not 0, from a signal handler
    ExitStatus run(const volatile std::sig_atomic_t& stop);

private:
    using Clock = std::chrono::steady_clock;

    SessionEvents events();
    bool openFiles();
    bool start();
    bool finished();
    bool sessionEnded();
    void showStatus(double at);
    void finishRecording();
    void finishAsl();
    void finishFiles();
    bool writeStatistics();

    void onCodedFrame(const Frame& frame);
    void onPicture(const Frame& picture);
    void onDataUnit(const DataUnit& unit);

    void sampleEyes(const Frame& picture);
    void finishedFrame(std::uint32_t time, std::uint64_t now);
    bool hasAllFrames() const;
    void writeSnapshot(const Frame& picture);
    void writeImu(const ImuRecord& record);
    void fileFailed(const std::string& path, const std::string& reason);
    void fileFailed(const std::string& problem);
    double elapsed() const;

    const Options options;
    const Clock::time_point began = Clock::now();
    bool snapshotWritten = false;
    std::chrono::seconds patience{5};  // with what has to be completed at the end

    std::mutex mutex;  // guards what follows; threads of the session
    Statistics counts;
    double shownAt = 0;  // seconds
    double firstFrameAt = 0;
    double lastFrameAt = 0;
    Clock::time_point lastFrame = began;
    MediaTime played;  // of a file
    std::string fileError;
    bool recordingFailed = false;
    std::ofstream imuFile;

    // Last, so that their threads end first.
    std::unique_ptr<Recorder> recorder;
    std::unique_ptr<AslWriter> asl;
    Session session;
};

}  // namespace receive
