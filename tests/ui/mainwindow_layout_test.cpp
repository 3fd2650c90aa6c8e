// SPDX-License-Identifier: Apache-2.0
// The main window: who gets how much of its height.
#include "tests/ui/mainwindow_testing.h"

using namespace mainwindow;

namespace {

// The part of a button, inside of its border, that differs from its ground: what is written on it.
QRect writtenOn(QWidget* button)
{
    const QImage image = button->grab().toImage();
    const double density = image.devicePixelRatioF();
    const int edge = qRound(3 * density);
    const QRect inside = image.rect().adjusted(edge, edge, -edge, -edge);
    const QColor ground = image.pixelColor(inside.topLeft());
    QRect written;
    for (int y = inside.top(); y <= inside.bottom(); ++y) {
        for (int x = inside.left(); x <= inside.right(); ++x) {
            const QColor pixel = image.pixelColor(x, y);
            if (qAbs(pixel.red() - ground.red()) + qAbs(pixel.green() - ground.green()) > 100) {
                written |= QRect(x, y, 1, 1);
            }
        }
    }
    return written;
}

}  // namespace

class MainWindowLayoutTest : public MainWindowTesting {
    Q_OBJECT

    static QRect placeOf(const Window& window, const char* name)
    {
        const auto* const part = window.part<QWidget>(name);
        return {part->mapTo(&window, QPoint()), part->size()};
    }

    // Until the window looks as asked for; its layouts may take some rounds.
    static bool present(Window& window, int rows)
    {
        window.updateSerialList(kSerials);
        for (int i = 0; i < rows; ++i) {
            window.addVirtualCamHandlerFromConfig(record(101234567));
        }
        return QTest::qWaitForWindowExposed(&window);
    }

private slots:
    void rowsTakeWhatTheyNeed_data()
    {
        QTest::addColumn<int>("rows");
        QTest::newRow("none") << 0;
        QTest::newRow("one") << 1;
        QTest::newRow("four") << 4;
    }
    void rowsTakeWhatTheyNeed()
    {
        QFETCH(int, rows);
        Window window;
        attach(window, camera(kLeftCamera));
        attach(window, camera(kRightCamera));
        QVERIFY(present(window, rows));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        const auto needed = [&] {
            return rows == 0 ? 0 : rows * window.rows().first()->height() + (rows - 1) * 10;
        };
        QTRY_COMPARE(area->height(), needed());
        // The pictures have the rest: with up to three rows they fill the width.
        const int panels = (window.width() - 2 * 11 - 10) / 2;
        for (const CameraWidget* const panel : window.findChildren<CameraWidget*>()) {
            QTRY_VERIFY(rows > 3 || qAbs(panel->width() - panels) <= 1);
        }
    }

    void rowThatGoesGivesItsHeightBack()
    {
        Window window;
        attach(window, camera(kLeftCamera));
        QVERIFY(present(window, 2));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_COMPARE(area->height(), 2 * window.rows().first()->height() + 10);
        window.rows().first()->triggerRemove();
        QTRY_COMPARE(area->height(), window.rows().first()->height());
    }

    void manyRowsLeaveThePicturesTheirPart()
    {
        Window window;
        attach(window, camera(kLeftCamera));
        QVERIFY(present(window, 20));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_VERIFY(area->verticalScrollBar()->maximum() > 0);
        QVERIFY(area->height() >= window.height() / 4);
        QVERIFY(placeOf(window, "camerasWidgetsScrollArea").height() > window.height() / 2);
    }

    void manyRowsTakeWhatThePanelsLeave()
    {
        Window window;
        window.resize(1384, 1150);
        attach(window, camera(kLeftCamera));
        attach(window, camera(kRightCamera));
        QVERIFY(present(window, 9));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_COMPARE(area->height(), 9 * window.rows().first()->height() + 8 * 10);
        QVERIFY(area->height() > window.height() / 4);
    }

    void rowsThatAreScrolledSidewaysAreSeen()
    {
        Window window;
        window.resize(500, 500);
        attach(window, camera(kLeftCamera));
        QVERIFY(present(window, 1));
        const auto* const area = window.part<QScrollArea>("scrollArea");
        QTRY_VERIFY(area->horizontalScrollBar()->isVisible());
        QTRY_COMPARE(area->viewport()->height(), area->widget()->sizeHint().height());
    }

