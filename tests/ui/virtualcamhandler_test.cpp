// SPDX-License-Identifier: Apache-2.0
// The editor of one virtual camera, on real widgets.
#include <dlfcn.h>

#include <QColor>
#include <QImage>
#include <QLabel>
#include <QLayout>
#include <QSet>
#include <QTest>
#include <QUuid>
#include <optional>
#include <random>
#include <string>

#include "tests/support/messagelog.h"
#include "tests/support/qtcalls.h"
#include "tests/ui/messageboxes.h"
#include "tests/ui/metaobjects.h"
#include "tests/ui/virtualcamhandler_testing.h"
#include "tests/ui/widgetfonts.h"
#include "ui/style.h"

namespace {

// Whether a widget's picture holds more than a few pixels of nearly this colour.
bool hasPixels(QWidget* widget, const QColor& color)
{
    const QImage image = widget->grab().toImage();
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width() / 2; ++x) {  // the arrow is on the right
            const QColor pixel = image.pixelColor(x, y);
            const bool near = qAbs(pixel.red() - color.red()) < 12 &&
                              qAbs(pixel.green() - color.green()) < 12 &&
                              qAbs(pixel.blue() - color.blue()) < 12;
            count += near ? 1 : 0;
        }
    }
    return count > 5;
}

// What the system's source of randomness says, if the test wants to say it, and what it was asked
// for.
std::optional<unsigned int> chosenSeed;
std::string token;

// Counts how often a widget is painted.
class Paints : public QObject {
public:
    bool eventFilter(QObject*, QEvent* event) override
    {
        count += event->type() == QEvent::Paint ? 1 : 0;
        return false;
    }
    int count = 0;
};

}  // namespace

// In the place of the standard library's.
void std::random_device::_M_init(const std::string& wanted)
{
    token = wanted;
    using Function = void (*)(std::random_device*, const std::string&);
    static const auto original = reinterpret_cast<Function>(dlsym(
        RTLD_NEXT,
        "_ZNSt13random_device7_M_initERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"));
    original(this, wanted);
}

std::random_device::result_type std::random_device::_M_getval()
{
    using Function = std::random_device::result_type (*)(std::random_device*);
    static const auto original =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZNSt13random_device9_M_getvalEv"));
    return chosenSeed ? *chosenSeed : original(this);
}

class VirtualCamHandlerTest : public QObject {
    Q_OBJECT

private slots:
    void signalsAndSlotsInOrder();
    void formHasItsTexts_data();
    void formHasItsTexts();
    void formHasItsSizes();
    void stylesByRole();
    void freshEditorReadsAsZero();
    void serialsAreOfferedUnselected();
    void portOfARow_data();
    void portOfARow();
    void portAsGiven();
    void serialOfASide();
    void unknownSideDoesNothing();
    void infosAreReadFromTheFields();
    void sameCameraTwice_data();
    void sameCameraTwice();
    void differentFamilies_data();
    void differentFamilies();
    void sameFamilyIsAccepted();
    void oneSideAloneIsAccepted();
    void emptyTextDoesNothing();
    void choiceStopsTheStream();
    void refusedChoiceIsClearedWithTheEditorsSignalsBlocked();
    void restoredChoicesAreSilent();
    void absentCameraIsOfferedDimmed();
    void streamButtonThatCannotBeConnected();
    void contextsOfTheLists();
    void generatedSerials();
    void drawnByTheEngine();
    void generatedSerialsMayRepeat();
    void generateSetsTheNumberThatSignalsCarry();
    void loadedSerialLeavesThatNumberAlone();
    void streamButtonAsks();
    void removeButtonAsks();
    void streamingStatus();
    void streamButtonIsRepaintedAtOnce();
    void resetStreamButton();
    void columnsStayInLine();
};

