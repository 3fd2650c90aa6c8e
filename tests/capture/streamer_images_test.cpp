// SPDX-License-Identifier: Apache-2.0
// What the streamer does with images and IMU data on their way to the scripted sender.
#include <QtTest>
#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "tests/capture/images.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"
#include "tests/support/messagelog.h"

using images::kMillisecond;

class StreamerImagesTest : public QObject {
    Q_OBJECT

private slots:
    void init() { sdkfake::reset(); }
    void cleanup() { QCOMPARE(toList(sdkfake::misuses()), QStringList()); }

    // Each image is a new one; those that were consumed are deleted, and the rest with the stream.
    void imagesAreDeleted()
    {
        constexpr int kWidth = 37;  // a size that nothing else has
        constexpr int kImages = 40;
        const auto allocated = [] {
            std::set<const void*> addresses;
            std::vector<tq::Mat> held;
            for (int n = 0; n < kImages; ++n) {
                held.push_back(images::filled(kWidth, 5, kMillisecond, n));
                addresses.insert(held.back().getPtr<void>(images::kHost));
            }
            return addresses;
        };
        // All memory of this size that there is, back in the pool of the images.
        const std::set<const void*> before = allocated();
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(kWidth, 5)), 0);
        for (int n = 0; n < 10; ++n) {
            streamer.left(images::filled(kWidth, 5, kMillisecond, 1));
            streamer.right(images::filled(kWidth, 5, kMillisecond, 2));
        }
        tq::Mat out = images::joined(kWidth, 5);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QVERIFY(allocated() == before);
        streamer.left(images::filled(kWidth, 5, kMillisecond, 1));
        streamer.close();
        QVERIFY(allocated() == before);
    }

    // Cameras that deliver another size than configured are reported once per opening.
    void sizeIsWarnedAboutOncePerOpening()
    {
        const auto warnings = [](const MessageLog& log) {
            return log.messages().filter("is configured for eyes of").size();
        };
        const MessageLog log;
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        tq::Mat out = images::joined(4, 2);
        tq::Timestamp timestamp = 0;
        for (int opening = 1; opening <= 2; ++opening) {
            QCOMPARE(streamer.open(images::infos(4, 2)), 0);
            streamer.left(images::filled(4, 2, kMillisecond, 1));
            streamer.right(images::filled(4, 2, kMillisecond, 2));
            QCOMPARE(streamer.createSBS(out, timestamp), 0);
            QCOMPARE(warnings(log), opening - 1);
            for (int pair = 0; pair < 3; ++pair) {
                streamer.left(images::filled(4, 2, kMillisecond, 1));
                streamer.right(images::filled(2, 1, kMillisecond, 2));
                QCOMPARE(streamer.createSBS(out, timestamp), 0);
                QCOMPARE(warnings(log), opening);
            }
        }
        QCOMPARE(log.messages().filter("is configured for eyes of").constFirst(),
                 QString("[VirtualCameraStreamer] Virtual camera 101234567 is configured for eyes "
                         "of 4 x 2 but its cameras deliver 4 x 2 and 2 x 1 : the pictures are "
                         "cropped or padded"));
    }

    void imagesWithoutSenderAreDropped()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        sendPair(streamer, kMillisecond);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.close();
        sendPair(streamer, kMillisecond);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        // One side alone may be what was kept.
        for (const bool left : {true, false}) {
            streamer.close();
            sendPair(streamer, kMillisecond);
            QCOMPARE(streamer.open(images::infos(2, 1)), 0);
            const tq::Mat other = images::filled(2, 1, kMillisecond, 1);
            left ? streamer.left(other) : streamer.right(other);
            QCOMPARE(streamer.createSBS(out, timestamp), 1);
        }
    }

    void closeEmptiesTheQueues()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, kMillisecond);
        streamer.close();
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
    }

    void clearImageQueues()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        streamer.clearImageQueues();
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        // One side alone may be what was left.
        for (const bool left : {true, false}) {
            for (int n = 0; n < 5; ++n) {
                sendPair(streamer, kMillisecond);
            }
            streamer.clearImageQueues();
            QCOMPARE(streamer.createSBS(out, timestamp), 1);
            const tq::Mat other = images::filled(2, 1, kMillisecond, 1);
            left ? streamer.left(other) : streamer.right(other);
            QCOMPARE(streamer.createSBS(out, timestamp), 1);
            streamer.clearImageQueues();
        }
    }

    void framesAreSentOnTheStreamersThread()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, 1'700'000'000'000'000'789);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        const auto frame = sdkfake::lastSender().frames.front();
        QCOMPARE(frame->timestamp, tq::Timestamp{1'700'000'000'000'000'789});
        QVERIFY(frame->thread != std::this_thread::get_id());
        QCOMPARE(hex(frame->pixels.data(), 8), QByteArray("01 01 01 01 02 02 02 02"));
        // Once: the pair was consumed.
        sendPair(streamer, 1'800'000'000'000'000'000);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{2});
        streamer.close();
        QCOMPARE(sdkfake::lastSender().frames.size(), std::size_t{2});
        QCOMPARE(sdkfake::lastSender().frames[1]->timestamp,
                 tq::Timestamp{1'800'000'000'000'000'000});
    }

    // All packets of the left camera's batch go out as they are, empty ones included, before the
    // image that came with them is even queued.
    void leftImuPacketsAreForwardedFirst()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const std::vector<tq::IMUPacket> batch = {tq::IMUPacket{}, tq::IMUPacket{},
                                                  sdkfake::makeImuPacket(1, 10),
                                                  sdkfake::makeImuPacket(2, 20)};
        const tq::Mat left = images::filled(2, 1, 7, 1);
        const tq::Mat right = images::filled(2, 1, 8, 1);
        sdkfake::clearCalls();
        streamer.ingestLeftImage(1, left, sdkfake::makeImuPacket(99, 990), batch);
        streamer.ingestRightImage(2, right, {}, {});

        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Frame | sdkfake::Image)),
                 QStringList({"UDPOutput#1.ingestIMU(0)", "UDPOutput#1.ingestIMU(0)",
                              "UDPOutput#1.ingestIMU(10)", "UDPOutput#1.ingestIMU(20)",
                              "Mat.clone(7)", "Mat.clone(8)"}));
        const sdkfake::Sender sender = sdkfake::lastSender();
        QCOMPARE(sender.imuPackets.size(), batch.size());
        for (std::size_t i = 0; i < batch.size(); ++i) {
            QCOMPARE(hex(&sender.imuPackets[i], 360), hex(&batch[i], 360));
        }
    }

    void rightImuPacketsAreIgnored()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::IMUPacket packet = sdkfake::makeImuPacket(5, 50);
        streamer.ingestLeftImage(1, images::filled(2, 1, kMillisecond, 1), {}, {});
        streamer.ingestRightImage(2, images::filled(2, 1, kMillisecond, 2), packet,
                                  {packet, packet});
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        QCOMPARE(sdkfake::lastSender().imuPackets.size(), std::size_t{0});
        // Metadata made of the left camera's packet, which was empty.
        QCOMPARE(hex(sdkfake::lastSender().frames[0]->metadata.data(), 256),
                 QByteArray(256, 0).toHex(' '));
    }

    void withoutImu_data()
    {
        QTest::addColumn<bool>("before");
        QTest::addColumn<bool>("closed");
        QTest::newRow("from the start") << false << false;
        QTest::newRow("after a stream with IMU data") << true << true;
        QTest::newRow("replacing a stream with IMU data") << true << false;
    }
    void withoutImu()
    {
        QFETCH(bool, before);
        QFETCH(bool, closed);
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        const tq::IMUPacket packet = sdkfake::makeImuPacket(5, 50);
        if (before) {
            QCOMPARE(streamer.open(images::infos(2, 1, true)), 0);
            sendPair(streamer, kMillisecond, packet, {packet});
            QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
            QVERIFY(hex(sdkfake::lastSender().frames[0]->metadata.data(), 256) !=
                    QByteArray(256, 0).toHex(' '));
        }
        if (closed) {
            streamer.close();
        }
        QCOMPARE(streamer.open(images::infos(2, 1, false)), 0);
        sendPair(streamer, 2 * kMillisecond, packet, {packet, packet});
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        QCOMPARE(sdkfake::lastSender().imuPackets.size(), std::size_t{0});
        QCOMPARE(hex(sdkfake::lastSender().frames[0]->metadata.data(), 256),
                 QByteArray(256, 0).toHex(' '));
    }

    // The metadata is that of the packet received last with a left image, not that of the batch
    // and not that of the frame that is sent.
    void metadata()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::IMUPacket first = sdkfake::makeImuPacket(11, 110);
        const tq::IMUPacket second = sdkfake::makeImuPacket(22, 220);
        const tq::IMUPacket other = sdkfake::makeImuPacket(33, 330);
        streamer.ingestLeftImage(1, images::filled(2, 1, 100 * kMillisecond, 1), first, {other});
        streamer.ingestLeftImage(1, images::filled(2, 1, 200 * kMillisecond, 1), second, {other});
        streamer.ingestRightImage(2, images::filled(2, 1, 100 * kMillisecond, 2), other, {other});
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        const auto frame = sdkfake::lastSender().frames[0];
        QCOMPARE(frame->timestamp, 100 * kMillisecond);
        tq::kvfrw::kvfSampleMetadata expected;
        std::memset(&expected, 0, sizeof expected);
        tq::kvfrw::convertMetadataFromMCUData(expected, second);
        QCOMPARE(hex(frame->metadata.data(), 256), hex(&expected, 256));
    }

    // Of the pairs that wait the newest is sent; the older ones are counted and logged.
    void lateMeansNewest()
    {
        const MessageLog log;
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sdkfake::blockIngest(true);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::heldCalls(), 1);
        // The slots never wait for the sender, or this would not end.
        for (tq::Timestamp n = 2; n <= 4; ++n) {
            sendPair(streamer, n * 33 * kMillisecond);
        }
        streamer.ingestRightImage(2, images::filled(2, 1, 132 * kMillisecond, 2), {}, {});
        sdkfake::blockIngest(false);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{2});
        QCOMPARE(sdkfake::lastSender().frames[1]->timestamp, 132 * kMillisecond);
        QCOMPARE(streamer.droppedImages().left, std::uint64_t{2});
        QCOMPARE(streamer.droppedImages().right, std::uint64_t{3});
        streamer.close();
        QCOMPARE(sdkfake::lastSender().frames.size(), std::size_t{2});
        // One line as it happens, one for all at the end.
        const QString line =
            "[VirtualCameraStreamer] Virtual camera 101234567 dropped 2 left and 3 right images "
            "for newer ones";
        QCOMPARE(log.debugMessages("[VirtualCameraStreamer]").mid(2),
                 QStringList({line, line, "[VirtualCameraStreamer] --> Exit <--"}));

        // The next stream counts for itself.
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        QCOMPARE(streamer.droppedImages().left, std::uint64_t{0});
        QCOMPARE(streamer.droppedImages().right, std::uint64_t{0});
        streamer.close();
        QCOMPARE(log.debugMessages("[VirtualCameraStreamer] Virtual camera").size(), 2);
    }

    // Each side by itself, and only what was older than the pair that was sent.
    void droppedImages_data()
    {
        QTest::addColumn<int>("left");
        QTest::addColumn<int>("right");
        QTest::newRow("none") << 0 << 0;
        QTest::newRow("left") << 3 << 0;
        QTest::newRow("right") << 0 << 2;
        QTest::newRow("both") << 1 << 4;
    }
    void droppedImages()
    {
        QFETCH(int, left);
        QFETCH(int, right);
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        for (int n = 0; n < left; ++n) {
            streamer.left(images::filled(2, 1, kMillisecond, 1));
        }
        for (int n = 0; n < right; ++n) {
            streamer.right(images::filled(2, 1, kMillisecond, 1));
        }
        sendPair(streamer, 50 * kMillisecond);
        streamer.left(images::filled(2, 1, 100 * kMillisecond, 1));
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 0);
        QCOMPARE(streamer.droppedImages().left, static_cast<std::uint64_t>(left));
        QCOMPARE(streamer.droppedImages().right, static_cast<std::uint64_t>(right));
    }

    void eachDroppedImageIsLoggedWhenAskedFor()
    {
        for (const bool asked : {false, true}) {
            QLoggingCategory::setFilterRules(asked ? "vistrel.images.debug=true" : "");
            const MessageLog log;
            const auto memory = std::make_unique<QuietStreamer>();
            QuietStreamer& streamer = *memory;
            QCOMPARE(streamer.open(images::infos(2, 1)), 0);
            streamer.left(images::filled(2, 1, kMillisecond, 1));
            streamer.right(images::filled(2, 1, 20 * kMillisecond, 1));
            sendPair(streamer, 50 * kMillisecond);
            tq::Mat out = images::joined(2, 1);
            tq::Timestamp timestamp = 0;
            QCOMPARE(streamer.createSBS(out, timestamp), 0);
            const QString line =
                "[VirtualCameraStreamer] Camera %1 image of %2 dropped for newer ones";
            QCOMPARE(log.debugMessages("[VirtualCameraStreamer] Camera"),
                     asked ? QStringList({line.arg(30123456).arg(kMillisecond),
                                          line.arg(30123457).arg(20 * kMillisecond)})
                           : QStringList());
        }
        QLoggingCategory::setFilterRules("");
    }

    void dropsAreLoggedEveryTenSecondsAtMost()
    {
        using std::chrono::milliseconds;
        const MessageLog log;
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        tq::Mat out = images::joined(2, 1);
        std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
        const auto drop = [&] {
            streamer.left(images::filled(2, 1, kMillisecond, 1));
            sendPair(streamer, 2 * kMillisecond);
            tq::Timestamp timestamp = 0;
            return streamer.createSBS(out, timestamp) == 0;
        };
        const auto linesAfter = [&](int ms) {
            now += milliseconds(ms);
            streamer.reportDrops(now);
            return log.debugMessages("[VirtualCameraStreamer] Virtual camera").size();
        };
        QCOMPARE(linesAfter(0), 0);
        QVERIFY(drop());
        QCOMPARE(linesAfter(0), 1);
        QVERIFY(drop());
        QCOMPARE(linesAfter(9'999), 1);
        QCOMPARE(linesAfter(1), 2);
        QCOMPARE(linesAfter(60'000), 2);
        QVERIFY(drop());
        QCOMPARE(linesAfter(0), 3);
        QCOMPARE(log.debugMessages("[VirtualCameraStreamer] Virtual camera").constLast(),
                 QString("[VirtualCameraStreamer] Virtual camera 101234567 dropped 3 left and 0 "
                         "right images for newer ones"));
    }

    // While another thread replaces the sender, be it that it waits for a frame that is being sent
    // or for the new sender to open.
    void slotsDoNotWaitForAReplacement_data()
    {
        QTest::addColumn<bool>("opening");
        QTest::newRow("a frame is being sent") << false;
        QTest::newRow("the new sender opens") << true;
    }
    void slotsDoNotWaitForAReplacement()
    {
        QFETCH(bool, opening);
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        if (opening) {
            sdkfake::blockOpen(true);
        } else {
            sdkfake::blockIngest(true);
            sendPair(streamer, kMillisecond);
            QTRY_COMPARE(sdkfake::heldCalls(), 1);
        }
        std::thread replacing([&streamer] { streamer.open(images::infos(2, 1)); });
        const bool held = waitUntil([] { return sdkfake::heldCalls() == 1; });
        std::atomic<int> passed{0};
        std::thread feeding([&] {
            for (tq::Timestamp n = 2; n < 100; ++n) {
                sendPair(streamer, n * 33 * kMillisecond);
                ++passed;
                QThread::usleep(100);
            }
        });
        const bool allPassed = waitUntil([&] { return passed == 98; });
        sdkfake::blockOpen(false);
        sdkfake::blockIngest(false);
        replacing.join();
        feeding.join();
        QVERIFY(held);
        QVERIFY(allPassed);
        QCOMPARE(sdkfake::lastSender().number, 2);
        if (opening) {
            // There was no sender meanwhile, so the images went nowhere.
            sendPair(streamer, kMillisecond);
            QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
            QCOMPARE(streamer.droppedImages().left, std::uint64_t{0});
        }
    }

    // Both slots on threads of their own, the sending thread between them: every frame that goes
    // out is made of a left and a right image of the same number, in rising order.
    void concurrentIngest()
    {
        constexpr std::uint32_t kImages = 600;
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const auto feed = [&streamer](bool left) {
            for (std::uint32_t n = 1; n <= kImages; ++n) {
                const tq::Mat image = images::numbered(2, 1, n * 10 * kMillisecond, n);
                const tq::IMUPacket packet = sdkfake::makeImuPacket(n, n);
                if (left) {
                    streamer.ingestLeftImage(1, image, packet, {packet});
                } else {
                    streamer.ingestRightImage(2, image, packet, {packet});
                }
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        };
        std::thread leftThread(feed, true);
        std::thread rightThread(feed, false);
        leftThread.join();
        rightThread.join();
        const auto lastTimestamp = [] {
            const sdkfake::Sender sender = sdkfake::lastSender();
            return sender.frames.empty() ? 0 : sender.frames.back()->timestamp;
        };
        // When one of the threads was held up for long, the search for pairs is a long one.
        QTRY_COMPARE_WITH_TIMEOUT(lastTimestamp(), kImages * 10 * kMillisecond, 60000);
        streamer.close();

        const sdkfake::Sender sender = sdkfake::lastSender();
        QCOMPARE(sender.imuPackets.size(), std::size_t{kImages});
        tq::Timestamp previous = 0;
        for (const auto& frame : sender.frames) {
            std::uint32_t left = 0;
            std::uint32_t right = 0;
            std::memcpy(&left, frame->pixels.data(), 4);
            std::memcpy(&right, frame->pixels.data() + 4, 4);
            QCOMPARE(left, right);
            QCOMPARE(frame->timestamp, left * 10 * kMillisecond);
            QVERIFY(frame->timestamp > previous);
            previous = frame->timestamp;
        }
    }

    // A queued connection from another thread reaches the slots.
    void slotsWorkAcrossThreads()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sdk::registerMetaTypes();
        std::thread emitter([&streamer] {
            const std::vector<tq::IMUPacket> batch = {sdkfake::makeImuPacket(1, 10)};
            for (const char* slot : {"ingestLeftImage", "ingestRightImage"}) {
                QMetaObject::invokeMethod(&streamer, slot, Qt::QueuedConnection, Q_ARG(int, 1),
                                          Q_ARG(tq::Mat, images::filled(2, 1, kMillisecond, 3)),
                                          Q_ARG(tq::IMUPacket, batch[0]),
                                          Q_ARG(std::vector<tq::IMUPacket>, batch));
            }
        });
        emitter.join();
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        QCOMPARE(sdkfake::lastSender().imuPackets.size(), std::size_t{1});
    }
};

QTEST_GUILESS_MAIN(StreamerImagesTest)
#include "streamer_images_test.moc"
