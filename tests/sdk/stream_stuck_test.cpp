// SPDX-License-Identifier: Apache-2.0
// Viewers by TCP that stop reading, and those who come before and after them.
#include <QTest>
#include <list>

#include "tests/sdk/stream_testing.h"

using namespace streamtest;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kFirstFrame = 2000;  // ms from the connection on

/// A viewer of the video. One that is stuck never reads; the others do so in the background once
/// they have had a first frame.
class Viewer {
public:
    /// @param viewerKind 'u' by UDP, 't' by TCP, 's' stuck, by TCP
    Viewer(int port, char viewerKind)
        : kind(viewerKind),
          begin(Clock::now()),
          beginTime(rtpTime(realTime())),
          client(port, viewerKind == 's' ? 2048 : 0)
    {
        const bool described = client.describe().status == 200;
        const Response setup = kind == 'u' ? client.setupUdp(0, media.port()) : client.setup(0);
        plays = described && setup.status == 200 && client.play().status == 200;
    }

    /// Whether a key frame came in time that was captured after the connection was made, and then
    /// the end of a frame that is at most half a second old.
    bool hasFirstFrame()
    {
        bool whole = false;
        for (bool key = false; plays && !whole && left() > 0;) {
            const Packet packet = next(left());
            if (packet.bytes.isEmpty() || packet.channel != 0)
                continue;
            const auto age = static_cast<std::int32_t>(packet.timestamp() - beginTime);
            key = key || (age > 0 && packet.beginsKeyFrame());
            const auto delay = static_cast<std::int32_t>(rtpTime(realTime()) - packet.timestamp());
            whole = key && packet.marker() && delay < 45000;
        }
        reader = std::make_unique<Repeater>([this] { next(100); }, std::chrono::milliseconds(0));
        return whole;
    }

    bool isPlaying() const { return plays; }

private:
    Packet next(int milliseconds)
    {
        return kind == 'u' ? media.packet(milliseconds) : client.packet(milliseconds);
    }

    int left() const
    {
        return kFirstFrame - static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                  Clock::now() - begin)
                                                  .count());
    }

    const char kind;
    const Clock::time_point begin;
    const std::uint32_t beginTime;
    const UdpPort media;
    RtspClient client;
    bool plays = false;
    std::unique_ptr<Repeater> reader;
};

}  // namespace

class StreamStuckTest : public QObject {
    Q_OBJECT

private slots:
    void servesNewcomers_data();
    void servesNewcomers();
};

void StreamStuckTest::servesNewcomers_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::newRow("a stuck one alone, UDP comes") << QByteArray("s") << QByteArray("ut");
    QTest::newRow("a stuck one alone, TCP comes") << QByteArray("s") << QByteArray("tu");
    QTest::newRow("only stuck ones") << QByteArray("sss") << QByteArray("tu");
    QTest::newRow("stuck, UDP") << QByteArray("su") << QByteArray("tu");
    QTest::newRow("UDP, stuck") << QByteArray("us") << QByteArray("ut");
    QTest::newRow("stuck, TCP") << QByteArray("st") << QByteArray("ut");
    QTest::newRow("TCP, stuck") << QByteArray("ts") << QByteArray("tu");
}

void StreamStuckTest::servesNewcomers()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    const StreamRig rig(R"({"maxClients": 8, "maxPerAddress": 8, "bitrate": 60000})");
    const tq::UDPOutConfig config = configuration(freePort(), 320, 240);
    tq::UDPOutput output(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output.open(config), 0);
    const Feeder feeder(output, config, true);
    std::list<Viewer> viewers;
    for (const char kind : before) {
        viewers.emplace_back(config.port, kind);
        QVERIFY(viewers.back().isPlaying());
        QVERIFY(kind == 's' || viewers.back().hasFirstFrame());
    }
    // More than all buffers on the way to a stuck client hold: a quarter of a megabyte each.
    const std::size_t enough = feeder.framesFed() + 60;
    QVERIFY(waitFor([&] { return feeder.framesFed() >= enough; }));
    for (const char kind : after) {
        viewers.emplace_back(config.port, kind);
        QVERIFY(viewers.back().hasFirstFrame());
    }
}

QTEST_GUILESS_MAIN(StreamStuckTest)
#include "stream_stuck_test.moc"
