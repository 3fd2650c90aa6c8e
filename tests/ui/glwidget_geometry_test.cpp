// SPDX-License-Identifier: Apache-2.0
// Letter-boxing of the image view and the region of interest that is dragged on it.
#include <QDebug>
#include <QMouseEvent>
#include <QSignalSpy>
#include <QTest>
#include <limits>

#include "tests/ui/glwidget_testing.h"

namespace {

class View : public GLWidget {
public:
    using GLWidget::GLWidget;
    using GLWidget::resizeGL;

    bool press(QPointF at, Qt::MouseButton button = Qt::LeftButton)
    {
        QMouseEvent event(QEvent::MouseButtonPress, at, button, button, Qt::NoModifier);
        mousePressEvent(&event);
        return event.isAccepted();
    }
    bool move(QPointF at, Qt::MouseButtons buttons = Qt::LeftButton)
    {
        QMouseEvent event(QEvent::MouseMove, at, Qt::NoButton, buttons, Qt::NoModifier);
        mouseMoveEvent(&event);
        return event.isAccepted();
    }
    bool release(QPointF at, Qt::MouseButton button = Qt::LeftButton)
    {
        QMouseEvent event(QEvent::MouseButtonRelease, at, button, Qt::NoButton, Qt::NoModifier);
        mouseReleaseEvent(&event);
        return event.isAccepted();
    }
    void drag(QPointF from, QPointF to)
    {
        press(from);
        move(to);
        release(to);
    }
    QRectF rectangle() const { return GLWidgetInspector::displayRectangle(*this); }
    QRect selection() const
    {
        return {GLWidgetInspector::selectionStart(*this), GLWidgetInspector::selectionSize(*this)};
    }
    bool valid() const { return GLWidgetInspector::selectionValid(*this); }
};

// Geometry for a widget size in device pixels.
struct Geometry {
    QRectF rectangle;
    QRect viewport;
};

Geometry geometry(View& view, QSize device, bool mono, bool keepRatio)
{
    view.resize(device / view.devicePixelRatio());
    view.setForMono(mono);
    glRecord().reset();
    view.keepRatio(keepRatio);
    return {view.rectangle(), glRecord().viewports.value(0)};
}

bool near(const QRectF& a, const QRectF& b)
{
    const double tolerance = 1e-4;
    return std::abs(a.x() - b.x()) < tolerance && std::abs(a.y() - b.y()) < tolerance &&
           std::abs(a.width() - b.width()) < tolerance &&
           std::abs(a.height() - b.height()) < tolerance;
}

QByteArray text(const QRectF& rectangle)
{
    QString description;
    QDebug(&description) << rectangle;
    return description.toUtf8();
}

// The signal's four values for a selection, in the float arithmetic that receivers rely on.
QVariantList roi(const QRectF& picture, const QRect& selection)
{
    const auto halfWidth = static_cast<float>(picture.width() * 0.5);
    const auto height = static_cast<float>(picture.height());
    return {static_cast<float>(selection.x() - picture.x()) / halfWidth,
            static_cast<float>(selection.y() - picture.y()) / height,
            static_cast<float>(static_cast<double>(selection.width())) / halfWidth,
            static_cast<float>(static_cast<double>(selection.height())) / height};
}

// Exact, unlike QVariant's own comparison of floating-point values.
bool sameFloats(const QVariantList& a, const QVariantList& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](auto& x, auto& y) {
               const float left = x.toFloat();
               const float right = y.toFloat();
               return std::memcmp(&left, &right, sizeof left) == 0;
           });
}

}  // namespace

class GlWidgetGeometryTest : public QObject {
    Q_OBJECT

private slots:
    void init() { glRecord().reset(); }

