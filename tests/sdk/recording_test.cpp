// SPDX-License-Identifier: Apache-2.0
// Tests of played recordings: synthetic ones, malformed ones, and a real one where it is at hand.
#include <sys/stat.h>

#include <QtTest>
#include <map>
#include <memory>
#include <thread>

#include "sdk/imu/imusource.h"
#include "sdk/sources/recordingsource.h"
#include "tests/sdk/sdktesting.h"
#include "tests/support/syntheticrecording.h"

namespace {

tq::rig::RecordingSettings settingsOf(const SyntheticRecording& recording,
                                      const std::string& camera = "cam0")
{
    return {recording.root().toStdString(), camera};
}

/// Puts something else where a recording has a file: a thing of that name, or a text.
void putInTheWay(const QString& path, const QString& content)
{
    QFile file(path);
    if (content == "half") {
        file.resize(file.size() / 2);
    } else if (content == "large") {
        file.resize((64 << 20) + 1);
    } else if (content == "huge") {
        writePng(path, 8193, 1, std::vector<unsigned char>(8193), PNG_FORMAT_GRAY);
    } else if (content == "pipe" || content == "device" || content == "folder") {
        file.remove();
        if (content == "pipe") {
            ::mkfifo(qPrintable(path), 0600);
        } else if (content == "device") {
            QFile::link("/dev/zero", path);
        } else {
            QDir().mkdir(path);
        }
    } else {
        writeText(path, content.toUtf8());
    }
}

/// Plays one camera on a test clock.
struct Player {
    Player(const tq::rig::RecordingSettings& settings, int width, int height)
        : source(settings, clock), pixels(static_cast<std::size_t>(width * height * 2))
    {
        try {
            fps = source.open({width, height, 30}).fps;
        } catch (const tq::InvalidVideo& error) {
            code = tq::ErrorCode::SOURCE_INVALID;
            reason = error.what();
        } catch (const std::runtime_error& error) {
            code = tq::ErrorCode::SOURCE_UNAVAILABLE;
            reason = error.what();
        }
    }

    bool next() { return source.next({pixels.data(), 0}, time); }

    TestClock clock;
    tq::RecordingSource source;
    std::vector<unsigned char> pixels;
    tq::Timestamp time = 0;
    int fps = 0;
    tq::ErrorCode code = tq::ErrorCode::SUCCESS;
    std::string reason;
};

}  // namespace

class RecordingTest : public QObject {
    Q_OBJECT

private slots:
    void framesArePlayedInALoop();
    void isPlayedOnce();
    void bothFoldersAreAccepted();
    void camerasShareTheClock();
    void camerasThatBeginApartShareTheLoop();
    void greyIsKeptAndScaled();
    void coloursAreConverted();
    void oddPicturesAreScaled();
    void longDelaysSkip();
    void imuIsPlayedWithThePictures();
    void longRecordingsAreDecodedAsTheyArePlayed();
    void shortRecordingsAreReadOnce();
    void malformedRecordings_data();
    void malformedRecordings();
    void malformedImuIsReported();
    void recordingIsPlayedWhole_data() { addRecordings(own); }
    void recordingIsPlayedWhole();
    void recordingInRealTime_data() { addRecordings(own); }
    void recordingInRealTime();

private:
    const SyntheticRecording own{40, 752, 480, true};
};

void RecordingTest::framesArePlayedInALoop()
{
    const SyntheticRecording recording(5);
    Player player(settingsOf(recording), 16, 8);
    QVERIFY2(player.code == tq::ErrorCode::SUCCESS, player.reason.c_str());
    QCOMPARE(player.fps, 20);
    tq::Timestamp last = 0;
    int expected = -1;
    for (int i = 0; i < 23; ++i) {
        QVERIFY(player.next());
        const int number = (player.pixels[0] - 5) / 3;
        if (expected >= 0) {
            QCOMPARE(number, expected);
            QCOMPARE(player.time - last, tq::Timestamp(kPeriod));
        }
        // The place in the loop follows from the real-time clock alone.
        QCOMPARE(player.time % (5 * kPeriod), tq::Timestamp(number) * kPeriod);
        expected = (number + 1) % 5;
        last = player.time;
    }
    QCOMPARE(player.source.skippedFrames(), std::uint64_t(0));
}

