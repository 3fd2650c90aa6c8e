// SPDX-License-Identifier: Apache-2.0
// Image view: conversion and display of packed YUYV frames, region-of-interest selection.
#include "ui/glwidget.h"

#include <QGLFramebufferObject>
#include <QGLShader>
#include <QGLShaderProgram>
#include <QMouseEvent>
#include <QMutexLocker>
#include <QOpenGLContext>
#include <array>
#include <iostream>
#include <string>

#include "ui/style.h"

namespace {

// The shader texts are taken as they are by every driver in use, blanks included; the mixture of
// GLSL versions is deliberate.
constexpr char kDisplayVertexShader[] =
    "attribute highp vec4 vertex;\n"
    "attribute mediump vec4 texCoord;\n"
    "varying mediump vec4 texc;\n"
    "uniform mediump mat4 matrix;\n"
    "void main(void)\n"
    "{\n"
    "    gl_Position = matrix * vertex;\n"
    "    texc = texCoord;\n"
    "}\n";

constexpr char kConversionVertexShader[] =
    "attribute highp vec4 vPosition; \n"
    "attribute mediump vec4 texCoord;\n"
    "varying mediump vec4 texc;\n"
    "uniform mediump mat4 matrix;\n"
    "void main(void)\n"
    "{\n"
    "    texc = texCoord;\n"
    "    gl_Position =  matrix * vPosition;\n"
    "}\n";

// One texel is one image pixel: R its luma, G its chroma, U at even and V at odd columns. The
// coefficients are deliberately used without an offset for video-range luma. The shortcut for black
// never fires, for the fourth channel of a two-channel texture reads 1.
constexpr char kConversionFragmentShader[] =
    "#version 330 core\n"
    "uniform sampler2D texture;\n"
    "varying mediump vec4 texc;\n"
    "uniform mediump vec2 u_resolution;\n"
    "void main() \n"
    "{ \n"
    "    vec4 colA = "
    "texelFetch(texture,ivec2(texc.s*u_resolution.x,(1.0f-texc.t)*u_resolution.y),0);\n"
    "    vec4 colB = texelFetch(texture,ivec2(texc.s*u_resolution.x "
    "-1,(1.0-texc.t)*u_resolution.y),0);\n"
    "    vec4 colC = texelFetch(texture,ivec2(texc.s*u_resolution.x + "
    "1,(1.0-texc.t)*u_resolution.y),0);\n"
    "    vec4 colOut; \n"
    "    colOut.a = 1.0f;\n"
    "    float ar = colA.x;\n"
    "    float ag = colA.y;\n"
    "    float br = colB.x;\n"
    "    float bg = colB.y;\n"
    "    float cr = colC.x;\n"
    "    float cg = colC.y;\n"
    "    float y_ = ar;\n"
    "    float u_=  ag-0.5f;\n"
    "    float v_ = cg-0.5f;\n"
    "    mediump ivec2 index = ivec2(texc.s*u_resolution.x,0.0);\n"
    "    if( mod(index.x*1.0, 2.0)>0.0) \n"
    "       { v_=  ag-0.5f;  u_=  bg-0.5f;} \n"
    "    if( colA.r==0.0f && colA.g==0.0f && colB.b==0.0f && colB.a==0.0f) {\n"
    "       colOut.r =0.0f; \n"
    "      colOut.g = 0.0f; \n"
    "      colOut.b = 0.0f ; } \n"
    "      else {colOut.b = y_ + 1.765*u_; \n"
    "      colOut.g = y_ -0.343*u_ -0.711*v_; \n"
    "      colOut.r = y_ + 1.4*v_;} \n"
    "    gl_FragColor = colOut; \n"
    "} \n";

constexpr char kDisplayFragmentShader[] =
    "#version 330 core\n"
    "uniform sampler2D texture;\n"
    "varying mediump vec4 texc;\n"
    "varying vec4 posPos;\n"
    "uniform mediump vec2 u_resolution;\n"
    "void main(void)\n"
    "{\n"
    "gl_FragColor = texture2D(texture, texc.st);\n"
    "}\n";

constexpr int kPositionAttribute = 0;
constexpr int kTextureAttribute = 1;
constexpr int kCornerCount = 4;

// Converts a length to viewport pixels. The display ratio is a float, and 16/9 is a trifle too
// large in it: in double, 400 / (16/9) comes out just under 225. Narrowed before it is truncated,
// such a quotient is whole again and costs no row of the picture.
int viewportPixels(double length)
{
    return static_cast<int>(static_cast<float>(length));
}

}  // namespace

