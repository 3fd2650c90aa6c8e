// SPDX-License-Identifier: Apache-2.0
// vistrel-receive as a program, against a small sender.
#include <sys/socket.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <csignal>
#include <memory>

#include "tests/support/freeport.h"
#include "tests/tools/receive_testing.h"

namespace {

/// A socket that listens on a port of its own and never answers.
class SilentListener {
public:
    SilentListener() { listen(held.descriptor(), 5); }

    int port() const { return held.number(); }

private:
    HeldPort held;
};

/// GStreamer's plug-in of this file name, empty if it is not installed.
QString plugin(const QString& name)
{
    const QDir libraries("/usr/lib");
    for (const QString& folder : libraries.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString path = libraries.filePath(folder + "/gstreamer-1.0/" + name);
        if (QFile::exists(path)) {
            return path;
        }
    }
    return {};
}

}  // namespace

class ReceiveTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void explainsItself();
    void refusesWrongUse_data();
    void refusesWrongUse();
    void refusesAddressesOfOtherCharacters();
    void reportsAbsentSender();
    void showsStatus();
    void writesEverything();
    void recordsWithEitherDecoder_data();
    void recordsWithEitherDecoder();
    void receivesByTcp();
    void receivesWithoutDecoding();
    void endsAfterDuration();
    void endsWithTheSender();
    void timesOut();
    void completesFilesWhenInterrupted_data();
    void completesFilesWhenInterrupted();
    void reportsUnwritableFile_data();
    void reportsUnwritableFile();
    void hidesThePassword();

private:
    void send(const QStringList& options = {}, const QByteArray& stream = "{}");
    QString address(const QString& user = {}) const { return sender->address(user); }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<SampleSender> sender;
};

void ReceiveTest::init()
{
    folder = std::make_unique<QTemporaryDir>();
    QVERIFY(folder->isValid());
}

void ReceiveTest::cleanup()
{
    QVERIFY(!sender || sender->end());
    sender.reset();
}

void ReceiveTest::send(const QStringList& options, const QByteArray& stream)
{
    sender = std::make_unique<SampleSender>(options, stream);
    QVERIFY(sender->isReady());
}

void ReceiveTest::explainsItself()
{
    const Outcome help = receive({"--help"});
    QCOMPARE(help.status, 0);
    for (const char* option :
         {"--snapshot", "--record", "--imu", "--json", "--frames", "--duration", "--timeout",
          "--tcp", "--no-decode", "--quiet", "Exit status"})
        QVERIFY2(help.out.contains(option), option);
    const Outcome version = receive({"--version"});
    QCOMPARE(version.status, 0);
    QVERIFY(version.out.startsWith("vistrel-receive "));
}

void ReceiveTest::refusesWrongUse_data()
{
    QTest::addColumn<QStringList>("arguments");
    const QString url = "rtsp://127.0.0.1:1/stereo";
    QTest::newRow("nothing") << QStringList{};
    QTest::newRow("two addresses") << QStringList{url, url};
    QTest::newRow("other scheme") << QStringList{"http://127.0.0.1/stereo"};
    QTest::newRow("unknown option") << QStringList{"--unknown", url};
    QTest::newRow("no number") << QStringList{"--frames", "many", url};
    QTest::newRow("trailing letters") << QStringList{"--timeout", "5s", url};
    QTest::newRow("no frames") << QStringList{"--frames", "0", url};
    QTest::newRow("half a frame") << QStringList{"--frames", "1.5", url};
    QTest::newRow("negative") << QStringList{"--duration", "-1", url};
    QTest::newRow("not a number") << QStringList{"--duration", "nan", url};
    QTest::newRow("no memory") << QStringList{"--memory", "0", url};
    QTest::newRow("missing value") << QStringList{url, "--json"};
    QTest::newRow("snapshot of nothing") << QStringList{"--no-decode", "--snapshot", "x", url};
}

void ReceiveTest::refusesWrongUse()
{
    QFETCH(QStringList, arguments);
    const Outcome outcome = receive(arguments);
    QCOMPARE(outcome.status, 2);
    QVERIFY(outcome.err.contains("--help"));
    QVERIFY(outcome.out.isEmpty());
}

