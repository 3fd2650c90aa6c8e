// SPDX-License-Identifier: Apache-2.0
// A session from simulated cameras to a recording, and from there to a stream again.
#include <QtTest>
#include <cstring>
#include <map>

#include "sdk/sources/streamfile.h"
#include "tests/sdk/patterndecoder.h"
#include "tests/support/outcome.h"
#include "tests/system/headlessservice.h"

namespace {

constexpr std::size_t kMany = 100000;

QJsonObject recorded(const QString& file, const char* eye)
{
    return {{"type", "recording"}, {"path", file}, {"camera", eye}, {"loop", false}};
}

std::optional<DecodedPattern> patternIn(tq::StreamFile& file, std::uint64_t frame,
                                        tq::StreamEye eye)
{
    const std::optional<tq::Picture> picture = file.picture(frame, eye);
    return picture ? decodePattern(picture->luma.data(), 1, picture->width, picture->width)
                   : std::nullopt;
}

/// Whether two packets differ in nothing but time and number.
bool measureTheSame(tq::IMUPacket one, const tq::IMUPacket& other)
{
    one.timestamp = other.timestamp;
    one.sequence = other.sequence;
    return std::memcmp(&one, &other, sizeof one) == 0;
}

}  // namespace

class RoundTripTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void everythingComesBack();
    void freeCamerasComeWithTheirTime();

private:
    Outcome record(const QByteArray& rig, const QStringList& options, const QString& file);

    const QTemporaryDir folder;
};

void RoundTripTest::initTestCase()
{
    sandbox::skipProgramUnlessAvailable();
}

Outcome RoundTripTest::record(const QByteArray& rig, const QStringList& options,
                              const QString& file)
{
    Service service(rig);
    VirtualCamera virtualCamera;
    if (!service.startWith(virtualCamera)) {
        return {-1, {}, service.process.readAllStandardError()};
    }
    QProcess receiver;
    receiver.start(
        VISTREL_RECEIVE,
        QStringList{"--tcp", "-q", "--no-decode", "-r", file, virtualCamera.url()} + options);
    return finish(receiver);
}

void RoundTripTest::everythingComesBack()
{
    const QString first = folder.filePath("first.ts");
    const QString second = folder.filePath("second.ts");
    const Outcome recording = record(simulatedRig(), {"-t", "30", "-n", "45"}, first);
    QVERIFY2(recording.status == 0, recording.err);
    // It is played once, so that the stream falls silent at its end.
    const QByteArray rig =
        document({{"cameras", QJsonArray{camera(30100001, recorded(first, "cam0"), "recorded"),
                                         camera(30100002, recorded(first, "cam1"), "")}}});
    const Outcome again = record(rig, {"-t", "3"}, second);
    QVERIFY2(again.status == 0, again.err);

    const auto before = tq::StreamFile::open(first.toStdString(), kMany);
    const auto after = tq::StreamFile::open(second.toStdString(), kMany);
    // The pictures carry the counters and times of the simulated cameras, from one to the other.
    std::map<tq::Timestamp, std::uint32_t> counters;
    for (std::size_t i = 0; i < before->frameTimes().size(); ++i) {
        const auto pattern = patternIn(*before, i, tq::StreamEye::LEFT);
        QVERIFY(pattern);
        QCOMPARE(pattern->timestamp, std::uint64_t(before->frameTimes()[i]));
        counters[pattern->timestamp] = pattern->counter;
    }
    QVERIFY(before->frameTimes().size() >= 45);
    QVERIFY(after->frameTimes().size() >= 20);
    const tq::Timestamp later =
        after->frameTimes().front() - patternIn(*after, 0, tq::StreamEye::LEFT)->timestamp;
    for (std::size_t i = 0; i < after->frameTimes().size(); ++i) {
        const auto left = patternIn(*after, i, tq::StreamEye::LEFT);
        const auto right = patternIn(*after, i, tq::StreamEye::RIGHT);
        QVERIFY(left && right);
        QCOMPARE(left->serial, 30100001u);
        QCOMPARE(right->serial, 30100002u);
        QCOMPARE(left->counter, right->counter);
        QCOMPARE(after->frameTimes()[i] - later, tq::Timestamp(left->timestamp));
        QCOMPARE(left->counter, counters.at(left->timestamp));
    }

    const std::vector<tq::IMUPacket>& packets = before->imuPackets();
    QVERIFY(after->imuPackets().size() >= 100);
    auto expected = std::find_if(packets.begin(), packets.end(), [&](const tq::IMUPacket& packet) {
        return packet.timestamp + later == after->imuPackets().front().timestamp;
    });
    for (const tq::IMUPacket& packet : after->imuPackets()) {
        QVERIFY(expected != packets.end());
        QCOMPARE(packet.timestamp - later, expected->timestamp);
        QVERIFY(measureTheSame(packet, *expected));
        ++expected;
    }
}

void RoundTripTest::freeCamerasComeWithTheirTime()
{
    const auto freely = [](double phase) {
        QJsonObject source = simulated("left");
        source["phase"] = phase;
        source["timestamps"] = "grid";
        return source;
    };
    // Three of them, so that the right pair is to be found.
    const QByteArray rig = document({{"cameras", QJsonArray{camera(30100001, freely(-6000), ""),
                                                            camera(30100002, freely(6500), ""),
                                                            camera(30100003, freely(15000), "")}}});
    Service service(rig);
    VirtualCamera virtualCamera;
    VirtualCamera other;
    other.serial = 101234568;
    other.right = 30100003;
    virtualCamera.port = static_cast<quint16>(freePort());
    other.port = static_cast<quint16>(freePort());
    service.configure({virtualCamera, other});
    service.start();
    QByteArray log;
    for (const auto& [pair, apart] : {std::pair{virtualCamera, 12.5}, {other, 21.0}}) {
        QVERIFY(service.serves(pair.port));
        QProcess receiver;
        receiver.start(VISTREL_RECEIVE,
                       {"--tcp", "--no-decode", "-t", "30", "-n", "45", "-j", "-", pair.url()});
        const Outcome received = finish(receiver);
        QVERIFY2(received.status == 0, received.err);
        const int json = received.out.indexOf('{');
        const QJsonObject statistics = QJsonDocument::fromJson(received.out.mid(json)).object();
        QCOMPARE(statistics["mostMsBetweenEyes"].toDouble(), apart);
        const QByteArray text = QByteArray::number(apart, 'f', 1) + " ms apart";
        QVERIFY2(received.out.contains("  eyes " + text + "  left"), received.out);
        const QByteArray line =
            "stream " + QByteArray::number(pair.serial) + ": the eyes are " + text;
        QTRY_VERIFY((log += service.process.readAllStandardError(), log.contains(line)));
    }
}

QTEST_GUILESS_MAIN(RoundTripTest)
#include "roundtrip_test.moc"
