// SPDX-License-Identifier: Apache-2.0
// Tells the operator what the window waits for while an external command runs.
#include "ui/waitnotice.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLabel>
#include <QWindow>

namespace {

constexpr int kSliceMs = 10;
constexpr qint64 kExposeTimeoutMs = 300;

// A window that was only just shown is not on the screen until the windowing system said so.
bool waitsForScreen(const QLabel* label)
{
    const QWindow* const window = label->window()->windowHandle();
    return label->isVisible() && window != nullptr && !window->isExposed();
}

}  // namespace

WaitNotice::WaitNotice(QLabel* where, const QString& text) : label(where)
{
    QApplication::setOverrideCursor(Qt::WaitCursor);
    label->setText(text);
    QElapsedTimer time;
    time.start();
    do {
        QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents, kSliceMs);
    } while (label && waitsForScreen(label) && time.elapsed() < kExposeTimeoutMs);
    if (label) {
        label->repaint();
    }
}

WaitNotice::~WaitNotice()
{
    if (label) {
        label->clear();
    }
    QApplication::restoreOverrideCursor();
}
