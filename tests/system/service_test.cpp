// SPDX-License-Identifier: Apache-2.0
// What the service tells systemd, and how it takes a configuration that is none.
#include <sys/stat.h>

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QtTest>
#include <memory>

#include "tests/sandbox/sandbox.h"
#include "tests/support/notifysocket.h"

namespace {

constexpr char kReady[] = "READY=1";
constexpr char kAlive[] = "WATCHDOG=1";

QByteArray camera(int serial, const QByteArray& more = {})
{
    return "{\"serial\":" + QByteArray::number(serial) +
           ",\"model\":\"KOR T Solo GS\",\"source\":{\"type\":\"simulated\"" + more + "}}";
}

QByteArray rig(const QByteArrayList& cameras)
{
    return "{\"cameras\":[" + cameras.join(',') + "]}";
}

const QByteArray kPair =
    "{\"101234567\":{\"Left\":30123456,\"Right\":30123457,\"Port\":34000,\"IMU\":false,"
    "\"Width\":64,\"Height\":48,\"FPS\":30}}";

}  // namespace

class ServiceTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<sandbox::StandIns> standIns;
    std::unique_ptr<NotifySocket> systemd;
    sandbox::Options options;

    QString configuration() const { return options.settings + "/virtual_tsolo_config.json"; }

    void writeRig(const QByteArray& text) const
    {
        QVERIFY(sandbox::writeFile(folder->filePath("rig.json"), text));
    }

    void start(QProcess& process) const
    {
        sandbox::prepare(process, options, KOR_VISTREL, {"--cli"});
        process.start();
    }

    static void stop(QProcess& process)
    {
        process.kill();
        process.waitForFinished();
    }

private slots:
    void initTestCase() { sandbox::skipProgramUnlessAvailable(); }

    void init()
    {
        folder = std::make_unique<QTemporaryDir>();
        standIns = std::make_unique<sandbox::StandIns>();
        systemd = std::make_unique<NotifySocket>();
        QVERIFY(systemd->bound());
        options = sandbox::Options();
        options.settings = folder->filePath("settings");
        QVERIFY(QDir().mkdir(options.settings));
        options.standIns = standIns.get();
        options.privateNetwork = true;
        options.environment.insert("KOR_RIG", folder->filePath("rig.json"));
        options.environment.insert("NOTIFY_SOCKET", QString::fromLocal8Bit(systemd->path()));
        options.environment.insert("WATCHDOG_USEC", "1000000");
    }

    // Once it streams it is ready, and alive while pictures come: both cameras die, and live again.
    void aliveWhilePicturesCome()
    {
        const QByteArray fault = ",\"deathAfter\":2,\"reviveAfter\":4";
        writeRig(rig({camera(30123456, fault), camera(30123457, fault)}));
        QVERIFY(sandbox::writeFile(configuration(), kPair));
        QProcess process;
        start(process);
        QByteArrayList told;
        QElapsedTimer since;
        qint64 longest = 0;  // between two signs of life
        const bool lives = QTest::qWaitFor(
            [&] {
                const QByteArrayList news = systemd->take();
                if (news.contains(kAlive)) {
                    longest = since.isValid() ? std::max(longest, since.restart()) : 0;
                    since.isValid() ? void() : since.start();
                }
                told << news;
                return longest > 2000;
            },
            60000);
        stop(process);
        const QByteArray log = process.readAllStandardError();
        QVERIFY2(lives, told.join(' ') + '\n' + log);
        QCOMPARE(told.first(), QByteArray(kReady));
        QCOMPARE(told.count(kReady), 1);
        QVERIFY2(log.contains("No camera of any stream delivers"), log);
    }

    // Without a camera the program idles, as ever; systemd hears nothing and starts it again.
    void camerasThatAreNotThere()
    {
        writeRig(rig({}));
        QVERIFY(sandbox::writeFile(configuration(), kPair));
        QProcess process;
        start(process);
        const bool warned = QTest::qWaitFor(
            [&] {
                process.setReadChannel(QProcess::StandardError);
                return process.peek(1 << 20).contains("No camera of any stream delivers");
            },
            30000);
        QCOMPARE(systemd->take(), QByteArrayList({kReady}));
        QCOMPARE(process.state(), QProcess::Running);
        stop(process);
        QVERIFY(warned);
    }

    void emptyConfigurationIsAlive_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("object") << QByteArray("{}\n");
        QTest::newRow("null") << QByteArray("null\n");
    }
    void emptyConfigurationIsAlive()
    {
        QFETCH(QByteArray, text);
        writeRig(rig({}));
        QVERIFY(sandbox::writeFile(configuration(), text));
        QProcess process;
        start(process);
        QByteArrayList told;
        const bool alive = QTest::qWaitFor(
            [&] {
                told << systemd->take();
                return told.count(kAlive) > 5;  // longer than systemd would wait
            },
            30000);
        stop(process);
        QVERIFY2(alive, told.join(' '));
        QVERIFY(process.readAllStandardError().contains(
            "[KORVistrel] The configuration names no virtual camera: nothing is streamed"));
    }
};

QTEST_GUILESS_MAIN(ServiceTest)
#include "service_test.moc"
