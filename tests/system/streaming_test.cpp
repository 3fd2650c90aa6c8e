// SPDX-License-Identifier: Apache-2.0
// The whole headless program on the open SDK, seen from the network.
#include <QDir>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>
#include <algorithm>
#include <map>
#include <set>

#include "tests/sdk/patterndecoder.h"
#include "tests/support/syntheticrecording.h"
#include "tests/system/headlessservice.h"
#include "tests/system/streamclient.h"

namespace {

constexpr int kStreamLimitMs = 60000;
constexpr int kAttempts = 10;

/// Whether one of the SDK's own lines contains a text.
bool sdkReports(const QByteArray& log, const QByteArray& text)
{
    const QList<QByteArray> lines = log.split('\n');
    return std::any_of(lines.begin(), lines.end(), [&text](const QByteArray& line) {
        return line.startsWith("[tq_kor] ") && line.contains(text);
    });
}

QJsonObject probe(const QString& url)
{
    QProcess ffprobe;
    ffprobe.start("ffprobe", {"-v", "error", "-rtsp_transport", "tcp", "-show_streams",
                              "-show_format", "-of", "json", url});
    ffprobe.waitForFinished(kStartLimitMs);
    return QJsonDocument::fromJson(ffprobe.readAllStandardOutput()).object();
}

std::set<std::uint64_t> captureTimes(const std::vector<FrameRecord>& records)
{
    std::set<std::uint64_t> times;
    for (const FrameRecord& record : records) {
        times.insert(record.captureTime);
    }
    return times;
}

/// Timestamps of an ASL index file, in file order.
std::vector<std::uint64_t> recordedTimes(const QString& csv)
{
    std::vector<std::uint64_t> times;
    QFile file(csv);
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (!line.isEmpty() && !line.startsWith('#')) {
                times.push_back(line.split(',').first().toULongLong());
            }
        }
    }
    return times;
}

constexpr std::uint64_t kFramePeriod = 50000000;  // of the recording, ns
constexpr std::uint64_t kImuPeriod = 5000000;

/// Whether times follow one another as the recorded ones do, played in a loop from any place on.
/// The loop closes with about one period.
bool repeats(const std::vector<std::uint64_t>& times, const std::vector<std::uint64_t>& recorded,
             std::uint64_t period)
{
    const auto follows = [&](std::size_t i, std::uint64_t step) {
        return i + 1 < recorded.size() ? step == recorded[i + 1] - recorded[i]
                                       : step > period / 2 && step < period + period / 2;
    };
    for (std::size_t start = 0; start < recorded.size(); ++start) {
        std::size_t n = 1;
        while (n < times.size() &&
               follows((start + n - 1) % recorded.size(), times[n] - times[n - 1])) {
            ++n;
        }
        if (n >= times.size()) {
            return times.size() > 1;
        }
    }
    return false;
}

/// Times of the IMU packets that a round of the recording has: from its first frame to one frame
/// period behind its last.
std::vector<std::uint64_t> playedImuTimes(const QString& folder,
                                          const std::vector<std::uint64_t>& frames)
{
    std::vector<std::uint64_t> played;
    for (const std::uint64_t time : recordedTimes(folder + "/imu0/data.csv")) {
        if (time >= frames.front() && time + kImuPeriod / 2 < frames.back() + kFramePeriod) {
            played.push_back(time);
        }
    }
    return played;
}

