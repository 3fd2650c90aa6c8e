// SPDX-License-Identifier: Apache-2.0
// Preview panel: texts, layout, the road of a frame to the view, the conversion on the processor.
#include <QLabel>
#include <QOpenGLContext>
#include <QPixmap>
#include <QSet>
#include <QTest>
#include <QVBoxLayout>
#include <algorithm>
#include <random>

#include "tests/sdk_fake/sdk_fake.h"
#include "tests/ui/glwidget_testing.h"
#include "ui/style.h"
#include "ui_camerawidget.h"

namespace {

tq::Mat mat(const std::vector<std::uint8_t>& bytes, int width, int height)
{
    tq::Mat image;
    image.alloc(static_cast<unsigned long>(width), static_cast<unsigned long>(height), sdk::kYuyv,
                sdk::kHostMemory);
    std::copy(bytes.begin(), bytes.end(), image.getPtr<std::uint8_t>(sdk::kHostMemory));
    return image;
}

tq::Mat randomMat(int width, int height, std::uint32_t seed)
{
    return mat(viewtest::randomFrame(width, height, seed).bytes, width, height);
}

QLabel* label(const CameraWidget& panel, const char* name)
{
    return panel.findChild<QLabel*>(QString::fromLatin1(name));
}

CameraInfos infos(int id, std::int64_t serial, int model, int width, int height, int fps)
{
    CameraInfos record;
    record.id = id;
    record.serial_number = serial;
    record.model = static_cast<tq::MODEL>(model);
    record.width = width;
    record.height = height;
    record.fps = fps;
    return record;
}

int clamped(int value)
{
    return std::max(0, std::min(255, value));
}

// One pixel of the conversion on the processor, written from its formulas with floor divisions.
std::array<int, 4> rgba(int y, int u, int v)
{
    const auto shifted = [](int value) {
        return static_cast<int>(std::floor(static_cast<double>(value) / 256.0));
    };
    const int d = u - 128;
    const int e = v - 128;
    return {clamped(shifted(298 * y + 409 * e)), clamped(shifted(298 * y - 100 * d - 516 * e)),
            clamped(shifted(298 * y + 516 * d)), 255};
}

std::array<int, 4> pixelOf(const CameraWidget& panel, int index)
{
    const auto* at =
        CameraWidgetInspector::rgbaImage(panel).getPtr<std::uint8_t>(sdk::kHostMemory) + 4 * index;
    return {at[0], at[1], at[2], at[3]};
}

class Panel : public CameraWidget {
public:
    Panel() : CameraWidget(nullptr) {}
    using CameraWidget::resizeEvent;
};

}  // namespace

class CameraWidgetTest : public QObject {
    Q_OBJECT

private slots:
    void init() { glRecord().reset(); }