void VirtualCamHandlerTest::signalsAndSlotsInOrder()
{
    const QMetaObject& type = VirtualCamHandler::staticMetaObject;
    QCOMPARE(ownMethods(type, QMetaMethod::Signal),
             (QStringList{"remove(QString)", "activateStream(int)", "disableStream(uint64_t)",
                          "resolutionChanged(QList<int>,int,int,bool)"}));
    QCOMPARE(ownMethods(type, QMetaMethod::Slot),
             (QStringList{"UpdateStreamingStatus(bool)", "triggerRemove()", "generateVirtualSN()",
                          "requestStreamTest()", "SensorSNChanged(int,QString)",
                          "onResolutionChanged(QString)"}));
}

void VirtualCamHandlerTest::formHasItsTexts_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QString>("text");
    QTest::newRow("VTCamSNTitle") << QByteArray("QLabel") << "Virtual Cam S/N";
    QTest::newRow("VirtualCamSNEdit") << QByteArray("QLineEdit") << "";
    QTest::newRow("VirtualSNGenerateButton") << QByteArray("QPushButton") << "Generate";
    QTest::newRow("LeftSensorTitle") << QByteArray("QLabel") << "Left Sensor";
    QTest::newRow("RightSensorTitle") << QByteArray("QLabel") << "Right Sensor";
    QTest::newRow("resolutionTitle") << QByteArray("QLabel") << "Resolution";
    QTest::newRow("label") << QByteArray("QLabel") << "Port";
    QTest::newRow("TestButton") << QByteArray("QPushButton") << "Stream";
    QTest::newRow("RemoveButton") << QByteArray("QPushButton") << "-";
}

void VirtualCamHandlerTest::formHasItsTexts()
{
    QFETCH(QByteArray, type);
    const Row row;
    const QWidget* const widget = row.part<QWidget>(QTest::currentDataTag());
    QVERIFY(widget != nullptr);
    QCOMPARE(QByteArray(widget->metaObject()->className()), type);
    QTEST(widget->property("text").toString(), "text");
}

void VirtualCamHandlerTest::formHasItsSizes()
{
    const Row row;
    QCOMPARE(row.editor.objectName(), QStringLiteral("Form"));
    QCOMPARE(row.editor.windowTitle(), QStringLiteral("Form"));
    QCOMPARE(row.editor.minimumSize(), QSize(850, 0));
    QVERIFY(row.serial->isReadOnly());
    for (const QWidget* const field :
         {static_cast<QWidget*>(row.serial), static_cast<QWidget*>(row.left),
          static_cast<QWidget*>(row.right)}) {
        QCOMPARE(field->minimumSize(), QSize(100, 22));
        QCOMPARE(field->maximumHeight(), 22);
    }
    QCOMPARE(row.generate->minimumHeight(), 22);
    QCOMPARE(row.generate->maximumHeight(), 22);
    QCOMPARE(row.port->minimum(), 30000);
    QCOMPARE(row.port->maximum(), 40000);
    QCOMPARE(row.port->minimumWidth(), 80);
    QCOMPARE(row.stream->minimumWidth(), 22);
    QCOMPARE(row.remove->minimumSize(), QSize(22, 22));
    QCOMPARE(row.remove->maximumSize(), QSize(22, 22));
    for (const char* const name :
         {"gridLayout", "verticalLayout", "horizontalLayout", "horizontalLayout_2"}) {
        QVERIFY2(row.part<QLayout>(name) != nullptr, name);
    }
}

void VirtualCamHandlerTest::stylesByRole()
{
    const Row row;
    const Style style;
    for (const char* const name :
         {"VTCamSNTitle", "LeftSensorTitle", "RightSensorTitle", "resolutionTitle"}) {
        QVERIFY2(hasFont(row.part<QLabel>(name), style.fontText), name);
        QCOMPARE(row.part<QLabel>(name)->styleSheet(), QString());
    }
    QVERIFY(row.part<QLabel>("resolutionTitle")->isEnabled());
    QCOMPARE(row.part<QLabel>("resolutionTitle")->toolTip(), QString());
    QCOMPARE(row.serial->styleSheet(), style.lineEdit);
    QVERIFY(hasFont(row.serial, style.fontText));
    QCOMPARE(row.generate->styleSheet(), style.pushButton);
    QVERIFY(hasFont(row.generate, style.fontButton));
    for (const QComboBox* const list : {row.left, row.right, row.resolutions}) {
        QCOMPARE(list->styleSheet(), style.comboBox);
        QVERIFY(hasFont(list, style.fontText));
    }
    QCOMPARE(row.remove->styleSheet(), style.removeButton);
    QVERIFY(hasFont(row.remove, QPushButton().font()));  // unchanged
    QCOMPARE(row.stream->styleSheet(), style.streamButtonIdle);
    QVERIFY(hasFont(row.stream, style.fontButton));
    QCOMPARE(row.part<QLabel>("label")->styleSheet(), QString());
    QCOMPARE(row.port->styleSheet(), QString());
}

