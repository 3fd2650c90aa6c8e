// SPDX-License-Identifier: Apache-2.0
// The line of text at the foot of the window.
#pragma once

#include <QLabel>
#include <QPointer>
#include <QString>

/// Says one thing at a time: what is waited for, why nothing happened, or what is amiss for longer.
/// GUI thread.
class StatusLine : public QLabel {
    Q_OBJECT

public:
    using QLabel::QLabel;

    /// Says this; an empty text: nothing but what lasts.
    void setText(const QString& text);

    /// What was said last is over.
    void clear() { setText({}); }

    /// Says this until something else is said, and again whenever that is over.
    void setLasting(const QString& text);

    /// A busy cursor and a text for as long as it lives. External commands run and cameras open on
    /// the GUI thread, so the text is painted at once; no event is processed.
    class Wait {
    public:
        /// @param where where the text is shown
        /// @param text  what is waited for
        Wait(StatusLine* where, const QString& text);
        ~Wait();

        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

    private:
        QPointer<StatusLine> line;
    };

private:
    QString lasting;
};
