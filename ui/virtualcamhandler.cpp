// SPDX-License-Identifier: Apache-2.0
// Editor of one virtual stereo camera: a row of the main window.
#include "ui/virtualcamhandler.h"

#include <QColor>
#include <QComboBox>
#include <QDebug>
#include <QEvent>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSize>
#include <QStyle>
#include <QStyledItemDelegate>
#include <QVariant>
#include <random>
#include <utility>

#include "capture/Camera.h"
#include "ui/style.h"
#include "ui_virtualcamhandler.h"

namespace {

constexpr int kLeft = 0;
constexpr int kRight = 1;
constexpr unsigned int kFirstPort = 34000;
constexpr unsigned int kPortStep = 10;
constexpr int kFamilyDigits = 2;
constexpr int kStreamButtonColumn = 1;
constexpr char kWaitingProperty[] = "waiting";
constexpr char kIdleText[] = "Stream";
constexpr char kActiveText[] = "Streaming...";
constexpr std::uint64_t kFirstVirtualSerial = 100000001;
constexpr std::uint64_t kLastVirtualSerial = 109999999;

// The 32-bit Mersenne Twister with a 64-bit result type.
using VirtualSerialEngine =
    std::mersenne_twister_engine<std::uint64_t, 32, 624, 397, 31, 0x9908B0DF, 11, 0xFFFFFFFF, 7,
                                 0x9D2C5680, 15, 0xEFC60000, 18, 1812433253>;

}  // namespace

VirtualCamHandler::VirtualCamHandler(QString identity, QWidget* parent)
    : VirtualCamHandler(
          std::move(identity), parent, [](VirtualCamHandler& editor, QPushButton* button) -> bool {
              return connect(button, SIGNAL(clicked()), &editor, SLOT(requestStreamTest()));
          })
{
}

VirtualCamHandler::VirtualCamHandler(QString identity, QWidget* parent,
                                     const StreamConnector& connectStream)
    : QWidget(parent), ui(std::make_unique<Ui_Form>()), uuid(std::move(identity))
{
    // The signal's type by the name under which it is declared, for queued connections and spies.
    qRegisterMetaType<uint64_t>("uint64_t");
    ui->setupUi(this);
    setAttribute(Qt::WA_StyledBackground);
    connect(ui->RemoveButton, SIGNAL(clicked()), this, SLOT(triggerRemove()));
    connect(ui->VirtualSNGenerateButton, SIGNAL(clicked()), this, SLOT(generateVirtualSN()));
    if (!connectStream(*this, ui->TestButton)) {
        qDebug() << "Failed to connect streaming signal.";
    }
    connect(
        ui->LeftSensorSNChoice, &QComboBox::currentTextChanged, ui->LeftSensorSNChoice,
        [this](const QString& text) { SensorSNChanged(kLeft, text); }, Qt::DirectConnection);
    connect(
        ui->RightSensorSNChoice, &QComboBox::currentTextChanged, ui->RightSensorSNChoice,
        [this](const QString& text) { SensorSNChanged(kRight, text); }, Qt::DirectConnection);
    for (QComboBox* const choice : {ui->LeftSensorSNChoice, ui->RightSensorSNChoice}) {
        connect(choice, &QComboBox::currentTextChanged, choice, [choice] { dimAbsent(choice); });
    }
    ui->resolutionComboBox->hide();
    guardFromWheel();
    style = std::make_unique<Style>();
    applyStyle();
}

VirtualCamHandler::~VirtualCamHandler() = default;

// Rows are scrolled with the wheel: what passes under the pointer meanwhile must not change, for a
// change of cameras stops the stream. The policy keeps the wheel from giving focus, too.
void VirtualCamHandler::guardFromWheel()
{
    for (QWidget* const control : {static_cast<QWidget*>(ui->LeftSensorSNChoice),
                                   static_cast<QWidget*>(ui->RightSensorSNChoice),
                                   static_cast<QWidget*>(ui->resolutionComboBox),
                                   static_cast<QWidget*>(ui->RTPPortChoice)}) {
        control->setFocusPolicy(Qt::StrongFocus);
        control->installEventFilter(this);
    }
}

bool VirtualCamHandler::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::Wheel && !static_cast<QWidget*>(watched)->hasFocus()) {
        event->ignore();
        return true;
    }
    return QWidget::eventFilter(watched, event);
}