    void letterBox_data()
    {
        QTest::addColumn<QSize>("device");
        QTest::addColumn<bool>("mono");
        QTest::addColumn<QRectF>("rectangle");
        QTest::addColumn<QRect>("viewport");
        QTest::newRow("wider than the picture")
            << QSize(1000, 300) << true << QRectF(233.333331, 0, 533.333337, 300)
            << QRect(233, 0, 533, 300);
        QTest::newRow("taller than the picture")
            << QSize(400, 400) << true << QRectF(0, 87.5, 400, 225) << QRect(0, 87, 400, 225);
        QTest::newRow("16:9 in 16:9")
            << QSize(1600, 900) << true << QRectF(0, 0, 1600, 900) << QRect(0, 0, 1600, 900);
        QTest::newRow("pair in 16:9")
            << QSize(1600, 900) << false << QRectF(0, 225, 1600, 450) << QRect(0, 225, 1600, 450);
        QTest::newRow("pair in 32:9")
            << QSize(1280, 360) << false << QRectF(0, 0, 1280, 360) << QRect(0, 0, 1280, 360);
        QTest::newRow("pair, wider")
            << QSize(1200, 100) << false << QRectF(422.222219, 0, 355.555562, 100)
            << QRect(422, 0, 355, 100);
        QTest::newRow("tiny") << QSize(2, 2) << true << QRectF(0, 0.4375, 2, 1.125)
                              << QRect(0, 0, 2, 1);
    }
    void letterBox()
    {
        QFETCH(QSize, device);
        QFETCH(bool, mono);
        QFETCH(QRectF, rectangle);
        QFETCH(QRect, viewport);
        View view(nullptr);
        const Geometry kept = geometry(view, device, mono, true);
        QVERIFY2(near(kept.rectangle, rectangle), text(kept.rectangle).constData());
        QCOMPARE(kept.viewport, viewport);

        // Stretched: the viewport covers the widget, the mouse keeps the letter-boxed picture.
        const Geometry stretched = geometry(view, device, mono, false);
        QVERIFY2(near(stretched.rectangle, rectangle), text(stretched.rectangle).constData());
        QCOMPARE(stretched.viewport, QRect(QPoint(0, 0), device));
    }

    void displayRectangleIsComputedInDouble()
    {
        View view(nullptr);
        const double ratio = static_cast<double>(static_cast<float>(16.0 / 9.0));
        QRectF rectangle = geometry(view, QSize(1000, 300), true, true).rectangle;
        QCOMPARE(rectangle.width(), 300 * ratio);
        QCOMPARE(rectangle.x(), (1000 - 300 * ratio) * 0.5);
        rectangle = geometry(view, QSize(400, 400), true, true).rectangle;
        QVERIFY(rectangle.height() == 400 / ratio);
        QVERIFY(rectangle.y() == (400 - 400 / ratio) * 0.5);
    }

    // A picture of exactly the widget's ratio: its width follows from the height.
    void equalRatioTakesTheWholeWidget()
    {
        View view(nullptr);
        view.resize(QSize(400, 200) / view.devicePixelRatio());
        GLWidgetInspector::setDisplayRatio(view, 2.0F);
        glRecord().reset();
        view.keepRatio(true);
        QVERIFY(view.rectangle() == QRectF(0, 0, 400, 200));
        QCOMPARE(glRecord().viewports, QVector<QRect>({QRect(0, 0, 400, 200)}));
    }

    void emptyWidgetIsHarmless()
    {
        View view(nullptr);
        view.resize(0, 0);
        view.refreshGL();
        QCOMPARE(glRecord().viewports.size(), 1);
        QCOMPARE(glRecord().viewports.first().size(), QSize(0, 0));
    }

    void ratioFollowsTheKindOfPicture()
    {
        View view(nullptr);
        view.setForMono(true);
        QCOMPARE(GLWidgetInspector::displayRatio(view), static_cast<float>(16.0 / 9.0));
        view.setForMono(false);
        QCOMPARE(GLWidgetInspector::displayRatio(view), static_cast<float>(32.0 / 9.0));
    }

    // Deliberate: the kind of picture takes effect with the next computation, not at once.
    void setForMonoDoesNotRecompute()
    {
        View view(nullptr);
        const Geometry pair = geometry(view, QSize(800, 600), false, true);
        glRecord().reset();
        view.setForMono(true);
        QVERIFY(view.rectangle() == pair.rectangle);
        QVERIFY(glRecord().viewports.isEmpty());
        view.refreshGL();
        QVERIFY(near(view.rectangle(), QRectF(0, 75, 800, 450)));
        QCOMPARE(glRecord().viewports, QVector<QRect>({QRect(0, 75, 800, 450)}));
    }

