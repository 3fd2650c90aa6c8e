// SPDX-License-Identifier: Apache-2.0
// The main window without a mouse: by keyboard, and as a screen reader sees it.
#include <QAbstractItemView>
#include <QAccessible>

#include "tests/ui/mainwindow_testing.h"

using namespace mainwindow;

class MainWindowKeyboardTest : public MainWindowTesting {
    Q_OBJECT

    // What a screen reader says of a control. A list's name is what it shows, so that what it is
    // for is said by its label or its description.
    static QString saidOf(QWidget* control)
    {
        const QAccessibleInterface* const interface =
            QAccessible::queryAccessibleInterface(control);
        if (qobject_cast<QComboBox*>(control) == nullptr) {
            return interface->text(QAccessible::Name);
        }
        const auto labels = interface->relations(QAccessible::Label);
        return labels.isEmpty() ? interface->text(QAccessible::Description)
                                : labels.first().first->text(QAccessible::Name);
    }

    // Presses Tab until a control has the focus.
    static bool tabTo(const QWidget* control)
    {
        if (!QTest::qWaitFor([control] { return !control->visibleRegion().isEmpty(); })) {
            return false;
        }
        for (int i = 0; i < 40 && !control->hasFocus(); ++i) {
            press(Qt::Key_Tab);
        }
        return control->hasFocus();
    }

    static void press(Qt::Key key)
    {
        QWidget* const popup = QApplication::activePopupWidget();
        QTest::keyClick(popup != nullptr ? popup : QApplication::focusWidget(), key);
    }

    // Opens the list that has the focus and takes an entry, as the keyboard does.
    static bool choose(const QComboBox* list, int index)
    {
        press(Qt::Key_Space);
        if (!QTest::qWaitFor([list] { return list->view()->isVisible(); })) {
            return false;
        }
        for (int i = 0; i < list->count() && list->view()->currentIndex().row() != index; ++i) {
            QTest::keyClick(list->view(), Qt::Key_Down);
        }
        QTest::keyClick(list->view(), Qt::Key_Return);
        return QTest::qWaitFor([list] { return !list->view()->isVisible(); });
    }

    static void fill(Window& window)
    {
        window.setGlobalCameraConfigurationContent(sdk::kSoloUhd);
        attach(window, camera(kLeftCamera));
        attach(window, camera(kRightCamera));
        window.updateSerialList(kSerials);
    }

private slots:
    void controlsHaveNames()
    {
        Window window;
        fill(window);
        window.addVirtualCamHandler();
        QTRY_VERIFY(!window.rows().first()->visibleRegion().isEmpty());
        int count = 0;
        for (QWidget* const control : window.findChildren<QWidget*>()) {
            if (!control->isVisible() || control->focusPolicy() == Qt::NoFocus ||
                control->focusProxy() != nullptr || control->objectName().startsWith("qt_")) {
                continue;
            }
            QVERIFY2(saidOf(control).size() > 1, qPrintable(control->objectName()));
            ++count;
        }
        QVERIFY(count >= 15);
    }

