// SPDX-License-Identifier: Apache-2.0
// The network sender under load: no work without clients, no blocking, dropped frames counted.
// GLib's headers use words that Qt's make macros of, so they come first.
#include "sdk/stream/streamsender.h"

#include <QTest>
#include <algorithm>

#include "tests/sdk/stream_testing.h"

using namespace streamtest;
using tq::stream::SenderStatistics;
using tq::stream::StreamSender;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint64_t kProbe = ~std::uint64_t{0};  // sequence number of packets that only try

/// Whether packets reach the client: the answer to PLAY may come a moment before they do.
bool delivers(StreamSender& sender)
{
    return waitFor([&] {
        sender.ingestIMU(imuPacket(realTime(), kProbe));
        return sender.statistics().imuSent > 0;
    });
}

/// A thread that does nothing but notice when the machine does not let it run.
class PauseMeter {
public:
    PauseMeter() : thread([this] { run(); }) {}
    ~PauseMeter() { stop(); }

    /// The longest time between two of its turns, in milliseconds.
    std::int64_t stop()
    {
        stopped = true;
        if (thread.joinable())
            thread.join();
        return longest;
    }

private:
    void run()
    {
        auto last = Clock::now();
        while (!stopped) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const auto now = Clock::now();
            longest = std::max<std::int64_t>(
                longest, std::chrono::duration_cast<std::chrono::milliseconds>(now - last).count());
            last = now;
        }
    }

    std::atomic<bool> stopped{false};
    std::int64_t longest = 0;
    std::thread thread;
};

}  // namespace

class StreamLoadTest : public QObject {
    Q_OBJECT

private slots:
    void encodesNothingWithoutClients();
    void stopsEncodingAfterLastClient();
    void neverBlocksAndCountsDrops();
    void dropsTheOldest();
    void keepsManyRecordsAtOnce();

private:
    StreamRig rig;
};

void StreamLoadTest::encodesNothingWithoutClients()
{
    StreamSender sender(false);
    const tq::UDPOutConfig config = configuration(freePort(), 640, 480);
    QVERIFY(sender.open(config) == tq::ErrorCode::SUCCESS);
    std::vector<unsigned char> pixels = picture(640, 480);
    for (unsigned i = 0; i < 1000; ++i) {
        sender.ingestFrame(pixels.data(), realTime() + i, {});
        sender.ingestIMU(imuPacket(realTime(), i));
    }
    const SenderStatistics counts = sender.statistics();
    QCOMPARE(counts.framesIngested, 1000u);
    QCOMPARE(counts.framesUnwanted, 1000u);
    QCOMPARE(counts.framesEncoded, 0u);
    QCOMPARE(counts.framesDropped, 0u);
    QCOMPARE(counts.imuSent, 0u);
}

void StreamLoadTest::stopsEncodingAfterLastClient()
{
    StreamSender sender(false);
    const tq::UDPOutConfig config = configuration(freePort());
    QVERIFY(sender.open(config) == tq::ErrorCode::SUCCESS);
    std::vector<unsigned char> pixels = picture(160, 120);
    const Repeater source([&] { sender.ingestFrame(pixels.data(), realTime(), {}); },
                          std::chrono::milliseconds(10));
    for (int round = 0; round < 2; ++round) {
        auto client = std::make_unique<RtspClient>(config.port);
        QVERIFY(client->start());
        QVERIFY(client->packetsUntil([](const Packet& p) { return p.channel == 0 && p.marker(); }));
        const std::uint64_t before = sender.statistics().framesEncoded;
        QVERIFY(waitFor([&] { return sender.statistics().framesEncoded > before + 10; }));
        client.reset();
        const auto unwanted = [&] { return sender.statistics().framesUnwanted; };
        const std::uint64_t unwantedBefore = unwanted();
        QVERIFY(waitFor([&] { return unwanted() > unwantedBefore + 10; }));
        const std::uint64_t after = sender.statistics().framesEncoded;
        const std::uint64_t then = unwanted();
        QVERIFY(waitFor([&] { return unwanted() > then + 30; }));
        QCOMPARE(sender.statistics().framesEncoded, after);
    }
}

