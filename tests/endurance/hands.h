// SPDX-License-Identifier: Apache-2.0
// Mouse, wheel and keyboard of a random operator. Everything takes the road of real input: to a
// window of the platform, and from there wherever popups, modal boxes and focus send it.
#pragma once

#include <QPoint>
#include <QString>
#include <Qt>

class QWidget;

namespace hands {

/// Where a widget can be hit, in its window's coordinates: its middle, after what it lies in has
/// been scrolled. Null when something hides it or it is too small.
QPoint reach(QWidget* widget);

/// Presses and releases a button in the middle of a widget.
/// @return false when the widget cannot be reached
bool click(QWidget* widget, Qt::MouseButton button = Qt::LeftButton);

/// Presses and releases a button somewhere in a window.
void clickAt(QWidget* window, QPoint position, Qt::MouseButton button);

/// Presses the left button at one place and releases it at another.
void drag(QWidget* window, QPoint from, QPoint to);

/// Turns the wheel somewhere in a window.
/// @param steps notches, away from the operator when positive
void wheel(QWidget* window, QPoint position, int steps);

/// Presses and releases a key; the window with this widget gets it.
void key(QWidget* window, Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier);

/// Types a text.
void type(QWidget* window, const QString& text);

}  // namespace hands