    void refreshKeepsTheFlagAndArgumentsAreIgnored()
    {
        View view(nullptr);
        geometry(view, QSize(800, 600), true, false);
        glRecord().reset();
        view.refreshGL();
        view.resizeGL(1, 2);
        const QRect whole(0, 0, 800, 600);
        QCOMPARE(glRecord().viewports, QVector<QRect>({whole, whole}));
        QVERIFY(!GLWidgetInspector::ratioKept(view));
    }

    void resizingRecomputes()
    {
        View view(nullptr);
        view.setForMono(true);
        view.resize(QSize(640, 480) / view.devicePixelRatio());
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QTRY_VERIFY(near(view.rectangle(), QRectF(0, 60, 640, 360)));
        view.resize(QSize(320, 480) / view.devicePixelRatio());
        QTRY_VERIFY(near(view.rectangle(), QRectF(0, 150, 320, 180)));
    }

    void dragReportsFractionsOfTheLeftHalf_data()
    {
        QTest::addColumn<QSize>("device");
        QTest::addColumn<bool>("mono");
        QTest::addColumn<bool>("keepRatio");
        QTest::newRow("pair") << QSize(1280, 360) << false << true;
        QTest::newRow("mono") << QSize(1000, 300) << true << true;
        QTest::newRow("tall") << QSize(400, 400) << true << true;
        QTest::newRow("stretched") << QSize(400, 400) << true << false;
        QTest::newRow("odd") << QSize(998, 606) << false << true;
    }
    void dragReportsFractionsOfTheLeftHalf()
    {
        QFETCH(QSize, device);
        QFETCH(bool, mono);
        QFETCH(bool, keepRatio);
        View view(nullptr);
        const QRectF picture = geometry(view, device, mono, keepRatio).rectangle;
        QSignalSpy sent(&view, &GLWidget::sendROI);
        QSignalSpy reset(&view, &GLWidget::resetROI);
        const QPoint start = (picture.topLeft() + QPointF(10, 11)).toPoint();
        const QPoint end = start + QPoint(57, 33);
        view.drag(start, end);
        QCOMPARE(sent.size(), 1);
        QVERIFY(reset.isEmpty());
        QCOMPARE(view.selection(), QRect(start, QSize(57, 33)));
        QVERIFY(view.valid());
        QVERIFY(sameFloats(sent.first(), roi(picture, QRect(start, QSize(57, 33)))));
    }

    // The same with a wide-open eye on the arithmetic: numbers worked out by hand.
    void dragInWorkedNumbers()
    {
        View view(nullptr);
        view.resize(QSize(800, 200) / view.devicePixelRatio());
        GLWidgetInspector::setDisplayRatio(view, 2.0F);  // picture 400 × 200 at x = 200
        view.keepRatio(true);
        QSignalSpy sent(&view, &GLWidget::sendROI);
        view.drag(QPointF(250, 50), QPointF(350, 150));
        QVERIFY(sameFloats(sent.takeFirst(), {0.25F, 0.25F, 0.5F, 0.5F}));
        view.drag(QPointF(267, 20), QPointF(300, 60));
        QVERIFY(sameFloats(sent.takeFirst(),
                           {67.0F / 200.0F, 20.0F / 200.0F, 33.0F / 200.0F, 40.0F / 200.0F}));
        // The first pixels outside: right of the half, and below.
        QSignalSpy reset(&view, &GLWidget::resetROI);
        view.press(QPointF(399, 199));
        QCOMPARE(reset.size(), 0);
        view.press(QPointF(400, 199));
        QCOMPARE(reset.size(), 1);
        view.press(QPointF(399, 200));
        QCOMPARE(reset.size(), 2);
    }

