// SPDX-License-Identifier: Apache-2.0
// What the network sender puts on the wire, byte by byte, read as docs/stream-format.md says.
#include <QRegularExpression>
#include <QSet>
#include <QTest>
#include <algorithm>

#include "sdk/stream/datarecords.h"
#include "tests/sdk/stream_testing.h"

using namespace streamtest;

namespace {

constexpr std::uint64_t kNtpToUnix = 2208988800u;

QByteArray hexDumpOfPage()
{
    QFile page(QString(VISTREL_SOURCE_DIR) + "/docs/stream-format.md");
    if (!page.open(QIODevice::ReadOnly))
        return {};
    QByteArray bytes;
    const QRegularExpression line("^    [0-9A-F]{4}  ((?:[0-9A-F]{2} ?)+)$",
                                  QRegularExpression::MultilineOption);
    auto matches = line.globalMatch(QString::fromUtf8(page.readAll()));
    while (matches.hasNext())
        bytes += QByteArray::fromHex(matches.next().captured(1).toLatin1());
    return bytes;
}

}  // namespace

class StreamWireTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void describesTheSession();
    void documentsTheRecord();
    void usesTheSerialAsSource();
    void timesVideoByCapture();
    void carriesNtpTime();
    void reportsSenderTime();
    void pairsRecordsWithFrames();
    void carriesEveryImuPacketOnce();
    void carriesMetadata();
    void startsNewClientsWithKeyFrame();
    void survivesClockSteps();

private:
    StreamRig rig;
    tq::UDPOutConfig config{};
    std::unique_ptr<tq::UDPOutput> output;
    std::unique_ptr<Feeder> feeder;
};

void StreamWireTest::init()
{
    config = configuration(freePort());
    output = std::make_unique<tq::UDPOutput>(tq::STREAMING_MODE::LIVE, false);
    QCOMPARE(output->open(config), 0);
    feeder = std::make_unique<Feeder>(*output, config);
}

void StreamWireTest::cleanup()
{
    feeder.reset();
    output.reset();
}

void StreamWireTest::describesTheSession()
{
    RtspClient client(config.port);
    Response response = client.describe();
    QCOMPARE(response.status, 200);
    const QList<QByteArray> lines = response.body.replace("\r", "").split('\n');
    QVERIFY(lines.contains("s=KOR stereo 100000001"));
    QVERIFY(lines.contains("a=x-kor-serial:100000001"));
    QVERIFY(lines.contains("a=x-kor-eye-size:160x120"));
    QVERIFY(lines.contains("a=x-kor-fps:30"));
    QVERIFY(lines.contains("a=x-kor-imu-rate:2000"));
    QVERIFY(lines.contains("a=x-kor-model:11"));
    QVERIFY(lines.contains("a=x-kor-device-version:1523"));
    QVERIFY(lines.contains("m=video 0 RTP/AVP 96"));
    QVERIFY(lines.contains("a=rtpmap:96 H264/90000"));
    QVERIFY(lines.contains("m=application 0 RTP/AVP 97"));
    QVERIFY(lines.contains("a=rtpmap:97 SMPTE336M/90000"));
    QVERIFY(response.body.contains("sprop-parameter-sets="));
    QCOMPARE(std::count_if(lines.begin(), lines.end(),
                           [](const QByteArray& line) { return line.startsWith("m="); }),
             2);
    QVERIFY(response.body.indexOf("m=video") < response.body.indexOf("m=application"));
}

