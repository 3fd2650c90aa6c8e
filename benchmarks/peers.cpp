// SPDX-License-Identifier: Apache-2.0
// CPU per stereo frame of our join beside GStreamer's compositor and ffmpeg's hstack, on the same
// frames in the same run, reading subtracted.
//
//   bench_peers [RECORDING] [ROUNDS]
//
// RECORDING is a stereo recording in the ASL layout (the folder that holds cam0 and cam1); without
// one a test picture is used. Needs ffmpeg and gst-launch-1.0.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "capture/framepool.h"
#include "capture/sdk.h"
#include "capture/sidebyside.h"

extern char** environ;

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1200;
constexpr std::size_t kEyeBytes = std::size_t{kWidth} * kHeight * sdk::kYuyvBytesPerPixel;
constexpr int kFrames = 40;   // pairs on disk
constexpr int kRepeats = 10;  // how often each program goes through them

using Arguments = std::vector<std::string>;
using Frames = std::vector<std::vector<unsigned char>>;

double seconds(const rusage& usage)
{
    const auto toSeconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return toSeconds(usage.ru_utime) + toSeconds(usage.ru_stime);
}

/// Runs a program to its end, without output, and returns the CPU seconds it used.
double cpuOfProgram(const Arguments& arguments)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    const int started = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    if (started != 0 || wait4(child, &status, 0, &usage) != child || status != 0) {
        throw std::runtime_error("cannot run " + arguments[0]);
    }
    return seconds(usage);
}

double cpuOfCall(const std::function<void()>& work)
{
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    work();
    getrusage(RUSAGE_SELF, &after);
    return seconds(after) - seconds(before);
}

/// A folder with one raw YUYV file per eye, removed at the end.
class RawFrames {
public:
    explicit RawFrames(const std::string& recording)
    {
        char name[] = "/tmp/bench_peers.XXXXXX";
        if (mkdtemp(name) == nullptr) {
            throw std::runtime_error("cannot make a temporary folder");
        }
        folder = name;
        write(recording, "cam0", left());
        write(recording, "cam1", right());
    }
    ~RawFrames()
    {
        std::remove(left().c_str());
        std::remove(right().c_str());
        rmdir(folder.c_str());
    }
    RawFrames(const RawFrames&) = delete;
    RawFrames& operator=(const RawFrames&) = delete;

    std::string left() const { return folder + "/left.yuyv"; }
    std::string right() const { return folder + "/right.yuyv"; }

private:
    static void write(const std::string& recording, const std::string& camera,
                      const std::string& file)
    {
        Arguments command{"ffmpeg", "-y", "-v", "error"};
        const Arguments input =
            recording.empty() ? Arguments{"-f", "lavfi", "-i", "testsrc2=size=1920x1200:rate=20"}
                              : Arguments{"-pattern_type", "glob", "-i",
                                          recording + "/" + camera + "/data/*.png"};
        command.insert(command.end(), input.begin(), input.end());
        const Arguments output{"-frames:v", std::to_string(kFrames),
                               "-vf",       "scale=1920:1200",
                               "-pix_fmt",  "yuyv422",
                               "-f",        "rawvideo",
                               file};
        command.insert(command.end(), output.begin(), output.end());
        cpuOfProgram(command);
    }

    std::string folder;
};

Frames readFrames(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    Frames frames(kFrames, std::vector<unsigned char>(kEyeBytes));
    for (auto& frame : frames) {
        stream.read(reinterpret_cast<char*>(frame.data()), static_cast<std::streamsize>(kEyeBytes));
    }
    if (!stream) {
        throw std::runtime_error("short file " + file);
    }
    return frames;
}

Arguments ffmpeg(const RawFrames& raw, const Arguments& graph)
{
    Arguments command{"ffmpeg", "-v", "error"};
    for (const std::string& file : {raw.left(), raw.right()}) {
        const Arguments input{"-stream_loop", std::to_string(kRepeats - 1),
                              "-f",           "rawvideo",
                              "-pix_fmt",     "yuyv422",
                              "-s",           "1920x1200",
                              "-r",           "30",
                              "-i",           file};
        command.insert(command.end(), input.begin(), input.end());
    }
    command.insert(command.end(), graph.begin(), graph.end());
    command.insert(command.end(), {"-f", "null", "-"});
    return command;
}

Arguments gstreamer(const RawFrames& raw, bool join)
{
    const auto eye = [](const std::string& file) {
        return Arguments{"multifilesrc",
                         "location=" + file,
                         "loop=true",
                         "num-buffers=" + std::to_string(kRepeats),
                         "!",
                         "rawvideoparse",
                         "use-sink-caps=false",
                         "format=yuy2",
                         "width=1920",
                         "height=1200",
                         "framerate=30/1",
                         "!"};
    };
    Arguments command{"gst-launch-1.0", "-q"};
    const auto add = [&command](const Arguments& more) {
        command.insert(command.end(), more.begin(), more.end());
    };
    if (join) {
        add({"compositor", "name=join", "background=black", "sink_1::xpos=1920", "!",
             "video/x-raw,format=YUY2,width=3840,height=1200", "!", "fakesink", "sync=false"});
    }
    for (const std::string& file : {raw.left(), raw.right()}) {
        add(eye(file));
        add(join ? Arguments{"join."} : Arguments{"fakesink", "sync=false"});
    }
    return command;
}