    void positionsAreRoundedHalvesUpward()
    {
        View view(nullptr);
        geometry(view, QSize(1280, 360), false, true);
        view.press(QPointF(2.5, 7.49));
        QCOMPARE(view.selection().topLeft(), QPoint(3, 7));
        view.move(QPointF(10.5, 20.5));
        QCOMPARE(view.selection().size(), QSize(8, 14));
        view.move(QPointF(10.4, 20.6));
        QCOMPARE(view.selection().size(), QSize(7, 14));
        view.release(QPointF(10, 20));
        // −0.5 goes up to 0, which is not right of the picture's edge: the start point stays.
        view.press(QPointF(-0.5, 30));
        QCOMPARE(view.selection().topLeft(), QPoint(3, 7));
        view.press(QPointF(0.5, 30));
        QCOMPARE(view.selection().topLeft(), QPoint(1, 30));
    }

    void dragIsClampedToTheLeftHalfAndTheBottom()
    {
        View view(nullptr);
        const QRectF picture = geometry(view, QSize(1000, 300), true, true).rectangle;
        const double right = picture.x() + picture.width() * 0.5;  // 500 or a trifle less
        QSignalSpy sent(&view, &GLWidget::sendROI);
        view.drag(QPointF(300, 100), QPointF(900, 200));
        QCOMPARE(view.selection().size(), QSize(static_cast<int>(right - 300), 100));
        view.drag(QPointF(300, 100), QPointF(400, 299));
        QCOMPARE(view.selection().size(), QSize(100, 199));
        view.drag(QPointF(300, 100), QPointF(400, 1000));
        QCOMPARE(view.selection().size(), QSize(100, 200));
        QVERIFY(sameFloats(sent.last(), roi(picture, QRect(300, 100, 100, 200))));
    }

    void clampedSizesAreTruncated()
    {
        View view(nullptr);
        view.resize(QSize(401, 300) / view.devicePixelRatio());
        GLWidgetInspector::setDisplayRatio(view, 1.0F);
        view.resize(QSize(400, 300) / view.devicePixelRatio());
        GLWidgetInspector::setDisplayRatio(view, 1.25F);
        view.keepRatio(true);  // 375 × 300 at x = 12.5: the half ends at 200
        GLWidgetInspector::setDisplayRatio(view, 1.27F);
        view.keepRatio(true);  // 381 × 300 at x = 9.5
        const QRectF picture = view.rectangle();
        const double right = picture.x() + picture.width() * 0.5;
        view.drag(QPointF(100, 100), QPointF(399, 120));
        QCOMPARE(view.selection().width(), static_cast<int>(right - 100));

        // A picture that ends between two pixels of the widget.
        GLWidgetInspector::setDisplayRatio(view, 1.5F);
        view.resize(QSize(400, 400) / view.devicePixelRatio());
        view.keepRatio(true);  // 400 × 266.67 at y = 66.67: ends at 333.33
        view.drag(QPointF(20, 100), QPointF(60, 398));
        QCOMPARE(view.selection().size(), QSize(40, 233));
    }

    // Deliberate: a rectangle is drawn down and to the right only; otherwise the size stays and
    // the release reports the one before.
    void dragUpOrLeftYieldsNoRectangle()
    {
        View view(nullptr);
        const QRectF picture = geometry(view, QSize(1280, 360), false, true).rectangle;
        QSignalSpy sent(&view, &GLWidget::sendROI);
        view.drag(QPointF(100, 100), QPointF(150, 160));
        for (const QPointF& end : {QPointF(150, 50), QPointF(50, 150), QPointF(50, 50),
                                   QPointF(100, 150), QPointF(150, 100)}) {
            view.drag(QPointF(100, 100), end);
            QVERIFY(!view.valid());
            QVERIFY(sameFloats(sent.last(), roi(picture, QRect(100, 100, 50, 60))));
        }
        QCOMPARE(sent.size(), 6);
    }

