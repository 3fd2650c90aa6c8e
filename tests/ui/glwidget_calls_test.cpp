// SPDX-License-Identifier: Apache-2.0
// What the image view asks of OpenGL, where no pixel shows it.
#include <QOpenGLContext>
#include <QTest>
#include <memory>

#include "tests/ui/glwidget_testing.h"

using viewtest::Frame;

namespace {

QString clearAll()
{
    return QStringLiteral("clear %1").arg(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT, 0, 16);
}

QString drawQuad(GLuint texture)
{
    return QStringLiteral("draw %1 0 4 of %2").arg(GL_TRIANGLE_FAN).arg(texture);
}

GLint boundTexture()
{
    GLint name = -1;
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &name);
    return name;
}

}  // namespace

class GlWidgetCallsTest : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        glRecord().reset();
        view = std::make_unique<GLWidget>(nullptr);
        view->resize(160, 90);
        view->show();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
    }
    void cleanup() { view.reset(); }

    void programsReadTheFirstTexture()
    {
        QCOMPARE(glRecord().calls.filter("texture"), QStringList({"texture 0", "texture 0"}));
    }

    void setupSwitchesDepthAndTexturesOn()
    {
        view->makeCurrent();
        glDisable(GL_DEPTH_TEST);
        glDisable(GL_TEXTURE_2D);
        view->InitGLProcess(32, 20);
        QVERIFY(glIsEnabled(GL_DEPTH_TEST));
        QVERIFY(glIsEnabled(GL_TEXTURE_2D));
        QCOMPARE(QOpenGLContext::currentContext(), view->context()->contextHandle());
    }

    void setupMakesTheContextCurrentAndLeavesNoTextureBound()
    {
        view->doneCurrent();
        view->InitGLProcess(32, 20);
        QCOMPARE(QOpenGLContext::currentContext(), view->context()->contextHandle());
        QCOMPARE(boundTexture(), 0);
    }

    void offScreenBufferHasNoMipmaps()
    {
        view->InitGLProcess(32, 20);
        const QGLFramebufferObjectFormat format = GLWidgetInspector::frameBuffer(*view)->format();
        QVERIFY(!format.mipmap());
        QCOMPARE(format, QGLFramebufferObjectFormat());
    }

    void frameIsUploadedAsItArrives()
    {
        Frame frame = viewtest::randomFrame(33, 20, 1);
        view->InitGLProcess(33, 20);
        view->doneCurrent();
        view->DrawBuffer(frame.data());
        QCOMPARE(glRecord().uploads, QVector<QSize>({QSize(33, 20)}));
        const GlRecord::Upload& upload = glRecord().lastUpload;
        QCOMPARE(upload.texture, GLWidgetInspector::frameTexture(*view));
        QCOMPARE(upload.level, 0);
        QCOMPARE(upload.internalFormat, static_cast<GLint>(GL_RG));
        QCOMPARE(upload.border, 0);
        QCOMPARE(upload.format, static_cast<GLenum>(GL_RG));
        QCOMPARE(upload.type, static_cast<GLenum>(GL_UNSIGNED_BYTE));
        QCOMPARE(upload.alignment, 1);
        QCOMPARE(upload.pixels, static_cast<const void*>(frame.data()));
    }

    // Clear, convert into the frame buffer, draw from there; nothing stays bound.
    void frameIsDrawnInTwoPasses_data()
    {
        QTest::addColumn<bool>("mirror");
        QTest::newRow("upright") << false;
        QTest::newRow("mirrored") << true;
    }
    void frameIsDrawnInTwoPasses()
    {
        QFETCH(bool, mirror);
        Frame frame = viewtest::randomFrame(32, 20, 2);
        view->InitGLProcess(32, 20);
        QStringList passes{clearAll(),
                           "u_resolution 32 20",
                           "matrix 1 -1",
                           drawQuad(GLWidgetInspector::frameTexture(*view)),
                           "u_resolution 0.03125 0.05",
                           mirror ? "matrix -1 1" : "matrix 1 -1",
                           drawQuad(GLWidgetInspector::frameBuffer(*view)->texture())};
        glRecord().reset();
        if (mirror) {
            view->renderImage(true);
        } else {
            view->DrawBuffer(frame.data());
            passes.prepend(clearAll());
        }
        QCOMPARE(glRecord().calls, passes);
        QCOMPARE(GLWidgetInspector::mirrored(*view), mirror);
        QCOMPARE(boundTexture(), 0);
        GLint program = -1;
        GLint frameBuffer = -1;
        glGetIntegerv(GL_CURRENT_PROGRAM, &program);
        glGetIntegerv(GL_FRAMEBUFFER_BINDING, &frameBuffer);
        QCOMPARE(program, 0);
        QVERIFY(frameBuffer != static_cast<GLint>(GLWidgetInspector::frameBuffer(*view)->handle()));
    }

    // Whatever it was before, the clear colour is the view's own when something is cleared.
    void clearsWithTheClearColour()
    {
        view->setClearColor(QColor(255, 0, 51));
        QVector<QColor> colours;
        glRecord().onClear = [&colours] {
            GLfloat rgba[4];
            glGetFloatv(GL_COLOR_CLEAR_VALUE, rgba);
            colours << QColor::fromRgbF(static_cast<qreal>(rgba[0]), static_cast<qreal>(rgba[1]),
                                        static_cast<qreal>(rgba[2]));
            glClearColor(0, 1, 0, 1);
        };
        Frame frame = viewtest::randomFrame(32, 20, 3);
        view->InitGLProcess(32, 20);
        view->DrawBuffer(frame.data());
        view->ClearDisplay();
        QCOMPARE(colours, QVector<QColor>(3, QColor(255, 0, 51)));
    }

    void clearingIsForColourAndDepth()
    {
        glRecord().reset();
        view->doneCurrent();
        view->ClearDisplay();
        QCOMPARE(glRecord().calls, QStringList({clearAll()}));
        QCOMPARE(QOpenGLContext::currentContext(), view->context()->contextHandle());
    }

    // A frame before any format: it is uploaded nowhere and not drawn, but counted.
    void frameBeforeAnyFormatIsNotDrawn()
    {
        Frame frame = viewtest::randomFrame(32, 20, 6);
        view->DrawBuffer(frame.data());
        QCOMPARE(glRecord().draws, 0);
        QCOMPARE(glRecord().uploads, QVector<QSize>({QSize(-1, -1)}));
        QCOMPARE(GLWidgetInspector::frameCounter(*view), 1);
        view->makeCurrent();
        glGetError();  // the size is none
        view->renderImage(true);
        QCOMPARE(glRecord().draws, 0);
        QVERIFY(!GLWidgetInspector::mirrored(*view));
        view->InitGLProcess(32, 20);
        view->DrawBuffer(frame.data());
        QCOMPARE(glRecord().draws, 2);
        QCOMPARE(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    }

    void geometryMakesTheContextCurrent()
    {
        view->doneCurrent();
        view->refreshGL();
        QCOMPARE(QOpenGLContext::currentContext(), view->context()->contextHandle());
        view->doneCurrent();
        view->keepRatio(true);
        QCOMPARE(QOpenGLContext::currentContext(), view->context()->contextHandle());
    }

private:
    std::unique_ptr<GLWidget> view;
};

QTEST_MAIN(GlWidgetCallsTest)
#include "glwidget_calls_test.moc"
