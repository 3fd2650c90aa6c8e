// SPDX-License-Identifier: Apache-2.0
// How long a command is waited for, and what becomes of one that takes longer.
#include <signal.h>
#include <sys/types.h>

#include <QtTest>
#include <cerrno>

#include "app/commands/commandrunners.h"
#include "tests/sandbox/sandbox.h"
#include "tests/support/messagelog.h"

class CommandLimitsTest : public QObject {
    Q_OBJECT

private slots:
    // After 30 s it is killed, and what it has printed by then is all there is. Nothing is
    // reported.
    void endlessCommandIsKilled()
    {
        const QTemporaryDir directory;
        const QString mark = directory.filePath("process");
        sandbox::StandIns standIns;
        standIns.add("probe");
        standIns.script("probe", "echo so far; echo $$ >\"$1\"; exec sleep 300\n");
        standIns.install();
        const MessageLog log;
        QElapsedTimer timer;
        timer.start();
        startBlockingProcess(".", "probe " + mark, true);
        const qint64 elapsed = timer.elapsed();

        const auto process = static_cast<pid_t>(sandbox::readFile(mark).trimmed().toInt());
        QVERIFY(process > 0);
        QVERIFY(kill(process, 0) == -1 && errno == ESRCH);
        QVERIFY2(elapsed >= 30000 && elapsed < 40000, qPrintable(QString::number(elapsed)));
        QCOMPARE(log.messages().size(), 1);
        QVERIFY2(log.messages().constFirst().endsWith("outputs  \"so far\\n\""),
                 qPrintable(log.messages().constFirst()));
    }
};

QTEST_GUILESS_MAIN(CommandLimitsTest)
#include "test_command_limits.moc"
