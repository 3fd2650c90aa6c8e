// SPDX-License-Identifier: Apache-2.0
// How fast the capture worker is, and what a receiver may be late without losing frames.
#include <QtTest>
#include <algorithm>
#include <vector>

#include "capture/Camera.h"
#include "tests/capture/freerun.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"

namespace {

constexpr int kSerial = 31123456;

}  // namespace

class CameraTimingTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        sdkfake::reset();
        sdkfake::CameraSetup setup;
        setup.serial = kSerial;
        setup.model = tq::MODEL::KOR_TSOLO_UHD;
        sdkfake::addCamera(setup);
    }
    void cleanup() { QCOMPARE(toList(sdkfake::misuses()), QStringList()); }

    void framesAreTakenAtOnce()
    {
        KTCamera camera;
        QCOMPARE(camera.open(0, tq::Resolution(4, 2), 30, false), 0);
        std::vector<qint64> delays;
        for (int n = 0; n < 50; ++n) {
            QElapsedTimer timer;
            timer.start();
            sdkfake::pushFrame(kSerial, static_cast<tq::Timestamp>(n + 1), 1);
            while (sdkfake::waitingFrames(kSerial) > 0 && timer.elapsed() < 5000) {
                QThread::usleep(20);
            }
            delays.push_back(timer.nsecsElapsed());
            QCoreApplication::processEvents();
        }
        std::sort(delays.begin(), delays.end());
        QVERIFY2(delays[25] < 5'000'000, qPrintable(QString::number(delays[25])));
    }

    // The receiver blocks its thread for 250 ms again and again, and looks at the image it got only
    // afterwards.
    void lateReceiverSeesIntactFrames()
    {
        constexpr int kFramesBetweenStalls = 40;
        constexpr int kFramesDuringStall = 15;
        const sdkfake::FreeRun run;
        int count = 0;
        int torn = 0;
        int sinceStall = kFramesBetweenStalls;
        int losslessStalls = 0;
        bool lossless = false;
        tq::Timestamp previous = 0;
        bool ordered = true;
        KTCamera camera;
        QObject receiver;
        connect(&camera, &KTCamera::sendYUYVImage, &receiver,
                [&](int, tq::Mat image, const tq::IMUPacket&, const std::vector<tq::IMUPacket>&) {
                    const tq::Timestamp timestamp = freerun::timestampOf(image);
                    ordered = ordered && timestamp > previous;
                    lossless = lossless && timestamp == previous + run.period();
                    previous = timestamp;
                    if (++sinceStall == kFramesDuringStall) {
                        losslessStalls += lossless ? 1 : 0;
                    }
                    if (++count % kFramesBetweenStalls == 0) {
                        QThread::msleep(250);
                        sinceStall = 0;
                        lossless = true;
                    }
                    torn += freerun::isIntact(image, run) ? 0 : 1;
                });
        QCOMPARE(camera.open(0, tq::Resolution(1920, 1200), 60, false), 0);
        sdkfake::startFreeRun(kSerial, run);
        QElapsedTimer timer;
        timer.start();
        // Such a stall alone costs no frame. A busy machine may cost some, but not each time.
        while ((count < 200 || losslessStalls == 0) && timer.elapsed() < 60000) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
        }
        camera.close();

        QCOMPARE(torn, 0);
        QVERIFY(ordered);
        QVERIFY2(count >= 200, qPrintable(QString::number(count)));
        QVERIFY(losslessStalls > 0);
    }
};

QTEST_GUILESS_MAIN(CameraTimingTest)
#include "camera_timing_test.moc"
