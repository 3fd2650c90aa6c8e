// SPDX-License-Identifier: Apache-2.0
// The window of the desktop mode.
#include "ui/mainwindow.h"

#include <QDateTime>
#include <QDebug>
#include <QIcon>
#include <QScreen>
#include <QScrollBar>
#include <QSignalBlocker>
#include <QSize>
#include <QStyledItemDelegate>
#include <QTimer>
#include <QUuid>
#include <QVariant>
#include <algorithm>
#include <numeric>

#include "app/commands/commandrunners.h"
#include "ui/statusline.h"
#include "ui/style.h"
#include "ui_mainwindow.h"

namespace {

constexpr qint64 kPreviewIntervalMs = 31;
constexpr int kScrollStep = 5;
constexpr int kUhdWidth = 3000;
constexpr int kLookIntervalMs = 1000;
constexpr int kSilentLooks = 3;  // two whole seconds at least

// A preview panel has three lines of text above its picture, and its image view is as tall as the
// whole panel, so that the picture lies in the middle of that height below the text. The picture is
// seen in full where the panel is higher than the picture by twice the text.
constexpr int kPanelTextHeight = 3 * (22 + 10);
constexpr int kPanelMinWidth = 200;
constexpr int kPanelMinHeight = 300;
constexpr int kPictureColumns = 16;
constexpr int kPictureRows = 9;

int panelHeightFor(int width)
{
    const int picture = (width * kPictureRows + kPictureColumns - 1) / kPictureColumns;
    return qMax(kPanelMinHeight, picture + 2 * kPanelTextHeight);
}

int panelWidthFor(int height)
{
    return qMax(kPanelMinWidth, (height - 2 * kPanelTextHeight) * kPictureColumns / kPictureRows);
}

// Deliberately misspelt: the text under which operators know the switch.
constexpr char kDaemonSwitchText[] = "Enable Vistrel Deamon";

bool isHdrText(const QString& text)
{
    return text.contains(QLatin1String("HDR"));
}

QString joined(const QList<int>& serials)
{
    QStringList texts;
    for (const int serial : serials) {
        texts.append(QString::number(serial));
    }
    return texts.join(QLatin1String(", "));
}

void fillFromCamera(VirtualCameraInfos& record, const CameraInfos& camera)
{
    record.imu = camera.hasMCU;
    record.width = camera.width;
    record.height = camera.height;
    record.fps = camera.fps;
    record.hdr = camera.hdr ? 1 : 0;
}

void fillFromRecord(VirtualCameraInfos& record, const VirtualCameraInfos& stored)
{
    record.imu = stored.imu;
    record.width = stored.width;
    record.height = stored.height;
    record.fps = stored.fps;
    record.hdr = stored.hdr;
}

bool sameSize(const CameraInfos& left, const CameraInfos& right)
{
    return left.width == right.width && left.height == right.height;
}

}  // namespace

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent), ui(std::make_unique<Ui_MainWindow>())
{
    // The signal's type by the name under which it is declared, for queued connections and spies.
    qRegisterMetaType<uint64_t>("uint64_t");
    ui->setupUi(this);
    ui->loadVCamButton->hide();
    ui->noCameraLabel->hide();
    style = std::make_unique<Style>();
    applyStyle();
    setWindowIcon(QIcon(QStringLiteral(":/icons/window.png")));
    ui->toggleDaemonButton->setStyleSheet(style->checkBox);
    ui->toggleDaemonButton->setText(tr(kDaemonSwitchText));
    ui->toggleDaemonButton->setChecked(ServiceHandler::getDaemonServiceEnableStatus(kServiceUnit));
    connectControls();
    ui->camerasWidgetsScrollArea->viewport()->installEventFilter(this);
    ui->scrollAreaWidgetContents->installEventFilter(this);
    arrangePanels();
    ui->centralWidget->setFocus();  // no control looks chosen before the operator chose one
    fitIntoScreen();
    show();
}

MainWindow::~MainWindow()
{
    qDeleteAll(editors);
}

// Where the screen is smaller than the form, the window fills what is free of it.
void MainWindow::fitIntoScreen()
{
    const QSize free = screen()->availableSize();
    if (free.width() < width() || free.height() < height()) {
        resize(size().boundedTo(free));
        setWindowState(Qt::WindowMaximized);  // which leaves room for the title
    }
}

