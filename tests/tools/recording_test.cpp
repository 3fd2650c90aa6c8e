// SPDX-License-Identifier: Apache-2.0
// Recordings of vistrel-receive: what is in the file, and the file in place of an address.
#include <QJsonArray>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <memory>

#include "tests/tools/receive_testing.h"

namespace {

/// Packets of each stream by ffprobe: codec name, number.
QMap<QString, int> packetsIn(const QString& file)
{
    QProcess probe;
    probe.start("ffprobe", {"-v", "error", "-count_packets", "-show_entries",
                            "stream=codec_name,nb_read_packets", "-of", "json", file});
    QMap<QString, int> packets;
    const QJsonObject found = QJsonDocument::fromJson(finish(probe).out).object();
    for (const QJsonValue& stream : found["streams"].toArray())
        packets[stream["codec_name"].toString()] = stream["nb_read_packets"].toString().toInt();
    return packets;
}

}  // namespace

class RecordingTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void everythingIsInTheFile();
    void fileIsReadAsItWasReceived();
    void fileIsCopied();
    void foldersOfPicturesAreWritten();
    void brokenOffFileIsRead();
    void endOfFileIsNoTimeOut();
    void refusesWhatIsNoRecording_data();
    void refusesWhatIsNoRecording();

private:
    QString file(const QString& name) const { return folder.filePath(name); }

    const QTemporaryDir folder;
    QJsonObject live;
};

void RecordingTest::initTestCase()
{
    // Inertial packets overtake the frames that wait for the encoder.
    SampleSender sender({"--imu", "7", "--imu-lead", "50", "--size", "160x120"});
    QVERIFY(sender.isReady());
    const Outcome outcome =
        receive({"-q", "-t", "50", "-n", "90", "-r", file("both.ts"), "-s", file("live.png"), "-a",
                 file("live"), "-i", file("live.csv"), "-j", file("live.json"), sender.address()});
    QVERIFY2(outcome.status == 0, outcome.err);
    live = statisticsIn(file("live.json"));
    QVERIFY(live["frames"].toInt() >= 90);
    QVERIFY(live["imuPackets"].toInt() >= 90 * 6);
}

void RecordingTest::everythingIsInTheFile()
{
    if (QStandardPaths::findExecutable("ffprobe").isEmpty())
        QSKIP("ffprobe is not installed");
    const QMap<QString, int> packets = packetsIn(file("both.ts"));
    QCOMPARE(packets["h264"], live["framesReceived"].toInt());
    QCOMPARE(packets["klv"], live["frameRecords"].toInt() + live["imuPackets"].toInt());
}

void RecordingTest::fileIsReadAsItWasReceived()
{
    const Outcome plain = receive({"-q", "--no-decode", "-j", file("plain.json"), file("both.ts")});
    QVERIFY2(plain.status == 0, plain.err);
    QCOMPARE(statisticsIn(file("plain.json"))["framesWithoutRecord"].toInt(-1), 0);
    const Outcome outcome = receive({"-s", file("again.png"), "-i", file("again.csv"), "-j",
                                     file("again.json"), file("both.ts")});
    QVERIFY2(outcome.status == 0, outcome.err);
    QVERIFY2(outcome.err.isEmpty(), outcome.err);
    // A line per second of the recording; nothing is late in a file.
    QVERIFY2(outcome.out.count('\n') >= 2, outcome.out);
    QVERIFY2(outcome.out.contains("latency -  lost "), outcome.out);
    QVERIFY(contents(file("again.csv")) == contents(file("live.csv")));
    QVERIFY(contents(file("again.png")) == contents(file("live.png")));

    const QJsonObject again = statisticsIn(file("again.json"));
    for (const char* same :
         {"codec", "width", "height", "serial", "framesReceived", "keyFrames", "framesLost",
          "frameRecords", "malformedRecords", "imuPackets", "imuPacketsLost", "imuRate",
          "nominalFps", "firstCaptureTime", "lastCaptureTime", "framesDroppedBySender"})
        QVERIFY2(again[same] == live[same], same);
    // Every frame has the record with its exact time, and is decoded.
    QCOMPARE(again["framesWithoutRecord"].toInt(-1), 0);
    QCOMPARE(again["frames"].toInt(), live["framesReceived"].toInt());
    QVERIFY(again["latencyMs"].toObject()["p50"].isNull());
    // The recorded times count, not those of reading.
    const double seconds =
        (again["lastCaptureTime"].toDouble() - again["firstCaptureTime"].toDouble()) / 1e9;
    QVERIFY2(qAbs(again["seconds"].toDouble() - seconds) < 0.001,
             qPrintable(QString::number(again["seconds"].toDouble())));
}

