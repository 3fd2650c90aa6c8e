// SPDX-License-Identifier: Apache-2.0
// Pairs that the streamer finds among images of two cameras that are not in step, beside those that
// there are.
//
//   bench_pairs SECONDS
//
// Simulated cameras with jitter, drift and drops deliver in real time, each on a thread of its own,
// to a streamer whose sender writes down what it is given. The same cameras under a clock that does
// not wait tell beforehand when each image is taken; the most pairs that are possible among these
// follow from the rule alone. Prints a JSON object: for each case the pairs that are possible,
// those that are possible among the images that were delivered in time, and those found.
#include <QCoreApplication>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture/Streamer.h"
#include "capture/pairing.h"
#include "capture/sdk.h"
#include "sdk/sources/simulatedsource.h"

namespace {

constexpr int kWidth = 128;
constexpr int kHeight = 96;
constexpr int kFps = 30;
constexpr tq::Timestamp kSecond = 1000000000;

std::mutex sentMutex;
std::map<int, std::vector<tq::Timestamp>> sent;  // by virtual serial number

/// Capture times of the images that were delivered in one case, µs.
struct Delivered {
    std::vector<std::int64_t> left;
    std::vector<std::int64_t> right;
};

struct Case {
    const char* name;
    tq::rig::SimulatedSettings left;
    tq::rig::SimulatedSettings right;
};

tq::rig::SimulatedSettings camera(std::uint64_t seed, double jitter, double drift, double drop,
                                  double phase = 0)
{
    tq::rig::SimulatedSettings settings;
    settings.eye = seed % 2 == 1 ? tq::rig::Eye::LEFT : tq::rig::Eye::RIGHT;
    settings.seed = seed;
    settings.jitter = jitter;
    settings.drift = drift;
    settings.drop = drop;
    settings.phase = phase;
    return settings;
}

const std::vector<Case> kCases = {
    {"in step", camera(1, 0, 0, 0), camera(2, 0, 0, 0)},
    {"jitter of 2 ms", camera(3, 2000, 0, 0), camera(4, 2000, 0, 0)},
    {"jitter of 5 ms", camera(5, 5000, 0, 0), camera(6, 5000, 0, 0)},
    {"1 % dropped", camera(7, 0, 0, 0.01), camera(8, 0, 0, 0.01)},
    {"10 % dropped, jitter of 2 ms", camera(9, 2000, 0, 0.1), camera(10, 2000, 0, 0.1)},
    {"drift through all phases", camera(11, 0, 0, 0), camera(12, 0, 1000, 0)},
    {"drift, jitter, drops", camera(13, 1000, -200, 0.05), camera(14, 1000, 200, 0.05, 3000)},
};

/// The real-time clock, except that a camera under it is opened at an instant that is known.
class KnownOpening : public tq::Clock {
public:
    explicit KnownOpening(tq::Timestamp instant) : opening(instant) {}
    tq::Timestamp now() const override
    {
        return opened.exchange(true) ? tq::systemClock().now() : opening;
    }
    tq::Wake sleepUntil(tq::Timestamp instant, const std::atomic<bool>& stop) const override
    {
        return tq::systemClock().sleepUntil(instant, stop);
    }

private:
    const tq::Timestamp opening;
    mutable std::atomic<bool> opened{false};
};

/// A clock whose instants come when somebody sleeps.
class SleepersClock : public tq::Clock {
public:
    explicit SleepersClock(tq::Timestamp instant) : time(instant) {}
    tq::Timestamp now() const override { return time; }
    tq::Wake sleepUntil(tq::Timestamp instant, const std::atomic<bool>&) const override
    {
        time = std::max(time, instant);
        return tq::Wake::REACHED;
    }

private:
    mutable tq::Timestamp time;
};

/// Hands out the frames of a camera until an instant.
template <typename Take>
void play(const tq::rig::SimulatedSettings& settings, const tq::Clock& clock, tq::Timestamp end,
          Take take)
{
    tq::SimulatedSource source(settings, 30100000 + static_cast<int>(settings.seed), clock);
    source.open({kWidth, kHeight, kFps});
    std::vector<std::vector<unsigned char>> buffers(
        tq::kFrameBuffers, std::vector<unsigned char>(std::size_t{kWidth} * kHeight * 2));
    tq::Timestamp time = 0;
    for (int n = 0;; n = (n + 1) % tq::kFrameBuffers) {
        auto& pixels = buffers[static_cast<std::size_t>(n)];
        if (!source.next({pixels.data(), n}, time) || time >= end) {
            return;
        }
        take(pixels, time);
    }
}

std::vector<std::int64_t> timesUs(const tq::rig::SimulatedSettings& settings, tq::Timestamp opening,
                                  tq::Timestamp end)
{
    std::vector<std::int64_t> times;
    play(settings, SleepersClock(opening), end, [&](const auto&, tq::Timestamp time) {
        times.push_back(static_cast<std::int64_t>(time / 1000));
    });
    return times;
}

/// The most pairs: of images in order, the oldest of both that belong together make one.
std::size_t possiblePairs(const std::vector<std::int64_t>& left,
                          const std::vector<std::int64_t>& right)
{
    std::size_t pairs = 0;
    for (auto l = left.begin(), r = right.begin(); l != left.end() && r != right.end();) {
        if (isPair(*l, *r)) {
            ++pairs;
            ++l;
            ++r;
        } else {
            *l < *r ? ++l : ++r;
        }
    }
    return pairs;
}

VirtualCameraInfos infosOf(int serial)
{
    VirtualCameraInfos infos;
    infos.virtualSerialNumber = static_cast<std::uint64_t>(serial);
    infos.width = kWidth;
    infos.height = kHeight;
    infos.fps = kFps;
    infos.port = 34000;
    return infos;
}

/// Both cameras of a case, each on its thread, until the end.
void run(const Case& pair, int serial, tq::Timestamp opening, tq::Timestamp end,
         Delivered& delivered)
{
    VirtualCameraStreamer streamer;
    streamer.open(infosOf(serial));
    const auto eye = [&](const tq::rig::SimulatedSettings& settings, auto ingest,
                         std::vector<std::int64_t>& times) {
        play(settings, KnownOpening(opening), end,
             [&](std::vector<unsigned char>& pixels, tq::Timestamp time) {
                 tq::Mat image;
                 image.alloc(kWidth, kHeight, sdk::kYuyv, sdk::kHostMemory);
                 std::copy(pixels.begin(), pixels.end(),
                           image.getPtr<unsigned char>(sdk::kHostMemory));
                 sdk::setCaptureTime(image, time);
                 times.push_back(static_cast<std::int64_t>(time / 1000));
                 (streamer.*ingest)(0, image, {}, {});
             });
    };
    std::thread right(
        [&] { eye(pair.right, &VirtualCameraStreamer::ingestRightImage, delivered.right); });
    eye(pair.left, &VirtualCameraStreamer::ingestLeftImage, delivered.left);
    right.join();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the last pair is sent
    streamer.close();
}

}  // namespace