void MainWindow::connectControls()
{
    connect(ui->ReloadCamButton, SIGNAL(clicked()), this, SLOT(requestCameras()));
    connect(ui->addVCamButton, SIGNAL(clicked()), this, SLOT(addVirtualCamHandler()));
    connect(ui->ApplyButton, SIGNAL(clicked()), this, SLOT(requestConfSave()));
    connect(
        ui->ApplyResFPSButton, &QPushButton::clicked, ui->ApplyResFPSButton,
        [this] { onApplyGlobalCameraConfiguration(); }, Qt::DirectConnection);
    connect(ui->ResolutionComboBox, SIGNAL(currentTextChanged(QString)), this,
            SLOT(onGlobalResolutionChanged(QString)));
    connect(ui->toggleDaemonButton, SIGNAL(clicked()), this, SLOT(toggleDaemonService()));
    auto* const looks = new QTimer(this);
    connect(looks, &QTimer::timeout, this, [this] { noteSilence(); });
    looks->start(kLookIntervalMs);
}

void MainWindow::applyStyle()
{
    setStyleSheet(style->mainWindow);
    ui->noCameraLabel->setFont(style->fontText);
    for (QComboBox* const list : {ui->ResolutionComboBox, ui->FPSComboBox}) {
        list->setStyleSheet(style->comboBox);
        list->setFont(style->fontText);
        // The list's own delegate does not look at the sheet's rules for entries.
        list->setItemDelegate(new QStyledItemDelegate(list));
    }
    for (QAbstractButton* const button : {static_cast<QAbstractButton*>(ui->ReloadCamButton),
                                          static_cast<QAbstractButton*>(ui->ApplyResFPSButton),
                                          static_cast<QAbstractButton*>(ui->addVCamButton),
                                          static_cast<QAbstractButton*>(ui->loadVCamButton),
                                          static_cast<QAbstractButton*>(ui->ApplyButton)}) {
        button->setStyleSheet(style->pushButton);
        button->setFont(style->fontButton);
    }
    for (QScrollArea* const area : {ui->camerasWidgetsScrollArea, ui->scrollArea}) {
        for (QScrollBar* const bar : {area->verticalScrollBar(), area->horizontalScrollBar()}) {
            bar->setStyleSheet(style->scrollBar);
            bar->setSingleStep(kScrollStep);
        }
    }
}

// ---- Global settings ---------------------------------------------------------------------------

void MainWindow::setGlobalCameraConfigurationContent(tq::MODEL model)
{
    ui->ResolutionComboBox->clear();
    ui->FPSComboBox->clear();
    if (model == sdk::kNoModel) {
        return;
    }
    for (const CameraResolutionDefinition& mode : KTCamera::getAvailableResolutions(model)) {
        const QString text = QStringLiteral("%1 x %2%3")
                                 .arg(mode.width)
                                 .arg(mode.height)
                                 .arg(mode.hdr ? QStringLiteral(" HDR") : QString());
        ui->ResolutionComboBox->addItem(
            text, QSize(static_cast<int>(mode.width), static_cast<int>(mode.height)));
    }
}

void MainWindow::setAvailableFramerates(int width, int height, bool hdr)
{
    QList<int> rates;
    if (width == 1920 && height == 1200 && hdr) {
        rates = {30};
    } else if (width < kUhdWidth) {
        rates = {15, 60, 30};  // in this order, deliberately: the first one is selected
    } else {
        rates = {15};
    }
    ui->FPSComboBox->clear();
    for (const int rate : rates) {
        ui->FPSComboBox->addItem(QString::number(rate) + tr(" frames/s"), rate);
    }
}

void MainWindow::onGlobalResolutionChanged(QString text)
{
    Q_UNUSED(text)
    const bool hdr = isHdrText(ui->ResolutionComboBox->currentText());
    const QVariant mode = ui->ResolutionComboBox->currentData();
    if (mode.canConvert<QSize>()) {
        const QSize size = mode.toSize();
        setAvailableFramerates(size.width(), size.height(), hdr);
    }
}

