// SPDX-License-Identifier: Apache-2.0
// Tests of the rig: what is read, and how everything else is refused.
#include "sdk/rig/rig.h"

#include <sys/stat.h>

#include <QtTest>

#include "sdk/rig/currentrig.h"
#include "tests/sdk/sdktesting.h"

using tq::rig::parseRig;
using tq::rig::RigResult;

namespace {

const char* const kCamera = R"("serial": 30000001, "model": "KOR T Solo GS")";

std::string withCamera(const std::string& members)
{
    return R"({"cameras": [{)" + members + "}]}";
}

std::string withSource(const std::string& source)
{
    return withCamera(std::string(kCamera) + R"(, "source": {)" + source + "}");
}

std::string withStream(const std::string& stream)
{
    return R"({"cameras": [], "stream": {)" + stream + "}}";
}

}  // namespace

class RigTest : public QObject {
    Q_OBJECT

private slots:
    void defaults();
    void everyKeyIsRead();
    void pathsAreTakenFromTheRigsFolder();
    void refusals_data();
    void refusals();
    void aRefusedRigIsLoggedOnceAndEnumeratesNothing();
    void aRigThatWasReadIsNotReplacedByTheBuiltInOne();
    void aRigHoldsUntilTheNextEnumeration();
    void aLinkThatLeadsNowhereIsRefused_data();
    void aLinkThatLeadsNowhereIsRefused();
    void aPasswordThatEverybodyReadsIsTold();
    void unreadableFiles();
    void lookupOrder();
    void exampleRigs_data();
    void exampleRigs();
};

void RigTest::defaults()
{
    const RigResult result = parseRig(withSource(R"("type": "simulated")"), "r.json");
    QVERIFY2(bool(result), result.error.c_str());
    const tq::rig::CameraSettings& camera = result.rig->cameras.at(0);
    QCOMPARE(camera.id, 0);
    QCOMPARE(camera.serial, 30000001);
    QVERIFY(camera.model == tq::MODEL::KOR_TSOLO_GS);
    QCOMPARE(camera.bus, std::string("gmsl-0"));
    QCOMPARE(camera.name, std::string("KOR T Solo GS"));
    QCOMPARE(camera.imu.kind, tq::rig::ImuKind::NONE);
    const auto& source = std::get<tq::rig::SimulatedSettings>(camera.source);
    QCOMPARE(source.eye, tq::rig::Eye::LEFT);
    QCOMPARE(source.phase, 0.0);
    QCOMPARE(source.drop, 0.0);
    QVERIFY(!source.stall && !source.deathAfter);
    QCOMPARE(source.seed, std::uint64_t(1));
    const tq::rig::StreamSettings& stream = result.rig->stream;
    QCOMPARE(stream.bindAddress, std::string("0.0.0.0"));
    QCOMPARE(stream.maxClients, 8);
    QCOMPARE(stream.sessionTimeout, 60);
    QCOMPARE(stream.codec, tq::rig::CodecChoice::AUTO);
    QCOMPARE(stream.bitrate, 0);
    QCOMPARE(stream.mtu, 1400);
    QCOMPARE(stream.latency, 200);
}

