// SPDX-License-Identifier: Apache-2.0
// The named colours of the interface, as style-sheet texts.
#pragma once

#include <QColor>
#include <QString>

/// Colours as they are written into style sheets. Constants with internal linkage: every source
/// file that includes this header has its own, equal copy, built before main() and in the order
/// below, so the header's own initialisers may build on each other.
namespace clr {

/// Style-sheet text of a colour, "rgb(red,green,blue)": decimal, no blanks, alpha dropped.
inline QString toStr(const QColor& color)
{
    return QStringLiteral("rgb(%1,%2,%3)").arg(color.red()).arg(color.green()).arg(color.blue());
}

// Style sheets and forms know the colours by these names.
// NOLINTBEGIN(readability-identifier-naming)
const QColor blue_clr(0, 190, 255);
const QColor green_clr(48, 214, 149);
const QColor dark(58, 58, 58);
const QColor soft_black_clr(72, 72, 72);
const QColor med_black_clr(130, 130, 130);
const QColor grey_clr(210, 210, 210);
const QColor tq_black_clr(5, 5, 5);

const QString asphalt = QStringLiteral("rgb(52,73,94)");
const QString concrete = QStringLiteral("rgb(149,165,166)");
const QString silver = QStringLiteral("rgb(189,195,199)");
const QString clouds = QStringLiteral("rgb(236,240,241)");

// The "_h" names are the hover variants of the colour before them.
const QString blue = toStr(blue_clr);
const QString blue_h = QStringLiteral("rgb(00,149,243)");  // the leading zeros are deliberate
const QString blue_light = QStringLiteral("rgba(44,201,255,123)");
const QString green = toStr(green_clr);
const QString green_h = QStringLiteral("rgb(38,171,119)");
const QString red = QStringLiteral("rgb(255,87,87)");
const QString red_h = QStringLiteral("rgb(204,70,70)");

const QString xAxis = red;
const QString yAxis = green;
const QString zAxis = blue;
const QString singleAxis = QStringLiteral("rgb(255,87,48)");

const QString white = QStringLiteral("rgb(255,255,255)");
const QString transparent = QStringLiteral("rgba(255,255,255,0)");
const QString black = toStr(dark);  // a dark grey, deliberately
const QString soft_black = toStr(soft_black_clr);
const QString med_black = toStr(med_black_clr);
const QString grey = toStr(grey_clr);
const QString lightgrey = QStringLiteral("rgb(235,235,235)");
const QString yellow = QStringLiteral("rgb(255, 205, 0)");  // the blanks are deliberate

const QString tq_lime = QStringLiteral("rgb(217,255,66)");
const QString tq_dark_lime = QStringLiteral("rgb(187,225,36)");
const QString tq_white = QStringLiteral("rgb(255,255,255)");
const QString tq_pearl = QStringLiteral("rgb(242,242,242)");
const QString tq_iron = QStringLiteral("rgb(194,194,194)");
const QString tq_ash = QStringLiteral("rgb(137,137,137)");
const QString tq_charcoal = QStringLiteral("rgb(60,60,60)");
const QString tq_steel = QStringLiteral("rgb(45,45,45)");
const QString tq_soil = QStringLiteral("rgb(25,25,25)");
const QString tq_black = QStringLiteral("rgb(5,5,5)");
const QString tq_demo_red = QStringLiteral("rgb(255,100,100)");

const QString company_clr = tq_lime;
const QString company_clr_h = tq_dark_lime;
// NOLINTEND(readability-identifier-naming)

}  // namespace clr
