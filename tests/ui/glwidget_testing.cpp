// SPDX-License-Identifier: Apache-2.0
// What the tests of the live picture share.
#include "tests/ui/glwidget_testing.h"

#include <dlfcn.h>

#include <QGLShaderProgram>
#include <QGuiApplication>
#include <QOpenGLContext>
#include <QScreen>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>

GlRecord& glRecord()
{
    static GlRecord record;
    return record;
}

namespace {

template <typename Function>
Function real(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The product's calls of these functions arrive here and are passed on.
extern "C" {

void APIENTRY glViewport(GLint x, GLint y, GLsizei width, GLsizei height)
{
    glRecord().viewports.append(QRect(x, y, width, height));
    real<void (*)(GLint, GLint, GLsizei, GLsizei)>("glViewport")(x, y, width, height);
}

void APIENTRY glGenTextures(GLsizei count, GLuint* names)
{
    if (glRecord().onGenerate) {
        glRecord().onGenerate();
    }
    glRecord().generatedTextures += count;
    real<void (*)(GLsizei, GLuint*)>("glGenTextures")(count, names);
}

void APIENTRY glDeleteTextures(GLsizei count, const GLuint* names)
{
    for (GLsizei i = 0; i < count; ++i) {
        glRecord().deletedTextures.append({names[i], QOpenGLContext::currentContext()});
    }
    real<void (*)(GLsizei, const GLuint*)>("glDeleteTextures")(count, names);
}

void APIENTRY glClear(GLbitfield mask)
{
    if (glRecord().onClear) {
        glRecord().onClear();
    }
    ++glRecord().clears;
    glRecord().calls << QStringLiteral("clear %1").arg(mask, 0, 16);
    real<void (*)(GLbitfield)>("glClear")(mask);
}

void APIENTRY glDrawArrays(GLenum mode, GLint first, GLsizei count)
{
    if (glRecord().onDraw) {
        glRecord().onDraw();
    }
    ++glRecord().draws;
    GLint texture = 0;
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &texture);
    glRecord().calls
        << QStringLiteral("draw %1 %2 %3 of %4").arg(mode).arg(first).arg(count).arg(texture);
    real<void (*)(GLenum, GLint, GLsizei)>("glDrawArrays")(mode, first, count);
}

void APIENTRY glTexImage2D(GLenum target, GLint level, GLint internalFormat, GLsizei width,
                           GLsizei height, GLint border, GLenum format, GLenum type,
                           const void* pixels)
{
    glRecord().uploads.append(QSize(width, height));
    GLint texture = 0;
    GLint alignment = 0;
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &texture);
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    glRecord().lastUpload = {static_cast<GLuint>(texture),
                             level,
                             internalFormat,
                             border,
                             format,
                             type,
                             alignment,
                             pixels};
    real<void (*)(GLenum, GLint, GLint, GLsizei, GLsizei, GLint, GLenum, GLenum, const void*)>(
        "glTexImage2D")(target, level, internalFormat, width, height, border, format, type, pixels);
}

}  // extern "C"

// So do those of the programs, and the wish for a format.
void QGLWidget::setFormat(const QGLFormat& format)
{
    glRecord().format = format;
    real<void (*)(QGLWidget*, const QGLFormat&)>("_ZN9QGLWidget9setFormatERK9QGLFormat")(this,
                                                                                         format);
}

void QGLShaderProgram::setUniformValue(const char* name, GLint value)
{
    glRecord().calls << QStringLiteral("%1 %2").arg(name).arg(value);
    real<void (*)(QGLShaderProgram*, const char*, GLint)>(
        "_ZN16QGLShaderProgram15setUniformValueEPKci")(this, name, value);
}

void QGLShaderProgram::setUniformValue(const char* name, GLfloat x, GLfloat y)
{
    glRecord().calls << QStringLiteral("%1 %2 %3").arg(name).arg(x).arg(y);
    real<void (*)(QGLShaderProgram*, const char*, GLfloat, GLfloat)>(
        "_ZN16QGLShaderProgram15setUniformValueEPKcff")(this, name, x, y);
}

void QGLShaderProgram::setUniformValue(const char* name, const QMatrix4x4& value)
{
    glRecord().calls << QStringLiteral("%1 %2 %3").arg(name).arg(value(0, 0)).arg(value(1, 1));
    real<void (*)(QGLShaderProgram*, const char*, const QMatrix4x4&)>(
        "_ZN16QGLShaderProgram15setUniformValueEPKcRK10QMatrix4x4")(this, name, value);
}

namespace viewtest {

Frame randomFrame(int width, int height, std::uint32_t seed)
{
    Frame frame(width, height);
    std::mt19937 generator(seed);
    std::generate(frame.bytes.begin(), frame.bytes.end(),
                  [&generator] { return static_cast<std::uint8_t>(generator() >> 24); });
    return frame;
}

Frame plainFrame(int width, int height, std::uint8_t y, std::uint8_t u, std::uint8_t v)
{
    Frame frame(width, height);
    for (int row = 0; row < height; ++row) {
        for (int column = 0; column < width; ++column) {
            const std::size_t at = frame.index(column, row);
            frame.bytes[at] = y;
            frame.bytes[at + 1] = column % 2 == 0 ? u : v;
        }
    }
    return frame;
}

QRgb convertedPixel(const Frame& frame, int x, int y)
{
    const bool even = x % 2 == 0;
    const double luma = frame.luma(x, y) / 255.0;
    const double own = frame.chroma(x, y) / 255.0 - 0.5;
    const double other = frame.chroma(even ? x + 1 : x - 1, y) / 255.0 - 0.5;
    const double u = even ? own : other;
    const double v = even ? other : own;
    const auto level = [](double value) {
        return static_cast<int>(std::lround(std::clamp(value, 0.0, 1.0) * 255.0));
    };
    return qRgb(level(luma + 1.4 * v), level(luma - 0.343 * u - 0.711 * v),
                level(luma + 1.765 * u));
}

int distance(QRgb a, QRgb b)
{
    return std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)),
                     std::abs(qBlue(a) - qBlue(b))});
}

int countWrongPixels(const QImage& picture, const Frame& frame, int tolerance)
{
    if (picture.size() != QSize(frame.width, frame.height)) {
        return frame.width * frame.height;
    }
    const QImage rgb = picture.convertToFormat(QImage::Format_RGB32);
    const int definedWidth = frame.width - frame.width % 2;
    int wrong = 0;
    for (int y = 0; y < frame.height; ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(rgb.constScanLine(y));
        for (int x = 0; x < definedWidth; ++x) {
            wrong += distance(line[x], convertedPixel(frame, x, y)) > tolerance ? 1 : 0;
        }
    }
    return wrong;
}

QImage grabbed(const QWidget& widget)
{
    QImage image = QGuiApplication::primaryScreen()->grabWindow(widget.winId()).toImage();
    image.setDevicePixelRatio(1);
    return image;
}

}  // namespace viewtest