GLWidget::GLWidget(QWidget* parent) : QGLWidget(parent)
{
    setAcceptDrops(true);

    QGLFormat wanted;
    wanted.setSampleBuffers(true);
    wanted.setSamples(4);
    wanted.setDoubleBuffer(true);
    wanted.setSwapInterval(0);
    setFormat(wanted);

    // Moves arrive only while a button is held.
    setAttribute(Qt::WA_MouseTracking, false);
    style = std::make_unique<Style>();
}

GLWidget::~GLWidget()
{
    // Deliberately without making the context current: its window may be gone already, and the
    // texture goes with the context in any case. But texture names are counted per context, so with
    // another view's context current the deletion would hit the picture of that view.
    QOpenGLContext* current = QOpenGLContext::currentContext();
    if (current != nullptr && QGLContext::currentContext() != context()) {
        current->doneCurrent();
    }
    glDeleteTextures(1, &frameTexture);
    conversionProgram.reset();
    displayProgram.reset();
    frameBuffer.reset();
    style.reset();
}

void GLWidget::InitGLProcess(int width, int height)
{
    if (!isValid()) {
        return;
    }
    makeCurrent();
    frameCounter = 0;
    glEnable(GL_DEPTH_TEST);
    glEnable(GL_TEXTURE_2D);
    frameWidth = width;
    frameHeight = height;

    // A former texture is deliberately left to the context, which frees it at its end.
    glGenTextures(1, &frameTexture);
    glBindTexture(GL_TEXTURE_2D, frameTexture);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    // The conversion addresses individual texels.
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glBindTexture(GL_TEXTURE_2D, 0);

    frameBuffer.reset();
    frameBuffer = std::make_unique<QGLFramebufferObject>(QSize(width, height), GL_TEXTURE_2D);

    glBindTexture(GL_TEXTURE_2D, frameBuffer->texture());
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    GLfloat anisotropy = 1.0F;
    glGetFloatv(GL_MAX_TEXTURE_MAX_ANISOTROPY_EXT, &anisotropy);
    glTexParameterf(GL_TEXTURE_2D, GL_TEXTURE_MAX_ANISOTROPY_EXT, anisotropy);
    glBindTexture(GL_TEXTURE_2D, 0);
}

void GLWidget::DrawBuffer(char* yuyv)
{
    if (!isVisible() || !isValid()) {
        return;
    }
    makeCurrent();
    qglClearColor(clearColor);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glBindTexture(GL_TEXTURE_2D, frameTexture);
    // Rows are packed, whatever their length: else an odd one would be read beyond the frame.
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RG, frameWidth, frameHeight, 0, GL_RG, GL_UNSIGNED_BYTE,
                 yuyv);
    {
        const QMutexLocker lock(&mutex);
        renderImage(false);
    }
    updateGL();  // swaps the buffers
    ++frameCounter;
}

void GLWidget::renderImage(bool mirror)
{
    if (frameWidth < 0 || conversionProgram == nullptr) {
        return;
    }
    mirrored = mirror;
    convertFrame();
    resizeGL(0, 0);  // back to the widget's viewport
    displayFrame();
}

void GLWidget::convertFrame()
{
    frameBuffer->bind();
    qglClearColor(clearColor);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glViewport(0, 0, frameWidth, frameHeight);

    conversionProgram->bind();
    matrix.setToIdentity();
    matrix.ortho(QRectF(-1, -1, 2, 2));
    conversionProgram->setUniformValue("u_resolution", static_cast<GLfloat>(frameWidth),
                                       static_cast<GLfloat>(frameHeight));
    drawQuad(*conversionProgram, frameTexture);
    glBindTexture(GL_TEXTURE_2D, 0);
    conversionProgram->release();
    frameBuffer->release();
}

