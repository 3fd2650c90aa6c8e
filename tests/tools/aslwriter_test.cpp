// SPDX-License-Identifier: Apache-2.0
// Folders in the ASL layout: whole pairs, in order, and read back as they were written.
#include "tools/receive/aslwriter.h"

#include <gst/video/video.h>
#include <sys/resource.h>

#include <QDir>
#include <QTemporaryDir>
#include <QTest>
#include <csignal>
#include <memory>

#include "sdk/sources/picture.h"
#include "sdk/sources/recording.h"
#include "tests/support/contents.h"

using namespace receive;

namespace {

constexpr int kWidth = 24;  // of an eye
constexpr int kHeight = 16;
constexpr std::uint64_t kFirst = 1700000000000000007;
constexpr std::uint64_t kPeriod = 33333333;

std::uint8_t grey(std::uint32_t frame, int eye)
{
    return static_cast<std::uint8_t>(10 + 2 * frame + (eye == 0 ? 0 : 100));
}

/// A stereo picture as a decoder gives it.
class Stereo {
public:
    explicit Stereo(std::uint32_t number, int width = kWidth, int height = kHeight) : time(number)
    {
        const std::size_t stride = GST_ROUND_UP_4(static_cast<std::size_t>(2 * width));
        std::vector<std::uint8_t> luma(stride * static_cast<std::size_t>(height));
        for (std::size_t i = 0; i < luma.size(); ++i)
            luma[i] = grey(number, i % stride < static_cast<std::size_t>(width) ? 0 : 1);
        buffer.reset(gst_buffer_new_memdup(luma.data(), luma.size()));
        caps.reset(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "GRAY8", "width",
                                       G_TYPE_INT, 2 * width, "height", G_TYPE_INT, height,
                                       "framerate", GST_TYPE_FRACTION, 30, 1, nullptr));
    }

    Frame frame() const { return {buffer.get(), caps.get(), time}; }

private:
    std::uint32_t time;
    tq::BufferPtr buffer;
    tq::CapsPtr caps;
};

FrameRecord recordOf(std::uint32_t number)
{
    FrameRecord record;
    record.serial = 100000001;
    record.captureTime = kFirst + number * kPeriod;
    record.fps = 30;
    return record;
}

ImuRecord imuOf(std::uint64_t number)
{
    ImuRecord record;
    record.validFields = 3;
    record.timestamp = kFirst + number * 5000001;
    for (int i = 0; i < 6; ++i)
        record.values[i] = (i + 1) / 3.0 / static_cast<double>(number + 7);
    return record;
}

}  // namespace

class AslWriterTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void initTestCase() { gst_init(nullptr, nullptr); }
    void isReadBackAsARecording();
    void recordsMayComeAfterTheirPictures();
    void whatIsLeftOutIsCounted();
    void timesGrow();
    void wholePairsAreLeftByAFullDisk_data();
    void wholePairsAreLeftByAFullDisk();
    void existingRecordingIsKept();

private:
    void add(std::uint32_t number)
    {
        writer->record(recordOf(number), number);
        writer->picture(Stereo(number).frame());
    }
    tq::Recording readBack(const char* camera) const
    {
        return tq::Recording({folder->path().toStdString(), camera, true}, 0);
    }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<AslWriter> writer;
    QStringList problems;
};

void AslWriterTest::init()
{
    problems.clear();
    writer.reset();
    folder = std::make_unique<QTemporaryDir>();
    writer = std::make_unique<AslWriter>(
        folder->path().toStdString(), true,
        [this](const std::string& problem) { problems << QString::fromStdString(problem); });
    QCOMPARE(writer->open(), std::string());
}

void AslWriterTest::isReadBackAsARecording()
{
    for (std::uint32_t i = 0; i < 30; ++i) {
        add(i);
        writer->imu(imuOf(6 * i));
        writer->imu(imuOf(6 * i + 3));
    }
    writer->finish();
    QCOMPARE(writer->pairsWritten(), std::uint64_t(30));
    QCOMPARE(writer->pairsLeftOut(), std::uint64_t(0));
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join("; ")));
    for (const int eye : {0, 1}) {
        const tq::Recording recording = readBack(eye == 0 ? "cam0" : "cam1");
        QCOMPARE(recording.framesPerSecond(), 30);
        QCOMPARE(recording.frames().size(), std::size_t(30));
        for (std::uint32_t i = 0; i < 30; ++i) {
            const tq::RecordedFrame& frame = recording.frames()[i];
            QCOMPARE(std::uint64_t(frame.time), recordOf(i).captureTime);
            const tq::Picture picture = tq::readPng(frame.file);
            QCOMPARE(picture.width, kWidth);
            QCOMPARE(picture.height, kHeight);
            QVERIFY(std::all_of(picture.luma.begin(), picture.luma.end(),
                                [&](std::uint8_t value) { return value == grey(i, eye); }));
        }
    }
    const std::vector<tq::IMUPacket> packets = readBack("cam0").readImu();
    QVERIFY(packets.size() > 50);
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const ImuRecord expected = imuOf(3 * i);
        QCOMPARE(std::uint64_t(packets[i].timestamp), expected.timestamp);
        for (int axis = 0; axis < 3; ++axis) {
            QVERIFY(packets[i].acceleration[axis] == expected.values[axis]);
            QVERIFY(packets[i].angularRate[axis] == expected.values[3 + axis]);
        }
    }
    for (const char* part : {"cam0", "cam1", "imu0"})
        QVERIFY(contents(folder->path() + "/mav0/" + part + "/sensor.yaml").contains("rate_hz: "));
    QVERIFY(contents(folder->path() + "/mav0/cam1/sensor.yaml").contains("resolution: [24, 16]\n"));
}

