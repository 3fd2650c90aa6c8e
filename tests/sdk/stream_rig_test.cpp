// SPDX-License-Identifier: Apache-2.0
// Which rig a stream goes by, and that the address in it holds for all sockets.
#include <QDirIterator>
#include <QTest>

#include "tests/sdk/stream_testing.h"

using namespace streamtest;

namespace {

/// The local addresses of all UDP sockets of this process by their ports, as the system lists them.
QMap<int, QString> udpSockets()
{
    QStringList links;
    QDirIterator files("/proc/self/fd", QDir::System | QDir::Files);
    while (files.hasNext())
        links << QFile::symLinkTarget(files.next()).section('/', -1);
    QMap<int, QString> addresses;
    for (const char* table : {"/proc/self/net/udp", "/proc/self/net/udp6"}) {
        QFile file(table);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray& line : file.readAll().split('\n')) {
            const QStringList fields = QString(line).simplified().split(' ');
            if (fields.size() > 9 && links.contains("socket:[" + fields[9] + "]"))
                addresses.insert(fields[1].section(':', 1).toInt(nullptr, 16),
                                 fields[1].section(':', 0, 0));
        }
    }
    return addresses;
}

/// The first of the ports that the server sends a stream from.
int serverPort(const Response& setup)
{
    return setup.headers.value("transport").section("server_port=", 1).section('-', 0, 0).toInt();
}

}  // namespace

class StreamRigTest : public QObject {
    Q_OBJECT

private slots:
    void goesByTheEnumeratedRig();
    void bindsMediaToTheAddress_data();
    void bindsMediaToTheAddress();
    void streamsShareAnAddress();
};

// A stream that is opened while the file is gone, or half written, is as protected as the others.
void StreamRigTest::goesByTheEnumeratedRig()
{
    StreamRig rig(R"({"bindAddress": "127.0.0.1", "user": "u", "password": "p"})");
    QVERIFY(ArgusCamera::getGMSLDevices(true, false).empty());
    QVERIFY(QFile::remove(rig.path()));
    const tq::UDPOutConfig config = configuration(freePort());
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, true);
    int result = -1;
    QByteArray log = errorOutput([&] { result = output.open(config); });
    QCOMPARE(result, 0);
    QVERIFY2(log.contains("rtsp://127.0.0.1:"), log);
    QCOMPARE(RtspClient(config.port).describe().status, 401);
    output.close();

    // The next enumeration finds nothing to go by.
    errorOutput([] { QVERIFY(ArgusCamera::getGMSLDevices(true, false).empty()); });
    log = errorOutput([&] { result = output.open(config); });
    QCOMPARE(result, static_cast<int>(tq::ErrorCode::INVALID_RIG));
    QVERIFY2(log.contains("rig.json: document: cannot be read"), log);
}

void StreamRigTest::bindsMediaToTheAddress_data()
{
    QTest::addColumn<QByteArray>("address");
    QTest::addColumn<QString>("listed");
    QTest::newRow("one address") << QByteArray("127.0.0.1") << "0100007F";
    QTest::newRow("all addresses") << QByteArray("0.0.0.0") << "00000000";
}

void StreamRigTest::bindsMediaToTheAddress()
{
    QFETCH(QByteArray, address);
    QFETCH(QString, listed);
    const StreamRig rig("{\"bindAddress\": \"" + address + "\"}");
    const tq::UDPOutConfig config = configuration(freePort());
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    Feeder feeder(output, config);
    RtspClient client(config.port);
    QCOMPARE(client.describe().status, 200);
    const UdpPort video;
    const UdpPort data;
    QMap<int, QString> expected;
    for (const int stream : {0, 1}) {
        const UdpPort& own = stream == 0 ? video : data;
        expected.insert(own.port(), "00000000");
        const Response setup = client.setupUdp(stream, own.port());
        QCOMPARE(setup.status, 200);
        expected.insert(serverPort(setup), listed);      // RTP
        expected.insert(serverPort(setup) + 1, listed);  // RTCP
    }
    QCOMPARE(udpSockets(), expected);
    QCOMPARE(client.play().status, 200);
    QVERIFY(video.receives(20000));
    QVERIFY(data.receives(20000));
}

void StreamRigTest::streamsShareAnAddress()
{
    const StreamRig rig(R"({"bindAddress": "127.0.0.1"})");
    const tq::UDPOutConfig left = configuration(freePort());
    const tq::UDPOutConfig right = configuration(freePort());
    tq::UDPOutput outputs[] = {{tq::STREAMING_MODE::LIVE, false},
                               {tq::STREAMING_MODE::LIVE, false}};
    QCOMPARE(outputs[0].open(left), 0);
    QCOMPARE(outputs[1].open(right), 0);
    Feeder leftFeeder(outputs[0], left);
    Feeder rightFeeder(outputs[1], right);
    QSet<int> ports;
    const UdpPort video;
    const UdpPort other;
    RtspClient leftClient(left.port);
    RtspClient rightClient(right.port);
    for (RtspClient* client : {&leftClient, &rightClient}) {
        const UdpPort& port = client == &leftClient ? video : other;
        QCOMPARE(client->describe().status, 200);
        ports.insert(serverPort(client->setupUdp(0, port.port())));
        QCOMPARE(client->play().status, 200);
        QVERIFY(port.receives(20000));
    }
    QCOMPARE(ports.size(), 2);
}

QTEST_GUILESS_MAIN(StreamRigTest)
#include "stream_rig_test.moc"