void MainWindow::onApplyGlobalCameraConfiguration()
{
    const bool hdr = isHdrText(ui->ResolutionComboBox->currentText());
    const QVariant mode = ui->ResolutionComboBox->currentData();
    const QSize size = mode.canConvert<QSize>() ? mode.toSize() : QSize(0, 0);
    const int fps = ui->FPSComboBox->currentData().toInt();
    if (size.width() == 0 || size.height() == 0 || fps == 0) {
        qDebug() << "Invalid camera configuration selection.";
        return;
    }
    emit resolutionAndFPSChanged(fps, size.width(), size.height(), hdr);
}

void MainWindow::getCurrentSettings(int& fps, int& width, int& height, bool& hdr)
{
    hdr = isHdrText(ui->ResolutionComboBox->currentText());
    const QVariant mode = ui->ResolutionComboBox->currentData();
    if (mode.canConvert<QSize>()) {
        width = mode.toSize().width();
        height = mode.toSize().height();
    }
    const QVariant rate = ui->FPSComboBox->currentData();
    if (rate.canConvert<int>()) {
        fps = rate.toInt();
    }
}

void MainWindow::setCurrentSettings(int fps, int width, int height, bool hdr)
{
    QComboBox* const resolutions = ui->ResolutionComboBox;
    QComboBox* const rates = ui->FPSComboBox;
    int resolutionIndex = -1;
    for (int i = 0; i < resolutions->count() && resolutionIndex < 0; ++i) {
        if (resolutions->itemData(i).toSize() == QSize(width, height) &&
            isHdrText(resolutions->itemText(i)) == hdr) {
            resolutionIndex = i;
        }
    }
    // Found in the list as it is now, and used as found although selecting the resolution below
    // fills the list anew. Deliberate.
    const int rateIndex = rates->findData(fps);

    const bool keepsResolution =
        resolutionIndex < 0 || resolutionIndex == resolutions->currentIndex();
    const bool keepsRate = rateIndex < 0 || rateIndex == rates->currentIndex();
    if (keepsResolution && keepsRate) {
        return;
    }
    if (resolutionIndex >= 0 && resolutionIndex < resolutions->count()) {
        resolutions->setCurrentIndex(resolutionIndex);
    }
    // The bound is the number of resolutions, not of frame rates. Deliberate.
    if (rateIndex >= 0 && rateIndex < resolutions->count()) {
        rates->setCurrentIndex(rateIndex);
    }
    emit resolutionAndFPSChanged(fps, width, height, hdr);
}

// ---- Editors -----------------------------------------------------------------------------------

QString MainWindow::generateUniqueID()
{
    QString candidate;
    bool taken = false;
    do {
        candidate = makeIdentity();
        taken = false;
        // Every key is visited, also after a match. Deliberate.
        for (auto editor = editors.keyBegin(); editor != editors.keyEnd(); ++editor) {
            taken = taken || *editor == candidate;
        }
    } while (taken);
    return candidate;
}

QString MainWindow::makeIdentity() const
{
    return QUuid::createUuid().toString();
}

void MainWindow::addVirtualCamHandler()
{
    const QSignalBlocker blocker(this);
    const int position = ui->scrollAreaWidgetContentsVerticalLayout->count() - 1;
    const QString identity = generateUniqueID();
    VirtualCamHandler* const editor = createEditor(identity);
    editor->updatePort(static_cast<unsigned int>(position));
    if (!connectEditor(editor)) {
        qDebug() << "FAILED TO CONNECT STREAM SIGNAL";
    }
    insertEditor(identity, editor, position);
    keepInView(editor);
}

// A row gets its place only when the layouts have been through, which may take some rounds: the one
// added last is kept in view until the operator scrolls.
void MainWindow::keepInView(VirtualCamHandler* editor)
{
    delete keptInView;
    keptInView = new QObject(editor);
    const auto showSoon = [this, editor] {
        QTimer::singleShot(0, keptInView, [this, editor] { scrollTo(editor); });
    };
    const QScrollBar* const bar = ui->scrollArea->verticalScrollBar();
    connect(bar, &QScrollBar::rangeChanged, keptInView, showSoon);
    connect(bar, &QScrollBar::actionTriggered, keptInView, [this] { delete keptInView; });
    showSoon();
}

