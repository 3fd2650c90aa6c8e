// SPDX-License-Identifier: Apache-2.0
// What strangers may ask of a stream's server: floods, endless requests, more than their share.
#include <QTest>
#include <list>

#include "tests/sdk/stream_testing.h"

using namespace streamtest;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kInTime = 2000;  // ms

int milliseconds(Clock::time_point since)
{
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

/// Sends the same bytes without end, and connects again whenever it is cut off.
class Flood {
public:
    Flood(int serverPort, QByteArray begin, const QByteArray& piece)
        : port(serverPort), head(std::move(begin)), thread([this, piece] { run(piece); })
    {
    }
    ~Flood()
    {
        stopped = true;
        thread.join();
    }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    /// Bytes that the server's side has taken so far.
    std::uint64_t bytes() const { return sent; }
    int timesCutOff() const { return cutOff; }

private:
    void run(const QByteArray& piece)
    {
        const QByteArray pieces = piece.repeated(8192 / piece.size());
        while (!stopped) {
            RtspClient client(port);
            client.send(head);
            while (!stopped && client.sendSome(pieces, 20))
                sent += static_cast<std::uint64_t>(pieces.size());
            ++cutOff;
        }
    }

    const int port;
    const QByteArray head;
    std::atomic<bool> stopped{false};
    std::atomic<std::uint64_t> sent{0};
    std::atomic<int> cutOff{0};
    std::thread thread;
};

bool receivesFrameByTcp(int port)
{
    const auto begin = Clock::now();
    RtspClient viewer(port);
    return viewer.start() &&
           viewer.packetsUntil([](const Packet& p) { return p.channel == 0 && p.marker(); },
                               kInTime) &&
           milliseconds(begin) < kInTime;
}

bool receivesFrameByUdp(int port)
{
    const auto begin = Clock::now();
    RtspClient viewer(port);
    const UdpPort media;
    return viewer.describe().status == 200 && viewer.setupUdp(0, media.port()).status == 200 &&
           viewer.play().status == 200 && media.receives(kInTime) && milliseconds(begin) < kInTime;
}

}  // namespace

class StreamLimitsTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup();

    void servesDuringFlood_data();
    void servesDuringFlood();
    void closesInTime_data();
    void closesInTime();
    void refusesLongBodies();
    void refusesTunnels();
    void keepsViewerThatSendsReports();
    void answersWithoutPictures();
    void limitsSessionsPerAddress();
    void makesRoomForOtherAddresses();
    void makesRoomForNewcomers();
    void logsRefusals();
    void limitsLines();

private:
    void serve(const QByteArray& settings = "{}", bool pictures = true);

    StreamRig rig;
    tq::UDPOutConfig config{};
    std::unique_ptr<tq::UDPOutput> output;
    std::unique_ptr<Feeder> feeder;
};

void StreamLimitsTest::cleanup()
{
    feeder.reset();
    output.reset();
}

void StreamLimitsTest::serve(const QByteArray& settings, bool pictures)
{
    rig.use(settings);
    config = configuration(freePort());
    output = std::make_unique<tq::UDPOutput>(tq::STREAMING_MODE::LIVE, true);
    QCOMPARE(output->open(config), 0);
    if (pictures)
        feeder = std::make_unique<Feeder>(*output, config);
}

void StreamLimitsTest::servesDuringFlood_data()
{
    QTest::addColumn<QByteArray>("begin");
    QTest::addColumn<QByteArray>("piece");
    const QByteArray request = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n";
    QTest::newRow("headers") << request << QByteArray("a:b\r\n");
    QTest::newRow("line ends") << QByteArray() << QByteArray("\r\n");
    QTest::newRow("one line") << request << QByteArray("a");
    QTest::newRow("requests") << QByteArray() << request + "\r\n";
    QTest::newRow("packets") << QByteArray() << QByteArray("$\0\0\4abcd", 8);
}

void StreamLimitsTest::servesDuringFlood()
{
    QFETCH(QByteArray, begin);
    QFETCH(QByteArray, piece);
    serve();
    RtspClient before(config.port);
    QVERIFY(before.start());
    const Flood flood(config.port, begin, piece);
    QVERIFY(waitFor([&] { return flood.bytes() > 100000; }));
    QVERIFY(receivesFrameByUdp(config.port));
    QVERIFY(receivesFrameByTcp(config.port));
    QVERIFY(before.packetsUntil([](const Packet& p) { return p.channel == 0 && p.marker(); }));
    // Again and again, and never with much in the server's memory.
    QVERIFY(waitFor([&] { return flood.timesCutOff() >= 4; }));
    QVERIFY2(flood.bytes() / 4 < (8u << 20), qPrintable(QString::number(flood.bytes())));
}

void StreamLimitsTest::closesInTime_data()
{
    servesDuringFlood_data();
    QTest::newRow("half a request") << QByteArray("DESCRIBE rtsp://") << QByteArray();
    QTest::newRow("no request") << QByteArray() << QByteArray();
}

void StreamLimitsTest::closesInTime()
{
    QFETCH(QByteArray, begin);
    QFETCH(QByteArray, piece);
    serve();
    RtspClient stuck(config.port, 2048);
    QVERIFY(stuck.start());
    RtspClient other(config.port);
    std::list<Flood> floods;
    if (piece.isEmpty()) {
        other.send(begin);
    } else {
        floods.emplace_back(config.port, begin, piece);
        QVERIFY(waitFor([&] { return floods.front().bytes() > 100000; }));
    }
    feeder->stop();  // the sender is closed by who feeds it
    const auto closing = Clock::now();
    output->close();
    QVERIFY2(milliseconds(closing) < 1000, qPrintable(QString::number(milliseconds(closing))));
    QCOMPARE(output->open(config), 0);
}

