// SPDX-License-Identifier: Apache-2.0
// Tests of records, images, the clock and the frame grid.
#include <QtTest>
#include <cstring>
#include <thread>

#include "sdk/camera/frameslots.h"
#include "sdk/core/log.h"
#include "sdk/sources/framegrid.h"
#include "tests/sdk/sdktesting.h"

class CoreTest : public QObject {
    Q_OBJECT

private slots:
    void modelNames();
    void everyErrorHasAText();
    void metadataTakesOverThePacket();
    void imageEdgeCases();
    void cloneReusesItsMemory();
    void gridIsExact_data();
    void gridIsExact();
    void clockSleeps();
    void clockStops();
    void logIsHarmless_data();
    void logIsHarmless();
    void slotsKeepTheCurrentFrame();
    void slotsWaitForAFrame();
    void slotsBetweenTwoThreads();
};

void CoreTest::modelNames()
{
    QCOMPARE(tq::toString(tq::MODEL::KOR_T).c_str(), "KOR T");
    QCOMPARE(tq::toString(tq::MODEL::KOR_T_MINI).c_str(), "KOR T Mini");
    QCOMPARE(tq::toString(tq::MODEL::LAST).c_str(), "N/A");
    QCOMPARE(tq::toString(static_cast<tq::MODEL>(99)).c_str(), "N/A");
}

void CoreTest::everyErrorHasAText()
{
    QSet<QString> texts;
    const int codes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 20, 21, 22, 23};
    for (const int code : codes) {
        texts << tq::toString(static_cast<tq::ErrorCode>(code)).c_str();
    }
    QCOMPARE(texts.size(), 13);
    QVERIFY(!texts.contains("unknown error"));
    QCOMPARE(tq::toString(static_cast<tq::ErrorCode>(99)).c_str(), "unknown error");
}

void CoreTest::metadataTakesOverThePacket()
{
    tq::IMUPacket packet{};
    packet.timestamp = 123;
    packet.sequence = 4;
    packet.acceleration[2] = 9.81;
    packet.angularRate[0] = 0.5;
    packet.magneticField[1] = 20;
    packet.orientation[3] = 1;
    packet.temperature = 36;
    packet.pressure = 1000;
    packet.validFields = 63;
    tq::kvfrw::kvfSampleMetadata metadata{};
    tq::kvfrw::convertMetadataFromMCUData(metadata, packet);
    QCOMPARE(metadata.imuTimestamp, tq::Timestamp(123));
    QCOMPARE(metadata.imuSequence, std::uint64_t(4));
    QCOMPARE(metadata.acceleration[2], 9.81);
    QCOMPARE(metadata.angularRate[0], 0.5);
    QCOMPARE(metadata.magneticField[1], 20.0);
    QCOMPARE(metadata.orientation[3], 1.0);
    QCOMPARE(metadata.temperature, 36.0);
    QCOMPARE(metadata.pressure, 1000.0);
    QCOMPARE(metadata.validFields, 63u);
}

void CoreTest::imageEdgeCases()
{
    tq::Mat image;
    QVERIFY(image.getPtr<unsigned char>(tq::MEM::HOST) == nullptr);
    image.alloc(3, 1, tq::MAT_TYPE::U8_C2, tq::MEM::HOST);
    QCOMPARE(image.getStepBytes(tq::MEM::HOST), std::size_t(6));
    QVERIFY(image.getPtr<unsigned char>(tq::MEM::DEVICE) == nullptr);
    image.alloc(0, 5, tq::MAT_TYPE::U8_C2, tq::MEM::HOST);
    QVERIFY(image.getPtr<unsigned char>(tq::MEM::HOST) == nullptr);
    QVERIFY_EXCEPTION_THROWN(image.alloc(~0ul, ~0ul, tq::MAT_TYPE::U8_C2, tq::MEM::HOST),
                             std::length_error);
    tq::Mat clone;
    clone.clone(image);
    QVERIFY(clone.getPtr<unsigned char>(tq::MEM::HOST) == nullptr);
    image.free(tq::MEM::ALL);
    image.free(tq::MEM::ALL);
}

void CoreTest::cloneReusesItsMemory()
{
    tq::Mat image;
    image.alloc(64, 64, tq::MAT_TYPE::U8_C2, tq::MEM::HOST);
    tq::Mat copy;
    copy.clone(image);
    const auto* first = copy.getPtr<unsigned char>(tq::MEM::HOST);
    copy.clone(image);
    QVERIFY(copy.getPtr<unsigned char>(tq::MEM::HOST) == first);
    const tq::Mat shared(copy);
    copy.clone(image);
    QVERIFY2(copy.getPtr<unsigned char>(tq::MEM::HOST) != first, "others still use those pixels");
}

void CoreTest::gridIsExact_data()
{
    QTest::addColumn<int>("fps");
    for (const int fps : {1, 15, 20, 30, 60, 120, 240}) {
        QTest::addRow("%d", fps) << fps;
    }
}

void CoreTest::gridIsExact()
{
    QFETCH(int, fps);
    const tq::FrameGrid grid(fps);
    const std::uint64_t first = grid.frameAt(1700000000000000000u);
    QCOMPARE(grid.instant(first), tq::Timestamp(1700000000000000000u));
    for (std::uint64_t k = first; k < first + 1000; ++k) {
        // One second holds exactly fps frames, so the rest of the division decides.
        const std::uint64_t rest = k % static_cast<unsigned>(fps) * 1000000000u;
        const tq::Timestamp exact =
            k / static_cast<unsigned>(fps) * 1000000000u + rest / static_cast<unsigned>(fps);
        QCOMPARE(grid.instant(k), exact);
        QCOMPARE(grid.frameAt(grid.instant(k)), k);
        QCOMPARE(grid.frameAt(grid.instant(k) - 1), k - 1);
    }
}

