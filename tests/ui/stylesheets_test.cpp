// SPDX-License-Identifier: Apache-2.0
// Tests of the style sheets' texts.
#include <QAbstractButton>
#include <QApplication>
#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QRegularExpression>
#include <QTabBar>
#include <QTabWidget>
#include <QToolButton>
#include <QtTest>
#include <memory>

#include "tests/ui/stylesheets_testing.h"
#include "ui/style.h"

using sheettest::entries;
using sheettest::Entry;
using sheettest::filled;
using sheettest::makeTabs;
using sheettest::pixelsOfColor;

namespace {

// Declarations that a sheet makes for exactly this selector, blanks and line ends made one blank.
QString declarations(const QString& sheet, const QString& selector)
{
    const QString simple = sheet.simplified();
    const int at = simple.indexOf(selector + " {");
    const int begin = simple.indexOf('{', at) + 1;
    return at < 0 ? QString() : simple.mid(begin, simple.indexOf('}', begin) - begin).trimmed();
}

QStringList imagePaths(const QString& sheet)
{
    QStringList paths;
    QRegularExpressionMatchIterator match =
        QRegularExpression("url\\(([^)]*)\\)").globalMatch(sheet);
    while (match.hasNext()) {
        paths << match.next().captured(1);
    }
    return paths;
}

QStringList messages;

void keepMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    messages << text;
}

// Messages of the toolkit while the object lives.
class MessageCapture {
public:
    MessageCapture() : previous(qInstallMessageHandler(keepMessage)) { messages.clear(); }
    ~MessageCapture() { qInstallMessageHandler(previous); }
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

private:
    QtMessageHandler previous;
};

}  // namespace

class StyleSheetsTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { style = std::make_unique<Style>(); }
    void sheetIsAccepted_data();
    void sheetIsAccepted();
    void sheetNamesOnlyKnownImages_data();
    void sheetNamesOnlyKnownImages();
    void imagesWithoutFileAreNamed();
    void comboAndCloseImages();
    void fontDescriptionsFollowTheFonts();
    void removeButtonHasNoFontOfItsOwn();
    void labelTemplateIsExact();
    void tabTemplate();
    void indicatorSizes();
    void sliderSizes();
    void toolGroupsHaveOuterCorners();
    void linkIsUnderlinedUnderThePointer();

private:
    std::unique_ptr<Style> style;
};

void StyleSheetsTest::sheetIsAccepted_data()
{
    sheettest::addRows();
}

void StyleSheetsTest::sheetIsAccepted()
{
    QFETCH(int, index);
    const Entry& entry = entries()[static_cast<std::size_t>(index)];
    const QString sheet = filled(entry.name, style.get()->*entry.sheet);
    QVERIFY(!sheet.isEmpty());
    QVERIFY(!sheet.contains('%'));
    QVERIFY(!sheet.contains('$'));  // no name is left over
    QCOMPARE(sheet.count('{'), sheet.count('}'));

    const MessageCapture capture;
    const std::unique_ptr<QWidget> widget(entry.factory());
    widget->setStyleSheet(sheet);
    widget->resize(200, 60);
    QVERIFY(!widget->grab().isNull());
    QVERIFY2(messages.isEmpty(), qPrintable(messages.join('\n')));
    // The check itself works: the toolkit complains about what it cannot read.
    widget->setStyleSheet(sheet + "}{");
    widget->ensurePolished();
    QVERIFY(messages.join('\n').contains("Could not parse"));
}

void StyleSheetsTest::sheetNamesOnlyKnownImages_data()
{
    sheetIsAccepted_data();
}

void StyleSheetsTest::sheetNamesOnlyKnownImages()
{
    QFETCH(int, index);
    const QStringList missing{":/images/aspect.png",
                              ":/images/aspect_hover.png",
                              ":/images/combo_arrow_top.png",
                              ":/images/drop_arrow_black.png",
                              ":/images/top_arrow_black.png",
                              ":/images/top_arrow_blue.png",
                              ":/images/drop_arrow_company_color.png",
                              ":/images/video_on.png",
                              ":/images/video_on_h.png"};
    const Entry& entry = entries()[static_cast<std::size_t>(index)];
    for (const QString& path : imagePaths(filled(entry.name, style.get()->*entry.sheet))) {
        QVERIFY2(QFile::exists(path) != missing.contains(path), qPrintable(path));
    }
}

void StyleSheetsTest::imagesWithoutFileAreNamed()
{
    const auto names = [](const QString& sheet, const char* image) {
        return imagePaths(sheet).contains(QStringLiteral(":/images/%1.png").arg(image));
    };
    QVERIFY(names(style->iconAspect, "aspect"));
    QVERIFY(names(style->iconAspect, "aspect_hover"));
    QVERIFY(names(style->iconVideo, "video_on"));
    QVERIFY(names(style->iconVideo, "video_on_h"));
    QVERIFY(names(style->comboBoxLight, "combo_arrow_top"));
    QVERIFY(names(style->comboBoxLight, "drop_arrow_black"));
    QVERIFY(names(style->comboBoxLight, "drop_arrow_company_color"));
    QVERIFY(names(style->spinBoxLight, "top_arrow_black"));
    QVERIFY(names(style->spinBoxLight, "top_arrow_blue"));

    QToolButton button;
    button.setStyleSheet(style->iconAspect);
    button.setFixedSize(32, 32);
    const QImage image = button.grab().toImage();
    QCOMPARE(pixelsOfColor(image, image.pixelColor(16, 16), 0), 32 * 32);  // nothing is drawn
}

