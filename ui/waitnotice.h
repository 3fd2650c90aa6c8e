// SPDX-License-Identifier: Apache-2.0
// Tells the operator what the window waits for while an external command runs.
#pragma once

#include <QPointer>
#include <QString>

QT_BEGIN_NAMESPACE
class QLabel;
QT_END_NAMESPACE

/// Shows a wait cursor and a text as long as it lives. External commands run on the GUI thread, so
/// the text is brought onto the screen before the constructor returns; input is left in the queue
/// meanwhile. GUI thread.
class WaitNotice {
public:
    /// @param where where the text is shown, in a window of its own or not
    /// @param text  what is waited for
    WaitNotice(QLabel* where, const QString& text);
    ~WaitNotice();

    WaitNotice(const WaitNotice&) = delete;
    WaitNotice& operator=(const WaitNotice&) = delete;

private:
    QPointer<QLabel> label;
};
