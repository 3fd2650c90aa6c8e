// SPDX-License-Identifier: Apache-2.0
// Keeps the drawing of previews from taking more than half of the GUI thread's time.
#pragma once

#include <QMap>
#include <QString>
#include <QtGlobal>

/// Decides when a preview may be drawn.
///
/// Where drawing is done by the processor, a preview of a large picture takes tens of milliseconds,
/// and a few cameras ask for more drawing than there is time: the event queue would never drain and
/// the window would answer to nothing. Every draw is therefore paid from an account that fills at
/// half the speed of the clock: while it is in the red nothing is drawn, so that in the long run
/// drawing takes at most half of the time, and input is answered between two draws. The account
/// holds a small reserve, so drawing that is fast enough never meets the limit.
///
/// Under the limit the panels take turns: of those that wait, the one drawn longest ago is next.
///
/// All times are nanoseconds of one monotonic clock. GUI thread.
class DrawBudget {
public:
    static constexpr qint64 kReserveNs = 60'000'000;      ///< what the account holds at most
    static constexpr qint64 kMostPaidNs = 1'000'000'000;  ///< what a draw costs at most

    /// Whether @p panel may draw now, which drawn() is to report; if not, it waits from now on.
    bool request(const QString& panel, qint64 now);

    /// The panel that draws next of those that wait; empty when none does.
    QString next() const;

    /// How long until next() may draw, ns; 0 when it may now.
    qint64 delay(qint64 now);

    /// Reports a draw; the panel no longer waits. The first draw of a panel is free: it also builds
    /// what later ones find ready, which says nothing about the speed of drawing. Nor does a draw
    /// during which the machine stood still for seconds: it costs kMostPaidNs.
    void drawn(const QString& panel, qint64 start, qint64 end);

    /// The panel no longer waits.
    void withdraw(const QString& panel);

    /// Forgets a panel that is gone.
    void forget(const QString& panel);

private:
    struct Panel {
        qint64 lastDrawn = -1;  // end of the last draw, -1 before the first
        bool waits = false;
    };

    void refill(qint64 now);

    QMap<QString, Panel> panels;
    qint64 account = kReserveNs;
    qint64 refilledAt = -1;
};