void VirtualCamHandlerTest::freshEditorReadsAsZero()
{
    const VirtualCamHandler editor(QStringLiteral("{fresh}"), nullptr);
    const VirtualCameraInfos infos = editor.getInfos();
    QCOMPARE(infos.virtualSerialNumber, std::uint64_t(0));
    QCOMPARE(infos.leftSerialNumber, std::uint64_t(0));
    QCOMPARE(infos.rightSerialNumber, std::uint64_t(0));
    QCOMPARE(infos.port, 30000u);
    QCOMPARE(infos.width, 0);
    QVERIFY(!infos.imu);
    QCOMPARE(infos.hdr, 0);
    QVERIFY(!infos.reserved);
}

void VirtualCamHandlerTest::serialsAreOfferedUnselected()
{
    MessageBoxes boxes;
    Row row;
    row.editor.setSerial(0, 30123456);
    row.editor.setSerial(1, 30123457);
    row.disabled.clear();
    QSignalSpy leftTexts(row.left, &QComboBox::currentTextChanged);
    row.editor.updateSerials({"30000002", "30000001"});
    for (const QComboBox* const list : {row.left, row.right}) {
        QCOMPARE(list->count(), 2);
        QCOMPARE(list->itemText(0), QStringLiteral("30000002"));
        QCOMPARE(list->itemText(1), QStringLiteral("30000001"));
        QCOMPARE(list->currentIndex(), -1);
        QCOMPARE(list->currentText(), QString());
    }
    QCOMPARE(leftTexts.count(), 0);
    QCOMPARE(row.disabled.count(), 0);
    QCOMPARE(boxes.seen.size(), 0);
    row.left->setCurrentIndex(0);
    QCOMPARE(row.disabled.count(), 1);  // the signals flow again
}

void VirtualCamHandlerTest::portOfARow_data()
{
    QTest::addColumn<unsigned int>("index");
    QTest::addColumn<int>("port");
    QTest::newRow("first") << 0u << 34000;
    QTest::newRow("second") << 1u << 34010;
    QTest::newRow("last in range") << 600u << 40000;
    QTest::newRow("clipped") << 601u << 40000;
}

void VirtualCamHandlerTest::portOfARow()
{
    QFETCH(unsigned int, index);
    Row row;
    row.editor.updatePort(index);
    QTEST(row.port->value(), "port");
}

void VirtualCamHandlerTest::portAsGiven()
{
    Row row;
    row.editor.setPort(34567);
    QCOMPARE(row.port->value(), 34567);
    row.editor.setPort(1);
    QCOMPARE(row.port->value(), 30000);
}

void VirtualCamHandlerTest::serialOfASide()
{
    Row row;
    row.editor.setSerial(0, 30123457);
    QCOMPARE(row.left->currentText(), QStringLiteral("30123457"));
    QCOMPARE(row.right->currentText(), QString());
    row.editor.setSerial(1, 30123456);
    QCOMPARE(row.right->currentText(), QStringLiteral("30123456"));
    QCOMPARE(row.disabled.count(), 2);  // as if the operator had chosen
}

void VirtualCamHandlerTest::unknownSideDoesNothing()
{
    Row row;
    row.editor.setSerial(2, 30123457);
    row.editor.setSerial(-1, 30123457);
    QCOMPARE(row.left->currentIndex(), -1);
    QCOMPARE(row.right->currentIndex(), -1);
    QCOMPARE(row.disabled.count(), 0);
}

