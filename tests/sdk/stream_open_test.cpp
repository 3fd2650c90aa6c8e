// SPDX-License-Identifier: Apache-2.0
// Opening and closing of the network sender: its result codes, its port, its resources.
// GLib's headers use words that Qt's make macros of, so they come first.
#include <gst/gst.h>

#include <QDirIterator>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include "tests/sdk/stream_testing.h"

using namespace streamtest;

namespace {

int code(tq::ErrorCode error)
{
    return static_cast<int>(error);
}

int threads()
{
    return entries("/proc/self/task");
}

/// What the test's own encoder keeps to itself from now on.
std::atomic<GstPadProbeType> withheld{GST_PAD_PROBE_TYPE_INVALID};
constexpr const char* kOwnEncoder = "vaapih264enc";

void makeOwnEncoder(GTypeInstance* instance, gpointer)
{
    GstElement* inner = gst_element_factory_make("x264enc", nullptr);
    gst_bin_add(GST_BIN(instance), inner);
    for (const char* name : {"sink", "src"}) {
        GstPad* pad = gst_element_get_static_pad(inner, name);
        gst_element_add_pad(GST_ELEMENT(instance), gst_ghost_pad_new(name, pad));
        if (withheld != GST_PAD_PROBE_TYPE_INVALID && gst_pad_get_direction(pad) == GST_PAD_SRC) {
            gst_pad_add_probe(
                pad, withheld,
                [](GstPad*, GstPadProbeInfo*, gpointer) { return GST_PAD_PROBE_DROP; }, nullptr,
                nullptr);
        }
        gst_object_unref(pad);
    }
}

/// Puts the test's own encoder in the place of one that the sender knows.
bool registerOwnEncoder()
{
    const auto describe = [](gpointer type, gpointer) {
        gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(type), "Test encoder",
                                              "Codec/Encoder/Video", "May fail", "The test");
    };
    const GType type =
        g_type_register_static_simple(GST_TYPE_BIN, "OwnEncoder", sizeof(GstBinClass), describe,
                                      sizeof(GstBin), makeOwnEncoder, GTypeFlags(0));
    return gst_element_register(nullptr, kOwnEncoder, GST_RANK_NONE, type);
}

/// Takes an element from those that are known to this process.
/// @return it, or null when it is not installed
GstPluginFeature* takeElement(const char* name)
{
    GstPluginFeature* element = gst_registry_lookup_feature(gst_registry_get(), name);
    if (element)
        gst_registry_remove_feature(gst_registry_get(), element);
    return element;
}

}  // namespace

class StreamOpenTest : public QObject {
    Q_OBJECT

private slots:
    void refusesConfigurations_data();
    void refusesConfigurations();
    void acceptsDefaults();
    void acceptsOddHeight();
    void refusesTakenPortOfOtherSender();
    void refusesTakenPortOfOtherProcess();
    void refusesBadAddress();
    void refusesUnknownEncoder();
    void refusesEncoderOfOtherCodec();
    void takesEncoderOfRig();
    void remembersTrials();
    void refusesUnusableRig();
    void refusesSecondOpen();
    void freesPortOnClose();
    void closesDuringDescribe_data();
    void closesDuringDescribe();
    void leaksNothing();
    void ignoresCallsWhileClosed();

private:
    StreamRig rig;
};

void StreamOpenTest::refusesConfigurations_data()
{
    QTest::addColumn<int>("offset");
    QTest::addColumn<int>("bytes");
    QTest::addColumn<int>("value");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("layout") << 0 << 4 << 2 << QByteArray("layout is 2");
    QTest::newRow("port") << 4 << 2 << 0 << QByteArray("port is 0");
    QTest::newRow("bit rate") << 8 << 4 << -1 << QByteArray("bit rate is -1");
    QTest::newRow("key frames") << 16 << 4 << -1 << QByteArray("key-frame interval is -1");
    QTest::newRow("no width") << 24 << 4 << 0 << QByteArray("eye width is 0");
    QTest::newRow("negative width") << 24 << 4 << -1920 << QByteArray("eye width is -1920");
    QTest::newRow("huge width") << 24 << 4 << 100000 << QByteArray("eye width is 100000");
    QTest::newRow("no height") << 28 << 4 << 0 << QByteArray("eye height is 0");
    QTest::newRow("no rate") << 40 << 4 << 0 << QByteArray("frame rate is 0");
    QTest::newRow("negative rate") << 40 << 4 << -30 << QByteArray("frame rate is -30");
    QTest::newRow("IMU rate") << 52 << 4 << -1 << QByteArray("IMU rate is -1");
    QTest::newRow("one eye") << 92 << 4 << 1 << QByteArray("number of eyes is 1");
}

void StreamOpenTest::refusesConfigurations()
{
    QFETCH(int, offset);
    QFETCH(int, bytes);
    QFETCH(int, value);
    QFETCH(QByteArray, reason);
    tq::UDPOutConfig config = configuration(freePort());
    std::memcpy(reinterpret_cast<char*>(&config) + offset, &value, static_cast<std::size_t>(bytes));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, true);
    int result = 0;
    const QByteArray log = errorOutput([&] { result = output.open(config); });
    QCOMPARE(result, code(tq::ErrorCode::INVALID_CONFIGURATION));
    QVERIFY2(log.startsWith("[tq_kor] "), log);
    QVERIFY2(log.contains(reason), log);
    QCOMPARE(log.count('\n'), 1);
}