void RigTest::everyKeyIsRead()
{
    const RigResult result = parseRig(R"({
        "cameras": [
            {"id": 7, "serial": 31000009, "model": "KOR T Solo UHD", "bus": "b", "name": "n",
             "source": {"type": "simulated", "eye": "right", "scene": "chessboard",
                        "phase": -12.5, "jitter": 3,
                        "drift": 20, "drop": 0.25, "stall": {"at": 1, "for": 2.5},
                        "deathAfter": 9, "reviveAfter": 4, "seed": 42},
             "imu": {"type": "simulated", "rate": 1000}},
            {"serial": 2147483647, "model": "KOR T",
             "source": {"type": "gstreamer", "pipeline": "videotestsrc", "timeout": 2,
                        "timestamps": "grid"}}],
        "stream": {"bindAddress": "127.0.0.1", "user": "u", "password": "p", "maxClients": 3,
                   "sessionTimeout": 10, "codec": "h265", "encoder": "x265enc", "bitrate": 9000,
                   "keyFrameInterval": 15, "mtu": 1200, "latency": 50}})",
                                      "r.json");
    QVERIFY2(bool(result), result.error.c_str());
    const tq::rig::CameraSettings* camera = result.rig->find(7);
    QVERIFY(camera != nullptr);
    QCOMPARE(camera->bus, std::string("b"));
    QCOMPARE(camera->name, std::string("n"));
    QCOMPARE(camera->imu.rate, 1000);
    const auto& source = std::get<tq::rig::SimulatedSettings>(camera->source);
    QCOMPARE(source.eye, tq::rig::Eye::RIGHT);
    QCOMPARE(source.scene, tq::rig::SceneKind::CHESSBOARD);
    QCOMPARE(source.phase, -12.5);
    QCOMPARE(source.jitter, 3.0);
    QCOMPARE(source.drift, 20.0);
    QCOMPARE(source.drop, 0.25);
    QCOMPARE(source.stall->at, 1.0);
    QCOMPARE(source.stall->duration, 2.5);
    QCOMPARE(*source.deathAfter, 9.0);
    QCOMPARE(*source.reviveAfter, 4.0);
    QCOMPARE(source.seed, std::uint64_t(42));
    QCOMPARE(result.rig->cameras.at(1).id, 1);
    QCOMPARE(std::get<tq::rig::GStreamerSettings>(result.rig->cameras.at(1).source).timeout, 2.0);
    QCOMPARE(camera->timestamps, tq::rig::Timestamps::CAPTURE);
    QCOMPARE(result.rig->cameras.at(1).timestamps, tq::rig::Timestamps::GRID);
    const tq::rig::StreamSettings& stream = result.rig->stream;
    QCOMPARE(stream.bindAddress, std::string("127.0.0.1"));
    QCOMPARE(stream.user + stream.password, std::string("up"));
    QCOMPARE(stream.certificate + stream.key, std::string());
    QCOMPARE(stream.maxClients, 3);
    QCOMPARE(stream.sessionTimeout, 10);
    QCOMPARE(stream.codec, tq::rig::CodecChoice::H265);
    QCOMPARE(stream.encoder, std::string("x265enc"));
    QCOMPARE(stream.bitrate, 9000);
    QCOMPARE(stream.keyFrameInterval, 15);
    QCOMPARE(stream.mtu, 1200);
    QCOMPARE(stream.latency, 50);
}

void RigTest::pathsAreTakenFromTheRigsFolder()
{
    const auto pathFor = [](const std::string& given) {
        const RigResult result =
            parseRig(withSource(R"("type": "recording", "path": ")" + given + "\""), "/etc/r.json");
        return std::get<tq::rig::RecordingSettings>(result.rig->cameras.at(0).source).path;
    };
    QCOMPARE(pathFor("a/../b"), std::string("/etc/b"));
    QCOMPARE(pathFor("/data/x"), std::string("/data/x"));
    const RigResult secret =
        parseRig(withStream(R"("certificate": "a.pem", "key": "/b/k")"), "/etc/r.json");
    QCOMPARE(secret.rig->stream.certificate, std::string("/etc/a.pem"));
    QCOMPARE(secret.rig->stream.key, std::string("/b/k"));
}

