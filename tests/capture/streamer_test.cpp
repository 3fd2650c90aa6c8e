// SPDX-License-Identifier: Apache-2.0
// The streamer on a scripted sender: configuration, life cycle and thread.
#include <QtTest>
#include <array>
#include <iostream>
#include <memory>
#include <sstream>
#include <thread>

#include "tests/capture/images.h"
#include "tests/capture/pauses.h"
#include "tests/sdk_fake/sdk_fake.h"
#include "tests/support/comparisons.h"
#include "tests/support/messagelog.h"

namespace {

using images::kMillisecond;

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
        QTest::newRow("no port") << quint64{1} << 0u << true << 0;
        QTest::newRow("negative port") << quint64{1} << 0xFFFF'FFFEu << true << 0;
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
        const MessageLog log;
        QCOMPARE(streamer.open(infos), 0);
        QStringList lines;
        if (port < 1 || port > 65535) {
            lines
                << QStringLiteral(
                       "[VirtualCameraStreamer] Virtual camera %1 has no possible port: %2 is not "
                       "from 1 to 65535, the sender is given %3")
                       .arg(serial)
                       .arg(static_cast<int>(port))
                       .arg(port & 0xFFFF);
        }
        QCOMPARE(log.messages().filter("no possible port"), lines);
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
        int linesAtTheEnd = 0;
        connect(
            &streamer, &VirtualCameraStreamer::StreamUpdated, &streamer,
            [&] { linesAtTheEnd = log.debugMessages("[VirtualCameraStreamer]").size(); },
            Qt::DirectConnection);
        QCOMPARE(streamer.open(images::infos(1920, 1200)), 0);
        QTRY_COMPARE(log.debugMessages("[VirtualCameraStreamer]").size(), 2);
        streamer.close();
        QCOMPARE(linesAtTheEnd, 3);  // the end is told when it has been logged
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
        QVERIFY(streamer.priority() == QThread::InheritPriority);
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

    void threadEndsBeforeTheSender()
    {
        static QStringList callsAtExit;
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        QCOMPARE(memory->open(images::infos(2, 1)), 0);
        const QtMessageHandler former =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) {
                if (text.contains("--> Exit <--"))
                    callsAtExit = senderCalls();
            });
        memory->close();
        qInstallMessageHandler(former);
        QCOMPARE(callsAtExit,
                 QStringList({"UDPOutput#1.UDPOutput(0, true)", "UDPOutput#1." + kOpened}));
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

    // What is left of the former stream is deleted as its thread ends.
    void failedReopeningEndsTheStream()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        const Ends ends(streamer);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        streamer.ingestLeftImage(1, images::filled(2, 1, 2 * kMillisecond, 1), {}, {});

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
        sdkfake::setSenderResult(0);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        streamer.ingestRightImage(2, images::filled(2, 1, 2 * kMillisecond, 1), {}, {});
        streamer.ingestRightImage(2, images::filled(2, 1, 9 * kMillisecond, 1), {}, {});
        streamer.ingestLeftImage(1, images::filled(2, 1, 9 * kMillisecond, 1), {}, {});
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        QCOMPARE(sdkfake::lastSender().frames[0]->timestamp, 9 * kMillisecond);
        QCOMPARE(streamer.droppedImages().left, std::uint64_t{0});
        QCOMPARE(streamer.droppedImages().right, std::uint64_t{1});
    }

    // First the sender goes, then the message comes, and only then the thread ends.
    void failedReopeningReportsFirst()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        std::ostringstream output;
        QString printed;
        QStringList calls;
        connect(
            &streamer, &VirtualCameraStreamer::StreamUpdated, &streamer,
            [&] {
                printed = QString::fromStdString(output.str());
                calls = senderCalls();
            },
            Qt::DirectConnection);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sdkfake::setSenderResult(21);
        std::streambuf* const former = std::cout.rdbuf(output.rdbuf());
        const int result = streamer.open(images::infos(2, 1));
        std::cout.rdbuf(former);
        QCOMPARE(result, -1);
        QCOMPARE(printed, QString("Streaming Error 21\n"));
        QCOMPARE(calls.constLast(), QString("UDPOutput#2.~UDPOutput()"));
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
        QFETCH(bool, reopen);
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        const Ends ends(streamer);
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        const tq::Mat left = images::filled(2, 1, kMillisecond, 1);
        const tq::Mat right = images::filled(2, 1, 500 * kMillisecond, 2);
        for (int n = 0; n < kImages; ++n) {
            streamer.ingestLeftImage(1, left, {}, {});
            streamer.ingestRightImage(2, right, {}, {});
        }
        pauses::reset();
        QTRY_VERIFY(pauses::ofOtherThreads()[10] > 0);  // the search runs
        if (reopen) {
            QCOMPARE(streamer.open(images::infos(4, 2)), 0);
        } else {
            streamer.close();
            // The thread ended by itself.
            QCOMPARE(ends.serials(), std::vector<int>{101234567});
        }
        QVERIFY(pauses::ofOtherThreads()[10] < kImages * kImages / 2);
        if (reopen) {
            // The thread searches on, so what is there now must be found once the rest is gone.
            streamer.clearImageQueues();
            streamer.ingestLeftImage(1, images::filled(4, 2, kMillisecond, 1), {}, {});
            streamer.ingestRightImage(2, images::filled(4, 2, kMillisecond, 2), {}, {});
            QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{1});
        }
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

    // The joined frame is allocated once, before the thread says that it has begun.
    void oneFrameForTheWholeStream()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        const MessageLog log;
        QCOMPARE(streamer.open(images::infos(6, 4)), 0);
        const auto allocated = [] {
            return toList(sdkfake::callTexts(sdkfake::Image)).count("Mat.alloc(12, 4, 5, 1)");
        };
        QTRY_COMPARE(log.debugMessages("[VirtualCameraStreamer] --> Enter").size(), 1);
        QCOMPARE(allocated(), 1);
        for (std::size_t n = 1; n <= 5; ++n) {
            streamer.ingestLeftImage(1, images::filled(6, 4, n * kMillisecond, 1), {}, {});
            streamer.ingestRightImage(2, images::filled(6, 4, n * kMillisecond, 1), {}, {});
            QTRY_COMPARE(sdkfake::lastSender().frames.size(), n);
        }
        QCOMPARE(allocated(), 1);
    }

    // 100 µs in every pass, whether a frame was sent or not.
    void pauseInEveryPass()
    {
        const auto memory = std::make_unique<VirtualCameraStreamer>();
        VirtualCameraStreamer& streamer = *memory;
        std::vector<int> pausesAtFrame;
        pauses::reset();
        // The second pair is there as soon as the first has been sent.
        sdkfake::onFrame([&](const sdkfake::Sender&, const unsigned char*, tq::Timestamp time) {
            pausesAtFrame.push_back(pauses::ofThread(std::this_thread::get_id())[100]);
            if (time == kMillisecond) {
                std::thread([&streamer] { sendPair(streamer, 2 * kMillisecond); }).join();
            }
        });
        QCOMPARE(streamer.open(images::infos(2, 1)), 0);
        sendPair(streamer, kMillisecond);
        QTRY_COMPARE(sdkfake::lastSender().frames.size(), std::size_t{2});
        streamer.close();
        const pauses::Counts all = pauses::ofOtherThreads();
        QCOMPARE(all.size(), std::size_t{1});
        QVERIFY(all.begin()->first == 100);
        QCOMPARE(pausesAtFrame[1], pausesAtFrame[0] + 1);
    }
};

QTEST_GUILESS_MAIN(StreamerTest)
#include "streamer_test.moc"