/// Pictures of one eye of the recording, in the order of their names' numbers, scaled to a size.
std::vector<QImage> recordedPictures(const QString& eye, int width, int height)
{
    std::vector<QImage> pictures;
    const QDir folder(eye + "/data");
    std::map<qulonglong, QString> names;
    for (const QFileInfo& file : folder.entryInfoList({"*.png"}, QDir::Files)) {
        names[file.baseName().toULongLong()] = file.filePath();
    }
    for (const auto& [number, name] : names) {
        pictures.push_back(
            QImage(name)
                .scaled(width, height, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                .convertToFormat(QImage::Format_Grayscale8));
    }
    return pictures;
}

/// Mean absolute difference between one half of a picture and a recorded one, sampled.
double difference(const Picture& picture, int left, const QImage& recorded)
{
    long sum = 0;
    long count = 0;
    for (int y = 0; y < recorded.height(); y += 3) {
        const uchar* const row = recorded.constScanLine(y);
        for (int x = 0; x < recorded.width(); x += 3, ++count) {
            sum += std::abs(*picture.at(left + x, y) - row[x]);
        }
    }
    return static_cast<double>(sum) / static_cast<double>(count);
}

std::size_t bestMatch(const Picture& picture, int left, const std::vector<QImage>& recorded)
{
    std::size_t best = 0;
    double least = 1e9;
    for (std::size_t i = 0; i < recorded.size(); ++i) {
        const double value = difference(picture, left, recorded[i]);
        if (value < least) {
            least = value;
            best = i;
        }
    }
    return best;
}

/// Whether no frame of the recording, taken every 50 ms, is missing.
bool isUnbroken(const std::vector<FrameRecord>& frames)
{
    const auto gap = std::adjacent_find(
        frames.begin(), frames.end(), [](const FrameRecord& earlier, const FrameRecord& later) {
            return later.captureTime - earlier.captureTime > 75000000;
        });
    return gap == frames.end();
}

}  // namespace

class StreamingTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void servesWhatPlayersExpect();
    void everyFrameIsOnePairInTime_data();
    void everyFrameIsOnePairInTime();
    void imuPacketsArriveOnceEach();
    void withoutImuNoneIsSent();
    void twoVirtualCamerasShareACamera();
    void everyPairOfARecordingArrives_data() { addRecordings(own); }
    void everyPairOfARecordingArrives();
    void endsOnWhatCannotBeOpened_data();
    void endsOnWhatCannotBeOpened();
    void busyCameraEndsTheProcess();

private:
    const SyntheticRecording own{40, 752, 480, true};
};

void StreamingTest::initTestCase()
{
    sandbox::skipProgramUnlessAvailable();
}

void StreamingTest::servesWhatPlayersExpect()
{
    Service service(simulatedRig());
    VirtualCamera virtualCamera;
    QVERIFY2(service.startWith(virtualCamera), service.process.readAllStandardError());

    const QJsonObject found = probe(virtualCamera.url());
    const QJsonObject video = found["streams"].toArray().first().toObject();
    QCOMPARE(video["codec_type"].toString(), QString("video"));
    QVERIFY(QStringList({"h264", "hevc"}).contains(video["codec_name"].toString()));
    QCOMPARE(video["width"].toInt(), 2 * virtualCamera.width);
    QCOMPARE(video["height"].toInt(), virtualCamera.height);
    // 8-bit 4:2:0 over the full range, as the cameras deliver it.
    QCOMPARE(video["pix_fmt"].toString(), QString("yuvj420p"));
    const QString title = found["format"].toObject()["tags"].toObject()["title"].toString();
    QVERIFY2(title.contains(QString::number(virtualCamera.serial)), qPrintable(title));

    // Two seconds hold a key frame at the start and frames at the configured rate.
    QProcess ffprobe;
    ffprobe.start("ffprobe", {"-v", "error", "-rtsp_transport", "tcp", "-select_streams", "v",
                              "-read_intervals", "%+2", "-show_entries", "packet=pts_time,flags",
                              "-of", "csv=p=0", virtualCamera.url()});
    QVERIFY(ffprobe.waitForFinished(kStreamLimitMs));
    QList<QByteArray> packets = ffprobe.readAllStandardOutput().trimmed().split('\n');
    QVERIFY2(packets.size() > 40, packets.join(' '));
    QVERIFY2(std::any_of(packets.begin(), packets.begin() + 5,
                         [](const QByteArray& packet) { return packet.contains(",K"); }),
             packets.first());
    // The player shifts its clock once when the first sender report comes, so the median counts.
    std::vector<double> periods;
    for (int i = 2; i < packets.size(); ++i) {
        periods.push_back(packets[i].split(',').first().toDouble() -
                          packets[i - 1].split(',').first().toDouble());
    }
    std::nth_element(periods.begin(), periods.begin() + periods.size() / 2, periods.end());
    const double period = periods[periods.size() / 2];
    QVERIFY2(std::abs(period - 1.0 / virtualCamera.fps) < 0.001,
             qPrintable(QString::number(period)));
}