void RecordingTest::fileIsCopied()
{
    const Outcome outcome = receive({"-q", "-r", file("copy.ts"), file("both.ts")});
    QVERIFY2(outcome.status == 0, outcome.err);
    const Outcome read = receive({"-q", "-i", file("copy.csv"), file("copy.ts")});
    QVERIFY2(read.status == 0, read.err);
    QVERIFY(contents(file("copy.csv")) == contents(file("live.csv")));
    const Outcome video = receive({"-q", "-r", file("video.mkv"), file("both.ts")});
    QVERIFY2(video.status == 0, video.err);
    QVERIFY(contents(file("video.mkv")).startsWith("\x1A\x45\xDF\xA3"));
}

void RecordingTest::foldersOfPicturesAreWritten()
{
    // Of a stream, what was too much is said; a file is waited for.
    QCOMPARE(live["pairsWritten"].toInt() + live["pairsLeftOut"].toInt(), live["frames"].toInt());
    const QStringList arguments{"-q", "--asl",          file("asl"),
                                "-j", file("asl.json"), file("both.ts")};
    const Outcome outcome = receive(arguments);
    QVERIFY2(outcome.status == 0 && outcome.err.isEmpty(), outcome.err);
    const QJsonObject statistics = statisticsIn(file("asl.json"));
    QCOMPARE(statistics["pairsWritten"].toInt(), live["framesReceived"].toInt());
    QCOMPARE(statistics["pairsLeftOut"].toInt(-1), 0);
    for (const char* camera : {"cam0", "cam1"}) {
        const QString folderOf = file("asl/mav0/") + camera;
        const QList<QByteArray> lines = contents(folderOf + "/data.csv").trimmed().split('\n');
        QCOMPARE(lines.size() - 1, statistics["pairsWritten"].toInt());
        for (int i = 1; i < lines.size(); ++i)
            QVERIFY(QFile::exists(folderOf + "/data/" + lines[i].split(',')[1]));
        // To the nanosecond.
        QVERIFY(contents(file("asl.json")).contains("CaptureTime\": " + lines[1].split(',')[0]));
    }
    const Outcome twice = receive(arguments);
    QCOMPARE(twice.status, 3);
    QVERIFY2(twice.err.contains("asl/mav0: exists already"), twice.err);
}

void RecordingTest::brokenOffFileIsRead()
{
    // As a program leaves it that was killed.
    const QByteArray whole = contents(file("both.ts"));
    QFile half(file("half.ts"));
    QVERIFY(half.open(QIODevice::WriteOnly));
    half.write(whole.left(whole.size() / 2 + 77));
    half.close();
    const Outcome outcome = receive({"-q", "-j", file("half.json"), file("half.ts")});
    QVERIFY2(outcome.status == 0, outcome.err);
    const QJsonObject statistics = statisticsIn(file("half.json"));
    QVERIFY(statistics["frames"].toInt() > 10);
    QCOMPARE(statistics["framesLost"].toInt(-1), live["framesLost"].toInt());
    QCOMPARE(statistics["firstCaptureTime"], live["firstCaptureTime"]);
}

void RecordingTest::endOfFileIsNoTimeOut()
{
    const Outcome some = receive({"-q", "-n", "10", "-j", file("some.json"), file("both.ts")});
    QVERIFY2(some.status == 0, some.err);
    QCOMPARE(statisticsIn(file("some.json"))["frames"].toInt(), 10);
    const Outcome more = receive({"-q", "-n", "100000", file("both.ts")});
    QCOMPARE(more.status, 1);
}

void RecordingTest::refusesWhatIsNoRecording_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("absent") << file("absent.ts");
    QTest::newRow("folder") << folder.path();
    QTest::newRow("text") << file("live.csv");
    QTest::newRow("picture") << file("live.png");
}

void RecordingTest::refusesWhatIsNoRecording()
{
    QFETCH(QString, path);
    const Outcome outcome = receive({path});
    QCOMPARE(outcome.status, 1);
    QVERIFY2(outcome.err.startsWith("vistrel-receive: ") && outcome.err.contains(path.toUtf8()) &&
                 outcome.err.count('\n') == 1,
             outcome.err);
}

QTEST_GUILESS_MAIN(RecordingTest)
#include "recording_test.moc"
