// SPDX-License-Identifier: Apache-2.0
// How fast the streamer's thread wakes, and that its slots keep nobody waiting. Each figure is
// taken several times, so that a machine that halts now and then does not count.
#include <QtTest>
#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "tests/capture/images.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"

using images::kMillisecond;

namespace {

/// The middle one of several measurements, ms.
qint64 median(const std::function<qint64()>& measure)
{
    constexpr std::size_t kTimes = 11;
    std::vector<qint64> all;
    while (all.size() < kTimes) {
        sdkfake::reset();
        all.push_back(measure());
    }
    std::sort(all.begin(), all.end());
    return all[kTimes / 2];
}

}  // namespace

class StreamerTimingTest : public QObject {
    Q_OBJECT

private slots:
    void stopWakesTheThread()
    {
        const qint64 elapsed = median([] {
            const auto memory = std::make_unique<VirtualCameraStreamer>();
            memory->open(images::infos(2, 1));
            QThread::msleep(10);  // by then it waits for images
            QElapsedTimer timer;
            timer.start();
            memory->close();
            return timer.elapsed();
        });
        QVERIFY2(elapsed < 30, qPrintable(QString::number(elapsed)));
    }

    void imagesWakeTheThread_data()
    {
        QTest::addColumn<bool>("leftFirst");
        QTest::newRow("the right one completes the pair") << true;
        QTest::newRow("the left one completes the pair") << false;
    }
    void imagesWakeTheThread()
    {
        QFETCH(bool, leftFirst);
        const qint64 elapsed = median([leftFirst] {
            const auto memory = std::make_unique<VirtualCameraStreamer>();
            memory->open(images::infos(2, 1));
            const tq::Mat image = images::filled(2, 1, kMillisecond, 1);
            QElapsedTimer timer;
            for (const bool left : {leftFirst, !leftFirst}) {
                QThread::msleep(10);  // by then it waits for images
                timer.start();
                left ? memory->ingestLeftImage(1, image, {}, {})
                     : memory->ingestRightImage(2, image, {}, {});
            }
            waitUntil([] { return !sdkfake::lastSender().frames.empty(); });
            return timer.elapsed();
        });
        QVERIFY2(elapsed < 30, qPrintable(QString::number(elapsed)));
    }

    // While the sender is stuck and a pair waits already.
    void slotsReturnAtOnce()
    {
        const qint64 elapsed = median([] {
            const auto memory = std::make_unique<VirtualCameraStreamer>();
            memory->open(images::infos(2, 1));
            sdkfake::blockIngest(true);
            sendPair(*memory, kMillisecond);
            waitUntil([] { return sdkfake::heldCalls() == 1; });
            sendPair(*memory, 2 * kMillisecond);
            QElapsedTimer timer;
            timer.start();
            sendPair(*memory, 3 * kMillisecond);
            const qint64 elapsedMs = timer.elapsed();
            sdkfake::blockIngest(false);
            return elapsedMs;
        });
        QVERIFY2(elapsed < 30, qPrintable(QString::number(elapsed)));
    }
};

QTEST_GUILESS_MAIN(StreamerTimingTest)
#include "streamer_timing_test.moc"