void StreamLimitsTest::refusesLongBodies()
{
    serve();
    RtspClient client(config.port);
    const Response response =
        client.request("SET_PARAMETER", client.url(),
                       "Content-Type: text/plain\r\nContent-Length: 2000000000\r\n");
    QVERIFY2(response.status != 200, qPrintable(QString::number(response.status)));
    QVERIFY(client.closedByServer(kInTime));
}

// The second connection of a tunnel would escape those who look after connections.
void StreamLimitsTest::refusesTunnels()
{
    serve();
    RtspClient client(config.port);
    client.send(
        "GET /stereo HTTP/1.0\r\nx-sessioncookie: abc\r\nAccept: "
        "application/x-rtsp-tunnelled\r\n\r\n");
    // The answer to what follows is the first one.
    const Response response = client.request("OPTIONS", client.url());
    QVERIFY2(response.headers.value("public").contains("DESCRIBE"),
             qPrintable(QString::number(response.status)));
}

// More of them than a request may be long; they have no answers.
void StreamLimitsTest::keepsViewerThatSendsReports()
{
    serve();
    RtspClient viewer(config.port);
    QVERIFY(viewer.start());
    const QByteArray report = QByteArray::fromHex("2401000880c9000112345678");
    for (int i = 0; i < 2000; ++i)
        QVERIFY(viewer.send(report));
    const std::size_t later = feeder->framesFed() + 30;
    QVERIFY(waitFor([&] { return feeder->framesFed() >= later; }));
    int frames = 0;
    QVERIFY(viewer.packetsUntil(
        [&](const Packet& p) { return p.channel == 0 && p.marker() && ++frames == 30; }));
}

void StreamLimitsTest::answersWithoutPictures()
{
    serve("{}", false);
    const auto describe = [&](int limit) {
        const auto begin = Clock::now();
        RtspClient client(config.port);
        const int status = client.describe().status;
        return milliseconds(begin) < limit ? status : 0;
    };
    // A second of patience: the first picture may be on its way.
    QCOMPARE(describe(4000), 503);
    // None for anybody from then on.
    QCOMPARE(describe(1000), 503);
    RtspClient other(config.port);
    QCOMPARE(other.setup(0).status, 503);
    QCOMPARE(other.request("OPTIONS", other.url()).status, 200);
    feeder = std::make_unique<Feeder>(*output, config);
    QVERIFY(waitFor([&] { return feeder->framesFed() > 0; }));
    QCOMPARE(describe(4000), 200);
}

void StreamLimitsTest::limitsSessionsPerAddress()
{
    serve(R"({"maxClients": 4})");
    RtspClient first(config.port);
    QVERIFY(first.start());
    // One connection may ask for any number of sessions.
    RtspClient greedy(config.port);
    QCOMPARE(greedy.setup(0).status, 200);
    greedy.forgetSession();
    QCOMPARE(greedy.setup(0).status, 503);
    RtspClient third(config.port);
    QCOMPARE(third.setup(0).status, 503);
    RtspClient elsewhere(config.port, 0, "127.0.0.2");
    QVERIFY(elsewhere.start());
    QCOMPARE(first.request("TEARDOWN", first.url()).status, 200);
    QCOMPARE(third.setup(0).status, 200);
}

// More connections than are put up with: the address that holds most of them loses one.
void StreamLimitsTest::makesRoomForOtherAddresses()
{
    serve(R"({"maxClients": 2})");
    RtspClient elsewhere(config.port, 0, "127.0.0.2");
    QCOMPARE(elsewhere.request("OPTIONS", elsewhere.url()).status, 200);
    std::list<RtspClient> idle;
    for (int i = 0; i < 30; ++i)
        idle.emplace_back(config.port);
    QVERIFY(idle.front().closedByServer(kInTime));
    QVERIFY(elsewhere.start());
}

// Where every address holds one, the connection that has said nothing for longest goes.
void StreamLimitsTest::makesRoomForNewcomers()
{
    serve(R"({"maxClients": 2})");
    std::list<RtspClient> idle;
    for (int i = 1; i <= 30; ++i)
        idle.emplace_back(config.port, 0, "127.0.1." + QByteArray::number(i));
    QVERIFY(idle.front().closedByServer(kInTime));
    RtspClient newcomer(config.port);
    QVERIFY(newcomer.start());
}

void StreamLimitsTest::logsRefusals()
{
    const QByteArray log = errorOutput([&] {
        serve(R"({"maxClients": 1})");
        RtspClient viewer(config.port);
        QVERIFY(viewer.start());
        RtspClient other(config.port);
        QCOMPARE(other.setup(0).status, 503);
    });
    QVERIFY2(log.contains("client 127.0.0.1 is refused: no more than 1 clients are served\n"), log);
}

void StreamLimitsTest::limitsLines()
{
    const QByteArray log = errorOutput([&] {
        serve();
        for (int i = 0; i < 300; ++i) {
            RtspClient client(config.port);
            QCOMPARE(client.request("OPTIONS", client.url()).status, 200);
        }
    });
    QVERIFY2(log.count("is gone") <= 40, qPrintable(QString::number(log.count("is gone"))));
}

QTEST_GUILESS_MAIN(StreamLimitsTest)
#include "stream_limits_test.moc"
