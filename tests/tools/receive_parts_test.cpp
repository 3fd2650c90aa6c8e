// SPDX-License-Identifier: Apache-2.0
// The parts of vistrel-receive: reading of records, statistics, addresses.
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QVector>
#include <cmath>
#include <limits>
#include <optional>

#include "sdk/stream/recordreader.h"
#include "tools/receive/options.h"
#include "tools/receive/statistics.h"

using namespace receive;
using tq::wire::readRecords;
using tq::wire::RecordHandler;
using tq::wire::UnitCollector;

namespace {

QByteArray label(int kind, int version = 1)
{
    QByteArray bytes = QByteArray::fromHex("060E2B34020501010F4B4F5201000000");
    bytes[13] = static_cast<char>(kind);
    bytes[14] = static_cast<char>(version);
    return bytes;
}

QByteArray bigEndian(std::uint64_t value, int bytes)
{
    QByteArray result;
    for (int i = bytes; i-- > 0;)
        result.append(static_cast<char>(value >> (8 * i)));
    return result;
}

QByteArray frameUnit(std::uint64_t counter, std::uint64_t time, int extraBytes = 0, int version = 1)
{
    QByteArray value = bigEndian(100000001, 4) + bigEndian(0, 4) + bigEndian(counter, 8) +
                       bigEndian(time, 8) + bigEndian(7, 8) + bigEndian(1, 2) + bigEndian(2, 2) +
                       bigEndian(1920, 4) + bigEndian(1200, 4) + bigEndian(30, 4) +
                       bigEndian(2000, 4) + bigEndian(1523, 4) + bigEndian(11, 4) +
                       bigEndian(static_cast<std::uint64_t>(-12345678), 4);
    value.append(QByteArray(200 - value.size() + extraBytes, '\0'));
    return label(1, version) + '\x82' + bigEndian(static_cast<std::uint64_t>(value.size()), 2) +
           value;
}

struct Collected {
    std::vector<FrameRecord> frames;
    std::vector<ImuRecord> packets;
    bool whole = false;
};

Collected read(const QByteArray& bytes)
{
    Collected result;
    RecordHandler handler;
    handler.frame = [&](const FrameRecord& record) { result.frames.push_back(record); };
    handler.imu = [&](const ImuRecord& record) { result.packets.push_back(record); };
    result.whole = readRecords(reinterpret_cast<const std::uint8_t*>(bytes.constData()),
                               static_cast<std::size_t>(bytes.size()), handler);
    return result;
}

std::optional<QByteArray> add(UnitCollector& collector, std::uint16_t sequence,
                              const QByteArray& payload, bool marker = false)
{
    const std::vector<std::uint8_t>* const unit =
        collector.add(sequence, marker, reinterpret_cast<const std::uint8_t*>(payload.constData()),
                      static_cast<std::size_t>(payload.size()));
    return unit ? std::make_optional(QByteArray(reinterpret_cast<const char*>(unit->data()),
                                                static_cast<int>(unit->size())))
                : std::nullopt;
}

FrameRecord record(std::uint64_t counter, std::uint64_t time = 1700000000123456789u)
{
    FrameRecord result;
    result.serial = 100000001;
    result.counter = counter;
    result.captureTime = time;
    return result;
}

QJsonObject json(const Statistics& statistics)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(statistics.json("x", 1))).object();
}

}  // namespace

class ReceivePartsTest : public QObject {
    Q_OBJECT

private slots:
    void readsFrames();
    void readsSeveralRecords();
    void passesOverUnknownRecords();
    void acceptsLongerValues();
    void refusesBrokenUnits_data();
    void refusesBrokenUnits();
    void collectsUnits();
    void leavesOutDamagedUnits();
    void endsOverlongUnits();
    void recoversCaptureTimes();
    void findsPercentiles();
    void leavesOutWhatIsUnknown();
    void keepsTheLatest();
    void countsLostFrames();
    void countsWhatCanBeLost_data();
    void countsWhatCanBeLost();
    void countsLostPackets();
    void tellsWhatItSpans();
    void tellsFramesApart();
    void prefersTheRecordedTime();
    void tellsTheStateOfEyes();
    void tellsTheTimeBetweenEyes();
    void hidesCredentials();
    void showsNoControlCharacters();
};

