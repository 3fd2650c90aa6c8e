// SPDX-License-Identifier: Apache-2.0
// What came of a program that a test ran.
#pragma once

#include <QByteArray>
#include <QProcess>

/// How a program ended, and what it printed.
struct Outcome {
    int status = -1;  // -1: ended by a signal, or not in time
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