void StyleSheetsTest::comboAndCloseImages()
{
    QVERIFY(style->closeCross.contains("image:url(:/images/closeCross_tq_pearl.png)"));
    QCOMPARE(declarations(style->comboBox, "QComboBox::down-arrow"),
             QString("width: 15px; height: 15px; image:url(:/images/drop_arrow_tq_iron.png);"));
    QVERIFY(declarations(style->comboBox, "QComboBox::drop-down").contains("width: 20px;"));
}

void StyleSheetsTest::fontDescriptionsFollowTheFonts()
{
    const auto description = [](const QFont& font, const char* weight) {
        return "font-family:\"" + font.family() + "\"; font-weight: " + weight +
               "; font-size:" + QString::number(font.pointSize()) + "pt;";
    };
    QVERIFY(style->comboBox.contains(description(style->fontText, "Regular")));
    QVERIFY(style->lineEdit.contains(description(style->fontText, "Regular")));
    QVERIFY(style->pushButton.contains(description(style->fontButton, "Medium")));
    QVERIFY(style->pushButtonFilled.contains(description(style->fontStrong, "Bold")));
    QVERIFY(style->pushButtonOutlinedBold.contains(description(style->fontHeadline, "ExtraBold")));
    QVERIFY(style->labelMuted.contains(description(style->fontLight, "Light")));

    QPushButton button("Generate");
    button.setFont(style->fontButton);
    button.setStyleSheet(style->pushButton);
    button.ensurePolished();
    QCOMPARE(button.font().family(), style->fontButton.family());
    QCOMPARE(button.font().pointSize(), style->fontButton.pointSize());
    QCOMPARE(button.font().weight(), style->fontButton.weight());
    QCOMPARE(button.font().letterSpacing(), style->fontButton.letterSpacing());
}

void StyleSheetsTest::removeButtonHasNoFontOfItsOwn()
{
    QVERIFY(!style->removeButton.contains("font"));
    QVERIFY(style->pushButton.contains("font-family"));
}

void StyleSheetsTest::labelTemplateIsExact()
{
    QCOMPARE(style->labelImage, QString("Qlabel{border:0px solid;color: transparent;"
                                        "background-color:transparent;image:url(%1);}"));
}

void StyleSheetsTest::tabTemplate()
{
    QVERIFY(style->tabWidget.contains("width:%1 px;"));
    QVERIFY(style->tabWidget.contains("min-width: 100px;"));
    QVERIFY(style->tabWidget.contains("padding: 10px;"));
    const std::unique_ptr<QWidget> widget(makeTabs());
    const auto* tabs = static_cast<QTabWidget*>(widget.get());
    widget->setStyleSheet(style->tabWidget.arg(150));
    widget->ensurePolished();
    QCOMPARE(tabs->tabBar()->tabRect(0).width(), 150 + 2 * 10);
    widget->setStyleSheet(style->tabWidget.arg(20));
    QCOMPARE(tabs->tabBar()->tabRect(0).width(), 100 + 2 * 10);
}

void StyleSheetsTest::indicatorSizes()
{
    const QString indicator = "QCheckBox::indicator";
    QCOMPARE(declarations(style->checkBoxLarge, indicator), QString("width:40px; height:40px;"));
    QCOMPARE(declarations(style->checkBoxSmall, indicator), QString("width: 12px; height: 12px;"));
    QCOMPARE(declarations(style->checkBoxSized, indicator), QString("width:%1px; height:%2px;"));
    QCOMPARE(style->checkBox, style->checkBoxSized.arg(40).arg(24));
}

void StyleSheetsTest::sliderSizes()
{
    QCOMPARE(declarations(style->slider, "QSlider::groove:horizontal"), QString("height: 3px;"));
    QCOMPARE(declarations(style->slider, "QSlider::groove:vertical"), QString("width: 3px;"));
    QVERIFY(
        declarations(style->slider, "QSlider::handle").startsWith("width: 12px; height: 12px;"));
}

void StyleSheetsTest::toolGroupsHaveOuterCorners()
{
    QVERIFY(style->toolGroupLeft.contains("border-top-left-radius: 4px;"));
    QVERIFY(style->toolGroupLeft.contains("border-bottom-left-radius: 4px;"));
    QVERIFY(!style->toolGroupLeft.contains("right-radius"));
    QVERIFY(!style->toolGroupMiddle.contains("radius"));
    QVERIFY(style->toolGroupRight.contains("border-top-right-radius: 4px;"));
    QVERIFY(style->toolGroupRight.contains("border-bottom-right-radius: 4px;"));
    QVERIFY(!style->toolGroupRight.contains("left-radius"));
}

void StyleSheetsTest::linkIsUnderlinedUnderThePointer()
{
    QVERIFY(declarations(style->pushButtonLink, "QAbstractButton:hover")
                .contains("text-decoration: underline;"));
    QCOMPARE(style->pushButtonLink.count("underline"), 1);
}

// Not QTEST_MAIN: fonts that a widget does not show would be measured at another resolution there
// than the ones that it does.
int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    StyleSheetsTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "stylesheets_test.moc"