void GLWidget::displayFrame()
{
    displayProgram->bind();
    matrix.setToIdentity();
    matrix.ortho(mirrored ? QRectF(1, 1, -2, -2) : QRectF(-1, -1, 2, 2));
    displayProgram->setUniformValue("u_resolution", 1.0F / static_cast<GLfloat>(frameWidth),
                                    1.0F / static_cast<GLfloat>(frameHeight));
    drawQuad(*displayProgram, frameBuffer->texture());
    displayProgram->release();
    glBindTexture(GL_TEXTURE_2D, 0);
}

void GLWidget::drawQuad(QGLShaderProgram& program, GLuint texture)
{
    program.setUniformValue("matrix", matrix);
    program.enableAttributeArray(kPositionAttribute);
    program.enableAttributeArray(kTextureAttribute);
    positions.bind();
    program.setAttributeBuffer(kPositionAttribute, GL_FLOAT, 0, 3);
    positions.release();
    program.setAttributeArray(kTextureAttribute, textureCoordinates.constData());
    glBindTexture(GL_TEXTURE_2D, texture);
    glDrawArrays(GL_TRIANGLE_FAN, 0, kCornerCount);
}

void GLWidget::ClearDisplay()
{
    if (rect().isEmpty() || !isVisible() || !isValid()) {
        return;
    }
    makeCurrent();
    qglClearColor(clearColor);
    // Widget pixels, deliberately: clearing is not bounded by the viewport.
    glViewport(0, 0, width(), height());
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    updateGL();
}

void GLWidget::keepRatio(bool on)
{
    ratioKept = on;
    resizeGL(0, 0);
}

void GLWidget::setForMono(bool mono)
{
    // The viewport deliberately stays as it is until it is next recomputed.
    displayRatio = static_cast<float>((2 - static_cast<int>(mono)) * 16.0 / 9.0);
}

void GLWidget::setClearColor(const QColor& color)
{
    clearColor = color;
    updateGL();
}

void GLWidget::refreshGL()
{
    resizeGL(0, 0);
}

void GLWidget::initializeGL()
{
    makeCurrent();
    initializeGLFunctions();
    makeObject();
    createShader();
}

void GLWidget::resizeGL(int /*width*/, int /*height*/)
{
    makeCurrent();
    const int deviceWidth = static_cast<int>(width() * devicePixelRatioF());
    const int deviceHeight = static_cast<int>(height() * devicePixelRatioF());
    const double ratio = static_cast<double>(displayRatio);

    if (ratio > static_cast<double>(deviceWidth) / deviceHeight) {
        const double pictureHeight = deviceWidth / ratio;
        displayRectangle =
            QRectF(0, (deviceHeight - pictureHeight) * 0.5, deviceWidth, pictureHeight);
    } else {
        const double pictureWidth = deviceHeight * ratio;
        displayRectangle =
            QRectF((deviceWidth - pictureWidth) * 0.5, 0, pictureWidth, deviceHeight);
    }

    // A stretched picture deliberately keeps the letter-boxed rectangle for the mouse.
    if (ratioKept) {
        glViewport(viewportPixels(displayRectangle.x()), viewportPixels(displayRectangle.y()),
                   viewportPixels(displayRectangle.width()),
                   viewportPixels(displayRectangle.height()));
    } else {
        glViewport(0, 0, deviceWidth, deviceHeight);
    }
}

void GLWidget::paintGL() {}

void GLWidget::paintEvent(QPaintEvent* /*event*/) {}

void GLWidget::makeObject()
{
    static constexpr std::array<std::array<float, 3>, kCornerCount> kCorners{
        {{1, -1, 0}, {-1, -1, 0}, {-1, 1, 0}, {1, 1, 0}}};
    for (int i = 0; i < kCornerCount; ++i) {
        const auto& corner = kCorners[static_cast<std::size_t>(i)];
        textureCoordinates.append(QVector2D(i == 0 || i == 3 ? 1.0F : 0.0F, i < 2 ? 1.0F : 0.0F));
        vertices.append(QVector3D(corner[0], corner[1], corner[2]));
    }
    // In a buffer of the graphics card: Mesa 25 ends the program when positions lie anywhere else
    // and the shaders were refused.
    positions.create();
    positions.bind();
    positions.allocate(vertices.constData(), vertices.size() * int{sizeof(QVector3D)});
    positions.release();
}

