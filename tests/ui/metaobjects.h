// SPDX-License-Identifier: Apache-2.0
// Reads a class's own signals and slots.
#pragma once

#include <QMetaMethod>
#include <QMetaObject>
#include <QStringList>

/// Signatures of the class's own signals or slots, in the order of their declaration.
inline QStringList ownMethods(const QMetaObject& type, QMetaMethod::MethodType kind)
{
    QStringList signatures;
    for (int i = type.methodOffset(); i < type.methodCount(); ++i) {
        if (type.method(i).methodType() == kind) {
            signatures << QString::fromLatin1(type.method(i).methodSignature());
        }
    }
    return signatures;
}