void MainWindow::addVirtualCamHandlerFromConfig(VirtualCameraInfos info)
{
    const QSignalBlocker blocker(this);
    const int position = ui->scrollAreaWidgetContentsVerticalLayout->count() - 1;
    const QString identity = generateUniqueID();
    VirtualCamHandler* const editor = createEditor(identity);
    editor->offerAbsent(0, info.leftSerialNumber);
    editor->offerAbsent(1, info.rightSerialNumber);
    editor->setSerial(0, static_cast<unsigned int>(info.leftSerialNumber));
    editor->setSerial(1, static_cast<unsigned int>(info.rightSerialNumber));
    editor->setPort(info.port);
    editor->setVirtualSN(static_cast<unsigned int>(info.virtualSerialNumber));
    if (!connectEditor(editor)) {
        // Three N, deliberately: logs tell the two ways of adding a row apart by it.
        qDebug() << "FAILED TO CONNNECT STREAM SIGNAL";
    }
    loadedRecords.insert(identity, info);
    insertEditor(identity, editor, position);
}

VirtualCamHandler* MainWindow::createEditor(const QString& identity)
{
    auto* const editor = new VirtualCamHandler(identity, this);
    editor->updateSerials(serialList);
    return editor;
}

bool MainWindow::connectEditor(VirtualCamHandler* editor)
{
    connect(editor, SIGNAL(remove(QString)), this, SLOT(removeVirtualCamHandler(QString)));
    const bool stops =
        connect(editor, SIGNAL(disableStream(uint64_t)), this, SIGNAL(disableStream(uint64_t)));
    const bool starts =
        connect(editor, SIGNAL(activateStream(int)), this, SIGNAL(activateStream(int)));
    connect(editor, SIGNAL(resolutionChanged(QList<int>, int, int, bool)), this,
            SLOT(onResolutionChanged(QList<int>, int, int, bool)));
    return stops && starts;
}

void MainWindow::insertEditor(const QString& identity, VirtualCamHandler* editor, int position)
{
    editors.insert(identity, editor);
    // The row's own minimum is less than its texts need; the scroll area makes up for the rest.
    QWidget* const rows = ui->scrollAreaWidgetContents;
    rows->setMinimumWidth(qMax(rows->minimumWidth(), editor->layout()->totalMinimumSize().width()));
    ui->scrollAreaWidgetContentsVerticalLayout->insertWidget(position, editor);
    orderTabStops();
}

// The rows lie between "+" and the foot, from top to bottom, also those that were added later.
void MainWindow::orderTabStops()
{
    QWidget* last = ui->addVCamButton;
    const auto append = [&last](QWidget* control) {
        setTabOrder(last, control);
        last = control;
    };
    const QLayout* const rows = ui->scrollAreaWidgetContentsVerticalLayout;
    for (int i = 0; i < rows->count(); ++i) {
        if (const auto* const editor =
                qobject_cast<VirtualCamHandler*>(rows->itemAt(i)->widget())) {
            const QList<QWidget*> controls = editor->tabStops();
            std::for_each(controls.begin(), controls.end(), append);
        }
    }
    append(ui->toggleDaemonButton);
    append(ui->ApplyButton);
}

// Brings a row into view without moving the rows sideways, as ensureWidgetVisible() does with rows
// that are wider than the window.
void MainWindow::scrollTo(const VirtualCamHandler* editor)
{
    const int halfWidth = ui->scrollArea->viewport()->width() / 2;
    const QPoint seen =
        ui->scrollAreaWidgetContents->mapFrom(ui->scrollArea->viewport(), QPoint(halfWidth, 0));
    ui->scrollArea->ensureVisible(seen.x(), editor->geometry().center().y(), 0,
                                  editor->height() / 2 + 1);
}

void MainWindow::removeVirtualCamHandler(QString uuid_)
{
    VirtualCamHandler* const editor = editors.value(uuid_);
    if (editor == nullptr) {
        return;
    }
    ui->scrollAreaWidgetContentsVerticalLayout->removeWidget(editor);
    // The editor's own button brought us here: it must outlive the click.
    editor->setParent(nullptr);
    editor->deleteLater();
    editors.remove(uuid_);
    loadedRecords.remove(uuid_);
    if (rowRemoved) {
        rowRemoved();
    }
}

