// SPDX-License-Identifier: Apache-2.0
// What the tests of vistrel-receive as a program share.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>

/// How a program ended, and what it printed.
struct Outcome {
    int status = -1;
    QByteArray out;
    QByteArray err;
};

/// Waits for its end, and kills it when that takes too long.
inline Outcome finish(QProcess& process, int milliseconds = 60000)
{
    Outcome outcome;
    if (!process.waitForFinished(milliseconds)) {
        process.kill();
        process.waitForFinished();
    } else if (process.exitStatus() == QProcess::NormalExit) {
        outcome.status = process.exitCode();
    }
    outcome.out = process.readAllStandardOutput();
    outcome.err = process.readAllStandardError();
    return outcome;
}

/// Runs vistrel-receive.
inline Outcome receive(const QStringList& arguments, const QProcessEnvironment& environment =
                                                         QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(VISTREL_RECEIVE, arguments);
    return finish(process);
}
