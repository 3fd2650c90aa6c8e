// SPDX-License-Identifier: Apache-2.0
// Preview panel of one camera, and the conversion of YUYV frames on the processor.
#include "ui/camerawidget.h"

#include <QImage>
#include <QMutexLocker>
#include <QPixmap>
#include <QResizeEvent>
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ui/glwidget.h"
#include "ui/style.h"
#include "ui_camerawidget.h"

namespace {

// Four 8-bit channels.
constexpr tq::MAT_TYPE kRgba = tq::MAT_TYPE(7);

constexpr int kNeutralChroma = 128;

QString displayName(tq::MODEL model)
{
    switch (static_cast<int>(model)) {
        case 4: return QStringLiteral("KOR T");
        case 5: return QStringLiteral("KOR T Mini");
        case 30: return QStringLiteral("KOR T Solo GS");
        case 31: return QStringLiteral("KOR T Solo UHD");
        default: return QStringLiteral("N/A");
    }
}

std::uint8_t clampToByte(int value)
{
    return static_cast<std::uint8_t>(
        std::clamp<std::int16_t>(static_cast<std::int16_t>(value), 0, 255));
}

void convertPixel(int luma, int u, int v, std::uint8_t* rgba)
{
    const int d = u - kNeutralChroma;
    const int e = v - kNeutralChroma;
    rgba[0] = clampToByte((298 * luma + 409 * e) >> 8);
    // 516 on E instead of the usual 208 is deliberate.
    rgba[1] = clampToByte((298 * luma - 100 * d - 516 * e) >> 8);
    rgba[2] = clampToByte((298 * luma + 516 * d) >> 8);
    rgba[3] = 255;
}

// Converts packed groups Y0 U Y1 V to RGBA. The last group of an odd number of pixels is
// deliberately not taken in full: that would read two bytes behind the frame, its Y1 and V, and
// write four behind the picture. Its one pixel takes the V of the group before.
void convertYuyv(const std::uint8_t* yuyv, std::uint8_t* rgba, int pixelCount)
{
    int v = kNeutralChroma;
    for (int pixel = 0; pixel < pixelCount; pixel += 2, yuyv += 4, rgba += 8) {
        const bool whole = pixel + 1 < pixelCount;
        if (whole) {
            v = yuyv[3];
        }
        convertPixel(yuyv[0], yuyv[1], v, rgba);
        if (whole) {
            convertPixel(yuyv[2], yuyv[1], v, rgba + 4);
        }
    }
}

}  // namespace

CameraWidget::CameraWidget(QWidget* parent)
    : QWidget(parent), ui(std::make_unique<Ui_CameraWidget>())
{
    ui->setupUi(this);
    style = std::make_unique<Style>();
    applyStyle();

    view = std::make_unique<GLWidget>(ui->imageLabel);
    view->setForMono(true);
    rgbaImage = std::make_unique<tq::Mat>();
    view->keepRatio(true);
    view->show();
}

CameraWidget::~CameraWidget()
{
    rgbaImage.reset();
    view.reset();
    ui.reset();
    style.reset();
}

void CameraWidget::updateInfos(CameraInfos infos)
{
    cameraInfos = infos;
    ui->cameraTitle->setText(
        tr("Camera %1 | Serial Number %2").arg(infos.id).arg(infos.serial_number));
    ui->modelLabel->setText(tr("Model: %1").arg(displayName(infos.model)));
    ui->resolutionLabel->setText(
        tr("Resolution: %1x%2: %3FPS").arg(infos.width).arg(infos.height).arg(infos.fps));
}

void CameraWidget::updateImageGL(tq::Mat image)
{
    const int width = static_cast<int>(sdk::widthOf(image));
    const int height = static_cast<int>(sdk::heightOf(image));
    if (width != frameWidth || height != frameHeight) {
        frameWidth = width;
        frameHeight = height;
        view->InitGLProcess(width, height);
        const QMutexLocker lock(&view->drawingMutex());
        view->ClearDisplay();
    }
    view->DrawBuffer(reinterpret_cast<char*>(image.getPtr<unsigned char>(sdk::kHostMemory)));
    view->update();
    view->doneCurrent();
}

void CameraWidget::updateImage(tq::Mat image)
{
    const std::size_t columns = sdk::widthOf(image);
    const std::size_t rows = sdk::heightOf(image);
    if (columns == 0) {
        return;
    }
    if (sdk::widthOf(*rgbaImage) != columns || sdk::heightOf(*rgbaImage) != rows) {
        rgbaImage->free(sdk::kAllMemory);
        rgbaImage->alloc(columns, rows, kRgba, sdk::kHostMemory);
    }

    const int width = static_cast<int>(columns);
    const int height = static_cast<int>(rows);
    auto* const rgba = rgbaImage->getPtr<unsigned char>(sdk::kHostMemory);
    // Row padding of either buffer is deliberately not looked at.
    convertYuyv(image.getPtr<unsigned char>(sdk::kHostMemory), rgba, width * height);

    const QImage picture(rgba, width, height,
                         static_cast<int>(rgbaImage->getStepBytes(sdk::kHostMemory)),
                         QImage::Format_RGBA8888);
    if (!picture.isNull()) {
        ui->imageLabel->setPixmap(QPixmap::fromImage(picture).scaled(
            ui->imageLabel->size(), Qt::KeepAspectRatio, Qt::FastTransformation));
    }
}

void CameraWidget::applyStyle()
{
    for (QLabel* label : {ui->cameraTitle, ui->modelLabel, ui->resolutionLabel}) {
        label->setFont(style->fontPreview);
    }
}

void CameraWidget::resizeEvent(QResizeEvent* event)
{
    // The panel's full size, deliberately, although the view lies in the label below the texts; and
    // without the base class's handler, deliberately: it has nothing to add.
    view->setGeometry(0, 0, event->size().width(), event->size().height());
}