void RecordingTest::isPlayedOnce()
{
    const SyntheticRecording recording(5);
    tq::rig::RecordingSettings settings = settingsOf(recording);
    settings.loop = false;
    Player player(settings, 16, 8);
    for (int number = 0; number < 5; ++number) {
        QVERIFY(player.next());
        QCOMPARE(int(player.pixels[0]), 5 + 3 * number);
    }
    player.clock.beforeSleep = [](tq::Timestamp) { return tq::Wake::STOPPED; };
    QVERIFY(!player.next());
}

void RecordingTest::bothFoldersAreAccepted()
{
    const SyntheticRecording recording;
    tq::rig::RecordingSettings inner{recording.file("").toStdString(), "cam1"};
    QVERIFY(Player(inner, 16, 8).next());
    QVERIFY(Player(settingsOf(recording, "cam1"), 16, 8).next());
}

void RecordingTest::camerasShareTheClock()
{
    const SyntheticRecording recording;
    Player left(settingsOf(recording, "cam0"), 16, 8);
    Player right(settingsOf(recording, "cam1"), 16, 8);
    for (int i = 0; i < 12; ++i) {
        QVERIFY(left.next() && right.next());
        QCOMPARE(left.time, right.time);
        QVERIFY(left.pixels == right.pixels);
    }
}

void RecordingTest::camerasThatBeginApartShareTheLoop()
{
    const SyntheticRecording recording(5);
    // The right camera misses its first and its last frame.
    QByteArray list;
    for (int i = 1; i < 4; ++i) {
        list += QByteArray::number(qulonglong(kFirst + kPeriod * unsigned(i))) + "," +
                QByteArray::number(i) + ".png\n";
    }
    writeText(recording.file("cam1/data.csv"), list);
    std::map<tq::Timestamp, int> lefts;
    Player left(settingsOf(recording, "cam0"), 16, 8);
    Player right(settingsOf(recording, "cam1"), 16, 8);
    for (int i = 0; i < 20; ++i) {
        QVERIFY(left.next());
        lefts[left.time] = left.pixels[0];
    }
    for (int i = 0; i < 10; ++i) {
        QVERIFY(right.next());
        QCOMPARE(lefts.at(right.time), int(right.pixels[0]));
    }
}

void RecordingTest::greyIsKeptAndScaled()
{
    const SyntheticRecording recording(2, 16, 8);
    for (const auto& [width, height] : {std::pair{16, 8}, {64, 30}, {12, 6}, {8, 4}}) {
        Player player(settingsOf(recording), width, height);
        QVERIFY(player.next());
        const unsigned char grey = player.pixels[0];
        QVERIFY(grey == 5 || grey == 8);
        for (std::size_t i = 0; i < player.pixels.size(); i += 2) {
            QCOMPARE(player.pixels[i], grey);
            QCOMPARE(player.pixels[i + 1], static_cast<unsigned char>(128));
        }
    }
}

void RecordingTest::coloursAreConverted()
{
    const SyntheticRecording recording(2, 16, 8);
    std::vector<unsigned char> red;
    for (int i = 0; i < 16 * 8; ++i) {
        red.insert(red.end(), {200, 30, 60});
    }
    for (int i = 0; i < 2; ++i) {
        QVERIFY(writePng(recording.file(QString("cam0/data/%1.png").arg(i)), 16, 8, red,
                         PNG_FORMAT_RGB));
    }
    for (const int width : {16, 32}) {
        Player player(settingsOf(recording), width, width / 2);
        QVERIFY(player.next());
        // Full range: Y = 0.299 R + 0.587 G + 0.114 B, U and V accordingly.
        QVERIFY(std::abs(player.pixels[0] - 84) <= 2);
        QVERIFY(std::abs(player.pixels[1] - 114) <= 2);
        QVERIFY(std::abs(player.pixels[3] - 210) <= 3);
    }
}