void StreamWireTest::documentsTheRecord()
{
    tq::stream::FrameRecord record;
    record.serial = 100000001;
    record.counter = 42;
    record.captureTime = 1700000000123456789u;
    record.framesDropped = 3;
    record.eyeWidth = 1920;
    record.eyeHeight = 1200;
    record.fps = 30;
    record.imuRate = 2000;
    record.deviceVersion = 1523;
    record.modelCode = 11;
    record.metadata.imuTimestamp = 1700000000121000000u;
    record.metadata.imuSequence = 777;
    record.metadata.acceleration[2] = 9.80665;
    record.metadata.angularRate[0] = -0.25;
    record.metadata.orientation[3] = 1;
    record.metadata.temperature = 36.5;
    record.metadata.validFields = 0x1B;
    const auto bytes = tq::stream::encodeFrameRecord(record);
    const QByteArray encoded(reinterpret_cast<const char*>(bytes.data()),
                             static_cast<int>(bytes.size()));
    QCOMPARE(hexDumpOfPage(), encoded);
    QCOMPARE(rtpTime(record.captureTime), 380025703u);
    // 60 bytes into the value, which begins at the 19th.
    record.eyeOffset = -2;
    const auto late = tq::stream::encodeFrameRecord(record);
    QCOMPARE(std::vector<std::uint8_t>(late.begin() + 79, late.begin() + 83),
             (std::vector<std::uint8_t>{0xFF, 0xFF, 0xFF, 0xFE}));
}

void StreamWireTest::usesTheSerialAsSource()
{
    RtspClient client(config.port);
    QVERIFY(client.start());
    QSet<int> seen;
    QVERIFY(client.packetsUntil([&](const Packet& p) {
        if (p.channel % 2 == 0 && !seen.contains(p.channel)) {
            seen.insert(p.channel);
            const std::uint32_t source = p.channel == 0 ? 100000001u : 100000001u ^ 0x80000000u;
            if (p.ssrc() != source || p.payloadType() != (p.channel == 0 ? 96 : 97))
                seen.insert(-1);
        }
        return seen.contains(0) && seen.contains(2);
    }));
    QVERIFY(!seen.contains(-1));
}

void StreamWireTest::timesVideoByCapture()
{
    RtspClient client(config.port);
    QVERIFY(client.start());
    std::vector<std::uint32_t> times;
    QVERIFY(client.packetsUntil([&](const Packet& p) {
        if (p.channel == 0 && p.marker())
            times.push_back(p.timestamp());
        return times.size() == 40;
    }));
    feeder->stop();
    QSet<std::uint32_t> sent;
    for (const tq::Timestamp time : feeder->frameTimes())
        sent.insert(rtpTime(time));
    for (const std::uint32_t time : times)
        QVERIFY2(sent.contains(time), qPrintable(QString::number(time)));
    QVERIFY(std::is_sorted(times.begin(), times.end(), [](std::uint32_t a, std::uint32_t b) {
        return static_cast<std::int32_t>(a - b) < 0;
    }));
}

void StreamWireTest::carriesNtpTime()
{
    RtspClient client(config.port);
    const Response description = client.describe();
    if (!description.body.contains("urn:ietf:params:rtp-hdrext:ntp-64"))
        QSKIP("the installed GStreamer has no rtphdrextntp64");
    QCOMPARE(client.setup(0).status, 200);
    QCOMPARE(client.setup(1).status, 200);
    QCOMPARE(client.play().status, 200);
    QMap<std::uint32_t, qint64> extensionTimes;  // ns since 1970, by RTP time
    int frames = 0;
    QVERIFY(client.packetsUntil([&](const Packet& p) {
        if (p.channel == 0 && p.hasExtension() && (p.extension()[0] & 0xFF) == 0x17) {
            const Packet time{0, p.extension().mid(1, 8)};
            extensionTimes[p.timestamp()] =
                static_cast<qint64>(time.u32(0) - kNtpToUnix) * 1000000000 +
                (qint64{time.u32(4)} * 1000000000 >> 32);
        }
        return p.channel == 0 && p.marker() && ++frames == 20;
    }));
    feeder->stop();
    QCOMPARE(extensionTimes.size(), 20);
    int matched = 0;
    for (const tq::Timestamp time : feeder->frameTimes()) {
        const auto found = extensionTimes.find(rtpTime(time));
        if (found != extensionTimes.end()) {
            ++matched;
            const qint64 error = *found - static_cast<qint64>(time);
            QVERIFY2(qAbs(error) <= 2, qPrintable(QString::number(error)));
        }
    }
    QCOMPARE(matched, 20);
}