void RigTest::refusals_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");
    const auto row = [](const char* name, const std::string& text, const std::string& error) {
        QTest::newRow(name) << QString::fromStdString(text)
                            << QString::fromStdString("r.json: " + error);
    };
    const std::string camera = kCamera;
    const std::string plain = R"("source": {"type": "simulated"})";
    const std::string good = "{" + camera + ", " + plain + "}";

    row("empty", "", "document: not valid JSON at line 1, column 1");
    row("syntax", "{\n  \"cameras\": [,]}", "document: not valid JSON at line 2, column 15");
    row("null", "null", "document: must be an object, but is null");
    row("array", "[]", "document: must be an object, but is array");
    row("no cameras", "{}", "cameras: is missing");
    row("cameras type", R"({"cameras": 3})", "cameras: must be an array, but is number");
    row("camera type", R"({"cameras": [3]})", "cameras[0]: must be an object, but is number");
    row("unknown key", R"({"cameras": [], "camera": []})", "camera: unknown key");
    row("unknown camera key", withCamera(camera + "," + plain + R"(, "Serial": 1)"),
        "cameras[0].Serial: unknown key");
    row("unknown source key", withSource(R"("type": "simulated", "path": "x")"),
        "cameras[0].source.path: unknown key");
    row("control character in key", withCamera(camera + "," + plain + R"(, "a\nb": 1)"),
        "cameras[0].a\\nb: unknown key");
    row("repeated key", R"({"cameras": [], "cameras": []})",
        "document: key \"cameras\" is repeated");
    row("no serial", withCamera(R"("model": "KOR T Solo GS", )" + plain),
        "cameras[0].serial: is missing");
    row("serial type", withCamera(R"("serial": "30000001", "model": "KOR T Solo GS", )" + plain),
        "cameras[0].serial: must be a number, but is string");
    row("serial fraction",
        withCamera(R"("serial": 30000001.5, "model": "KOR T Solo GS", )" + plain),
        "cameras[0].serial: must be a whole number");
    row("serial zero", withCamera(R"("serial": 0, "model": "KOR T", )" + plain),
        "cameras[0].serial: must be from 1 to 2147483647");
    row("serial too large", withCamera(R"("serial": 3000000000, "model": "KOR T", )" + plain),
        "cameras[0].serial: must be from 1 to 2147483647");
    row("serial far too large",
        withCamera(R"("serial": 18446744073709551615, "model": "KOR T", )" + plain),
        "cameras[0].serial: must be from 1 to 2147483647");
    row("serial of another family",
        withCamera(R"("serial": 31000001, "model": "KOR T Solo GS", )" + plain),
        "cameras[0].serial: the serial of a \"KOR T Solo GS\" begins with 30");
    row("unknown model", withCamera(R"("serial": 30000001, "model": "KOR X", )" + plain),
        "cameras[0].model: unknown value \"KOR X\", must be one of \"KOR T Solo GS\", "
        "\"KOR T Solo UHD\", \"KOR T\", \"KOR T Mini\"");
    row("long bus", withCamera(camera + R"(, "bus": "0123456789abcdef", )" + plain),
        "cameras[0].bus: must not be longer than 15 bytes");
    row("zero character", withCamera(camera + R"(, "name": "a\u0000b", )" + plain),
        "cameras[0].name: contains a zero character");
    row("no source", withCamera(camera), "cameras[0].source: is missing");
    row("no source type", withSource(""), "cameras[0].source.type: is missing");
    row("unknown source", withSource(R"("type": "usb")"),
        "cameras[0].source.type: unknown value \"usb\", must be one of \"simulated\", "
        "\"recording\", \"gstreamer\"");
    row("eye", withSource(R"("type": "simulated", "eye": "middle")"),
        "cameras[0].source.eye: unknown value \"middle\", must be one of \"left\", \"right\"");
    row("scene", withSource(R"("type": "simulated", "scene": "beach")"),
        "cameras[0].source.scene: unknown value \"beach\", must be one of \"discs\", "
        "\"chessboard\"");
    row("drop", withSource(R"("type": "simulated", "drop": 1.5)"),
        "cameras[0].source.drop: must be from 0 to 1");
    row("drop type", withSource(R"("type": "simulated", "drop": true)"),
        "cameras[0].source.drop: must be a number, but is boolean");
    row("stall", withSource(R"("type": "simulated", "stall": {"at": 1})"),
        "cameras[0].source.stall.for: is missing");
    row("revival without death", withSource(R"("type": "simulated", "reviveAfter": 1)"),
        "cameras[0].source.reviveAfter: needs deathAfter");
    row("no path", withSource(R"("type": "recording")"), "cameras[0].source.path: is missing");
    row("loop", withSource(R"("type": "recording", "path": "x", "loop": 1)"),
        "cameras[0].source.loop: must be a boolean, but is number");
    row("camera folder", withSource(R"("type": "recording", "path": "x", "camera": "../cam0")"),
        "cameras[0].source.camera: must be the name of a folder of the recording");
    row("timestamps", withSource(R"("type": "simulated", "timestamps": "frame")"),
        "cameras[0].source.timestamps: unknown value \"frame\", must be one of \"capture\", "
        "\"grid\"");
    row("empty pipeline", withSource(R"("type": "gstreamer", "pipeline": " ")"),
        "cameras[0].source.pipeline: is empty");
    row("imu", withCamera(camera + "," + plain + R"(, "imu": {"type": "recorded"})"),
        "cameras[0].imu.type: \"recorded\" needs a source of type \"recording\"");
    row("imu rate",
        withCamera(camera + "," + plain + R"(, "imu": {"type": "simulated", "rate": 0})"),
        "cameras[0].imu.rate: must be from 1 to 2000");
    row("repeated serial", R"({"cameras": [)" + good + "," + good + "]}",
        "cameras[1].serial: serial 30000001 is repeated");
    row("repeated id",
        R"({"cameras": [)" + good +
            R"(, {"id": 0, "serial": 30000002, "model": "KOR T Solo GS", )" + plain + "}]}",
        "cameras[1].id: id 0 is repeated");
    row("stream type", R"({"cameras": [], "stream": []})",
        "stream: must be an object, but is array");
    row("stream key", withStream(R"("port": 1)"), "stream.port: unknown key");
    for (const std::string address : {"", "localhost", "127.0.0", "fe80::1%lo", "127.0.0.1:80"}) {
        row(("address " + address).c_str(), withStream("\"bindAddress\": \"" + address + "\""),
            "stream.bindAddress: must be a numeric IPv4 or IPv6 address");
    }
    row("mtu", withStream(R"("mtu": 100)"), "stream.mtu: must be from 576 to 65000");
    row("codec", withStream(R"("codec": "av1")"),
        "stream.codec: unknown value \"av1\", must be one of \"auto\", \"h264\", \"h265\"");
    row("password alone", withStream(R"("password": "p")"),
        "stream.user: user and password belong together");
    row("key alone", withStream(R"("key": "k")"), "stream.certificate: is missing");
    row("certificate alone", withStream(R"("certificate": "c")"), "stream.key: is missing");
    row("no certificate after all", withStream(R"("certificate": "", "key": "")"),
        "stream.certificate: is empty");
    row("certificate null", withStream(R"("certificate": null, "key": null)"),
        "stream.certificate: must be a string, but is null");
    row("user alone", withStream(R"("user": "u")"),
        "stream.password: user and password belong together");
}

