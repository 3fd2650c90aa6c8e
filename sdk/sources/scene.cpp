// SPDX-License-Identifier: Apache-2.0
// Drawing of the simulated scene.
#include "sdk/sources/scene.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "sdk/sources/blockpattern.h"
#include "sdk/sources/glyphs.h"

namespace tq {

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr int kObjects = 4;
constexpr int kTextLines = 3;
constexpr int kTextColumns = 29;
constexpr int kLineAdvance = kGlyphRows + 2;

int even(double value)
{
    return 2 * static_cast<int>(std::lround(value / 2));
}

std::uint32_t hashed(std::uint32_t x, std::uint32_t y)
{
    std::uint32_t value = x * 0x9E3779B1u ^ y * 0x85EBCA77u;
    value = (value ^ (value >> 15)) * 0x2C1B3C6Du;
    return value ^ (value >> 13);
}

/// Smooth noise from 0 to 255 with one grid point per 16 pixels.
int noise(int x, int y)
{
    const auto column = static_cast<std::uint32_t>(x >> 4);
    const auto row = static_cast<std::uint32_t>(y >> 4);
    const int fx = x & 15;
    const int fy = y & 15;
    const auto value = [](std::uint32_t c, std::uint32_t r) {
        return static_cast<int>(hashed(c, r) & 0xFF);
    };
    const int top = value(column, row) * (16 - fx) + value(column + 1, row) * fx;
    const int bottom = value(column, row + 1) * (16 - fx) + value(column + 1, row + 1) * fx;
    return (top * (16 - fy) + bottom * fy) / 256;
}

double turns(Timestamp time, double periodSeconds)
{
    const auto period = static_cast<Timestamp>(periodSeconds * 1e9);
    return static_cast<double>(time % period) / static_cast<double>(period);
}

std::string readableTime(Timestamp time)
{
    const auto seconds = static_cast<time_t>(time / 1000000000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 64> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &utc);
    std::array<char, 96> text{};
    std::snprintf(text.data(), text.size(), "%s.%09u", date.data(),
                  static_cast<unsigned>(time % 1000000000));
    return text.data();
}

}  // namespace

Scene::Scene(int pictureWidth, int pictureHeight, rig::Eye eye, int serialNumber,
             rig::SceneKind kind)
    : width(pictureWidth),
      height(pictureHeight),
      direction(eye == rig::Eye::LEFT ? 1 : -1),
      serial(serialNumber),
      cell(BlockPattern::cellSize(pictureWidth)),
      glyphScale(std::max(1, pictureWidth / 480)),
      eyeName(eye == rig::Eye::LEFT ? "L" : "R"),
      background(static_cast<std::size_t>(pictureWidth) * static_cast<std::size_t>(pictureHeight) *
                 2)
{
    if (kind == rig::SceneKind::CHESSBOARD) {
        board.emplace(width, height, eye);
        return;
    }
    drawBackground();
    makeObjects();
}

std::uint8_t* Scene::at(std::uint8_t* pixels, int x, int y) const
{
    return pixels + (static_cast<std::ptrdiff_t>(y) * width + x) * 2;
}

void Scene::put(int x, int y, int luma, int u, int v)
{
    std::uint8_t* pixel = at(background.data(), x, y);
    pixel[0] = static_cast<std::uint8_t>(luma);
    pixel[1] = static_cast<std::uint8_t>(x % 2 == 0 ? u : v);
}

void Scene::drawBackground()
{
    const int horizon = height * 45 / 100;
    drawSky(horizon);
    drawFloor(horizon);
    drawPanels();
}

void Scene::drawSky(int horizon)
{
    // Far away: both eyes see the same.
    for (int y = 0; y < horizon; ++y) {
        const int brightness = 90 + 90 * y / std::max(1, horizon);
        for (int x = 0; x < width; ++x) {
            put(x, y, brightness + (noise(x, y * 2) - 128) / 4, 140 - 20 * y / horizon, 120);
        }
    }
}