    // Deliberate: every release of the left button reports, also after a click.
    void clickReportsTheFormerSize()
    {
        View view(nullptr);
        const QRectF picture = geometry(view, QSize(1280, 360), false, true).rectangle;
        QSignalSpy sent(&view, &GLWidget::sendROI);
        view.press(QPointF(30, 40));
        view.release(QPointF(30, 40));
        QVERIFY(sameFloats(sent.last(), roi(picture, QRect(30, 40, 0, 0))));
        view.drag(QPointF(100, 100), QPointF(150, 160));
        view.press(QPointF(200, 40));
        view.release(QPointF(200, 40));
        QVERIFY(sameFloats(sent.last(), roi(picture, QRect(200, 40, 50, 60))));
    }

    void pressOutsideResetsAndReleaseStillReports()
    {
        View view(nullptr);
        const QRectF picture = geometry(view, QSize(1280, 360), false, true).rectangle;
        QSignalSpy sent(&view, &GLWidget::sendROI);
        QSignalSpy reset(&view, &GLWidget::resetROI);
        view.drag(QPointF(100, 100), QPointF(150, 160));
        view.press(QPointF(640, 100));  // the right half begins here
        QCOMPARE(reset.size(), 1);
        QVERIFY(!GLWidgetInspector::selecting(view));
        view.move(QPointF(700, 200));
        view.release(QPointF(700, 200));
        QCOMPARE(sent.size(), 2);
        QVERIFY(sameFloats(sent.last(), roi(picture, QRect(100, 100, 50, 60))));
        view.press(QPointF(100, 360));  // below
        QCOMPARE(reset.size(), 2);
        view.press(QPointF(639, 359));
        QCOMPARE(reset.size(), 2);
        QVERIFY(GLWidgetInspector::selecting(view));
    }

    // Deliberate: left of and above the picture a drag begins, with the former start point.
    void pressLeftOfOrAboveThePictureKeepsTheStart()
    {
        View view(nullptr);
        geometry(view, QSize(1000, 300), true, true);
        view.drag(QPointF(300, 100), QPointF(350, 150));
        QSignalSpy reset(&view, &GLWidget::resetROI);
        view.press(QPointF(100, 50));  // in the left band
        QVERIFY(GLWidgetInspector::selecting(view));
        QCOMPARE(view.selection().topLeft(), QPoint(300, 100));
        view.press(QPointF(-20, -20));
        QVERIFY(GLWidgetInspector::selecting(view));
        view.press(QPointF(300, 0));  // strictly below the upper edge is asked for
        QCOMPARE(view.selection().topLeft(), QPoint(300, 100));
        QVERIFY(reset.isEmpty());

        geometry(view, QSize(400, 400), true, true);
        view.press(QPointF(150, 50));  // in the upper band
        QCOMPARE(view.selection().topLeft(), QPoint(300, 100));
        view.press(QPointF(150, 88));
        QCOMPARE(view.selection().topLeft(), QPoint(150, 88));
    }

    void otherButtonsResetAndDoNotReport()
    {
        View view(nullptr);
        geometry(view, QSize(1280, 360), false, true);
        QSignalSpy sent(&view, &GLWidget::sendROI);
        QSignalSpy reset(&view, &GLWidget::resetROI);
        for (const Qt::MouseButton button : {Qt::RightButton, Qt::MiddleButton}) {
            view.press(QPointF(100, 100), button);
            view.move(QPointF(200, 200), button);
            view.release(QPointF(200, 200), button);
        }
        QCOMPARE(reset.size(), 2);
        QVERIFY(sent.isEmpty());
        QCOMPARE(view.selection().size(), QSize(0, 0));
    }

    // Deliberate: neither another button nor a press outside ends a drag that has begun.
    void selectingEndsWithALeftReleaseOnly()
    {
        View view(nullptr);
        geometry(view, QSize(1280, 360), false, true);
        view.press(QPointF(100, 100));
        view.press(QPointF(110, 110), Qt::RightButton);
        view.release(QPointF(110, 110), Qt::RightButton);
        view.press(QPointF(1000, 100));
        QVERIFY(GLWidgetInspector::selecting(view));
        QVERIFY(!GLWidgetInspector::selectionDone(view));
        view.release(QPointF(0, 0));
        QVERIFY(!GLWidgetInspector::selecting(view));
        QVERIFY(GLWidgetInspector::selectionDone(view));
        view.press(QPointF(1000, 100));
        QVERIFY(GLWidgetInspector::selectionDone(view));
        view.press(QPointF(100, 100));
        QVERIFY(!GLWidgetInspector::selectionDone(view));
    }