void RigTest::refusals()
{
    QFETCH(QString, text);
    QFETCH(QString, error);
    const RigResult result = parseRig(text.toStdString(), "r.json");
    QVERIFY(!result);
    QCOMPARE(QString::fromStdString(result.error), error);
}

void RigTest::aRefusedRigIsLoggedOnceAndEnumeratesNothing()
{
    TemporaryRig rig;
    rig.write("{\"cameras\": [], \"strem\": {}}");
    QStringList lines;
    {
        const ErrorLog log;
        QVERIFY(ArgusCamera::getGMSLDevices(true, false).empty());
        lines = log.lines();
    }
    QCOMPARE(lines, QStringList{rig.path() + ": strem: unknown key"});
    tq::LiveCameraGrabber grabber(tq::INPUT_TYPE::GMSL_RAW);
    const ErrorLog quiet;
    QCOMPARE(openCamera(grabber, 0), static_cast<int>(tq::ErrorCode::INVALID_RIG));
}

void RigTest::aRigThatWasReadIsNotReplacedByTheBuiltInOne()
{
    if (QFile::exists(tq::rig::kInstalledRig)) {
        QSKIP("a rig is installed on this machine, the built-in one is not used");
    }
    TemporaryRig rig;
    rig.add(simulated());
    QCOMPARE(ArgusCamera::getGMSLDevices(true, false).size(), std::size_t(1));
    // As when the installed file is removed, or its disk is.
    qunsetenv("KOR_RIG");
    const ErrorLog log;
    QVERIFY(ArgusCamera::getGMSLDevices(true, false).empty());
    const QString gone = rig.path() + ": document: is gone since it was read";
    QCOMPARE(log.lines(), QStringList(gone));
    ArgusCamera::deleteProviderInstance();
    QCOMPARE(QString::fromStdString(tq::rig::currentRig()->error), gone);
    qputenv("KOR_RIG", rig.path().toLocal8Bit());
    QCOMPARE(ArgusCamera::getGMSLDevices(true, false).size(), std::size_t(1));
}

