// SPDX-License-Identifier: Apache-2.0
// Tests of cameras that fail and are opened anew, on a clock that costs no time.
#include "sdk/sources/lastingsource.h"

#include <unistd.h>

#include <QtTest>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/sdk/sdktesting.h"

namespace {

constexpr tq::FrameFormat kWanted{320, 200, 30};
constexpr tq::Timestamp kSecond = 1000000000;

/// How the sources of one camera behave, and what becomes of them.
struct Script {
    int framesPerSource = 3;
    int failingOpenings = 0;  ///< how many of the next openings fail
    tq::FrameFormat delivered = kWanted;
    int made = 0;
    int alive = 0;
    int mostAlive = 0;
};

/// A camera that fails after some frames.
class ScriptedSource : public tq::FrameSource {
public:
    explicit ScriptedSource(Script& behaviour)
        : script(behaviour), framesLeft(behaviour.framesPerSource)
    {
        ++script.made;
        script.mostAlive = std::max(script.mostAlive, ++script.alive);
    }
    ~ScriptedSource() override { --script.alive; }

    tq::FrameFormat open(const tq::FrameFormat&) override
    {
        if (script.failingOpenings > 0) {
            --script.failingOpenings;
            throw std::runtime_error("no such device");
        }
        return script.delivered;
    }
    bool next(const tq::FrameBuffer&, tq::Timestamp& timestamp) override
    {
        if (stopping.load()) {
            return false;
        }
        if (framesLeft-- == 0) {
            throw tq::InvalidVideo("unplugged");
        }
        timestamp = 1;
        return true;
    }
    std::uint64_t skippedFrames() const override { return 2; }

private:
    Script& script;
    int framesLeft;
};

/// A lasting source, its clock and the pauses that it made.
struct Camera {
    Camera()
        : source([this] { return std::make_unique<ScriptedSource>(script); }, "camera S/N 7", clock)
    {
        clock.beforeSleep = [this](tq::Timestamp instant) {
            pauses.push_back(int((instant - clock.now()) / kSecond));
            return afterPause ? afterPause() : tq::Wake::REACHED;
        };
    }

    bool next()
    {
        tq::Timestamp time = 0;
        return source.next({nullptr, 0}, time);
    }

