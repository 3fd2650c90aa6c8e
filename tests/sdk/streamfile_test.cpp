// SPDX-License-Identifier: Apache-2.0
// Tests of played files that were recorded from a stream, with a file made here.
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>
#include <cstring>
#include <vector>

#include "sdk/core/glibptr.h"
#include "sdk/imu/imusource.h"
#include "sdk/sources/recordingsource.h"
#include "sdk/stream/datarecords.h"
#include "tests/sdk/sdktesting.h"

namespace {

constexpr int kWidth = 64;  // of an eye
constexpr int kHeight = 32;
constexpr int kFrames = 9;
constexpr tq::Timestamp kPeriod = 100000000;
constexpr tq::Timestamp kFirst = 1700000000000000007;
constexpr int kPacketsPerFrame = 3;

// Not quite regular, as times of capture are.
tq::Timestamp frameTime(int frame)
{
    return kFirst + kPeriod * unsigned(frame) + unsigned(frame * frame);
}

std::uint8_t grey(int frame, int eye)
{
    return static_cast<std::uint8_t>(eye == 0 ? 40 + 15 * frame : 220 - 15 * frame);
}

tq::IMUPacket packetAt(int number)
{
    tq::IMUPacket packet{};
    packet.timestamp = kFirst + kPeriod * unsigned(number) / kPacketsPerFrame + 5;
    packet.validFields = 0x3F;
    double value = 1.0 / (number + 3);
    for (double* field = &packet.acceleration[0]; field != &packet.acceleration[3]; ++field)
        *field = value *= -1.1;
    packet.orientation[2] = value;
    packet.temperature = 36.6;
    packet.pressure = 1013.25;
    packet.orientationCovariance[8] = value * value;
    return packet;
}

void push(GstElement* to, const void* bytes, std::size_t size, GstClockTime time)
{
    GstBuffer* const buffer = gst_buffer_new_memdup(bytes, size);
    GST_BUFFER_PTS(buffer) = time;
    gst_app_src_push_buffer(GST_APP_SRC(to), buffer);
}

void pushFrame(GstElement* video, GstElement* data, int frame, bool withData)
{
    const GstClockTime time = GST_SECOND + GstClockTime(frame) * kPeriod;
    tq::stream::FrameRecord record;
    record.captureTime = frameTime(frame);
    const std::vector<std::uint8_t> bytes = encodeFrameRecord(record);
    if (withData)
        push(data, bytes.data(), bytes.size(), time);
    std::vector<std::uint8_t> picture(std::size_t{kWidth} * 2 * kHeight * 3 / 2, 128);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth * 2; ++x)
            picture[std::size_t(y * kWidth * 2 + x)] = grey(frame, x < kWidth ? 0 : 1);
    push(video, picture.data(), picture.size(), time);
    for (int i = 0; withData && i < kPacketsPerFrame; ++i) {
        const auto imu = tq::stream::encodeImuRecord(1, packetAt(frame * kPacketsPerFrame + i));
        push(data, imu.data(), imu.size(), time + GstClockTime(i));
    }
}

