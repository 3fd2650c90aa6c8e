// SPDX-License-Identifier: Apache-2.0
// Tests of cameras behind GStreamer pipelines.
#include "sdk/sources/gstreamersource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QtTest>
#include <array>
#include <cstdlib>
#include <thread>

#include "sdk/core/glibptr.h"
#include "tests/sdk/sdktesting.h"

namespace {

QJsonObject pipeline(const char* description, double timeout = 10)
{
    return {{"type", "gstreamer"}, {"pipeline", description}, {"timeout", timeout}};
}

struct Camera {
    explicit Camera(const QJsonObject& source) { serial = rig.add(source); }

    int open(int width = 320, int height = 240, int fps = 30)
    {
        return openCamera(grabber, 0, width, height, fps);
    }

    TemporaryRig rig;
    int serial = 0;
    tq::LiveCameraGrabber grabber{tq::INPUT_TYPE::GMSL_RAW};
};

/// A named pipe, which nobody writes to.
struct Pipe {
    Pipe()
    {
        if (::mkfifo(qPrintable(path), 0600) != 0) {
            qFatal("no pipe");
        }
    }
    ~Pipe() { letGo(); }

    /// Makes whoever waits to read it go on.
    void letGo() const
    {
        const int end = ::open(qPrintable(path), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ::close(end);
    }

    QTemporaryDir folder;
    const QString path = folder.filePath("pipe");
};

std::array<char, 4096> pathForSlowElements;  // as it was, for threads that outlive the test

/// Makes "slowelement" known, an element that waits for the other end of a pipe when it is made.
void registerSlowElement()
{
    tq::initialiseGStreamer();
    GTypeInfo info{};
    info.class_size = sizeof(GstElementClass);
    info.instance_size = sizeof(GstElement);
    info.class_init = [](gpointer type, gpointer) {
        gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(type), "slow", "Test", "Slow",
                                              "Tests");
    };
    info.instance_init = [](GTypeInstance*, gpointer) {
        ::close(::open(pathForSlowElements.data(), O_RDONLY | O_CLOEXEC));
    };
    const GType type =
        g_type_register_static(GST_TYPE_ELEMENT, "SlowElement", &info, GTypeFlags(0));
    gst_element_register(nullptr, "slowelement", GST_RANK_NONE, type);
}

}  // namespace

class GStreamerTest : public QObject {
    Q_OBJECT

private slots:
    void liveFramesAreTimed();
    void wantedFormatIsFilledIn();
    void filesArePlayedAtTheirPace();
    void picturesAreConvertedAndScaled();
    void unusablePipelines_data();
    void unusablePipelines();
    void anEndedPipelineIsOpenedAnew();
    void closingEndsAWaitForAFailedPipeline();
    void aSilentPipelineIsReported();
    void closingDoesNotWaitForFrames();
    void closingNeverHangs();
    void openingNeverHangs_data();
    void openingNeverHangs();
    void closingEndsAnOpeningThatHangs();
    void twoCamerasRunSideBySide();
};

void GStreamerTest::liveFramesAreTimed()
{
    Camera camera(pipeline("videotestsrc is-live=true ! video/x-raw,framerate=30/1"));
    QCOMPARE(camera.open(), 0);
    QCOMPARE(camera.grabber.getFPS(), 30);
    QCOMPARE(camera.grabber.getEffectiveWidth(), 320);
    QCOMPARE(camera.grabber.getEffectiveHeight(), 240);
    QVERIFY(!camera.grabber.hasMCU() && camera.grabber.getMCU() == nullptr);
    tq::Timestamp last = 0;
    std::vector<tq::Timestamp> intervals;
    for (int i = 0; i < 30; ++i) {
        QCOMPARE(waitForFrame(camera.grabber), 1);
        const tq::Timestamp time = camera.grabber.getTimeStamp();
        const tq::Timestamp now = tq::systemClock().now();
        QVERIFY2(time <= now + 1000000, "a frame is not from the future");
        QVERIFY2(now - std::min(now, time) < 2000000000, "a frame is recent");
        if (last != 0) {
            QVERIFY(time > last);
            intervals.push_back(time - last);
        }
        last = time;
    }
    std::sort(intervals.begin(), intervals.end());
    const auto median = double(intervals[intervals.size() / 2]);
    QVERIFY2(std::abs(median - 33333333) < 1e6, qPrintable(QString::number(median)));
    // The buffers carry the source's own times: much steadier than the moments of arrival.
    QVERIFY2(std::abs(median - 33333333) < 1000, qPrintable(QString::number(median)));
}

void GStreamerTest::wantedFormatIsFilledIn()
{
    Camera camera(
        pipeline("videotestsrc is-live=true ! "
                 "video/x-raw,width={width},height={height},framerate={fps}/1"));
    QCOMPARE(camera.open(322, 240, 15), 0);
    QCOMPARE(camera.grabber.getFPS(), 15);
    QCOMPARE(camera.grabber.getEffectiveWidth(), 322);
    QCOMPARE(waitForFrame(camera.grabber), 1);
}

