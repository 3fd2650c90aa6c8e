// SPDX-License-Identifier: Apache-2.0
// A small sender of moving test frames, for tests of receivers.
//
// sample_sender PORT [--size WxH] [--fps N] [--serial N] [--imu PACKETS_PER_FRAME]
//               [--imu-lead MS] [--seconds N]
// --size is the size of one eye; --imu-lead makes inertial packets newer than the frame behind
// them. Prints "ready" once the stream is served, and the processor time it used when it ends.
#include <getopt.h>
#include <sys/resource.h>
#include <time.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tq_kor/tq_kor.h"

namespace {

std::atomic<bool> stopRequested{false};

struct Options {
    int port = 0;
    int width = 160;
    int height = 120;
    int fps = 30;
    int serial = 100000001;
    int imuPerFrame = 0;
    int imuLead = 0;  // ms
    double seconds = 3600;
};

Options parse(int argc, char** argv)
{
    Options options;
    const option longOptions[] = {{"size", required_argument, nullptr, 's'},
                                  {"fps", required_argument, nullptr, 'f'},
                                  {"serial", required_argument, nullptr, 'n'},
                                  {"imu", required_argument, nullptr, 'i'},
                                  {"seconds", required_argument, nullptr, 't'},
                                  {"imu-lead", required_argument, nullptr, 'l'},
                                  {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "", longOptions, nullptr)) != -1;) {
        switch (c) {
            case 's': std::sscanf(optarg, "%dx%d", &options.width, &options.height); break;
            case 'f': options.fps = std::atoi(optarg); break;
            case 'n': options.serial = std::atoi(optarg); break;
            case 'i': options.imuPerFrame = std::atoi(optarg); break;
            case 'l': options.imuLead = std::atoi(optarg); break;
            case 't': options.seconds = std::atof(optarg); break;
            default: std::exit(2);
        }
    }
    if (optind < argc)
        options.port = std::atoi(argv[optind]);
    return options;
}

tq::Timestamp now()
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<tq::Timestamp>(t.tv_sec) * 1000000000u +
           static_cast<tq::Timestamp>(t.tv_nsec);
}

void sleepUntil(tq::Timestamp instant)
{
    timespec t{};
    t.tv_sec = static_cast<time_t>(instant / 1000000000u);
    t.tv_nsec = static_cast<long>(instant % 1000000000u);
    clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &t, nullptr);
}

/// A texture that moves; the right eye is darker than the left.
class Picture {
public:
    Picture(int eyeWidth, int eyeHeight)
        : stride(static_cast<std::size_t>(eyeWidth) * 4),
          rows(static_cast<std::size_t>(eyeHeight)),
          pixels(stride * (rows + kShift))
    {
        for (std::size_t row = 0; row < rows + kShift; ++row) {
            for (std::size_t x = 0; x < stride; x += 2) {
                const bool right = x >= stride / 2;
                const std::size_t pattern = ((x / 16) * 7 + (row / 8) * 13) % 100;
                pixels[row * stride + x] = static_cast<unsigned char>((right ? 20 : 120) + pattern);
                pixels[row * stride + x + 1] = 128;
            }
        }
    }

    unsigned char* at(std::uint64_t frame) { return pixels.data() + (frame % kShift) * stride; }

private:
    static constexpr std::size_t kShift = 64;
    std::size_t stride;
    std::size_t rows;
    std::vector<unsigned char> pixels;
};

tq::IMUPacket packetAt(tq::Timestamp time, std::uint64_t sequence)
{
    tq::IMUPacket packet{};
    packet.timestamp = time;
    packet.sequence = sequence;
    packet.acceleration[2] = 9.81;
    packet.orientation[3] = 1;
    packet.validFields = tq::IMU_ACCELERATION | tq::IMU_ORIENTATION;
    return packet;
}

void sendFrames(tq::UDPOutput& output, const Options& options)
{
    Picture picture(options.width, options.height);
    const tq::Timestamp period = 1000000000u / static_cast<unsigned>(options.fps);
    const tq::Timestamp lead = static_cast<unsigned>(options.imuLead) * tq::Timestamp{1000000};
    const tq::Timestamp begin = now();
    const auto end = begin + static_cast<tq::Timestamp>(options.seconds * 1e9);
    std::uint64_t sequence = 0;
    std::uint64_t frame = 0;
    for (tq::Timestamp time = begin; time < end && !stopRequested; time += period, ++frame) {
        sleepUntil(time);
        tq::kvfrw::kvfSampleMetadata metadata;
        std::memset(&metadata, 0, sizeof metadata);
        for (int i = options.imuPerFrame; i > 0; --i) {
            const auto age =
                period * static_cast<unsigned>(i - 1) / static_cast<unsigned>(options.imuPerFrame);
            const tq::IMUPacket packet = packetAt(time - age + lead, sequence++);
            output.ingestIMU(packet);
            tq::kvfrw::convertMetadataFromMCUData(metadata, packet);
        }
        output.ingestYUVFrame(picture.at(frame), time, metadata);
    }
}

tq::UDPOutConfig configuration(const Options& options)
{
    tq::UDPOutConfig config;
    std::memset(&config, 0, sizeof config);
    config.layout = 1;
    config.port = static_cast<std::uint16_t>(options.port);
    config.bitrate = 20000;
    config.keyFrameInterval = 120;
    config.chunkSize = 16000;
    config.width = options.width;
    config.height = options.height;
    config.fps = options.fps;
    config.serialNumber = options.serial;
    config.deviceVersion = 1523;
    config.imuRate = options.imuPerFrame * options.fps;
    config.modelCode = 11;
    config.eyes = 2;
    return config;
}

}  // namespace

int main(int argc, char** argv)
{
    const Options options = parse(argc, argv);
    std::signal(SIGTERM, [](int) { stopRequested = true; });
    std::signal(SIGINT, [](int) { stopRequested = true; });
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, true);
    const int result = output.open(configuration(options));
    if (result != 0)
        return result;
    std::puts("ready");
    std::fflush(stdout);
    sendFrames(output, options);
    output.close();
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    std::printf("processor time %.2f s\n", seconds(usage.ru_utime) + seconds(usage.ru_stime));
    return 0;
}
