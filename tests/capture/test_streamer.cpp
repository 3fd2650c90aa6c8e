// SPDX-License-Identifier: Apache-2.0
// The streamer on a scripted sender: configuration, life cycle, IMU data and threads.
#include <QtTest>
#include <array>
#include <memory>
#include <set>
#include <thread>

#include "tests/capture/images.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"
#include "tests/support/messagelog.h"
#include "tests/support/sanitizers.h"

namespace {

constexpr tq::Timestamp kMillisecond = 1'000'000;

using ConfigBytes = std::array<std::uint8_t, 96>;

template <typename T>
void put(ConfigBytes& bytes, std::size_t offset, T value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

ConfigBytes expectedConfig(const VirtualCameraInfos& infos)
{
    ConfigBytes bytes{};
    put<std::int32_t>(bytes, 0, 1);
    put<std::uint16_t>(bytes, 4, static_cast<std::uint16_t>(infos.port));
    put<std::int32_t>(bytes, 8, 20000);
    put<std::int32_t>(bytes, 16, 120);
    put<std::uint16_t>(bytes, 22, 16000);
    put<std::int32_t>(bytes, 24, infos.width);
    put<std::int32_t>(bytes, 28, infos.height);
    put<std::int32_t>(bytes, 40, infos.fps);
    put<std::int32_t>(bytes, 44, static_cast<std::int32_t>(infos.virtualSerialNumber));
    put<std::int32_t>(bytes, 48, 1523);
    put<std::int32_t>(bytes, 52, infos.imu ? 2000 : 0);
    put<std::int32_t>(bytes, 56, 11);
    put<std::int32_t>(bytes, 92, 2);
    return bytes;
}

QByteArray hex(const void* data, int count)
{
    return QByteArray(static_cast<const char*>(data), count).toHex(' ');
}

QStringList senderCalls()
{
    return toList(sdkfake::callTexts()).filter("UDPOutput#");
}

const QString kOpened = "open(port 30000, serial 101234567, 2x1@30, imu 2000) = 0";

/// The serial numbers with which a streamer reports the end of its loop.
class Ends {
public:
    explicit Ends(VirtualCameraStreamer& streamer)
    {
        QObject::connect(
            &streamer, &VirtualCameraStreamer::StreamUpdated, &streamer,
            [to = reported](int serial, bool) { to->push_back(serial); }, Qt::DirectConnection);
    }

    /// Only while the streamer's thread stands still, or before it has ended.
    const std::vector<int>& serials() const { return *reported; }

private:
    // Shared with the connection, which may outlive this object.
    std::shared_ptr<std::vector<int>> reported = std::make_shared<std::vector<int>>();
};

/// Sends one left and one right image that belong together.
void sendPair(VirtualCameraStreamer& streamer, tq::Timestamp timestamp,
              const tq::IMUPacket& imu = {}, const std::vector<tq::IMUPacket>& imus = {})
{
    streamer.ingestLeftImage(1, images::filled(2, 1, timestamp, 1), imu, imus);
    streamer.ingestRightImage(2, images::filled(2, 1, timestamp, 2), {}, {});
}

}  // namespace

class StreamerTest : public QObject {
    Q_OBJECT

private slots:
    void init() { sdkfake::reset(); }
    void cleanup() { QCOMPARE(toList(sdkfake::misuses()), QStringList()); }

    void metaObject()
    {
        const QMetaObject& meta = VirtualCameraStreamer::staticMetaObject;
        const int first = meta.methodOffset();
        QCOMPARE(QString(meta.superClass()->className()), QString("QThread"));
        QCOMPARE(meta.methodCount() - first, 3);
        QCOMPARE(meta.method(first).methodSignature(), QByteArray("StreamUpdated(int,bool)"));
        QVERIFY(meta.method(first).methodType() == QMetaMethod::Signal);
        const char* const names[] = {"ingestLeftImage", "ingestRightImage"};
        for (int i = 0; i < 2; ++i) {
            const QMetaMethod method = meta.method(first + 1 + i);
            QVERIFY(method.methodType() == QMetaMethod::Slot);
            QVERIFY(method.access() == QMetaMethod::Public);
            QCOMPARE(
                method.methodSignature(),
                QByteArray(names[i]) + "(int,tq::Mat,tq::IMUPacket,std::vector<tq::IMUPacket>)");
            QCOMPARE(method.parameterNames().at(3), QByteArray("imus"));
        }
    }