void StreamOpenTest::acceptsDefaults()
{
    tq::UDPOutConfig config = configuration(freePort());
    config.bitrate = 0;
    config.keyFrameInterval = 0;
    config.chunkSize = 0;
    config.imuRate = 0;
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, true);
    const QByteArray log = errorOutput([&] { QCOMPARE(output.open(config), 0); });
    QVERIFY2(log.contains("20000 kbit/s"), log);
}

void StreamOpenTest::acceptsOddHeight()
{
    const tq::UDPOutConfig config = configuration(freePort(), 33, 35);
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    Feeder feeder(output, config);
    RtspClient client(config.port);
    QVERIFY(client.start());
    QVERIFY(client.packetsUntil([](const Packet& p) { return p.channel == 0 && p.marker(); }));
}

void StreamOpenTest::refusesTakenPortOfOtherSender()
{
    const tq::UDPOutConfig config = configuration(freePort());
    tq::UDPOutput first(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(first.open(config), 0);
    tq::UDPOutput second(tq::STREAMING_MODE::LIVE, false);
    int result = 0;
    const QByteArray log = errorOutput([&] { result = second.open(config); });
    QCOMPARE(result, code(tq::ErrorCode::PORT_TAKEN));
    QVERIFY2(log.contains(QByteArray::number(config.port)), log);
    QCOMPARE(log.count('\n'), 1);
    // The first one still serves.
    Feeder feeder(first, config);
    RtspClient client(config.port);
    QCOMPARE(client.describe().status, 200);
}

void StreamOpenTest::refusesTakenPortOfOtherProcess()
{
    const int port = freePort();
    QProcess other;
    other.start("python3",
                {"-c",
                 "import socket,sys\ns=socket.create_server(('127.0.0.1',int(sys.argv[1])))\n"
                 "print('listening',flush=True)\nsys.stdin.read()",
                 QString::number(port)});
    if (!other.waitForStarted())
        QSKIP("python3 is not installed");
    QVERIFY(other.waitForReadyRead(20000));
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(configuration(port)), code(tq::ErrorCode::PORT_TAKEN));
    other.closeWriteChannel();
    QVERIFY(other.waitForFinished());
    QCOMPARE(output.open(configuration(port)), 0);
}

void StreamOpenTest::refusesBadAddress()
{
    rig.use(R"({"bindAddress": "203.0.113.7"})");
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    int result = 0;
    const QByteArray log = errorOutput([&] { result = output.open(configuration(freePort())); });
    rig.use("{}");
    QCOMPARE(result, code(tq::ErrorCode::SERVER_FAILED));
    QVERIFY2(log.contains("203.0.113.7"), log);
}

void StreamOpenTest::refusesUnknownEncoder()
{
    qputenv("KOR_ENCODER", "nonexistent");
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    int result = 0;
    const QByteArray log = errorOutput([&] { result = output.open(configuration(freePort())); });
    qunsetenv("KOR_ENCODER");
    QCOMPARE(result, code(tq::ErrorCode::NO_ENCODER));
    QVERIFY2(log.startsWith("[tq_kor] ") && log.contains("nonexistent"), log);
    QCOMPARE(log.count('\n'), 1);
}

void StreamOpenTest::refusesEncoderOfOtherCodec()
{
    rig.use(R"({"codec": "h265", "encoder": "x264enc"})");
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    const int result = output.open(configuration(freePort()));
    rig.use("{}");
    QCOMPARE(result, code(tq::ErrorCode::NO_ENCODER));
}

void StreamOpenTest::takesEncoderOfRig()
{
    rig.use(R"({"encoder": "openh264enc", "bitrate": 1234})");
    const tq::UDPOutConfig config = configuration(freePort());
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, true);
    int result = 0;
    const QByteArray log = errorOutput([&] { result = output.open(config); });
    rig.use("{}");
    if (result == code(tq::ErrorCode::NO_ENCODER))
        QSKIP("openh264enc is not installed");
    QCOMPARE(result, 0);
    QVERIFY2(log.contains("openh264enc") && log.contains("1234 kbit/s"), log);
    Feeder feeder(output, config);
    RtspClient client(config.port);
    QVERIFY(client.start());
    QVERIFY(client.packetsUntil([](const Packet& p) { return p.channel == 0 && p.marker(); }));
}

