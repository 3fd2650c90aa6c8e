// SPDX-License-Identifier: Apache-2.0
// Looks for frames that are mixed of two, while the thread that receives them is late at random.
//
// Two cameras fill every frame with one value per counter. Every image that reaches the main
// thread, and every joined frame that reaches the sender, must hold the value of its capture time,
// and that alone. Ends with status 0 when all did, else with 1; --expect-mixed turns the two
// around, for the program that is linked without the guard.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <QThread>
#include <atomic>
#include <random>

#include "capture/Camera.h"
#include "capture/Streamer.h"
#include "tests/capture/freerun.h"
#include "tests/capture/images.h"
#include "tests/sdk_fake/sdk_fake.h"

namespace {

constexpr int kLeftSerial = 30123456;
constexpr int kRightSerial = 30123457;
constexpr int kWidth = 320;
constexpr int kHeight = 200;
constexpr int kFps = 150;  // frames closer than 5 ms would pair with those before and after
constexpr int kLongestPeriodMs = 500;  // in which the main thread is not late

struct Settings {
    int frames = 0;
    unsigned seed = 0;
    int longestStallMs = 0;
    bool expectMixed = false;
};

struct Counts {
    std::atomic<int> images{0};
    std::atomic<int> joined{0};
    std::atomic<int> mixed{0};
    int stalls = 0;
};

void addCamera(int id, int serial)
{
    sdkfake::CameraSetup setup;
    setup.id = id;
    setup.serial = serial;
    sdkfake::addCamera(setup);
}

Settings readSettings(const QCoreApplication& program)
{
    const QCommandLineOption frames("frames", "Images to look at.", "N", "100000");
    const QCommandLineOption seed("seed", "Of the pauses; random unless given.", "N");
    const QCommandLineOption stall("longest-stall", "Longest pause of the main thread.", "MS",
                                   "500");
    const QCommandLineOption mixed("expect-mixed", "Fail unless frames are mixed.");
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOptions({frames, seed, stall, mixed});
    parser.process(program);
    Settings settings;
    settings.frames = parser.value(frames).toInt();
    settings.seed = parser.isSet(seed) ? parser.value(seed).toUInt() : std::random_device()();
    settings.longestStallMs = parser.value(stall).toInt();
    settings.expectMixed = parser.isSet(mixed);
    return settings;
}

/// Lets the main thread work and stand still in turns until all images have come.
void stallAtRandom(const Settings& settings, Counts& counts)
{
    std::mt19937 random(settings.seed);
    std::uniform_int_distribution<int> period(1, kLongestPeriodMs);
    std::uniform_int_distribution<int> pause(0, settings.longestStallMs);
    while (counts.images < settings.frames && !(settings.expectMixed && counts.mixed > 0)) {
        QElapsedTimer timer;
        timer.start();
        for (const int end = period(random); !timer.hasExpired(end);) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        }
        QThread::msleep(static_cast<unsigned long>(pause(random)));
        ++counts.stalls;
        sdkfake::clearCalls();
    }
}

void run(const Settings& settings, Counts& counts)
{
    sdkfake::FreeRun freeRun;
    freeRun.fps = kFps;
    const VirtualCameraInfos infos = images::infos(kWidth, kHeight);
    sdkfake::keepPixels(false);
    sdkfake::onFrame(
        [&](const sdkfake::Sender&, const unsigned char* pixels, tq::Timestamp timestamp) {
            ++counts.joined;
            counts.mixed += freerun::isIntact(pixels, kWidth, kHeight, timestamp, freeRun) ? 0 : 1;
        });
    QObject receiver;
    VirtualCameraStreamer streamer;
    KTCamera left;
    KTCamera right;
    for (KTCamera* camera : {&left, &right}) {
        QObject::connect(
            camera, &KTCamera::sendYUYVImage, &receiver,
            [&](int, tq::Mat image, const tq::IMUPacket&, const std::vector<tq::IMUPacket>&) {
                ++counts.images;
                counts.mixed += freerun::isIntact(image, freeRun) ? 0 : 1;
            });
    }
    QObject::connect(&left, &KTCamera::sendYUYVImage, &streamer,
                     &VirtualCameraStreamer::ingestLeftImage);
    QObject::connect(&right, &KTCamera::sendYUYVImage, &streamer,
                     &VirtualCameraStreamer::ingestRightImage);
    const tq::Resolution resolution(kWidth, kHeight);
    if (left.open(0, resolution, kFps, false) != 0 || right.open(1, resolution, kFps, false) != 0 ||
        streamer.open(infos) != 0) {
        qFatal("cameras and streamer cannot be opened");
    }
    sdkfake::startFreeRun(kLeftSerial, freeRun);
    sdkfake::startFreeRun(kRightSerial, freeRun);
    stallAtRandom(settings, counts);
}

}  // namespace

int main(int argc, char** argv)
{
    const QCoreApplication program(argc, argv);
    const Settings settings = readSettings(program);
    Counts counts;
    sdkfake::reset();
    addCamera(0, kLeftSerial);
    addCamera(1, kRightSerial);
    QElapsedTimer timer;
    timer.start();
    run(settings, counts);
    QTextStream(stdout) << "seed " << settings.seed << ": " << counts.images << " images and "
                        << counts.joined << " joined frames in " << timer.elapsed() / 1000 << " s, "
                        << counts.stalls << " stalls of up to " << settings.longestStallMs
                        << " ms, " << counts.mixed << " mixed\n";
    return (counts.mixed > 0) == settings.expectMixed ? 0 : 1;
}
