// SPDX-License-Identifier: Apache-2.0
// Tests of the fonts and style sheets, the sheets on real widgets.
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QFontDatabase>
#include <QFontInfo>
#include <QFontMetrics>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpression>
#include <QScrollBar>
#include <QSlider>
#include <QSpinBox>
#include <QStyleOption>
#include <QStyledItemDelegate>
#include <QTabWidget>
#include <QToolButton>
#include <QWindow>
#include <QtTest>
#include <functional>
#include <memory>

#include "ui/colors.h"
#include "ui/style.h"

namespace {

using Sheet = QString Style::*;
using Factory = std::function<QWidget*()>;

template <typename Widget>
Factory make()
{
    return [] { return new Widget; };
}

QWidget* makeTabs()
{
    auto* tabs = new QTabWidget;
    tabs->addTab(new QWidget, "One");
    tabs->addTab(new QWidget, "Two");
    return tabs;
}

struct Entry {
    const char* name;
    Sheet sheet;
    Factory factory;
};

const QList<Entry>& entries()
{
    static const QList<Entry> list{
        {"mainWindow", &Style::mainWindow, make<QMainWindow>()},
        {"pushButton", &Style::pushButton, make<QPushButton>()},
        {"pushButtonFilled", &Style::pushButtonFilled, make<QPushButton>()},
        {"pushButtonOutlined", &Style::pushButtonOutlined, make<QPushButton>()},
        {"pushButtonOutlinedBold", &Style::pushButtonOutlinedBold, make<QPushButton>()},
        {"pushButtonLink", &Style::pushButtonLink, make<QPushButton>()},
        {"removeButton", &Style::removeButton, make<QPushButton>()},
        {"streamButtonIdle", &Style::streamButtonIdle, make<QPushButton>()},
        {"streamButtonActive", &Style::streamButtonActive, make<QPushButton>()},
        {"closeCross", &Style::closeCross, make<QPushButton>()},
        {"toolGroupLeft", &Style::toolGroupLeft, make<QToolButton>()},
        {"toolGroupMiddle", &Style::toolGroupMiddle, make<QToolButton>()},
        {"toolGroupRight", &Style::toolGroupRight, make<QToolButton>()},
        {"iconPlayPause", &Style::iconPlayPause, make<QToolButton>()},
        {"iconStop", &Style::iconStop, make<QToolButton>()},
        {"iconRefresh", &Style::iconRefresh, make<QToolButton>()},
        {"iconGear", &Style::iconGear, make<QToolButton>()},
        {"iconPhoto", &Style::iconPhoto, make<QToolButton>()},
        {"iconVideo", &Style::iconVideo, make<QToolButton>()},
        {"iconRec", &Style::iconRec, make<QToolButton>()},
        {"iconAspect", &Style::iconAspect, make<QToolButton>()},
        {"iconFolder", &Style::iconFolder, make<QToolButton>()},
        {"iconStream", &Style::iconStream, make<QToolButton>()},
        {"iconCreateStream", &Style::iconCreateStream, make<QToolButton>()},
        {"checkBox", &Style::checkBox, make<QCheckBox>()},
        {"checkBoxLarge", &Style::checkBoxLarge, make<QCheckBox>()},
        {"checkBoxSmall", &Style::checkBoxSmall, make<QCheckBox>()},
        {"checkBoxSized", &Style::checkBoxSized, make<QCheckBox>()},
        {"comboBox", &Style::comboBox, make<QComboBox>()},
        {"comboBoxLight", &Style::comboBoxLight, make<QComboBox>()},
        {"lineEdit", &Style::lineEdit, make<QLineEdit>()},
        {"spinBox", &Style::spinBox, make<QSpinBox>()},
        {"spinBoxLight", &Style::spinBoxLight, make<QSpinBox>()},
        {"slider", &Style::slider, make<QSlider>()},
        {"scrollBar", &Style::scrollBar, make<QScrollBar>()},
        {"menu", &Style::menu, make<QMenu>()},
        {"radioButton", &Style::radioButton, make<QRadioButton>()},
        {"tabWidget", &Style::tabWidget, makeTabs},
        {"listWidget", &Style::listWidget, make<QListWidget>()},
        {"messageBox", &Style::messageBox, make<QMessageBox>()},
        {"toolTip", &Style::toolTip, make<QLabel>()},
        {"labelText", &Style::labelText, make<QLabel>()},
        {"labelMuted", &Style::labelMuted, make<QLabel>()},
        {"labelGood", &Style::labelGood, make<QLabel>()},
        {"labelBad", &Style::labelBad, make<QLabel>()},
        {"labelImage", &Style::labelImage, make<QLabel>()},
    };
    return list;
}

// A template with its places filled.
QString filled(const char* name, const QString& sheet)
{
    const QString key = QString::fromLatin1(name);
    if (key == "checkBoxSized") {
        return sheet.arg(20).arg(12);
    }
    if (key == "tabWidget") {
        return sheet.arg(120);
    }
    return key == "labelImage" ? sheet.arg(":/images/KOR.png") : sheet;
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

int pixelsOfColor(const QImage& image, const QColor& color, int tolerance)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor pixel = image.pixelColor(x, y);
            count += qAbs(pixel.red() - color.red()) <= tolerance &&
                             qAbs(pixel.green() - color.green()) <= tolerance &&
                             qAbs(pixel.blue() - color.blue()) <= tolerance
                         ? 1
                         : 0;
        }
    }
    return count;
}

