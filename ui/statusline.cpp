// SPDX-License-Identifier: Apache-2.0
// The line of text at the foot of the window.
#include "ui/statusline.h"

#include <QApplication>

void StatusLine::setText(const QString& text)
{
    QLabel::setText(text.isEmpty() ? lasting : text);
}

void StatusLine::setLasting(const QString& text)
{
    const bool isOver = text.isEmpty() && this->text() != lasting;
    lasting = text;
    if (!isOver) {
        setText(text);
    }
}

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