void RigTest::aRigHoldsUntilTheNextEnumeration()
{
    TemporaryRig rig;
    rig.write(R"({"cameras": [], "stream": {"maxClients": 3}})");
    // Before any enumeration the first who asks has it read.
    QCOMPARE(tq::rig::currentRig()->rig->stream.maxClients, 3);
    const auto change = [&rig](const QByteArray& text) {
        QFile file(rig.path());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(text);
    };
    change(R"({"cameras": [], "stream": {"maxClients": 4}})");
    QCOMPARE(tq::rig::currentRig()->rig->stream.maxClients, 3);
    ArgusCamera::getGMSLDevices(true, false);
    QCOMPARE(tq::rig::currentRig()->rig->stream.maxClients, 4);
    QVERIFY(QFile::remove(rig.path()));
    QCOMPARE(tq::rig::currentRig()->rig->stream.maxClients, 4);
    const ErrorLog quiet;
    ArgusCamera::getGMSLDevices(true, false);
    QVERIFY(!*tq::rig::currentRig());
    change(R"({"cameras": []})");
    QVERIFY(!*tq::rig::currentRig());
    ArgusCamera::getGMSLDevices(true, false);
    QCOMPARE(tq::rig::currentRig()->rig->stream.maxClients, 8);
}

void RigTest::aLinkThatLeadsNowhereIsRefused_data()
{
    QTest::addColumn<QString>("link");
    QTest::addColumn<QString>("file");
    QTest::newRow("file") << "rig.json"
                          << "rig.json";
    QTest::newRow("folder") << "settings"
                            << "settings/rig.json";
    QTest::newRow("folder above") << "kor"
                                  << "kor/settings/rig.json";
}

void RigTest::aLinkThatLeadsNowhereIsRefused()
{
    QFETCH(QString, link);
    QFETCH(QString, file);
    const QTemporaryDir folder;
    const std::string installed = folder.filePath(file).toStdString();
    const RigResult builtIn = tq::rig::loadRig(installed);
    QVERIFY(builtIn.file.empty());
    QCOMPARE(builtIn.rig->cameras.size(), std::size_t(2));
    QVERIFY(QFile::link(folder.filePath("away"), folder.filePath(link)));
    const RigResult refused = tq::rig::loadRig(installed);
    QVERIFY(!refused);
    QCOMPARE(refused.error, installed + ": document: cannot be read: No such file or directory");
    // A folder behind a link that holds no rig is not a rig that is gone.
    if (link != file) {
        QVERIFY(QDir(folder.path()).mkpath("away/settings"));
        QVERIFY(bool(tq::rig::loadRig(installed)));
    }
}

void RigTest::aPasswordThatEverybodyReadsIsTold()
{
    TemporaryRig rig;
    rig.write(R"({"cameras": [], "stream": {"user": "u", "password": "secret"}})");
    const QByteArray path = rig.path().toLocal8Bit();
    const QString line = rig.path() +
                         ": stream.password: everybody on this machine may read it, "
                         "until: chmod o= '" +
                         rig.path() + "'";
    for (const mode_t mode : {0644, 0604, 0660, 0640, 0600}) {
        QVERIFY(::chmod(path, mode) == 0);
        const ErrorLog log;
        ArgusCamera::getGMSLDevices(true, false);
        QCOMPARE(log.lines(), (mode & S_IROTH) != 0 ? QStringList(line) : QStringList());
    }
    // Without a password there is nothing to hide.
    rig.write(R"({"cameras": []})");
    QVERIFY(::chmod(path, 0644) == 0);
    const ErrorLog log;
    ArgusCamera::getGMSLDevices(true, false);
    QVERIFY(log.lines().isEmpty());
}