// How a part of a control looks before the pointer comes, below it, and with the button pressed.
struct PointerLooks {
    QImage normal;
    QImage hover;
    QImage pressed;
};

PointerLooks pointAt(QWidget* widget, const QRect& part)
{
    QWidget* const top = widget->window();
    QWindow* const window = top->windowHandle();
    const QPoint place = widget->mapTo(top, part.center());
    const auto look = [widget, part] { return widget->grab(part).toImage(); };
    PointerLooks looks;
    QTest::mouseMove(top, QPoint(1, 1));
    looks.normal = look();
    QTest::mouseMove(top, place);
    looks.hover = look();
    QTest::mousePress(window, Qt::LeftButton, Qt::NoModifier, place);
    looks.pressed = look();
    QTest::mouseRelease(window, Qt::LeftButton, Qt::NoModifier, place);
    QTest::mouseMove(top, QPoint(1, 1));
    return looks;
}

// Shows a control away from the window's corner, where the pointer rests. Focus has a look of its
// own, so that the control takes none.
void present(QWidget& window, QWidget* widget, const QSize& size)
{
    widget->setParent(&window);
    widget->setFocusPolicy(Qt::NoFocus);
    widget->setFixedSize(size);
    widget->move(40, 40);
    window.resize(400, 300);
    window.show();
}

// A part of a control that shows where the pointer is.
struct Part {
    const char* name;
    Sheet sheet;
    Factory factory;
    std::function<QRect(QWidget*)> place;
    bool hasPressedLook;
};

QRect spinBoxPart(QWidget* widget, QStyle::SubControl part)
{
    QStyleOptionSpinBox option;
    option.initFrom(widget);
    option.subControls = QStyle::SC_All;
    return widget->style()->subControlRect(QStyle::CC_SpinBox, &option, part, widget);
}

QRect handleOf(QWidget* widget, QStyle::ComplexControl control, QStyle::SubControl part)
{
    const auto* const slider = static_cast<QAbstractSlider*>(widget);
    QStyleOptionSlider option;
    option.initFrom(slider);
    option.orientation = slider->orientation();
    option.maximum = slider->maximum();
    option.pageStep = slider->pageStep();
    option.state |= QStyle::State_Horizontal;
    return widget->style()->subControlRect(control, &option, part, widget);
}

QWidget* makeSpinBox()
{
    auto* const spinBox = new QSpinBox;
    spinBox->setValue(50);  // both arrows have a way to go
    return spinBox;
}

QWidget* makeScrollBar()
{
    auto* const bar = new QScrollBar(Qt::Horizontal);
    bar->setPageStep(50);
    return bar;
}

QWidget* makeList()
{
    auto* const list = new QListWidget;
    list->addItems({"One", "Two"});
    return list;
}