void VirtualCamHandlerTest::infosAreReadFromTheFields()
{
    Row row;
    row.editor.setSerial(0, 31000001);
    row.editor.setSerial(1, 31000002);
    row.editor.setPort(34020);
    row.serial->setText(QStringLiteral("18446744073709551615"));
    const VirtualCameraInfos infos = row.editor.getInfos();
    QCOMPARE(infos.virtualSerialNumber, ~std::uint64_t(0));
    QCOMPARE(infos.leftSerialNumber, std::uint64_t(31000001));
    QCOMPARE(infos.rightSerialNumber, std::uint64_t(31000002));
    QCOMPARE(infos.port, 34020u);
    row.serial->setText(QStringLiteral("no number"));
    QCOMPARE(row.editor.getInfos().virtualSerialNumber, std::uint64_t(0));
}

void VirtualCamHandlerTest::sameCameraTwice_data()
{
    QTest::addColumn<int>("side");
    QTest::newRow("left last") << 0;
    QTest::newRow("right last") << 1;
}

void VirtualCamHandlerTest::sameCameraTwice()
{
    QFETCH(int, side);
    MessageBoxes boxes;
    Row row;
    row.editor.setSerial(1 - side, 30123456);
    QCOMPARE(boxes.seen.size(), 0);
    row.editor.setSerial(side, 30123456);
    QCOMPARE(boxes.seen.size(), 1);
    const MessageBoxes::Seen box = boxes.seen.first();
    QCOMPARE(box.title, QStringLiteral("Warning"));
    QCOMPARE(box.text, QStringLiteral("The same camera was selected twice: 30123456"));
    QCOMPARE(box.icon, QMessageBox::Warning);
    QVERIFY(box.modal);
    const QComboBox* const changed = side == 0 ? row.left : row.right;
    const QComboBox* const other = side == 0 ? row.right : row.left;
    QCOMPARE(changed->currentIndex(), -1);
    QCOMPARE(other->currentText(), QStringLiteral("30123456"));
}

void VirtualCamHandlerTest::differentFamilies_data()
{
    QTest::addColumn<unsigned int>("left");
    QTest::addColumn<unsigned int>("right");
    QTest::addColumn<int>("lastSide");
    QTest::newRow("30 then 31") << 30123456u << 31000001u << 1;
    QTest::newRow("31 after 30 was on the right") << 31000001u << 30123456u << 0;
}

void VirtualCamHandlerTest::differentFamilies()
{
    QFETCH(unsigned int, left);
    QFETCH(unsigned int, right);
    QFETCH(int, lastSide);
    MessageBoxes boxes;
    Row row;
    row.editor.setSerial(1 - lastSide, lastSide == 1 ? left : right);
    row.editor.setSerial(lastSide, lastSide == 1 ? right : left);
    QCOMPARE(boxes.seen.size(), 1);
    QCOMPARE(boxes.seen.first().title, QStringLiteral("Warning"));
    QCOMPARE(boxes.seen.first().icon, QMessageBox::Warning);
    QCOMPARE(boxes.seen.first().text,
             QStringLiteral("Unable to mix KOR Solos that have different sensors: %1 and %2")
                 .arg(left)
                 .arg(right));
    QCOMPARE((lastSide == 0 ? row.left : row.right)->currentIndex(), -1);
    QVERIFY((lastSide == 0 ? row.right : row.left)->currentIndex() >= 0);
}

void VirtualCamHandlerTest::sameFamilyIsAccepted()
{
    MessageBoxes boxes;
    Row row;
    row.editor.updateSerials({"30123456", "30999999"});  // the first two digits are enough
    row.editor.setSerial(0, 30123456);
    row.editor.setSerial(1, 30999999);
    QCOMPARE(boxes.seen.size(), 0);
    QCOMPARE(row.left->currentText(), QStringLiteral("30123456"));
    QCOMPARE(row.right->currentText(), QStringLiteral("30999999"));
}

void VirtualCamHandlerTest::oneSideAloneIsAccepted()
{
    MessageBoxes boxes;
    Row row;
    row.editor.setSerial(1, 31000001);
    QCOMPARE(boxes.seen.size(), 0);
    QCOMPARE(row.right->currentText(), QStringLiteral("31000001"));
}

