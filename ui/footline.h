// SPDX-License-Identifier: Apache-2.0
// The line of text at the foot of the window.
#pragma once

#include <QLabel>
#include <QString>
#include <QTimer>

/// Says one thing at a time: what is waited for, else a remark on what the operator has just done,
/// else a notice that stands for longer. GUI thread.
class FootLine : public QLabel {
    Q_OBJECT

public:
    static constexpr int kRemarkMs = 6000;

    explicit FootLine(QWidget* parent = nullptr);

    /// Says what is waited for; an empty text ends the wait. A remark is over when a wait begins.
    void setWait(const QString& text);

    /// What is waited for, empty when nothing is.
    const QString& wait() const { return waitText; }

    /// Says something for a while; an empty text ends it.
    void showRemark(const QString& text, int durationMs = kRemarkMs);

    /// Says something until an empty text takes it back.
    void setNotice(const QString& text);

private:
    void refresh();

    QString waitText;
    QString remark;
    QString notice;
    QTimer remarkTimer;
};