const QList<Part>& parts()
{
    static const auto whole = [](QWidget* widget) { return widget->rect(); };
    static const QList<Part> list{
        {"line edit", &Style::lineEdit, make<QLineEdit>(), whole, false},
        {"combo box", &Style::comboBox, make<QComboBox>(), whole, false},
        {"spin box", &Style::spinBox, makeSpinBox, whole, false},
        {"spin box, up", &Style::spinBox, makeSpinBox,
         [](QWidget* widget) { return spinBoxPart(widget, QStyle::SC_SpinBoxUp); }, true},
        {"spin box, down", &Style::spinBox, makeSpinBox,
         [](QWidget* widget) { return spinBoxPart(widget, QStyle::SC_SpinBoxDown); }, true},
        {"slider", &Style::slider, [] { return new QSlider(Qt::Horizontal); },
         [](QWidget* widget) {
             return handleOf(widget, QStyle::CC_Slider, QStyle::SC_SliderHandle);
         },
         false},
        {"scroll bar", &Style::scrollBar, makeScrollBar,
         [](QWidget* widget) {
             return handleOf(widget, QStyle::CC_ScrollBar, QStyle::SC_ScrollBarSlider);
         },
         true},
        {"tab", &Style::tabWidget, makeTabs,
         [](QWidget* widget) { return static_cast<QTabWidget*>(widget)->tabBar()->tabRect(1); },
         false},
        {"list entry", &Style::listWidget, makeList,
         [](QWidget* widget) {
             const auto* const entries = static_cast<QListWidget*>(widget);
             return entries->visualItemRect(entries->item(1))
                 .translated(entries->viewport()->mapTo(widget, QPoint()));
         },
         false},
    };
    return list;
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

const QColor kLime(217, 255, 66);
const QColor kSoil(25, 25, 25);

}  // namespace

class StyleTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();

    void referenceWidthIsMeasured();
    void pointSizeIsTruncated();
    void degenerateReferenceWidthIsSurvived();
    void fontFollowsTheTable_data();
    void fontFollowsTheTable();
    void shippedTypefacesStandIn();
    void eightFontsAreRegistered();
    void instancesAreEqual();
    void registrationsStayBounded();
    void removeButtonHasNoFontOfItsOwn();

    void sheetIsAccepted_data();
    void sheetIsAccepted();
    void sheetNamesOnlyKnownImages_data();
    void sheetNamesOnlyKnownImages();
    void imagesWithoutFileAreNamed();
    void comboAndCloseImages();
    void fontDescriptionsFollowTheFonts();
    void labelTemplateIsExact();
    void tabTemplate();
    void indicatorSizes();
    void sliderSizes();
    void toolGroupsHaveOuterCorners();
    void linkIsUnderlinedUnderThePointer();

    void statesLookDifferent_data();
    void statesLookDifferent();
    void buttonsAnswerThePointer_data();
    void buttonsAnswerThePointer();
    void partsAnswerThePointer_data();
    void partsAnswerThePointer();
    void openListsShowTheEntryBelowThePointer();
    void menusShowTheActiveEntry();
    void buttonsOfBoxesAnswerThePointer();
    void streamButtonKeepsItsWidth();
    void squareButtonShowsItsSign();
    void formSizesAreLeftAlone();
    void windowSheetReachesPlainChildren();
    void windowSheetLeavesOwnClassesUnpainted();
    void messageBoxShowsOurSigns();

private:
    QStringList familiesBefore;
    std::unique_ptr<Style> style;
};

