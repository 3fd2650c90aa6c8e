// SPDX-License-Identifier: Apache-2.0
// Compares the font that a widget ended up with, style sheets included.
#pragma once

#include <QFont>
#include <QWidget>

/// Whether the widget writes in @p font: family, size, weight and letter spacing.
inline bool hasFont(const QWidget* widget, const QFont& font)
{
    widget->ensurePolished();
    const QFont& own = widget->font();
    return own.family() == font.family() && own.pointSize() == font.pointSize() &&
           own.weight() == font.weight() && own.letterSpacingType() == font.letterSpacingType() &&
           qFuzzyCompare(1 + own.letterSpacing(), 1 + font.letterSpacing());
}
