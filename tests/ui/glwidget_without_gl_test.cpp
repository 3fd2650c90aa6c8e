// SPDX-License-Identifier: Apache-2.0
// A desktop without OpenGL: the live picture stays empty and everything else goes on.
#include <QTest>

#include "tests/ui/glwidget_testing.h"

class GlWidgetWithoutGlTest : public QObject {
    Q_OBJECT

private slots:
    void panelWorksWithoutPicture()
    {
        CameraWidget panel(nullptr);
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        GLWidget& view = CameraWidgetInspector::view(panel);
        if (view.isValid()) {
            QSKIP("this platform has OpenGL");
        }
        panel.updateInfos(CameraInfos());
        tq::Mat image;
        image.alloc(64, 40, sdk::kYuyv, sdk::kHostMemory);
        panel.updateImageGL(image);
        panel.updateImageGL(image);
        panel.resize(400, 500);
        view.refreshGL();
        view.setClearColor(Qt::red);
        view.ClearDisplay();
        view.renderImage(false);
        QCOMPARE(GLWidgetInspector::frameCounter(view), 0);
        QVERIFY(glRecord().uploads.isEmpty());
    }
};

QTEST_MAIN(GlWidgetWithoutGlTest)
#include "glwidget_without_gl_test.moc"
