// SPDX-License-Identifier: Apache-2.0
// The command runners and the question whether a service is enabled.
#include <dlfcn.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <QtTest>
#include <cerrno>
#include <exception>
#include <functional>
#include <stdexcept>

#include "app/commands/commandrunners.h"
#include "tests/sandbox/sandbox.h"
#include "tests/support/messagelog.h"

namespace {

std::string outputOf(const std::string& command)
{
    std::string output = "what was there before";
    executeCMD_RC(command, output);
    return output;
}

/// What becomes of one wait of a QProcess; without it, the wait is what Qt makes of it.
std::function<bool(QProcess&)> finishing;
QStringList waits;  ///< each wait with its limit, in ms
QIODevice::OpenMode startedMode;

using Wait = bool (*)(QProcess*, int);

}  // namespace

// In the place of Qt's own functions, so that limits are seen without waiting for them.
bool QProcess::waitForStarted(int msecs)
{
    waits << QString("started %1").arg(msecs);
    startedMode = openMode();
    static const auto original =
        reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "_ZN8QProcess14waitForStartedEi"));
    return original(this, msecs);
}

bool QProcess::waitForFinished(int msecs)
{
    waits << QString("finished %1").arg(msecs);
    static const auto original =
        reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "_ZN8QProcess15waitForFinishedEi"));
    const auto once = std::exchange(finishing, nullptr);
    return once ? once(*this) : original(this, msecs);
}

class CommandsTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        standIns = std::make_unique<sandbox::StandIns>();
        standIns->add("probe");
        standIns->install();
        waits.clear();
    }
    void cleanup() { standIns.reset(); }

    // ---- executeCMD_RC -----------------------------------------------------------------------

    void shellOutput_data()
    {
        QTest::addColumn<QByteArray>("command");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("text") << QByteArray("printf 'one\\ntwo'") << QByteArray("one\ntwo");
        QTest::newRow("nothing") << QByteArray("true") << QByteArray();
        QTest::newRow("a shell runs it")
            << QByteArray("a=x; echo $a$a | tr x y && echo z") << QByteArray("yy\nz\n");
        QTest::newRow("failure") << QByteArray("echo before; exit 3") << QByteArray("before\n");
        QTest::newRow("error text is not read")
            << QByteArray("echo out; echo err >&2") << QByteArray("out\n");
        QTest::newRow("no such command")
            << QByteArray("no-such-command-at-all 2>/dev/null") << QByteArray();
        QTest::newRow("blank lines")
            << QByteArray("printf '\\n\\nx\\n\\n'") << QByteArray("\n\nx\n\n");
    }
    void shellOutput()
    {
        QFETCH(QByteArray, command);
        QFETCH(QByteArray, expected);
        QCOMPARE(QByteArray::fromStdString(outputOf(command.toStdString())), expected);
    }

    void longLines_data()
    {
        QTest::addColumn<int>("length");
        for (const int length : {9998, 9999, 10000, 10001, 19998, 19999, 20000, 123457}) {
            QTest::addRow("%d", length) << length;
        }
    }
    void longLines()
    {
        QFETCH(int, length);
        QByteArray text;
        for (int i = 0; i < length; ++i) {
            text += static_cast<char>('a' + i % 26);
        }
        text += "\nsecond line\n";
        standIns->answer("probe", text);
        QCOMPARE(QByteArray::fromStdString(outputOf("probe")), text);
    }

    void commandReachesTheShellAsItIs()
    {
        outputOf("probe one 'two three' \"$HOME_OF_NOBODY\"");
        QCOMPARE(standIns->calls(), QStringList("probe one two three "));
    }

    void noInterpreter()
    {
        rlimit former{};
        QCOMPARE(getrlimit(RLIMIT_NOFILE, &former), 0);
        rlimit none = former;
        none.rlim_cur = 0;
        QCOMPARE(setrlimit(RLIMIT_NOFILE, &none), 0);
        std::string output = "untouched";
        std::exception_ptr failure;
        try {
            executeCMD_RC("true", output);
        } catch (...) {
            failure = std::current_exception();
        }
        setrlimit(RLIMIT_NOFILE, &former);
        QVERIFY(failure != nullptr);
        QByteArray message;
        try {
            std::rethrow_exception(failure);
        } catch (const std::runtime_error& error) {
            message = error.what();
        }
        QCOMPARE(message, QByteArray("popen() failed!"));
        QCOMPARE(output, std::string("untouched"));
    }

    void leavesNothingBehind()
    {
        const auto openFiles = [] { return QDir("/proc/self/fd").entryList().size(); };
        const int before = openFiles();
        QCOMPARE(outputOf("echo x"), std::string("x\n"));
        QCOMPARE(openFiles(), before);
        QVERIFY(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
    }

    // ---- startBlockingProcess ----------------------------------------------------------------

    void argumentsAreSplitAtBlanks()
    {
        startBlockingProcess(".", "probe  one   two *", false);
        QCOMPARE(standIns->calls(), QStringList("probe one two *"));
    }

    void noShell()
    {
        startBlockingProcess(".", "probe $HOME ; probe | probe", false);
        QCOMPARE(standIns->calls(), QStringList("probe $HOME ; probe | probe"));
    }

    void workingDirectory()
    {
        const QTemporaryDir directory;
        standIns->script("probe", "pwd -P > \"$1\"\n");
        const QString answer = directory.filePath("answer");
        startBlockingProcess(directory.path(), "probe " + answer, false);
        QCOMPARE(QString(sandbox::readFile(answer)).trimmed(),
                 QFileInfo(directory.path()).canonicalFilePath());
        startBlockingProcess("./", "probe " + answer, false);
        QCOMPARE(QString(sandbox::readFile(answer)).trimmed(), QDir::current().canonicalPath());
    }

    void waitsForTheEnd()
    {
        const QTemporaryDir directory;
        const QString mark = directory.filePath("mark");
        standIns->script("probe", "sleep 0.3; echo done > \"$1\"\n");
        startBlockingProcess(".", "probe " + mark, false);
        QCOMPARE(sandbox::readFile(mark), QByteArray("done\n"));
    }

    void limitsAndMode()
    {
        startBlockingProcess(".", "probe", false);
        QCOMPARE(waits.mid(0, 2), QStringList({"started 30000", "finished 30000"}));
        QVERIFY(startedMode == QIODevice::ReadWrite);
    }

    // It is killed, and what it has printed by then is all there is. Nothing is reported.
    void endlessCommandIsKilled()
    {
        const QTemporaryDir directory;
        const QString mark = directory.filePath("process");
        standIns->script("probe", "echo $$ >\"$1\"; echo so far; exec sleep 300\n");
        // The limit is over as soon as it has printed something.
        finishing = [](QProcess& process) {
            process.waitForReadyRead();
            return false;
        };
        const MessageLog log;
        startBlockingProcess(".", "probe " + mark, true);

        const auto process = static_cast<pid_t>(sandbox::readFile(mark).trimmed().toInt());
        QVERIFY(process > 0);
        QVERIFY(kill(process, 0) == -1 && errno == ESRCH);
        QCOMPARE(log.messages().size(), 1);
        QVERIFY2(log.messages().constFirst().endsWith("outputs  \"so far\\n\""),
                 qPrintable(log.messages().constFirst()));
    }

    void verboseLog_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QByteArray>("error");
        QTest::addColumn<QString>("logged");
        QTest::newRow("output") << QByteArray("hello\n") << QByteArray() << "\"hello\\n\"";
        QTest::newRow("error") << QByteArray() << QByteArray("bad") << "\"bad\"";
        QTest::newRow("output, then error")
            << QByteArray("one\n") << QByteArray("two") << "\"one\\ntwo\"";
        QTest::newRow("quotes") << QByteArray("a \"b\"") << QByteArray() << "\"a \\\"b\\\"\"";
    }
    void verboseLog()
    {
        QFETCH(QByteArray, output);
        QFETCH(QByteArray, error);
        QFETCH(QString, logged);
        standIns->answer("probe", output, error, 4);
        const MessageLog log;
        startBlockingProcess(".", "probe some thing", true);
        QCOMPARE(log.messages().size(), 1);
        // Items: "[", date, "] ", " Process ", command, "outputs ", text, with one blank between.
        const QRegularExpression line(
            "^\\[ \"(.*)\" \\]   Process  \"probe some thing\" outputs  (.*)$");
        const QRegularExpressionMatch match = line.match(log.messages().constFirst());
        QVERIFY2(match.hasMatch(), qPrintable(log.messages().constFirst()));
        QCOMPARE(match.captured(2), logged);
        const QDateTime date = QDateTime::fromString(match.captured(1));
        QVERIFY2(date.isValid(), qPrintable(match.captured(1)));
        QVERIFY(qAbs(date.secsTo(QDateTime::currentDateTime())) < 30);
        QCOMPARE(match.captured(1), date.toString());
    }

    void quiet()
    {
        standIns->answer("probe", "hello\n", "bad\n");
        const MessageLog log;
        startBlockingProcess(".", "probe", false);
        QCOMPARE(standIns->calls(), QStringList("probe"));
        QCOMPARE(log.messages(), QStringList());
    }

    void verboseWithoutOutput()
    {
        const MessageLog log;
        startBlockingProcess(".", "probe", true);
        QCOMPARE(standIns->calls(), QStringList("probe"));
        QCOMPARE(log.messages(), QStringList());
    }

    void failuresAreNotReported()
    {
        const MessageLog log;
        QElapsedTimer timer;
        timer.start();
        startBlockingProcess(".", "no-such-command-at-all", true);
        startBlockingProcess("/no/such/directory", "probe", true);
        startBlockingProcess(".", "", true);
        QVERIFY(timer.elapsed() < 10000);
        QCOMPARE(standIns->calls(), QStringList());
        QCOMPARE(log.debugMessages(QString()), QStringList());
    }

    void muchOutputDoesNotBlock()
    {
        standIns->script("probe",
                         "head -c 3000000 /dev/zero | tr '\\0' x\n"
                         "head -c 3000000 /dev/zero | tr '\\0' y >&2\n");
        QElapsedTimer timer;
        timer.start();
        const MessageLog log;
        startBlockingProcess(".", "probe", true);
        QVERIFY(timer.elapsed() < 20000);
        QCOMPARE(log.messages().size(), 1);
        QVERIFY(log.messages().constFirst().contains("xy"));
        QVERIFY(log.messages().constFirst().size() > 6000000);
    }

    // ---- ServiceHandler ----------------------------------------------------------------------

    void enableStatus_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("enabled");
        QTest::newRow("enabled") << QByteArray("enabled\n") << 0 << true;
        QTest::newRow("enabled-runtime") << QByteArray("enabled-runtime\n") << 0 << true;
        QTest::newRow("disabled") << QByteArray("disabled\n") << 1 << false;
        QTest::newRow("static") << QByteArray("static\n") << 0 << false;
        QTest::newRow("masked") << QByteArray("masked\n") << 1 << false;
        QTest::newRow("nothing") << QByteArray() << 1 << false;
        QTest::newRow("upper case") << QByteArray("Enabled\n") << 0 << false;
        QTest::newRow("anywhere") << QByteArray("a line\nis enabled here\n") << 1 << true;
        QTest::newRow("cut off") << QByteArray("enable\n") << 0 << false;
        QTest::newRow("not found") << QByteArray("not-found\n") << 4 << false;
    }
    void enableStatus()
    {
        QFETCH(QByteArray, answer);
        QFETCH(int, status);
        QFETCH(bool, enabled);
        standIns->answer("systemctl", answer, {}, status);
        QCOMPARE(ServiceHandler::getDaemonServiceEnableStatus("kor_vistrel_cli.service"), enabled);
        QCOMPARE(standIns->calls(), QStringList("systemctl is-enabled kor_vistrel_cli.service"));
    }

    void errorTextIsNotTheAnswer()
    {
        standIns->answer("systemctl", "", "enabled? no such unit\n", 1);
        QVERIFY(!ServiceHandler::getDaemonServiceEnableStatus("other.service"));
        QCOMPARE(standIns->calls(), QStringList("systemctl is-enabled other.service"));
    }

private:
    std::unique_ptr<sandbox::StandIns> standIns;
};

QTEST_GUILESS_MAIN(CommandsTest)
#include "commands_test.moc"
