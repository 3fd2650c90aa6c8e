// SPDX-License-Identifier: Apache-2.0
// What the tests of the live picture share: a look inside, a record of the OpenGL calls, a
// reference conversion and frames to show.
#pragma once

#include <QGLFormat>
#include <QGLFramebufferObject>
#include <QImage>
#include <QRect>
#include <QRectF>
#include <QStringList>
#include <QVector>
#include <cstdint>
#include <functional>
#include <vector>

#include "ui/camerawidget.h"
#include "ui/glwidget.h"

/// Reads the view's members.
class GLWidgetInspector {
public:
    static int frameCounter(const GLWidget& view) { return view.frameCounter; }
    static QSize frameSize(const GLWidget& view) { return {view.frameWidth, view.frameHeight}; }
    static GLuint frameTexture(const GLWidget& view) { return view.frameTexture; }
    static float displayRatio(const GLWidget& view) { return view.displayRatio; }
    static void setDisplayRatio(GLWidget& view, float ratio) { view.displayRatio = ratio; }
    static bool ratioKept(const GLWidget& view) { return view.ratioKept; }
    static QColor clearColor(const GLWidget& view) { return view.clearColor; }
    static QRectF displayRectangle(const GLWidget& view) { return view.displayRectangle; }
    static bool selecting(const GLWidget& view) { return view.selecting; }
    static bool selectionValid(const GLWidget& view) { return view.selectionValid; }
    static bool selectionDone(const GLWidget& view) { return view.selectionDone; }
    static QPoint selectionStart(const GLWidget& view) { return view.selectionStart; }
    static QSize selectionSize(const GLWidget& view) { return view.selectionSize; }
    static QGLFramebufferObject* frameBuffer(const GLWidget& view)
    {
        return view.frameBuffer.get();
    }
    static bool mirrored(const GLWidget& view) { return view.mirrored; }
    static QMatrix4x4 matrix(const GLWidget& view) { return view.matrix; }
    static bool hasPrograms(const GLWidget& view)
    {
        return view.conversionProgram != nullptr && view.displayProgram != nullptr;
    }
    static QVector<QVector3D> vertices(const GLWidget& view) { return view.vertices; }
    static QVector<QVector2D> textureCoordinates(const GLWidget& view)
    {
        return view.textureCoordinates;
    }

    /// The frame last converted, upright. Leaves the context current.
    static QImage convertedFrame(GLWidget& view)
    {
        view.makeCurrent();
        return view.frameBuffer->toImage();
    }
};

/// Reads the panel's members.
class CameraWidgetInspector {
public:
    static GLWidget& view(const CameraWidget& panel) { return *panel.view; }
    static const tq::Mat& rgbaImage(const CameraWidget& panel) { return *panel.rgbaImage; }
    static const CameraInfos& cameraInfos(const CameraWidget& panel) { return panel.cameraInfos; }
};

/// OpenGL calls made by the product since reset(); what Qt itself calls is not in it. The calls
/// are carried out all the same.
struct GlRecord {
    struct Deletion {
        GLuint name;
        const void* context;  ///< QOpenGLContext that was current
    };

    struct Upload {
        GLuint texture;  ///< the one that was bound
        GLint level, internalFormat, border;
        GLenum format, type;
        GLint alignment;  ///< of the rows
        const void* pixels;
    };

    QVector<QRect> viewports;
    QVector<QSize> uploads;
    Upload lastUpload{};
    QVector<Deletion> deletedTextures;
    int generatedTextures = 0;
    int clears = 0;
    int draws = 0;
    QGLFormat format;   ///< the last one that a view asked for
    QStringList calls;  ///< clears with masks, drawings, and what the programs are told, in order

    std::function<void()> onGenerate;  ///< called before a texture name is generated
    std::function<void()> onClear;     ///< called before a clear
    std::function<void()> onDraw;      ///< called before the quad is drawn

    void reset() { *this = GlRecord(); }
};

/// The one record of this process.
GlRecord& glRecord();

namespace viewtest {

/// Packed YUYV frame.
struct Frame {
    Frame(int widthPixels, int heightPixels)
        : width(widthPixels),
          height(heightPixels),
          bytes(static_cast<std::size_t>(widthPixels) * static_cast<std::size_t>(heightPixels) * 2)
    {
    }

    char* data() { return reinterpret_cast<char*>(bytes.data()); }
    std::uint8_t luma(int x, int y) const { return bytes[index(x, y)]; }
    std::uint8_t chroma(int x, int y) const { return bytes[index(x, y) + 1]; }
    std::size_t index(int x, int y) const
    {
        return (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                static_cast<std::size_t>(x)) *
               2;
    }

    int width;
    int height;
    std::vector<std::uint8_t> bytes;
};

/// Every byte random, from a seed.
Frame randomFrame(int width, int height, std::uint32_t seed);

/// One colour all over.
Frame plainFrame(int width, int height, std::uint8_t y, std::uint8_t u, std::uint8_t v);

/// What the view's conversion has to give for one pixel, written from its formulas.
QRgb convertedPixel(const Frame& frame, int x, int y);

/// Largest difference of one channel.
int distance(QRgb a, QRgb b);

/// Number of pixels of @p picture that are more than @p tolerance off; pixels whose chroma
/// partner lies outside the frame have no defined colour and are left out.
int countWrongPixels(const QImage& picture, const Frame& frame, int tolerance);

/// What the display shows of a window, device pixels.
QImage grabbed(const QWidget& widget);

}  // namespace viewtest
