// SPDX-License-Identifier: Apache-2.0
// The line of text at the foot of the window.
#include "ui/footline.h"

FootLine::FootLine(QWidget* parent) : QLabel(parent)
{
    remarkTimer.setSingleShot(true);
    connect(&remarkTimer, &QTimer::timeout, this, [this] { showRemark(QString()); });
}

void FootLine::setWait(const QString& text)
{
    waitText = text;
    if (!text.isEmpty()) {
        remark.clear();
    }
    refresh();
}

void FootLine::showRemark(const QString& text, int durationMs)
{
    remark = text;
    if (text.isEmpty()) {
        remarkTimer.stop();
    } else {
        remarkTimer.start(durationMs);
    }
    refresh();
}

void FootLine::setNotice(const QString& text)
{
    notice = text;
    refresh();
}

void FootLine::refresh()
{
    setText(!waitText.isEmpty() ? waitText : !remark.isEmpty() ? remark : notice);
}
