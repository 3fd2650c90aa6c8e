// SPDX-License-Identifier: Apache-2.0
// What becomes of threads that do not stop when they are told to.
#include <QtTest>
#include <memory>

#include "capture/Camera.h"
#include "tests/capture/images.h"
#include "tests/capture/pauses.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"

namespace {

constexpr int kSerial = 30123456;

}  // namespace

class TerminationTest : public QObject {
    Q_OBJECT

private slots:
    void init() { sdkfake::reset(); }
    void cleanup() { QCOMPARE(toList(sdkfake::misuses()), QStringList()); }

    void stuckWorkerIsTerminated()
    {
        sdkfake::CameraSetup setup;
        setup.id = 5;
        setup.serial = kSerial;
        sdkfake::addCamera(setup);
        KTCamera camera;
        QCOMPARE(camera.open(5, tq::Resolution(4, 2), 30, false), 0);
        sdkfake::blockFrameStatus(kSerial, true);
        QTRY_COMPARE(sdkfake::heldCalls(), 1);
        QElapsedTimer timer;
        timer.start();
        pauses::reset();
        camera.close();
        const qint64 elapsed = timer.elapsed();
        sdkfake::blockFrameStatus(kSerial, false);
        QVERIFY2(elapsed >= 2000, qPrintable(QString::number(elapsed)));
        QCOMPARE(pauses::waits(), std::vector<unsigned long>{2000});
        QVERIFY(!camera.isRunning());
        QVERIFY(toList(sdkfake::callTexts()).contains("LiveCameraGrabber#1.close(true)"));
    }

    void stuckStreamerIsTerminated()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sdkfake::blockIngest(true);
        sendPair(streamer, images::kMillisecond);
        QTRY_COMPARE(sdkfake::heldCalls(), 1);
        QElapsedTimer timer;
        timer.start();
        pauses::reset();
        streamer.close();
        const qint64 elapsed = timer.elapsed();
        sdkfake::blockIngest(false);
        QVERIFY2(elapsed >= 2000, qPrintable(QString::number(elapsed)));
        QCOMPARE(pauses::waits(), std::vector<unsigned long>{2000});
        QVERIFY(!streamer.isRunning());
        QVERIFY(sdkfake::lastSender().closed);
        QVERIFY(sdkfake::lastSender().destroyed);
    }
};

QTEST_GUILESS_MAIN(TerminationTest)
#include "termination_test.moc"
