// SPDX-License-Identifier: Apache-2.0
// Tests of the style sheets on real controls: what the operator sees of each state.
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <QSlider>
#include <QSpinBox>
#include <QStyleOption>
#include <QStyledItemDelegate>
#include <QTabWidget>
#include <QWindow>
#include <QtTest>
#include <functional>
#include <memory>

#include "tests/ui/stylesheets_testing.h"
#include "ui/style.h"

using sheettest::entries;
using sheettest::Entry;
using sheettest::Factory;
using sheettest::filled;
using sheettest::make;
using sheettest::makeTabs;
using sheettest::pixelsOfColor;
using sheettest::Sheet;

namespace {

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

// Where a control shows its state: the mark of boxes and radio buttons, whatever their texts do.
QRect placeOfState(const QWidget* widget)
{
    const bool hasMark = qobject_cast<const QCheckBox*>(widget) != nullptr ||
                         qobject_cast<const QRadioButton*>(widget) != nullptr;
    return hasMark ? QRect(0, 0, 20, widget->height()) : widget->rect();
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

const QColor kLime(217, 255, 66);
const QColor kSoil(25, 25, 25);

}  // namespace

class StyleSheetsLooksTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { style = std::make_unique<Style>(); }
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
    std::unique_ptr<Style> style;
};

void StyleSheetsLooksTest::statesLookDifferent_data()
{
    const QStringList names{"pushButton",     "pushButtonFilled", "pushButtonOutlined",
                            "removeButton",   "streamButtonIdle", "streamButtonActive",
                            "pushButtonLink", "toolGroupLeft",    "iconGear",
                            "iconRec",        "iconCreateStream", "checkBox",
                            "checkBoxSmall",  "radioButton",      "comboBox",
                            "lineEdit",       "spinBox",          "slider"};
    sheettest::addRows([&names](const Entry& entry) { return names.contains(entry.name); });
}

void StyleSheetsLooksTest::statesLookDifferent()
{
    QFETCH(int, index);
    const Entry& entry = entries()[static_cast<std::size_t>(index)];
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

    const auto look = [widget] { return widget->grab(placeOfState(widget)).toImage(); };
    QList<QImage> looks{look()};
    widget->setFocus();
    QTRY_VERIFY(widget->hasFocus());
    looks << look();
    elsewhere->setFocus();
    widget->setEnabled(false);
    looks << look();
    widget->setEnabled(true);
    if (button != nullptr) {
        button->setChecked(true);
        looks << look();
    }
    for (int first = 0; first < looks.size(); ++first) {
        for (int second = first + 1; second < looks.size(); ++second) {
            QVERIFY2(looks.at(first) != looks.at(second),
                     qPrintable(QStringLiteral("%1 and %2").arg(first).arg(second)));
        }
    }
}

void StyleSheetsLooksTest::buttonsAnswerThePointer_data()
{
    sheettest::addRows([](const Entry& entry) {
        const std::unique_ptr<QWidget> widget(entry.factory());
        return qobject_cast<QAbstractButton*>(widget.get()) != nullptr;
    });
}

void StyleSheetsLooksTest::buttonsAnswerThePointer()
{
    QFETCH(int, index);
    const Entry& entry = entries()[static_cast<std::size_t>(index)];
    QWidget window;
    auto* const button = static_cast<QAbstractButton*>(entry.factory());
    button->setText("Text");
    button->setStyleSheet(filled(entry.name, style.get()->*entry.sheet));
    present(window, button, QSize(120, 42));
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const QRect place = placeOfState(button);
    const PointerLooks looks = pointAt(button, place);
    QVERIFY(looks.normal != looks.hover);
    if (place == button->rect()) {
        QVERIFY(looks.hover != looks.pressed);
        QVERIFY(looks.normal != looks.pressed);
    }
    button->setEnabled(false);
    const PointerLooks disabled = pointAt(button, button->rect());
    QCOMPARE(disabled.hover, disabled.normal);
    QCOMPARE(disabled.pressed, disabled.normal);
}

void StyleSheetsLooksTest::partsAnswerThePointer_data()
{
    QTest::addColumn<int>("index");
    for (int index = 0; index < parts().size(); ++index) {
        QTest::newRow(parts().at(index).name) << index;
    }
}

void StyleSheetsLooksTest::partsAnswerThePointer()
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

void StyleSheetsLooksTest::openListsShowTheEntryBelowThePointer()
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

void StyleSheetsLooksTest::menusShowTheActiveEntry()
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

void StyleSheetsLooksTest::buttonsOfBoxesAnswerThePointer()
{
    QMessageBox box(QMessageBox::Question, "Information", "?", QMessageBox::Yes | QMessageBox::No);
    box.setStyleSheet(style->mainWindow);
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

void StyleSheetsLooksTest::streamButtonKeepsItsWidth()
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

void StyleSheetsLooksTest::squareButtonShowsItsSign()
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
void StyleSheetsLooksTest::formSizesAreLeftAlone()
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

void StyleSheetsLooksTest::windowSheetReachesPlainChildren()
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
void StyleSheetsLooksTest::windowSheetLeavesOwnClassesUnpainted()
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

void StyleSheetsLooksTest::messageBoxShowsOurSigns()
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
    StyleSheetsLooksTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "stylesheets_looks_test.moc"
