// SPDX-License-Identifier: Apache-2.0
// What is logged of frames that were left out.
#include "sdk/camera/skippedframes.h"

#include <QtTest>

#include "tests/sdk/sdktesting.h"

using tq::SkippedFrames;

class SkippedFramesTest : public QObject {
    Q_OBJECT

private slots:
    // What was due before the first frame that is delivered was due to nobody.
    void nothingIsSaidOfWholeRows()
    {
        const ErrorLog log;
        SkippedFrames frames("camera", now);
        for (std::uint64_t due = 7; due < 100; ++due) {
            frames.delivered(due, due, now);
        }
        QCOMPARE(log.lines(), QStringList());
    }

    void eachGapIsSaid()
    {
        const ErrorLog log;
        SkippedFrames frames("camera S/N 7", now);
        frames.delivered(100, 1, now);
        frames.delivered(400, 4, now);
        frames.delivered(500, 5, now);
        frames.delivered(700, 7, now);
        QCOMPARE(log.lines(),
                 QStringList({"camera S/N 7 skipped 2 frames between those of 100 and 400",
                              "camera S/N 7 skipped 1 frames between those of 500 and 700"}));
    }

    void fewLinesPerSecond()
    {
        const ErrorLog log;
        SkippedFrames frames("camera", now);
        frames.delivered(0, 1, now);
        std::uint64_t due = 1;
        for (int gaps = 0; gaps < 30; ++gaps) {
            due += 2;
            frames.delivered(due, due, now);
        }
        QCOMPARE(log.lines().size(), 20);
        // The rest, without another gap.
        frames.delivered(due + 1, due + 1, now + std::chrono::seconds(1));
        QCOMPARE(log.lines().constLast(),
                 QString("camera skipped 10 frames between those of 41 and 62"));
    }

private:
    const SkippedFrames::Time now = std::chrono::steady_clock::now();
};

QTEST_GUILESS_MAIN(SkippedFramesTest)
#include "skippedframes_test.moc"
