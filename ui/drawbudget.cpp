// SPDX-License-Identifier: Apache-2.0
// Keeps the drawing of previews from taking more than half of the GUI thread's time.
#include "ui/drawbudget.h"

#include <algorithm>

bool DrawBudget::request(const QString& panel, qint64 now)
{
    refill(now);
    Panel& state = panels[panel];
    if (state.lastDrawn < 0) {
        return true;
    }
    if (account < 0 || othersGoFirst(panel, now)) {
        state.refusedAt = now;
        return false;
    }
    return true;
}

void DrawBudget::drawn(const QString& panel, qint64 start, qint64 end)
{
    refill(end);
    Panel& state = panels[panel];
    if (state.lastDrawn >= 0) {
        account -= end - start;
    }
    state.lastDrawn = end;
    state.refusedAt = -1;
}

void DrawBudget::forget(const QString& panel)
{
    panels.remove(panel);
}

void DrawBudget::refill(qint64 now)
{
    if (refilledAt >= 0) {
        account = std::min(kReserveNs, account + (now - refilledAt) / 2);
    }
    refilledAt = now;
}

bool DrawBudget::othersGoFirst(const QString& panel, qint64 now) const
{
    const qint64 lastDrawn = panels.value(panel).lastDrawn;
    return std::any_of(panels.begin(), panels.end(), [=](const Panel& other) {
        return other.refusedAt >= 0 && now - other.refusedAt < kTurnTimeoutNs &&
               other.lastDrawn < lastDrawn;
    });
}
