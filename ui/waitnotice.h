// SPDX-License-Identifier: Apache-2.0
// Tells the operator what the window waits for.
#pragma once

#include <QPointer>
#include <QString>

#include "ui/footline.h"

/// Shows a wait cursor and a text as long as it lives. External commands run and cameras open on
/// the GUI thread, so the text is brought onto the screen before the constructor returns; input is
/// left in the queue meanwhile. A second one hides the first until it is over. GUI thread.
class WaitNotice {
public:
    /// @param where where the text is shown
    /// @param text  what is waited for
    WaitNotice(FootLine* where, const QString& text);
    ~WaitNotice();

    WaitNotice(const WaitNotice&) = delete;
    WaitNotice& operator=(const WaitNotice&) = delete;

private:
    QPointer<FootLine> line;
    QString before;
};
