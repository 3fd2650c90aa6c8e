// SPDX-License-Identifier: Apache-2.0
// Mouse, wheel and keyboard of a random operator.
#include "tests/endurance/hands.h"

#include <QApplication>
#include <QPointer>
#include <QScrollArea>
#include <QTest>
#include <QWheelEvent>
#include <QWindow>

namespace hands {

namespace {

constexpr int kNotch = 120;

// Whatever an event does to the window, the next one goes to it only if it is still there.
QPointer<QWindow> platformWindow(QWidget* window)
{
    return window == nullptr ? nullptr : window->window()->windowHandle();
}

}  // namespace

QPoint reach(QWidget* widget)
{
    for (QWidget* parent = widget->parentWidget(); parent != nullptr && !widget->isWindow();
         parent = parent->parentWidget()) {
        if (auto* const area = qobject_cast<QScrollArea*>(parent)) {
            area->ensureWidgetVisible(widget);
        }
    }
    QWidget* const window = widget->window();
    const QPoint middle = widget->mapTo(window, widget->rect().center());
    const QWidget* const there = window->childAt(middle);
    const bool hit = there == widget || (there != nullptr && widget->isAncestorOf(there));
    return widget->isVisible() && hit ? middle : QPoint();
}

bool click(QWidget* widget, Qt::MouseButton button)
{
    const QPoint position = reach(widget);
    if (position.isNull()) {
        return false;
    }
    clickAt(widget->window(), position, button);
    return true;
}

void clickAt(QWidget* window, QPoint position, Qt::MouseButton button)
{
    const QPointer<QWindow> target = platformWindow(window);
    if (target) {
        QTest::mousePress(target, button, Qt::NoModifier, position);
    }
    if (target) {
        QTest::mouseRelease(target, button, Qt::NoModifier, position);
    }
}

void drag(QWidget* window, QPoint from, QPoint to)
{
    const QPointer<QWindow> target = platformWindow(window);
    if (target) {
        QTest::mousePress(target, Qt::LeftButton, Qt::NoModifier, from);
    }
    for (int step = 1; step <= 3 && target; ++step) {
        QTest::mouseMove(target, from + (to - from) * step / 3);
    }
    if (target) {
        QTest::mouseRelease(target, Qt::LeftButton, Qt::NoModifier, to);
    }
}

void wheel(QWidget* window, QPoint position, int steps)
{
    const QPointer<QWindow> target = platformWindow(window);
    if (!target) {
        return;
    }
    QWheelEvent event(position, target->mapToGlobal(position), QPoint(), QPoint(0, steps * kNotch),
                      Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
    QSpontaneKeyEvent::setSpontaneous(&event);
    qApp->notify(target, &event);
}

void key(QWidget* window, Qt::Key key, Qt::KeyboardModifiers modifiers)
{
    const QPointer<QWindow> target = platformWindow(window);
    if (target) {
        QTest::keyPress(target, key, modifiers);
    }
    if (target) {
        QTest::keyRelease(target, key, modifiers);
    }
}

void type(QWidget* window, const QString& text)
{
    const QPointer<QWindow> target = platformWindow(window);
    for (const QChar letter : text) {
        if (target) {
            QTest::keyClick(target, letter.toLatin1());
        }
    }
}

}  // namespace hands