void Scene::drawFloor(int horizon)
{
    // A checkered plane: the nearer a row, the larger its disparity.
    const double depthRows = height - horizon;
    const double largest = 0.02 * width;
    for (int y = horizon; y < height; ++y) {
        const double nearness = (y - horizon + 1) / depthRows;
        const double shift = direction * largest * nearness;
        const int ground = static_cast<int>(4 / nearness);
        const double columnStep = 8.0 / width / nearness;
        double column = (-width / 2.0 - shift) * columnStep;
        for (int x = 0; x < width; ++x, column += columnStep) {
            const bool light = ((static_cast<int>(std::floor(column)) + ground) & 1) != 0;
            const int grain = noise(x - static_cast<int>(shift), y * 3) / 8;
            put(x, y, (light ? 150 : 70) + grain, light ? 120 : 118, light ? 132 : 138);
        }
    }
}

void Scene::drawPanels()
{
    // A dark ground without colour under the pattern and the texts.
    const int textTop = cell;
    const int panels[2][4] = {
        {cell, cell, cell * (BlockPattern::kColumns + 2), cell * (BlockPattern::kRows + 2)},
        {cell * (BlockPattern::kColumns + 4), textTop,
         glyphScale * (kTextColumns * (kGlyphColumns + 1) + 2),
         glyphScale * (kTextLines * kLineAdvance + 2)}};
    for (const auto& panel : panels) {
        for (int y = panel[1]; y < std::min(height, panel[1] + panel[3]); ++y) {
            for (int x = panel[0]; x < std::min(width, panel[0] + panel[2]); ++x) {
                put(x, y, BlockPattern::kBlack, 128, 128);
            }
        }
    }
    drawText(background.data(), "S/N " + std::to_string(serial) + " " + eyeName, 0);
}

void Scene::makeObjects()
{
    // Room for the largest disc, its shift and the panels above.
    const int largestRadius = even(width / 20.0);
    const int top = cell * (BlockPattern::kRows + 4);
    if (largestRadius < 4 || height - top < 3 * largestRadius || width < 8 * largestRadius) {
        return;
    }
    for (int i = 0; i < kObjects; ++i) {
        Object object;
        // Drawn from far to near: nearer discs are larger and have more disparity.
        object.radius = even(largestRadius * (0.55 + 0.15 * i));
        object.shift = direction * even(width * 0.004 * (i + 1));
        object.columnPeriod = 7.0 + 1.5 * i;
        object.rowPeriod = 5.0 + 1.25 * i;
        object.phase = 0.25 * i;
        paintObject(object, i);
        objects.push_back(std::move(object));
    }
}

void Scene::paintObject(Object& object, int index) const
{
    const int diameter = 2 * object.radius;
    object.pixels.resize(static_cast<std::size_t>(diameter) * static_cast<std::size_t>(diameter) *
                         2);
    const int u = 90 + 40 * (index & 1) + 10 * index;
    const int v = 180 - 35 * index;
    for (int y = 0; y < diameter; ++y) {
        const double dy = y + 0.5 - object.radius;
        const int half = even(std::sqrt(object.radius * object.radius - dy * dy));
        object.spans.emplace_back(object.radius - half, 2 * half);
        for (int x = 0; x < diameter; ++x) {
            const double dx = x + 0.5 - object.radius;
            const double light =
                1 - std::hypot(dx + object.radius * 0.3, dy + object.radius * 0.3) /
                        (1.6 * object.radius);
            const bool stripe = ((x + y) / std::max(2, object.radius / 4) & 1) != 0;
            const int luma = static_cast<int>(60 + 140 * std::max(0.0, light)) + (stripe ? 30 : 0);
            std::uint8_t* pixel =
                object.pixels.data() + (static_cast<std::ptrdiff_t>(y) * diameter + x) * 2;
            pixel[0] = static_cast<std::uint8_t>(luma);
            pixel[1] = static_cast<std::uint8_t>(x % 2 == 0 ? u : v);
        }
    }
}

Scene::Rectangle Scene::place(const Object& object, Timestamp time) const
{
    const int diameter = 2 * object.radius;
    const int margin = std::abs(object.shift);
    const int top = cell * (BlockPattern::kRows + 4);
    const double reachX = (width - diameter) / 2.0 - margin;
    const double reachY = (height - top - diameter) / 2.0;
    const double angleX = kTwoPi * (turns(time, object.columnPeriod) + object.phase);
    const double angleY = kTwoPi * (turns(time, object.rowPeriod) + object.phase * 0.5);
    // The shift is added to an even column, so that the disparity is exactly twice the shift.
    const int column = 2 * static_cast<int>((margin + reachX * (1 + std::sin(angleX))) / 2);
    const int row = top + static_cast<int>(reachY * (1 + std::sin(angleY)));
    return {std::clamp(column + object.shift, 0, (width - diameter) / 2 * 2),
            std::clamp(row, 0, height - diameter), diameter, diameter};
}

