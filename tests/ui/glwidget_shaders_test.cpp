// SPDX-License-Identifier: Apache-2.0
// What the image view reports of its shaders: nothing when they work, four lines each when not.
//
// The program runs itself again, with the argument "--show", on a renderer that refuses GLSL 3.30.
#include <QApplication>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "tests/ui/glwidget_testing.h"

namespace {

constexpr int kFrameDrawn = 42;

// Keeps what was flushed, with a "#" for each time.
class FlushedText : public std::stringbuf {
public:
    std::string text;

protected:
    int sync() override
    {
        text += str() + "#";
        str(std::string());
        return 0;
    }
};

// Shows a view, draws a frame, reports what was flushed to standard output and ends at once.
int showAndVanish()
{
    FlushedText flushed;
    std::cout.rdbuf(&flushed);
    GLWidget view(nullptr);
    view.resize(320, 180);
    view.show();
    if (!QTest::qWaitForWindowExposed(&view)) {
        std::_Exit(EXIT_FAILURE);
    }
    viewtest::Frame frame = viewtest::randomFrame(64, 36, 1);
    view.InitGLProcess(64, 36);
    view.DrawBuffer(frame.data());
    std::fputs(flushed.text.c_str(), stdout);
    std::fflush(stdout);
    std::_Exit(GLWidgetInspector::frameCounter(view) == 1 ? kFrameDrawn : EXIT_FAILURE);
}

struct Outcome {
    int status = -1;
    QString output;
    QString log;
};

Outcome shown(const QProcessEnvironment& environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--show")});
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit) {
        return {};
    }
    return {process.exitCode(), QString::fromLocal8Bit(process.readAllStandardOutput()),
            QString::fromLocal8Bit(process.readAllStandardError())};
}

}  // namespace

class GlWidgetShadersTest : public QObject {
    Q_OBJECT

private slots:
    void workingShadersAreSilent()
    {
        const Outcome outcome = shown(QProcessEnvironment::systemEnvironment());
        QCOMPARE(outcome.status, kFrameDrawn);
        QCOMPARE(outcome.output, QString());
        QCOMPARE(outcome.log, QString());
    }

    void refusedShadersAreReportedAndDrawingGoesOn()
    {
        if (qgetenv("VISTREL_TEST_GL") == "native") {
            QSKIP("only Mesa can be told to refuse GLSL 3.30");
        }
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("MESA_GL_VERSION_OVERRIDE"), QStringLiteral("2.1"));
        environment.insert(QStringLiteral("MESA_GLSL_VERSION_OVERRIDE"), QStringLiteral("120"));
        // A shader that is found in the cache is not compiled again and has no log.
        environment.insert(QStringLiteral("MESA_SHADER_CACHE_DISABLE"), QStringLiteral("true"));
        environment.insert(QStringLiteral("MESA_GLSL_CACHE_DISABLE"), QStringLiteral("true"));
        const Outcome outcome = shown(environment);
        QCOMPARE(outcome.status, kFrameDrawn);

        // Each line ended and flushed. The logs of the programs and of the fragment shaders are the
        // driver's own texts; the vertex shaders are fine.
        const QRegularExpression pattern(
            QStringLiteral("^\\*\\* GLSL FAILURE \\*\\*\n#CVT Program Error : [^#]+\n#"
                           "VS Error : \n#FS Error : [^#]+\n#"
                           "\\*\\* GLSL FAILURE \\*\\*\n#RND Program Error : [^#]+\n#"
                           "VS Error : \n#FS Error : [^#]+\n#$"));
        QVERIFY2(pattern.match(outcome.output).hasMatch(), qPrintable(outcome.output));
        // Each program is linked and bound, whatever came of the first, and bound again to draw;
        // binding tries to link what is not.
        QCOMPARE(outcome.log.count(QStringLiteral("QGLShader::link")), 2 * 3);
    }
};

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    if (argc == 2 && qstrcmp(argv[1], "--show") == 0) {
        return showAndVanish();
    }
    GlWidgetShadersTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "glwidget_shaders_test.moc"
