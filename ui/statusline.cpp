// SPDX-License-Identifier: Apache-2.0
// The line of text at the foot of the window.
#include "ui/statusline.h"

#include <QApplication>

StatusLine::Wait::Wait(StatusLine* where, const QString& text) : line(where)
{
    QApplication::setOverrideCursor(Qt::WaitCursor);
    line->setText(text);
    line->repaint();
}

StatusLine::Wait::~Wait()
{
    QApplication::restoreOverrideCursor();
    if (line) {
        line->clear();
    }
}