// The sender of this program. It is linked in place of the library's.
namespace tq {

struct UDPOutput::Private {
    int serial = 0;
};

UDPOutput::UDPOutput(STREAMING_MODE, bool) : d(std::make_unique<Private>()) {}
UDPOutput::~UDPOutput() = default;
int UDPOutput::open(UDPOutConfig config)
{
    d->serial = config.serialNumber;
    return 0;
}
void UDPOutput::ingestYUVFrame(unsigned char*, Timestamp time, kvfrw::kvfSampleMetadata)
{
    const std::lock_guard<std::mutex> lock(sentMutex);
    sent[d->serial].push_back(time);
}
void UDPOutput::ingestIMU(IMUPacket) {}
void UDPOutput::close() {}

}  // namespace tq

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: bench_pairs SECONDS\n";
        return EXIT_FAILURE;
    }
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    // A drift of 1000 ppm goes through a period of 33 ms in half a minute.
    const tq::Timestamp opening = tq::systemClock().now() + kSecond / 2;
    const tq::Timestamp end = opening + static_cast<tq::Timestamp>(std::atoi(argv[1])) * kSecond;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::vector<std::thread> threads;
    std::vector<Delivered> delivered(kCases.size());
    for (std::size_t n = 0; n < kCases.size(); ++n) {
        threads.emplace_back(run, std::cref(kCases[n]), static_cast<int>(n), opening, end,
                             std::ref(delivered[n]));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const char* separator = "{";
    for (std::size_t n = 0; n < kCases.size(); ++n) {
        const std::size_t possible = possiblePairs(timesUs(kCases[n].left, opening, end),
                                                   timesUs(kCases[n].right, opening, end));
        std::cout << separator << '"' << kCases[n].name << "\": {\"possible\": " << possible
                  << ", \"delivered\": " << possiblePairs(delivered[n].left, delivered[n].right)
                  << ", \"found\": " << sent[static_cast<int>(n)].size() << '}';
        separator = ",\n ";
    }
    std::cout << "}\n";
}
