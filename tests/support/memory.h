// SPDX-License-Identifier: Apache-2.0
// Memory of the process that a test runs in.
#pragma once

#include <unistd.h>

#include <QFile>

/// What is really there, bytes; 0 where the system does not say.
inline qint64 residentBytes()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    return file.open(QIODevice::ReadOnly)
               ? file.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE)
               : 0;
}