void GStreamerTest::filesArePlayedAtTheirPace()
{
    // Not live: unpaced, this source delivers thousands of frames per second.
    Camera camera(pipeline("videotestsrc ! video/x-raw,framerate=50/1"));
    QCOMPARE(camera.open(), 0);
    QCOMPARE(camera.grabber.getFPS(), 50);
    QCOMPARE(waitForFrame(camera.grabber), 1);
    const tq::Timestamp first = camera.grabber.getTimeStamp();
    QElapsedTimer timer;
    timer.start();
    while (camera.grabber.getTimeStamp() < first + 500000000) {
        QCOMPARE(waitForFrame(camera.grabber), 1);
        // An unpaced one runs into the future at once.
        QVERIFY(camera.grabber.getTimeStamp() <= tq::systemClock().now() + 1000000);
    }
    QVERIFY2(timer.elapsed() < 3000, qPrintable(QString::number(timer.elapsed())));
}

void GStreamerTest::picturesAreConvertedAndScaled()
{
    Camera camera(
        pipeline("videotestsrc is-live=true pattern=white ! "
                 "video/x-raw,format=RGB,width=64,height=48,framerate=30/1"));
    QCOMPARE(camera.open(322, 242), 0);
    QCOMPARE(waitForFrame(camera.grabber), 1);
    const unsigned char* centre = camera.grabber.getPixels() + (121 * 322 + 160) * 2;
    QVERIFY(centre[0] >= 230);
    QVERIFY(std::abs(centre[1] - 128) <= 2);
}

void GStreamerTest::unusablePipelines_data()
{
    QTest::addColumn<QString>("description");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    const int unavailable = int(tq::ErrorCode::SOURCE_UNAVAILABLE);
    const int invalid = int(tq::ErrorCode::SOURCE_INVALID);
    QTest::newRow("element") << "nosuchelement" << unavailable << "nosuchelement";
    QTest::newRow("syntax") << "videotestsrc ! ! x" << unavailable << "";
    QTest::newRow("property") << "videotestsrc nosuchproperty=1" << unavailable << "nosuchproperty";
    QTest::newRow("device") << "v4l2src device=/dev/nosuchvideo" << unavailable << "";
    QTest::newRow("file") << "filesrc location=/nosuchfile ! decodebin" << unavailable << "";
    QTest::newRow("no video") << "audiotestsrc num-buffers=3" << unavailable << "";
    QTest::newRow("ends at once") << "videotestsrc num-buffers=0" << invalid << "end";
}

void GStreamerTest::unusablePipelines()
{
    QFETCH(QString, description);
    QFETCH(int, code);
    QFETCH(QString, reason);
    Camera camera(pipeline(qPrintable(description)));
    QStringList lines;
    int result = 0;
    {
        const ErrorLog log;
        result = camera.open();
        lines = log.lines();
    }
    QCOMPARE(result, code);
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.front().startsWith("camera 0: ") && lines.front().contains(reason),
             qPrintable(lines.front()));
    QVERIFY2(QFile::exists(Serials::lockFile(camera.serial)), "it was locked");
    // The failed attempt leaves the camera free.
    QVERIFY(ArgusCamera::getGMSLDevices(true, false).at(0).state == tq::DeviceState::AVAILABLE);
}

void GStreamerTest::anEndedPipelineIsOpenedAnew()
{
    Camera camera(pipeline("videotestsrc num-buffers=5 ! video/x-raw,framerate=50/1"));
    const ErrorLog log;
    QCOMPARE(camera.open(), 0);
    int frames = 0;
    while (frames < 6) {  // one more than there are
        QCOMPARE(waitForFrame(camera.grabber), 1);
        ++frames;
        QCOMPARE(camera.grabber.getSerialNumber(), camera.serial);
    }
    const QString name = QString("camera S/N %1 ").arg(camera.serial);
    QTRY_VERIFY(log.lines().size() >= 2);
    QCOMPARE(log.lines().value(0),
             name +
                 "failed: the pipeline has come to its end; it is opened anew until it "
                 "delivers again");
    QVERIFY2(log.lines().value(1).startsWith(name + "delivers again after "),
             qPrintable(log.lines().value(1)));
    camera.grabber.close(true);
    QCOMPARE(camera.open(), 0);
}

void GStreamerTest::closingEndsAWaitForAFailedPipeline()
{
    Camera camera(
        pipeline("videotestsrc is-live=true ! video/x-raw,framerate=50/1 ! "
                 "identity error-after=10"));
    const ErrorLog log;
    QCOMPARE(camera.open(), 0);
    QTRY_VERIFY2(log.lines().join('|').contains(" failed: identity"),
                 qPrintable(log.lines().join('|')));
    while (camera.grabber.getFrameStatus() == 1) {
    }
    QCOMPARE(camera.grabber.getFrameStatus(), 0);
    QElapsedTimer timer;
    timer.start();
    camera.grabber.close(true);
    QVERIFY2(timer.elapsed() < 900, qPrintable(QString::number(timer.elapsed())));
}