void StreamingTest::everyFrameIsOnePairInTime_data()
{
    QTest::addColumn<QString>("protocols");
    QTest::newRow("tcp") << "tcp";
    QTest::newRow("udp") << "udp";
}

void StreamingTest::everyFrameIsOnePairInTime()
{
    QFETCH(QString, protocols);
    Service service(simulatedRig());
    VirtualCamera virtualCamera;
    QVERIFY2(service.startWith(virtualCamera), service.process.readAllStandardError());
    // UDP may lose packets on a machine that is busy; what arrives without loss must be right.
    std::vector<Picture> pictures;
    std::vector<FrameRecord> frames;
    std::uint64_t lost = 1;
    for (int attempt = 0; attempt < kAttempts && lost > 0; ++attempt) {
        const StreamClient client(virtualCamera.url(), protocols);
        QTRY_VERIFY_WITH_TIMEOUT(client.pictures().size() >= 60, kStreamLimitMs);
        pictures = client.pictures();
        // The data stream comes on its own way.
        const auto last =
            decodePattern(pictures.back().at(0, 0), 1, pictures.back().width, virtualCamera.width);
        QTRY_VERIFY(!client.frames().empty() &&
                    (!last || client.frames().back().captureTime >= last->timestamp));
        frames = client.frames();
        lost = client.lost();
        QVERIFY2(client.error().isEmpty(), qPrintable(client.error()));
        QVERIFY(protocols == "udp" || lost == 0);
    }
    QVERIFY2(lost == 0, "packets were lost every time");

    std::uint32_t lastCounter = 0;
    for (const Picture& picture : pictures) {
        QCOMPARE(picture.width, 2 * virtualCamera.width);
        const auto left = decodePattern(picture.at(0, 0), 1, picture.width, virtualCamera.width);
        const auto right = decodePattern(picture.at(virtualCamera.width, 0), 1, picture.width,
                                         virtualCamera.width);
        QVERIFY(left && right);
        QCOMPARE(left->serial, static_cast<std::uint32_t>(virtualCamera.left));
        QCOMPARE(right->serial, static_cast<std::uint32_t>(virtualCamera.right));
        QCOMPARE(left->counter, right->counter);
        QCOMPARE(left->timestamp, right->timestamp);
        QVERIFY(left->counter > lastCounter);
        lastCounter = left->counter;
    }

    // The data stream names the same instants, to the nanosecond.
    const std::set<std::uint64_t> times = captureTimes(frames);
    for (const Picture& picture : pictures) {
        const auto left = decodePattern(picture.at(0, 0), 1, picture.width, virtualCamera.width);
        if (left->timestamp >= *times.begin()) {
            QVERIFY2(times.count(left->timestamp) == 1,
                     qPrintable(QString::number(left->timestamp)));
        }
    }
    std::uint64_t lastFrame = frames.front().counter;
    std::uint64_t lastDropped = frames.front().dropped;
    for (const FrameRecord& record : frames) {
        QCOMPARE(record.serial, static_cast<std::uint32_t>(virtualCamera.serial));
        QCOMPARE(record.eyeWidth, static_cast<std::uint32_t>(virtualCamera.width));
        QCOMPARE(record.eyeHeight, static_cast<std::uint32_t>(virtualCamera.height));
        // No frame is missing but those that the sender says it dropped, which it must on a machine
        // that is too slow.
        QVERIFY(record.counter >= lastFrame);
        QVERIFY(record.counter - lastFrame <= 1 + record.dropped - lastDropped);
        lastFrame = record.counter;
        lastDropped = record.dropped;
        // The grid of the simulated cameras: frame k is due at k / fps seconds.
        const std::uint64_t rest = record.captureTime % 1000000000;
        const std::uint64_t k = (rest * 30 + 999999999) / 1000000000;
        QCOMPARE(rest, k * 1000000000 / 30);
    }
}

