// SPDX-License-Identifier: Apache-2.0
// What a file holds.
#pragma once

#include <QByteArray>
#include <QFile>

/// The bytes of a file; none when it cannot be read.
inline QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