    void configuration_data()
    {
        QTest::addColumn<quint64>("serial");
        QTest::addColumn<uint>("port");
        QTest::addColumn<bool>("imu");
        QTest::addColumn<int>("hdr");
        QTest::newRow("with IMU") << quint64{101234567} << 30000u << true << 0;
        QTest::newRow("without IMU") << quint64{109999999} << 30002u << false << 0;
        QTest::newRow("HDR is not the sender's") << quint64{100000001} << 1u << true << 1;
        QTest::newRow("largest port") << quint64{1} << 65535u << true << 0;
        QTest::newRow("port beyond 16 bits") << quint64{1} << 70000u << true << 0;
        QTest::newRow("serial beyond 31 bits") << quint64{3'000'000'000} << 30000u << true << 0;
        QTest::newRow("serial beyond 32 bits") << quint64{0x1'0000'0007} << 30000u << true << 0;
    }
    void configuration()
    {
        QFETCH(quint64, serial);
        QFETCH(uint, port);
        QFETCH(bool, imu);
        QFETCH(int, hdr);
        VirtualCameraInfos infos = images::infos(960, 600, imu);
        infos.virtualSerialNumber = serial;
        infos.port = port;
        infos.fps = 60;
        infos.hdr = hdr;
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(infos), 0);
        const sdkfake::Sender sender = sdkfake::lastSender();
        QCOMPARE(sender.mode, 0);
        QVERIFY(sender.verbose);
        QCOMPARE(hex(sender.config.data(), 96), hex(expectedConfig(infos).data(), 96));
    }