void StreamingTest::imuPacketsArriveOnceEach()
{
    Service service(simulatedRig());
    VirtualCamera virtualCamera;
    QVERIFY2(service.startWith(virtualCamera), service.process.readAllStandardError());
    const StreamClient client(virtualCamera.url());
    QTRY_VERIFY_WITH_TIMEOUT(client.imu().size() >= 300, kStreamLimitMs);

    const std::vector<ImuRecord> packets = client.imu();
    for (std::size_t i = 1; i < packets.size(); ++i) {
        QCOMPARE(packets[i].sequence, packets[i - 1].sequence + 1);
        QVERIFY(packets[i].timestamp > packets[i - 1].timestamp);
        QCOMPARE(packets[i].serial, static_cast<std::uint32_t>(virtualCamera.serial));
    }
    // The packet received last with a left image: this frame's own, or that of one of the next
    // frames when the streamer's thread was late.
    QTRY_VERIFY(!client.frames().empty());
    const FrameRecord lastFrame = client.frames().back();
    const std::uint64_t period = 1000000000u / static_cast<std::uint64_t>(virtualCamera.fps);
    QVERIFY(lastFrame.imuTimestamp + period > lastFrame.captureTime);
    QVERIFY(lastFrame.imuTimestamp <= lastFrame.captureTime + 5 * period);
}

void StreamingTest::withoutImuNoneIsSent()
{
    Service service(simulatedRig());
    VirtualCamera virtualCamera;
    virtualCamera.imu = false;
    QVERIFY2(service.startWith(virtualCamera), service.process.readAllStandardError());
    const StreamClient client(virtualCamera.url());
    QTRY_VERIFY_WITH_TIMEOUT(client.frames().size() >= 30, kStreamLimitMs);
    QCOMPARE(client.imu().size(), std::size_t{0});
    for (const FrameRecord& record : client.frames()) {
        QCOMPARE(record.imuTimestamp, std::uint64_t{0});
    }
}

void StreamingTest::twoVirtualCamerasShareACamera()
{
    Service service(simulatedRig());
    VirtualCamera first;
    first.port = static_cast<quint16>(freePort());
    VirtualCamera second;
    second.serial = 109999999;
    second.right = 30100003;
    do {
        second.port = static_cast<quint16>(freePort());
    } while (second.port == first.port);
    service.configure({first, second});
    service.start();
    QVERIFY2(service.serves(first.port), service.process.readAllStandardError());
    QVERIFY2(service.serves(second.port), service.process.readAllStandardError());
    const StreamClient firstClient(first.url());
    const StreamClient secondClient(second.url());
    QTRY_VERIFY_WITH_TIMEOUT(firstClient.pictures().size() >= 10, kStreamLimitMs);
    QTRY_VERIFY_WITH_TIMEOUT(secondClient.pictures().size() >= 10, kStreamLimitMs);

    const auto rightSerial = [](const Picture& picture, int width) {
        const auto pattern = decodePattern(picture.at(width, 0), 1, picture.width, width);
        return pattern ? static_cast<int>(pattern->serial) : 0;
    };
    QCOMPARE(rightSerial(firstClient.pictures().back(), first.width), first.right);
    QCOMPARE(rightSerial(secondClient.pictures().back(), second.width), second.right);
    QTRY_VERIFY(!secondClient.frames().empty());
    QCOMPARE(secondClient.frames().back().serial, static_cast<std::uint32_t>(second.serial));
}

