// SPDX-License-Identifier: Apache-2.0
// Comparisons that Qt Test prints in full, and waiting without a coarse step.
#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QStringList>
#include <QThread>
#include <string>
#include <vector>

/// The texts as a list that QCOMPARE prints.
inline QStringList toList(const std::vector<std::string>& texts)
{
    QStringList list;
    for (const std::string& text : texts) {
        list << QString::fromStdString(text);
    }
    return list;
}

/// Runs the event loop until a condition holds; QTRY_VERIFY looks only every 50 ms.
/// @return false when it did not hold within @p milliseconds
template <typename Condition>
bool waitUntil(const Condition& condition, int milliseconds = 5000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > milliseconds) {
            return false;
        }
        QCoreApplication::processEvents();
        QThread::usleep(200);
    }
    return true;
}