    // Nothing of the configuration before survives in the bytes of the next one.
    void configurationStartsFromZero()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(1920, 1200, true)), 0);
        streamer.close();
        VirtualCameraInfos second = images::infos(2, 1, false);
        second.port = 7;
        QCOMPARE(streamer.open(second), 0);
        QCOMPARE(hex(sdkfake::lastSender().config.data(), 96),
                 hex(expectedConfig(second).data(), 96));
    }

    void logLines()
    {
        const MessageLog log;
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(1920, 1200)), 0);
        QTRY_COMPARE(log.debugMessages("[VirtualCameraStreamer]").size(), 2);
        streamer.close();
        QCOMPARE(log.debugMessages("[VirtualCameraStreamer]"),
                 QStringList({"[VirtualCameraStreamer] Creating Streamer for  1920 x 1200 @ 30",
                              "[VirtualCameraStreamer] --> Enter <--",
                              "[VirtualCameraStreamer] --> Exit <--"}));
    }

    void lifeCycle()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QVERIFY(!streamer.isRunning());
        QCOMPARE(senderCalls(), QStringList());
        streamer.close();
        QCOMPARE(senderCalls(), QStringList());

        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        QVERIFY(streamer.isRunning());
        QCOMPARE(senderCalls(),
                 QStringList({"UDPOutput#1.UDPOutput(0, true)", "UDPOutput#1." + kOpened}));
        streamer.close();
        QVERIFY(!streamer.isRunning());
        streamer.close();
        QCOMPARE(senderCalls(),
                 QStringList({"UDPOutput#1.UDPOutput(0, true)", "UDPOutput#1." + kOpened,
                              "UDPOutput#1.close()", "UDPOutput#1.~UDPOutput()"}));

        // A closed streamer streams again.
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        QCOMPARE(sdkfake::lastSender().number, 2);
    }

    void destructionCloses()
    {
        {
            const auto memory = std::make_unique<VirtualCameraStreamer>();
            VirtualCameraStreamer& streamer = *memory;
            QCOMPARE(streamer.open(images::infos(2, 1)), 0);
            sendPair(streamer, kMillisecond);
            streamer.ingestLeftImage(1, images::filled(2, 1, 5 * kMillisecond, 1), {}, {});
        }
        QCOMPARE(senderCalls().mid(2),
                 QStringList({"UDPOutput#1.close()", "UDPOutput#1.~UDPOutput()"}));
    }

    void openFailure_data()
    {
        QTest::addColumn<int>("code");
        QTest::newRow("port taken") << 21;
        QTest::newRow("negative") << -7;
    }
    void openFailure()
    {
        QFETCH(int, code);
        sdkfake::setSenderResult(code);
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        const MessageLog log;
        StandardOutput output;
        const int result = streamer.open(images::infos(2, 1));
        const QByteArray printed = output.finish();
        QCOMPARE(result, -1);
        QCOMPARE(printed, "Streaming Error " + QByteArray::number(code) + "\n");
        QCOMPARE(log.debugMessages("[VirtualCameraStreamer]"), QStringList());
        QVERIFY(!streamer.isRunning());
        const QString number = QString::number(code);
        QCOMPARE(senderCalls(),
                 QStringList({"UDPOutput#1.UDPOutput(0, true)",
                              "UDPOutput#1.open(port 30000, serial 101234567, 2x1@30, imu 2000)"
                              " = " +
                                  number,
                              "UDPOutput#1.~UDPOutput()"}));

        // Images are dropped, closing does nothing more, and a later opening works.
        sendPair(streamer, kMillisecond);
        streamer.close();
        QCOMPARE(senderCalls().size(), 3);
        sdkfake::setSenderResult(0);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
    }

    void reopeningReplacesTheSender()
    {
        const auto memory = std::make_unique<QuietStreamer>();
        QuietStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        VirtualCameraInfos second = images::infos(4, 2);
        second.port = 30002;
        QCOMPARE(streamer.open(second), 0);
        QCOMPARE(senderCalls(),
                 QStringList({"UDPOutput#1.UDPOutput(0, true)", "UDPOutput#1." + kOpened,
                              "UDPOutput#1.~UDPOutput()", "UDPOutput#2.UDPOutput(0, true)",
                              "UDPOutput#2.open(port 30002, serial 101234567, 4x2@30, imu 2000)"
                              " = 0"}));

        // When the replacement fails, no sender is left.
        sdkfake::setSenderResult(5);
        StandardOutput output;
        QCOMPARE(streamer.open(second), -1);
        QCOMPARE(output.finish(), QByteArray("Streaming Error 5\n"));
        QCOMPARE(senderCalls().filter("~UDPOutput").size(), 3);
    }

    // On a running thread: the thread goes on, with frames of the new size for the new sender. The
    // former sender is destroyed without being closed; deliberate.
    void reopeningWhileStreaming()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        const Ends ends(streamer);
        const MessageLog log;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        const std::thread::id thread = sdkfake::lastSender().frames[0]->thread;

        VirtualCameraInfos second = images::infos(4, 2);
        second.port = 30002;
        second.virtualSerialNumber = 109999999;
        QCOMPARE(streamer.open(second), 0);
        QVERIFY(streamer.isRunning());
        QCOMPARE(senderCalls().mid(2),
                 QStringList({"UDPOutput#1.~UDPOutput()", "UDPOutput#2.UDPOutput(0, true)",
                              "UDPOutput#2.open(port 30002, serial 109999999, 4x2@30, imu 2000)"
                              " = 0"}));
        streamer.ingestLeftImage(1, images::filled(4, 2, 2 * kMillisecond, 3), {}, {});
        streamer.ingestRightImage(2, images::filled(4, 2, 2 * kMillisecond, 4), {}, {});
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        const auto frame = sdkfake::lastSender().frames[0];
        QCOMPARE(hex(frame->pixels.data(), static_cast<int>(frame->pixels.size())),
                 QByteArray("03 03 03 03 03 03 03 03 04 04 04 04 04 04 04 04 "
                            "03 03 03 03 03 03 03 03 04 04 04 04 04 04 04 04"));
        QVERIFY(frame->thread == thread);
        QCOMPARE(log.debugMessages("[VirtualCameraStreamer] -->"),
                 QStringList("[VirtualCameraStreamer] --> Enter <--"));
        QVERIFY(ends.serials().empty());

        // The end is reported under the serial number that was configured last.
        streamer.close();
        QCOMPARE(ends.serials(), std::vector<int>{109999999});
    }

    void failedReopeningEndsTheStream()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        const Ends ends(streamer);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});

        sdkfake::setSenderResult(21);
        VirtualCameraInfos second = images::infos(4, 2);
        second.virtualSerialNumber = 109999999;
        const MessageLog log;  // the thread's last line goes there
        StandardOutput output;
        const int result = streamer.open(second);
        QCOMPARE(output.finish(), QByteArray("Streaming Error 21\n"));
        QCOMPARE(result, -1);
        QVERIFY(!streamer.isRunning());
        QCOMPARE(ends.serials(), std::vector<int>{109999999});
        QCOMPARE(senderCalls().filter("close").size(), 0);
        QCOMPARE(senderCalls().filter("~UDPOutput").size(), 2);

        // It is closed: images are dropped, closing does nothing more, and it can be opened again.
        sendPair(streamer, 2 * kMillisecond);
        streamer.close();
        QCOMPARE(senderCalls().size(), 6);
        sdkfake::setSenderResult(0);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, 3 * kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        QCOMPARE(sdkfake::lastSender().frames[0]->timestamp, 3 * kMillisecond);
    }

    // A thread that searches for a pair among images without partners takes minutes; it must let
    // go of the sender that is to be replaced or closed.
    void longSearchHoldsUpNobody_data()
    {
        QTest::addColumn<bool>("reopen");
        QTest::newRow("reopening") << true;
        QTest::newRow("closing") << false;
    }
    void longSearchHoldsUpNobody()
    {
        constexpr int kImages = 2000;  // 10 µs and more for each of 4 million comparisons
        constexpr int kLimit = 15000;  // ms
        QFETCH(bool, reopen);
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::Mat left = images::filled(2, 1, kMillisecond, 1);
        const tq::Mat right = images::filled(2, 1, 500 * kMillisecond, 2);
        for (int n = 0; n < kImages; ++n) {
            streamer.ingestLeftImage(1, left, {}, {});
            streamer.ingestRightImage(2, right, {}, {});
        }
        QThread::msleep(100);  // the search runs
        QElapsedTimer timer;
        timer.start();
        if (reopen) {
            QCOMPARE(streamer.open(images::infos(4, 2)), 0);
        } else {
            streamer.close();
        }
        QVERIFY2(timer.elapsed() < kLimit, qPrintable(QString::number(timer.elapsed())));
        if (reopen) {
            // The thread searches on, so what is there now must be found once the rest is gone.
            streamer.clearImageQueues();
            streamer.ingestLeftImage(1, images::filled(4, 2, kMillisecond, 1), {}, {});
            streamer.ingestRightImage(2, images::filled(4, 2, kMillisecond, 2), {}, {});
            QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        }
    }

    // Consumed images wait for the next ones to arrive; a closed streamer keeps none of them.
    void closeGivesSpareImagesBack()
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
        streamer.left(images::filled(2, 1, kMillisecond, 1));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.clearImageQueues();
        streamer.right(images::filled(2, 1, kMillisecond, 1));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
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
        for (int n = 0; n < 5; ++n) {
            sendPair(streamer, kMillisecond);
        }
        streamer.clearImageQueues();
        tq::Mat out = images::joined(2, 1);
        tq::Timestamp timestamp = 0;
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
        streamer.left(images::filled(2, 1, kMillisecond, 1));
        QCOMPARE(streamer.createSBS(out, timestamp), 1);
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
        QTest::qWait(20);
        QCOMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
    }

    // All packets of the left camera's batch go out as they are, empty ones included, before the
    // image that came with them.
    void leftImuPacketsAreForwardedInOrder()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        std::vector<tq::IMUPacket> batch = {tq::IMUPacket{},
                                            tq::IMUPacket{},
                                            tq::IMUPacket{},
                                            sdkfake::makeImuPacket(1, 10),
                                            sdkfake::makeImuPacket(2, 20),
                                            sdkfake::makeImuPacket(3, 30)};
        sendPair(streamer, kMillisecond, sdkfake::makeImuPacket(99, 990), batch);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        sendPair(streamer, 2 * kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{2});

        const sdkfake::Sender sender = sdkfake::lastSender();
        QCOMPARE(sender.imuPackets.size(), batch.size());
        for (std::size_t i = 0; i < batch.size(); ++i) {
            QCOMPARE(hex(&sender.imuPackets[i], 360), hex(&batch[i], 360));
        }
        QCOMPARE(toList(sdkfake::callTexts(sdkfake::Frame)),
                 QStringList({"UDPOutput#1.ingestIMU(0)", "UDPOutput#1.ingestIMU(0)",
                              "UDPOutput#1.ingestIMU(0)", "UDPOutput#1.ingestIMU(10)",
                              "UDPOutput#1.ingestIMU(20)", "UDPOutput#1.ingestIMU(30)",
                              "UDPOutput#1.ingestYUVFrame(1000000)",
                              "UDPOutput#1.ingestYUVFrame(2000000)"}));
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

    void withoutImu()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1, false)), 0);
        const tq::IMUPacket packet = sdkfake::makeImuPacket(5, 50);
        sendPair(streamer, kMillisecond, packet, {packet, packet});
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

    void streamUpdatedOnceAtTheEnd()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        std::vector<std::pair<int, bool>> direct;
        std::vector<std::pair<int, bool>> queued;
        connect(
            &streamer, &VirtualCameraStreamer::StreamUpdated, &streamer,
            [&direct](int serial, bool on) { direct.emplace_back(serial, on); },
            Qt::DirectConnection);
        connect(
            &streamer, &VirtualCameraStreamer::StreamUpdated, this,
            [&queued](int serial, bool on) { queued.emplace_back(serial, on); },
            Qt::QueuedConnection);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        QCOMPARE(queued.size(), std::size_t{0});
        streamer.close();
        const std::vector<std::pair<int, bool>> once = {{101234567, false}};
        QVERIFY(direct == once);
        streamer.close();
        QTRY_VERIFY(queued == once);
        QVERIFY(direct == once);
    }

    void stuckThreadIsTerminated()
    {
        if (kThreadSanitizer) {
            QSKIP("the thread sanitizer loses track of a thread that is cancelled");
        }
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sdkfake::blockIngest(true);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::heldCalls(), 1);
        QElapsedTimer timer;
        timer.start();
        streamer.close();
        const qint64 elapsed = timer.elapsed();
        sdkfake::blockIngest(false);
        QVERIFY2(elapsed >= 2000, qPrintable(QString::number(elapsed)));
        QVERIFY2(elapsed < 10000, qPrintable(QString::number(elapsed)));
        QVERIFY(!streamer.isRunning());
        QVERIFY(sdkfake::lastSender().closed);
        QVERIFY(sdkfake::lastSender().destroyed);
    }

    // After a machine was halted, the images of several frames come at once, one camera's first
    // perhaps. Of two pairs that wait only the newer would be sent.
    void pairsThatComeAtOnceAreAllSent()
    {
        constexpr int kPairs = 4;
        constexpr qint64 kPatience = 100;  // ms; the images may wait that long in all
        for (int attempt = 0; attempt < 50; ++attempt) {
            const auto memory = std::make_unique<VirtualCameraStreamer>();
            VirtualCameraStreamer& streamer = *memory;
            QCOMPARE(streamer.open(images::infos(2, 1)), 0);
            QElapsedTimer timer;
            timer.start();
            for (int n = 1; n <= kPairs; ++n) {
                streamer.ingestLeftImage(1, images::filled(2, 1, n * 33 * kMillisecond, 1), {}, {});
            }
            for (int n = 1; n <= kPairs; ++n) {
                streamer.ingestRightImage(2, images::filled(2, 1, n * 33 * kMillisecond, 2), {},
                                          {});
            }
            if (timer.elapsed() >= kPatience) {
                continue;  // the machine is too busy to tell
            }
            const auto lastSent = [] {
                const auto frames = sdkfake::lastSender().frames;
                return frames.empty() ? 0 : frames.back()->timestamp;
            };
            QTRY_COMPARE(lastSent(), kPairs * 33 * kMillisecond);
            const auto frames = sdkfake::lastSender().frames;
            QCOMPARE(frames.size(), std::size_t{kPairs});
            for (std::size_t n = 0; n < frames.size(); ++n) {
                QCOMPARE(frames[n]->timestamp, (n + 1) * 33 * kMillisecond);
            }
            return;
        }
        QFAIL("no burst of images got in within the time that they may wait");
    }

    // The thread that brings the images has other work to do.
    void stuckSenderDoesNotHoldUpImages()
    {
        constexpr int kPairs = 100;
        constexpr qint64 kLimit = 5000;  // ms
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sdkfake::blockIngest(true);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::heldCalls(), 1);
        QElapsedTimer timer;
        timer.start();
        for (int n = 2; n < 2 + kPairs; ++n) {
            sendPair(streamer, n * 33 * kMillisecond);
        }
        const qint64 elapsed = timer.elapsed();
        sdkfake::blockIngest(false);
        QVERIFY2(elapsed < kLimit, qPrintable(QString::number(elapsed)));
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

QTEST_GUILESS_MAIN(StreamerTest)
#include "test_streamer.moc"
