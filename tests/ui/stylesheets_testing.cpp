// SPDX-License-Identifier: Apache-2.0
// What the tests of the style sheets share.
#include "tests/ui/stylesheets_testing.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QMenu>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <QSlider>
#include <QSpinBox>
#include <QTabWidget>
#include <QToolButton>
#include <QtTest>

namespace sheettest {

QWidget* makeTabs()
{
    auto* tabs = new QTabWidget;
    tabs->addTab(new QWidget, "One");
    tabs->addTab(new QWidget, "Two");
    return tabs;
}

const std::vector<Entry>& entries()
{
    static const std::vector<Entry> list{
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
        {"labelMuted", &Style::labelMuted, make<QLabel>()},
        {"labelImage", &Style::labelImage, make<QLabel>()},
    };
    return list;
}

void addRows(const std::function<bool(const Entry&)>& wanted)
{
    QTest::addColumn<int>("index");
    for (std::size_t index = 0; index < entries().size(); ++index) {
        if (!wanted || wanted(entries()[index])) {
            QTest::newRow(entries()[index].name) << static_cast<int>(index);
        }
    }
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

}  // namespace sheettest
