// SPDX-License-Identifier: Apache-2.0
// Pixels of the image view against a reference conversion, and when it draws at all.
#include <QGLShader>
#include <QGLShaderProgram>
#include <QMetaMethod>
#include <QTest>

#include "tests/ui/glwidget_testing.h"

using viewtest::Frame;

namespace {

// Conversions are rounded once by the graphics card.
constexpr int kTolerance = 1;

class View : public GLWidget {
public:
    explicit View(QSize size, QWidget* parent = nullptr) : GLWidget(parent)
    {
        resize(size);
        setForMono(true);
        keepRatio(false);
    }

    using GLWidget::paintEvent;

    int paints = 0;
    QVector<QSize> resizes;

protected:
    void paintGL() override
    {
        ++paints;
        GLWidget::paintGL();
    }
    void resizeGL(int w, int h) override
    {
        resizes.append(QSize(w, h));
        GLWidget::resizeGL(w, h);
    }
};

bool showAndWait(QWidget& widget)
{
    widget.show();
    return QTest::qWaitForWindowExposed(&widget);
}

void draw(GLWidget& view, Frame& frame)
{
    view.InitGLProcess(frame.width, frame.height);
    view.DrawBuffer(frame.data());
}

// Draws what is to be seen on the display. The software renderer learns a window's new size only
// when it swaps, so the first frame after a resize may lie elsewhere.
void drawSettled(GLWidget& view, Frame& frame)
{
    draw(view, frame);
    view.DrawBuffer(frame.data());
}

constexpr int kBlock = 20;

// Blocks of random colours.
Frame blockFrame(int width, int height, std::uint32_t seed)
{
    const Frame colours = viewtest::randomFrame(2 * (width / kBlock), height / kBlock, seed);
    Frame frame(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int column = 2 * (x / kBlock);
            const int row = y / kBlock;
            const std::size_t at = frame.index(x, y);
            frame.bytes[at] = colours.luma(column, row);
            frame.bytes[at + 1] = colours.chroma(column + x % 2, row);
        }
    }
    return frame;
}

int countWrongBlocks(const QImage& picture, const Frame& frame)
{
    if (picture.size() != QSize(frame.width, frame.height)) {
        return frame.width * frame.height;
    }
    int wrong = 0;
    for (int y = kBlock / 2; y < frame.height; y += kBlock) {
        for (int x = kBlock / 2; x < frame.width; x += kBlock) {
            const QRgb expected = viewtest::convertedPixel(frame, x, y);
            wrong += viewtest::distance(picture.pixel(x, y), expected) > kTolerance ? 1 : 0;
        }
    }
    return wrong;
}

// The shader texts as the graphics card has to get them, without what Qt inserts.
QByteArray sourceWithoutDefines(const QGLShader& shader)
{
    QByteArray source = shader.sourceCode();
    for (const char* inserted : {"#define lowp\n", "#define mediump\n", "#define highp\n"}) {
        source.replace(inserted, "");
    }
    return source;
}

}  // namespace

class GlWidgetPixelsTest : public QObject {
    Q_OBJECT

private slots:
    void init() { glRecord().reset(); }

