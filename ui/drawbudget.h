// SPDX-License-Identifier: Apache-2.0
// Keeps the drawing of previews from taking more than half of the GUI thread's time.
#pragma once

#include <QMap>
#include <QString>
#include <QtGlobal>

/// Decides whether a preview may be drawn now.
///
/// Where drawing is done by the processor, a preview of a large picture takes tens of milliseconds,
/// and a few cameras ask for more drawing than there is time: the event queue would never drain and
/// the window would answer to nothing. Every draw is therefore paid from an account that fills at
/// half the speed of the clock: while it is in the red nothing is drawn, so that in the long run
/// drawing takes at most half of the time, and input is answered between two draws. The account
/// holds a small reserve, so drawing that is fast enough never meets the limit.
///
/// Under the limit the panels take turns: a panel that was refused goes before every panel drawn
/// later than it. A panel that no longer asks loses its turn after kTurnTimeoutNs.
///
/// All times are nanoseconds of one monotonic clock. GUI thread.
class DrawBudget {
public:
    static constexpr qint64 kReserveNs = 60'000'000;       ///< what the account holds at most
    static constexpr qint64 kTurnTimeoutNs = 250'000'000;  ///< how long a turn is kept

    /// Whether @p panel may draw now; if not, its frame is to be dropped.
    bool request(const QString& panel, qint64 now);

    /// Reports a draw that request() granted. The first draw of a panel is free: it also builds
    /// what later ones find ready, which says nothing about the speed of drawing.
    void drawn(const QString& panel, qint64 start, qint64 end);

    /// Forgets a panel that is gone.
    void forget(const QString& panel);

private:
    struct Panel {
        qint64 lastDrawn = -1;  // end of the last draw, -1 before the first
        qint64 refusedAt = -1;  // time of the last refusal since then, -1 when there is none
    };

    void refill(qint64 now);
    bool othersGoFirst(const QString& panel, qint64 now) const;

    QMap<QString, Panel> panels;
    qint64 account = kReserveNs;
    qint64 refilledAt = -1;
};