void MainWindow::updateSerialList(QStringList serials)
{
    serialList = serials;
    for (VirtualCamHandler* const editor : qAsConst(editors)) {
        editor->updateSerials(serials);
    }
}

void MainWindow::offerSerials(const QStringList& serials)
{
    QMap<VirtualCamHandler*, VirtualCameraInfos> former;
    for (VirtualCamHandler* const editor : qAsConst(editors)) {
        former.insert(editor, editor->getInfos());
    }
    updateSerialList(serials);
    for (auto row = former.begin(); row != former.end(); ++row) {
        row.key()->restoreChoices(row->leftSerialNumber, row->rightSerialNumber);
    }
}

bool MainWindow::showsVirtualSerial(int virtualSerial) const
{
    return std::any_of(editors.begin(), editors.end(), [=](const VirtualCamHandler* editor) {
        return editor->shownSerial() == virtualSerial;
    });
}

QList<VirtualCameraInfos> MainWindow::getVirtualCameras()
{
    QList<VirtualCameraInfos> records;
    for (auto editor = editors.begin(); editor != editors.end(); ++editor) {
        VirtualCameraInfos record = editor.value()->getInfos();
        const CameraWidget* const left = panelOf(record.leftSerialNumber);
        const CameraWidget* const right = panelOf(record.rightSerialNumber);
        if (left != nullptr && right != nullptr && !sameSize(left->getInfos(), right->getInfos())) {
            continue;
        }
        if (left != nullptr) {
            fillFromCamera(record, left->getInfos());
        } else {
            fillFromRecord(record, loadedRecords.value(editor.key()));
        }
        records.append(record);
    }
    return records;
}

VirtualCameraInfos MainWindow::getVirtualCameraInfo(int virtualSerial)
{
    for (const VirtualCamHandler* const editor : qAsConst(editors)) {
        VirtualCameraInfos record = editor->getInfos();
        if (obstacleOf(record).isEmpty() &&
            record.virtualSerialNumber == static_cast<std::uint64_t>(virtualSerial)) {
            fillFromCamera(record, panelOf(record.leftSerialNumber)->getInfos());
            return record;
        }
    }
    return {};
}

QString MainWindow::streamObstacle(int virtualSerial) const
{
    QString obstacle = tr("Press Generate first");
    for (const VirtualCamHandler* const editor : qAsConst(editors)) {
        const VirtualCameraInfos row = editor->getInfos();
        if (virtualSerial > 0 &&
            row.virtualSerialNumber == static_cast<std::uint64_t>(virtualSerial)) {
            obstacle = obstacleOf(row);
            if (obstacle.isEmpty()) {
                break;  // of rows with one number, this one is streamed
            }
        }
    }
    return obstacle;
}

// Why a row cannot be streamed, whatever its number; empty when it can.
QString MainWindow::obstacleOf(const VirtualCameraInfos& row) const
{
    const std::uint64_t left = row.leftSerialNumber;
    const std::uint64_t right = row.rightSerialNumber;
    if (left == 0 || right == 0) {
        return tr("Choose both cameras first");
    }
    for (const std::uint64_t serial : {left, right}) {
        if (panelOf(serial) == nullptr) {
            return tr("Camera %1 is not available").arg(serial);
        }
    }
    if (!sameSize(panelOf(left)->getInfos(), panelOf(right)->getInfos())) {
        return tr("Cameras %1 and %2 have different resolutions").arg(left).arg(right);
    }
    return {};
}

void MainWindow::UpdateStreamingStatus(unsigned long serial, bool on)
{
    for (VirtualCamHandler* const editor : qAsConst(editors)) {
        if (editor->getInfos().virtualSerialNumber == serial) {
            editor->UpdateStreamingStatus(on);
        }
    }
}

void MainWindow::stopVirtualStreamers()
{
    const QList<VirtualCamHandler*> all = editors.values();
    for (VirtualCamHandler* const editor : all) {
        editor->resetStreamButton();
        emit disableStream(static_cast<uint64_t>(editor->shownSerial()));
    }
}