void StreamingTest::everyPairOfARecordingArrives()
{
    QFETCH(QString, folder);
    const auto source = [&folder](const char* eye) {
        return QJsonObject{{"type", "recording"}, {"path", folder}, {"camera", eye}};
    };
    Service service(
        document({{"cameras", QJsonArray{camera(30100001, source("cam0"), "recorded"),
                                         camera(30100002, source("cam1"), "recorded")}}}));
    VirtualCamera virtualCamera;
    // Half the recorded size, which emulated processors encode in time.
    virtualCamera.width = 376;
    virtualCamera.height = 240;
    virtualCamera.fps = 20;
    QVERIFY2(service.startWith(virtualCamera), service.process.readAllStandardError());
    const std::vector<std::uint64_t> times = recordedTimes(folder + "/cam0/data.csv");
    const std::size_t wanted = times.size() + 5;  // more than once around
    // A machine that is too busy for it loses some.
    std::vector<Picture> pictures;
    std::vector<FrameRecord> frames;
    std::vector<ImuRecord> packets;
    bool unbroken = false;
    for (int attempt = 0; attempt < kAttempts && !unbroken; ++attempt) {
        const StreamClient client(virtualCamera.url());
        QTRY_VERIFY_WITH_TIMEOUT(
            client.pictures().size() >= wanted && client.frames().size() >= wanted, kStreamLimitMs);
        // The packets are read after the frames, so that all that came before the last frame are
        // there.
        pictures = client.pictures();
        frames = client.frames();
        packets = client.imu();
        unbroken = isUnbroken(frames);
    }
    QVERIFY2(unbroken, "pairs were missing every time");

    const std::vector<QImage> left =
        recordedPictures(folder + "/cam0", virtualCamera.width, virtualCamera.height);
    const std::vector<QImage> right =
        recordedPictures(folder + "/cam1", virtualCamera.width, virtualCamera.height);
    const std::size_t start = bestMatch(pictures.front(), 0, left);
    for (std::size_t i = 0; i < wanted; ++i) {
        const std::size_t expected = (start + i) % left.size();
        QCOMPARE(bestMatch(pictures[i], 0, left), expected);
        QCOMPARE(bestMatch(pictures[i], virtualCamera.width, right), expected);
        QVERIFY(difference(pictures[i], 0, left[expected]) < 4);
        QVERIFY(difference(pictures[i], virtualCamera.width, right[expected]) < 4);
    }

    std::vector<std::uint64_t> captured;
    for (const FrameRecord& frame : frames) {
        captured.push_back(frame.captureTime);
    }
    QVERIFY2(repeats(captured, times, kFramePeriod),
             "the capture times are not those of the recording");

    // All IMU packets between the first and the last frame, each once: nothing is left out and
    // nothing comes twice, or the steps would not be the recorded ones.
    std::vector<std::uint64_t> measured;
    for (const ImuRecord& packet : packets) {
        measured.push_back(packet.timestamp);
    }
    for (std::size_t i = 1; i < packets.size(); ++i) {
        QCOMPARE(packets[i].sequence, packets[i - 1].sequence + 1);
    }
    QVERIFY2(repeats(measured, playedImuTimes(folder, times), kImuPeriod),
             "the times of the packets are not those of the recording");
    // They begin with the first frame, or behind those that were waiting as the client came, at
    // most as many as the sender keeps, and reach the last frame.
    constexpr std::size_t kWaiting = 10;
    QVERIFY(frames.size() > times.size());
    QVERIFY2(measured.front() <= captured[kWaiting] + kImuPeriod,
             qPrintable(QString("%1 ns late").arg(measured.front() - captured[kWaiting])));
    QVERIFY2(measured.back() + kImuPeriod >= captured.back(),
             qPrintable(QString("%1 ns missing").arg(captured.back() - measured.back())));
}