    void formHasTheGivenProperties()
    {
        const CameraWidget panel(nullptr);
        QCOMPARE(panel.objectName(), QStringLiteral("CameraWidget"));
        QCOMPARE(panel.size(), QSize(672, 536));
        QCOMPARE(panel.minimumSize(), QSize(200, 300));
        QCOMPARE(panel.windowTitle(), QStringLiteral("KORTSolo Vistrel"));
        QCOMPARE(panel.sizePolicy().horizontalPolicy(), QSizePolicy::Minimum);
        QCOMPARE(panel.sizePolicy().verticalPolicy(), QSizePolicy::Minimum);
        QCOMPARE(panel.sizePolicy().horizontalStretch(), 0);
        QCOMPARE(panel.sizePolicy().verticalStretch(), 0);
        QVERIFY(!panel.sizePolicy().hasHeightForWidth());

        auto* layout = qobject_cast<QVBoxLayout*>(panel.layout());
        QVERIFY(layout != nullptr);
        QCOMPARE(layout->objectName(), QStringLiteral("verticalLayout"));
        QCOMPARE(layout->spacing(), 10);
        QCOMPARE(layout->contentsMargins(), QMargins(0, 0, 0, 0));
        QCOMPARE(layout->count(), 4);
        const char* const names[] = {"cameraTitle", "modelLabel", "resolutionLabel", "imageLabel"};
        for (int i = 0; i < 4; ++i) {
            QCOMPARE(layout->itemAt(i)->widget(), label(panel, names[i]));
        }
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(label(panel, names[i])->minimumSize(), QSize(0, 22));
        }
        QCOMPARE(label(panel, "imageLabel")->styleSheet(), QStringLiteral("background: #050505"));
        QCOMPARE(label(panel, "imageLabel")->alignment(), Qt::AlignCenter);
    }

    void formTakesHeightForWidthOverFromTheWidget()
    {
        QWidget widget;
        QSizePolicy policy;
        policy.setHeightForWidth(true);
        widget.setSizePolicy(policy);
        Ui_CameraWidget form;
        form.setupUi(&widget);
        QVERIFY(widget.sizePolicy().hasHeightForWidth());
        QCOMPARE(widget.sizePolicy().horizontalPolicy(), QSizePolicy::Minimum);
    }

    // The order of the form's members is relied upon: layout, three texts, picture.
    void formMembersStandInOrder()
    {
        QVERIFY(offsetof(Ui_CameraWidget, verticalLayout) == 0 * sizeof(void*));
        QVERIFY(offsetof(Ui_CameraWidget, cameraTitle) == 1 * sizeof(void*));
        QVERIFY(offsetof(Ui_CameraWidget, modelLabel) == 2 * sizeof(void*));
        QVERIFY(offsetof(Ui_CameraWidget, resolutionLabel) == 3 * sizeof(void*));
        QVERIFY(offsetof(Ui_CameraWidget, imageLabel) == 4 * sizeof(void*));
    }

    void textsBeforeAnyCamera()
    {
        const CameraWidget panel(nullptr);
        QCOMPARE(label(panel, "cameraTitle")->text(), QStringLiteral("Camera"));
        QCOMPARE(label(panel, "modelLabel")->text(), QStringLiteral("Model:"));
        QCOMPARE(label(panel, "resolutionLabel")->text(), QStringLiteral("Resolution:"));
    }

    void textsHaveTheFifthFont()
    {
        const CameraWidget panel(nullptr);
        const Style style;
        for (const char* name : {"cameraTitle", "modelLabel", "resolutionLabel"}) {
            const QFont font = label(panel, name)->font();
            QCOMPARE(font.family(), style.fontPreview.family());
            QCOMPARE(font.pointSize(), style.fontPreview.pointSize());
            QCOMPARE(font.weight(), style.fontPreview.weight());
            QCOMPARE(font.styleStrategy(), style.fontPreview.styleStrategy());
            QCOMPARE(font.letterSpacing(), style.fontPreview.letterSpacing());
        }
    }

    void hasNoSignalsOrSlots()
    {
        const QMetaObject& meta = CameraWidget::staticMetaObject;
        QCOMPARE(meta.methodCount(), meta.methodOffset());
    }

    void cameraIsDescribedInThreeLines_data()
    {
        QTest::addColumn<int>("model");
        QTest::addColumn<QString>("name");
        QTest::newRow("4") << 4 << "KOR T";
        QTest::newRow("5") << 5 << "KOR T Mini";
        QTest::newRow("30") << 30 << "KOR T Solo GS";
        QTest::newRow("31") << 31 << "KOR T Solo UHD";
        for (const int model : {0, -1, 6, 29, 32, 1000}) {
            QTest::addRow("%d", model) << model << "N/A";
        }
    }
    void cameraIsDescribedInThreeLines()
    {
        QFETCH(int, model);
        QFETCH(QString, name);
        CameraWidget panel(nullptr);
        panel.updateInfos(infos(3, 30123456789LL, model, 1920, 1200, 60));
        QCOMPARE(label(panel, "cameraTitle")->text(),
                 QStringLiteral("Camera 3 | Serial Number 30123456789"));
        QCOMPARE(label(panel, "modelLabel")->text(), "Model: " + name);
        QCOMPARE(label(panel, "resolutionLabel")->text(),
                 QStringLiteral("Resolution: 1920x1200: 60FPS"));
        QCOMPARE(CameraWidgetInspector::cameraInfos(panel).serial_number, 30123456789LL);
        QCOMPARE(CameraWidgetInspector::cameraInfos(panel).fps, 60);
    }

    void viewIsASinglePictureInTheImageLabel()
    {
        CameraWidget panel(nullptr);
        GLWidget& view = CameraWidgetInspector::view(panel);
        QCOMPARE(view.parentWidget(), label(panel, "imageLabel"));
        QCOMPARE(GLWidgetInspector::displayRatio(view), static_cast<float>(16.0 / 9.0));
        QVERIFY(GLWidgetInspector::ratioKept(view));
        QVERIFY(!view.isHidden());
    }

    // Deliberate: the view has the panel's full size although it begins below the texts.
    void viewTakesThePanelsFullSize()
    {
        CameraWidget panel(nullptr);
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        const GLWidget& view = CameraWidgetInspector::view(panel);
        QCOMPARE(view.geometry(), QRect(0, 0, 672, 536));
        panel.resize(500, 400);
        QTRY_COMPARE(view.geometry(), QRect(0, 0, 500, 400));
        QVERIFY(label(panel, "imageLabel")->height() < 400);
    }

    void resizeEventDecidesAndNotThePanel()
    {
        Panel panel;
        QResizeEvent event(QSize(333, 444), QSize());
        panel.resizeEvent(&event);
        QCOMPARE(CameraWidgetInspector::view(panel).geometry(), QRect(0, 0, 333, 444));
    }

    void viewIsSetUpOncePerSize()
    {
        CameraWidget panel(nullptr);
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        GLWidget& view = CameraWidgetInspector::view(panel);
        glRecord().reset();
        panel.updateImageGL(randomMat(64, 40, 1));
        QCOMPARE(glRecord().generatedTextures, 1);
        panel.updateImageGL(randomMat(64, 40, 2));
        panel.updateImageGL(randomMat(64, 40, 3));
        QCOMPARE(glRecord().generatedTextures, 1);
        QCOMPARE(GLWidgetInspector::frameCounter(view), 3);
        panel.updateImageGL(randomMat(64, 42, 4));
        QCOMPARE(glRecord().generatedTextures, 2);
        panel.updateImageGL(randomMat(66, 42, 5));
        QCOMPARE(glRecord().generatedTextures, 3);
        panel.updateImageGL(randomMat(64, 40, 6));
        QCOMPARE(glRecord().generatedTextures, 4);
        QCOMPARE(GLWidgetInspector::frameCounter(view), 1);
        QCOMPARE(GLWidgetInspector::frameSize(view), QSize(64, 40));
        QCOMPARE(glRecord().uploads.size(), 6);
    }

    // A panel that is not to be seen sets its view up but draws nothing.
    void hiddenPanelDropsFrames()
    {
        CameraWidget panel(nullptr);
        panel.updateImageGL(randomMat(64, 40, 1));
        QVERIFY(glRecord().uploads.isEmpty());
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        panel.updateImageGL(randomMat(64, 40, 2));
        QCOMPARE(glRecord().uploads.size(), 1);
        QCOMPARE(glRecord().generatedTextures, 1);
    }

    void frameIsShownConverted()
    {
        CameraWidget panel(nullptr);
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        viewtest::Frame frame = viewtest::randomFrame(320, 200, 7);
        panel.updateImageGL(mat(frame.bytes, 320, 200));
        QVERIFY(QOpenGLContext::currentContext() == nullptr);
        QCOMPARE(
            viewtest::countWrongPixels(
                GLWidgetInspector::convertedFrame(CameraWidgetInspector::view(panel)), frame, 1),
            0);
    }

    void pictureReachesTheDisplay()
    {
        CameraWidget panel(nullptr);
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        viewtest::Frame frame = viewtest::plainFrame(64, 36, 170, 128, 128);
        for (int i = 0; i < 2; ++i) {  // the renderer may learn the window's size late
            panel.updateImageGL(mat(frame.bytes, 64, 36));
        }
        const QPoint centre(CameraWidgetInspector::view(panel).rect().center());
        const auto scale = static_cast<int>(panel.devicePixelRatioF());
        QTRY_VERIFY(viewtest::distance(
                        viewtest::grabbed(CameraWidgetInspector::view(panel)).pixel(centre * scale),
                        qRgb(170, 170, 170)) <= 1);
    }

    void groundBesideThePictureIsBlack()
    {
        CameraWidget panel(nullptr);
        QCOMPARE(GLWidgetInspector::clearColor(CameraWidgetInspector::view(panel)),
                 QColor(Qt::black));
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        GLWidget& view = CameraWidgetInspector::view(panel);
        for (int i = 0; i < 2; ++i) {  // the renderer may learn the window's size late
            panel.updateImageGL(mat(viewtest::plainFrame(64, 36, 170, 128, 128).bytes, 64, 36));
        }
        // The view is higher than its picture: the bar ends where the picture begins.
        const auto scale = static_cast<int>(panel.devicePixelRatioF());
        const double top = GLWidgetInspector::displayRectangle(view).y() / scale;
        QVERIFY(top > 4);
        const QPoint inBar(view.rect().center().x(), static_cast<int>(top / 2));
        QTRY_COMPARE(viewtest::grabbed(view).pixel(inBar * scale) | 0xFF000000, qRgb(0, 0, 0));
    }

    // A change of size clears the display before the frame, under the view's mutex.
    void changeOfSizeClearsUnderTheMutex()
    {
        CameraWidget panel(nullptr);
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        QMutex& mutex = CameraWidgetInspector::view(panel).drawingMutex();
        QVector<bool> locked;
        glRecord().reset();
        glRecord().onClear = [&] {
            const bool taken = mutex.tryLock();
            if (taken) {
                mutex.unlock();
            }
            locked.append(!taken);
        };
        panel.updateImageGL(randomMat(64, 40, 1));
        // The display, the new frame's ground, the conversion's ground.
        QCOMPARE(locked, QVector<bool>({true, false, true}));
        locked.clear();
        panel.updateImageGL(randomMat(64, 40, 2));
        QCOMPARE(locked, QVector<bool>({false, true}));
    }

    void processorPathFollowsTheFormulas_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<int>("height");
        for (const QSize& size : {QSize(2, 1), QSize(4, 4), QSize(64, 40), QSize(640, 480),
                                  QSize(3, 2), QSize(5, 4), QSize(1, 2)}) {
            QTest::addRow("%dx%d", size.width(), size.height()) << size.width() << size.height();
        }
    }
    void processorPathFollowsTheFormulas()
    {
        QFETCH(int, width);
        QFETCH(int, height);
        CameraWidget panel(nullptr);
        const viewtest::Frame frame = viewtest::randomFrame(width, height, 21);
        panel.updateImage(mat(frame.bytes, width, height));
        const tq::Mat& result = CameraWidgetInspector::rgbaImage(panel);
        QCOMPARE(static_cast<int>(result.getWidth()), width);
        QCOMPARE(static_cast<int>(result.getHeight()), height);
        QCOMPARE(result.getStepBytes(sdk::kHostMemory), static_cast<std::size_t>(width) * 4);
        for (int i = 0; i < width * height; ++i) {
            const std::uint8_t* group = frame.bytes.data() + i / 2 * 4;
            QCOMPARE(pixelOf(panel, i), rgba(group[i % 2 * 2], group[1], group[3]));
        }
    }

    void processorPathCoversEveryColour()
    {
        CameraWidget panel(nullptr);
        std::vector<std::uint8_t> bytes;
        for (int u = 0; u < 256; u += 5) {
            for (int v = 0; v < 256; v += 5) {
                for (const int y : {0, 1, 64, 128, 200, 255}) {
                    for (const int value : {y, u, 255 - y, v}) {
                        bytes.push_back(static_cast<std::uint8_t>(value));
                    }
                }
            }
        }
        const int pixels = static_cast<int>(bytes.size() / 2);
        panel.updateImage(mat(bytes, pixels, 1));
        for (int i = 0; i < pixels; ++i) {
            const std::uint8_t* group = bytes.data() + i / 2 * 4;
            QCOMPARE(pixelOf(panel, i), rgba(group[i % 2 * 2], group[1], group[3]));
        }
    }

    // Deliberate: green takes 516 times V.
    void processorPathInWorkedNumbers()
    {
        CameraWidget panel(nullptr);
        panel.updateImage(mat({100, 138, 200, 148}, 2, 1));
        // 298·100 + 409·20 = 37980; 298·100 − 100·10 − 516·20 = 18480; 298·100 + 516·10 = 34960
        QCOMPARE(pixelOf(panel, 0), (std::array<int, 4>{148, 72, 136, 255}));
        // 298·200 + 8180 = 67780; 298·200 − 11320 = 48280; 298·200 + 5160 = 64760
        QCOMPARE(pixelOf(panel, 1), (std::array<int, 4>{255, 188, 252, 255}));
    }

    void processorPathClampsBlackAndWhite()
    {
        CameraWidget panel(nullptr);
        panel.updateImage(mat({0, 128, 255, 128}, 2, 1));
        QCOMPARE(pixelOf(panel, 0), (std::array<int, 4>{0, 0, 0, 255}));
        QCOMPARE(pixelOf(panel, 1), (std::array<int, 4>{255, 255, 255, 255}));  // 296 each
    }

    // The farthest results on either side, which fit 16 bits with a sign.
    void processorPathClampsExtremes()
    {
        CameraWidget panel(nullptr);
        panel.updateImage(mat({0, 0, 255, 0}, 2, 1));
        QCOMPARE(pixelOf(panel, 0), (std::array<int, 4>{0, 255, 0, 255}));
        QCOMPARE(pixelOf(panel, 1), (std::array<int, 4>{92, 255, 38, 255}));
        panel.updateImage(mat({0, 255, 255, 255}, 2, 1));
        QCOMPARE(pixelOf(panel, 0), (std::array<int, 4>{202, 0, 255, 255}));
        QCOMPARE(pixelOf(panel, 1), (std::array<int, 4>{255, 0, 255, 255}));
    }

    // The last of an odd number of pixels is converted too, with the V of the group before.
    void processorPathWithAnOddNumberOfPixels()
    {
        CameraWidget panel(nullptr);
        panel.updateImage(mat({10, 90, 20, 160, 200, 140}, 3, 1));
        QCOMPARE(pixelOf(panel, 0), rgba(10, 90, 160));
        QCOMPARE(pixelOf(panel, 1), rgba(20, 90, 160));
        QCOMPARE(pixelOf(panel, 2), rgba(200, 140, 160));
        panel.updateImage(mat({77, 140}, 1, 1));
        QCOMPARE(pixelOf(panel, 0), rgba(77, 140, 128));
        const viewtest::Frame frame = viewtest::plainFrame(5, 5, 99, 128, 128);
        panel.updateImage(mat(frame.bytes, 5, 5));
        QCOMPARE(pixelOf(panel, 24), rgba(99, 128, 128));
    }

    void processorPathShowsAPixmap()
    {
        CameraWidget panel(nullptr);
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        QLabel* picture = label(panel, "imageLabel");
        QVERIFY(picture->pixmap(Qt::ReturnByValue).isNull());
        panel.updateImage(randomMat(64, 36, 5));
        const QPixmap shown = picture->pixmap(Qt::ReturnByValue);
        QCOMPARE(shown.size(), QSize(64, 36).scaled(picture->size(), Qt::KeepAspectRatio));
        const std::array<int, 4> first = pixelOf(panel, 0);
        QCOMPARE(shown.toImage().pixel(0, 0) | 0xFF000000, qRgb(first[0], first[1], first[2]));
    }

    // Nearest neighbour: a black and a white pixel give no grey between them.
    void processorPathScalesWithoutSmoothing()
    {
        CameraWidget panel(nullptr);
        panel.updateImage(mat({0, 128, 255, 128}, 2, 1));
        const QImage shown = label(panel, "imageLabel")->pixmap(Qt::ReturnByValue).toImage();
        QVERIFY(shown.width() > 2);
        QSet<int> levels;
        for (int x = 0; x < shown.width(); ++x) {
            levels << qGray(shown.pixel(x, 0));
        }
        QCOMPARE(levels, QSet<int>({0, 255}));
    }

    void processorPathIgnoresAnEmptyImage()
    {
        CameraWidget panel(nullptr);
        panel.updateImage(tq::Mat());
        QCOMPARE(CameraWidgetInspector::rgbaImage(panel).getWidth(), std::size_t(0));
        QVERIFY(label(panel, "imageLabel")->pixmap(Qt::ReturnByValue).isNull());
        panel.updateImage(randomMat(64, 36, 5));
        panel.updateImage(tq::Mat());
        QCOMPARE(CameraWidgetInspector::rgbaImage(panel).getWidth(), std::size_t(64));
    }

    // Freed in both memories and made anew for another width or height, and only then.
    void processorPathKeepsItsBufferForOneSize()
    {
        const QVector<tq::Mat> frames{randomMat(64, 36, 5), randomMat(64, 36, 6),
                                      randomMat(64, 64, 7), randomMat(36, 64, 8)};
        CameraWidget panel(nullptr);
        sdkfake::clearCalls();
        for (const tq::Mat& frame : frames) {
            panel.updateImage(frame);
        }
        QStringList calls;
        for (const std::string& call : sdkfake::callTexts(sdkfake::Image)) {
            calls << QString::fromStdString(call);
        }
        QCOMPARE(calls, QStringList({"Mat.free(3)", "Mat.alloc(64, 36, 7, 1)", "Mat.free(3)",
                                     "Mat.alloc(64, 64, 7, 1)", "Mat.free(3)",
                                     "Mat.alloc(36, 64, 7, 1)"}));
    }

    // The view is asked for a repaint, although it paints nothing then, deliberately.
    void frameAsksForARepaint()
    {
        class Paints : public QObject {
        public:
            int count = 0;
            bool eventFilter(QObject*, QEvent* event) override
            {
                count += event->type() == QEvent::Paint ? 1 : 0;
                return false;
            }
        };
        CameraWidget panel(nullptr);
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        panel.updateImageGL(randomMat(64, 40, 1));
        QCoreApplication::processEvents();
        Paints paints;
        CameraWidgetInspector::view(panel).installEventFilter(&paints);
        panel.updateImageGL(randomMat(64, 40, 2));
        QTRY_VERIFY(paints.count > 0);
    }

    void panelsComeAndGo()
    {
        QWidget window;
        window.resize(800, 600);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        for (std::uint32_t i = 0; i < 10; ++i) {
            CameraWidget first(&window);
            CameraWidget second(&window);
            first.show();
            second.show();
            first.updateImageGL(randomMat(64, 40, i));
            second.updateImageGL(randomMat(32, 20, i));
            QCOMPARE(GLWidgetInspector::frameCounter(CameraWidgetInspector::view(first)), 1);
        }
    }
};

QTEST_MAIN(CameraWidgetTest)
#include "camerawidget_test.moc"