void StreamWireTest::reportsSenderTime()
{
    RtspClient client(config.port);
    QVERIFY(client.start());
    QVERIFY(client.packetsUntil(
        [&](const Packet& p) {
            if (p.channel != 1 || static_cast<std::uint8_t>(p.bytes[1]) != 200)
                return false;
            const std::uint64_t ns = (p.u32(8) - kNtpToUnix) * 1000000000u +
                                     (std::uint64_t{p.u32(12)} * 1000000000u >> 32);
            const auto ticks = static_cast<std::int32_t>(p.u32(16) - rtpTime(ns));
            return qAbs(ticks) < 90;  // a millisecond
        },
        20000));
}

void StreamWireTest::pairsRecordsWithFrames()
{
    RtspClient client(config.port);
    QVERIFY(client.start());
    QSet<std::uint32_t> videoTimes;
    std::vector<std::pair<std::uint32_t, Record>> frameRecords;  // as they came, with RTP time
    QVERIFY(client.packetsUntil([&](const Packet& p) {
        if (p.channel == 0)
            videoTimes.insert(p.timestamp());
        if (p.channel == 2) {
            for (const Record& record : records(p.payload())) {
                if (record.kind == 1)
                    frameRecords.emplace_back(p.timestamp(), record);
            }
        }
        return videoTimes.size() > 40 && frameRecords.size() > 40;
    }));
    feeder->stop();
    const auto& sent = feeder->frameTimes();
    QSet<std::uint32_t> recordTimes;
    std::uint64_t next = 0;
    std::uint64_t dropped = 0;
    for (const auto& [time, record] : frameRecords) {
        recordTimes.insert(time);
        QCOMPARE(record.version, 1);
        QCOMPARE(record.value.size(), 200);
        QCOMPARE(record.number(0, 4), 100000001u);
        // None is missing but those that the sender says it dropped.
        const std::uint64_t drops = record.number(24, 8);
        QCOMPARE(record.number(8, 8) - next, drops - dropped);
        next = record.number(8, 8) + 1;
        dropped = drops;
        const std::uint64_t captured = record.number(16, 8);
        // To the nanosecond one of those that were given to the sender.
        QVERIFY(std::find(sent.begin(), sent.end(), captured) != sent.end());
        QCOMPARE(rtpTime(captured), time);
        QCOMPARE(record.number(32, 2), 1u);
        QCOMPARE(record.number(34, 2), 2u);
        QCOMPARE(record.number(36, 4), 160u);
        QCOMPARE(record.number(40, 4), 120u);
        QCOMPARE(record.number(44, 4), 30u);
        QCOMPARE(record.number(48, 4), 2000u);
        QCOMPARE(record.number(52, 4), 1523u);
        QCOMPARE(record.number(56, 4), 11u);
        QCOMPARE(record.number(60, 4), 0u);
    }
    int unmatched = 0;
    for (const std::uint32_t time : videoTimes)
        unmatched += recordTimes.contains(time) ? 0 : 1;
    // The last frames' records may be under way still.
    QVERIFY2(unmatched <= videoTimes.size() - 40, qPrintable(QString::number(unmatched)));
}

void StreamWireTest::carriesEveryImuPacketOnce()
{
    RtspClient client(config.port);
    QVERIFY(client.start());
    // Playing begins with the first packet; frames that describe the session may come before.
    std::vector<Record> units;
    int frames = 0;
    QVERIFY(client.packetsUntil([&](const Packet& p) {
        const auto found = p.channel == 2 ? records(p.payload()) : std::vector<Record>();
        if (found.size() == 1 && (found[0].kind == 2 || !units.empty())) {
            units.push_back(found[0]);
            frames += found[0].kind == 1 ? 1 : 0;
        }
        return frames == 40;
    }));
    feeder->stop();
    const auto& times = feeder->frameTimes();
    std::uint64_t next = 0;
    int checked = 0;
    for (const Record& unit : units) {
        if (unit.kind == 1) {
            // Three come with every frame, dropped ones included, and just before it.
            const auto frame = std::find(times.begin(), times.end(), unit.number(16, 8));
            QVERIFY(frame != times.end());
            QCOMPARE(next, 3 * static_cast<std::uint64_t>(frame - times.begin() + 1));
            continue;
        }
        const std::uint64_t sequence = unit.number(16, 8);
        if (checked++ > 0)
            QCOMPARE(sequence, next);
        next = sequence + 1;
        const tq::IMUPacket& sent = feeder->imuPackets()[sequence];
        QCOMPARE(unit.value.size(), 360);
        QCOMPARE(unit.number(0, 4), 100000001u);
        QCOMPARE(unit.number(4, 4), 0x3Fu);
        QCOMPARE(unit.number(8, 8), sent.timestamp);
        QCOMPARE(unit.real(24), sent.acceleration[0]);
        QCOMPARE(unit.real(40), 9.80665);
        QCOMPARE(unit.real(56), -0.5);
        QCOMPARE(unit.real(88), 48.25);
        QCOMPARE(unit.real(120), 1.0);
        QCOMPARE(unit.real(128), 36.5);
        QCOMPARE(unit.real(136), 1013.25);
        QCOMPARE(unit.real(144), 1e-4);
        QCOMPARE(unit.real(216 + 32), 2e-4);
        QCOMPARE(unit.real(288 + 64), 3e-4);
    }
    QVERIFY(checked > 3 * 39);
}

