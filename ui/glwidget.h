// SPDX-License-Identifier: Apache-2.0
// Image view: shows packed YUYV frames through OpenGL and lets a region of interest be dragged.
#pragma once

#include <QColor>
#include <QGLFunctions>
#include <QGLWidget>
#include <QMatrix4x4>
#include <QMutex>
#include <QOpenGLBuffer>
#include <QPoint>
#include <QRectF>
#include <QSize>
#include <QVector2D>
#include <QVector3D>
#include <QVector>
#include <cstdint>
#include <memory>

class QGLFramebufferObject;
class QGLShader;
class QGLShaderProgram;
class Style;

/// The OpenGL surface of a live picture.
///
/// A frame is uploaded as it arrives, converted to RGB by the graphics card into an off-screen
/// frame buffer of the frame's own size, and drawn from there into the widget, letter-boxed to the
/// display aspect ratio. Order of calls: setForMono(), keepRatio() and show() once; InitGLProcess()
/// and ClearDisplay(), the latter under drawingMutex(), for each new frame size; then DrawBuffer()
/// for each frame. The picture is drawn only when a frame arrives, never on expose.
///
/// All functions belong to the GUI thread.
class GLWidget : public QGLWidget, protected QGLFunctions {
    Q_OBJECT

public:
    explicit GLWidget(QWidget* parent);
    ~GLWidget() override;

    /// Creates the texture and the off-screen frame buffer for frames of a size.
    /// @param width,height frame size in pixels
    void InitGLProcess(int width, int height);

    /// Shows one frame. Dropped while the widget is hidden.
    /// @param yuyv packed YUYV, width × height × 2 bytes of the size last given to InitGLProcess()
    void DrawBuffer(char* yuyv);

    /// Converts the frame last uploaded and draws it; the context must be current.
    /// @param mirror draws the picture turned by 180°
    void renderImage(bool mirror);

    /// Fills the widget with the clear colour, if there is anything of it to be seen.
    void ClearDisplay();

    /// @param on true: letter-box to the display aspect ratio; false: stretch over the whole widget
    void keepRatio(bool on);

    /// Chooses the display aspect ratio; takes effect with the next refreshGL(), resize or frame.
    /// @param mono true: 16:9, one picture; false: 32:9, a side-by-side pair
    void setForMono(bool mono);

    /// Stores the colour that surrounds the picture and swaps the buffers.
    void setClearColor(const QColor& color);

    /// Serialises the drawing of a frame against clearing the display.
    QMutex& drawingMutex() { return mutex; }

signals:
    /// Declared for receivers that expect it; never emitted.
    void clicked();

    /// The left mouse button was released. All values are fractions of the left half of the
    /// picture, 0..1; without a new drag they are those of the one before.
    void sendROI(float x, float y, float width, float height);

    /// A press that cannot begin a region of interest.
    void resetROI();

public slots:
    /// Recomputes display rectangle and viewport for the current size of the widget.
    void refreshGL();

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

    /// Does nothing: see the class.
    void paintEvent(QPaintEvent* event) override;

    void initializeGL() override;

    /// Recomputes display rectangle and viewport. The arguments are ignored.
    void resizeGL(int width, int height) override;

    /// Does nothing: see the class.
    void paintGL() override;

    /// Builds the conversion program and the display program; failures go to standard output.
    void createShader();

    /// Fills in the quad.
    void makeObject();

private:
    friend class GLWidgetInspector;

    std::unique_ptr<QGLShaderProgram> buildProgram(QGLShader& vertexShader,
                                                   QGLShader& fragmentShader,
                                                   const char* positionName, const char* label);
    void convertFrame();
    void displayFrame();
    void drawQuad(QGLShaderProgram& program, GLuint texture);

    bool isSelectable(const QPoint& position) const;

    QMutex mutex;
    int frameCounter = 0;  // frames drawn since InitGLProcess(); for debuggers

    // Kept in the record, without use.
    [[maybe_unused]] int unusedCount = 0;
    [[maybe_unused]] float unusedScale = 1.0F;
    [[maybe_unused]] float unusedOffset = 0.0F;

    float displayRatio = 32.0F / 9.0F;
    QColor clearColor = Qt::black;
    [[maybe_unused]] std::uint64_t unusedWord = 0;

    QVector<QVector3D> vertices;
    QVector<QVector2D> textureCoordinates;
    QOpenGLBuffer positions;  // the vertices, for the graphics card
    GLuint frameTexture = 0;
    std::unique_ptr<QGLShaderProgram> conversionProgram;
    std::unique_ptr<QGLShaderProgram> displayProgram;
    std::unique_ptr<QGLFramebufferObject> frameBuffer;
    QMatrix4x4 matrix;
    bool ratioKept = true;
    int frameWidth = -1;  // pixels; negative while no frame format is known
    int frameHeight = -1;
    bool mirrored = false;

    bool selecting = false;
    QPoint selectionStart;  // widget pixels
    QSize selectionSize{0, 0};
    bool selectionValid = false;
    bool selectionDone = false;
    [[maybe_unused]] int selectionSpare = 0;  // written, never read

    QRectF displayRectangle;  // device pixels: where the picture lies after letter-boxing
    std::unique_ptr<Style> style;
};
