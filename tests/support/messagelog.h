// SPDX-License-Identifier: Apache-2.0
// Collects what is logged through Qt's debug stream, and what is printed on standard output.
#pragma once

#include <unistd.h>
#include <QByteArray>
#include <QFile>
#include <QStringList>
#include <QTemporaryFile>
#include <QtGlobal>
#include <cstdio>
#include <iostream>
#include <mutex>

/// Collects the messages of all threads while it lives. One at a time.
class MessageLog {
public:
    MessageLog()
    {
        {
            const std::lock_guard<std::mutex> lock(guard());
            current() = this;
        }
        former = qInstallMessageHandler(&MessageLog::handle);
    }
    ~MessageLog()
    {
        qInstallMessageHandler(former);
        const std::lock_guard<std::mutex> lock(guard());
        current() = nullptr;
    }
    MessageLog(const MessageLog&) = delete;
    MessageLog& operator=(const MessageLog&) = delete;

    /// All messages so far, oldest first.
    QStringList messages() const
    {
        const std::lock_guard<std::mutex> lock(guard());
        return collected;
    }

    /// The messages at debug level that begin with @p prefix.
    QStringList debugMessages(const QString& prefix) const
    {
        const std::lock_guard<std::mutex> lock(guard());
        QStringList chosen;
        for (int i = 0; i < collected.size(); ++i) {
            if (debugLevel.at(i) && collected.at(i).startsWith(prefix)) {
                chosen << collected.at(i);
            }
        }
        return chosen;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        const std::lock_guard<std::mutex> lock(guard());
        if (current() != nullptr) {
            current()->collected << text;
            current()->debugLevel << (type == QtDebugMsg);
        }
    }
    static std::mutex& guard()
    {
        static std::mutex mutex;
        return mutex;
    }
    static MessageLog*& current()
    {
        static MessageLog* log = nullptr;
        return log;
    }

    QtMessageHandler former = nullptr;
    QStringList collected;
    QList<bool> debugLevel;
};

/// Collects what is printed on standard output while it lives.
class StandardOutput {
public:
    StandardOutput()
    {
        file.open();
        flush();
        former = dup(STDOUT_FILENO);
        dup2(file.handle(), STDOUT_FILENO);
    }
    ~StandardOutput() { finish(); }
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    /// Ends the collecting and returns what was printed.
    QByteArray finish()
    {
        if (former >= 0) {
            flush();
            dup2(former, STDOUT_FILENO);
            ::close(former);
            former = -1;
        }
        QFile reader(file.fileName());
        return reader.open(QIODevice::ReadOnly) ? reader.readAll() : QByteArray();
    }

private:
    static void flush()
    {
        std::cout.flush();
        std::fflush(stdout);
    }

    QTemporaryFile file;
    int former = -1;
};
