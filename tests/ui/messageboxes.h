// SPDX-License-Identifier: Apache-2.0
// Answers modal message boxes and keeps what they said.
#pragma once

#include <QApplication>
#include <QFont>
#include <QList>
#include <QMessageBox>
#include <QPushButton>
#include <QString>
#include <QTimer>
#include <functional>

/// While it lives, presses one button of every message box that opens.
class MessageBoxes {
public:
    /// What a box looked like when it was answered.
    struct Seen {
        QString title;
        QString text;
        QMessageBox::Icon icon = QMessageBox::NoIcon;
        QMessageBox::StandardButtons buttons = QMessageBox::NoButton;
        QFont font;
        QString styleSheet;
        bool modal = false;
    };

    /// @param button the button to press; a box without it is closed
    explicit MessageBoxes(QMessageBox::StandardButton button = QMessageBox::Ok) : answer(button)
    {
        timer.callOnTimeout([this] { answerOne(); });
        timer.start(10);
    }

    /// Called with each box before it is answered.
    void onBox(std::function<void()> function) { before = std::move(function); }

    QList<Seen> seen;

private:
    void answerOne()
    {
        auto* const box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr || !box->isVisible()) {
            return;
        }
        seen.append({box->windowTitle(), box->text(), box->icon(), box->standardButtons(),
                     box->font(), box->styleSheet(), box->isModal()});
        if (before) {
            before();
        }
        if (QAbstractButton* const button = box->button(answer)) {
            button->click();
        } else {
            box->close();
        }
    }

    QMessageBox::StandardButton answer;
    std::function<void()> before;
    QTimer timer;
};
