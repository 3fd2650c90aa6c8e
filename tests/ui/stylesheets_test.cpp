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
    void imagesWithoutFileShowNothing();
    void comboAndCloseImages();
    void sheetNamesItsImages_data();
    void sheetNamesItsImages();
    void outlinesAreOneAndTwoPixels();
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

void StyleSheetsTest::imagesWithoutFileShowNothing()
{
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

void StyleSheetsTest::sheetNamesItsImages_data()
{
    QTest::addColumn<QString>("sheet");
    QTest::addColumn<QString>("images");
    const auto add = [](const char* name, const QString& sheet, const char* images) {
        QTest::newRow(name) << sheet << QString(images);
    };
    // Normal, under the pointer, checked, both, disabled.
    add("iconPlayPause", style->iconPlayPause, "play play_h pause pause_h icons/play_u");
    add("iconStop", style->iconStop, "stop stop_h icons/stop_u");
    add("iconRefresh", style->iconRefresh, "refresh refresh_h icons/refresh_u");
    add("iconGear", style->iconGear, "gear gear_h gear_h gear_h gear_off");
    add("iconPhoto", style->iconPhoto, "photo photo_h photo_u");
    add("iconVideo", style->iconVideo, "video video_h video_on video_on_h video_u");
    add("iconRec", style->iconRec, "rec rec_h rec_on rec_on_h rec_u");
    add("iconAspect", style->iconAspect, "aspect aspect_hover");
    add("iconFolder", style->iconFolder, "folder folder_h folder_u");
    add("iconStream", style->iconStream, "stream stream_h stream_h stream_h icons/stream_u");
    add("iconCreateStream", style->iconCreateStream,
        "QuillonCreateStream QuillonCreateStream_h QuillonCreateStreamStop "
        "QuillonCreateStreamStop_h QuillonCreateStream_u");
    add("closeCross", style->closeCross,
        "closeCross closeCross_tq_pearl closeCross_tq_pearl closeCross_tq_pearl");
    // Off, under the pointer, on, under the pointer, unavailable.
    add("checkBox", style->checkBox,
        "check_off check_off_h check_on check_on_h check_na_off check_na_on");
    add("checkBoxSmall", style->checkBoxSmall, "box_off box_off_hover box_on box_u");
    add("radioButton", style->radioButton, "radio_off radio_off_h radio_on");
    add("menu", style->menu, "box_off box_off_hover box_on box_u");
    add("listWidget", style->listWidget, "box_off box_off_hover box_on box_u");
    // Down, under the pointer, open.
    add("comboBox", style->comboBox, "drop_arrow_tq_iron drop_arrow_tq_pearl top_arrow_tq_pearl");
    add("comboBoxLight", style->comboBoxLight,
        "drop_arrow_black drop_arrow_company_color combo_arrow_top");
    add("spinBox", style->spinBox,
        "top_arrow_tq_iron drop_arrow_tq_iron top_arrow_tq_pearl drop_arrow_tq_pearl");
    add("spinBoxLight", style->spinBoxLight,
        "top_arrow_black drop_arrow_black top_arrow_blue drop_arrow_company_color");
    add("slider", style->slider, "slider_on slider_on_h slider_off");
}

void StyleSheetsTest::sheetNamesItsImages()
{
    QFETCH(QString, sheet);
    QFETCH(QString, images);
    QStringList paths;
    for (const QString& image : images.split(' ')) {
        paths << (image.contains('/') ? ":/" : ":/images/") + image + ".png";
    }
    QCOMPARE(imagePaths(sheet), paths);
}

void StyleSheetsTest::outlinesAreOneAndTwoPixels()
{
    const auto outline = [](const QString& sheet) {
        QPushButton button;
        button.setStyleSheet(sheet);
        button.resize(60, 30);
        const QImage image = button.grab().toImage();
        int pixels = 0;
        while (pixels < 10 && image.pixelColor(30, pixels) == QColor(217, 255, 66)) {
            ++pixels;
        }
        return pixels;
    };
    QCOMPARE(outline(style->pushButtonOutlined), 1);
    QCOMPARE(outline(style->pushButtonOutlinedBold), 2);
    QCOMPARE(outline(style->pushButtonFilled), 10);
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