void VirtualCamHandlerTest::emptyTextDoesNothing()
{
    MessageBoxes boxes;
    Row row;
    row.editor.setSerial(0, 30123456);
    row.editor.UpdateStreamingStatus(true);
    row.disabled.clear();
    row.left->setCurrentIndex(-1);
    row.editor.SensorSNChanged(1, QString());
    QCOMPARE(row.disabled.count(), 0);
    QCOMPARE(boxes.seen.size(), 0);
    QCOMPARE(row.stream->text(), QStringLiteral("Streaming..."));
}

void VirtualCamHandlerTest::choiceStopsTheStream()
{
    Row row;
    row.editor.generateVirtualSN();
    row.editor.UpdateStreamingStatus(true);
    QString shownWhenStopped;
    connect(&row.editor, &VirtualCamHandler::disableStream, this,
            [&] { shownWhenStopped = row.stream->text(); });
    row.editor.setSerial(0, 30123456);
    QCOMPARE(row.disabled.count(), 1);
    QCOMPARE(shownWhenStopped, QStringLiteral("Streaming..."));  // the button follows
    QCOMPARE(row.disabled.first().first().toULongLong(), row.serial->text().toULongLong());
    QCOMPARE(row.stream->text(), QStringLiteral("Stream"));
}

void VirtualCamHandlerTest::refusedChoiceIsClearedWithTheEditorsSignalsBlocked()
{
    MessageBoxes boxes;
    Row row;
    row.editor.setSerial(0, 30123456);
    QSignalSpy texts(row.right, &QComboBox::currentTextChanged);
    bool blockedMeanwhile = false;
    connect(row.right, &QComboBox::currentTextChanged, this, [&](const QString& text) {
        blockedMeanwhile = blockedMeanwhile || (text.isEmpty() && row.editor.signalsBlocked());
    });
    row.disabled.clear();
    row.editor.setSerial(1, 30123456);
    // The list itself still tells that it is empty; only the editor keeps quiet.
    QCOMPARE(texts.count(), 2);
    QCOMPARE(texts.first().first().toString(), QString());  // told within the choice's own signal
    QVERIFY(blockedMeanwhile);
    QCOMPARE(row.disabled.count(), 1);
    QVERIFY(!row.editor.signalsBlocked());
    QVERIFY(!row.right->signalsBlocked());
}

void VirtualCamHandlerTest::restoredChoicesAreSilent()
{
    MessageBoxes boxes;
    Row row;
    row.editor.UpdateStreamingStatus(true);
    row.editor.restoreChoices(30123456, 30123457);
    QCOMPARE(row.left->currentText(), QStringLiteral("30123456"));
    QCOMPARE(row.right->currentText(), QStringLiteral("30123457"));
    row.editor.restoreChoices(0, 30999999);
    QCOMPARE(row.left->currentIndex(), -1);
    QCOMPARE(row.right->currentText(), QStringLiteral("30999999"));
    QCOMPARE(row.disabled.count(), 0);
    QCOMPARE(boxes.seen.size(), 0);
    QCOMPARE(row.stream->text(), QStringLiteral("Streaming..."));
}

void VirtualCamHandlerTest::absentCameraIsOfferedDimmed()
{
    Row row;
    row.editor.offerAbsent(1, 30999999);
    row.editor.offerAbsent(1, 30999999);
    row.editor.offerAbsent(1, 0);
    QCOMPARE(row.right->count(), kSerials.size() + 1);
    QCOMPARE(row.right->currentIndex(), -1);
    QCOMPARE(row.left->count(), kSerials.size());
    row.editor.restoreChoices(30123456, 30999999);
    QCOMPARE(row.right->count(), kSerials.size() + 1);
    QVERIFY(hasPixels(row.right, QColor(149, 165, 166)));  // unlike a camera that is there
    QVERIFY(!hasPixels(row.right, QColor(242, 242, 242)));
    QVERIFY(hasPixels(row.left, QColor(242, 242, 242)));
    QCOMPARE(row.editor.getInfos().rightSerialNumber, std::uint64_t(30999999));

    row.editor.setSerial(1, 30123457);  // another one instead
    QVERIFY(hasPixels(row.right, QColor(242, 242, 242)));
    row.editor.setSerial(1, 30999999);
    row.editor.updateSerials(kSerials);  // clears everything
    QCOMPARE(row.right->count(), kSerials.size());
    QCOMPARE(row.editor.getInfos().rightSerialNumber, std::uint64_t(0));
    QVERIFY(!row.right->property("waiting").toBool());
    // The first one in an empty list is not chosen by itself.
    row.editor.updateSerials({});
    row.editor.offerAbsent(0, 30999999);
    QCOMPARE(row.left->currentIndex(), -1);
}

