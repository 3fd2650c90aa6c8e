// SPDX-License-Identifier: Apache-2.0
// What a reader leaves behind whose thread is terminated.
#include <pthread.h>
#include <unistd.h>

#include <QtTest>
#include <atomic>
#include <thread>

#include "tests/sdk/sdktesting.h"

class TerminationTest : public QObject {
    Q_OBJECT

private slots:
    void terminatedReaderHoldsUpNobody();
};

// As the program does with a worker that does not stop.
void TerminationTest::terminatedReaderHoldsUpNobody()
{
    TemporaryRig rig;
    rig.add(simulated());
    tq::LiveCameraGrabber grabber(tq::INPUT_TYPE::GMSL_RAW);
    for (int round = 0; round < 20; ++round) {
        QCOMPARE(openCamera(grabber, 0, 320, 200, 240), 0);
        std::atomic<bool> asked{false};
        std::thread reader([&] {
            while (true) {
                grabber.getFrameStatus();
                asked = true;
                ::usleep(100);
            }
        });
        while (!asked) {
            std::this_thread::yield();
        }
        QCOMPARE(::pthread_cancel(reader.native_handle()), 0);
        reader.join();
        QVERIFY(waitForFrame(grabber) == 1);
        grabber.close(true);
    }
}

QTEST_GUILESS_MAIN(TerminationTest)
#include "termination_test.moc"
