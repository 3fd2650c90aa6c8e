// SPDX-License-Identifier: Apache-2.0
// Several image views that come and go: none disturbs another, none outlives its window badly.
#include <QOpenGLContext>
#include <QTest>
#include <memory>

#include "tests/ui/glwidget_testing.h"

using viewtest::Frame;

namespace {

std::unique_ptr<GLWidget> shownView(QWidget* parent = nullptr)
{
    auto view = std::make_unique<GLWidget>(parent);
    view->resize(160, 90);
    view->show();
    return view;
}

bool draws(GLWidget& view, Frame frame)
{
    view.DrawBuffer(frame.data());
    return viewtest::countWrongPixels(GLWidgetInspector::convertedFrame(view), frame, 1) == 0;
}

}  // namespace

class GlWidgetLifetimeTest : public QObject {
    Q_OBJECT

private slots:
    void init() { glRecord().reset(); }

    // Deliberate: the view deletes its texture with whatever context is current.
    void destructionMakesNoContextCurrent()
    {
        auto view = shownView();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
        view->InitGLProcess(32, 20);
        const GLuint texture = GLWidgetInspector::frameTexture(*view);
        view->doneCurrent();
        view.reset();
        QCOMPARE(glRecord().deletedTextures.size(), 1);
        QCOMPARE(glRecord().deletedTextures.first().name, texture);
        QVERIFY(glRecord().deletedTextures.first().context == nullptr);
    }

    // Texture names are counted per context: both views have the same ones.
    void destructionSparesTheOtherViewsTexture()
    {
        auto first = shownView();
        auto second = shownView();
        QVERIFY(QTest::qWaitForWindowExposed(second.get()));
        first->InitGLProcess(32, 20);
        second->InitGLProcess(64, 40);
        QCOMPARE(GLWidgetInspector::frameTexture(*first), GLWidgetInspector::frameTexture(*second));
        second->makeCurrent();
        first.reset();
        second->makeCurrent();
        Frame frame = viewtest::randomFrame(64, 40, 1);
        second->DrawBuffer(frame.data());
        second->makeCurrent();
        QVERIFY(glIsTexture(GLWidgetInspector::frameTexture(*second)));
        QVERIFY(draws(*second, viewtest::randomFrame(64, 40, 2)));
        // A texture that was deleted meanwhile would have lost its parameters.
        GLint filter = 0;
        glBindTexture(GL_TEXTURE_2D, GLWidgetInspector::frameTexture(*second));
        glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, &filter);
        QCOMPARE(filter, GL_NEAREST);
    }

    void viewsDrawSideBySide()
    {
        QWidget window;
        window.resize(700, 400);
        std::vector<std::unique_ptr<GLWidget>> views;
        for (int i = 0; i < 4; ++i) {
            views.push_back(std::make_unique<GLWidget>(&window));
            views.back()->setGeometry(170 * i, 0, 160, 90);
        }
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        for (int i = 0; i < 4; ++i) {
            views[static_cast<std::size_t>(i)]->InitGLProcess(32 + 2 * i, 20);
        }
        for (std::uint32_t round = 0; round < 3; ++round) {
            for (int i = 0; i < 4; ++i) {
                QVERIFY(draws(*views[static_cast<std::size_t>(i)],
                              viewtest::randomFrame(32 + 2 * i, 20, round)));
            }
        }
        views[1].reset();
        QVERIFY(draws(*views[2], viewtest::randomFrame(36, 20, 9)));
    }

    void viewsComeAndGo()
    {
        QWidget window;
        window.resize(400, 300);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        auto lasting = shownView(&window);
        lasting->InitGLProcess(48, 30);
        for (std::uint32_t i = 0; i < 20; ++i) {
            auto passing = shownView(&window);
            passing->InitGLProcess(32, 20);
            QVERIFY(draws(*passing, viewtest::randomFrame(32, 20, i)));
            QVERIFY(draws(*lasting, viewtest::randomFrame(48, 30, i)));
            if (i % 2 == 0) {
                passing->makeCurrent();
            }
        }
        QVERIFY(draws(*lasting, viewtest::randomFrame(48, 30, 99)));
    }

    void neverShownViewGoesQuietly()
    {
        for (int i = 0; i < 5; ++i) {
            GLWidget view(nullptr);
            view.InitGLProcess(32, 20);
            view.makeCurrent();
            view.renderImage(false);  // nothing to draw with yet
            QVERIFY(!GLWidgetInspector::hasPrograms(view));
        }
        QCOMPARE(glRecord().draws, 0);
    }

    // The parent's native window, and with it the view's, is gone before the view.
    void viewOutlivesItsNativeWindow()
    {
        class Window : public QWidget {
        public:
            using QWidget::destroy;
        };
        Window window;
        window.resize(300, 200);
        auto view = shownView(&window);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        view->InitGLProcess(32, 20);
        QVERIFY(draws(*view, viewtest::randomFrame(32, 20, 1)));
        view->doneCurrent();
        window.destroy();
        view.reset();
        QCOMPARE(glRecord().deletedTextures.size(), 1);
    }

    void parentTakesTheViewAlong()
    {
        auto window = std::make_unique<QWidget>();
        window->resize(300, 200);
        GLWidget* view = shownView(window.get()).release();
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
        view->InitGLProcess(32, 20);
        QVERIFY(draws(*view, viewtest::randomFrame(32, 20, 1)));
        window.reset();
        QCOMPARE(glRecord().deletedTextures.size(), 1);
    }

    // A frame format without pixels must not bring the program down.
    void emptyFormatIsHarmless()
    {
        auto view = shownView();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
        view->InitGLProcess(0, 0);
        view->DrawBuffer(nullptr);
        view->InitGLProcess(32, 20);
        QVERIFY(draws(*view, viewtest::randomFrame(32, 20, 3)));
    }
};

QTEST_MAIN(GlWidgetLifetimeTest)
#include "glwidget_lifetime_test.moc"