void ReceivePartsTest::readsFrames()
{
    const Collected result = read(frameUnit(42, 1700000000123456789u));
    QVERIFY(result.whole);
    QCOMPARE(result.frames.size(), std::size_t{1});
    const FrameRecord& frame = result.frames[0];
    QCOMPARE(frame.serial, 100000001u);
    QCOMPARE(frame.counter, std::uint64_t{42});
    QCOMPARE(frame.captureTime, std::uint64_t{1700000000123456789u});
    QCOMPARE(frame.framesDropped, std::uint64_t{7});
    QCOMPARE(frame.eyeWidth, 1920u);
    QCOMPARE(frame.eyeHeight, 1200u);
    QCOMPARE(frame.fps, 30u);
    QCOMPARE(frame.eyeOffset, -12345678);
}

void ReceivePartsTest::readsSeveralRecords()
{
    QByteArray value = bigEndian(100000001, 4) + bigEndian(0x3F, 4) + bigEndian(11, 8) +
                       bigEndian(5, 8) + bigEndian(0x40239D013A92A305, 8);
    value.append(QByteArray(360 - value.size(), '\0'));
    const QByteArray imu = label(2) + '\x82' + bigEndian(360, 2) + value;
    const Collected result = read(imu + frameUnit(1, 2) + imu);
    QVERIFY(result.whole);
    QCOMPARE(result.frames.size(), std::size_t{1});
    QCOMPARE(result.packets.size(), std::size_t{2});
    QCOMPARE(result.packets[1].validFields, 0x3Fu);
    QCOMPARE(result.packets[1].timestamp, std::uint64_t{11});
    QCOMPARE(result.packets[1].sequence, std::uint64_t{5});
    QCOMPARE(result.packets[1].values[0], 9.80665);
}

void ReceivePartsTest::passesOverUnknownRecords()
{
    const QByteArray foreign = QByteArray::fromHex("060E2B340101010101020304050607080401020304");
    const QByteArray otherKind = label(9) + '\x03' + "abc";
    const Collected result = read(foreign + otherKind + frameUnit(1, 2));
    QVERIFY(result.whole);
    QCOMPARE(result.frames.size(), std::size_t{1});
}

void ReceivePartsTest::acceptsLongerValues()
{
    const Collected result = read(frameUnit(3, 4, 56, 2));
    QVERIFY(result.whole);
    QCOMPARE(result.frames.size(), std::size_t{1});
    QCOMPARE(result.frames[0].counter, std::uint64_t{3});
}

void ReceivePartsTest::refusesBrokenUnits_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray unit = frameUnit(1, 2);
    QTest::newRow("cut in the label") << unit.left(10);
    QTest::newRow("no length") << unit.left(16);
    QTest::newRow("cut in the length") << unit.left(18);
    QTest::newRow("cut in the value") << unit.left(100);
    QTest::newRow("too short") << frameUnit(1, 2, -1);
    QTest::newRow("empty") << QByteArray(label(1) + '\0');
    QTest::newRow("longer than its version") << frameUnit(1, 2, 1);
    QTest::newRow("later version, too short") << frameUnit(1, 2, -1, 2);
    QTest::newRow("short IMU record")
        << QByteArray(label(2) + '\x82' + bigEndian(359, 2) + QByteArray(359, '\0'));
    QTest::newRow("not a label") << QByteArray(frameUnit(1, 2, 0).replace(0, 4, "1234"));
    QTest::newRow("indefinite length") << QByteArray(label(1) + '\x80');
    QTest::newRow("absurd length") << QByteArray(label(1) + QByteArray::fromHex("84FFFFFFFF00"));
    QTest::newRow("length of nine bytes")
        << QByteArray(label(1) + QByteArray::fromHex("89000000000000000001") + 'x');
}

void ReceivePartsTest::refusesBrokenUnits()
{
    QFETCH(QByteArray, bytes);
    const Collected result = read(bytes);
    QVERIFY(!result.whole);
    QVERIFY(result.frames.empty());
}

void ReceivePartsTest::collectsUnits()
{
    UnitCollector collector;
    const QByteArray unit = frameUnit(1, 2);
    // Numbers wrap; units follow one another.
    QVERIFY(!add(collector, 65535, unit.left(100)));
    QCOMPARE(add(collector, 0, unit.mid(100), true), unit);
    QCOMPARE(add(collector, 1, unit, true), unit);
    // One that begins with anything else is whole, too: its reader judges.
    QCOMPARE(add(collector, 2, "junk", true), QByteArray("junk"));
}