void GLWidget::createShader()
{
    // Owned by the widget, as programs refer to their shaders' texts and logs.
    auto* const displayVertex = new QGLShader(QGLShader::Vertex, this);
    displayVertex->compileSourceCode(kDisplayVertexShader);
    auto* const conversionVertex = new QGLShader(QGLShader::Vertex, this);
    conversionVertex->compileSourceCode(kConversionVertexShader);
    auto* const conversionFragment = new QGLShader(QGLShader::Fragment, this);
    conversionFragment->compileSourceCode(kConversionFragmentShader);
    auto* const displayFragment = new QGLShader(QGLShader::Fragment, this);
    displayFragment->compileSourceCode(kDisplayFragmentShader);

    conversionProgram = buildProgram(*conversionVertex, *conversionFragment, "vPosition", "CVT");
    displayProgram = buildProgram(*displayVertex, *displayFragment, "vertex", "RND");
}

std::unique_ptr<QGLShaderProgram> GLWidget::buildProgram(QGLShader& vertexShader,
                                                         QGLShader& fragmentShader,
                                                         const char* positionName,
                                                         const char* label)
{
    auto program = std::make_unique<QGLShaderProgram>(this);
    program->addShader(&vertexShader);
    program->addShader(&fragmentShader);
    program->bindAttributeLocation(positionName, kPositionAttribute);
    program->bindAttributeLocation("texCoord", kTextureAttribute);

    const bool linked = program->link();
    const bool bound = program->bind();
    if (!linked || !bound) {
        std::cout << "** GLSL FAILURE **" << std::endl;
        std::cout << label << " Program Error : " << program->log().toStdString() << std::endl;
        std::cout << "VS Error : " << vertexShader.log().toStdString() << std::endl;
        std::cout << "FS Error : " << fragmentShader.log().toStdString() << std::endl;
    }
    program->setUniformValue("texture", 0);
    program->release();
    return program;
}

// The left half of the displayed picture: in a side-by-side picture the left image. The display
// rectangle is in device pixels and the mouse in widget pixels; they are deliberately compared as
// they stand, and there is deliberately no lower bound.
bool GLWidget::isSelectable(const QPoint& position) const
{
    return position.x() < displayRectangle.x() + displayRectangle.width() * 0.5 &&
           position.y() < displayRectangle.y() + displayRectangle.height();
}

void GLWidget::mousePressEvent(QMouseEvent* event)
{
    const QPoint position = event->localPos().toPoint();
    if (event->button() != Qt::LeftButton || !isSelectable(position)) {
        emit resetROI();
    } else {
        selecting = true;
        selectionDone = false;
        selectionSpare = 0;
        // Left of or above the picture the former start point deliberately stays.
        if (position.x() > displayRectangle.x() && position.y() > displayRectangle.y()) {
            selectionStart = position;
        }
    }
    QGLWidget::mousePressEvent(event);
}

void GLWidget::mouseMoveEvent(QMouseEvent* event)
{
    if (selecting) {
        const QPoint position = event->localPos().toPoint();
        // A rectangle is deliberately drawn down and to the right only.
        if (position.x() > selectionStart.x() && position.y() > selectionStart.y()) {
            const double right = displayRectangle.x() + displayRectangle.width() * 0.5;
            const double bottom = displayRectangle.y() + displayRectangle.height();
            selectionSize.setWidth(position.x() < right
                                       ? position.x() - selectionStart.x()
                                       : static_cast<int>(right - selectionStart.x()));
            selectionSize.setHeight(position.y() < bottom
                                        ? position.y() - selectionStart.y()
                                        : static_cast<int>(bottom - selectionStart.y()));
            selectionValid = true;
            selectionSpare = 0;
        } else {
            selectionValid = false;
        }
    }
    QGLWidget::mouseMoveEvent(event);
}

void GLWidget::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton) {
        selecting = false;
        selectionDone = true;
        const auto halfWidth = static_cast<float>(displayRectangle.width() * 0.5);
        const auto fullHeight = static_cast<float>(displayRectangle.height());
        // Deliberately also without a valid rectangle: then with the former one.
        emit sendROI(static_cast<float>(selectionStart.x() - displayRectangle.x()) / halfWidth,
                     static_cast<float>(selectionStart.y() - displayRectangle.y()) / fullHeight,
                     static_cast<float>(selectionSize.width()) / halfWidth,
                     static_cast<float>(selectionSize.height()) / fullHeight);
    }
    QGLWidget::mouseReleaseEvent(event);
}
