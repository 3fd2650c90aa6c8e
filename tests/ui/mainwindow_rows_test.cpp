// SPDX-License-Identifier: Apache-2.0
// The main window: adding, filling and removing rows.
#include "tests/ui/mainwindow_testing.h"

#include <QAbstractItemView>
#include <QPointer>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <optional>
#include <random>
#include <utility>

using namespace mainwindow;

namespace {

// What the system's source of randomness says, if the test wants to say it.
std::optional<unsigned int> chosenSeed;

}  // namespace

// Takes the place of the standard library's.
std::random_device::result_type std::random_device::_M_getval()
{
    return chosenSeed ? *chosenSeed : QRandomGenerator::system()->generate();
}

class MainWindowRowsTest : public MainWindowTesting {
    Q_OBJECT

private slots:
    void identityIsAUuid();
    void takenIdentityIsDrawnAgain();
    void firstRowsGetTheirPorts();
    void addedRowOffersTheSerials();
    void rowsAreAddedWithSignalsBlocked();
    void rowFromConfiguration();
    void rowFromConfigurationIsFilledInOrder();
    void rowKeepsAbsentCameras();
    void rowFromConfigurationIsCheckedWithAbsentCameras();
    void rowFromConfigurationWithOneCameraTwice();
    void rowsMayDrawTheSameSerial();
    void rowsForwardTheirSignals();
    void rowsThatCannotBeConnected();
    void rowIsRemovedByItsButton();
    void removingARowIsTold();
    void unknownRowIsNotRemoved();
    void serialListClearsChoices();
    void offeredSerialsKeepChoices();
    void newRowIsScrolledIntoView_data();
    void newRowIsScrolledIntoView();
    void tabGoesThroughTheRows();
    void wheelScrollsTheRows();
    void wheelTurnsWhatHasFocus();
};

void MainWindowRowsTest::identityIsAUuid()
{
    Window window;
    const QString identity = window.generateUniqueID();
    const QRegularExpression form(
        "^\\{[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}\\}$");
    QVERIFY2(form.match(identity).hasMatch(), qPrintable(identity));
    QCOMPARE(identity.size(), 38);
    QVERIFY(window.generateUniqueID() != identity);
}

void MainWindowRowsTest::takenIdentityIsDrawnAgain()
{
    Window window;
    window.identities = QStringList{"{a}"};
    window.addVirtualCamHandler();
    window.identities = QStringList{"{b}"};
    window.addVirtualCamHandler();
    window.identities = QStringList{"{a}", "{b}", "{a}", "{c}", "{d}"};
    QCOMPARE(window.generateUniqueID(), QStringLiteral("{c}"));
    QCOMPARE(window.identities, QStringList{"{d}"});
}

void MainWindowRowsTest::firstRowsGetTheirPorts()
{
    Window window;
    auto* const add = window.part<QPushButton>("addVCamButton");
    for (const int port : {34000, 34010, 34020}) {
        QTest::mouseClick(add, Qt::LeftButton);
        QCOMPARE(rowPart<QSpinBox>(window.rows().last(), "RTPPortChoice")->value(), port);
    }
    QCOMPARE(window.rows().size(), 3);
    const auto* const layout = window.part<QLayout>("scrollAreaWidgetContentsVerticalLayout");
    QCOMPARE(layout->count(), 4);
    QVERIFY(layout->itemAt(3)->spacerItem() != nullptr);  // rows go before the last item
}

void MainWindowRowsTest::addedRowOffersTheSerials()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandler();
    for (const char* const name : {"LeftSensorSNChoice", "RightSensorSNChoice"}) {
        const auto* const list = rowPart<QComboBox>(window.rows().first(), name);
        QCOMPARE(texts(list), kSerials);
        QCOMPARE(list->currentIndex(), -1);
    }
    QCOMPARE(rowPart<QLineEdit>(window.rows().first(), "VirtualCamSNEdit")->text(), QString());
}