void RigTest::unreadableFiles()
{
    QTemporaryDir folder;
    const std::string missing = folder.filePath("none.json").toStdString();
    QCOMPARE(tq::rig::readRig(missing).error,
             missing + ": document: cannot be read: No such file or directory");
    QCOMPARE(tq::rig::readRig(folder.path().toStdString()).error,
             folder.path().toStdString() + ": document: is a folder");
    const std::string pipe = folder.filePath("pipe").toStdString();
    QVERIFY(::mkfifo(pipe.c_str(), 0600) == 0);
    QCOMPARE(tq::rig::readRig(pipe).error, pipe + ": document: is not a regular file");
    QCOMPARE(tq::rig::readRig("/dev/zero").error,
             std::string("/dev/zero: document: is not a regular file"));
    QFile large(folder.filePath("large.json"));
    QVERIFY(large.open(QIODevice::WriteOnly));
    large.write(QByteArray((1 << 20) + 1, ' '));
    large.close();
    QCOMPARE(tq::rig::readRig(large.fileName().toStdString()).error,
             large.fileName().toStdString() + ": document: larger than 1 MiB");
}

void RigTest::lookupOrder()
{
    {
        TemporaryRig rig;
        rig.write("{\"cameras\": []}");
        const RigResult named = tq::rig::loadRig();
        QVERIFY(bool(named));
        QVERIFY(named.rig->cameras.empty());
    }
    if (QFile::exists("/usr/local/kor/settings/rig.json")) {
        QSKIP("a rig is installed on this machine, the built-in one is not used");
    }
    const RigResult builtIn = tq::rig::loadRig();
    QVERIFY(bool(builtIn));
    QCOMPARE(builtIn.rig->cameras.size(), std::size_t(2));
    for (int i = 0; i < 2; ++i) {
        const tq::rig::CameraSettings& camera = builtIn.rig->cameras[std::size_t(i)];
        QCOMPARE(camera.serial, 30123456 + i);
        QVERIFY(camera.model == tq::MODEL::KOR_TSOLO_GS);
        QCOMPARE(std::get<tq::rig::SimulatedSettings>(camera.source).eye,
                 i == 0 ? tq::rig::Eye::LEFT : tq::rig::Eye::RIGHT);
        QCOMPARE(camera.imu.kind, tq::rig::ImuKind::SIMULATED);
    }
}

void RigTest::exampleRigs_data()
{
    QTest::addColumn<int>("cameras");
    QTest::newRow("two-gs") << 2;
    QTest::newRow("four-gs") << 4;
    QTest::newRow("two-uhd") << 2;
    QTest::newRow("gs-uhd-mixed") << 4;
    QTest::newRow("two-webcams") << 2;
    QTest::newRow("jetson-csi") << 2;
    QTest::newRow("recording") << 2;
}

void RigTest::exampleRigs()
{
    QFETCH(int, cameras);
    const std::string path =
        std::string(VISTREL_SOURCE_DIR "/sdk/rigs/") + QTest::currentDataTag() + ".json";
    const RigResult result = tq::rig::readRig(path);
    QVERIFY2(bool(result), result.error.c_str());
    QCOMPARE(static_cast<int>(result.rig->cameras.size()), cameras);
    // A row for every rig that is shipped.
    QCOMPARE(QDir(VISTREL_SOURCE_DIR "/sdk/rigs").entryList({"*.json"}).size(), 7);
}

QTEST_GUILESS_MAIN(RigTest)
#include "rig_test.moc"
