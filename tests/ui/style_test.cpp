// SPDX-License-Identifier: Apache-2.0
// Tests of the fonts: the files, the sizes, and what the instances share.
#include <dlfcn.h>

#include <QApplication>
#include <QFontDatabase>
#include <QFontInfo>
#include <QFontMetrics>
#include <QLabel>
#include <QtTest>
#include <memory>

#include "tests/ui/stylesheets_testing.h"
#include "ui/style.h"

namespace {

// What was asked of the toolkit, in order.
QStringList calls;
bool filesAreThere = true;
bool textsAreNarrow = false;  // of the width of one pixel

template <typename Function>
Function real(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The product's calls of these functions arrive here and are passed on.
int QFontDatabase::addApplicationFont(const QString& file)
{
    calls << file;
    const auto add =
        real<int (*)(const QString&)>("_ZN13QFontDatabase18addApplicationFontERK7QString");
    return filesAreThere ? add(file) : -1;
}

int QFontMetrics::horizontalAdvance(const QString& text, int length) const
{
    const auto measure = real<int (*)(const QFontMetrics*, const QString&, int)>(
        "_ZNK12QFontMetrics17horizontalAdvanceERK7QStringi");
    return textsAreNarrow ? 1 : measure(this, text, length);
}

void QFont::setPointSize(int size)
{
    calls << "size of " + family();
    real<void (*)(QFont*, int)>("_ZN5QFont12setPointSizeEi")(this, size);
}

void QFont::setWeight(int weight)
{
    calls << "weight";
    real<void (*)(QFont*, int)>("_ZN5QFont9setWeightEi")(this, weight);
}

void QFont::setStyleStrategy(StyleStrategy strategy)
{
    calls << (strategy == NoSubpixelAntialias ? "no subpixels"
              : strategy == PreferAntialias   ? "antialias"
                                              : "other");
    real<void (*)(QFont*, StyleStrategy)>("_ZN5QFont16setStyleStrategyENS_13StyleStrategyE")(
        this, strategy);
}

class StyleTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { calls.clear(); }

    void filesAreRegisteredInOrder();
    void filesThatAreNotThereAreIgnored();
    void referenceWidthIsMeasured();
    void pointSizeIsTruncated();
    void pointSizeWithoutAnyFont();
    void fontFollowsTheTable_data();
    void fontFollowsTheTable();
    void fontsAreConfiguredInOrder();
    void shippedTypefacesStandIn();
    void eightFontsAreRegistered();
    void instancesAreEqual();
    void instancesShareTheirSheets();
    void registrationsStayBounded();

private:
    QStringList familiesBefore;
    std::unique_ptr<Style> style;
    std::unique_ptr<Style> unscaled;  // where the reference text is one pixel wide
};

void StyleTest::initTestCase()
{
    familiesBefore = QFontDatabase().families();
    style = std::make_unique<Style>();
    textsAreNarrow = true;
    unscaled = std::make_unique<Style>();
    textsAreNarrow = false;
}

// By every instance anew, deliberately.
void StyleTest::filesAreRegisteredInOrder()
{
    const QStringList files{":/font/Roboto-Medium.ttf",
                            ":/font/Roboto-Bold.ttf",
                            ":/font/Roboto-Regular.ttf",
                            ":/font/Helvetica-Neue.ttf",
                            ":/font/NBAkademiePro-Regular.ttf",
                            ":/font/NBAkademiePro-Medium.ttf",
                            ":/font/NBAkademieMonoPro-Regular.ttf",
                            ":/font/NBAkademieMonoPro-Medium.ttf"};
    for (int i = 0; i < 2; ++i) {
        calls.clear();
        const Style another;
        QCOMPARE(calls.mid(0, files.size()), files);
        QCOMPARE(calls.filter(":/font/").size(), files.size());
    }
}

void StyleTest::filesThatAreNotThereAreIgnored()
{
    filesAreThere = false;
    const Style another;
    filesAreThere = true;
    QCOMPARE(calls.filter(":/font/").size(), 8);
    QCOMPARE(another.fontText.family(), style->fontText.family());
    QCOMPARE(another.comboBox, style->comboBox);
}

void StyleTest::referenceWidthIsMeasured()
{
    QFont font("NB Akademie Mono Pro Medium", -1, -1, false);
    font.setPointSize(10);
    QCOMPARE(style->referenceWidth, QFontMetrics(font).horizontalAdvance("123"));
    QVERIFY(style->referenceWidth > 0);
    if (QFontInfo(font).family() == "Martian Mono") {
        // The sizes are designed for 28 pixels at 96 dpi; hinting takes up to one of them.
        QVERIFY(style->referenceWidth == 28 || style->referenceWidth == 27);
    }
}

void StyleTest::pointSizeIsTruncated()
{
    QCOMPARE(Style::pointSize(308, 28), 11);
    QCOMPARE(Style::pointSize(756, 28), 27);
    QCOMPARE(Style::pointSize(280, 28), 10);
    QCOMPARE(Style::pointSize(308, 29), 10);  // 10.6
    QCOMPARE(Style::pointSize(252, 56), 4);   // 4.5
}

void StyleTest::pointSizeWithoutAnyFont()
{
    QCOMPARE(Style::pointSize(308, 0), 11);
    QCOMPARE(Style::pointSize(308, -3), 11);
    QCOMPARE(Style::pointSize(308, 1), 308);
}

void StyleTest::fontFollowsTheTable_data()
{
    const QString regular = "NB Akademie Pro Regular";
    const QString medium = "NB Akademie Pro Medium";
    const QString monoRegular = "NB Akademie Mono Pro Regular";
    const QString monoMedium = "NB Akademie Mono Pro Medium";
    QTest::addColumn<QFont>("font");
    QTest::addColumn<QFont>("unscaledFont");
    QTest::addColumn<QString>("family");
    QTest::addColumn<int>("scale");
    QTest::addColumn<int>("weight");
    QTest::addColumn<int>("spacing");  // percent; 0: none
    QTest::addColumn<bool>("upperCase");
    QTest::newRow("1") << style->fontTitle << unscaled->fontTitle << medium << 308 << 57 << 0
                       << false;
    QTest::newRow("2") << style->fontHeadline << unscaled->fontHeadline << medium << 280 << 81 << 0
                       << false;
    QTest::newRow("3") << style->fontBanner << unscaled->fontBanner << medium << 420 << 57 << 0
                       << true;
    QTest::newRow("4") << style->fontCaption << unscaled->fontCaption << regular << 252 << 50 << 106
                       << true;
    QTest::newRow("5") << style->fontPreview << unscaled->fontPreview << regular << 252 << 50 << 102
                       << false;
    QTest::newRow("6") << style->fontText << unscaled->fontText << regular << 252 << 50 << 102
                       << false;
    QTest::newRow("7") << style->fontLead << unscaled->fontLead << regular << 336 << 50 << 0
                       << false;
    QTest::newRow("8") << style->fontStrong << unscaled->fontStrong << medium << 280 << 75 << 102
                       << false;
    QTest::newRow("9") << style->fontSmall << unscaled->fontSmall << regular << 224 << 50 << 0
                       << false;
    QTest::newRow("10") << style->fontFine << unscaled->fontFine << monoRegular << 196 << 50 << 102
                        << false;
    QTest::newRow("11") << style->fontLight << unscaled->fontLight << regular << 280 << 25 << 0
                        << false;
    QTest::newRow("12") << style->fontButton << unscaled->fontButton << medium << 252 << 57 << 102
                        << false;
    QTest::newRow("13") << style->fontDisplay << unscaled->fontDisplay << monoMedium << 756 << 57
                        << 0 << false;
}

void StyleTest::fontFollowsTheTable()
{
    QFETCH(QFont, font);
    QFETCH(QFont, unscaledFont);
    QFETCH(QString, family);
    QFETCH(int, scale);
    QFETCH(int, weight);
    QFETCH(int, spacing);
    QFETCH(bool, upperCase);
    QCOMPARE(font.family(), family);
    const float size = static_cast<float>(scale) / static_cast<float>(style->referenceWidth);
    QCOMPARE(font.pointSize(), static_cast<int>(size));
    QCOMPARE(unscaledFont.pointSize(), scale);
    QCOMPARE(font.weight(), weight);
    QCOMPARE(font.letterSpacingType(), QFont::PercentageSpacing);
    QCOMPARE(font.letterSpacing(), static_cast<qreal>(spacing));
    QCOMPARE(font.capitalization(), upperCase ? QFont::AllUppercase : QFont::MixedCase);
    QCOMPARE(font.styleStrategy(), QFont::PreferAntialias);
    QVERIFY(!font.italic());
}

// Both strategies, deliberately; and the weight of the last one before its size, deliberately.
void StyleTest::fontsAreConfiguredInOrder()
{
    const Style another;
    QStringList expected{"size of NB Akademie Mono Pro Medium"};  // of the reference font
    for (const char* family : {"Pro Medium", "Pro Medium", "Pro Medium", "Pro Regular",
                               "Pro Regular", "Pro Regular", "Pro Regular", "Pro Medium",
                               "Pro Regular", "Mono Pro Regular", "Pro Regular", "Pro Medium"}) {
        expected << QStringLiteral("size of NB Akademie %1").arg(family) << "weight"
                 << "no subpixels"
                 << "antialias";
    }
    expected << "weight"
             << "size of NB Akademie Mono Pro Medium"
             << "no subpixels"
             << "antialias";
    QCOMPARE(calls.mid(8), expected);
}

void StyleTest::shippedTypefacesStandIn()
{
    for (const QFont& font : {style->fontText, style->fontButton, style->fontStrong}) {
        QVERIFY(QStringList({font.family(), "Geist"}).contains(QFontInfo(font).family()));
    }
    for (const QFont& font : {style->fontFine, style->fontDisplay}) {
        QVERIFY(QStringList({font.family(), "Martian Mono"}).contains(QFontInfo(font).family()));
    }
    QVERIFY(QFont::substitutes("NB Akademie Pro Regular").contains("Geist", Qt::CaseInsensitive));
    QVERIFY(QFont::substitutes("NB Akademie Mono Pro Medium")
                .contains("Martian Mono", Qt::CaseInsensitive));
}

void StyleTest::eightFontsAreRegistered()
{
    const QStringList families = QFontDatabase().families();
    for (const char* family : {"Roboto", "Arimo", "Geist", "Martian Mono"}) {
        QVERIFY2(families.contains(family), family);
    }
    for (const char* family : {"Nunito Sans", "Audiowide"}) {  // carried, never registered
        QCOMPARE(families.contains(family), familiesBefore.contains(family));
    }
}

void StyleTest::instancesAreEqual()
{
    const Style other;
    for (const sheettest::Entry& entry : sheettest::entries()) {
        QVERIFY2(other.*entry.sheet == style.get()->*entry.sheet, entry.name);
    }
    QCOMPARE(other.referenceWidth, style->referenceWidth);
    QCOMPARE(other.fontPreview, style->fontPreview);
    QCOMPARE(other.fontDisplay, style->fontDisplay);
}

// Built once, and owned by nobody in particular.
void StyleTest::instancesShareTheirSheets()
{
    auto passing = std::make_unique<Style>();
    Style other;
    passing.reset();
    for (const sheettest::Entry& entry : sheettest::entries()) {
        QVERIFY2((other.*entry.sheet).isSharedWith(style.get()->*entry.sheet), entry.name);
    }
    other.comboBox += "changed";
    QVERIFY(Style().comboBox == style->comboBox);
}

// Every instance registers the files anew; those of instances that are gone are taken back.
void StyleTest::registrationsStayBounded()
{
    const auto nextId = [] {
        const int id = QFontDatabase::addApplicationFont(":/font/Roboto-Bold.ttf");
        QFontDatabase::removeApplicationFont(id);
        return id;
    };
    QLabel label("Serial number 30123456");
    label.setFont(style->fontText);
    const QImage before = label.grab().toImage();
    const int free = nextId();
    for (int i = 0; i < 50; ++i) {
        const Style passing;
        QVERIFY(passing.referenceWidth == style->referenceWidth);
        QCOMPARE(nextId(), free + 8);  // its own
    }
    QCOMPARE(nextId(), free);
    // What others show stays as it is.
    QCOMPARE(label.grab().toImage(), before);
    QVERIFY(QStringList({style->fontText.family(), "Geist"})
                .contains(QFontInfo(style->fontText).family()));
}

// Not QTEST_MAIN: fonts that a widget does not show would be measured at another resolution there
// than the ones that it does.
int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    StyleTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "style_test.moc"
