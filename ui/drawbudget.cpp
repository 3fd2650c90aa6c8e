// SPDX-License-Identifier: Apache-2.0
// Keeps the drawing of previews from taking more than half of the GUI thread's time.
#include "ui/drawbudget.h"

#include <algorithm>

namespace {

constexpr qint64 kFillShare = 2;  // the account fills at this fraction of the clock's speed

}  // namespace

bool DrawBudget::request(const QString& panel, qint64 now)
{
    refill(now);
    Panel& state = panels[panel];
    if (state.lastDrawn < 0) {
        return true;
    }
    state.waits = true;
    return account >= 0 && next() == panel;
}

QString DrawBudget::next() const
{
    QString chosen;
    qint64 longestAgo = 0;
    for (auto panel = panels.begin(); panel != panels.end(); ++panel) {
        if (panel->waits && (chosen.isNull() || panel->lastDrawn < longestAgo)) {
            chosen = panel.key();
            longestAgo = panel->lastDrawn;
        }
    }
    return chosen;
}

qint64 DrawBudget::delay(qint64 now)
{
    refill(now);
    return std::max<qint64>(0, -account * kFillShare);
}

void DrawBudget::drawn(const QString& panel, qint64 start, qint64 end)
{
    refill(end);
    Panel& state = panels[panel];
    if (state.lastDrawn >= 0) {
        account -= std::min(end - start, kMostPaidNs);
    }
    state.lastDrawn = end;
    state.waits = false;
}

void DrawBudget::withdraw(const QString& panel)
{
    const auto state = panels.find(panel);
    if (state != panels.end()) {
        state->waits = false;
    }
}

void DrawBudget::forget(const QString& panel)
{
    panels.remove(panel);
}

void DrawBudget::refill(qint64 now)
{
    if (refilledAt >= 0) {
        account = std::min(kReserveNs, account + (now - refilledAt) / kFillShare);
    }
    refilledAt = now;
}