    void signalsAndSlotStandInOrder()
    {
        const QMetaObject& meta = GLWidget::staticMetaObject;
        QStringList names;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
            names.append(QString::fromLatin1(meta.method(i).methodSignature()));
        }
        QCOMPARE(names, QStringList({"clicked()", "sendROI(float,float,float,float)", "resetROI()",
                                     "refreshGL()"}));
        QCOMPARE(meta.method(meta.methodOffset() + 3).methodType(), QMetaMethod::Slot);
    }

    void constructionSetsTheDefaults()
    {
        const GLWidget view(nullptr);
        QCOMPARE(GLWidgetInspector::displayRatio(view), 3.5555556F);
        QCOMPARE(GLWidgetInspector::clearColor(view), QColor(Qt::black));
        QCOMPARE(GLWidgetInspector::frameSize(view), QSize(-1, -1));
        QCOMPARE(GLWidgetInspector::frameTexture(view), 0U);
        QCOMPARE(GLWidgetInspector::displayRectangle(view), QRectF());
        QVERIFY(GLWidgetInspector::ratioKept(view));
        QVERIFY(!GLWidgetInspector::hasPrograms(view));
        QVERIFY(view.acceptDrops());
        QVERIFY(!view.hasMouseTracking());
        QVERIFY(view.doubleBuffer());
        // What the display then gives is its own affair.
        QVERIFY(glRecord().format.doubleBuffer());
        QVERIFY(glRecord().format.sampleBuffers());
        QCOMPARE(glRecord().format.samples(), 4);
        QCOMPARE(glRecord().format.swapInterval(), 0);
    }

    void quadIsAFanOfFourCorners()
    {
        View view(QSize(64, 36));
        QVERIFY(showAndWait(view));
        const QVector<QVector3D> corners{{1, -1, 0}, {-1, -1, 0}, {-1, 1, 0}, {1, 1, 0}};
        const QVector<QVector2D> textures{{1, 1}, {0, 1}, {0, 0}, {1, 0}};
        QCOMPARE(GLWidgetInspector::vertices(view), corners);
        QCOMPARE(GLWidgetInspector::textureCoordinates(view), textures);
    }

    void shadersAreTakenAsTheyAre()
    {
        View view(QSize(64, 36));
        QVERIFY(showAndWait(view));
        view.makeCurrent();
        const auto shaders = view.findChildren<QGLShader*>(QString(), Qt::FindDirectChildrenOnly);
        QCOMPARE(shaders.size(), 4);
        QCOMPARE(sourceWithoutDefines(*shaders.at(0)), QByteArray(kVertexA));
        QCOMPARE(sourceWithoutDefines(*shaders.at(1)), QByteArray(kVertexB));
        QCOMPARE(sourceWithoutDefines(*shaders.at(2)), QByteArray(kFragmentC));
        QCOMPARE(sourceWithoutDefines(*shaders.at(3)), QByteArray(kFragmentD));
        const auto programs =
            view.findChildren<QGLShaderProgram*>(QString(), Qt::FindDirectChildrenOnly);
        QCOMPARE(programs.size(), 2);
        QCOMPARE(programs.at(0)->shaders(), QList<QGLShader*>({shaders.at(1), shaders.at(2)}));
        QCOMPARE(programs.at(1)->shaders(), QList<QGLShader*>({shaders.at(0), shaders.at(3)}));
        QCOMPARE(programs.at(0)->attributeLocation("vPosition"), 0);
        QCOMPARE(programs.at(0)->attributeLocation("texCoord"), 1);
        QCOMPARE(programs.at(1)->attributeLocation("vertex"), 0);
        QCOMPARE(programs.at(1)->attributeLocation("texCoord"), 1);
    }

    void convertsEveryPixel_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        for (const QSize& size : {QSize(2, 1), QSize(2, 2), QSize(4, 3), QSize(3, 5), QSize(5, 7),
                                  QSize(7, 4), QSize(64, 48), QSize(333, 77), QSize(640, 480),
                                  QSize(1920, 1080), QSize(1920, 1200), QSize(3840, 2160)}) {
            QTest::addRow("%dx%d", size.width(), size.height()) << size.width() << size.height();
        }
    }
    void convertsEveryPixel()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::randomFrame(width, height, 1);
        draw(view, frame);
        const QImage converted = GLWidgetInspector::convertedFrame(view);
        QCOMPARE(converted.size(), QSize(width, height));
        QCOMPARE(viewtest::countWrongPixels(converted, frame, kTolerance), 0);
    }

    // Columns at the left and right edge, even and odd: each with its own chroma and no other's.
    void chromaComesFromTheRightNeighbour()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::plainFrame(4, 2, 128, 128, 128);
        for (int row = 0; row < 2; ++row) {
            frame.bytes[frame.index(0, row) + 1] = 40;   // U of columns 0 and 1
            frame.bytes[frame.index(1, row) + 1] = 200;  // V of columns 0 and 1
            frame.bytes[frame.index(2, row) + 1] = 180;  // U of columns 2 and 3
            frame.bytes[frame.index(3, row) + 1] = 70;   // V of columns 2 and 3
        }
        draw(view, frame);
        const QImage picture = GLWidgetInspector::convertedFrame(view);
        const QRgb left =
            qRgb(229, 107, 0);  // R = 128 + 1.4·72.5, G = 128 + 0.343·87.5 − 0.711·72.5
        const QRgb right = qRgb(47, 151, 221);  // R = 128 − 1.4·57.5, …
        QVERIFY(viewtest::distance(picture.pixel(0, 0), left) <= kTolerance);
        QVERIFY(viewtest::distance(picture.pixel(1, 0), left) <= kTolerance);
        QVERIFY(viewtest::distance(picture.pixel(2, 0), right) <= kTolerance);
        QVERIFY(viewtest::distance(picture.pixel(3, 1), right) <= kTolerance);
    }

    // A pixel of zeros is converted like every other: the shortcut for black never fires.
    void shortcutForBlackNeverFires()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::plainFrame(4, 4, 0, 0, 255);
        draw(view, frame);
        const QImage picture = GLWidgetInspector::convertedFrame(view);
        for (int column = 0; column < 4; ++column) {
            // R = 1.4 · 0.5; G = 0.343 · 0.5 − 0.711 · 0.5 < 0; B = −1.765 · 0.5 < 0
            QVERIFY(viewtest::distance(picture.pixel(column, 1), qRgb(179, 0, 0)) <= kTolerance);
        }
        frame = viewtest::plainFrame(4, 4, 0, 0, 0);
        draw(view, frame);
        // G = 0.343 · 0.5 + 0.711 · 0.5
        QVERIFY(viewtest::distance(GLWidgetInspector::convertedFrame(view).pixel(2, 2),
                                   qRgb(0, 134, 0)) <= kTolerance);
    }

    // No offset for video-range luma.
    void lumaIsFullRange()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        for (const int luma : {0, 16, 128, 235, 255}) {
            Frame frame = viewtest::plainFrame(8, 8, static_cast<std::uint8_t>(luma), 128, 128);
            draw(view, frame);
            QVERIFY(viewtest::distance(GLWidgetInspector::convertedFrame(view).pixel(4, 4),
                                       qRgb(luma, luma, luma)) <= kTolerance);
        }
    }

    void displayShowsTheFrameUpright_data()
    {
        QTest::addColumn<bool>("ratioKept");
        QTest::newRow("letter-boxed") << true;
        QTest::newRow("stretched") << false;
    }
    // Widget and frame of one size. Blocks of one colour, compared at their centres: the
    // anisotropic filter of some renderers blurs edges also where the picture is not scaled.
    void displayShowsTheFrameUpright()
    {
        QFETCH(bool, ratioKept);
        View view(QSize(640, 360) / qApp->devicePixelRatio());
        view.keepRatio(ratioKept);
        QVERIFY(showAndWait(view));
        Frame frame = blockFrame(640, 360, 7);
        drawSettled(view, frame);
        QTRY_COMPARE(countWrongBlocks(viewtest::grabbed(view), frame), 0);
    }

    void letterBoxIsFilledWithTheClearColour()
    {
        View view(QSize(400, 400));
        view.keepRatio(true);
        view.setClearColor(QColor(10, 20, 200));
        QCOMPARE(GLWidgetInspector::clearColor(view), QColor(10, 20, 200));
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::plainFrame(64, 36, 180, 128, 128);
        drawSettled(view, frame);
        const int scale = static_cast<int>(view.devicePixelRatioF());
        QTRY_VERIFY(viewtest::distance(viewtest::grabbed(view).pixel(200 * scale, 200 * scale),
                                       qRgb(180, 180, 180)) <= kTolerance);
        const QImage picture = viewtest::grabbed(view);
        for (const int row : {0, 40, 80, 320, 399}) {
            QCOMPARE(picture.pixel(7 * scale, row * scale), qRgb(10, 20, 200));
        }
        for (const int row : {90, 150, 310}) {
            QVERIFY(viewtest::distance(picture.pixel(0, row * scale), qRgb(180, 180, 180)) <=
                    kTolerance);
        }
    }

    // Without letter-boxing the picture reaches every corner.
    void stretchedPictureCoversTheWidget()
    {
        View view(QSize(400, 400));
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::plainFrame(64, 36, 180, 128, 128);
        drawSettled(view, frame);
        const int last = 400 * static_cast<int>(view.devicePixelRatioF()) - 1;
        QTRY_VERIFY(viewtest::distance(viewtest::grabbed(view).pixel(last / 2, last / 2),
                                       qRgb(180, 180, 180)) <= kTolerance);
        const QImage picture = viewtest::grabbed(view);
        for (const QPoint& corner :
             {QPoint(0, 0), QPoint(last, 0), QPoint(0, last), QPoint(last, last)}) {
            QVERIFY(viewtest::distance(picture.pixel(corner), qRgb(180, 180, 180)) <= kTolerance);
        }
    }

    // Deliberate: the mirror turns the picture by 180° instead of exchanging left and right only.
    void mirrorTurnsThePicture()
    {
        View view(QSize(64, 36) * 4);
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::plainFrame(64, 36, 30, 128, 128);
        for (int row = 0; row < 18; ++row) {
            for (int column = 0; column < 32; ++column) {
                frame.bytes[frame.index(column, row)] = 220;  // upper left
            }
        }
        drawSettled(view, frame);
        view.makeCurrent();
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        view.renderImage(true);
        view.updateGL();
        const int scale = static_cast<int>(view.devicePixelRatioF()) * 4;
        const auto luma = [&](int x, int y) {
            return qGreen(viewtest::grabbed(view).pixel(x * scale, y * scale));
        };
        QTRY_VERIFY(std::abs(luma(48, 27) - 220) <= kTolerance);
        QVERIFY(std::abs(luma(16, 9) - 30) <= kTolerance);
        QVERIFY(std::abs(luma(48, 9) - 30) <= kTolerance);
        QVERIFY(std::abs(luma(16, 27) - 30) <= kTolerance);
    }

    void newSizeMakesNewTextureAndKeepsTheOldOne()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        glRecord().reset();
        Frame small = viewtest::randomFrame(32, 20, 3);
        draw(view, small);
        const GLuint first = GLWidgetInspector::frameTexture(view);
        view.DrawBuffer(small.data());
        QCOMPARE(GLWidgetInspector::frameCounter(view), 2);

        Frame large = viewtest::randomFrame(100, 60, 4);
        draw(view, large);
        QCOMPARE(GLWidgetInspector::frameCounter(view), 1);  // counts anew
        QCOMPARE(
            viewtest::countWrongPixels(GLWidgetInspector::convertedFrame(view), large, kTolerance),
            0);
        QVERIFY(GLWidgetInspector::frameTexture(view) != first);
        // Deliberate: the former texture stays until the context goes.
        QCOMPARE(glRecord().generatedTextures, 2);
        QVERIFY(glRecord().deletedTextures.isEmpty());
        view.makeCurrent();
        QVERIFY(glIsTexture(first));
    }

    void offScreenBufferHasTheFramesSize()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        view.InitGLProcess(1234, 77);
        QCOMPARE(GLWidgetInspector::frameBuffer(view)->size(), QSize(1234, 77));
        QCOMPARE(GLWidgetInspector::frameBuffer(view)->format().textureTarget(),
                 static_cast<GLenum>(GL_TEXTURE_2D));
        QCOMPARE(GLWidgetInspector::frameSize(view), QSize(1234, 77));

        GLint filter = 0;
        GLfloat anisotropy = 0;
        GLfloat largest = 1;
        glGetFloatv(GL_MAX_TEXTURE_MAX_ANISOTROPY_EXT, &largest);
        glBindTexture(GL_TEXTURE_2D, GLWidgetInspector::frameBuffer(view)->texture());
        glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, &filter);
        QCOMPARE(filter, GL_LINEAR);
        glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, &filter);
        QCOMPARE(filter, GL_LINEAR);
        glGetTexParameterfv(GL_TEXTURE_2D, GL_TEXTURE_MAX_ANISOTROPY_EXT, &anisotropy);
        QCOMPARE(anisotropy, largest);
        glBindTexture(GL_TEXTURE_2D, GLWidgetInspector::frameTexture(view));
        for (const GLenum name : {GL_TEXTURE_MAG_FILTER, GL_TEXTURE_MIN_FILTER}) {
            glGetTexParameteriv(GL_TEXTURE_2D, name, &filter);
            QCOMPARE(filter, GL_NEAREST);
        }
        for (const GLenum name : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T}) {
            glGetTexParameteriv(GL_TEXTURE_2D, name, &filter);
            QCOMPARE(filter, GL_CLAMP_TO_EDGE);
        }
        glBindTexture(GL_TEXTURE_2D, 0);
    }

    void hiddenWidgetDropsFrames()
    {
        View view(QSize(320, 180));
        Frame frame = viewtest::randomFrame(32, 20, 5);
        draw(view, frame);  // not shown yet
        QCOMPARE(GLWidgetInspector::frameCounter(view), 0);
        QVERIFY(glRecord().uploads.isEmpty());

        QVERIFY(showAndWait(view));
        draw(view, frame);
        QCOMPARE(GLWidgetInspector::frameCounter(view), 1);
        QCOMPARE(glRecord().uploads, QVector<QSize>({QSize(32, 20)}));

        view.hide();
        view.DrawBuffer(frame.data());
        QCOMPARE(GLWidgetInspector::frameCounter(view), 1);
        QCOMPARE(glRecord().uploads.size(), 1);
        QCOMPARE(glRecord().draws, 2);
    }

    void drawsWithoutOpenGlErrors()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::randomFrame(64, 40, 8);
        draw(view, frame);
        view.makeCurrent();
        QCOMPARE(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    }

    // Every frame restores the widget's viewport through the virtual function, with zeros.
    void eachFrameRestoresTheViewport()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        view.InitGLProcess(32, 20);
        view.resizes.clear();
        glRecord().reset();
        Frame frame = viewtest::randomFrame(32, 20, 9);
        view.DrawBuffer(frame.data());
        const QSize device = QSize(320, 180) * view.devicePixelRatio();
        QCOMPARE(view.resizes, QVector<QSize>({QSize(0, 0)}));
        QCOMPARE(glRecord().viewports,
                 QVector<QRect>({QRect(0, 0, 32, 20), QRect(QPoint(0, 0), device)}));
    }

    // Deliberate: the picture is drawn when a frame arrives and at no other time.
    void exposingDrawsNothing()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::randomFrame(32, 20, 10);
        draw(view, frame);
        const int paints = view.paints;
        glRecord().reset();
        view.update();
        view.repaint();
        view.paintEvent(nullptr);
        QCoreApplication::processEvents();
        QCOMPARE(view.paints, paints);
        view.updateGL();  // swaps
        QCOMPARE(view.paints, paints + 1);
        QCOMPARE(glRecord().draws, 0);
        QCOMPARE(glRecord().clears, 0);
        QVERIFY(glRecord().viewports.isEmpty());
    }

    void clearDisplayFillsTheWidget()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        Frame frame = viewtest::plainFrame(32, 20, 250, 128, 128);
        drawSettled(view, frame);
        view.setClearColor(QColor(90, 30, 60));
        glRecord().reset();
        view.ClearDisplay();
        // Deliberate: widget pixels, whatever the pixel density.
        QCOMPARE(glRecord().viewports, QVector<QRect>({QRect(0, 0, 320, 180)}));
        QCOMPARE(glRecord().clears, 1);
        const int scale = static_cast<int>(view.devicePixelRatioF());
        QTRY_COMPARE(viewtest::grabbed(view).pixel(319 * scale, 179 * scale), qRgb(90, 30, 60));
        QCOMPARE(viewtest::grabbed(view).pixel(0, 0), qRgb(90, 30, 60));

        glRecord().reset();
        view.hide();
        view.ClearDisplay();
        QCOMPARE(glRecord().clears, 0);
    }

    void emptyWidgetIsNotCleared()
    {
        QWidget window;
        window.resize(100, 100);
        View view(QSize(0, 40), &window);
        QVERIFY(showAndWait(window));
        QVERIFY(view.isVisible());
        glRecord().reset();
        view.ClearDisplay();
        QCOMPARE(glRecord().clears, 0);
    }

    void setClearColorSwapsAtOnce()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        const int paints = view.paints;
        view.setClearColor(Qt::darkGreen);
        QCOMPARE(view.paints, paints + 1);
    }

    // The mutex is held while a frame is drawn, and not while the view is set up.
    void drawingHoldsTheMutex()
    {
        View view(QSize(320, 180));
        QVERIFY(showAndWait(view));
        const auto isFree = [&view] {
            const bool taken = view.drawingMutex().tryLock();
            if (taken) {
                view.drawingMutex().unlock();
            }
            return taken;
        };
        QVector<bool> whenDrawing;
        QVector<bool> whenGenerating;
        glRecord().onDraw = [&] { whenDrawing.append(isFree()); };
        glRecord().onGenerate = [&] { whenGenerating.append(isFree()); };
        Frame frame = viewtest::randomFrame(32, 20, 11);
        draw(view, frame);
        QCOMPARE(whenGenerating, QVector<bool>({true}));
        QCOMPARE(whenDrawing, QVector<bool>({false, false}));
        QVERIFY(isFree());
    }