void VirtualCamHandler::updateResolutions(QString serial, tq::Resolution resolution, QString tip)
{
    QComboBox* const list = ui->resolutionComboBox;
    const QString former = list->currentText();
    const std::vector<CameraResolutionDefinition> modes = KTCamera::getAvailableResolutions(serial);
    list->clear();
    list->setToolTip(tip);
    bool formerIsOffered = false;
    for (const CameraResolutionDefinition& mode : modes) {
        const QString text = QStringLiteral("%1 x %2%3")
                                 .arg(mode.width)
                                 .arg(mode.height)
                                 .arg(mode.hdr ? QStringLiteral(" HDR") : QString());
        list->addItem(text, QSize(static_cast<int>(mode.width), static_cast<int>(mode.height)));
        formerIsOffered = formerIsOffered || text == former;
    }
    if (formerIsOffered && resolution.width == 0 && resolution.height == 0) {
        list->setCurrentText(former);
    }
}

void VirtualCamHandler::updateSerials(QStringList serials)
{
    for (QComboBox* const choice : {ui->LeftSensorSNChoice, ui->RightSensorSNChoice}) {
        const QSignalBlocker blocker(choice);
        choice->clear();
        choice->addItems(serials);
        choice->setCurrentIndex(-1);
        dimAbsent(choice);
    }
}

void VirtualCamHandler::updatePort(unsigned int index)
{
    setPort(kFirstPort + kPortStep * index);
}

void VirtualCamHandler::setPort(unsigned int port)
{
    ui->RTPPortChoice->setValue(static_cast<int>(port));
}

void VirtualCamHandler::setVirtualSN(unsigned int serial)
{
    // The member keeps its value, deliberately: see there.
    ui->VirtualCamSNEdit->setText(QString::number(serial));
}

void VirtualCamHandler::setSerial(int side, unsigned int serial)
{
    if (QComboBox* const choice = serialChoice(side)) {
        choice->setCurrentText(QString::number(serial));
    }
}

void VirtualCamHandler::offerAbsent(int side, std::uint64_t serial)
{
    QComboBox* const choice = serialChoice(side);
    const QString text = QString::number(serial);
    if (serial == 0 || choice->findText(text) >= 0) {
        return;
    }
    const QSignalBlocker blocker(choice);
    const int index = choice->currentIndex();
    choice->addItem(text);
    choice->setItemData(choice->count() - 1, QColor(Qt::lightGray), Qt::ForegroundRole);
    choice->setCurrentIndex(index);  // the toolkit chooses the first entry of an empty list
}

void VirtualCamHandler::restoreChoices(std::uint64_t leftSerial, std::uint64_t rightSerial)
{
    for (const auto& [side, serial] :
         {std::pair(kLeft, leftSerial), std::pair(kRight, rightSerial)}) {
        offerAbsent(side, serial);
        QComboBox* const choice = serialChoice(side);
        const QSignalBlocker blocker(choice);
        choice->setCurrentIndex(choice->findText(QString::number(serial)));
        dimAbsent(choice);
    }
}

// The choice itself is dimmed like its entry.
void VirtualCamHandler::dimAbsent(QComboBox* choice)
{
    const bool absent = choice->currentData(Qt::ForegroundRole).isValid();
    if (choice->property(kWaitingProperty).toBool() != absent) {
        choice->setProperty(kWaitingProperty, absent);
        choice->style()->unpolish(choice);  // rules by property are looked up once
        choice->style()->polish(choice);
    }
}

VirtualCameraInfos VirtualCamHandler::getInfos() const
{
    VirtualCameraInfos infos;
    infos.virtualSerialNumber = ui->VirtualCamSNEdit->text().toULongLong();
    infos.leftSerialNumber = ui->LeftSensorSNChoice->currentText().toULongLong();
    infos.rightSerialNumber = ui->RightSensorSNChoice->currentText().toULongLong();
    infos.port = static_cast<std::uint32_t>(ui->RTPPortChoice->value());
    return infos;
}

int VirtualCamHandler::shownSerial() const
{
    return ui->VirtualCamSNEdit->text().toInt();
}

QList<QWidget*> VirtualCamHandler::tabStops() const
{
    return {ui->VirtualCamSNEdit,   ui->VirtualSNGenerateButton,
            ui->LeftSensorSNChoice, ui->RightSensorSNChoice,
            ui->resolutionComboBox, ui->RTPPortChoice,
            ui->TestButton,         ui->RemoveButton};
}

void VirtualCamHandler::resetStreamButton()
{
    UpdateStreamingStatus(false);
    ui->TestButton->setChecked(false);
}

