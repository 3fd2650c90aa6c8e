// SPDX-License-Identifier: Apache-2.0
// Operates another program's windows: mouse, keyboard and what the screen shows.
#pragma once

#include <QImage>
#include <QPoint>
#include <QRect>
#include <QString>
#include <QStringList>

/// Runs xdotool to its end; its standard output, trimmed.
QString xdotool(const QStringList& arguments);

/// The visible windows with a title, matched as a regular expression; X identifiers.
QStringList windowsTitled(const QString& title);

/// A window of another program. Positions are pixels from the upper left corner of its content.
class RemoteWindow {
public:
    RemoteWindow() = default;
    explicit RemoteWindow(QString identifier) : window(std::move(identifier)) {}

    bool isValid() const { return !window.isEmpty(); }

    /// Gives the window the keyboard, as far as the window manager allows, and waits for that.
    bool activate() const;

    void click(QPoint position) const;

    /// Moves the mouse there without pressing anything.
    void point(QPoint position) const;

    /// Opens the list at a position and takes the entry with this index, by keyboard.
    /// @return false when no list opened or it did not close
    bool choose(QPoint position, int index) const;

    /// Replaces what stands in the field at a position.
    void enter(QPoint position, const QString& text) const;

    /// What the screen shows of the window.
    QImage grab(QRect area) const;

private:
    QString window;
};

/// Presses a key, for example "Return" or "alt+F4", in the window that has the keyboard.
void pressKey(const QString& key);

/// Mean absolute difference per colour channel of two pictures, 0 to 255; 255 when the sizes
/// differ.
double difference(const QImage& left, const QImage& right);