void RecordingTest::oddPicturesAreScaled()
{
    const SyntheticRecording recording(2, 15, 7);
    for (const auto& [width, height] : {std::pair{16, 8}, {14, 7}, {2, 1}}) {
        Player player(settingsOf(recording), width, height);
        QVERIFY(player.next());
        QCOMPARE(int(player.pixels.back()), 128);
    }
}

void RecordingTest::longDelaysSkip()
{
    const SyntheticRecording recording(5);
    Player player(settingsOf(recording), 16, 8);
    QVERIFY(player.next());
    const tq::Timestamp before = player.time;
    player.clock.time = before + 13 * kPeriod + 1000;
    QVERIFY(player.next());
    QCOMPARE(player.time, before + 13 * kPeriod);
    QCOMPARE(player.source.skippedFrames(), std::uint64_t(12));
}

void RecordingTest::imuIsPlayedWithThePictures()
{
    const SyntheticRecording recording(5);
    const tq::ImuSource imu = tq::recordedImu(settingsOf(recording), 1);
    const tq::Timestamp duration = 5 * kPeriod;
    const tq::Timestamp start = 1700000000000000000 / duration * duration;
    std::vector<tq::IMUPacket> packets;
    imu(start - 1, start + 3 * duration - 1, packets);
    // The packet at the end of the loop would collide with the first of the next round.
    QCOMPARE(packets.size(), std::size_t(150));
    for (std::size_t i = 0; i < packets.size(); ++i) {
        QCOMPARE(packets[i].timestamp, start + i * (kPeriod / 10));
        QCOMPARE(packets[i].acceleration[2], double(i % 50));
        QCOMPARE(packets[i].angularRate[1], 0.2);
        QCOMPARE(packets[i].validFields,
                 std::uint32_t(tq::IMU_ACCELERATION | tq::IMU_ANGULAR_RATE));
    }
    packets.clear();
    tq::recordedImu(settingsOf(recording), 4)(start - 1, start + duration - 1, packets);
    QCOMPARE(packets.size(), std::size_t(13));
}

void RecordingTest::longRecordingsAreDecodedAsTheyArePlayed()
{
    // 70 frames of two megabytes are more than is kept.
    const SyntheticRecording recording(70, 1024, 1024);
    Player player(settingsOf(recording), 1024, 1024);
    QVERIFY2(player.code == tq::ErrorCode::SUCCESS, player.reason.c_str());
    QVERIFY(player.next());
    int number = (player.pixels[0] - 5) / 3;
    for (int i = 0; i < 5; ++i) {
        const tq::Timestamp before = player.time;
        QVERIFY(player.next());
        QCOMPARE(player.time - before, tq::Timestamp(kPeriod));
        number = (number + 1) % 70;
        QCOMPARE(int(player.pixels[0]), 3 * number + 5);
    }
    for (int i = 0; i < 70; ++i) {
        writeText(recording.file(QString("cam0/data/%1.png").arg(i)), "no picture");
    }
    tq::Timestamp time = 0;
    std::string reason;
    try {
        player.source.next({player.pixels.data(), 0}, time);
    } catch (const tq::InvalidVideo& error) {
        reason = error.what();
    }
    QVERIFY2(reason.find(".png: ") != std::string::npos, reason.c_str());
}