    // From the first key to a stream and to its end.
    void everythingWithoutAMouse()
    {
        Window window;
        fill(window);
        window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        QSignalSpy asked(&window, &MainWindow::askCameras);
        QSignalSpy applied(&window, &MainWindow::resolutionAndFPSChanged);
        QSignalSpy activated(&window, &MainWindow::activateStream);
        QSignalSpy saved(&window, &MainWindow::saveConf);

        QVERIFY(tabTo(window.part<QWidget>("ResolutionComboBox")));
        QVERIFY(choose(window.part<QComboBox>("ResolutionComboBox"), 1));
        QVERIFY(tabTo(window.part<QWidget>("FPSComboBox")));
        press(Qt::Key_Down);
        QVERIFY(tabTo(window.part<QWidget>("ApplyResFPSButton")));
        press(Qt::Key_Space);
        QCOMPARE(applied.count(), 1);
        QCOMPARE(applied.first(), (QVariantList{60, 1920, 1200, false}));

        QVERIFY(tabTo(window.part<QWidget>("addVCamButton")));
        press(Qt::Key_Space);
        QCOMPARE(window.rows().size(), 1);
        const VirtualCamHandler* const row = window.rows().first();
        QVERIFY(tabTo(rowPart<QWidget>(row, "VirtualSNGenerateButton")));
        press(Qt::Key_Space);
        QVERIFY(tabTo(rowPart<QWidget>(row, "LeftSensorSNChoice")));
        QVERIFY(choose(rowPart<QComboBox>(row, "LeftSensorSNChoice"), 0));
        QVERIFY(tabTo(rowPart<QWidget>(row, "RightSensorSNChoice")));
        QVERIFY(choose(rowPart<QComboBox>(row, "RightSensorSNChoice"), 1));
        QVERIFY(tabTo(rowPart<QWidget>(row, "RTPPortChoice")));
        press(Qt::Key_Up);
        const VirtualCameraInfos infos = row->getInfos();
        QCOMPARE(infos.leftSerialNumber, std::uint64_t(kLeftCamera));
        QCOMPARE(infos.rightSerialNumber, std::uint64_t(kRightCamera));
        QCOMPARE(infos.port, 34001u);
        QVERIFY(tabTo(rowPart<QWidget>(row, "TestButton")));
        press(Qt::Key_Space);
        QCOMPARE(activated.count(), 1);
        QCOMPARE(activated.first().first().toULongLong(), qulonglong(infos.virtualSerialNumber));

        auto* const service = window.part<QCheckBox>("toggleDaemonButton");
        QVERIFY(tabTo(service));
        press(Qt::Key_Space);
        QVERIFY(service->isChecked());
        QVERIFY(tabTo(window.part<QWidget>("ApplyButton")));
        press(Qt::Key_Space);
        QCOMPARE(saved.count(), 1);

        QVERIFY(tabTo(rowPart<QWidget>(row, "RemoveButton")));
        press(Qt::Key_Space);
        QCOMPARE(window.rows().size(), 0);
        QTRY_VERIFY(QApplication::focusWidget() != nullptr);  // and the keyboard goes on
        QVERIFY(tabTo(window.part<QWidget>("ReloadCamButton")));
        press(Qt::Key_Space);
        QCOMPARE(asked.count(), 1);
    }

    // Whatever has the focus looks different with it.
    void focusIsSeen()
    {
        Window window;
        fill(window);
        window.addVirtualCamHandler();
        window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        QTRY_VERIFY(!window.rows().first()->visibleRegion().isEmpty());
        QSet<QWidget*> seen;
        press(Qt::Key_Tab);
        for (QWidget* control = QApplication::focusWidget(); !seen.contains(control);
             control = QApplication::focusWidget()) {
            seen.insert(control);
            if (auto* const edit = qobject_cast<QLineEdit*>(control)) {
                edit->deselect();
            }
            const QImage with = control->grab().toImage();
            window.centralWidget()->setFocus();
            QVERIFY2(control->grab().toImage() != with, qPrintable(control->objectName()));
            control->setFocus();
            press(Qt::Key_Tab);
        }
        QVERIFY(seen.size() >= 13);
        QVERIFY(!seen.contains(window.part<QWidget>("scrollArea")));
    }

    // Panels that are not all seen are scrolled by the arrow keys.
    void panelsAreScrolled()
    {
        Window window;
        fill(window);
        attach(window, camera(kLeftCamera + 2));
        window.resize(500, 500);
        window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        auto* const area = window.part<QScrollArea>("camerasWidgetsScrollArea");
        QTRY_VERIFY(area->horizontalScrollBar()->maximum() > 0);
        QVERIFY(tabTo(area));
        press(Qt::Key_Right);
        QVERIFY(area->horizontalScrollBar()->value() > 0);
    }
};

QTEST_MAIN(MainWindowKeyboardTest)
#include "mainwindow_keyboard_test.moc"