struct Costs {
    std::vector<double> samples;  // ms of CPU per stereo frame

    double median() const
    {
        std::vector<double> sorted = samples;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }
};

/// Our own stages over the same frames. As with the peers, every frame is first read into the
/// buffer from which it is then worked on, and the cost of reading alone is subtracted.
class OwnPath {
public:
    explicit OwnPath(const RawFrames& raw) : stored{readFrames(raw.left()), readFrames(raw.right())}
    {
        for (tq::Mat& image : inputs) {
            image.alloc(kWidth, kHeight, sdk::kYuyv, sdk::kHostMemory);
        }
        out.alloc(2 * kWidth, kHeight, sdk::kYuyv, sdk::kHostMemory);
    }

    void read()
    {
        forEachFrame([] {});
    }

    void readAndCopy()
    {
        forEachFrame([this] {
            for (std::size_t eye = 0; eye < 2; ++eye) {
                std::memcpy(pixels(out) + eye * kEyeBytes, pixels(inputs[eye]), kEyeBytes);
            }
        });
    }

    void readAndJoin()
    {
        forEachFrame(
            [this] { joinSideBySide(inputs[0], inputs[1], kWidth, kHeight, pixels(out)); });
    }

    void readCopyAndJoin()
    {
        forEachFrame([this] {
            for (std::size_t eye = 0; eye < 2; ++eye) {
                tq::Mat* const buffer = pools[eye].take();
                std::memcpy(pixels(*buffer), pixels(inputs[eye]), kEyeBytes);
                queued[eye].clone(*buffer);
                pools[eye].giveBack(buffer);
            }
            joinSideBySide(queued[0], queued[1], kWidth, kHeight, pixels(out));
        });
    }

private:
    static unsigned char* pixels(const tq::Mat& image)
    {
        return image.getPtr<unsigned char>(sdk::kHostMemory);
    }

    void forEachFrame(const std::function<void()>& work)
    {
        for (int n = 0; n < kRepeats * kFrames; ++n) {
            for (std::size_t eye = 0; eye < 2; ++eye) {
                const auto& frame = stored[eye][static_cast<std::size_t>(n % kFrames)];
                std::memcpy(pixels(inputs[eye]), frame.data(), kEyeBytes);
            }
            work();
        }
    }

    Frames stored[2];
    tq::Mat inputs[2];
    tq::Mat queued[2];
    FramePool pools[2] = {{kWidth, kHeight}, {kWidth, kHeight}};
    tq::Mat out;  // aligned like the image that goes to the sender
};

void report(const char* name, const Costs& costs, const Costs& reference)
{
    std::printf("%-34s %8.2f ms   %5.2f x the faster peer\n", name, costs.median(),
                costs.median() / reference.median());
}

int compare(const std::string& recording, int rounds)
{
    const RawFrames raw(recording);
    OwnPath own(raw);
    Costs compositor, hstack, join, path, copy;
    const auto perFrame = [](double cpuSeconds) { return cpuSeconds * 1e3 / (kFrames * kRepeats); };
    const Arguments readOnly{"-map", "0:v", "-map", "1:v", "-c:v", "wrapped_avframe"};
    const Arguments hstackGraph{"-filter_complex", "[0:v][1:v]hstack", "-c:v", "wrapped_avframe"};
    own.readCopyAndJoin();  // fills the pools
    const auto costOf = [&](void (OwnPath::*work)()) {
        const double reading = cpuOfCall([&own] { own.read(); });
        return perFrame(cpuOfCall([&own, work] { (own.*work)(); }) - reading);
    };
    for (int round = 0; round < rounds; ++round) {
        compositor.samples.push_back(
            perFrame(cpuOfProgram(gstreamer(raw, true)) - cpuOfProgram(gstreamer(raw, false))));
        hstack.samples.push_back(
            perFrame(cpuOfProgram(ffmpeg(raw, hstackGraph)) - cpuOfProgram(ffmpeg(raw, readOnly))));
        copy.samples.push_back(costOf(&OwnPath::readAndCopy));
        join.samples.push_back(costOf(&OwnPath::readAndJoin));
        path.samples.push_back(costOf(&OwnPath::readCopyAndJoin));
    }
    const Costs& peer = hstack.median() < compositor.median() ? hstack : compositor;
    std::printf("CPU per 1920 x 1200 stereo frame, median of %d rounds of %d frames, %s\n", rounds,
                kFrames * kRepeats, recording.empty() ? "test picture" : "real recording");
    report("GStreamer compositor", compositor, peer);
    report("ffmpeg hstack", hstack, peer);
    report("memcpy of the same bytes", copy, peer);
    report("join", join, peer);
    report("capture copy + deep copy + join", path, peer);
    std::printf("join / memcpy: %.2f\n", join.median() / copy.median());
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        const std::string recording = argc > 1 ? argv[1] : "";
        const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
        return compare(recording, rounds);
    } catch (const std::exception& error) {
        std::cerr << "bench_peers: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
