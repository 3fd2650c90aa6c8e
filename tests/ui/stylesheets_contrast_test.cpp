// SPDX-License-Identifier: Apache-2.0
// Texts can be read: their contrast with what they stand on, computed from the style sheets.
#include <QApplication>
#include <QColor>
#include <QRegularExpression>
#include <QtTest>
#include <cmath>

#include "tests/ui/stylesheets_testing.h"

using sheettest::entries;
using sheettest::Entry;
using sheettest::filled;

namespace {

using Declarations = QMap<QString, QString>;
using Rules = QMap<QString, Declarations>;  // by selector

constexpr double kEnough = 4.5;

QColor toColor(const QString& text)
{
    const QRegularExpressionMatch match =
        QRegularExpression("^rgba?\\( *(\\d+), *(\\d+), *(\\d+)(?:, *(\\d+))? *\\)$").match(text);
    if (!match.hasMatch()) {
        return QColor(text);
    }
    const int alpha = match.captured(4).isEmpty() ? 255 : match.captured(4).toInt();
    return {match.captured(1).toInt(), match.captured(2).toInt(), match.captured(3).toInt(), alpha};
}

Rules rulesOf(const QString& sheet)
{
    Rules rules;
    auto rule = QRegularExpression("([^{}]+)\\{([^}]*)\\}").globalMatch(sheet);
    while (rule.hasNext()) {
        const QRegularExpressionMatch match = rule.next();
        for (const QString& selector : match.captured(1).split(',')) {
            Declarations& declarations = rules[selector.simplified()];
            for (const QString& declaration : match.captured(2).split(';', Qt::SkipEmptyParts)) {
                const int colon = declaration.indexOf(':');
                declarations[declaration.left(colon).trimmed()] =
                    declaration.mid(colon + 1).trimmed();
            }
        }
    }
    return rules;
}

// What a rule declares, or those that it refines: without its last state, attribute or part.
QString declared(const Rules& rules, QString selector, const QString& property)
{
    while (true) {
        QString found = rules[selector].value(property);
        if (!found.isEmpty()) {
            return found;
        }
        const int end = selector.lastIndexOf(QRegularExpression("(:{1,2}[a-z-]+|\\[[^\\]]*\\])$"));
        if (end <= 0) {
            return {};
        }
        selector.truncate(end);
    }
}

double luminance(const QColor& color)
{
    const auto linear = [](double part) {
        return part <= 0.03928 ? part / 12.92 : std::pow((part + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) +
           0.0722 * linear(color.blueF());
}

double contrast(const QColor& text, const QColor& ground)
{
    const double first = luminance(text) + 0.05;
    const double second = luminance(ground) + 0.05;
    return qMax(first, second) / qMin(first, second);
}

// What shows through a control without a ground of its own: the window, a row or box, the panels.
const QList<QColor>& grounds()
{
    static const QList<QColor> list{QColor(25, 25, 25), QColor(45, 45, 45), QColor(5, 5, 5)};
    return list;
}

}  // namespace

class StyleSheetsContrastTest : public QObject {
    Q_OBJECT

private slots:
    void contrastAsDefined()
    {
        QCOMPARE(qRound(contrast(Qt::white, Qt::black)), 21);
        QCOMPARE(qRound(100 * contrast(QColor(118, 118, 118), Qt::white)), 454);
    }

    void textsCanBeRead_data() { sheettest::addRows(); }
    void textsCanBeRead()
    {
        QFETCH(int, index);
        const Entry& entry = entries()[static_cast<std::size_t>(index)];
        const Style style;
        const Rules rules = rulesOf(filled(entry.name, style.*entry.sheet));
        QVERIFY(!rules.isEmpty());
        for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
            // Of the parts of controls only entries and tabs have a text.
            const QString part = rule.key().section("::", 1).section(':', 0, 0);
            if (!QStringList{"", "item", "tab"}.contains(part) ||
                (!rule->contains("color") && !rule->contains("background-color"))) {
                continue;
            }
            const QColor text = toColor(declared(rules, rule.key(), "color"));
            if (!text.isValid() || text.alpha() == 0) {
                continue;
            }
            const QColor ground = toColor(declared(rules, rule.key(), "background-color"));
            const bool hasGround = ground.isValid() && ground.alpha() != 0;
            for (const QColor& behind : hasGround ? QList<QColor>{ground} : grounds()) {
                const double found = contrast(text, behind);
                QVERIFY2(found >= kEnough,
                         qPrintable(QStringLiteral("%1: %2 on %3 is %4")
                                        .arg(rule.key(), text.name(), behind.name())
                                        .arg(found)));
            }
        }
    }
};

QTEST_MAIN(StyleSheetsContrastTest)
#include "stylesheets_contrast_test.moc"
