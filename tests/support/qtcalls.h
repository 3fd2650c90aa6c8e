// SPDX-License-Identifier: Apache-2.0
// Sees calls to Qt that leave no trace behind: pauses, connections, stored settings.
//
// Functions of these names take the place of Qt's own in a program that links vistrel_qtcalls.
#pragma once

#include <QByteArrayList>
#include <QObject>
#include <QStringList>
#include <cstdio>

namespace qtcalls {

/// Where to write a line for each pause, each connection of a camera's signal and each setting
/// that is stored; null: nowhere. Pauses are waited for only while it is null.
extern std::FILE* record;

/// Connections made with functions since this was cleared: "SENDER.signal -> CONTEXT, type N".
/// Objects go by their name, or by their class.
extern QStringList connections;

/// Connections with functions from objects of these classes fail.
extern QByteArrayList failing;

/// The sender of the last connection from an object of a class; null when there was none.
QObject* lastSender(const char* className);

}  // namespace qtcalls