void MainWindow::onResolutionChanged(QList<int> serials, int width, int height, bool is_hdr)
{
    qDebug() << "Resolution changed for SN " << qPrintable(joined(serials)) << width << " x "
             << height << ". HDR: " << (is_hdr ? "true" : "false");
    emit resolutionChanged(serials, width, height, is_hdr);
}

// ---- Camera panels -----------------------------------------------------------------------------

CameraWidget* MainWindow::panelOf(std::uint64_t serial) const
{
    return cameraPanels.value(QString::number(serial));
}

void MainWindow::addCameraWidget(int serial_number)
{
    auto* const panel = new CameraWidget(this);
    cameraPanels.insert(QString::number(serial_number), panel);
    ui->scrollAreaWidgetContentsHorizontalLayout->addWidget(panel);
    arrangePanels();
}

void MainWindow::removeCameraWidget(int serial_number)
{
    const QString serial = QString::number(serial_number);
    CameraWidget* const panel = cameraPanels.take(serial);
    if (panel != nullptr) {
        ui->scrollAreaWidgetContentsHorizontalLayout->removeWidget(panel);
    }
    serialList.removeAll(serial);
    lastPreviewTimes.remove(serial);
    lastDrawTimes.remove(serial);
    silentSeconds.remove(serial);
    delete panel;
    arrangePanels();
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::Resize || event->type() == QEvent::LayoutRequest) {
        arrangePanels();
        arrangeRows();
    }
    return QMainWindow::eventFilter(watched, event);
}

// Gives the panels the largest size at which their pictures are seen in full, and what height they
// have no use for to the rows.
void MainWindow::arrangePanels()
{
    const QHBoxLayout* const row = ui->scrollAreaWidgetContentsHorizontalLayout;
    const int count = row->count();
    ui->camerasWidgetsScrollArea->setVisible(count > 0);
    if (count == 0) {
        return;
    }
    int textWidth = kPanelMinWidth;
    for (const CameraWidget* const panel : qAsConst(cameraPanels)) {
        textWidth = panel == nullptr ? textWidth : qMax(textWidth, panel->sizeHint().width());
    }
    const QSize area = ui->camerasWidgetsScrollArea->viewport()->size();
    const int gaps = row->spacing() * (count - 1);
    const int share = qMax(textWidth, (area.width() - gaps) / count);
    const int width = qBound(textWidth, panelWidthFor(area.height()), share);
    for (CameraWidget* const panel : qAsConst(cameraPanels)) {
        if (panel != nullptr) {
            panel->setMaximumWidth(width);
        }
    }
    ui->camerasWidgetscrollAreaWidgetContents->setMinimumSize(width * count + gaps,
                                                              panelHeightFor(width));
    const int frame = 2 * ui->camerasWidgetsScrollArea->frameWidth();
    ui->camerasWidgetsScrollArea->setMaximumHeight(panelHeightFor(share) + frame);
}

// Gives the rows the height that they need, where there are many a quarter of the window or what
// the panels leave.
void MainWindow::arrangeRows()
{
    const QWidget* const rows = ui->scrollAreaWidgetContents;
    QScrollArea* const area = ui->scrollArea;
    const bool isScrolled = rows->minimumWidth() > area->width();
    const int needed = rows->sizeHint().height() +
                       (isScrolled ? area->horizontalScrollBar()->sizeHint().height() : 0);
    area->setMinimumHeight(qMin(needed, height() / 4));
    area->setMaximumHeight(needed);
}

void MainWindow::updateCameraWidget(int serial, CameraInfos infos)
{
    if (CameraWidget* const panel = cameraPanels.value(QString::number(serial))) {
        panel->updateInfos(infos);
        arrangePanels();
    }
}

void MainWindow::updateCameraFrame(int serial, tq::Mat frame)
{
    const QString key = QString::number(serial);
    // The lookups create what is missing, also for a serial that has no panel. Deliberate.
    CameraWidget* const panel = cameraPanels[key];
    qint64& lastPreview = lastPreviewTimes[key];
    const qint64 now = currentTimeMs();
    if (panel == nullptr || frame.getPtr<unsigned char>(sdk::kHostMemory) == nullptr) {
        return;
    }
    silentSeconds.remove(key);
    const CameraInfos& camera = panel->getInfos();
    if (sdk::widthOf(frame) != static_cast<std::size_t>(camera.width) ||
        sdk::heightOf(frame) != static_cast<std::size_t>(camera.height)) {
        return;
    }
    // A clock that was set back would stop the preview until it has caught up.
    const qint64 elapsed = now - lastPreview;
    if (elapsed >= 0 && elapsed < previewIntervalMs()) {
        return;
    }
    drawPreview(*panel, frame);
    lastPreview = now;
    lastDrawTimes[key] = qMax<qint64>(0, currentTimeMs() - now);
}