void Scene::restore(std::uint8_t* pixels, const Rectangle& area) const
{
    auto* clean = const_cast<std::uint8_t*>(background.data());
    for (int y = area.y; y < area.y + area.height; ++y) {
        std::memcpy(at(pixels, area.x, y), at(clean, area.x, y),
                    static_cast<std::size_t>(area.width) * 2);
    }
}

void Scene::draw(std::uint8_t* pixels, const Object& object, const Rectangle& area) const
{
    for (int y = 0; y < area.height; ++y) {
        const auto& [first, count] = object.spans[static_cast<std::size_t>(y)];
        const std::uint8_t* from =
            object.pixels.data() + (static_cast<std::ptrdiff_t>(y) * area.width + first) * 2;
        std::memcpy(at(pixels, area.x + first, area.y + y), from,
                    static_cast<std::size_t>(count) * 2);
    }
}

void Scene::drawPattern(std::uint8_t* pixels, std::uint32_t counter, Timestamp timestamp) const
{
    const int left = 2 * cell;
    const int rowBytes = BlockPattern::kColumns * cell * 2;
    if (left + rowBytes / 2 > width || cell * (2 + BlockPattern::kRows) > height) {
        return;
    }
    const auto cells =
        BlockPattern::encode({counter, static_cast<std::uint32_t>(serial), timestamp});
    for (int row = 0; row < BlockPattern::kRows; ++row) {
        std::uint8_t* first = at(pixels, left, (2 + row) * cell);
        for (int column = 0; column < BlockPattern::kColumns; ++column) {
            const bool white = cells[static_cast<std::size_t>(row) * BlockPattern::kColumns +
                                     static_cast<std::size_t>(column)];
            for (int x = 0; x < cell; ++x) {
                std::uint8_t* pixel = first + (column * cell + x) * 2;
                pixel[0] = white ? BlockPattern::kWhite : BlockPattern::kBlack;
                pixel[1] = 128;
            }
        }
        for (int y = 1; y < cell; ++y) {
            std::memcpy(first + static_cast<std::ptrdiff_t>(y) * width * 2, first,
                        static_cast<std::size_t>(rowBytes));
        }
    }
}

void Scene::drawText(std::uint8_t* pixels, const std::string& text, int line) const
{
    const int left = cell * (BlockPattern::kColumns + 4) + 2 * glyphScale;
    const int top = cell + (line * kLineAdvance + 2) * glyphScale;
    for (int row = 0; row < kGlyphRows * glyphScale; ++row) {
        if (top + row >= height) {
            return;
        }
        int x = left;
        for (const char character : text) {
            const std::uint8_t dots = glyph(character)[static_cast<std::size_t>(row / glyphScale)];
            for (int i = 0; i < kGlyphColumns * glyphScale && x + i < width; ++i) {
                const bool lit = (dots >> (kGlyphColumns - 1 - i / glyphScale) & 1) != 0;
                // Only the luma: the panel below is without colour.
                *at(pixels, x + i, top + row) = lit ? BlockPattern::kWhite : BlockPattern::kBlack;
            }
            x += (kGlyphColumns + 1) * glyphScale;
        }
    }
}

void Scene::render(const FrameBuffer& buffer, std::uint32_t counter, Timestamp timestamp)
{
    if (board) {
        board->draw(buffer.pixels, timestamp);
        drawPattern(buffer.pixels, counter, timestamp);
        return;
    }
    const auto index = static_cast<std::size_t>(buffer.index);
    std::vector<Rectangle>& drawn = dirty[index];
    if (!filled[index]) {
        std::memcpy(buffer.pixels, background.data(), background.size());
        filled[index] = true;
    } else {
        for (const Rectangle& area : drawn) {
            restore(buffer.pixels, area);
        }
    }
    drawn.clear();
    for (const Object& object : objects) {
        drawn.push_back(place(object, timestamp));
        draw(buffer.pixels, object, drawn.back());
    }
    drawPattern(buffer.pixels, counter, timestamp);
    std::array<char, 16> digits{};
    std::snprintf(digits.data(), digits.size(), "%010u", counter);
    drawText(buffer.pixels, digits.data(), 1);
    drawText(buffer.pixels, readableTime(timestamp), 2);
}

}  // namespace tq
