// SPDX-License-Identifier: Apache-2.0
// What the tests of vistrel-receive as a program share.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>

#include "tests/support/outcome.h"

/// Runs vistrel-receive.
inline Outcome receive(const QStringList& arguments, const QProcessEnvironment& environment =
                                                         QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(VISTREL_RECEIVE, arguments);
    return finish(process);
}