/// Writes a file as the receiver does, some of its data missing or not.
void makeFile(const QString& path, bool withData = true)
{
    const tq::GObjectPtr<GstElement> pipeline(GST_ELEMENT(gst_object_ref_sink(gst_parse_launch(
        "appsrc name=video format=time "
        "caps=video/x-raw,format=I420,width=128,height=32,framerate=10/1 ! "
        "x264enc tune=zerolatency key-int-max=4 bitrate=4000 ! h264parse ! mpegtsmux name=muxer ! "
        "filesink name=file appsrc name=data format=time caps=meta/x-klv,parsed=(boolean)true ! "
        "muxer.",
        nullptr))));
    const auto part = [&](const char* name) {
        return tq::GObjectPtr<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline.get()), name));
    };
    const auto video = part("video");
    const auto data = part("data");
    g_object_set(part("file").get(), "location", qPrintable(path), nullptr);
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    for (int frame = 0; frame < kFrames; ++frame)
        pushFrame(video.get(), data.get(), frame, withData);
    gst_app_src_end_of_stream(GST_APP_SRC(video.get()));
    gst_app_src_end_of_stream(GST_APP_SRC(data.get()));
    const tq::GObjectPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    const tq::MessagePtr message(gst_bus_timed_pop_filtered(
        bus.get(), 60 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    QVERIFY(message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS);
}

/// Plays one eye on a test clock.
struct Player {
    Player(const tq::rig::RecordingSettings& settings, const TestClock& clock, int width = kWidth,
           int height = kHeight)
        : source(settings, clock), pixels(std::size_t(width * height * 2))
    {
        format = source.open({width, height, 30});
    }

    bool next() { return source.next({pixels.data(), 0}, time); }
    bool shows(int frame, int eye) const
    {
        return std::abs(pixels[pixels.size() / 2] - grey(frame, eye)) <= 2 && pixels[1] == 128;
    }

    tq::RecordingSource source;
    std::vector<unsigned char> pixels;
    tq::FrameFormat format;
    tq::Timestamp time = 0;
};

}  // namespace

class StreamFileTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void eyesArePlayedInStep();
    void picturesAreScaled();
    void loopBeginsAgain();
    void isPlayedOnce();
    void lateEyeLosesFramesOnly();
    void inertialDataArePlayedToTheLastBit();
    void inertialDataLoopWithThePictures();
    void refusesWhatIsNoRecording_data();
    void refusesWhatIsNoRecording();

private:
    tq::rig::RecordingSettings settings(const char* eye, bool loop = true) const
    {
        return {path.toStdString(), eye, loop};
    }

    const QTemporaryDir folder;
    const QString path = folder.filePath("session.ts");
};

void StreamFileTest::initTestCase()
{
    QVERIFY(tq::initialiseGStreamer().empty());
    makeFile(path);
    makeFile(folder.filePath("video.ts"), false);
}

void StreamFileTest::eyesArePlayedInStep()
{
    TestClock clock;
    const tq::Timestamp begin = clock.time + tq::Recording::kLead;
    Player left(settings("cam0"), clock);
    clock.time += 1234567;  // opened later, in step all the same
    Player right(settings("cam1"), clock);
    QCOMPARE(left.format.fps, 10);
    for (int frame = 0; frame < kFrames; ++frame) {
        QVERIFY(left.next() && right.next());
        QCOMPARE(left.time, begin + (frameTime(frame) - kFirst));
        QCOMPARE(right.time, left.time);
        QVERIFY2(left.shows(frame, 0) && right.shows(frame, 1), qPrintable(QString::number(frame)));
    }
}

void StreamFileTest::picturesAreScaled()
{
    const TestClock clock;
    Player right(settings("cam1"), clock, 32, 20);
    QVERIFY(right.next());
    QVERIFY(right.shows(0, 1));
}

void StreamFileTest::loopBeginsAgain()
{
    const TestClock clock;
    Player left(settings("cam0"), clock);
    Player right(settings("cam1"), clock);
    const tq::Timestamp round = frameTime(kFrames - 1) - kFirst + kPeriod;
    std::vector<tq::Timestamp> times;
    for (int i = 0; i < 3 * kFrames; ++i) {
        QVERIFY(left.next() && right.next());
        QVERIFY(left.shows(i % kFrames, 0) && right.shows(i % kFrames, 1));
        times.push_back(left.time);
        if (i >= kFrames)
            QCOMPARE(left.time, times[std::size_t(i - kFrames)] + round);
    }
}

void StreamFileTest::isPlayedOnce()
{
    TestClock clock;
    Player left(settings("cam0", false), clock);
    for (int frame = 0; frame < kFrames; ++frame)
        QVERIFY(left.next());
    // Then it waits for nothing, until it is stopped.
    const tq::Timestamp end = clock.time;
    bool silent = false;
    clock.beforeSleep = [&](tq::Timestamp instant) {
        silent = instant > end + 1000000 * kPeriod;
        return tq::Wake::STOPPED;
    };
    QVERIFY(!left.next());
    QVERIFY(silent);
}