void MainWindowRowsTest::rowsAreAddedWithSignalsBlocked()
{
    Window window;
    window.updateSerialList(kSerials);
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    QVERIFY(std::exchange(window.blockedWhenNaming, false));
    window.addVirtualCamHandler();
    QVERIFY(window.blockedWhenNaming);
    QCOMPARE(disabled.count(), 0);  // although choosing the cameras asks to stop
    QVERIFY(!window.signalsBlocked());
}

void MainWindowRowsTest::rowFromConfiguration()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const VirtualCamHandler* const row = window.rows().first();
    QCOMPARE(rowPart<QComboBox>(row, "LeftSensorSNChoice")->currentText(), kSerials.at(0));
    QCOMPARE(rowPart<QComboBox>(row, "RightSensorSNChoice")->currentText(), kSerials.at(1));
    QCOMPARE(rowPart<QSpinBox>(row, "RTPPortChoice")->value(), 34560);
    QCOMPARE(rowPart<QLineEdit>(row, "VirtualCamSNEdit")->text(), QStringLiteral("101234567"));
    // The number that the row's signals carry is still 0.
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    rowPart<QComboBox>(row, "LeftSensorSNChoice")->setCurrentIndex(-1);
    rowPart<QComboBox>(row, "LeftSensorSNChoice")->setCurrentIndex(0);
    QCOMPARE(disabled.count(), 1);
    QCOMPARE(disabled.first().first().toULongLong(), qulonglong(0));
}

// The box that the right camera brings up is a look at the row in between.
void MainWindowRowsTest::rowFromConfigurationIsFilledInOrder()
{
    MessageBoxes boxes;
    Window window;
    window.updateSerialList(kSerials);
    QStringList seen;
    boxes.onBox([&] {
        const auto* const row = window.findChild<VirtualCamHandler*>();
        QVERIFY(row != nullptr);
        const VirtualCameraInfos infos = row->getInfos();
        seen << QStringLiteral("left %1, right %2, port %3, serial %4")
                    .arg(infos.leftSerialNumber)
                    .arg(infos.rightSerialNumber)
                    .arg(infos.port)
                    .arg(infos.virtualSerialNumber);
        QVERIFY(window.signalsBlocked());
        const auto* const port = rowPart<QSpinBox>(row, "RTPPortChoice");
        const auto* const serial = rowPart<QLineEdit>(row, "VirtualCamSNEdit");
        QVERIFY(port != nullptr && serial != nullptr);
        connect(port, qOverload<int>(&QSpinBox::valueChanged), this, [&seen] { seen << "port"; });
        connect(serial, &QLineEdit::textChanged, this, [&seen] { seen << "serial"; });
    });
    window.addVirtualCamHandlerFromConfig(record(101234567, kLeftCamera, kLeftCamera));
    QCOMPARE(seen, (QStringList{"left 30123456, right 30123456, port 30000, serial 0", "port",
                                "serial"}));
    QCOMPARE(window.rows().first()->getInfos().leftSerialNumber, std::uint64_t(kLeftCamera));
}

void MainWindowRowsTest::rowKeepsAbsentCameras()
{
    Window window;
    window.updateSerialList({kSerials.at(0)});
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const VirtualCamHandler* const row = window.rows().first();
    const auto* const left = rowPart<QComboBox>(row, "LeftSensorSNChoice");
    const auto* const right = rowPart<QComboBox>(row, "RightSensorSNChoice");
    QCOMPARE(left->currentText(), kSerials.at(0));
    QVERIFY(!left->property("waiting").toBool());
    // Besides the list, dimmed.
    QCOMPARE(texts(right), kSerials);
    QCOMPARE(right->currentText(), kSerials.at(1));
    QVERIFY(right->property("waiting").toBool());
    QCOMPARE(row->getInfos().rightSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(disabled.count(), 0);
    // Only this row offers it.
    window.addVirtualCamHandler();
    QCOMPARE(texts(rowPart<QComboBox>(window.rows().last(), "RightSensorSNChoice")),
             QStringList{kSerials.at(0)});
}

void MainWindowRowsTest::rowFromConfigurationIsCheckedWithAbsentCameras()
{
    MessageBoxes boxes;
    Window window;
    window.updateSerialList({kSerials.at(0)});
    window.addVirtualCamHandlerFromConfig(record(101234567, kLeftCamera, 31000001));
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("Unable to mix KOR Solos that have different sensors: 30123456 and "
                            "31000001"));
    // The refused camera is not waited for either.
    QCOMPARE(window.getVirtualCameras().first().rightSerialNumber, std::uint64_t(0));
}