// 31 ms on any graphics card. Where drawing is slow, all panels together leave the GUI thread half
// of its time.
qint64 MainWindow::previewIntervalMs() const
{
    const qint64 drawing = std::accumulate(lastDrawTimes.begin(), lastDrawTimes.end(), qint64(0));
    return qMax(kPreviewIntervalMs, 2 * drawing);
}

// Looks are counted, not time: while this thread is held up by a command it sees neither frames nor
// looks.
void MainWindow::noteSilence()
{
    QStringList silent;
    for (auto panel = cameraPanels.cbegin(); panel != cameraPanels.cend(); ++panel) {
        if (*panel != nullptr && ++silentSeconds[panel.key()] >= kSilentLooks) {
            silent.append(panel.key());
        }
    }
    QString now = streamFault ? streamFault() : QString();
    if (!silent.isEmpty()) {
        now = tr("No pictures from camera %1").arg(silent.join(tr(" and ")));
    }
    if (now != fault) {
        fault = now;
        statusLine()->setLasting(now);
    }
}

qint64 MainWindow::currentTimeMs() const
{
    return QDateTime::currentMSecsSinceEpoch();
}

void MainWindow::drawPreview(CameraWidget& panel, const tq::Mat& frame)
{
    panel.updateImageGL(frame);
}

void MainWindow::requestCameras()
{
    const QStringList serials = cameraPanels.keys();
    for (const QString& serial : serials) {
        removeCameraWidget(serial.toInt());
    }
    emit askCameras();
}

void MainWindow::SetNoCameraLabelVisible(bool visible)
{
    ui->noCameraLabel->setVisible(visible);
    for (QWidget* const control :
         {static_cast<QWidget*>(ui->ApplyButton), static_cast<QWidget*>(ui->addVCamButton),
          static_cast<QWidget*>(ui->ApplyResFPSButton),
          static_cast<QWidget*>(ui->ResolutionComboBox), static_cast<QWidget*>(ui->FPSComboBox)}) {
        control->setVisible(!visible);
    }
}

void MainWindow::setCamerasUsable(bool usable)
{
    for (QWidget* const control : std::initializer_list<QWidget*>{
             ui->addVCamButton, ui->ApplyResFPSButton, ui->ResolutionComboBox, ui->FPSComboBox}) {
        control->setEnabled(usable);
    }
}

// ---- Saving and the service --------------------------------------------------------------------

void MainWindow::requestConfSave()
{
    emit saveConf();
}

void MainWindow::toggleDaemonService()
{
    const StatusLine::Wait wait(ui->statusLine,
                                tr("Switching the automatic start of the service..."));
    const bool enabled = ServiceHandler::getDaemonServiceEnableStatus(kServiceUnit);
    std::string output;
    executeCMD_RC(
        std::string("sudo systemctl ") + (enabled ? "disable" : "enable") + " " + kServiceUnit,
        output);
    updateDaemonServiceEnableStatusButton(
        ServiceHandler::getDaemonServiceEnableStatus(kServiceUnit));
}

void MainWindow::updateDaemonServiceEnableStatusButton(bool enabled)
{
    // The check mark is left to the box itself, also when the command failed: the tool tip tells
    // the truth. Deliberate.
    ui->toggleDaemonButton->setToolTip(
        enabled ? tr("Click here to disable the automatic startup of KOR Vistrel service. This "
                     "will allow the direct usage of the cameras in other softwares.")
                : tr("Click here to enable the automatic startup of KOR Vistrel service. This "
                     "will prevent the direct usage of the cameras from other softwares."));
    ui->toggleDaemonButton->repaint();
}

StatusLine* MainWindow::statusLine() const
{
    return ui->statusLine;
}
