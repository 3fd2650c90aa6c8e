// SPDX-License-Identifier: Apache-2.0
// Runs external commands and asks systemd about services.
#include "app/commands/commandrunners.h"

#include <QDateTime>
#include <QDebug>
#include <QProcess>
#include <QStringList>
#include <array>
#include <cstdio>
#include <stdexcept>

namespace {

constexpr std::size_t kLineBufferBytes = 10000;
constexpr int kCommandTimeoutMs = 30000;
constexpr int kKillTimeoutMs = 1000;

}  // namespace

void executeCMD_RC(std::string command, std::string& output)
{
    std::array<char, kLineBufferBytes> buffer{};
    std::string result;
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        throw std::runtime_error("popen() failed!");
    }
    while (fgets(buffer.data(), static_cast<int>(buffer.size()), pipe) != nullptr) {
        result += buffer.data();
    }
    output = result;
    // Despite the name no return code is given back: callers judge by the text.
    pclose(pipe);
}

void startBlockingProcess(QString workingDirectory, QString command, bool verbose)
{
    QProcess process;
    process.setWorkingDirectory(workingDirectory);
    QStringList arguments = QProcess::splitCommand(command);
    const QString program = arguments.isEmpty() ? QString() : arguments.takeFirst();
    process.start(program, arguments, QIODevice::ReadWrite);
    process.waitForStarted(kCommandTimeoutMs);
    process.waitForFinished(kCommandTimeoutMs);
    QString text = QString::fromLocal8Bit(process.readAllStandardOutput());
    text += QString::fromLocal8Bit(process.readAllStandardError());
    if (verbose && !text.isEmpty()) {
        qDebug() << "[" << QDateTime::currentDateTime().toString() << "] "
                 << " Process " << command << "outputs " << text;
    }
    process.kill();
    // A command that ran too long is gone when this returns; one that has ended costs nothing here.
    process.waitForFinished(kKillTimeoutMs);
}

bool ServiceHandler::getDaemonServiceEnableStatus(std::string service)
{
    std::string answer;
    executeCMD_RC("systemctl is-enabled " + service, answer);
    // "disabled" does not contain the word; "enabled-runtime" counts as enabled.
    return answer.find("enabled") != std::string::npos;
}