void MainWindowRowsTest::rowFromConfigurationWithOneCameraTwice()
{
    MessageBoxes boxes;
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567, kLeftCamera, kLeftCamera));
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("The same camera was selected twice: 30123456"));
    QCOMPARE(window.rows().first()->getInfos().rightSerialNumber, std::uint64_t(0));
}

// Numbers are drawn without a look at the other rows, deliberately.
void MainWindowRowsTest::rowsMayDrawTheSameSerial()
{
    Window window;
    QStringList drawn;
    for (const unsigned int seed : {42u, 42u, 43u}) {
        window.addVirtualCamHandler();
        chosenSeed = seed;
        rowPart<QPushButton>(window.rows().last(), "VirtualSNGenerateButton")->click();
        chosenSeed.reset();
        drawn << rowPart<QLineEdit>(window.rows().last(), "VirtualCamSNEdit")->text();
    }
    QCOMPARE(drawn.at(0).size(), 9);
    QCOMPARE(drawn.at(1), drawn.at(0));
    QVERIFY(drawn.at(2) != drawn.at(0));
    QCOMPARE(window.getVirtualCameras().size(), 3);  // both are accepted
}

void MainWindowRowsTest::rowsForwardTheirSignals()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandler();
    window.addVirtualCamHandlerFromConfig(record(101234567));
    QSignalSpy activated(&window, &MainWindow::activateStream);
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    QSignalSpy resolution(&window, &MainWindow::resolutionChanged);
    const MessageLog log;
    for (VirtualCamHandler* const row : window.rows()) {
        row->setVirtualSN(100000001);
        row->requestStreamTest();
        emit row->disableStream(77);
        emit row->resolutionChanged({1, 2}, 3, 4, true);
    }
    QCOMPARE(activated.count(), 2);
    QCOMPARE(activated.last().first().toInt(), 100000001);
    QCOMPARE(disabled.count(), 2);
    QCOMPARE(disabled.last().first().toULongLong(), qulonglong(77));
    QCOMPARE(resolution.count(), 2);
    QCOMPARE(log.debugMessages(QStringLiteral("Resolution changed for SN")).size(), 2);
    QCOMPARE(resolution.last().at(0).value<QList<int>>(), (QList<int>{1, 2}));
    QCOMPARE(resolution.last().mid(1), (QVariantList{3, 4, true}));
}

void MainWindowRowsTest::rowsThatCannotBeConnected()
{
    Window window;
    window.connects = false;
    {
        const MessageLog log;
        window.addVirtualCamHandler();
        QCOMPARE(log.debugMessages(QString()), QStringList{"FAILED TO CONNECT STREAM SIGNAL"});
    }
    const MessageLog log;
    window.addVirtualCamHandlerFromConfig(record(101234567, 0, 0));
    // Three N, deliberately.
    QCOMPARE(log.debugMessages(QString()), QStringList{"FAILED TO CONNNECT STREAM SIGNAL"});
    QCOMPARE(window.rows().size(), 2);  // the rows are kept
    QCOMPARE(window.getVirtualCameras().size(), 2);
    QVERIFY(!window.signalsBlocked());
}

void MainWindowRowsTest::rowIsRemovedByItsButton()
{
    Window window;
    window.addVirtualCamHandler();
    window.addVirtualCamHandler();
    const QPointer<VirtualCamHandler> first(window.rows().first());
    QList<int> children;
    window.onRowRemoved([&] { children << window.findChildren<VirtualCamHandler*>().size(); });
    QTest::mouseClick(rowPart<QPushButton>(first, "RemoveButton"), Qt::LeftButton);
    QCOMPARE(children, QList<int>{1});  // at once, although the row outlives the click
    QCOMPARE(window.rows().size(), 1);
    QCOMPARE(window.getVirtualCameras().size(), 1);
    QTRY_VERIFY(first.isNull());
    // The next row's port follows from how many rows there are, not from their ports.
    window.addVirtualCamHandler();
    QCOMPARE(rowPart<QSpinBox>(window.rows().last(), "RTPPortChoice")->value(), 34010);
}