void VirtualCamHandler::applyStyle()
{
    for (QLabel* const title :
         {ui->VTCamSNTitle, ui->LeftSensorTitle, ui->RightSensorTitle, ui->resolutionTitle}) {
        title->setFont(style->fontText);
    }
    ui->VirtualCamSNEdit->setStyleSheet(style->lineEdit);
    ui->VirtualCamSNEdit->setFont(style->fontText);
    ui->VirtualSNGenerateButton->setStyleSheet(style->pushButton);
    ui->VirtualSNGenerateButton->setFont(style->fontButton);
    for (QComboBox* const choice :
         {ui->LeftSensorSNChoice, ui->RightSensorSNChoice, ui->resolutionComboBox}) {
        choice->setStyleSheet(style->comboBox);
        choice->setFont(style->fontText);
        // The list's own delegate does not look at the sheet's rules for entries.
        choice->setItemDelegate(new QStyledItemDelegate(choice));
    }
    ui->RemoveButton->setStyleSheet(style->removeButton);
    ui->TestButton->setStyleSheet(style->streamButtonIdle);
    ui->TestButton->setFont(style->fontButton);
    alignStreamButton();
}

void VirtualCamHandler::alignStreamButton()
{
    // As wide as the longer of its two texts, so that the columns of all rows stay in line.
    const QString text = ui->TestButton->text();
    int width = 0;
    for (const QString& label : {tr(kIdleText), tr(kActiveText)}) {
        ui->TestButton->setText(label);
        width = qMax(width, ui->TestButton->sizeHint().width());
    }
    ui->TestButton->setText(text);
    ui->gridLayout->setColumnMinimumWidth(kStreamButtonColumn, width);
}

void VirtualCamHandler::UpdateStreamingStatus(bool enable)
{
    ui->TestButton->setStyleSheet(enable ? style->streamButtonActive : style->streamButtonIdle);
    ui->TestButton->setText(enable ? tr(kActiveText) : tr(kIdleText));
    ui->TestButton->setToolTip(enable ? tr("Stop the streaming of the virtual camera.")
                                      : tr("Start the streaming of the virtual camera."));
    ui->TestButton->repaint();
}

void VirtualCamHandler::triggerRemove()
{
    emit remove(uuid);
}

void VirtualCamHandler::generateVirtualSN()
{
    std::random_device source("default");
    VirtualSerialEngine engine(source() & 0xFFFFFFFFu);
    std::uniform_int_distribution<std::uint64_t> range(kFirstVirtualSerial, kLastVirtualSerial);
    // Not checked against any other serial: two rows may draw the same number. Deliberate.
    virtualSerial = range(engine);
    ui->VirtualCamSNEdit->setText(QStringLiteral("%1").arg(virtualSerial, 0, 10, QLatin1Char(' ')));
}

void VirtualCamHandler::requestStreamTest()
{
    emit activateStream(static_cast<int>(ui->VirtualCamSNEdit->text().toULongLong()));
}

void VirtualCamHandler::SensorSNChanged(int side, QString text)
{
    if (text.isEmpty()) {
        return;
    }
    emit disableStream(virtualSerial);
    UpdateStreamingStatus(false);

    const QString left = ui->LeftSensorSNChoice->currentText();
    const QString right = ui->RightSensorSNChoice->currentText();
    if (left == right) {
        refuseChoice(side, tr("The same camera was selected twice: ") + left);
        return;
    }
    // The first two digits name the sensor family; comparing them is the whole test. Deliberate.
    if (left.left(kFamilyDigits) != right.left(kFamilyDigits) && !left.isEmpty() &&
        !right.isEmpty()) {
        refuseChoice(side, tr("Unable to mix KOR Solos that have different sensors: ") + left +
                               tr(" and ") + right);
    }
}

void VirtualCamHandler::onResolutionChanged(QString text)
{
    if (text.isEmpty()) {
        return;
    }
    const bool hdr = text.contains(QLatin1String("HDR"));
    const QVariant mode = ui->resolutionComboBox->currentData();
    if (!mode.canConvert<QSize>()) {
        qDebug() << "Error: unsupported resolution.";
        return;
    }
    const QSize size = mode.toSize();
    UpdateStreamingStatus(false);
    const QList<int> serials{ui->LeftSensorSNChoice->currentText().toInt(),
                             ui->RightSensorSNChoice->currentText().toInt()};
    emit disableStream(virtualSerial);
    emit resolutionChanged(serials, size.width(), size.height(), hdr);
}

QComboBox* VirtualCamHandler::serialChoice(int side) const
{
    switch (side) {
        case kLeft: return ui->LeftSensorSNChoice;
        case kRight: return ui->RightSensorSNChoice;
        default: return nullptr;
    }
}

void VirtualCamHandler::refuseChoice(int side, const QString& text)
{
    QMessageBox box(QMessageBox::Warning, tr("Warning"), text, QMessageBox::Ok, this);
    box.exec();
    // The row's own signals are blocked, not those of the list: the list's change to empty still
    // arrives and is ignored there. Deliberate.
    const QSignalBlocker blocker(this);
    if (QComboBox* const choice = serialChoice(side)) {
        choice->setCurrentIndex(-1);
    }
}