void StreamWireTest::carriesMetadata()
{
    RtspClient client(config.port);
    QVERIFY(client.start());
    Record record;
    QVERIFY(client.packetsUntil([&](const Packet& p) {
        const auto found = p.channel == 2 ? records(p.payload()) : std::vector<Record>();
        if (found.empty() || found[0].kind != 1)
            return false;
        record = found[0];
        return true;
    }));
    feeder->stop();
    const tq::IMUPacket& sent = feeder->imuPackets()[record.number(72, 8)];
    QCOMPARE(record.number(4, 4), 0x3Fu);
    QCOMPARE(record.number(64, 8), sent.timestamp);
    QCOMPARE(record.number(64, 8), record.number(16, 8));
    QCOMPARE(record.real(80), sent.acceleration[0]);
    QCOMPARE(record.real(96), 9.80665);
    QCOMPARE(record.real(112), -0.5);
    QCOMPARE(record.real(144), 48.25);
    QCOMPARE(record.real(176), 1.0);
    QCOMPARE(record.real(184), 36.5);
    QCOMPARE(record.real(192), 1013.25);
}

void StreamWireTest::startsNewClientsWithKeyFrame()
{
    RtspClient first(config.port);
    QVERIFY(first.start());
    int frames = 0;
    QVERIFY(first.packetsUntil(
        [&](const Packet& p) { return p.channel == 0 && p.marker() && ++frames == 20; }));
    // Key frames come every four seconds by themselves.
    RtspClient second(config.port);
    QVERIFY(second.start());
    frames = 0;
    bool key = false;
    QVERIFY(second.packetsUntil([&](const Packet& p) {
        if (p.channel != 0)
            return false;
        const QByteArray payload = p.payload();
        const int type = payload[0] & 0x1F;
        // A single unit, the first of an aggregate, or the start of a fragment.
        key = key || type == 5 || (type == 28 && (payload[1] & 0x1F) == 5);
        return p.marker() && (key || ++frames == 30);
    }));
    QVERIFY(key);
}

// The real-time clock of a board may be set while it streams.
void StreamWireTest::survivesClockSteps()
{
    feeder->stop();
    std::vector<unsigned char> pixels = picture(config.width, config.height);
    RtspClient client(config.port);
    std::atomic<tq::Timestamp> base{realTime()};
    const auto ingest = [&, time = tq::Timestamp{0}]() mutable {
        output->ingestYUVFrame(pixels.data(), base + time, {});
        time += 10000000u;
    };
    const Repeater source(ingest, std::chrono::milliseconds(10));
    QVERIFY(client.start());
    const auto receives = [&] {
        int frames = 0;
        return client.packetsUntil(
            [&](const Packet& p) { return p.channel == 0 && p.marker() && ++frames == 100; });
    };
    QVERIFY(receives());
    base = base - 3600u * 1000000000u;
    QVERIFY(receives());
    base = base + 7200u * 1000000000u;
    QVERIFY(receives());
}

QTEST_GUILESS_MAIN(StreamWireTest)
#include "stream_wire_test.moc"