void RecordingTest::shortRecordingsAreReadOnce()
{
    for (const int frames : {100, 101}) {
        const SyntheticRecording recording(frames, 16, 8);
        Player player(settingsOf(recording), 16, 8);
        QVERIFY2(player.code == tq::ErrorCode::SUCCESS, player.reason.c_str());
        QVERIFY(QDir(recording.file("cam0/data")).removeRecursively());
        tq::Timestamp time = 0;
        bool isPlayed = true;
        try {
            isPlayed = player.source.next({player.pixels.data(), 0}, time);
        } catch (const tq::InvalidVideo&) {
            isPlayed = false;
        }
        QCOMPARE(isPlayed, frames == 100);
    }
}

void RecordingTest::malformedRecordings_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("content");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    const int unavailable = int(tq::ErrorCode::SOURCE_UNAVAILABLE);
    const int invalid = int(tq::ErrorCode::SOURCE_INVALID);
    QTest::newRow("no folder") << ""
                               << "" << unavailable << ": is not a folder";
    QTest::newRow("no list") << "cam0/data.csv"
                             << "-" << unavailable
                             << "data.csv: cannot be read: No such file or directory";
    QTest::newRow("empty list") << "cam0/data.csv"
                                << "" << unavailable << "data.csv: is empty";
    QTest::newRow("comments only") << "cam0/data.csv"
                                   << "#timestamp,file\n\n"
                                   << unavailable << "data.csv: is empty";
    QTest::newRow("one frame") << "cam0/data.csv"
                               << "1,0.png\n"
                               << unavailable << "data.csv: has fewer than two frames";
    QTest::newRow("one field") << "cam0/data.csv"
                               << "# a\n17\n"
                               << unavailable << "data.csv: line 2: too few fields";
    QTest::newRow("no number") << "cam0/data.csv"
                               << "abc,0.png\n"
                               << unavailable << "data.csv: timestamp \"abc\" is not a later time";
    QTest::newRow("number too large") << "cam0/data.csv"
                                      << "99999999999999999999,0.png\n"
                                      << unavailable << "is not a later time";
    QTest::newRow("negative") << "cam0/data.csv"
                              << "-5,0.png\n"
                              << unavailable << "is not a later time";
    QTest::newRow("order") << "cam0/data.csv"
                           << "20,0.png\n10,1.png\n"
                           << unavailable << "data.csv: timestamp \"10\" is not a later time";
    QTest::newRow("too fast") << "cam0/data.csv"
                              << "10,0.png\n20,1.png\n"
                              << unavailable << "data.csv: the frame rate is not from 1 to 240";
    QTest::newRow("long line") << "cam0/data.csv"
                               << "1," + QString(1000, 'x') << unavailable
                               << "data.csv: line 1: is longer than 1000 bytes";
    QString many;
    for (int i = 1; i <= 500001; ++i) {
        many += QString::number(i * 10000000LL) + ",0.png\n";
    }
    QTest::newRow("many lines") << "cam0/data.csv" << many << unavailable
                                << "data.csv: has more than 500000 entries";
    QTest::newRow("large list") << "cam0/data.csv"
                                << "large" << unavailable << "data.csv: larger than 64 MiB";
    QTest::newRow("list is a pipe") << "cam0/data.csv"
                                    << "pipe" << unavailable << "data.csv: is not a regular file";
    QTest::newRow("list is a device")
        << "cam0/data.csv"
        << "device" << unavailable << "data.csv: is not a regular file";
    QTest::newRow("list is a folder") << "cam0/data.csv"
                                      << "folder" << unavailable << "data.csv: is a folder";
    // Together they would last a multiple of 2^64 ns.
    QTest::newRow("times of another camera") << "cam1/data.csv"
                                             << "0,0.png\n18446744073659551616,1.png\n"
                                             << unavailable << "mav0: lasts longer than a day";
    QTest::newRow("picture is a pipe") << "cam0/data/3.png"
                                       << "pipe" << invalid << "3.png: is not a regular file";
    QTest::newRow("picture is a device") << "cam0/data/3.png"
                                         << "device" << invalid << "3.png: is not a regular file";
    QTest::newRow("huge picture") << "cam0/data/3.png"
                                  << "huge" << invalid << "3.png: is larger than 8192 pixels";
    QTest::newRow("no picture") << "cam0/data/3.png"
                                << "-" << invalid << "3.png: ";
    QTest::newRow("bad picture") << "cam0/data/3.png"
                                 << "no picture" << invalid << "3.png: ";
    QTest::newRow("short picture") << "cam0/data/0.png"
                                   << "half" << invalid << "0.png: ";
}