void CoreTest::clockSleeps()
{
    const tq::Clock& clock = tq::systemClock();
    const std::atomic<bool> stop{false};
    const tq::Timestamp target = clock.now() + 35000000;
    QVERIFY(clock.sleepUntil(target, stop) == tq::Wake::REACHED);
    QVERIFY(clock.now() >= target);
    QVERIFY(clock.sleepUntil(target - 1000, stop) == tq::Wake::REACHED);
}

void CoreTest::clockStops()
{
    std::atomic<bool> stop{false};
    std::thread stopper([&stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        stop = true;
    });
    QElapsedTimer timer;
    timer.start();
    const tq::Clock& clock = tq::systemClock();
    QVERIFY(clock.sleepUntil(clock.now() + 3600u * 1000000000ull, stop) == tq::Wake::STOPPED);
    QVERIFY(timer.elapsed() < 5000);
    stopper.join();
}

void CoreTest::logIsHarmless_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("shown");
    QTest::newRow("plain") << QByteArray("camera \"K\u00f6ln 1\": 5 \u00b5s")
                           << QByteArray("camera \"K\u00f6ln 1\": 5 \u00b5s");
    QTest::newRow("white space") << QByteArray("a\nb\r\tc") << QByteArray("a b  c");
    QTest::newRow("colour") << QByteArray("\x1b[31mred") << QByteArray("\\u001b[31mred");
    QTest::newRow("title") << QByteArray("\x1b]0;x\x07") << QByteArray("\\u001b]0;x\\u0007");
    QTest::newRow("control sequence introducer") << QByteArray(
                                                        "\xc2\x9b"
                                                        "31m")
                                                 << QByteArray("\\u009b31m");
    QTest::newRow("broken UTF-8") << QByteArray(
                                         "\x9b"
                                         "31m")
                                  << QByteArray(
                                         "\xef\xbf\xbd"
                                         "31m");
    QTest::newRow("other direction") << QByteArray("\u202e0") << QByteArray("\\u202e0");
    QTest::newRow("zero") << QByteArray("a\0b", 3)
                          << QByteArray(
                                 "a\xef\xbf\xbd"
                                 "b");
    QTest::newRow("delete") << QByteArray("a\x7f") << QByteArray("a\\u007f");
}

void CoreTest::logIsHarmless()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, shown);
    QByteArray written;
    {
        const ErrorLog log;
        tq::logLine(text.toStdString());
        written = log.text();
    }
    QCOMPARE(written, "[tq_kor] " + shown + "\n");
}

void CoreTest::slotsKeepTheCurrentFrame()
{
    tq::FrameSlots ring(1);
    QVERIFY(!ring.takeNewest());
    const auto publish = [&ring](tq::Timestamp time) {
        ring.filling().timestamp = time;
        ring.publish();
    };
    publish(1);
    QVERIFY(ring.takeNewest());
    QVERIFY2(!ring.takeNewest(), "a frame is new once");
    for (tq::Timestamp time = 2; time < 12; ++time) {
        publish(time);
        QCOMPARE(ring.reading().timestamp, tq::Timestamp(1));
    }
    QVERIFY(ring.takeNewest());
    QCOMPARE(ring.reading().timestamp, tq::Timestamp(11));
    QCOMPARE(ring.overwrittenFrames(), std::uint64_t(9));
}

void CoreTest::slotsWaitForAFrame()
{
    constexpr std::chrono::hours kForEver{1};
    tq::FrameSlots ring(1);
    QVERIFY(!ring.takeNewest(std::chrono::milliseconds(1)));
    // Each side waits for the other again and again: a wake-up that is missed ends the test.
    constexpr tq::Timestamp kFrames = 2000;
    std::atomic<tq::Timestamp> taken{0};
    std::thread producer([&] {
        for (tq::Timestamp time = 1; time <= kFrames; ++time) {
            ring.filling().timestamp = time;
            ring.publish();
            while (taken < time) {
                std::this_thread::yield();
            }
        }
    });
    while (taken < kFrames) {
        if (ring.takeNewest(kForEver)) {
            taken = ring.reading().timestamp;
        }
    }
    producer.join();
    QCOMPARE(ring.overwrittenFrames(), std::uint64_t(0));
}

void CoreTest::slotsBetweenTwoThreads()
{
    constexpr tq::Timestamp kFrames = 100000;
    constexpr std::size_t kBytes = 64;
    tq::FrameSlots ring(kBytes);
    std::thread producer([&ring] {
        for (tq::Timestamp time = 1; time <= kFrames; ++time) {
            auto& slot = ring.filling();
            slot.timestamp = time;
            std::memset(slot.pixels.data(), static_cast<int>(time & 0xFF), kBytes);
            ring.publish();
        }
    });
    tq::Timestamp last = 0;
    std::uint64_t taken = 0;
    bool whole = true;
    bool ordered = true;
    while (last < kFrames) {
        if (!ring.takeNewest()) {
            continue;
        }
        ++taken;
        const auto& slot = ring.reading();
        ordered = ordered && slot.timestamp > last;
        last = slot.timestamp;
        for (const unsigned char byte : slot.pixels) {
            whole = whole && byte == (last & 0xFF);
        }
    }
    producer.join();
    QVERIFY(whole);
    QVERIFY(ordered);
    QCOMPARE(taken + ring.overwrittenFrames(), std::uint64_t(kFrames));
}

QTEST_GUILESS_MAIN(CoreTest)
#include "core_test.moc"
