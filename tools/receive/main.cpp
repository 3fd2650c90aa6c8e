// SPDX-License-Identifier: Apache-2.0
// vistrel-receive: receives a virtual stereo camera, shows how it does, and writes files.
#include <gst/gst.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/receive/options.h"
#include "tools/receive/receiver.h"

namespace {

using Clock = std::chrono::steady_clock;
using receive::Options;
using receive::Receiver;

constexpr int kPollMilliseconds = 20;

volatile std::sig_atomic_t stopRequested = 0;

double secondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

void catchSignals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { stopRequested = 1; };
    action.sa_flags = SA_RESETHAND;  // a second signal ends the program at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

/// Follows the stream until there is a reason to end.
class Session {
public:
    Session(const Options& sessionOptions, Receiver& sessionReceiver)
        : options(sessionOptions), receiver(sessionReceiver)
    {
    }

    void run()
    {
        while (!stopRequested && !finished()) {
            if (!receiver.poll(kPollMilliseconds)) {
                std::fprintf(stderr, "vistrel-receive: %s\n", receiver.error().c_str());
                return;
            }
            watchFrames();
            showStatus();
        }
    }

    /// Seconds from the first frame to the last.
    double streamSeconds() const { return frames > 0 ? secondsBetween(first, last) : 0; }

private:
    bool finished() const
    {
        const auto now = Clock::now();
        if (options.frames > 0 && frames >= options.frames) {
            return true;
        }
        if (options.duration > 0 && secondsBetween(begin, now) >= options.duration) {
            return true;
        }
        if (options.timeout > 0 && secondsBetween(last, now) >= options.timeout) {
            std::fprintf(stderr, "vistrel-receive: no frame for %g s\n", options.timeout);
            return true;
        }
        return false;
    }

    void watchFrames()
    {
        const std::uint64_t count = receiver.statistics().frames();
        if (count == frames) {
            return;
        }
        last = Clock::now();
        if (frames == 0) {
            first = last;
        }
        frames = count;
    }

    void showStatus()
    {
        const auto now = Clock::now();
        const double seconds = secondsBetween(shown, now);
        if (seconds < 1) {
            return;
        }
        shown = now;
        const std::string line = receiver.statistics().statusLine(seconds);
        if (!options.quiet && frames > 0) {
            std::puts(line.c_str());
            std::fflush(stdout);
        }
    }

    const Options& options;
    Receiver& receiver;
    const Clock::time_point begin = Clock::now();
    Clock::time_point shown = begin;
    Clock::time_point first = begin;
    Clock::time_point last = begin;
    std::uint64_t frames = 0;
};

bool writeStatistics(const std::string& path, const std::string& text)
{
    if (path == "-") {
        return std::puts(text.c_str()) >= 0 && std::fflush(stdout) == 0;
    }
    receive::FilePtr file(std::fopen(path.c_str(), "we"));
    if (!file || std::fprintf(file.get(), "%s\n", text.c_str()) < 0 ||
        std::fclose(file.release()) != 0) {
        std::fprintf(stderr, "vistrel-receive: %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

int receiveStream(const Options& options)
{
    Receiver receiver(options);
    const std::string openError = receiver.start();
    if (!openError.empty()) {
        std::fprintf(stderr, "vistrel-receive: %s\n", openError.c_str());
        return receive::FILE_ERROR;
    }
    Session session(options, receiver);
    session.run();
    const std::string fileError = receiver.stop();
    if (!fileError.empty()) {
        std::fprintf(stderr, "vistrel-receive: %s\n", fileError.c_str());
    }
    const std::string statistics = receiver.statistics().json(
        receive::withoutCredentials(options.url), session.streamSeconds());
    const bool written =
        options.statistics.empty() || writeStatistics(options.statistics, statistics);
    const std::uint64_t frames = receiver.statistics().frames();
    if (frames == 0 || frames < options.frames) {
        return receive::NO_FRAMES;
    }
    return fileError.empty() && written ? receive::SUCCESS : receive::FILE_ERROR;
}

}  // namespace

int main(int argc, char** argv)
{
    const Options options = receive::parseOptions(argc, argv);
    tq::Failure failure;
    if (!gst_init_check(nullptr, nullptr, failure.place())) {
        std::fprintf(stderr, "vistrel-receive: %s\n", failure.text("no GStreamer"));
        return receive::NO_FRAMES;
    }
    catchSignals();
    return receiveStream(options);
}