void StreamingTest::endsOnWhatCannotBeOpened_data()
{
    QTest::addColumn<QByteArray>("rig");
    QTest::addColumn<QString>("encoder");
    QTest::addColumn<bool>("portTaken");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QByteArray>("cameraLog");
    QTest::newRow("malformed rig")
        << QByteArray("{\"cameras\": [") << "" << false << QByteArray("Streaming Error 7\n")
        << QByteArray(
               "stream 101234567: the rig description is not usable: "
               "RIG: document: not valid JSON at line 1, column 14")
        << QByteArray();
    QTest::newRow("repeated serial")
        << document({{"cameras", QJsonArray{camera(30100001, simulated("left"), ""),
                                            camera(30100001, simulated("right"), "")}}})
        << "" << false << QByteArray("Streaming Error 7\n")
        << QByteArray(
               "stream 101234567: the rig description is not usable: "
               "RIG: cameras[1].serial: serial 30100001 is repeated")
        << QByteArray();
    QTest::newRow("missing recording")
        << document({{"cameras",
                      QJsonArray{camera(30100001,
                                        {{"type", "recording"}, {"path", "/nowhere/mav0"}}, "")}}})
        << "" << false << QByteArray() << QByteArray("camera 0: /nowhere/mav0: is not a folder")
        << QByteArray("[KTCamera] Setup State error :  5");
    QTest::newRow("no encoder") << simulatedRig() << "nosuchencoder" << false
                                << QByteArray("Streaming Error 22\n")
                                << QByteArray(
                                       "stream 101234567: no video encoder is available: "
                                       "no encoder called \"nosuchencoder\" is known for "
                                       "this codec")
                                << QByteArray();
    QTest::newRow("port taken") << simulatedRig() << "" << true
                                << QByteArray("Streaming Error 21\n")
                                << QByteArray(
                                       "stream 101234567: the port is already in use: "
                                       "cannot listen on 0.0.0.0 port PORT: ")
                                << QByteArray();
}

void StreamingTest::endsOnWhatCannotBeOpened()
{
    QFETCH(QByteArray, rig);
    QFETCH(QString, encoder);
    QFETCH(bool, portTaken);
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, log);
    QFETCH(QByteArray, cameraLog);
    Service service(rig);
    if (!encoder.isEmpty()) {
        service.options.environment.insert("KOR_ENCODER", encoder);
    }
    QTcpServer occupant;
    VirtualCamera virtualCamera;
    virtualCamera.port = static_cast<quint16>(freePort());
    if (portTaken) {
        QVERIFY(occupant.listen(QHostAddress::Any, virtualCamera.port));
    }
    service.configure({virtualCamera});
    const sandbox::Result result = service.runToEnd();
    QVERIFY(result.finished);
    QCOMPARE(result.status, 1);
    QCOMPARE(result.output, output);
    log.replace("RIG", service.options.environment.value("KOR_RIG").toLocal8Bit());
    log.replace("PORT", QByteArray::number(virtualCamera.port));
    QVERIFY2(sdkReports(result.error, log), result.error);
    QByteArray reported;
    for (const QByteArray& line : result.error.split('\n')) {
        reported = line.startsWith("[KTCamera] Setup State error") ? line : reported;
    }
    QCOMPARE(reported, cameraLog);
}

void StreamingTest::busyCameraEndsTheProcess()
{
    Service holder(simulatedRig());
    QTemporaryDir sharedMemory;
    holder.options.sharedMemory = sharedMemory.path();
    VirtualCamera virtualCamera;
    QVERIFY2(holder.startWith(virtualCamera), holder.process.readAllStandardError());

    Service late(simulatedRig());
    late.options.sharedMemory = sharedMemory.path();
    late.configure({virtualCamera});
    const sandbox::Result result = late.runToEnd();
    QCOMPARE(result.status, 1);
    QVERIFY2(sdkReports(result.error, "camera 0: the camera is used by another process"),
             result.error);
    QVERIFY2(result.error.contains("[KTCamera] Setup State error :  2\n"), result.error);

    // The one that had the cameras first goes on, and when it is killed they are free.
    QCOMPARE(holder.process.state(), QProcess::Running);
    holder.process.kill();
    QVERIFY(holder.process.waitForFinished());
    late.start();
    QVERIFY2(late.serves(virtualCamera.port), late.process.readAllStandardError());
}

QTEST_GUILESS_MAIN(StreamingTest)
#include "streaming_test.moc"
