// SPDX-License-Identifier: Apache-2.0
// Tells the operator what the window waits for.
#include "ui/waitnotice.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QWindow>

namespace {

constexpr int kSliceMs = 10;
constexpr qint64 kExposeTimeoutMs = 300;

// A window that was only just shown is not on the screen until the windowing system said so.
bool waitsForScreen(const FootLine* line)
{
    const QWindow* const window = line->window()->windowHandle();
    return line->isVisible() && window != nullptr && !window->isExposed();
}

}  // namespace

WaitNotice::WaitNotice(FootLine* where, const QString& text) : line(where), before(where->wait())
{
    QApplication::setOverrideCursor(Qt::WaitCursor);
    line->setWait(text);
    QElapsedTimer time;
    time.start();
    do {
        QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents, kSliceMs);
    } while (line && waitsForScreen(line) && time.elapsed() < kExposeTimeoutMs);
    if (line) {
        line->repaint();
    }
}

WaitNotice::~WaitNotice()
{
    if (line) {
        line->setWait(before);
    }
    QApplication::restoreOverrideCursor();
}
