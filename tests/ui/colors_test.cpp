// SPDX-License-Identifier: Apache-2.0
// Tests of the named colours.
#include <QLabel>
#include <QRegularExpression>
#include <QtTest>

#include "ui/colors.h"

class ColorsTest : public QObject {
    Q_OBJECT

private slots:
    void valueIsAsWritten_data();
    void valueIsAsWritten();
    void styleSheetReproducesTheColor_data();
    void styleSheetReproducesTheColor();
    void toStrDropsAlpha();
    void toStrIsDecimalWithoutBlanks();
    void constantsOfTheHeader();
};

void ColorsTest::valueIsAsWritten_data()
{
    QTest::addColumn<QString>("color");
    QTest::addColumn<QString>("value");
    const auto add = [](const char* name, const QString& color, const char* value) {
        QTest::newRow(name) << color << QString(value);
    };
    add("asphalt", clr::asphalt, "rgb(52,73,94)");
    add("concrete", clr::concrete, "rgb(149,165,166)");
    add("silver", clr::silver, "rgb(189,195,199)");
    add("clouds", clr::clouds, "rgb(236,240,241)");
    add("blue", clr::blue, "rgb(0,190,255)");
    add("blue_h", clr::blue_h, "rgb(00,149,243)");
    add("blue_light", clr::blue_light, "rgba(44,201,255,123)");
    add("green", clr::green, "rgb(48,214,149)");
    add("green_h", clr::green_h, "rgb(38,171,119)");
    add("red", clr::red, "rgb(255,87,87)");
    add("red_h", clr::red_h, "rgb(204,70,70)");
    add("xAxis", clr::xAxis, "rgb(255,87,87)");
    add("yAxis", clr::yAxis, "rgb(48,214,149)");
    add("zAxis", clr::zAxis, "rgb(0,190,255)");
    add("singleAxis", clr::singleAxis, "rgb(255,87,48)");
    add("white", clr::white, "rgb(255,255,255)");
    add("transparent", clr::transparent, "rgba(255,255,255,0)");
    add("black", clr::black, "rgb(58,58,58)");
    add("soft_black", clr::soft_black, "rgb(72,72,72)");
    add("med_black", clr::med_black, "rgb(130,130,130)");
    add("grey", clr::grey, "rgb(210,210,210)");
    add("lightgrey", clr::lightgrey, "rgb(235,235,235)");
    add("yellow", clr::yellow, "rgb(255, 205, 0)");
    add("tq_lime", clr::tq_lime, "rgb(217,255,66)");
    add("tq_dark_lime", clr::tq_dark_lime, "rgb(187,225,36)");
    add("tq_white", clr::tq_white, "rgb(255,255,255)");
    add("tq_pearl", clr::tq_pearl, "rgb(242,242,242)");
    add("tq_iron", clr::tq_iron, "rgb(194,194,194)");
    add("tq_ash", clr::tq_ash, "rgb(137,137,137)");
    add("tq_charcoal", clr::tq_charcoal, "rgb(60,60,60)");
    add("tq_steel", clr::tq_steel, "rgb(45,45,45)");
    add("tq_soil", clr::tq_soil, "rgb(25,25,25)");
    add("tq_black", clr::tq_black, "rgb(5,5,5)");
    add("tq_demo_red", clr::tq_demo_red, "rgb(255,100,100)");
    add("company_clr", clr::company_clr, "rgb(217,255,66)");
    add("company_clr_h", clr::company_clr_h, "rgb(187,225,36)");
}

void ColorsTest::valueIsAsWritten()
{
    QFETCH(QString, color);
    QFETCH(QString, value);
    QCOMPARE(color, value);
}

void ColorsTest::styleSheetReproducesTheColor_data()
{
    valueIsAsWritten_data();
}

void ColorsTest::styleSheetReproducesTheColor()
{
    QFETCH(QString, color);
    QFETCH(QString, value);
    const QRegularExpression form(
        QStringLiteral("^(rgba?)\\((\\d+), ?(\\d+), ?(\\d+)(?:,(\\d+))?\\)$"));
    const QRegularExpressionMatch match = form.match(value);
    QVERIFY(match.hasMatch());
    QColor expected(match.captured(2).toInt(), match.captured(3).toInt(),
                    match.captured(4).toInt());
    if (match.captured(1) == QLatin1String("rgba")) {
        expected.setAlpha(match.captured(5).toInt());  // of 255
    }

    QLabel label;
    label.setStyleSheet("color:" + color + ";");
    label.ensurePolished();
    QCOMPARE(label.palette().color(QPalette::WindowText), expected);
}

void ColorsTest::toStrDropsAlpha()
{
    QCOMPARE(clr::toStr(QColor(0, 190, 255, 10)), QString("rgb(0,190,255)"));
    QCOMPARE(clr::toStr(QColor(1, 2, 3, 0)), QString("rgb(1,2,3)"));
}

void ColorsTest::toStrIsDecimalWithoutBlanks()
{
    QCOMPARE(clr::toStr(QColor(255, 16, 0)), QString("rgb(255,16,0)"));
    QCOMPARE(clr::toStr(QColor(Qt::white)), QString("rgb(255,255,255)"));
}

void ColorsTest::constantsOfTheHeader()
{
    QCOMPARE(clr::blue_clr, QColor(0, 190, 255));
    QCOMPARE(clr::green_clr, QColor(48, 214, 149));
    QCOMPARE(clr::dark, QColor(58, 58, 58));
    QCOMPARE(clr::soft_black_clr, QColor(72, 72, 72));
    QCOMPARE(clr::med_black_clr, QColor(130, 130, 130));
    QCOMPARE(clr::grey_clr, QColor(210, 210, 210));
    QCOMPARE(clr::tq_black_clr, QColor(5, 5, 5));
}

QTEST_MAIN(ColorsTest)
#include "colors_test.moc"