void ReceivePartsTest::leavesOutDamagedUnits()
{
    UnitCollector collector;
    const QByteArray unit = frameUnit(1, 2);
    QVERIFY(!add(collector, 9, unit.mid(100), true));  // begins in the middle of one
    QVERIFY(!add(collector, 10, unit.left(50)));
    QVERIFY(!add(collector, 12, unit.mid(100)));  // one is lost
    QVERIFY(!add(collector, 13, unit.mid(150), true));
    QCOMPARE(add(collector, 14, unit, true), unit);
    QVERIFY(!add(collector, 15, unit.left(50)));
    QCOMPARE(add(collector, 17, unit, true), unit);  // the end of one is lost, the next is whole
}

void ReceivePartsTest::endsOverlongUnits()
{
    UnitCollector collector;
    int given = 0;
    for (int i = 0; i < 1000; ++i) {
        const auto unit = add(collector, static_cast<std::uint16_t>(i),
                              i == 0 ? label(1) : QByteArray(1400, 'x'));
        given += unit ? 1 : 0;
        QVERIFY(!unit || unit->size() < 70000);
    }
    QCOMPARE(given, 1);
    QVERIFY(!add(collector, 1000, "the end", true));
    const QByteArray unit = frameUnit(1, 2);
    QCOMPARE(add(collector, 1001, unit, true), unit);
}

void ReceivePartsTest::recoversCaptureTimes()
{
    __extension__ using Wide = unsigned __int128;
    std::uint64_t time = 1700000000123456789u;
    for (int i = 0; i < 1000; ++i, time += 98765432123u) {
        const auto rtp = static_cast<std::uint32_t>(Wide{time} * 90000u / 1000000000u);
        for (const std::int64_t offset : {0ll, 20000000ll, 20000000000000ll, -20000000000000ll}) {
            const std::uint64_t found =
                captureTimeFromRtp(rtp, time + static_cast<std::uint64_t>(offset));
            QVERIFY(found <= time);
            QVERIFY(time - found < 12000);
        }
    }
}

void ReceivePartsTest::findsPercentiles()
{
    LatencyHistogram histogram;
    QVERIFY(std::isnan(histogram.percentile(0.5)));
    QVERIFY(std::isnan(histogram.most));
    for (int i = 100; i-- > 0;)
        histogram.add(i + 0.05);
    QCOMPARE(histogram.percentile(0.5), 49.1);
    QCOMPARE(histogram.percentile(0.99), 98.1);
    QCOMPARE(histogram.least, 0.05);
    QCOMPARE(histogram.most, 99.05);
    histogram.add(-3);  // clocks that disagree
    histogram.add(1e9);
    QCOMPARE(histogram.least, -3.0);
    QCOMPARE(histogram.most, 1e9);
}

void ReceivePartsTest::leavesOutWhatIsUnknown()
{
    const QJsonObject latency = json(Statistics())["latencyMs"].toObject();
    for (const char* name : {"p50", "p99", "min", "max"})
        QVERIFY(latency[name].isNull());
    QCOMPARE(json(Statistics())["fps"].toDouble(-1), 0.0);
    QVERIFY(!json(Statistics()).contains("serial"));
}

void ReceivePartsTest::keepsTheLatest()
{
    Latest<int, int> latest;
    for (int key = 0; key < 1000; ++key) {
        latest.add(key, 1);
        latest.add(key, key);
    }
    QCOMPARE(latest.find(999).value_or(-1), 999);
    QCOMPARE(latest.find(488).value_or(-1), 488);
    QVERIFY(!latest.find(487));
}

void ReceivePartsTest::countsLostFrames()
{
    Statistics statistics;
    for (const std::uint64_t counter : {5, 6, 7, 10, 11, 20})
        statistics.frameRecord(record(counter), static_cast<std::uint32_t>(counter), 0);
    QCOMPARE(json(statistics)["framesLost"].toInt(), 2 + 8);
    // The sender was opened anew.
    statistics.frameRecord(record(0), 100, 0);
    statistics.frameRecord(record(1), 101, 0);
    QCOMPARE(json(statistics)["framesLost"].toInt(), 10);
    QCOMPARE(json(statistics)["frameRecords"].toInt(), 8);
}

