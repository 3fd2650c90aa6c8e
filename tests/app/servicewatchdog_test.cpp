// SPDX-License-Identifier: Apache-2.0
// When systemd hears that the service is alive.
#include <QtTest>

#include "app/servicewatchdog.h"
#include "tests/support/messagelog.h"
#include "tests/support/notifysocket.h"

namespace {

constexpr char kLimit[] = "80000";  // µs: a beat every 20 ms
constexpr char kReady[] = "READY=1";
constexpr char kAlive[] = "WATCHDOG=1";

}  // namespace

class ServiceWatchdogTest : public QObject {
    Q_OBJECT

    std::unique_ptr<NotifySocket> systemd;
    int asked = 0;
    std::optional<std::uint64_t> images = 0;

    ServiceWatchdog::Counter counter()
    {
        return [this] {
            ++asked;
            return images;
        };
    }

    /// What is told in the next beats.
    QByteArrayList toldIn(int beats)
    {
        const int end = asked + beats;
        return QTest::qWaitFor([&] { return asked >= end; }, 20000) ? systemd->take()
                                                                    : QByteArrayList{"no beat"};
    }

private slots:
    void init()
    {
        systemd = std::make_unique<NotifySocket>();
        QVERIFY(systemd->bound());
        qputenv("NOTIFY_SOCKET", systemd->path());
        qputenv("WATCHDOG_USEC", kLimit);
        qunsetenv("WATCHDOG_PID");
        asked = 0;
        images = 0;
    }
    void cleanup()
    {
        qunsetenv("NOTIFY_SOCKET");
        qunsetenv("WATCHDOG_USEC");
    }

    // An object whose event loop never runs says nothing.
    void readyWhenTheLoopRuns()
    {
        const ServiceWatchdog watchdog(counter());
        QTest::qSleep(100);
        QCOMPARE(systemd->take(), QByteArrayList());
        QCoreApplication::processEvents();
        QCOMPARE(systemd->take().value(0), QByteArray(kReady));
    }

    void aliveWhileImagesCome()
    {
        const MessageLog log;
        const ServiceWatchdog watchdog([this] {
            ++asked;
            return std::optional(++*images);
        });
        QCOMPARE(toldIn(3), QByteArrayList({kReady, kAlive, kAlive, kAlive}));
        QCOMPARE(log.messages(), QStringList());
    }

    void silentWithoutImages()
    {
        const MessageLog log;
        const ServiceWatchdog watchdog(counter());
        QCOMPARE(toldIn(3), QByteArrayList({kReady}));
        const QString line = QStringLiteral(
            "[KORVistrel] No camera of any stream delivers: systemd will start the service again "
            "unless one does");
        QCOMPARE(log.messages(), QStringList(line));
        images = 7;
        QCOMPARE(toldIn(3), QByteArrayList({kAlive}));
        QCOMPARE(log.messages(), QStringList({line, line}));
    }

    // A configuration without streams: nothing can come, so nothing is missing.
    void aliveWithoutStreams()
    {
        images.reset();
        const ServiceWatchdog watchdog(counter());
        QCOMPARE(toldIn(2), QByteArrayList({kReady, kAlive, kAlive}));
    }

    void withoutLimit_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("value");
        QTest::newRow("none") << QByteArray("WATCHDOG_USEC") << QByteArray();
        QTest::newRow("another process's") << QByteArray("WATCHDOG_PID") << QByteArray("1");
    }
    void withoutLimit()
    {
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, value);
        value.isEmpty() ? qunsetenv(name) : qputenv(name, value);
        const ServiceWatchdog watchdog(counter());
        QByteArrayList told;
        QVERIFY(QTest::qWaitFor([&] {
            told << systemd->take();
            return !told.isEmpty();
        }));
        QTest::qWait(100);
        told << systemd->take();
        QCOMPARE(told, QByteArrayList({kReady}));
        QCOMPARE(asked, 0);
    }

    void withoutSystemd()
    {
        cleanup();
        const ServiceWatchdog watchdog(counter());
        QTest::qWait(50);
        QCOMPARE(systemd->take(), QByteArrayList());
        QCOMPARE(asked, 0);
    }
};

QTEST_GUILESS_MAIN(ServiceWatchdogTest)
#include "servicewatchdog_test.moc"
