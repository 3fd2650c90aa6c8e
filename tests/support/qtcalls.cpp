// SPDX-License-Identifier: Apache-2.0
// Sees calls to Qt that leave no trace behind: pauses, connections, stored settings.
#include "tests/support/qtcalls.h"

#include <dlfcn.h>

#include <QMap>
#include <QMetaMethod>
#include <QPointer>
#include <QSettings>
#include <QThread>
#include <thread>

namespace {

QMap<QByteArray, QPointer<QObject>> senders;
const std::thread::id testThread = std::this_thread::get_id();  // Qt has threads of its own

// Qt's own function under a mangled name.
template <typename Function>
Function original(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void note(const QString& line)
{
    if (qtcalls::record != nullptr) {
        std::fprintf(qtcalls::record, "%s\n", qPrintable(line));
        std::fflush(qtcalls::record);
    }
}

// Classes of tests are derived from the program's own.
bool isCamera(const QObject* object)
{
    return object != nullptr && object->inherits("KTCamera");
}

QString nameOf(const QObject* object)
{
    return object->objectName().isEmpty() ? QString::fromLatin1(object->metaObject()->className())
                                          : object->objectName();
}

QString signalName(const QMetaObject* type, void** signal)
{
    for (; type != nullptr; type = type->superClass()) {
        int index = -1;
        void* arguments[] = {&index, signal};
        type->static_metacall(QMetaObject::IndexOfMethod, 0, arguments);
        if (index >= 0) {
            return QString::fromLatin1(type->method(type->methodOffset() + index).name());
        }
    }
    return {};
}

}  // namespace

namespace qtcalls {

std::FILE* record = nullptr;
QStringList connections;
QByteArrayList failing;

QObject* lastSender(const char* className)
{
    return senders.value(className);
}

}  // namespace qtcalls

void QThread::sleep(unsigned long seconds)
{
    note(QStringLiteral("pause %1").arg(1000 * seconds));
    if (qtcalls::record == nullptr) {
        original<decltype(&QThread::sleep)>("_ZN7QThread5sleepEm")(seconds);
    }
}

void QThread::msleep(unsigned long milliseconds)
{
    note(QStringLiteral("pause %1").arg(milliseconds));
    if (qtcalls::record == nullptr) {
        original<decltype(&QThread::msleep)>("_ZN7QThread6msleepEm")(milliseconds);
    }
}

void QSettings::setValue(const QString& key, const QVariant& value)
{
    note(QStringLiteral("stored %1").arg(key));
    using Function = void (*)(QSettings*, const QString&, const QVariant&);
    static const auto function = original<Function>("_ZN9QSettings8setValueERK7QStringRK8QVariant");
    function(this, key, value);
}

QMetaObject::Connection QObject::connectImpl(const QObject* sender, void** signal,
                                             const QObject* receiver, void** slotPointer,
                                             QtPrivate::QSlotObjectBase* slot,
                                             Qt::ConnectionType type, const int* types,
                                             const QMetaObject* senderClass)
{
    static const auto function = original<decltype(&QObject::connectImpl)>(
        "_ZN7QObject11connectImplEPKS_PPvS1_S3_PN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeE"
        "PKiPK11QMetaObject");
    if (std::this_thread::get_id() != testThread) {
        return function(sender, signal, receiver, slotPointer, slot, type, types, senderClass);
    }
    if (qtcalls::failing.contains(senderClass->className())) {
        slot->destroyIfLastRef();
        return {};
    }
    senders[senderClass->className()] = const_cast<QObject*>(sender);
    qtcalls::connections << QStringLiteral("%1.%2 -> %3, type %4")
                                .arg(nameOf(sender), signalName(senderClass, signal),
                                     nameOf(receiver))
                                .arg(type);
    if (isCamera(sender) && receiver != sender) {
        note(QStringLiteral("%1 connected, type %2")
                 .arg(QLatin1String(receiver->metaObject()->className()))
                 .arg(type));
    }
    return function(sender, signal, receiver, slotPointer, slot, type, types, senderClass);
}

QMetaObject::Connection QObject::connect(const QObject* sender, const char* signal,
                                         const QObject* receiver, const char* member,
                                         Qt::ConnectionType type)
{
    if (isCamera(sender)) {
        note(QStringLiteral("%1 connected, type %2")
                 .arg(QLatin1String(receiver->metaObject()->className()))
                 .arg(type));
    }
    using Function = QMetaObject::Connection (*)(const QObject*, const char*, const QObject*,
                                                 const char*, Qt::ConnectionType);
    static const auto function =
        original<Function>("_ZN7QObject7connectEPKS_PKcS1_S3_N2Qt14ConnectionTypeE");
    return function(sender, signal, receiver, member, type);
}

bool QObject::disconnect(const QObject* sender, const char* signal, const QObject* receiver,
                         const char* member)
{
    if (isCamera(sender) && receiver != nullptr) {
        note(QStringLiteral("%1 disconnected")
                 .arg(QLatin1String(receiver->metaObject()->className())));
    }
    using Function = bool (*)(const QObject*, const char*, const QObject*, const char*);
    static const auto function = original<Function>("_ZN7QObject10disconnectEPKS_PKcS1_S3_");
    return function(sender, signal, receiver, member);
}