void RecordingTest::malformedRecordings()
{
    QFETCH(QString, file);
    QFETCH(QString, content);
    QFETCH(int, code);
    QFETCH(QString, reason);
    const SyntheticRecording recording;
    const QString path = recording.file(file);
    if (file.isEmpty()) {
        QVERIFY(QDir(recording.root()).removeRecursively());
    } else if (content == "-") {
        QVERIFY(QFile::remove(path));
    } else {
        putInTheWay(path, content);
    }
    const Player player(settingsOf(recording), 16, 8);
    QCOMPARE(static_cast<int>(player.code), code);
    QVERIFY2(QString::fromStdString(player.reason).contains(reason), player.reason.c_str());
    QVERIFY(player.reason.find('\n') == std::string::npos);
}

void RecordingTest::malformedImuIsReported()
{
    const SyntheticRecording recording;
    std::string reason;
    for (const char* text : {"", "1,2,3\n", "1400000000000000000,0,0,0,0,0,x\n",
                             "5,0,0,0,0,0,nan\n", "5,0,0,0,0,0,0\n"}) {
        writeText(recording.file("imu0/data.csv"), text);
        reason.clear();
        try {
            tq::recordedImu(settingsOf(recording), 1);
        } catch (const std::runtime_error& error) {
            reason = error.what();
        }
        QVERIFY2(reason.find("imu0/data.csv: ") != std::string::npos, reason.c_str());
    }
    TemporaryRig rig;
    rig.add({{"type", "recording"}, {"path", recording.root()}}, {{"type", "recorded"}});
    tq::LiveCameraGrabber grabber(tq::INPUT_TYPE::GMSL_RAW);
    const ErrorLog log;
    QCOMPARE(openCamera(grabber, 0), int(tq::ErrorCode::SOURCE_UNAVAILABLE));
    QCOMPARE(log.lines().size(), 1);
}

void RecordingTest::recordingIsPlayedWhole()
{
    QFETCH(QString, folder);
    const std::string path = folder.toStdString();
    Player left({path, "cam0"}, 752, 480);
    Player right({path, "cam1"}, 752, 480);
    QVERIFY2(left.code == tq::ErrorCode::SUCCESS, left.reason.c_str());
    QVERIFY2(right.code == tq::ErrorCode::SUCCESS, right.reason.c_str());
    QCOMPARE(left.fps, 20);
    const tq::Recording recording({path, "cam0"}, 0);
    QCOMPARE(recording.frames().size(), std::size_t(40));
    QSet<std::size_t> seen;
    std::size_t last = 0;
    for (int i = 0; i < 81; ++i) {
        QVERIFY(left.next() && right.next());
        QCOMPARE(left.time, right.time);
        const tq::Timestamp recorded =
            recording.frames().front().time + left.time % recording.round();
        const auto found = std::find_if(
            recording.frames().begin(), recording.frames().end(),
            [recorded](const tq::RecordedFrame& frame) { return frame.time == recorded; });
        QVERIFY(found != recording.frames().end());
        const auto number = static_cast<std::size_t>(found - recording.frames().begin());
        if (i > 0) {
            QCOMPARE(number, (last + 1) % 40);
        }
        last = number;
        seen << number;
        const tq::Picture picture = tq::readPng(found->file);
        bool equal = true;
        for (std::size_t k = 0; k < picture.luma.size(); ++k) {
            equal = equal && picture.luma[k] == left.pixels[2 * k];
        }
        QVERIFY2(equal, "the pixels are those of the file");
    }
    QCOMPARE(seen.size(), 40);
}