void StreamFileTest::lateEyeLosesFramesOnly()
{
    TestClock clock;
    Player left(settings("cam0"), clock);
    Player right(settings("cam1"), clock);
    QVERIFY(right.next() && right.shows(0, 1));
    for (int i = 0; i < 2 * kFrames; ++i)
        QVERIFY(left.next());
    // The pictures have passed that are due to it. It goes on where the other one is.
    QVERIFY(right.next());
    QVERIFY(right.time + 6 * kPeriod > left.time);
    QVERIFY(right.source.skippedFrames() > 0);
}

void StreamFileTest::inertialDataArePlayedToTheLastBit()
{
    const tq::ImuSource imu = tq::recordedImu(settings("cam0", false), 1);
    const tq::Timestamp now = tq::systemClock().now();
    std::vector<tq::IMUPacket> packets;
    // In two steps; longer than it lasts.
    imu(0, now + tq::Recording::kLead + 2 * kPeriod, packets);
    imu(now + tq::Recording::kLead + 2 * kPeriod, now + 100 * kPeriod, packets);
    QCOMPARE(packets.size(), std::size_t(kFrames * kPacketsPerFrame));
    const tq::Timestamp later = packets.front().timestamp - packetAt(0).timestamp;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        packets[i].timestamp -= later;
        const tq::IMUPacket expected = packetAt(int(i));
        QVERIFY2(std::memcmp(&packets[i], &expected, sizeof expected) == 0,
                 qPrintable(QString::number(i)));
    }
}

void StreamFileTest::inertialDataLoopWithThePictures()
{
    const tq::ImuSource imu = tq::recordedImu(settings("cam0"), 1);
    std::vector<tq::IMUPacket> packets;
    const tq::Timestamp now = tq::systemClock().now();
    imu(0, now + tq::Recording::kLead + 25 * kPeriod, packets);
    QVERIFY(packets.size() >= std::size_t(2 * kFrames * kPacketsPerFrame));
    const tq::Timestamp round = frameTime(kFrames - 1) - kFirst + kPeriod;
    for (std::size_t i = kFrames * kPacketsPerFrame; i < packets.size(); ++i)
        QCOMPARE(packets[i].timestamp, packets[i - kFrames * kPacketsPerFrame].timestamp + round);
}

void StreamFileTest::refusesWhatIsNoRecording_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("camera");
    QTest::addColumn<QString>("reason");
    QTest::newRow("text") << "text.ts"
                          << "cam0"
                          << "is no recording of a stream with its data";
    QTest::newRow("empty") << "empty.ts"
                           << "cam0"
                           << "is no recording of a stream with its data";
    QTest::newRow("video only") << "video.ts"
                                << "cam0"
                                << "is no recording of a stream with its data";
    QTest::newRow("third camera") << "session.ts"
                                  << "cam2"
                                  << "has no cam2, only cam0 (left) and cam1 (right)";
    QTest::newRow("absent") << "absent.ts"
                            << "cam0"
                            << "is not a folder, nor a file";
    QFile(folder.filePath("empty.ts")).open(QIODevice::WriteOnly);
    QFile text(folder.filePath("text.ts"));
    text.open(QIODevice::WriteOnly);
    text.write(QByteArray(100000, 'x'));
}

void StreamFileTest::refusesWhatIsNoRecording()
{
    QFETCH(QString, name);
    QFETCH(QString, camera);
    QFETCH(QString, reason);
    const std::string file = folder.filePath(name).toStdString();
    try {
        const tq::Recording recording({file, camera.toStdString(), true}, 0);
        QFAIL("it is accepted");
    } catch (const std::runtime_error& error) {
        QCOMPARE(QString(error.what()), QString::fromStdString(file) + ": " + reason);
    }
}

QTEST_GUILESS_MAIN(StreamFileTest)
#include "streamfile_test.moc"