void ReceivePartsTest::countsWhatCanBeLost_data()
{
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
    QTest::addColumn<QVector<quint64>>("counters");
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<int>("lost");
    QTest::newRow("same again") << QVector<quint64>{4, 4, 4} << 0.0 << 0;
    QTest::newRow("wraps") << QVector<quint64>{kMost - 1, kMost, 0, 1} << 9.0 << 0;
    QTest::newRow("jumps") << QVector<quint64>{0, kMost / 2, kMost, 3, kMost} << 9.0 << 0;
    QTest::newRow("jumps, then loses") << QVector<quint64>{0, kMost / 2, kMost / 2 + 3} << 9.0 << 2;
    QTest::newRow("backwards") << QVector<quint64>{900, 800, 700, 702} << 0.0 << 1;
    QTest::newRow("an hour") << QVector<quint64>{0, 216001} << 3600.0 << 216000;
    QTest::newRow("too soon") << QVector<quint64>{0, 216001} << 1.0 << 0;
    // To and fro, each jump small.
    QVector<quint64> swings;
    for (int i = 0; i < 100000; ++i)
        swings << 0 << 500;
    QTest::newRow("swings") << swings << 1.0 << 4 * 499;
}

void ReceivePartsTest::countsWhatCanBeLost()
{
    QFETCH(QVector<quint64>, counters);
    QFETCH(double, elapsed);
    Statistics statistics;
    for (const quint64 counter : counters)
        statistics.frameRecord(record(counter), 0, elapsed);
    QTEST(json(statistics)["framesLost"].toInt(-1), "lost");
    // Another camera counts from anywhere.
    FrameRecord other = record(counters.last() + 100);
    ++other.serial;
    statistics.frameRecord(other, 0, elapsed);
    QTEST(json(statistics)["framesLost"].toInt(-1), "lost");
}

void ReceivePartsTest::countsLostPackets()
{
    Statistics statistics;
    ImuRecord packet;
    for (const std::uint64_t sequence : {3, 4, 8}) {
        packet.sequence = sequence;
        packet.timestamp = sequence * 5000000;
        statistics.imuRecord(packet, 0);
    }
    QCOMPARE(json(statistics)["imuPackets"].toInt(), 3);
    QCOMPARE(json(statistics)["imuPacketsLost"].toInt(), 3);
    QCOMPARE(json(statistics)["imuRate"].toDouble(), 80.0);
}

// From a second after the first frame with a record to the last one; a sender that is opened anew
// begins anew.
void ReceivePartsTest::tellsWhatItSpans()
{
    Statistics statistics;
    QVERIFY(!json(statistics).contains("span"));
    const auto finish = [&](std::uint32_t counter, bool recorded = true) {
        FrameRecord place = record(counter, 1000 + counter * std::uint64_t{200000000});
        place.framesDropped = counter / 4;
        if (recorded)
            statistics.frameRecord(place, counter, 0);
        statistics.finishedFrame(counter, 2000);
    };
    const auto span = [&] { return json(statistics)["span"].toObject(); };
    finish(0);
    finish(4);
    QVERIFY(!json(statistics).contains("span"));
    finish(4, false);
    finish(5);
    finish(6, false);
    finish(9);
    finish(10, false);
    QCOMPARE(span()["firstCounter"].toInt(), 5);
    QCOMPARE(span()["lastCounter"].toInt(), 9);
    QCOMPARE(span()["firstCaptureTime"].toDouble(), 1000001000.0);
    QCOMPARE(span()["lastCaptureTime"].toDouble(), 1800001000.0);
    QCOMPARE(span()["framesDroppedBySender"].toInt(), 1);
    QCOMPARE(span()["frames"].toInt(), 3);
    finish(3);
    QVERIFY(!json(statistics).contains("span"));
    finish(8);
    finish(9);
    QCOMPARE(span()["firstCounter"].toInt(), 8);
    QCOMPARE(span()["frames"].toInt(), 2);
}