void StreamLoadTest::neverBlocksAndCountsDrops()
{
    // Far too much for any encoder here.
    StreamSender sender(false);
    const tq::UDPOutConfig config = configuration(freePort(), 1280, 1024);
    QVERIFY(sender.open(config) == tq::ErrorCode::SUCCESS);
    std::vector<unsigned char> pixels = picture(1280, 1024);
    std::atomic<bool> measure{false};
    std::atomic<std::int64_t> longest{0};
    const auto ingest = [&, time = realTime()]() mutable {
        time += 1000000;
        const auto begin = Clock::now();
        sender.ingestFrame(pixels.data(), time, {});
        const std::int64_t took =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
        if (measure)
            longest = std::max<std::int64_t>(longest, took);
    };
    const Repeater source(ingest, std::chrono::milliseconds(0));
    RtspClient client(config.port);
    QVERIFY(client.start());
    PauseMeter pauses;
    measure = true;
    std::uint64_t lastCounter = 0;
    std::uint64_t gaps = 0;
    std::uint64_t reportedDrops = 0;
    int seen = 0;
    QVERIFY(client.packetsUntil(
        [&](const Packet& p) {
            for (const Record& record :
                 p.channel == 2 ? records(p.payload()) : std::vector<Record>()) {
                const std::uint64_t counter = record.number(8, 8);
                if (seen++ > 0)
                    gaps += counter - lastCounter - 1;
                lastCounter = counter;
                reportedDrops = record.number(24, 8);
            }
            return seen == 30;
        },
        60000));
    measure = false;
    const SenderStatistics counts = sender.statistics();
    const std::int64_t pause = pauses.stop();
    QVERIFY2(longest < 500 + pause, qPrintable(QString("%1, pause %2").arg(longest).arg(pause)));
    // An encoder that held the source up would have it wait for every frame.
    const std::uint64_t wanted = counts.framesIngested - counts.framesUnwanted;
    QVERIFY2(wanted > 2 * counts.framesEncoded,
             qPrintable(QString("%1 of %2").arg(counts.framesEncoded).arg(wanted)));
    QVERIFY(counts.framesDropped > 0);
    QVERIFY(gaps > 0);
    // Gaps in the counter are exactly the frames that were dropped since the first record.
    QCOMPARE(reportedDrops, gaps);
    QVERIFY(counts.framesEncoded + counts.framesDropped + counts.framesUnwanted <=
            counts.framesIngested);
    QVERIFY(counts.framesIngested - counts.framesEncoded - counts.framesDropped -
                counts.framesUnwanted <=
            9);
}

// Whatever waits is newer than what was dropped: the last frame of a burst always arrives.
void StreamLoadTest::dropsTheOldest()
{
    StreamSender sender(false);
    const tq::UDPOutConfig config = configuration(freePort(), 1280, 1024);
    QVERIFY(sender.open(config) == tq::ErrorCode::SUCCESS);
    std::vector<unsigned char> pixels = picture(1280, 1024);
    RtspClient client(config.port);
    {
        const Repeater source([&] { sender.ingestFrame(pixels.data(), realTime(), {}); },
                              std::chrono::milliseconds(50));
        QVERIFY(client.start());
    }
    QVERIFY(delivers(sender));
    const tq::Timestamp begin = realTime();
    for (unsigned i = 0; i < 40; ++i)
        sender.ingestFrame(pixels.data(), begin + i, {});
    QVERIFY(sender.statistics().framesDropped > 0);
    std::vector<std::uint64_t> times;
    QVERIFY(client.packetsUntil([&](const Packet& p) {
        for (const Record& record : p.channel == 2 ? records(p.payload()) : std::vector<Record>()) {
            if (record.kind == 1)
                times.push_back(record.number(16, 8));
        }
        return !times.empty() && times.back() == begin + 39;
    }));
    QVERIFY(std::is_sorted(times.begin(), times.end()));
}

void StreamLoadTest::keepsManyRecordsAtOnce()
{
    StreamSender sender(false);
    const tq::UDPOutConfig config = configuration(freePort());
    QVERIFY(sender.open(config) == tq::ErrorCode::SUCCESS);
    std::vector<unsigned char> pixels = picture(160, 120);
    const Repeater source([&] { sender.ingestFrame(pixels.data(), realTime(), {}); },
                          std::chrono::milliseconds(20));
    RtspClient client(config.port);
    QVERIFY(client.start());
    QVERIFY(client.packetsUntil([](const Packet& p) { return p.channel == 0 && p.marker(); }));
    QVERIFY(delivers(sender));
    constexpr unsigned kPackets = 1000;
    for (unsigned i = 0; i < kPackets; ++i)
        sender.ingestIMU(imuPacket(realTime(), i));
    // In their order, without a gap.
    std::uint64_t next = 0;
    std::uint64_t seen = 0;
    const bool all = client.packetsUntil(
        [&](const Packet& p) {
            for (const Record& record :
                 p.channel == 2 ? records(p.payload()) : std::vector<Record>()) {
                seen += record.kind == 2 ? 1 : 0;
                if (record.kind == 2 && record.number(16, 8) == next)
                    ++next;
            }
            return next == kPackets;
        },
        120000);
    QVERIFY2(all, qPrintable(QString("%1 of %2, %3 seen").arg(next).arg(kPackets).arg(seen)));
}

QTEST_GUILESS_MAIN(StreamLoadTest)
#include "stream_load_test.moc"