void MainWindowRowsTest::removingARowIsTold()
{
    Window window;
    window.addVirtualCamHandler();
    window.rows().first()->setVirtualSN(101234567);
    QList<bool> shownWhenTold;
    window.onRowRemoved([&] { shownWhenTold.append(window.showsVirtualSerial(101234567)); });
    QVERIFY(window.showsVirtualSerial(101234567));
    QSignalSpy disabled(&window, SIGNAL(disableStream(uint64_t)));
    window.rows().first()->triggerRemove();
    QCOMPARE(shownWhenTold, QList<bool>{false});
    QCOMPARE(disabled.count(), 0);  // stopping its stream is up to who was told
    window.removeVirtualCamHandler(QStringLiteral("{unknown}"));
    QCOMPARE(shownWhenTold.size(), 1);
}

void MainWindowRowsTest::unknownRowIsNotRemoved()
{
    Window window;
    window.addVirtualCamHandler();
    window.removeVirtualCamHandler(QStringLiteral("{unknown}"));
    QCOMPARE(window.rows().size(), 1);
}

void MainWindowRowsTest::serialListClearsChoices()
{
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.updateSerialList({"30123456", "30123457", "30123458"});
    QCOMPARE(window.rows().first()->getInfos().leftSerialNumber, std::uint64_t(0));
    QCOMPARE(window.rows().first()->getInfos().rightSerialNumber, std::uint64_t(0));
    QCOMPARE(rowPart<QComboBox>(window.rows().first(), "LeftSensorSNChoice")->count(), 3);
}

void MainWindowRowsTest::offeredSerialsKeepChoices()
{
    MessageBoxes boxes;
    Window window;
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.addVirtualCamHandler();
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    for (const QStringList& serials : {QStringList{kSerials.at(1)}, QStringList(), kSerials}) {
        window.offerSerials(serials);
        const VirtualCamHandler* const row = window.rows().first();
        QCOMPARE(row->getInfos().leftSerialNumber, std::uint64_t(kLeftCamera));
        QCOMPARE(row->getInfos().rightSerialNumber, std::uint64_t(kRightCamera));
        QCOMPARE(rowPart<QComboBox>(row, "LeftSensorSNChoice")->property("waiting").toBool(),
                 !serials.contains(kSerials.at(0)));
        // A row that chose nothing has nothing to keep.
        const auto* const other = rowPart<QComboBox>(window.rows().last(), "LeftSensorSNChoice");
        QCOMPARE(texts(other), serials);
        QCOMPARE(other->currentIndex(), -1);
    }
    QCOMPARE(disabled.count(), 0);
    QCOMPARE(boxes.seen.size(), 0);
}

void MainWindowRowsTest::newRowIsScrolledIntoView_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("as designed") << QSize(1384, 779);
    QTest::newRow("smallest") << QSize(500, 500);
}

void MainWindowRowsTest::newRowIsScrolledIntoView()
{
    QFETCH(QSize, size);
    Window window;
    window.resize(size);
    attach(window, camera(kLeftCamera));
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    auto* const area = window.part<QScrollArea>("scrollArea");
    for (int i = 0; i < 8; ++i) {
        window.part<QPushButton>("addVCamButton")->click();
        const VirtualCamHandler* const row = window.rows().last();
        const auto isSeen = [&] {
            const bool isPlaced = i == 0 || row->y() > window.rows().at(i - 1)->y();
            const int top = row->mapTo(area->viewport(), QPoint()).y();
            return isPlaced && top >= 0 && top + row->height() <= area->viewport()->height();
        };
        QTRY_VERIFY2(isSeen(), qPrintable(QString::number(i)));
        QCOMPARE(area->horizontalScrollBar()->value(), 0);
    }
    QScrollBar* const bar = area->verticalScrollBar();
    QVERIFY(bar->value() > 0);
    // Where the operator has scrolled to counts from then on.
    bar->triggerAction(QAbstractSlider::SliderToMinimum);
    QSignalSpy ranges(bar, &QScrollBar::rangeChanged);
    window.resize(size + QSize(0, 40));
    QTRY_VERIFY(ranges.count() > 0);
    QCoreApplication::processEvents();
    QCOMPARE(bar->value(), 0);
}