// A failure is final; an encoder that gave no answer in time may have had a busy moment.
void StreamOpenTest::remembersTrials()
{
    gst_init(nullptr, nullptr);
    QVERIFY(gst_registry_check_feature_version(gst_registry_get(), "x264enc", 1, 0, 0));
    GstPluginFeature* const installed = takeElement(kOwnEncoder);
    QVERIFY(registerOwnEncoder());
    qputenv("KOR_ENCODER", kOwnEncoder);
    const auto restore = qScopeGuard([installed] {
        qunsetenv("KOR_ENCODER");
        gst_object_unref(takeElement(kOwnEncoder));
        if (installed)
            gst_registry_add_feature(gst_registry_get(), installed);
    });
    const auto open = [](const tq::UDPOutConfig& config, GstPadProbeType without) {
        withheld = without;
        return tq::UDPOutput(tq::STREAMING_MODE::LIVE, false).open(config);
    };
    const tq::UDPOutConfig slow = configuration(freePort(), 64, 48);
    QCOMPARE(open(slow, GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM), code(tq::ErrorCode::NO_ENCODER));
    QCOMPARE(open(slow, GST_PAD_PROBE_TYPE_INVALID), 0);
    QCOMPARE(open(slow, GST_PAD_PROBE_TYPE_BUFFER), 0);
    // The end of the stream without a picture.
    const tq::UDPOutConfig failing = configuration(freePort(), 64, 64);
    QCOMPARE(open(failing, GST_PAD_PROBE_TYPE_BUFFER), code(tq::ErrorCode::NO_ENCODER));
    QCOMPARE(open(failing, GST_PAD_PROBE_TYPE_INVALID), code(tq::ErrorCode::NO_ENCODER));
}

void StreamOpenTest::refusesUnusableRig()
{
    rig.write("{ this is no JSON");
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    int result = 0;
    const QByteArray log = errorOutput([&] { result = output.open(configuration(freePort())); });
    rig.use("{}");
    QCOMPARE(result, code(tq::ErrorCode::INVALID_RIG));
    QVERIFY2(log.contains("rig.json"), log);
    QCOMPARE(log.count('\n'), 1);
}

void StreamOpenTest::refusesSecondOpen()
{
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(configuration(freePort())), 0);
    QCOMPARE(output.open(configuration(freePort())), code(tq::ErrorCode::ALREADY_OPEN));
    output.close();
    QCOMPARE(output.open(configuration(freePort())), 0);
}

void StreamOpenTest::freesPortOnClose()
{
    const tq::UDPOutConfig config = configuration(freePort());
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    for (int round = 0; round < 3; ++round) {
        QCOMPARE(output.open(config), 0);
        Feeder feeder(output, config);
        RtspClient client(config.port);
        QVERIFY(client.start());
        QVERIFY(client.packetsUntil([](const Packet& p) { return p.channel == 0; }));
        feeder.stop();
        output.close();
        QVERIFY(client.closedByServer(5000));
        RtspClient late(config.port);
        QVERIFY(!late.isConnected());
    }
}

void StreamOpenTest::closesDuringDescribe_data()
{
    QTest::addColumn<int>("delay");
    // The media is asked for, made, started, and at last waits for a frame.
    for (const int delay : {0, 1, 2, 5, 10, 20, 50, 100, 500})
        QTest::addRow("after %d ms", delay) << delay;
}

// Without frames the answer to DESCRIBE cannot be given; closing must not wait for it.
void StreamOpenTest::closesDuringDescribe()
{
    QFETCH(int, delay);
    const tq::UDPOutConfig config = configuration(freePort());
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    RtspClient client(config.port);
    client.send("DESCRIBE " + client.url() + " RTSP/1.0\r\nCSeq: 1\r\n\r\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    const auto begin = std::chrono::steady_clock::now();
    output.close();
    QVERIFY(std::chrono::steady_clock::now() - begin < std::chrono::seconds(5));
    QCOMPARE(output.open(config), 0);
}

void StreamOpenTest::leaksNothing()
{
    const tq::UDPOutConfig config = configuration(freePort());
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    const auto round = [&] {
        QCOMPARE(output.open(config), 0);
        Feeder feeder(output, config);
        RtspClient client(config.port);
        QVERIFY(client.start());
        QVERIFY(client.packetsUntil([](const Packet& p) { return p.channel == 0 && p.marker(); }));
        feeder.stop();
        output.close();
    };
    // Thread pools and GStreamer's registry reach their size in the first rounds.
    for (int i = 0; i < 5; ++i)
        round();
    const int filesBefore = openFiles();
    const int threadsBefore = threads();
    for (int i = 0; i < 20; ++i)
        round();
    QVERIFY2(waitFor([&] { return openFiles() <= filesBefore && threads() <= threadsBefore + 2; },
                     30000),
             qPrintable(QString("files %1 -> %2, threads %3 -> %4")
                            .arg(filesBefore)
                            .arg(openFiles())
                            .arg(threadsBefore)
                            .arg(threads())));
}

void StreamOpenTest::ignoresCallsWhileClosed()
{
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    std::vector<unsigned char> pixels = picture(160, 120);
    output.ingestYUVFrame(pixels.data(), realTime(), {});
    output.ingestIMU(imuPacket(realTime(), 0));
    output.close();
    const tq::UDPOutConfig config = configuration(freePort());
    QCOMPARE(output.open(config), 0);
    output.close();
    output.ingestYUVFrame(pixels.data(), realTime(), {});
    output.close();
    QCOMPARE(output.open(config), 0);
}

QTEST_GUILESS_MAIN(StreamOpenTest)
#include "stream_open_test.moc"
