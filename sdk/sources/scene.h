// SPDX-License-Identifier: Apache-2.0
// The simulated scene as one camera sees it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sdk/rig/rig.h"
#include "sdk/sources/chessboard.h"
#include "sdk/sources/framesource.h"

namespace tq {

/// Draws the scene into a ring of buffers. A textured background is drawn once; per frame only
/// the places where objects were are restored and the objects, texts and pattern drawn anew.
class Scene {
public:
    /// @param width  pixels, even
    /// @param eye    where the camera stands; decides the sign of every disparity
    /// @param serial burned in
    /// @param kind   what there is to see
    Scene(int width, int height, rig::Eye eye, int serial,
          rig::SceneKind kind = rig::SceneKind::DISCS);

    /// Draws one frame.
    /// @param counter   frame number to burn in
    /// @param timestamp capture time, ns: burned in, and decides where the objects are
    void render(const FrameBuffer& buffer, std::uint32_t counter, Timestamp timestamp);

private:
    struct Rectangle {
        int x = 0;
        int y = 0;
        int width = 0;
        int height = 0;
    };
    /// A disc that moves on a closed curve.
    struct Object {
        int radius = 0;
        int shift = 0;  // of this eye, pixels to the right, even
        double columnPeriod = 0;
        double rowPeriod = 0;
        double phase = 0;
        std::vector<std::uint8_t> pixels;
        std::vector<std::pair<int, int>> spans;  // first pixel and pixels of every row, even
    };

    void drawBackground();
    void drawSky(int horizon);
    void drawFloor(int horizon);
    void drawPanels();
    void makeObjects();
    void paintObject(Object& object, int index) const;
    Rectangle place(const Object& object, Timestamp time) const;
    void restore(std::uint8_t* pixels, const Rectangle& area) const;
    void draw(std::uint8_t* pixels, const Object& object, const Rectangle& area) const;
    void drawPattern(std::uint8_t* pixels, std::uint32_t counter, Timestamp timestamp) const;
    void drawText(std::uint8_t* pixels, const std::string& text, int line) const;
    std::uint8_t* at(std::uint8_t* pixels, int x, int y) const;
    void put(int x, int y, int luma, int u, int v);

    const int width;
    const int height;
    const int direction;  // +1 for the left eye: near things are seen farther right
    const int serial;
    const int cell;
    const int glyphScale;
    const std::string eyeName;
    std::optional<Chessboard> board;  // instead of everything but the pattern
    std::vector<std::uint8_t> background;
    std::vector<Object> objects;
    std::array<std::vector<Rectangle>, kFrameBuffers> dirty;
    std::array<bool, kFrameBuffers> filled{};
};

}  // namespace tq