void MainWindowRowsTest::tabGoesThroughTheRows()
{
    Window window;
    window.setGlobalCameraConfigurationContent(sdk::kSoloGs);
    window.updateSerialList(kSerials);
    window.addVirtualCamHandlerFromConfig(record(101234567));
    window.addVirtualCamHandler();
    window.addVirtualCamHandler();
    window.rows().at(1)->triggerRemove();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    window.part<QPushButton>("addVCamButton")->setFocus();
    QTRY_VERIFY(window.part<QPushButton>("addVCamButton")->hasFocus());
    QStringList expected{"addVCamButton"};
    for (int row = 0; row < 2; ++row) {
        for (const char* const name :
             {"VirtualCamSNEdit", "VirtualSNGenerateButton", "LeftSensorSNChoice",
              "RightSensorSNChoice", "RTPPortChoice", "TestButton", "RemoveButton"}) {
            expected << QStringLiteral("%1 %2").arg(row).arg(QLatin1String(name));
        }
    }
    expected << "toggleDaemonButton"
             << "ApplyButton";
    QStringList seen;
    for (int i = 0; i < expected.size(); ++i) {
        QWidget* const control = QApplication::focusWidget();
        auto* const row = qobject_cast<VirtualCamHandler*>(control->parentWidget());
        seen << (row == nullptr ? control->objectName()
                                : QStringLiteral("%1 %2")
                                      .arg(window.rows().indexOf(row))
                                      .arg(control->objectName()));
        QTest::keyClick(control, Qt::Key_Tab);
    }
    QCOMPARE(seen, expected);
}

void MainWindowRowsTest::wheelScrollsTheRows()
{
    Window window;
    window.updateSerialList(kSerials);
    for (int i = 0; i < 11; ++i) {
        window.addVirtualCamHandlerFromConfig(record(101234567, kRightCamera, kLeftCamera));
    }
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    auto* const bar = window.part<QScrollArea>("scrollArea")->verticalScrollBar();
    QTRY_VERIFY(bar->maximum() > 100);
    const VirtualCamHandler* const row = window.rows().at(5);  // seen with the bar in the middle
    auto* const left = rowPart<QComboBox>(row, "LeftSensorSNChoice");
    auto* const right = rowPart<QComboBox>(row, "RightSensorSNChoice");
    auto* const port = rowPart<QSpinBox>(row, "RTPPortChoice");
    QSignalSpy disabled(&window, &MainWindow::disableStream);
    for (QWidget* const control : QList<QWidget*>{left, right, port}) {
        for (const int angle : {-120, 120}) {
            bar->setValue(bar->maximum() / 2);
            turnWheel(control, angle);
            QCOMPARE(bar->value() > bar->maximum() / 2, angle < 0);
            QVERIFY(bar->value() != bar->maximum() / 2);
        }
        QVERIFY(!control->hasFocus());  // the wheel gives it none
    }
    QCOMPARE(row->getInfos().leftSerialNumber, std::uint64_t(kRightCamera));
    QCOMPARE(row->getInfos().rightSerialNumber, std::uint64_t(kLeftCamera));
    QCOMPARE(row->getInfos().port, 34560u);
    QCOMPARE(disabled.count(), 0);
}

// The operator who chose a control means it.
void MainWindowRowsTest::wheelTurnsWhatHasFocus()
{
    Window window;
    window.addVirtualCamHandlerFromConfig(record(101234567));
    const VirtualCamHandler* const row = window.rows().first();
    auto* const port = rowPart<QSpinBox>(row, "RTPPortChoice");
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    port->setFocus();
    QTRY_VERIFY(port->hasFocus() && !port->visibleRegion().isEmpty());
    turnWheel(port, 120);
    QCOMPARE(row->getInfos().port, 34561u);
}

QTEST_MAIN(MainWindowRowsTest)
#include "mainwindow_rows_test.moc"