void StyleTest::initTestCase()
{
    familiesBefore = QFontDatabase().families();
    style = std::make_unique<Style>();
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

void StyleTest::degenerateReferenceWidthIsSurvived()
{
    QCOMPARE(Style::pointSize(308, 0), 11);
    QCOMPARE(Style::pointSize(308, -3), 11);
    QCOMPARE(Style::pointSize(196, 100000), 1);  // the toolkit refuses a size of 0
}

void StyleTest::fontFollowsTheTable_data()
{
    QTest::addColumn<QFont>("font");
    QTest::addColumn<int>("scale");
    QTest::addColumn<int>("weight");
    QTest::addColumn<bool>("spaced");
    QTest::addColumn<bool>("upperCase");
    QTest::newRow("1") << style->fontTitle << 308 << 57 << false << false;
    QTest::newRow("2") << style->fontHeadline << 280 << 81 << false << false;
    QTest::newRow("3") << style->fontBanner << 420 << 57 << false << true;
    QTest::newRow("4") << style->fontCaption << 252 << 50 << true << true;
    QTest::newRow("5") << style->fontPreview << 252 << 50 << true << false;
    QTest::newRow("6") << style->fontText << 252 << 50 << true << false;
    QTest::newRow("7") << style->fontLead << 336 << 50 << false << false;
    QTest::newRow("8") << style->fontStrong << 280 << 75 << true << false;
    QTest::newRow("9") << style->fontSmall << 224 << 50 << false << false;
    QTest::newRow("10") << style->fontFine << 196 << 50 << true << false;
    QTest::newRow("11") << style->fontLight << 280 << 25 << false << false;
    QTest::newRow("12") << style->fontButton << 252 << 57 << true << false;
    QTest::newRow("13") << style->fontDisplay << 756 << 57 << false << false;
}

void StyleTest::fontFollowsTheTable()
{
    QFETCH(QFont, font);
    QFETCH(int, scale);
    QFETCH(int, weight);
    QFETCH(bool, spaced);
    QFETCH(bool, upperCase);
    const QStringList families{"NB Akademie Pro Regular", "NB Akademie Pro Medium",
                               "NB Akademie Mono Pro Regular", "NB Akademie Mono Pro Medium"};
    QVERIFY(families.contains(font.family()));
    const float size = static_cast<float>(scale) / static_cast<float>(style->referenceWidth);
    QCOMPARE(font.pointSize(), static_cast<int>(size));
    QCOMPARE(font.weight(), weight);
    QCOMPARE(font.letterSpacingType(), QFont::PercentageSpacing);
    QCOMPARE(font.letterSpacing() > 0, spaced);
    QCOMPARE(font.capitalization(), upperCase ? QFont::AllUppercase : QFont::MixedCase);
    QCOMPARE(font.styleStrategy(), QFont::PreferAntialias);
    QVERIFY(!font.italic());
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
    for (const Entry& entry : entries()) {
        QVERIFY2(other.*entry.sheet == style.get()->*entry.sheet, entry.name);
    }
    QCOMPARE(other.referenceWidth, style->referenceWidth);
    QCOMPARE(other.fontPreview, style->fontPreview);
    QCOMPARE(other.fontDisplay, style->fontDisplay);
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
    {
        const Style first;
        const Style second;
    }
    const int bound = nextId();
    for (int i = 0; i < 50; ++i) {
        const Style passing;
        QVERIFY(passing.referenceWidth == style->referenceWidth);
        const int id = nextId();
        QVERIFY2(id <= bound, qPrintable(QStringLiteral("%1, not %2").arg(id).arg(bound)));
    }
    // What others show stays as it is.
    QCOMPARE(label.grab().toImage(), before);
    QVERIFY(QStringList({style->fontText.family(), "Geist"})
                .contains(QFontInfo(style->fontText).family()));
    {
        const Style first;
        const Style second;
        QVERIFY(nextId() >= 3 * 8);  // each with its own: the one of this test, and these two
    }
}

void StyleTest::removeButtonHasNoFontOfItsOwn()
{
    QVERIFY(!style->removeButton.contains("font"));
    QVERIFY(style->pushButton.contains("font-family"));
}

void StyleTest::sheetIsAccepted_data()
{
    QTest::addColumn<int>("index");
    for (int index = 0; index < entries().size(); ++index) {
        QTest::newRow(entries().at(index).name) << index;
    }
}

void StyleTest::sheetIsAccepted()
{
    QFETCH(int, index);
    const Entry& entry = entries().at(index);
    const QString sheet = filled(entry.name, style.get()->*entry.sheet);
    QVERIFY(!sheet.isEmpty());
    QVERIFY(!sheet.contains('%'));
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

void StyleTest::sheetNamesOnlyKnownImages_data()
{
    sheetIsAccepted_data();
}

void StyleTest::sheetNamesOnlyKnownImages()
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
    const Entry& entry = entries().at(index);
    for (const QString& path : imagePaths(filled(entry.name, style.get()->*entry.sheet))) {
        QVERIFY2(QFile::exists(path) != missing.contains(path), qPrintable(path));
    }
}

void StyleTest::imagesWithoutFileAreNamed()
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

void StyleTest::comboAndCloseImages()
{
    QVERIFY(style->closeCross.contains("image:url(:/images/closeCross_tq_pearl.png)"));
    QVERIFY(style->comboBox.contains(":/images/drop_arrow_tq_iron.png"));
    QVERIFY(
        style->comboBox.contains("QComboBox::down-arrow{width:15px;height:15px;image:url(:/images/"
                                 "drop_arrow_tq_iron.png);}"));
    QVERIFY(QRegularExpression("QComboBox::drop-down\\{[^}]*width:20px;")
                .match(style->comboBox)
                .hasMatch());
}

void StyleTest::fontDescriptionsFollowTheFonts()
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

void StyleTest::labelTemplateIsExact()
{
    QCOMPARE(style->labelImage, QString("Qlabel{border:0px solid;color: transparent;"
                                        "background-color:transparent;image:url(%1);}"));
}

void StyleTest::tabTemplate()
{
    QVERIFY(style->tabWidget.contains("width:%1 px;"));
    QVERIFY(style->tabWidget.contains("min-width:100px;"));
    QVERIFY(style->tabWidget.contains("padding:10px;"));
    const std::unique_ptr<QWidget> widget(makeTabs());
    const auto* tabs = static_cast<QTabWidget*>(widget.get());
    widget->setStyleSheet(style->tabWidget.arg(150));
    widget->ensurePolished();
    QCOMPARE(tabs->tabBar()->tabRect(0).width(), 150 + 2 * 10);
    widget->setStyleSheet(style->tabWidget.arg(20));
    QCOMPARE(tabs->tabBar()->tabRect(0).width(), 100 + 2 * 10);
}

void StyleTest::indicatorSizes()
{
    QVERIFY(style->checkBoxLarge.contains("QCheckBox::indicator{width:40px;height:40px;}"));
    QVERIFY(style->checkBoxSmall.contains("QCheckBox::indicator{width:12px;height:12px;}"));
    QVERIFY(style->checkBoxSized.contains("QCheckBox::indicator{width:%1px;height:%2px;}"));
    QCOMPARE(style->checkBox, style->checkBoxSized.arg(40).arg(24));
}

void StyleTest::sliderSizes()
{
    QVERIFY(style->slider.contains("QSlider::groove:horizontal{height:3px;"));
    QVERIFY(style->slider.contains("QSlider::handle{width:12px;height:12px;"));
}

void StyleTest::toolGroupsHaveOuterCorners()
{
    QVERIFY(style->toolGroupLeft.contains("border-top-left-radius:4px;"));
    QVERIFY(style->toolGroupLeft.contains("border-bottom-left-radius:4px;"));
    QVERIFY(!style->toolGroupLeft.contains("right-radius"));
    QVERIFY(!style->toolGroupMiddle.contains("radius"));
    QVERIFY(style->toolGroupRight.contains("border-top-right-radius:4px;"));
    QVERIFY(style->toolGroupRight.contains("border-bottom-right-radius:4px;"));
    QVERIFY(!style->toolGroupRight.contains("left-radius"));
}

void StyleTest::linkIsUnderlinedUnderThePointer()
{
    QVERIFY(QRegularExpression(":hover\\{[^}]*text-decoration: underline")
                .match(style->pushButtonLink)
                .hasMatch());
}

void StyleTest::statesLookDifferent_data()
{
    QTest::addColumn<int>("index");
    const QStringList names{"pushButton",     "pushButtonFilled", "pushButtonOutlined",
                            "removeButton",   "streamButtonIdle", "streamButtonActive",
                            "pushButtonLink", "toolGroupLeft",    "iconGear",
                            "iconRec",        "iconCreateStream", "checkBox",
                            "checkBoxSmall",  "radioButton",      "comboBox",
                            "lineEdit",       "spinBox",          "slider"};
    for (int index = 0; index < entries().size(); ++index) {
        if (names.contains(entries().at(index).name)) {
            QTest::newRow(entries().at(index).name) << index;
        }
    }
}

void StyleTest::statesLookDifferent()
{
    QFETCH(int, index);
    const Entry& entry = entries().at(index);
    QWidget window;
    auto* elsewhere = new QPushButton(&window);
    QWidget* widget = entry.factory();
    widget->setParent(&window);
    widget->setStyleSheet(style.get()->*entry.sheet);
    widget->setFocusPolicy(Qt::StrongFocus);
    widget->setFixedSize(120, 26);
    auto* button = qobject_cast<QAbstractButton*>(widget);
    if (button != nullptr) {
        button->setText("Text");
        button->setCheckable(true);
    }
    window.show();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    elsewhere->setFocus();

    QList<QImage> looks{widget->grab().toImage()};
    widget->setFocus();
    QTRY_VERIFY(widget->hasFocus());
    looks << widget->grab().toImage();
    elsewhere->setFocus();
    widget->setEnabled(false);
    looks << widget->grab().toImage();
    widget->setEnabled(true);
    if (button != nullptr) {
        button->setChecked(true);
        looks << widget->grab().toImage();
    }
    for (int first = 0; first < looks.size(); ++first) {
        for (int second = first + 1; second < looks.size(); ++second) {
            QVERIFY2(looks.at(first) != looks.at(second),
                     qPrintable(QStringLiteral("%1 and %2").arg(first).arg(second)));
        }
    }
}

void StyleTest::buttonsAnswerThePointer_data()
{
    QTest::addColumn<int>("index");
    for (int index = 0; index < entries().size(); ++index) {
        const std::unique_ptr<QWidget> widget(entries().at(index).factory());
        if (qobject_cast<QAbstractButton*>(widget.get()) != nullptr) {
            QTest::newRow(entries().at(index).name) << index;
        }
    }
}

void StyleTest::buttonsAnswerThePointer()
{
    QFETCH(int, index);
    const Entry& entry = entries().at(index);
    QWidget window;
    auto* const button = static_cast<QAbstractButton*>(entry.factory());
    button->setText("Text");
    button->setStyleSheet(filled(entry.name, style.get()->*entry.sheet));
    present(window, button, QSize(120, 42));
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    // Boxes answer where their mark is.
    const bool hasMark = qobject_cast<QCheckBox*>(button) != nullptr ||
                         qobject_cast<QRadioButton*>(button) != nullptr;
    const PointerLooks looks = pointAt(button, hasMark ? QRect(0, 0, 20, 42) : button->rect());
    QVERIFY(looks.normal != looks.hover);
    if (!hasMark) {
        QVERIFY(looks.hover != looks.pressed);
        QVERIFY(looks.normal != looks.pressed);
    }
    button->setEnabled(false);
    const PointerLooks disabled = pointAt(button, button->rect());
    QCOMPARE(disabled.hover, disabled.normal);
    QCOMPARE(disabled.pressed, disabled.normal);
}

void StyleTest::partsAnswerThePointer_data()
{
    QTest::addColumn<int>("index");
    for (int index = 0; index < parts().size(); ++index) {
        QTest::newRow(parts().at(index).name) << index;
    }
}

void StyleTest::partsAnswerThePointer()
{
    QFETCH(int, index);
    const Part& part = parts().at(index);
    QWidget window;
    QWidget* const widget = part.factory();
    const QString sheet = style.get()->*part.sheet;
    widget->setStyleSheet(sheet.contains("%1") ? sheet.arg(120) : sheet);
    present(window, widget, QSize(300, qobject_cast<QScrollBar*>(widget) != nullptr ? 10 : 80));
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const QRect place = part.place(widget);
    QVERIFY(widget->rect().contains(place));
    const PointerLooks looks = pointAt(widget, place);
    QVERIFY(looks.normal != looks.hover);
    if (part.hasPressedLook) {
        QVERIFY(looks.hover != looks.pressed);
        QVERIFY(looks.normal != looks.pressed);
    }
}

void StyleTest::openListsShowTheEntryBelowThePointer()
{
    QWidget window;
    auto* const list = new QComboBox;
    list->addItems({"One", "Two", "Three"});
    list->setStyleSheet(style->comboBox);
    list->setItemDelegate(new QStyledItemDelegate(list));
    present(window, list, QSize(120, 26));
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const QImage closed = list->grab().toImage();
    list->showPopup();
    QAbstractItemView* const view = list->view();
    QVERIFY(QTest::qWaitForWindowExposed(view->window()));
    QVERIFY(list->grab().toImage() != closed);
    const QRect entry = view->visualRect(list->model()->index(2, 0));
    const auto look = [&] { return view->viewport()->grab(entry).toImage(); };
    const QImage normal = look();
    QTest::mouseMove(view->viewport(), entry.center());
    QVERIFY(look() != normal);
    QVERIFY(pixelsOfColor(look(), kLime, 0) > entry.width());
    list->hidePopup();
}

void StyleTest::menusShowTheActiveEntry()
{
    QMenu menu;
    menu.setStyleSheet(style->menu);
    QAction* const copy = menu.addAction("Copy");
    QAction* const paste = menu.addAction("Paste");
    paste->setEnabled(false);
    menu.popup(QPoint(40, 40));
    QVERIFY(QTest::qWaitForWindowExposed(&menu));
    const auto look = [&menu](QAction* action) {
        return menu.grab(menu.actionGeometry(action)).toImage();
    };
    const QImage normal = look(copy);
    menu.setActiveAction(copy);
    QVERIFY(look(copy) != normal);
    QVERIFY(pixelsOfColor(look(copy), kLime, 0) > normal.width());
    menu.setActiveAction(paste);
    QCOMPARE(pixelsOfColor(look(paste), kLime, 0), 0);  // it cannot be chosen
}

void StyleTest::buttonsOfBoxesAnswerThePointer()
{
    QMessageBox box(QMessageBox::Question, "Information", "?", QMessageBox::Yes | QMessageBox::No);
    box.setStyleSheet(style->messageBox);
    QAbstractButton* const button = box.button(QMessageBox::No);
    for (const QMessageBox::StandardButton which : {QMessageBox::Yes, QMessageBox::No}) {
        box.button(which)->setFocusPolicy(Qt::NoFocus);
    }
    box.show();
    QVERIFY(QTest::qWaitForWindowExposed(&box));
    const PointerLooks looks = pointAt(button, button->rect());
    QVERIFY(looks.normal != looks.hover);
    QVERIFY(looks.hover != looks.pressed);
    QVERIFY(looks.normal != looks.pressed);
}

void StyleTest::streamButtonKeepsItsWidth()
{
    QPushButton button;
    button.setFont(style->fontButton);
    button.setStyleSheet(style->streamButtonIdle);
    button.setText("Stream");
    const QSize idle = button.sizeHint();
    button.setStyleSheet(style->streamButtonActive);
    button.setText("Streaming...");
    QCOMPARE(button.sizeHint(), idle);
}

void StyleTest::squareButtonShowsItsSign()
{
    QPushButton button("+");
    button.setFont(style->fontButton);
    button.setStyleSheet(style->pushButton);
    button.setFixedSize(22, 22);
    QVERIFY(pixelsOfColor(button.grab().toImage(), QColor(242, 242, 242), 60) > 4);
    button.setText("-");
    button.setStyleSheet(style->removeButton);
    QVERIFY(pixelsOfColor(button.grab().toImage(), QColor(255, 87, 87), 60) > 1);
}

// Sizes belong to the forms; the sheets of the form's widgets set none.
void StyleTest::formSizesAreLeftAlone()
{
    QPushButton button("Reload");
    button.setMinimumSize(70, 22);
    button.setMaximumHeight(22);
    button.setStyleSheet(style->pushButton);
    QPushButton stream("Stream");
    stream.setMinimumWidth(22);
    stream.setStyleSheet(style->streamButtonIdle);
    QComboBox combo;
    combo.setMinimumSize(100, 22);
    combo.setMaximumHeight(22);
    combo.setStyleSheet(style->comboBox);
    QLineEdit edit;
    edit.setMinimumSize(100, 22);
    edit.setMaximumHeight(22);
    edit.setStyleSheet(style->lineEdit);
    for (QWidget* widget : std::initializer_list<QWidget*>{&button, &stream, &combo, &edit}) {
        widget->ensurePolished();
    }
    QCOMPARE(button.minimumSize(), QSize(70, 22));
    QCOMPARE(button.maximumHeight(), 22);
    QCOMPARE(stream.minimumSize(), QSize(22, 0));
    QCOMPARE(combo.minimumSize(), QSize(100, 22));
    QCOMPARE(edit.minimumSize(), QSize(100, 22));
    QCOMPARE(edit.maximumHeight(), 22);
}

void StyleTest::windowSheetReachesPlainChildren()
{
    QMainWindow window;
    window.setStyleSheet(style->mainWindow);
    auto* central = new QWidget;
    window.setCentralWidget(central);
    auto* label = new QLabel("Port", central);
    auto* spinBox = new QSpinBox(central);
    spinBox->setMinimumWidth(80);
    spinBox->move(40, 40);
    window.resize(200, 100);
    window.show();
    QCOMPARE(label->palette().color(QPalette::WindowText), QColor(194, 194, 194));
    QCOMPARE(label->font().family(), style->fontText.family());
    QCOMPARE(label->font().pointSize(), style->fontText.pointSize());
    QCOMPARE(spinBox->font().pointSize(), style->fontText.pointSize());
    QCOMPARE(spinBox->minimumWidth(), 80);
    QCOMPARE(spinBox->sizeHint().height(), 22);  // as high as the controls beside it
    QCOMPARE(window.grab().toImage().pixelColor(199, 99), kSoil);
    QVERIFY(pixelsOfColor(spinBox->grab().toImage(), QColor(5, 5, 5), 2) > 100);
}

// An image view paints itself; a ground drawn below it would flicker through.
void StyleTest::windowSheetLeavesOwnClassesUnpainted()
{
    QMainWindow window;
    window.setStyleSheet(style->mainWindow);
    window.resize(100, 100);

    class View : public QLabel {
    public:
        using QLabel::QLabel;
    };
    auto* view = new View(&window);
    view->ensurePolished();
    QVERIFY(!view->autoFillBackground());
    QCOMPARE(view->grab().toImage().pixelColor(0, 0).alpha(), 0);
}

void StyleTest::messageBoxShowsOurSigns()
{
    QMainWindow window;
    window.setStyleSheet(style->mainWindow);
    QMessageBox box(QMessageBox::Warning, "Warning", "The same camera was selected twice: 1",
                    QMessageBox::Ok, &window);
    box.show();
    const QImage image = box.grab().toImage();
    QVERIFY(pixelsOfColor(image, QColor(255, 205, 0), 10) > 20);
    QVERIFY(pixelsOfColor(image, QColor(45, 45, 45), 0) > image.width() * image.height() / 2);
    QVERIFY(pixelsOfColor(image, kLime, 10) > 20);  // the button that Return presses
    QVERIFY(box.button(QMessageBox::Ok)->icon().isNull());

    // The set has no sign of its own for questions.
    QMessageBox question(QMessageBox::Question, "Information", "?", QMessageBox::Yes, &window);
    QMessageBox information(QMessageBox::Information, "Information", "!", QMessageBox::Yes,
                            &window);
    for (QMessageBox* const shown : {&question, &information}) {
        shown->show();
    }
    const auto sign = [](QMessageBox& from) {
        return from.findChild<QLabel*>("qt_msgboxex_icon_label")->grab().toImage();
    };
    QVERIFY(!sign(question).isNull());
    QCOMPARE(sign(question), sign(information));
}

// Not QTEST_MAIN: fonts that a widget does not show would be measured at another resolution there
// than the ones that it does.
int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    StyleTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "styletest.moc"