// Three frames whose packets came at once, and one whose packets took their time.
void ReceivePartsTest::tellsFramesApart()
{
    DistinctTimes times;
    QCOMPARE(times.of(100, 5000), std::uint64_t{5000});
    QCOMPARE(times.of(100, 5000), std::uint64_t{5000});
    QCOMPARE(times.of(200, 5000), std::uint64_t{5001});
    QCOMPARE(times.of(200, 5001), std::uint64_t{5001});
    QCOMPARE(times.of(50, 4000), std::uint64_t{5002});
    QCOMPARE(times.of(60, 9000), std::uint64_t{9000});
    QCOMPARE(times.of(60, 9500), std::uint64_t{9000});
}

void ReceivePartsTest::prefersTheRecordedTime()
{
    Statistics statistics;
    const std::uint64_t time = 1700000000123456789u;
    statistics.frameRecord(record(0, time), 1234, 0);
    statistics.finishedFrame(1234, time + 5500000);
    const QJsonObject result = json(statistics);
    QCOMPARE(result["latencyMs"].toObject()["max"].toDouble(), 5.5);
    QCOMPARE(result["framesWithoutRecord"].toInt(), 0);
    // Without a record the RTP timestamp tells.
    statistics.finishedFrame(380025703, time + 2000000);
    QVERIFY(std::abs(json(statistics)["latencyMs"].toObject()["min"].toDouble() - 2.0) < 0.02);
    QCOMPARE(json(statistics)["framesWithoutRecord"].toInt(), 1);
    QCOMPARE(statistics.totals.frames, std::uint64_t{2});
}

void ReceivePartsTest::tellsTheStateOfEyes()
{
    Statistics statistics;
    statistics.frameRecord(record(0), 0, 0);
    QVERIFY(statistics.statusLine(1).find("left none  right none") != std::string::npos);
    const std::vector<std::uint8_t> bright{100, 110, 120};
    const std::vector<std::uint8_t> other{101, 110, 120};
    const std::vector<std::uint8_t> dark{0, 1, 0};
    for (const auto& sample : {bright, other}) {
        statistics.left.update(sample);
        statistics.right.update(dark);
    }
    const QString first = QString::fromStdString(statistics.statusLine(1));
    QVERIFY2(first.contains(" moving  right ") && first.endsWith(" dark"), qPrintable(first));
    for (int i = 0; i < 2; ++i) {
        statistics.left.update(other);
        statistics.right.update(bright);
    }
    const QString second = QString::fromStdString(statistics.statusLine(1));
    QVERIFY2(second.contains(" still  right ") && second.endsWith(" moving"), qPrintable(second));
}

void ReceivePartsTest::tellsTheTimeBetweenEyes()
{
    Statistics statistics;
    const auto line = [&] { return QString::fromStdString(statistics.statusLine(1)); };
    statistics.frameRecord(record(0), 0, 0);
    QVERIFY(!line().contains("apart"));
    for (const int offset : {3000000, -12345678, 5000000}) {
        FrameRecord late = record(1);
        late.eyeOffset = offset;
        statistics.frameRecord(late, 0, 0);
    }
    // The most of a line's second, and of all.
    QVERIFY(line().contains("  IMU 0/s  eyes 12.3 ms apart  left "));
    QVERIFY(!line().contains("apart"));
    QCOMPARE(json(statistics)["mostMsBetweenEyes"].toDouble(), 12.345678);
}

void ReceivePartsTest::hidesCredentials()
{
    QCOMPARE(withoutCredentials("rtsp://user:pa@ss@host:1/stereo"),
             std::string("rtsp://host:1/stereo"));
    QCOMPARE(withoutCredentials("rtsp://host:1/ste@reo"), std::string("rtsp://host:1/ste@reo"));
    QCOMPARE(withoutCredentials("nonsense"), std::string("nonsense"));
}

void ReceivePartsTest::showsNoControlCharacters()
{
    QCOMPARE(printable("Käse 100 %"), std::string("Käse 100 %"));
    QCOMPARE(printable("\x1b[2J\x07\r\n\x7f"), std::string("?[2J????"));
    QCOMPARE(printable("\xc2\x9b\xe2\x80\xae|"), std::string("??|"));  // C1, reversed writing
    QCOMPARE(printable("\x9b\xff|"), std::string("\xef\xbf\xbd\xef\xbf\xbd|"));  // not UTF-8
}

QTEST_GUILESS_MAIN(ReceivePartsTest)
#include "receive_parts_test.moc"