    Script script;
    TestClock clock;
    std::vector<int> pauses;
    std::function<tq::Wake()> afterPause;
    tq::LastingSource source;
};

tq::rig::CameraSettings gstreamerCamera(const QString& pipeline, double timeout = 10)
{
    tq::rig::CameraSettings camera;
    camera.serial = 30123456;
    camera.source = tq::rig::GStreamerSettings{pipeline.toStdString(), timeout};
    return camera;
}

int entries(const char* folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

}  // namespace

class LastingTest : public QObject {
    Q_OBJECT

private slots:
    void firstOpeningIsRefused();
    void pausesGrowUntilItDelivers();
    void anotherSizeIsRefused();
    void stoppingEndsAPause();
    void stoppingReachesTheSource();
    void skippedFramesAreSummed();
    void fileThatGoesAndComes();
    void silentPipelineIsOpenedAnew();
    void reopeningsLeaveNothingBehind();
};

void LastingTest::firstOpeningIsRefused()
{
    Camera camera;
    camera.script.failingOpenings = 1;
    const ErrorLog log;
    QVERIFY_EXCEPTION_THROWN(camera.source.open(kWanted), std::runtime_error);
    QCOMPARE(camera.script.made, 1);
    QVERIFY(camera.pauses.empty() && log.lines().isEmpty());
}

void LastingTest::pausesGrowUntilItDelivers()
{
    Camera camera;
    camera.source.open(kWanted);
    const ErrorLog log;
    for (int i = 0; i < 3; ++i) {
        QVERIFY(camera.next());
    }
    QVERIFY(log.lines().isEmpty());
    camera.script.failingOpenings = 7;
    QVERIFY(camera.next());
    QCOMPARE(camera.pauses, std::vector<int>({1, 2, 4, 8, 16, 30, 30, 30}));
    QCOMPARE(log.lines(), QStringList({"camera S/N 7 failed: unplugged; it is opened anew until it "
                                       "delivers again",
                                       "camera S/N 7 delivers again after 121 s"}));
    // The next failure is told of, and waited for, as the first one.
    for (int i = 0; i < 3; ++i) {
        QVERIFY(camera.next());
    }
    QCOMPARE(camera.pauses.size(), std::size_t(9));
    QCOMPARE(camera.pauses.back(), 1);
    QCOMPARE(log.lines().size(), 4);
    QCOMPARE(log.lines().last(), QString("camera S/N 7 delivers again after 1 s"));
    QCOMPARE(camera.script.mostAlive, 1);
}

void LastingTest::anotherSizeIsRefused()
{
    Camera camera;
    camera.source.open(kWanted);
    const ErrorLog log;
    camera.script.delivered = {640, 200, 30};
    camera.afterPause = [&camera] {
        if (camera.pauses.size() == 4) {
            camera.script.delivered = {320, 200, 15};  // another rate is no harm
        }
        return tq::Wake::REACHED;
    };
    for (int i = 0; i < 4; ++i) {
        QVERIFY(camera.next());
    }
    QCOMPARE(camera.pauses, std::vector<int>({1, 2, 4, 8}));
    QCOMPARE(log.lines().size(), 3);
    QCOMPARE(log.lines().at(1),
             QString("camera S/N 7 came back with pictures of 640 x 200 instead of 320 x 200, it "
                     "is tried again"));
    QCOMPARE(camera.script.mostAlive, 1);
}

void LastingTest::stoppingEndsAPause()
{
    Script script;
    tq::LastingSource source([&script] { return std::make_unique<ScriptedSource>(script); },
                             "camera S/N 7", tq::systemClock());
    source.open(kWanted);
    script.failingOpenings = 1000;
    const ErrorLog log;
    std::atomic<bool> ended{false};
    std::thread producer([&] {
        tq::Timestamp time = 0;
        while (source.next({nullptr, 0}, time)) {
        }
        ended = true;
    });
    QTRY_COMPARE(log.lines().size(), 1);
    QVERIFY(!ended);
    QElapsedTimer timer;
    timer.start();
    source.stop();
    producer.join();
    QVERIFY2(timer.elapsed() < 900, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(script.made <= 2);
}

void LastingTest::stoppingReachesTheSource()
{
    Camera camera;
    camera.source.open(kWanted);
    const ErrorLog log;
    camera.source.stop();
    QVERIFY(!camera.next());
    QVERIFY(log.lines().isEmpty());
}

void LastingTest::skippedFramesAreSummed()
{
    Camera camera;
    camera.source.open(kWanted);
    const ErrorLog log;
    for (int i = 0; i < 7; ++i) {
        QVERIFY(camera.next());
    }
    QCOMPARE(camera.source.skippedFrames(), std::uint64_t(6));
}

// As a USB camera that is unplugged and plugged in again: its device is gone meanwhile.
void LastingTest::fileThatGoesAndComes()
{
    QTemporaryDir folder;
    const QString device = folder.filePath("device");
    const auto plugIn = [&device](char grey) {
        QFile file(device);
        return file.open(QIODevice::WriteOnly) && file.write(QByteArray(4 * 64 * 48, grey)) > 0;
    };
    QVERIFY(plugIn(100));
    const auto settings =
        gstreamerCamera("filesrc location=" + device +
                        " ! rawvideoparse width=64 height=48 format=gray8 framerate=30/1");
    TestClock clock;
    int pauses = 0;
    bool plugged = true;
    clock.beforeSleep = [&](tq::Timestamp) {
        ++pauses;
        plugged = pauses == 1 ? !QFile::remove(device) : pauses == 5 && plugIn(50);
        return tq::Wake::REACHED;
    };
    tq::LastingSource source([&] { return tq::makeFrameSource(settings, clock); }, "camera S/N 7",
                             clock);
    QCOMPARE(source.open({64, 48, 30}).fps, 30);
    const ErrorLog log;
    std::vector<unsigned char> pixels(64 * 48 * 2);
    tq::Timestamp time = 0;
    do {
        QVERIFY(source.next({pixels.data(), 0}, time));
    } while (pixels[0] > 75);
    QVERIFY(plugged);
    QCOMPARE(pauses, 5);
    QCOMPARE(log.lines().size(), 2);
    QCOMPARE(log.lines().last(), QString("camera S/N 7 delivers again after 31 s"));
}

// As a camera whose cable still holds, but which delivers nothing for as long as its timeout.
void LastingTest::silentPipelineIsOpenedAnew()
{
    int ends[2];
    QCOMPARE(::pipe(ends), 0);
    const auto deliver = [&ends](char grey) {
        const QByteArray frame(64 * 64, grey);
        return ::write(ends[1], frame.data(), std::size_t(frame.size())) == frame.size();
    };
    const auto settings = gstreamerCamera(
        QString("fdsrc fd=%1 ! rawvideoparse width=64 height=64 format=gray8 framerate=30/1")
            .arg(ends[0]),
        4);
    TestClock clock;
    int pauses = 0;
    clock.beforeSleep = [&](tq::Timestamp) {
        return ++pauses == 1 && !deliver(50) ? tq::Wake::STOPPED : tq::Wake::REACHED;
    };
    const ErrorLog log;
    {
        tq::LastingSource source([&] { return tq::makeFrameSource(settings, clock); },
                                 "camera S/N 7", clock);
        QVERIFY(deliver(100));
        source.open({64, 64, 30});
        std::vector<unsigned char> pixels(64 * 64 * 2);
        tq::Timestamp time = 0;
        do {
            QVERIFY(source.next({pixels.data(), 0}, time));
        } while (pixels[0] > 75);
    }
    ::close(ends[0]);
    ::close(ends[1]);
    QCOMPARE(pauses, 1);
    QCOMPARE(log.lines(),
             QStringList({"camera S/N 7 failed: the pipeline delivers no frames; it is "
                          "opened anew until it delivers again",
                          "camera S/N 7 delivers again after 1 s"}));
}

void LastingTest::reopeningsLeaveNothingBehind()
{
    const auto settings = gstreamerCamera("videotestsrc num-buffers=1");
    TestClock clock;
    int pauses = 0;
    clock.beforeSleep = [&pauses](tq::Timestamp) {
        ++pauses;
        return tq::Wake::REACHED;
    };
    const ErrorLog log;
    {
        tq::LastingSource source([&] { return tq::makeFrameSource(settings, clock); },
                                 "camera S/N 7", clock);
        source.open(kWanted);
        std::vector<unsigned char> pixels(kWanted.bytes());
        tq::Timestamp time = 0;
        int threads = 0;
        int files = 0;
        while (pauses < 50) {
            QVERIFY(source.next({pixels.data(), 0}, time));
            if (pauses == 5) {  // what GStreamer keeps for good is there
                threads = entries("/proc/self/task");
                files = entries("/proc/self/fd");
            }
        }
        QVERIFY(threads > 0);
        QTRY_VERIFY(entries("/proc/self/task") <= threads);
        QCOMPARE(entries("/proc/self/fd"), files);
    }
    QCOMPARE(log.lines().size(), 100);
}

QTEST_GUILESS_MAIN(LastingTest)
#include "lasting_test.moc"