void VirtualCamHandlerTest::streamButtonThatCannotBeConnected()
{
    class Unconnected : public VirtualCamHandler {
    public:
        Unconnected()
            : VirtualCamHandler(QStringLiteral("{row}"), nullptr,
                                [](VirtualCamHandler&, QPushButton*) { return false; })
        {
        }
    };
    const MessageLog log;
    const Unconnected editor;
    QCOMPARE(log.debugMessages(QString()), QStringList{"Failed to connect streaming signal."});
    QVERIFY(editor.findChild<QComboBox*>("resolutionComboBox")->isHidden());  // it went on
}

void VirtualCamHandlerTest::contextsOfTheLists()
{
    qtcalls::connections.clear();
    const VirtualCamHandler editor(QStringLiteral("{row}"), nullptr);
    for (const char* const name : {"LeftSensorSNChoice", "RightSensorSNChoice"}) {
        // Directly, with the list itself as context.
        QVERIFY2(
            qtcalls::connections.contains(
                QStringLiteral("%1.currentTextChanged -> %1, type 1").arg(QLatin1String(name))),
            qPrintable(qtcalls::connections.join('\n')));
    }
}

void VirtualCamHandlerTest::generatedSerials()
{
    Row row;
    QCOMPARE(row.serial->text(), QString());
    QSet<QString> drawn;
    for (int i = 0; i < 500; ++i) {
        QTest::mouseClick(row.generate, Qt::LeftButton);
        const QString text = row.serial->text();
        QCOMPARE(text.size(), 9);
        const qulonglong number = text.toULongLong();
        QCOMPARE(QString::number(number), text);
        QVERIFY(number >= 100000001 && number <= 109999999);
        drawn.insert(text);
    }
    // Uniform over almost ten million numbers: more than a few repetitions in 500 draws means a
    // broken seed.
    QVERIFY(drawn.size() > 490);
}

void VirtualCamHandlerTest::drawnByTheEngine()
{
    Row row;
    for (const unsigned int seed : {0u, 1u, 42u, 5489u, 0xFFFFu, 0x10000u, 0xDEADBEEFu, 0xFFFFFFFFu,
                                    0x80000000u, 0x12345678u, 0xCAFEBABEu, 0x0F0F0F0Fu}) {
        std::mt19937 engine(seed);
        std::uniform_int_distribution<std::uint64_t> range(100000001, 109999999);
        chosenSeed = seed;
        token.clear();
        row.editor.generateVirtualSN();
        chosenSeed.reset();
        QCOMPARE(row.serial->text(), QString::number(range(engine)));
        QCOMPARE(token, std::string("default"));
    }
}

// Deliberate: nothing keeps a number from being drawn again. Of 20000 draws some are equal but for
// one time in hundreds of millions.
void VirtualCamHandlerTest::generatedSerialsMayRepeat()
{
    Row row;
    QSet<QString> drawn;
    constexpr int kDraws = 20000;
    for (int i = 0; i < kDraws; ++i) {
        row.editor.generateVirtualSN();
        drawn.insert(row.serial->text());
    }
    QVERIFY(drawn.size() < kDraws);
}

void VirtualCamHandlerTest::generateSetsTheNumberThatSignalsCarry()
{
    Row row;
    row.editor.setVirtualSN(42);
    row.editor.generateVirtualSN();
    const qulonglong generated = row.serial->text().toULongLong();
    row.editor.setSerial(0, 30123456);
    QCOMPARE(row.disabled.last().first().toULongLong(), generated);
    row.editor.setVirtualSN(42);
    row.editor.setSerial(0, 30123457);
    QCOMPARE(row.disabled.last().first().toULongLong(), generated);
}

