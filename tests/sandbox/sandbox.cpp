// SPDX-License-Identifier: Apache-2.0
// Runs programs where the product's absolute paths are private, with stand-ins for sudo and
// systemctl.
#include "tests/sandbox/sandbox.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <cstdio>
#include <cstdlib>

namespace sandbox {

namespace {

const QString kScript = QStringLiteral(VISTREL_SANDBOX_DIRECTORY "/run-in-sandbox");
const QString kStandIn = QStringLiteral(VISTREL_SANDBOX_DIRECTORY "/commands/stand-in");
constexpr char kAnswersVariable[] = "VISTREL_STAND_INS";
constexpr int kSkipStatus = 77;

}  // namespace

bool available(QString* reason)
{
    QProcess process;
    process.start(kScript, {QStringLiteral("--check")}, QIODevice::ReadOnly);
    if (!process.waitForFinished() || process.exitCode() != 0) {
        if (reason != nullptr) {
            *reason = QString::fromLocal8Bit(process.readAllStandardError()).trimmed();
        }
        return false;
    }
    return true;
}

void skipProgram(const QString& reason)
{
    std::printf("SKIP   : %s\n", qPrintable(reason));
    std::fflush(nullptr);
    // Nothing was begun, so nothing is to be ended; a leak checker's verdict would hide the status.
    std::_Exit(kSkipStatus);
}

void skipProgramUnlessAvailable()
{
    QString reason;
    if (!available(&reason)) {
        skipProgram(reason);
    }
}

StandIns::StandIns()
{
    QDir(directory.path()).mkdir(QStringLiteral("commands"));
    add(QStringLiteral("sudo"));
    add(QStringLiteral("systemctl"));
}

StandIns::~StandIns()
{
    if (installed) {
        qputenv("PATH", formerPath);
        qunsetenv(kAnswersVariable);
    }
}

QString StandIns::file(const QString& name) const
{
    return directory.filePath(name);
}

QString StandIns::commandDirectory() const
{
    return file(QStringLiteral("commands"));
}

void StandIns::add(const QString& command)
{
    QFile::link(kStandIn, commandDirectory() + QLatin1Char('/') + command);
}

void StandIns::answer(const QString& command, const QByteArray& output, const QByteArray& error,
                      int status)
{
    writeFile(file(command + QStringLiteral(".out")), output);
    writeFile(file(command + QStringLiteral(".err")), error);
    writeFile(file(command + QStringLiteral(".status")), QByteArray::number(status));
}

void StandIns::script(const QString& command, const QByteArray& text)
{
    writeFile(file(command + QStringLiteral(".sh")), text);
}

QStringList StandIns::calls() const
{
    const QString text = QString::fromLocal8Bit(readFile(file(QStringLiteral("calls"))));
    return text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void StandIns::clearCalls()
{
    QFile::remove(file(QStringLiteral("calls")));
}

void StandIns::install()
{
    if (!installed) {
        formerPath = qgetenv("PATH");
        installed = true;
    }
    qputenv("PATH", commandDirectory().toLocal8Bit() + ':' + formerPath);
    qputenv(kAnswersVariable, directory.path().toLocal8Bit());
}

QProcessEnvironment StandIns::environment(QProcessEnvironment environment) const
{
    environment.insert(QString::fromLatin1(kAnswersVariable), directory.path());
    return environment;
}

void prepare(QProcess& process, const Options& options, const QString& program,
             const QStringList& arguments)
{
    QStringList words;
    if (!options.settings.isEmpty()) {
        words << QStringLiteral("--settings") << options.settings;
    }
    if (!options.sharedMemory.isEmpty()) {
        words << QStringLiteral("--shm") << options.sharedMemory;
    }
    QProcessEnvironment environment = options.environment;
    if (options.standIns != nullptr) {
        words << QStringLiteral("--commands") << options.standIns->commandDirectory();
        environment = options.standIns->environment(environment);
    }
    if (options.privateNetwork) {
        words << QStringLiteral("--private-network");
    }
    // Qt would otherwise log to the journal on some systems when no terminal is there.
    environment.insert(QStringLiteral("QT_FORCE_STDERR_LOGGING"), QStringLiteral("1"));
    environment.insert(QStringLiteral("QT_LOGGING_TO_CONSOLE"), QStringLiteral("1"));
    process.setProcessEnvironment(environment);
    process.setProgram(kScript);
    process.setArguments(words << QStringLiteral("--") << program << arguments);
}

Result run(const Options& options, const QString& program, const QStringList& arguments,
           int milliseconds)
{
    QProcess process;
    prepare(process, options, program, arguments);
    process.start();
    process.closeWriteChannel();
    Result result;
    result.finished = process.waitForFinished(milliseconds);
    if (!result.finished) {
        process.kill();
        process.waitForFinished();
    }
    result.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.output = process.readAllStandardOutput();
    result.error = process.readAllStandardError();
    // Tests look at parts of it; a report must be seen whatever they compare.
    if (result.error.contains("Sanitizer") || result.error.contains(": runtime error: ")) {
        qWarning().noquote() << result.error;
    }
    return result;
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(content) == content.size() && file.flush();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}  // namespace sandbox