void RecordingTest::recordingInRealTime()
{
    QFETCH(QString, folder);
    TemporaryRig rig;
    for (const char* camera : {"cam0", "cam1"}) {
        rig.add({{"type", "recording"}, {"path", folder}, {"camera", camera}},
                {{"type", "recorded"}});
    }
    tq::LiveCameraGrabber left(tq::INPUT_TYPE::GMSL_RAW);
    tq::LiveCameraGrabber right(tq::INPUT_TYPE::GMSL_RAW);
    QCOMPARE(openCamera(left, 0, 752, 480), 0);
    QCOMPARE(openCamera(right, 1, 752, 480), 0);
    QCOMPARE(left.getFPS(), 20);
    std::vector<tq::Timestamp> lefts;
    std::vector<tq::Timestamp> rights;
    std::vector<tq::Timestamp> packets;
    tq::Timestamp batchEnd = 0;
    // A machine that halts for some periods costs frames. What counts is a stretch without that.
    tq::Timestamp lastLook = tq::systemClock().now();
    tq::Timestamp countedFrom = 0;
    const auto isNew = [&](tq::LiveCameraGrabber& camera) {
        const tq::Timestamp now = tq::systemClock().now();
        const bool frame = camera.getFrameStatus() == 1;
        if (now - lastLook > kPeriod || (frame && now > camera.getTimeStamp() + 2 * kPeriod)) {
            countedFrom = now + 5 * kPeriod;
            lefts.clear();
            rights.clear();
            packets.clear();
        }
        lastLook = now;
        return frame;
    };
    QElapsedTimer timer;
    timer.start();
    while ((lefts.size() < 45 || rights.size() < 45) && !timer.hasExpired(60000)) {
        if (isNew(left)) {
            const tq::Timestamp time = left.getTimeStamp();
            QVERIFY(left.getIMUPacket().timestamp <= time);
            const auto batch = left.getMCU()->getIMUPacketBatch(batchEnd, time);
            batchEnd = time;
            if (time > countedFrom) {
                lefts.push_back(time);
                for (const auto& packet : batch) {
                    packets.push_back(packet.timestamp);
                }
            }
        }
        if (isNew(right) && right.getTimeStamp() > countedFrom) {
            rights.push_back(right.getTimeStamp());
        }
        QThread::usleep(200);
    }
    QVERIFY(lefts.size() >= 45 && rights.size() >= 45);
    // The cameras were opened one after the other: compared from the first common frame on.
    const tq::Timestamp common = std::max(lefts.front(), rights.front());
    const auto from = [common](const std::vector<tq::Timestamp>& times) {
        return std::vector<tq::Timestamp>(std::find(times.begin(), times.end(), common),
                                          times.end());
    };
    const auto leftPairs = from(lefts);
    const auto rightPairs = from(rights);
    QVERIFY(leftPairs.size() >= 40 && rightPairs.size() >= 40);
    for (std::size_t i = 0; i < 40; ++i) {
        QCOMPARE(leftPairs[i], rightPairs[i]);
        if (i > 0) {
            const auto interval = leftPairs[i] - leftPairs[i - 1];
            QVERIFY2(interval > 49000000 && interval < 51000000, "no frame is left out");
        }
    }
    for (std::size_t i = 1; i < packets.size(); ++i) {
        const auto interval = packets[i] - packets[i - 1];
        QVERIFY2(interval > 4500000 && interval < 5500000, "every packet comes once");
    }
    QVERIFY(packets.back() <= lefts.back() && packets.back() + 5500000 > lefts.back());
}

QTEST_GUILESS_MAIN(RecordingTest)
#include "recording_test.moc"
