// SPDX-License-Identifier: Apache-2.0
// The capture worker on a scripted camera.
#include <QtTest>
#include <cstring>
#include <thread>
#include <vector>

#include "capture/Camera.h"
#include "tests/capture/pauses.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"
#include "tests/support/messagelog.h"

namespace {

constexpr int kSerial = 30123456;

sdkfake::CameraSetup cameraSetup()
{
    sdkfake::CameraSetup setup;
    setup.id = 5;
    setup.serial = kSerial;
    return setup;
}

struct Received {
    int serial = 0;
    tq::Mat image;
    tq::IMUPacket imu{};
    std::vector<tq::IMUPacket> imus;
};

/// Keeps what a worker emits; lives on the thread that made it.
class Receiver : public QObject {
public:
    explicit Receiver(KTCamera& camera)
    {
        connect(
            &camera, &KTCamera::sendYUYVImage, this,
            [this](int serial, tq::Mat image, tq::IMUPacket imu, std::vector<tq::IMUPacket> imus) {
                received.push_back({serial, image, imu, imus});
            });
    }

    std::vector<Received> received;
};

bool samePacket(const tq::IMUPacket& left, const tq::IMUPacket& right)
{
    return std::memcmp(&left, &right, sizeof left) == 0;
}

QByteArray pixels(const tq::Mat& image, int count)
{
    return QByteArray(image.getPtr<char>(tq::MEM(1)), count);
}

tq::Timestamp timestampAtByte120(const tq::Mat& image)
{
    tq::Timestamp timestamp;
    std::memcpy(&timestamp, reinterpret_cast<const char*>(&image) + 120, sizeof timestamp);
    return timestamp;
}

/// Waits, without running the event loop, until the worker has done all that its frames ask for.
bool captureThreadIsDone()
{
    QElapsedTimer timer;
    timer.start();
    while (sdkfake::waitingFrames(kSerial) > 0 && timer.elapsed() < 20000) {
        QThread::usleep(200);
    }
    sdkfake::blockFrameStatus(kSerial, true);
    while (sdkfake::heldCalls() == 0 && timer.elapsed() < 20000) {
        QThread::usleep(200);
    }
    const bool held = sdkfake::heldCalls() == 1;
    sdkfake::blockFrameStatus(kSerial, false);
    return held && sdkfake::waitingFrames(kSerial) == 0;
}

int countCalls(const QString& text, unsigned kinds = sdkfake::Control)
{
    return toList(sdkfake::callTexts(kinds)).filter(text).size();
}

}  // namespace

class CameraTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        sdkfake::reset();
        sdkfake::addCamera(cameraSetup());
    }
    void cleanup() { QCOMPARE(toList(sdkfake::misuses()), QStringList()); }

    void construction()
    {
        const KTCamera camera;
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Everything)),
                 QStringList({"LiveCameraGrabber#1.LiveCameraGrabber(4)",
                              "LiveCameraGrabber#1.setMonoCapture(true)",
                              "LiveCameraGrabber#1.setInputType(3)"}));
        QVERIFY(!camera.isRunning());
    }

    void metaObject()
    {
        const QMetaObject& meta = KTCamera::staticMetaObject;
        QCOMPARE(QString(meta.superClass()->className()), QString("QThread"));
        QStringList signatures;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
            if (meta.method(i).methodType() == QMetaMethod::Signal) {
                signatures << meta.method(i).methodSignature();
            }
        }
        QCOMPARE(
            signatures,
            QStringList("sendYUYVImage(int,tq::Mat,tq::IMUPacket,std::vector<tq::IMUPacket>)"));
    }

    void recordsAreRegistered()
    {
        const KTCamera camera;
        int last = QMetaType::UnknownType;
        for (const char* name : {"tq::Mat", "tq::IMUPacket", "std::vector<tq::IMUPacket>"}) {
            QVERIFY2(QMetaType::type(name) > last, name);  // in this order
            last = QMetaType::type(name);
        }
    }

    void setUpArguments_data()
    {
        QTest::addColumn<bool>("hdr");
        QTest::addColumn<QString>("call");
        QTest::newRow("HDR") << true << "setUp(5, 8, 4, 60, 2, false, 2, false, true) = 0";
        QTest::newRow("no HDR") << false << "setUp(5, 8, 4, 60, 2, false, 2, false, false) = 0";
    }
    void setUpArguments()
    {
        QFETCH(bool, hdr);
        QFETCH(QString, call);
        KTCamera camera;
        sdkfake::clearCalls();
        QCOMPARE(camera.open(5, tq::Resolution(8, 4), 60, hdr), 0);
        QVERIFY(camera.isRunning());
        QVERIFY(camera.priority() == QThread::InheritPriority);
        QCOMPARE(toList(sdkfake::callTexts()), QStringList("LiveCameraGrabber#1." + call));
        QCOMPARE(camera.getInfos().hdr, hdr);
    }

    void description()
    {
        sdkfake::CameraSetup setup = cameraSetup();
        setup.model = tq::MODEL::KOR_TSOLO_UHD;
        setup.rewrittenId = 17;
        setup.effectiveWidth = 6;
        setup.effectiveHeight = 3;
        setup.effectiveFps = 25;
        sdkfake::changeCamera(setup);

        const MessageLog log;
        KTCamera camera;
        QCOMPARE(camera.open(5, tq::Resolution(8, 4), 60, true), 0);
        QCOMPARE(camera.getSN(), std::int64_t{kSerial});
        QCOMPARE(camera.getWith(), 6);
        QCOMPARE(camera.getHeight(), 3);
        const CameraInfos infos = camera.getInfos();
        QCOMPARE(infos.id, 17);
        QCOMPARE(infos.serial_number, std::int64_t{kSerial});
        QVERIFY(infos.model == tq::MODEL::KOR_TSOLO_UHD);
        QCOMPARE(infos.width, 6);
        QCOMPARE(infos.height, 3);
        QCOMPARE(infos.fps, 25);
        QVERIFY(infos.hasMCU);
        QVERIFY(infos.hdr);
        QCOMPARE(log.debugMessages("[KTCamera]"),
                 QStringList("[KTCamera] Camera  30123456  opened at resolution  6  x  3  and "
                             "fps  25"));
    }

    // Model and micro-controller are asked for each time, the rest is remembered.
    void descriptionAfterClosing()
    {
        KTCamera camera;
        QCOMPARE(camera.open(5, tq::Resolution(8, 4), 60, true), 0);
        QVERIFY(camera.getInfos().model == tq::MODEL::KOR_TSOLO_GS);
        QVERIFY(camera.getInfos().hasMCU);
        camera.close();
        const CameraInfos infos = camera.getInfos();
        QVERIFY(infos.model == sdk::kNoModel);
        QVERIFY(!infos.hasMCU);
        QCOMPARE(infos.id, 5);
        QCOMPARE(infos.serial_number, std::int64_t{kSerial});
        QCOMPARE(infos.width, 8);
        QCOMPARE(infos.height, 4);
        QCOMPARE(infos.fps, 60);
        QVERIFY(infos.hdr);
    }

    void withoutMicroController()
    {
        sdkfake::CameraSetup setup = cameraSetup();
        setup.hasMcu = false;
        sdkfake::changeCamera(setup);

        KTCamera camera;
        Receiver receiver(camera);
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
        QVERIFY(!camera.getInfos().hasMCU);
        for (const int n : {1, 2, 3}) {
            sdkfake::pushFrame(kSerial, static_cast<tq::Timestamp>(n) * 1000,
                               static_cast<std::uint8_t>(n));
        }
        QTRY_COMPARE(receiver.received.size(), std::size_t{3});
        for (const Received& frame : receiver.received) {
            QVERIFY(frame.imus.empty());
        }
        QCOMPARE(countCalls("getIMUPacketBatch", sdkfake::Frame), 0);
    }

    void setUpFailure_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("positive") << 7 << "[KTCamera] Setup State error :  7";
        QTest::newRow("negative") << -3 << "[KTCamera] Setup State error :  -3";
    }
    void setUpFailure()
    {
        QFETCH(int, code);
        QFETCH(QString, message);
        sdkfake::CameraSetup setup = cameraSetup();
        setup.setUpResult = code;
        sdkfake::changeCamera(setup);

        KTCamera camera;
        {
            const MessageLog log;
            QCOMPARE(camera.open(5, tq::Resolution(8, 4), 60, false), code);
            QCOMPARE(log.debugMessages("[KTCamera]"), QStringList(message));
        }
        QVERIFY(!camera.isRunning());
        camera.close();
        QCOMPARE(countCalls(".close("), 0);

        // A failure leaves the worker able to open.
        setup.setUpResult = 0;
        sdkfake::changeCamera(setup);
        QCOMPARE(camera.open(5, tq::Resolution(8, 4), 60, false), 0);
        QVERIFY(camera.isRunning());
    }

    // Every call to the SDK from opening to closing, in order, with two frames between.
    void callsInOrder()
    {
        KTCamera camera;
        Receiver receiver(camera);
        sdkfake::clearCalls();
        sdkfake::pushImu(kSerial, sdkfake::makeImuPacket(8, 900));
        QCOMPARE(camera.open(5, tq::Resolution(8, 4), 60, true), 0);
        sdkfake::pushFrame(kSerial, 1000, 1, sdkfake::makeImuPacket(8, 900));
        QTRY_COMPARE(receiver.received.size(), std::size_t{1});
        sdkfake::pushFrame(kSerial, 2000, 2, sdkfake::makeImuPacket(9, 1900));
        QTRY_COMPARE(receiver.received.size(), std::size_t{2});
        camera.close();
        QStringList expected = {
            "LiveCameraGrabber#1.setUp(5, 8, 4, 60, 2, false, 2, false, true) = 0",
            "LiveCameraGrabber#1.getEffectiveWidth() = 8",
            "LiveCameraGrabber#1.getEffectiveHeight() = 4",
            "LiveCameraGrabber#1.getSerialNumber() = 30123456",
            "LiveCameraGrabber#1.getFPS() = 60",
            "LiveCameraGrabber#1.getMCU() = true",
            "LiveCameraGrabber#1.getFrameStatus() = 1",
            "LiveCameraGrabber#1.getPixels()",
            "LiveCameraGrabber#1.getTimeStamp() = 1000",
            "LiveCameraGrabber#1.getIMUPacket() = 8",
            "KORmcu#1.getIMUPacketBatch(0, 1000) = 1",
            "LiveCameraGrabber#1.getFrameStatus() = 1",
            "LiveCameraGrabber#1.getPixels()",
            "LiveCameraGrabber#1.getTimeStamp() = 2000",
            "LiveCameraGrabber#1.getIMUPacket() = 9",
            "KORmcu#1.getIMUPacketBatch(1000, 2000) = 0",
            "LiveCameraGrabber#1.close(true)"};
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Everything)), expected);
    }

    // The first frame buffer is allocated as the thread starts, the others as they are needed; all
    // are freed, in all kinds of memory, as it ends, before the camera is closed.
    void buffersAreAllocatedAndFreed()
    {
        constexpr unsigned kKinds = sdkfake::Image | sdkfake::Query | sdkfake::Control;
        KTCamera camera;
        Receiver receiver(camera);
        sdkfake::clearCalls();
        QCOMPARE(camera.open(5, tq::Resolution(8, 4), 30, false), 0);
        QTRY_COMPARE(countCalls("getMCU", sdkfake::Query), 1);
        QCOMPARE(toList(sdkfake::callTexts(kKinds)).mid(5),
                 QStringList({"Mat.alloc(8, 4, 5, 1)", "LiveCameraGrabber#1.getMCU() = true"}));
        // Without the event loop, so that both are on their way.
        sdkfake::pushFrame(kSerial, 1, 1);
        sdkfake::pushFrame(kSerial, 2, 2);
        QVERIFY(captureThreadIsDone());
        sdkfake::clearCalls();
        camera.close();
        QCOMPARE(toList(sdkfake::callTexts(kKinds)),
                 QStringList({"Mat.free(3)", "Mat.free(3)", "LiveCameraGrabber#1.close(true)"}));
        QTRY_COMPARE(receiver.received.size(), std::size_t{2});
        QCOMPARE(pixels(receiver.received[0].image, 64), QByteArray(64, 1));
        QCOMPARE(pixels(receiver.received[1].image, 64), QByteArray(64, 2));
    }

    // While the owner's event loop stands still only as many frames are kept as there are buffers;
    // the others are counted in the log, once it runs again or when the camera is closed. It does
    // not matter whether the loop has run before.
    void lostFramesAreLogged_data()
    {
        QTest::addColumn<bool>("hasRun");
        QTest::addColumn<bool>("closed");
        QTest::newRow("before the next frame") << true << false;
        QTest::newRow("when it closes") << true << true;
        QTest::newRow("before the loop has run, before the next frame") << false << false;
        QTest::newRow("before the loop has run, when it closes") << false << true;
    }
    void lostFramesAreLogged()
    {
        constexpr std::size_t kLost = 3;
        constexpr int kWidth = 3840;
        constexpr int kHeight = 2160;
        QFETCH(bool, hasRun);
        QFETCH(bool, closed);
        const std::size_t depth = FramePool::depth(kWidth, kHeight);
        KTCamera camera;
        std::vector<tq::Timestamp> received;
        connect(&camera, &KTCamera::sendYUYVImage, this,
                [&](int, const tq::Mat& image) { received.push_back(timestampAtByte120(image)); });
        QCOMPARE(camera.open(5, tq::Resolution(kWidth, kHeight), 30, false), 0);
        std::size_t before = 0;
        if (hasRun) {
            sdkfake::pushFrame(kSerial, 1, 1);
            QTRY_COMPARE(received.size(), std::size_t{1});
            QVERIFY(captureThreadIsDone());
            QCoreApplication::processEvents();  // all buffers are free
            before = 1;
        }

        const MessageLog log;
        QLoggingCategory::setFilterRules("vistrel.images.debug=true");
        for (std::size_t n = 0; n < depth + kLost; ++n) {
            sdkfake::pushFrame(kSerial, 2 + n, 1);
        }
        QVERIFY(captureThreadIsDone());
        QLoggingCategory::setFilterRules("");
        QStringList each;
        for (std::size_t n = depth; n < depth + kLost; ++n) {
            each << QString("[KTCamera] Camera 30123456 image of %1 lost: the receiver was late")
                        .arg(2 + n);
        }
        QCOMPARE(log.debugMessages("[KTCamera]"), each);
        if (closed) {
            camera.close();
        }
        // The newest are lost.
        QTRY_COMPARE(received.size(), before + depth);
        QCOMPARE(received.back(), tq::Timestamp{1 + depth});
        if (!closed) {
            sdkfake::pushFrame(kSerial, 100, 1);
            QTRY_COMPARE(received.size(), before + depth + 1);
            QCOMPARE(received.back(), tq::Timestamp{100});
        }
        each << "[KTCamera] Camera  30123456  lost  3  frames: the receiver was late";
        QCOMPARE(log.debugMessages("[KTCamera]"), each);
    }

    // Frames that come much faster than the owner's event loop runs: all are emitted.
    void burst()
    {
        constexpr std::size_t kFrames = 300;
        KTCamera camera;
        Receiver receiver(camera);
        QCOMPARE(camera.open(5, tq::Resolution(64, 32), 30, false), 0);
        for (std::size_t n = 1; n <= kFrames; ++n) {
            sdkfake::pushFrame(kSerial, n, 1);
        }
        QVERIFY(captureThreadIsDone());
        QTRY_COMPARE(receiver.received.size(), kFrames);
        for (std::size_t n = 1; n <= kFrames; ++n) {
            QCOMPARE(timestampAtByte120(receiver.received[n - 1].image), tq::Timestamp{n});
        }
    }

    // An owner whose thread delivers no events cannot say when a receiver is done: every frame is
    // emitted nevertheless, and has pixels of its own, for receivers on other threads.
    void ownerWithoutEvents()
    {
        constexpr std::size_t kFrames = 120;
        std::size_t direct = 0;
        bool done = false;
        QObject here;
        std::vector<tq::Mat> queued;
        std::thread([&] {
            KTCamera camera;
            connect(
                &camera, &KTCamera::sendYUYVImage, &camera, [&direct] { ++direct; },
                Qt::DirectConnection);
            connect(&camera, &KTCamera::sendYUYVImage, &here,
                    [&queued](int, const tq::Mat& image) { queued.push_back(image); });
            if (camera.open(5, tq::Resolution(1920, 2), 30, false) == 0) {
                for (std::size_t n = 1; n <= kFrames; ++n) {
                    sdkfake::pushFrame(kSerial, n, static_cast<std::uint8_t>(n));
                }
                done = captureThreadIsDone();
                camera.close();
            }
        }).join();
        QVERIFY(done);
        QCOMPARE(direct, kFrames);
        QTRY_COMPARE(queued.size(), kFrames);
        for (std::size_t n = 1; n <= kFrames; ++n) {
            QCOMPARE(timestampAtByte120(queued[n - 1]), tq::Timestamp{n});
            QCOMPARE(pixels(queued[n - 1], 1920 * 2 * 2),
                     QByteArray(1920 * 2 * 2, static_cast<char>(n)));
        }
    }

    // 100 µs after every look, whether there was a frame or not.
    void pauseAfterEveryPoll()
    {
        KTCamera camera;
        Receiver receiver(camera);
        pauses::reset();
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
        for (tq::Timestamp n = 1; n <= 20; ++n) {
            sdkfake::pushFrame(kSerial, n, 1);
        }
        QTRY_COMPARE(receiver.received.size(), std::size_t{20});
        QTRY_VERIFY(sdkfake::polls(kSerial) > 100);
        camera.close();
        QVERIFY(pauses::ofOtherThreads() == (pauses::Counts{{100, sdkfake::polls(kSerial)}}));
    }

    void openTwice()
    {
        KTCamera camera;
        QCOMPARE(camera.open(5, tq::Resolution(8, 4), 60, false), 0);
        // The capture thread asks for the micro-controller as it starts.
        QTRY_COMPARE(countCalls("getMCU", sdkfake::Query), 1);
        sdkfake::clearCalls();
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, true), -1);
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Everything)), QStringList());
        QVERIFY(camera.isRunning());
        QCOMPARE(camera.getWith(), 8);
        QVERIFY(!camera.getInfos().hdr);

        Receiver receiver(camera);
        sdkfake::pushFrame(kSerial, 1000, 1);
        QTRY_COMPARE(receiver.received.size(), std::size_t{1});
    }

    void frame()
    {
        KTCamera camera;
        Receiver receiver(camera);
        QThread* emitter = nullptr;
        connect(
            &camera, &KTCamera::sendYUYVImage, &camera,
            [&emitter] { emitter = QThread::currentThread(); }, Qt::DirectConnection);
        QCOMPARE(camera.open(5, tq::Resolution(3, 2), 30, false), 0);

        std::vector<std::uint8_t> content(12);
        for (std::size_t i = 0; i < content.size(); ++i) {
            content[i] = static_cast<std::uint8_t>(200 + i);
        }
        const tq::Timestamp timestamp = 1'700'000'000'123'456'789;
        const tq::IMUPacket latest = sdkfake::makeImuPacket(77, timestamp - 5);
        sdkfake::pushFrame(kSerial, timestamp, content, latest);
        QTRY_COMPARE(receiver.received.size(), std::size_t{1});

        const Received& got = receiver.received.front();
        QCOMPARE(got.serial, kSerial);
        QCOMPARE(got.image.getWidth(), std::size_t{3});
        QCOMPARE(got.image.getHeight(), std::size_t{2});
        QVERIFY(got.image.getType() == tq::MAT_TYPE(5));
        QCOMPARE(got.image.getStepBytes(tq::MEM(1)), std::size_t{6});
        QCOMPARE(pixels(got.image, 12), QByteArray(reinterpret_cast<char*>(content.data()), 12));
        QCOMPARE(timestampAtByte120(got.image), timestamp);
        QVERIFY(samePacket(got.imu, latest));
        QVERIFY(got.imus.empty());
        QCOMPARE(emitter, static_cast<QThread*>(&camera));
    }

    void everyFrameOnceAndInOrder()
    {
        KTCamera camera;
        Receiver receiver(camera);
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
        for (int n = 0; n < 200; ++n) {
            sdkfake::pushFrame(kSerial, static_cast<tq::Timestamp>(1000 + n),
                               static_cast<std::uint8_t>(n));
            QVERIFY(waitUntil(
                [&] { return receiver.received.size() == static_cast<std::size_t>(n + 1); }));
            QCOMPARE(timestampAtByte120(receiver.received.back().image),
                     static_cast<tq::Timestamp>(1000 + n));
            QCOMPARE(pixels(receiver.received.back().image, 16),
                     QByteArray(16, static_cast<char>(n)));
            receiver.received.back().image = tq::Mat();
        }
    }

    void failedStatusIsNoFrame()
    {
        sdkfake::CameraSetup setup = cameraSetup();
        setup.idleStatus = -1;
        sdkfake::changeCamera(setup);
        KTCamera camera;
        Receiver receiver(camera);
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
        sdkfake::pushFrame(kSerial, 1, 1);
        QTRY_COMPARE(receiver.received.size(), std::size_t{1});
        sdkfake::pushFrame(kSerial, 2, 2);
        QTRY_COMPARE(receiver.received.size(), std::size_t{2});
        camera.close();
        QCoreApplication::processEvents();
        QCOMPARE(receiver.received.size(), std::size_t{2});
        QCOMPARE(countCalls("getPixels", sdkfake::Frame), 2);
    }

    void imageIsShallowCopy()
    {
        KTCamera camera;
        Receiver first(camera);
        Receiver second(camera);
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
        sdkfake::pushFrame(kSerial, 1, 1);
        QTRY_COMPARE(first.received.size(), std::size_t{1});
        QTRY_COMPARE(second.received.size(), std::size_t{1});
        QCOMPARE(first.received[0].image.getPtr<void>(tq::MEM(1)),
                 second.received[0].image.getPtr<void>(tq::MEM(1)));
    }

    // As many empty packets as real ones come first: deliberate, receivers rely on it.
    void imuBatchIsDoubled()
    {
        KTCamera camera;
        Receiver receiver(camera);
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);

        for (const tq::Timestamp timestamp : {300, 700, 800, 900, 2000, 2500}) {
            sdkfake::pushImu(kSerial, sdkfake::makeImuPacket(timestamp, timestamp));
        }
        const std::vector<tq::Timestamp> frames = {300, 900, 1000, 3000};
        const std::vector<std::vector<tq::Timestamp>> batches = {
            {300}, {700, 800, 900}, {}, {2000, 2500}};
        for (std::size_t f = 0; f < frames.size(); ++f) {
            sdkfake::pushFrame(kSerial, frames[f], 1);
            QTRY_COMPARE(receiver.received.size(), f + 1);
            const std::vector<tq::IMUPacket>& imus = receiver.received[f].imus;
            const std::size_t count = batches[f].size();
            QCOMPARE(imus.size(), 2 * count);
            for (std::size_t i = 0; i < count; ++i) {
                QVERIFY(samePacket(imus[i], tq::IMUPacket{}));
                QVERIFY(samePacket(imus[count + i],
                                   sdkfake::makeImuPacket(batches[f][i], batches[f][i])));
            }
        }
        // Each batch begins where the frame before ended.
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Frame)).filter("getIMUPacketBatch"),
                 QStringList({"KORmcu#1.getIMUPacketBatch(0, 300) = 1",
                              "KORmcu#1.getIMUPacketBatch(300, 900) = 3",
                              "KORmcu#1.getIMUPacketBatch(900, 1000) = 0",
                              "KORmcu#1.getIMUPacketBatch(1000, 3000) = 2"}));
    }

    void imuStartsAfreshWhenReopened()
    {
        KTCamera camera;
        Receiver receiver(camera);
        for (int round = 1; round <= 2; ++round) {
            QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
            sdkfake::pushFrame(kSerial, static_cast<tq::Timestamp>(round) * 500, 1);
            QTRY_COMPARE(receiver.received.size(), static_cast<std::size_t>(round));
            camera.close();
        }
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Frame)).filter("getIMUPacketBatch"),
                 QStringList({"KORmcu#1.getIMUPacketBatch(0, 500) = 0",
                              "KORmcu#1.getIMUPacketBatch(0, 1000) = 0"}));
    }

    void closeReleasesTheCamera()
    {
        KTCamera camera;
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
        sdkfake::clearCalls();
        camera.close();
        QVERIFY(!camera.isRunning());
        QCOMPARE(toList(sdkfake::callTexts()), QStringList("LiveCameraGrabber#1.close(true)"));
        camera.close();
        camera.graceFullyExit();
        QCOMPARE(countCalls(".close("), 1);
    }

    void closeWithoutOpenTouchesNothing()
    {
        KTCamera camera;
        sdkfake::clearCalls();
        camera.close();
        camera.graceFullyExit();
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Everything)), QStringList());
    }

    void reopenAtAnotherSize()
    {
        KTCamera camera;
        Receiver receiver(camera);
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
        sdkfake::pushFrame(kSerial, 1, 1);
        QTRY_COMPARE(receiver.received.size(), std::size_t{1});
        camera.graceFullyExit();
        QCOMPARE(camera.open(5, tq::Resolution(16, 8), 60, true), 0);
        sdkfake::pushFrame(kSerial, 2, 2);
        QTRY_COMPARE(receiver.received.size(), std::size_t{2});
        QCOMPARE(receiver.received[1].image.getWidth(), std::size_t{16});
        QCOMPARE(pixels(receiver.received[1].image, 16 * 8 * 2), QByteArray(16 * 8 * 2, 2));
    }

    void destructionStopsTheThread()
    {
        {
            KTCamera camera;
            QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
            sdkfake::clearCalls();
        }
        QCOMPARE(toList(sdkfake::callTexts()),
                 QStringList({"LiveCameraGrabber#1.close(true)",
                              "LiveCameraGrabber#1.~LiveCameraGrabber()"}));
    }
};

QTEST_GUILESS_MAIN(CameraTest)
#include "camera_test.moc"