void GStreamerTest::aSilentPipelineIsReported()
{
    Camera camera(
        pipeline("appsrc is-live=true format=time caps=video/x-raw,format=GRAY8,width=8,"
                 "height=8,framerate=30/1",
                 0.3));
    const ErrorLog log;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(camera.open(), int(tq::ErrorCode::SOURCE_INVALID));
    QVERIFY(timer.elapsed() < 5000);
    QVERIFY(log.lines().join('|').contains("delivers no frames"));
}

void GStreamerTest::closingDoesNotWaitForFrames()
{
    Camera camera(pipeline("videotestsrc is-live=true ! video/x-raw,framerate=1/5"));
    QCOMPARE(camera.open(), 0);
    QElapsedTimer timer;
    timer.start();
    camera.grabber.close(true);
    QVERIFY2(timer.elapsed() < 2000, qPrintable(QString::number(timer.elapsed())));
}

void GStreamerTest::closingNeverHangs()
{
    // An element that is stuck holds up the end of its pipeline.
    Camera camera(pipeline("videotestsrc ! identity sleep-time=9000000", 0.3));
    const ErrorLog log;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(camera.open() != 0);
    QVERIFY2(timer.elapsed() < 6000, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(log.lines().join('|').contains("abandoned"));
}

void GStreamerTest::openingNeverHangs_data()
{
    registerSlowElement();
    QTest::addColumn<QString>("description");
    QTest::addColumn<int>("serial");  // the last thread of the first row may hang a little longer
    // A file source waits in its change of state for the other end of a pipe.
    QTest::newRow("change of state") << "filesrc location=PIPE" << 30123456;
    QTest::newRow("parsing") << "videotestsrc ! slowelement" << 30123457;
}

void GStreamerTest::openingNeverHangs()
{
    QFETCH(QString, description);
    Pipe pipe;
    qstrncpy(pathForSlowElements.data(), qPrintable(pipe.path), uint(pathForSlowElements.size()));
    QFETCH(int, serial);
    const tq::rig::GStreamerSettings settings{description.replace("PIPE", pipe.path).toStdString(),
                                              10};
    const auto failureOfOpening = [&settings, serial](std::chrono::milliseconds limit) -> QString {
        tq::GStreamerSource source(settings, serial, tq::systemClock(), limit);
        try {
            source.open({320, 240, 30});
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return {};
    };
    const ErrorLog log;
    const QString hangs = "the pipeline hangs while it is opened";
    QCOMPARE(failureOfOpening(std::chrono::milliseconds(300)), hangs);
    QCOMPARE(log.lines(),
             QStringList(QString("camera S/N %1: its pipeline hangs while it is opened, it is "
                                 "abandoned")
                             .arg(serial)));
    // No second thread is left behind the first one.
    const QString stillHangs = "its former pipeline still hangs";
    QCOMPARE(failureOfOpening(std::chrono::milliseconds(300)), stillHangs);
    QCOMPARE(log.lines().size(), 1);
    do {
        pipe.letGo();
    } while (failureOfOpening(std::chrono::milliseconds(0)) == stillHangs);
}

void GStreamerTest::closingEndsAnOpeningThatHangs()
{
    Pipe pipe;
    tq::GStreamerSource source({qPrintable("filesrc location=" + pipe.path), 10}, 30123458,
                               tq::systemClock(), std::chrono::hours(1));
    const ErrorLog log;
    std::thread closer([&source] { source.stop(); });
    QVERIFY_EXCEPTION_THROWN(source.open({320, 240, 30}), std::runtime_error);
    closer.join();
    QVERIFY(log.lines().value(0).endsWith("it is abandoned"));
}

void GStreamerTest::twoCamerasRunSideBySide()
{
    TemporaryRig rig;
    rig.add(pipeline("videotestsrc is-live=true ! video/x-raw,framerate=30/1"));
    rig.add(pipeline("videotestsrc is-live=true ! video/x-raw,framerate=30/1"));
    tq::LiveCameraGrabber left(tq::INPUT_TYPE::GMSL_RAW);
    tq::LiveCameraGrabber right(tq::INPUT_TYPE::GMSL_RAW);
    QCOMPARE(openCamera(left, 0), 0);
    QCOMPARE(openCamera(right, 1), 0);
    for (int i = 0; i < 10; ++i) {
        QCOMPARE(waitForFrame(left), 1);
        QCOMPARE(waitForFrame(right), 1);
    }
}

QTEST_GUILESS_MAIN(GStreamerTest)
#include "gstreamer_test.moc"
