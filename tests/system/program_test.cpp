// SPDX-License-Identifier: Apache-2.0
// The program's run modes, options and exit statuses, seen from outside.
#include <QtTest>
#include <memory>

#include "tests/sandbox/sandbox.h"

namespace {

const QString kConfigName = QStringLiteral("virtual_tsolo_config.json");
constexpr char kVersionLine[] = "[KORVistrel] Version  0.1.8\n";
constexpr char kDaemonCommand[] = "sudo systemctl restart nvargus-daemon";
constexpr char kStopCommand[] = "sudo systemctl stop kor_vistrel_cli.service";

}  // namespace

class ProgramTest : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> settings;
    std::unique_ptr<QTemporaryDir> sharedMemory;
    std::unique_ptr<QTemporaryDir> home;
    std::unique_ptr<sandbox::StandIns> standIns;
    sandbox::Options options;

    QString configPath() const { return settings->filePath(kConfigName); }

    static QStringList listing(const QTemporaryDir& directory)
    {
        return QDir(directory.path())
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name);
    }

    sandbox::Result run(const QStringList& arguments)
    {
        return sandbox::run(options, KOR_VISTREL, arguments);
    }

    /// Starts the program and waits until it has called @p command.
    bool startAndAwait(QProcess& process, const QStringList& arguments, const QString& command)
    {
        sandbox::prepare(process, options, KOR_VISTREL, arguments);
        process.start();
        return QTest::qWaitFor(
                   [&] {
                       return standIns->calls().contains(command) ||
                              process.state() == QProcess::NotRunning;
                   },
                   20000) &&
               standIns->calls().contains(command);
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
        settings = std::make_unique<QTemporaryDir>();
        sharedMemory = std::make_unique<QTemporaryDir>();
        home = std::make_unique<QTemporaryDir>();
        standIns = std::make_unique<sandbox::StandIns>();
        options = sandbox::Options();
        options.settings = settings->path();
        options.sharedMemory = sharedMemory->path();
        options.standIns = standIns.get();
        // A rig without cameras: nothing of the tester's may turn up.
        const QString rig = home->filePath("rig.json");
        sandbox::writeFile(rig, "{\"cameras\": []}\n");
        options.environment.insert("KOR_RIG", rig);
        options.environment.insert("HOME", home->path());
        options.environment.remove("XDG_CONFIG_HOME");
        options.environment.insert("LANG", "C.UTF-8");
    }

    void help_data()
    {
        QTest::addColumn<QString>("option");
        QTest::newRow("long") << "--help";
        QTest::newRow("short") << "-h";
    }
    void help()
    {
        QFETCH(QString, option);
        const sandbox::Result result = run({option});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.error, QByteArray(kVersionLine));
        const QStringList lines = QString(result.output).split('\n', Qt::SkipEmptyParts);
        QVERIFY2(lines.contains("KOR Vistrel help"), result.output);
        // The program's own options, each with its description, in this order.
        QStringList own;
        for (const QString& line : lines) {
            const QString text = line.simplified();
            if (text.startsWith("--") && !text.startsWith("--help")) {
                own << text;
            }
        }
        QCOMPARE(own, QStringList({"--cli specifiy configuration file",
                                   "--clear-config clear configuration file",
                                   "--clear-memory clear shared memory. Use with caution."}));
        QVERIFY2(result.output.contains("--help "), result.output);
        QCOMPARE(standIns->calls(), QStringList());
    }

    void logLevel_data()
    {
        QTest::addColumn<QString>("option");
        for (const char* option : {"--cli", "--clear-config", "--clear-memory"}) {
            QTest::newRow(option) << option;
        }
    }
    void logLevel()
    {
        QFETCH(QString, option);
        options.environment.insert("QT_MESSAGE_PATTERN", "%{type}");
        QCOMPARE(run({option}).error, QByteArray("debug\ndebug\n"));
    }

    void badOption_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("unknown") << "--nonsense" << QByteArray("Unknown option 'nonsense'.");
        QTest::newRow("value") << "--cli=file" << QByteArray("Unexpected value after '--cli'.");
        QTest::newRow("one dash") << "-cli" << QByteArray("Unknown options: c, l, i.");
        QTest::newRow("no version option")
            << "--version" << QByteArray("Unknown option 'version'.");
    }
    void badOption()
    {
        QFETCH(QString, option);
        QFETCH(QByteArray, message);
        sandbox::writeFile(configPath(), "{}");
        const sandbox::Result result = run({"--clear-config", option});
        QCOMPARE(result.status, 1);
        QVERIFY2(result.error.startsWith(kVersionLine), result.error);
        QVERIFY2(result.error.contains(message), result.error);
        QCOMPARE(listing(*settings), QStringList(kConfigName));
        QCOMPARE(standIns->calls(), QStringList());
    }

    void clearConfig_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("alone") << QStringList("--clear-config");
        QTest::newRow("before clear-memory") << QStringList({"--clear-config", "--clear-memory"});
        QTest::newRow("behind clear-memory") << QStringList({"--clear-memory", "--clear-config"});
        QTest::newRow("with a word") << QStringList({"word", "--clear-config"});
    }
    // Only the configuration file goes, whatever else is asked for.
    void clearConfig()
    {
        QFETCH(QStringList, arguments);
        sandbox::writeFile(configPath(), "{}");
        sandbox::writeFile(settings->filePath("rig.json"), "{}");
        sandbox::writeFile(sharedMemory->filePath("tq_local_*"), "x");
        const sandbox::Result result = run(arguments);
        QCOMPARE(result.status, 0);
        QCOMPARE(result.output, QByteArray());
        QCOMPARE(result.error, kVersionLine + QByteArray("** Clear config file **\n"));
        QCOMPARE(listing(*settings), QStringList("rig.json"));
        QCOMPARE(listing(*sharedMemory), QStringList("tq_local_*"));
        QCOMPARE(standIns->calls(), QStringList());
    }

    void clearConfigWithoutFile()
    {
        const sandbox::Result result = run({"--clear-config"});
        QCOMPARE(result.status, 0);
        // What rm says is not passed on.
        QCOMPARE(result.output, QByteArray());
        QCOMPARE(result.error, kVersionLine + QByteArray("** Clear config file **\n"));
    }

    void clearConfigFails()
    {
        QVERIFY(QDir(settings->path()).mkdir(kConfigName));
        const sandbox::Result result = run({"--clear-config"});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.error, kVersionLine + QByteArray("** Clear config file **\n"));
        QCOMPARE(listing(*settings), QStringList(kConfigName));
    }

    // Each mode runs one command, word for word, where the program itself runs.
    void clearingCommands_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QString>("command");
        QTest::newRow("configuration") << "--clear-config"
                                       << "rm /usr/local/kor/settings/" + kConfigName;
        QTest::newRow("memory") << "--clear-memory"
                                << "rm /dev/shm/tq_local_*";
    }
    void clearingCommands()
    {
        QFETCH(QString, option);
        QFETCH(QString, command);
        const QString folder = home->filePath("folder");
        standIns->add("rm");
        standIns->script("rm", "pwd -P >'" + folder.toLocal8Bit() + "'\n");
        QCOMPARE(run({option}).status, 0);
        QCOMPARE(standIns->calls(), QStringList(command));
        QCOMPARE(QString(sandbox::readFile(folder)).trimmed(), QDir::current().canonicalPath());
    }

    // Nothing is reported when rm cannot even be started.
    void clearingWithoutRm_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("configuration") << "--clear-config" << QByteArray("** Clear config file **");
        QTest::newRow("memory") << "--clear-memory" << QByteArray("** Clear memory handler **");
    }
    void clearingWithoutRm()
    {
        QFETCH(QString, option);
        QFETCH(QByteArray, line);
        sandbox::writeFile(configPath(), "{}");
        sandbox::writeFile(sharedMemory->filePath("tq_local_*"), "x");
        const sandbox::Result result =
            sandbox::run(options, "/usr/bin/env", {"PATH=/nowhere", KOR_VISTREL, option});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.output, QByteArray());
        QCOMPARE(result.error, kVersionLine + line + '\n');
        QCOMPARE(listing(*settings), QStringList(kConfigName));
        QCOMPARE(listing(*sharedMemory), QStringList("tq_local_*"));
    }

    void clearMemory_data()
    {
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QStringList>("left");
        QTest::newRow("nothing there") << QStringList() << QStringList();
        QTest::newRow("camera locks stay")
            << QStringList({"tq_local_30000001", "tq_local_30000002"})
            << QStringList({"tq_local_30000001", "tq_local_30000002"});
        QTest::newRow("a file of that very name")
            << QStringList({"other", "tq_local_*", "tq_local_30000001"})
            << QStringList({"other", "tq_local_30000001"});
    }
    // No shell is involved, so the wildcard is not expanded.
    void clearMemory()
    {
        QFETCH(QStringList, files);
        QFETCH(QStringList, left);
        for (const QString& name : files) {
            QVERIFY(sandbox::writeFile(sharedMemory->filePath(name), "x"));
        }
        sandbox::writeFile(configPath(), "{}");
        const sandbox::Result result = run({"--clear-memory"});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.output, QByteArray());
        QCOMPARE(result.error, kVersionLine + QByteArray("** Clear memory handler **\n"));
        QCOMPARE(listing(*sharedMemory), left);
        QCOMPARE(listing(*settings), QStringList(kConfigName));
    }

    void headlessWithoutConfiguration_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("alone") << QStringList("--cli");
        // The option takes no value: the word is ignored.
        QTest::newRow("with a word") << QStringList({"--cli", "some-file.json"});
    }
    void headlessWithoutConfiguration()
    {
        QFETCH(QStringList, arguments);
        QElapsedTimer timer;
        timer.start();
        const sandbox::Result result = run(arguments);
        QVERIFY2(timer.elapsed() >= 2000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(result.status, 1);
        QCOMPARE(result.output, QByteArray());
        QCOMPARE(result.error, kVersionLine + QByteArray("** CLI version **\n"));
        QCOMPARE(standIns->calls(), QStringList());
    }

    void headlessWithBadConfiguration()
    {
        sandbox::writeFile(configPath(), "{\"5\": {\"Left\": \"30000001\"}}");
        const sandbox::Result result = run({"--cli"});
        QCOMPARE(result.status, 128 + 6);
        QVERIFY2(result.error.startsWith(kVersionLine + QByteArray("** CLI version **\n")),
                 result.error);
        QVERIFY2(result.error.contains("type must be number, but is string"), result.error);
        QCOMPARE(standIns->calls(), QStringList(kDaemonCommand));
    }

    void headlessRunsUntilKilled_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("alone") << QStringList("--cli");
        QTest::newRow("before the clearing options")
            << QStringList({"--cli", "--clear-config", "--clear-memory"});
        QTest::newRow("behind them") << QStringList({"--clear-memory", "--clear-config", "--cli"});
    }
    void headlessRunsUntilKilled()
    {
        QFETCH(QStringList, arguments);
        sandbox::writeFile(configPath(), "{}\n");
        sandbox::writeFile(sharedMemory->filePath("tq_local_*"), "x");
        QProcess process;
        QVERIFY(startAndAwait(process, arguments, kDaemonCommand));
        // Behind the pause that follows the command it idles in its event loop.
        QVERIFY(!process.waitForFinished(3000));
        stop(process);
        QCOMPARE(standIns->calls(), QStringList(kDaemonCommand));
        const QByteArray error = process.readAllStandardError();
        QVERIFY2(error.startsWith(kVersionLine + QByteArray("** CLI version **\n")), error);
        QVERIFY2(!error.contains("Clear"), error);
        QCOMPARE(sandbox::readFile(configPath()), QByteArray("{}\n"));
        QCOMPARE(listing(*sharedMemory), QStringList("tq_local_*"));
    }

    void desktop_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("no argument") << QStringList();
        QTest::newRow("a word") << QStringList("some-file.json");
        QTest::newRow("two words") << QStringList({"cli", "clear-config"});
    }
    void desktop()
    {
        QFETCH(QStringList, arguments);
        sandbox::writeFile(configPath(), "{}\n");
#ifdef VISTREL_DESKTOP
        // The window asks how the service starts; then the service is stopped.
        options.environment.insert("QT_QPA_PLATFORM", "offscreen");
        QProcess process;
        const bool started = startAndAwait(process, arguments, kStopCommand);
        stop(process);
        const QByteArray error = process.readAllStandardError();
        QVERIFY2(started, error);
        QCOMPARE(standIns->calls().mid(0, 2),
                 QStringList({"systemctl is-enabled kor_vistrel_cli.service", kStopCommand}));
#else
        const sandbox::Result result = run(arguments);
        const QByteArray error = result.error;
        QCOMPARE(result.status, 1);
        QVERIFY2(error.contains("built without the desktop mode"), error);
#endif
        QVERIFY2(error.startsWith(kVersionLine), error);
        QVERIFY2(!error.contains("** C"), error);
        QCOMPARE(sandbox::readFile(configPath()), QByteArray("{}\n"));
    }
};

QTEST_GUILESS_MAIN(ProgramTest)
#include "program_test.moc"