void ReceiveTest::refusesAddressesOfOtherCharacters()
{
    // A shell hands on any bytes, QProcess those of text only.
    for (const char* address : {"rtsp://127.0.0.1:1/\\xff", "http://\\e[2J"}) {
        QProcess shell;
        shell.start("bash", {"-c", "exec \"$0\" --json - $'" + QString(address) + "'",
                             QString(VISTREL_RECEIVE)});
        const Outcome outcome = finish(shell);
        QVERIFY2(outcome.status == 2, outcome.err);
        QVERIFY2(outcome.out.isEmpty(), outcome.out);
        QVERIFY2(!outcome.err.contains('\x1b') && !outcome.err.contains('\xff'), outcome.err);
    }
}

void ReceiveTest::reportsAbsentSender()
{
    const QString nobody = "rtsp://127.0.0.1:" + QString::number(freePort()) + "/stereo";
    const Outcome outcome = receive({nobody});
    QCOMPARE(outcome.status, 1);
    QVERIFY(outcome.err.startsWith("vistrel-receive: "));
}

void ReceiveTest::showsStatus()
{
    send({"--imu", "7", "--size", "320x240"});
    const QString json = folder->filePath("s.json");
    const Outcome outcome = receive({"-t", "50", "--frames", "100", "-j", json, address()});
    QVERIFY2(outcome.status == 0, outcome.err);
    const QList<QByteArray> lines = outcome.out.trimmed().split('\n');
    QVERIFY2(lines.size() >= 2, outcome.out);
    const QRegularExpression pattern(
        "^100000001  640x240  [0-9.]+ fps  [0-9.]+ Mbit/s  latency [0-9.]+ ms  lost ([0-9]+)  "
        "IMU [0-9]+/s  left 320x240 moving  right 320x240 moving$");
    const QRegularExpressionMatch line = pattern.match(QString(lines.last()));
    QVERIFY2(line.hasMatch(), lines.last());
    // A busy machine costs frames at the sender, which says so, and none on the way.
    const QJsonObject statistics = QJsonDocument::fromJson(contents(json)).object();
    QCOMPARE(statistics["framesLost"].toInt(-1), statistics["framesDroppedBySender"].toInt(-2));
    QVERIFY2(line.captured(1).toInt() <= statistics["framesLost"].toInt(), lines.last());
    const Outcome quiet = receive({"-t", "50", "--frames", "60", "--quiet", address()});
    QCOMPARE(quiet.status, 0);
    QVERIFY2(quiet.out.isEmpty(), quiet.out);
}

void ReceiveTest::writesEverything()
{
    send({"--imu", "7", "--size", "320x240", "--serial", "100000777"});
    const QString png = folder->filePath("s.png");
    const QString mkv = folder->filePath("v.mkv");
    const QString csv = folder->filePath("i.csv");
    const QString json = folder->filePath("s.json");
    const Outcome outcome = receive(
        {"-q", "-t", "50", "-n", "60", "-s", png, "-r", mkv, "-i", csv, "-j", json, address()});
    QVERIFY2(outcome.status == 0, outcome.err);

    const QJsonObject statistics = QJsonDocument::fromJson(contents(json)).object();
    QCOMPARE(statistics["serial"].toInt(), 100000777);
    QCOMPARE(statistics["width"].toInt(), 640);
    QCOMPARE(statistics["height"].toInt(), 240);
    QCOMPARE(statistics["eyeWidth"].toInt(), 320);
    QCOMPARE(statistics["codec"].toString(), QString("H.264"));
    // A busy machine costs frames at the sender, which says so, and none on the way.
    QCOMPARE(statistics["framesLost"].toInt(-1), statistics["framesDroppedBySender"].toInt(-2));
    QCOMPARE(statistics["malformedRecords"].toInt(), 0);
    QVERIFY(statistics["frames"].toInt() >= 60);
    QVERIFY(statistics["keyFrames"].toInt() >= 1);
    QVERIFY(qAbs(statistics["imuRate"].toDouble() - 210) < 2);
    QCOMPARE(statistics["imuPacketsLost"].toInt(), 0);
    const QJsonObject latency = statistics["latencyMs"].toObject();
    QVERIFY(latency["p50"].toDouble() > 0);
    QVERIFY(latency["p99"].toDouble() >= latency["p50"].toDouble());
    QVERIFY(statistics["left"].toObject()["meanLuma"].toDouble() >
            statistics["right"].toObject()["meanLuma"].toDouble() + 50);

    const QList<QByteArray> rows = contents(csv).trimmed().split('\n');
    QCOMPARE(rows.size() - 1, statistics["imuPackets"].toInt());
    QVERIFY(rows[0].startsWith("timestamp_ns,sequence,"));
    const QList<QByteArray> first = rows[1].split(',');
    QCOMPARE(first.size(), rows[0].count(',') + 1);
    QCOMPARE(first[5].toDouble(), 9.81);
    QCOMPARE(rows[2].split(',')[1].toLongLong(), first[1].toLongLong() + 1);

    const QByteArray picture = contents(png);
    QVERIFY(picture.startsWith("\x89PNG"));
    QCOMPARE(picture.mid(16, 8), QByteArray::fromHex("00000280000000F0"));
    QVERIFY(contents(mkv).startsWith("\x1A\x45\xDF\xA3"));
}