    void movesWithoutADragChangeNothing()
    {
        View view(nullptr);
        geometry(view, QSize(1280, 360), false, true);
        view.move(QPointF(200, 200));
        QCOMPARE(view.selection(), QRect(QPoint(0, 0), QSize(0, 0)));
        QVERIFY(!view.valid());
    }

    // Events go on to the base class, which leaves them to the parent.
    void baseClassGetsEveryEvent()
    {
        View view(nullptr);
        geometry(view, QSize(1280, 360), false, true);
        QVERIFY(!view.press(QPointF(100, 100)));
        QVERIFY(!view.move(QPointF(150, 150)));
        QVERIFY(!view.release(QPointF(150, 150)));
        QVERIFY(!view.press(QPointF(100, 100), Qt::RightButton));
        QVERIFY(!view.release(QPointF(100, 100), Qt::RightButton));
        QVERIFY(!view.press(QPointF(1000, 100)));
    }

    // Deliberate: the picture is measured in device pixels, the mouse in widget pixels, and they
    // are compared as they stand, so that at ratio 2 the whole widget's width can be selected.
    void mouseAndPictureAreComparedAsTheyStand()
    {
        View view(nullptr);
        view.resize(640, 180);
        view.keepRatio(true);
        const int scale = view.devicePixelRatio();
        QCOMPARE(view.rectangle().width(), 640.0 * scale);
        QSignalSpy reset(&view, &GLWidget::resetROI);
        view.press(QPointF(400, 90));
        QCOMPARE(reset.size(), scale == 1 ? 1 : 0);
        if (scale == 2) {
            QSignalSpy sent(&view, &GLWidget::sendROI);
            view.drag(QPointF(320, 90), QPointF(480, 135));
            QVERIFY(sameFloats(sent.last(), {0.5F, 0.25F, 0.25F, 0.125F}));
        }
    }

    // A picture without a size: the fractions are what float division gives.
    void releaseBeforeAnyGeometryDividesByZero()
    {
        const View untouched(nullptr);
        QVERIFY(untouched.rectangle() == QRectF(0, 0, 0, 0));
        View view(nullptr);
        QSignalSpy sent(&view, &GLWidget::sendROI);
        view.release(QPointF(5, 5));
        QVERIFY(qIsNaN(sent.first().at(0).toFloat()));
        QVERIFY(qIsNaN(sent.first().at(3).toFloat()));
    }

    void clickedIsNeverEmitted()
    {
        View view(nullptr);
        geometry(view, QSize(1280, 360), false, true);
        QSignalSpy clicked(&view, &GLWidget::clicked);
        view.drag(QPointF(100, 100), QPointF(150, 160));
        view.press(QPointF(100, 100));
        view.release(QPointF(100, 100));
        QVERIFY(clicked.isEmpty());
    }

    // The same by events that travel through Qt: no move arrives without a button.
    void synthesisedInputTravelsThroughQt()
    {
        View view(nullptr);
        view.resize(640, 180);
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QSignalSpy sent(&view, &GLWidget::sendROI);
        QTest::mousePress(&view, Qt::LeftButton, Qt::NoModifier, QPoint(40, 30));
        QTest::mouseMove(&view, QPoint(80, 60));
        QMouseEvent move(QEvent::MouseMove, QPointF(80, 60), Qt::NoButton, Qt::LeftButton,
                         Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &move);
        QTest::mouseRelease(&view, Qt::LeftButton, Qt::NoModifier, QPoint(80, 60));
        QCOMPARE(sent.size(), 1);
        QVERIFY(sameFloats(sent.first(), roi(view.rectangle(), QRect(40, 30, 40, 30))));
    }
};

QTEST_MAIN(GlWidgetGeometryTest)
#include "glwidget_geometry_test.moc"