private:
    static const char* const kVertexA;
    static const char* const kVertexB;
    static const char* const kFragmentC;
    static const char* const kFragmentD;
};

const char* const GlWidgetPixelsTest::kVertexA =
    "attribute highp vec4 vertex;\n"
    "attribute mediump vec4 texCoord;\n"
    "varying mediump vec4 texc;\n"
    "uniform mediump mat4 matrix;\n"
    "void main(void)\n"
    "{\n"
    "    gl_Position = matrix * vertex;\n"
    "    texc = texCoord;\n"
    "}\n";

const char* const GlWidgetPixelsTest::kVertexB =
    "attribute highp vec4 vPosition; \n"
    "attribute mediump vec4 texCoord;\n"
    "varying mediump vec4 texc;\n"
    "uniform mediump mat4 matrix;\n"
    "void main(void)\n"
    "{\n"
    "    texc = texCoord;\n"
    "    gl_Position =  matrix * vPosition;\n"
    "}\n";

const char* const GlWidgetPixelsTest::kFragmentC =
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

const char* const GlWidgetPixelsTest::kFragmentD =
    "#version 330 core\n"
    "uniform sampler2D texture;\n"
    "varying mediump vec4 texc;\n"
    "varying vec4 posPos;\n"
    "uniform mediump vec2 u_resolution;\n"
    "void main(void)\n"
    "{\n"
    "gl_FragColor = texture2D(texture, texc.st);\n"
    "}\n";

QTEST_MAIN(GlWidgetPixelsTest)
#include "glwidget_pixels_test.moc"