void ReceiveTest::recordsWithEitherDecoder_data()
{
    QTest::addColumn<QString>("decoder");
    QTest::addColumn<QString>("other");
    QTest::newRow("libav") << "libgstlibav.so"
                           << "libgstopenh264.so";
    QTest::newRow("OpenH264") << "libgstopenh264.so"
                              << "libgstlibav.so";
}

// The two want different forms of the stream, and the file needs one of its own.
void ReceiveTest::recordsWithEitherDecoder()
{
    QFETCH(QString, decoder);
    QFETCH(QString, other);
    const QFileInfo installed(plugin(decoder));
    if (!installed.exists())
        QSKIP(qPrintable("GStreamer's plug-in " + decoder + " is not installed"));
    const QTemporaryDir plugins;
    const QStringList all = installed.dir().entryList({"*.so"}, QDir::Files);
    for (const QString& name : all) {
        if (name != other)
            QVERIFY(QFile::link(installed.dir().filePath(name), plugins.filePath(name)));
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("GST_PLUGIN_SYSTEM_PATH_1_0", plugins.path());
    environment.insert("GST_REGISTRY_1_0", plugins.filePath("registry"));

    send();
    const QString mkv = folder->filePath("v.mkv");
    const Outcome outcome =
        receive({"-q", "-t", "50", "-n", "30", "-r", mkv, "-j", "-", address()}, environment);
    QVERIFY2(outcome.status == 0, outcome.err);
    QVERIFY(QJsonDocument::fromJson(outcome.out).object()["frames"].toInt() >= 30);
    QVERIFY(QFileInfo(mkv).size() > 1000);
}

void ReceiveTest::receivesByTcp()
{
    send();
    const Outcome outcome = receive({"--tcp", "-q", "-t", "50", "-n", "20", "-j", "-", address()});
    QCOMPARE(outcome.status, 0);
    QVERIFY(QJsonDocument::fromJson(outcome.out).object()["frames"].toInt() >= 20);
}

void ReceiveTest::receivesWithoutDecoding()
{
    send();
    const Outcome outcome =
        receive({"--no-decode", "-q", "-t", "50", "-n", "30", "-j", "-", address()});
    QCOMPARE(outcome.status, 0);
    const QJsonObject statistics = QJsonDocument::fromJson(outcome.out).object();
    QVERIFY(statistics["frames"].toInt() >= 30);
    QCOMPARE(statistics["left"].toObject()["state"].toString(), QString("none"));
    QVERIFY(statistics["latencyMs"].toObject()["p50"].toDouble() > 0);
}

void ReceiveTest::endsAfterDuration()
{
    send();
    QElapsedTimer timer;
    timer.start();
    const Outcome outcome = receive({"-q", "-t", "50", "-d", "10", address()});
    QVERIFY2(timer.elapsed() >= 10000, outcome.err);
    QVERIFY2(outcome.status == 0, outcome.err);
}

void ReceiveTest::endsWithTheSender()
{
    send();
    const QString json = folder->filePath("s.json");
    QProcess all;
    all.start(VISTREL_RECEIVE, {"-t", "50", "-n", "100000", address()});
    QProcess some;
    some.start(VISTREL_RECEIVE, {"-t", "50", "-j", json, address()});
    // A status line of each: frames have come.
    QVERIFY2(all.waitForReadyRead(60000), all.readAllStandardError());
    QVERIFY2(some.waitForReadyRead(60000), some.readAllStandardError());
    sender->end();
    QCOMPARE(finish(all).status, 1);  // not all that were asked for
    const Outcome outcome = finish(some);
    QCOMPARE(outcome.status, 0);
    QVERIFY(QJsonDocument::fromJson(contents(json)).object()["frames"].toInt() > 0);
    QVERIFY2(!outcome.err.isEmpty() && !outcome.err.contains("no frame for"), outcome.err);
}

void ReceiveTest::timesOut()
{
    // Something listens, but it is no sender.
    const SilentListener silent;
    const Outcome outcome =
        receive({"-t", "1", "rtsp://127.0.0.1:" + QString::number(silent.port()) + "/stereo"});
    QCOMPARE(outcome.status, 1);
    QVERIFY2(outcome.err.contains("no frame for 1 s"), outcome.err);
}

void ReceiveTest::completesFilesWhenInterrupted_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void ReceiveTest::completesFilesWhenInterrupted()
{
    QFETCH(int, signal);
    send();
    const QString mkv = folder->filePath("v.mkv");
    const QString json = folder->filePath("s.json");
    QProcess process;
    process.start(VISTREL_RECEIVE, {"-t", "50", "-r", mkv, "-j", json, address()});
    // A status line: frames have come.
    QVERIFY2(process.waitForReadyRead(60000), process.readAllStandardError());
    ::kill(static_cast<pid_t>(process.processId()), signal);
    const Outcome outcome = finish(process);
    QVERIFY2(outcome.status == 0, outcome.err);
    QVERIFY(QJsonDocument::fromJson(contents(json)).object()["frames"].toInt() > 0);
    if (QStandardPaths::findExecutable("ffprobe").isEmpty())
        QSKIP("ffprobe is not installed");
    QProcess probe;
    probe.start("ffprobe", {"-v", "error", "-count_packets", "-show_entries",
                            "format=duration:stream=nb_read_packets,width", "-of", "csv", mkv});
    const Outcome content = finish(probe);
    QCOMPARE(content.status, 0);
    // The duration is written when the file is completed.
    QVERIFY2(content.out.contains("stream,320,") && !content.out.contains("format,N/A"),
             content.out);
    QVERIFY2(content.err.isEmpty(), content.err);
}

void ReceiveTest::reportsUnwritableFile_data()
{
    QTest::addColumn<QString>("option");
    for (const char* option : {"--snapshot", "--record", "--imu", "--json"})
        QTest::newRow(option) << option;
}

void ReceiveTest::reportsUnwritableFile()
{
    QFETCH(QString, option);
    send();
    const QString path = folder->filePath("absent/file");
    const Outcome outcome = receive({"-q", "-t", "50", "-n", "5", option, path, address()});
    QCOMPARE(outcome.status, 3);
    QVERIFY2(outcome.err.contains(path.toLocal8Bit()), outcome.err);
}

void ReceiveTest::hidesThePassword()
{
    send({}, R"({"user": "viewer", "password": "se-cret"})");
    const Outcome right =
        receive({"-t", "50", "-n", "10", "-q", "-j", "-", address("viewer:se-cret@")});
    QVERIFY2(right.status == 0, right.err);
    QVERIFY(!right.out.contains("se-cret") && !right.err.contains("se-cret"));
    const Outcome wrong =
        receive({"-t", "50", "-n", "10", "-q", "-j", "-", address("viewer:mistaken@")});
    QCOMPARE(wrong.status, 1);
    QVERIFY(!wrong.out.contains("mistaken") && !wrong.err.contains("mistaken"));
}

QTEST_GUILESS_MAIN(ReceiveTest)
#include "receive_test.moc"