void VirtualCamHandlerTest::loadedSerialLeavesThatNumberAlone()
{
    Row row;
    row.editor.setVirtualSN(101234567);
    QCOMPARE(row.serial->text(), QStringLiteral("101234567"));
    row.editor.setSerial(0, 30123456);
    QCOMPARE(row.disabled.count(), 1);
    QCOMPARE(row.disabled.first().first().toULongLong(), qulonglong(0));
}

void VirtualCamHandlerTest::streamButtonAsks()
{
    Row row;
    row.editor.setVirtualSN(101234567);
    QTest::mouseClick(row.stream, Qt::LeftButton);
    QCOMPARE(row.activated.count(), 1);
    QCOMPARE(row.activated.first().first().toInt(), 101234567);
    row.editor.UpdateStreamingStatus(true);
    QTest::mouseClick(row.stream, Qt::LeftButton);
    QCOMPARE(row.activated.count(), 2);  // the same again: stopping is up to the controller
    QCOMPARE(row.disabled.count(), 0);
    row.serial->clear();
    QTest::mouseClick(row.stream, Qt::LeftButton);
    QCOMPARE(row.activated.last().first().toInt(), 0);
}

void VirtualCamHandlerTest::removeButtonAsks()
{
    Row row(QStringLiteral("{2f0ad6e8-1111-4222-8333-444455556666}"));
    QTest::mouseClick(row.remove, Qt::LeftButton);
    QCOMPARE(row.removed.count(), 1);
    QCOMPARE(row.removed.first().first().toString(),
             QStringLiteral("{2f0ad6e8-1111-4222-8333-444455556666}"));
}

void VirtualCamHandlerTest::streamingStatus()
{
    Row row;
    const Style style;
    row.editor.UpdateStreamingStatus(true);
    QCOMPARE(row.stream->text(), QStringLiteral("Streaming..."));
    QCOMPARE(row.stream->toolTip(), QStringLiteral("Stop the streaming of the virtual camera."));
    QCOMPARE(row.stream->styleSheet(), style.streamButtonActive);
    row.editor.UpdateStreamingStatus(false);
    QCOMPARE(row.stream->text(), QStringLiteral("Stream"));
    QCOMPARE(row.stream->toolTip(), QStringLiteral("Start the streaming of the virtual camera."));
    QCOMPARE(row.stream->styleSheet(), style.streamButtonIdle);
}

void VirtualCamHandlerTest::streamButtonIsRepaintedAtOnce()
{
    Row row;
    Paints paints;
    row.editor.show();
    QVERIFY(QTest::qWaitForWindowExposed(&row.editor));
    QCoreApplication::processEvents();
    row.stream->installEventFilter(&paints);
    row.editor.UpdateStreamingStatus(true);
    QVERIFY(paints.count > 0);
}

void VirtualCamHandlerTest::resetStreamButton()
{
    Row row;
    row.stream->setCheckable(true);
    row.stream->setChecked(true);
    row.editor.UpdateStreamingStatus(true);
    row.editor.resetStreamButton();
    QVERIFY(!row.stream->isChecked());
    QCOMPARE(row.stream->text(), QStringLiteral("Stream"));
}

void VirtualCamHandlerTest::columnsStayInLine()
{
    Row idle;
    Row active;
    active.editor.UpdateStreamingStatus(true);
    for (Row* const row : {&idle, &active}) {
        row->editor.resize(1360, 40);
        row->editor.show();
        QVERIFY(QTest::qWaitForWindowExposed(&row->editor));
    }
    for (const char* const name : {"VirtualCamSNEdit", "LeftSensorSNChoice", "RTPPortChoice",
                                   "TestButton", "RemoveButton"}) {
        QCOMPARE(idle.part<QWidget>(name)->geometry(), active.part<QWidget>(name)->geometry());
    }
}

QTEST_MAIN(VirtualCamHandlerTest)
#include "virtualcamhandler_test.moc"