    void withoutCamerasTheRowsMoveUp()
    {
        Window window;
        QVERIFY(present(window, 1));
        QVERIFY(!window.part<QWidget>("camerasWidgetsScrollArea")->isVisible());
        const int gap = 10;
        QTRY_COMPARE(placeOf(window, "addVCamButton").top(),
                     placeOf(window, "ApplyResFPSButton").bottom() + 1 + gap);
        QTRY_COMPARE(placeOf(window, "scrollArea").top(),
                     placeOf(window, "addVCamButton").bottom() + 1 + gap);
        attach(window, camera(kLeftCamera));
        QVERIFY(window.part<QWidget>("camerasWidgetsScrollArea")->isVisible());
        QTRY_VERIFY(placeOf(window, "addVCamButton").top() > window.height() / 2);
        window.requestCameras();
        QVERIFY(!window.part<QWidget>("camerasWidgetsScrollArea")->isVisible());
    }

    void signsAreCentred_data()
    {
        QTest::addColumn<int>("none");
        for (const char* const name : {"addVCamButton", "RemoveButton", "TestButton"}) {
            QTest::newRow(name) << 0;
        }
    }
    void signsAreCentred()
    {
        Window window;
        QVERIFY(present(window, 1));
        auto* const button = window.part<QWidget>(QTest::currentDataTag());
        QTRY_VERIFY(!button->visibleRegion().isEmpty());
        const QRect written = writtenOn(button);
        const QSize size = button->grab().size();
        QVERIFY(!written.isEmpty());
        // To the pixel: an odd rest cannot be halved.
        const int below = size.height() - 1 - written.bottom();
        const int right = size.width() - 1 - written.right();
        const QString gaps = QStringLiteral("left %1, top %2, right %3, bottom %4")
                                 .arg(written.left())
                                 .arg(written.top())
                                 .arg(right)
                                 .arg(below);
        QVERIFY2(qAbs(written.top() - below) <= 1, qPrintable(gaps));
        QVERIFY2(qAbs(written.left() - right) <= 1, qPrintable(gaps));
    }

    void textsAndPicturesShareTheirEdge()
    {
        Window window;
        attach(window, camera(kLeftCamera));
        attach(window, camera(kRightCamera));
        QVERIFY(present(window, 1));
        const int panelWidth = (window.width() - 2 * 11 - 10) / 2;
        for (const CameraWidget* const panel : window.findChildren<CameraWidget*>()) {
            QTRY_VERIFY(qAbs(panel->width() - panelWidth) <= 1);  // the picture is as wide
            auto* const title = panel->findChild<QLabel*>("modelLabel");
            const QImage image = title->grab().toImage();
            int left = 0;
            const auto isBlank = [&image](int x) {
                for (int y = 0; y < image.height(); ++y) {
                    if (image.pixelColor(x, y).lightness() > 100) {
                        return false;
                    }
                }
                return true;
            };
            while (left < image.width() && isBlank(left)) {
                ++left;
            }
            // A letter has a little room of its own.
            QVERIFY2(left <= 2 * image.devicePixelRatioF(), qPrintable(QString::number(left)));
        }
    }

    void windowHasAnIcon()
    {
        const Window window;
        QVERIFY(!window.windowIcon().isNull());
        QVERIFY(!window.windowIcon().pixmap(32).isNull());
    }

    void textsOfBoxesAreLevelWithTheirSigns()
    {
        Window window;
        for (const char* const text : {"One line.", "A line.\nAnother line."}) {
            QMessageBox box(QMessageBox::Warning, "Warning", text, QMessageBox::Ok, &window);
            box.show();
            QVERIFY(QTest::qWaitForWindowExposed(&box));
            const auto* const label = box.findChild<QLabel*>("qt_msgbox_label");
            const auto* const sign = box.findChild<QLabel*>("qt_msgboxex_icon_label");
            QVERIFY(qAbs(label->geometry().center().y() - sign->geometry().center().y()) <= 1);
            QVERIFY((label->alignment() & Qt::AlignVCenter) != 0);
        }
    }

    void whatIsOfNoUseIsDisabled()
    {
        Window window;
        for (const bool usable : {false, true}) {
            window.setCamerasUsable(usable);
            for (const char* const name :
                 {"addVCamButton", "ApplyResFPSButton", "ResolutionComboBox", "FPSComboBox"}) {
                QCOMPARE(window.part<QWidget>(name)->isEnabled(), usable);
            }
            QVERIFY(window.part<QWidget>("ApplyButton")->isEnabled());
            QVERIFY(window.part<QWidget>("ReloadCamButton")->isEnabled());
        }
    }
};

QTEST_MAIN(MainWindowLayoutTest)
#include "mainwindow_layout_test.moc"