void AslWriterTest::recordsMayComeAfterTheirPictures()
{
    for (std::uint32_t i = 0; i < 5; ++i) {
        writer->picture(Stereo(i).frame());
        writer->record(recordOf(i), i);
    }
    writer->finish();
    QCOMPARE(writer->pairsWritten(), std::uint64_t(5));
}

void AslWriterTest::whatIsLeftOutIsCounted()
{
    writer = std::make_unique<AslWriter>(folder->filePath("live").toStdString(), false,
                                         [](const std::string&) {});
    QCOMPARE(writer->open(), std::string());
    // Larger than can be coded at this pace; their exact times are missing for the last.
    constexpr std::uint32_t kMany = 30;
    for (std::uint32_t i = 0; i < kMany; ++i) {
        if (i < kMany - 10)
            writer->record(recordOf(i), i);
        writer->picture(Stereo(i, 2048, 1024).frame());
    }
    writer->finish();
    QVERIFY(writer->pairsLeftOut() >= 10);
    QCOMPARE(writer->pairsWritten() + writer->pairsLeftOut(), std::uint64_t(kMany));
    const QByteArray list = contents(folder->filePath("live/mav0/cam0/data.csv"));
    QCOMPARE(std::uint64_t(list.count('\n')) - 1, writer->pairsWritten());
}

void AslWriterTest::timesGrow()
{
    for (const std::uint32_t number : {5u, 6u, 3u, 4u, 6u, 7u})
        add(number);
    writer->finish();
    QCOMPARE(writer->pairsWritten(), std::uint64_t(3));
    QCOMPARE(writer->pairsLeftOut(), std::uint64_t(3));
    QCOMPARE(readBack("cam1").frames().size(), std::size_t(3));
}

void AslWriterTest::wholePairsAreLeftByAFullDisk_data()
{
    QTest::addColumn<QString>("full");
    QTest::newRow("left pictures") << "cam0/data";
    QTest::newRow("right pictures") << "cam1/data";
    QTest::newRow("a list") << "";
}

void AslWriterTest::wholePairsAreLeftByAFullDisk()
{
    QFETCH(QString, full);
    const QString mav = folder->path() + "/mav0/";
    rlimit usual{};
    getrlimit(RLIMIT_FSIZE, &usual);
    std::signal(SIGXFSZ, SIG_IGN);
    for (std::uint32_t i = 0; i < 10; ++i) {
        add(i);
        while (writer->pairsWritten() <= i)
            QTest::qWait(1);
    }
    if (full.isEmpty()) {
        // In the middle of a line.
        const rlimit limit{static_cast<rlim_t>(contents(mav + "cam0/data.csv").size() + 20),
                           usual.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    } else {
        // Where a folder is, no picture can be written.
        QVERIFY(
            QDir().mkdir(mav + full + "/" + QString::number(recordOf(10).captureTime) + ".png"));
    }
    for (std::uint32_t i = 10; i < 20; ++i)
        add(i);
    writer->finish();
    setrlimit(RLIMIT_FSIZE, &usual);
    QCOMPARE(problems.size(), 1);
    QVERIFY2(problems[0].startsWith(mav), qPrintable(problems[0]));
    QCOMPARE(writer->pairsWritten(), std::uint64_t(10));
    for (const QString camera : {"cam0", "cam1"}) {
        QCOMPARE(readBack(qPrintable(camera)).frames().size(), std::size_t(10));
        QVERIFY(contents(mav + camera + "/data.csv").endsWith(".png\n"));
        QCOMPARE(QDir(mav + camera + "/data").entryList(QDir::Files).size(), 10);
    }
}

void AslWriterTest::existingRecordingIsKept()
{
    AslWriter other(folder->path().toStdString(), true, [](const std::string&) {});
    QCOMPARE(QString::fromStdString(other.open()), folder->path() + "/mav0: exists already");
}

QTEST_GUILESS_MAIN(AslWriterTest)
#include "aslwriter_test.moc"
