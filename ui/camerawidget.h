// SPDX-License-Identifier: Apache-2.0
// Preview panel of one camera: three lines of text above its live picture.
#pragma once

#include <QWidget>
#include <memory>

#include "capture/Camera.h"

class GLWidget;
class Style;
class Ui_CameraWidget;

/// Shows one connected camera. All functions belong to the GUI thread.
class CameraWidget : public QWidget {
    Q_OBJECT

public:
    explicit CameraWidget(QWidget* parent);
    ~CameraWidget() override;

    /// Keeps a copy of the camera's description and shows it in the three lines of text.
    void updateInfos(CameraInfos infos);

    /// The description last given to updateInfos().
    const CameraInfos& getInfos() const { return cameraInfos; }

    /// Draws one frame through the image view, which is set up anew when the size changes.
    /// @param image packed YUYV, 2 bytes per pixel, in processor memory
    void updateImageGL(tq::Mat image);

    /// Converts one frame on the processor and shows it as a pixmap. For machines without OpenGL;
    /// the program itself does not use it.
    /// @param image packed YUYV, 2 bytes per pixel, in processor memory; ignored while empty
    void updateImage(tq::Mat image);

    /// Gives the three lines of text their font.
    void applyStyle();

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    friend class CameraWidgetInspector;

    std::unique_ptr<Ui_CameraWidget> ui;
    std::unique_ptr<tq::Mat> rgbaImage;  // of updateImage()
    std::unique_ptr<Style> style;
    CameraInfos cameraInfos;
    std::unique_ptr<GLWidget> view;
    int frameWidth = 0;  // of the last frame drawn by the view, pixels
    int frameHeight = 0;
};
