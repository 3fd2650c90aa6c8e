// SPDX-License-Identifier: Apache-2.0
// Where the board is, and how it is drawn.
#include "sdk/sources/chessboard.h"

#include <algorithm>
#include <cmath>

namespace tq {

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kDegree = kTwoPi / 360;
constexpr std::uint8_t kGround = 110;
constexpr int kDark = 40;
constexpr int kLight = 220;
constexpr double kHalfWidth = (Chessboard::kColumns / 2.0 + 1) * Chessboard::kSquare;
constexpr double kHalfHeight = (Chessboard::kRows / 2.0 + 1) * Chessboard::kSquare;

/// Swings between -1 and 1.
double swing(Timestamp time, double periodSeconds)
{
    const auto period = static_cast<Timestamp>(periodSeconds * 1e9);
    return std::sin(kTwoPi * static_cast<double>(time % period) / static_cast<double>(period));
}

std::array<double, 3> cross(const std::array<double, 3>& a, const std::array<double, 3>& b)
{
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

/// Luma of the board at a place, metres from its middle.
int luma(double x, double y)
{
    if (std::abs(x) > kHalfWidth || std::abs(y) > kHalfHeight) {
        return kGround;
    }
    const double column = x / Chessboard::kSquare + Chessboard::kColumns / 2.0;
    const double row = y / Chessboard::kSquare + Chessboard::kRows / 2.0;
    const bool inside =
        column >= 0 && column < Chessboard::kColumns && row >= 0 && row < Chessboard::kRows;
    const bool dark = ((static_cast<int>(column) + static_cast<int>(row)) & 1) == 0;
    return inside && dark ? kDark : kLight;
}

}  // namespace

Chessboard::Chessboard(int pictureWidth, int pictureHeight, rig::Eye eye)
    : width(pictureWidth),
      height(pictureHeight),
      focalLength(kFocalLength * pictureWidth),
      eyeX(eye == rig::Eye::LEFT ? -kBaseline / 2 : kBaseline / 2)
{
}

/// Homogeneous pixel coordinates; pixels are counted by their middles.
Chessboard::Vector Chessboard::project(const Vector& point) const
{
    return {focalLength * point[0] + (width - 1) / 2.0 * point[2],
            focalLength * point[1] + (height - 1) / 2.0 * point[2], point[2]};
}

Chessboard::View Chessboard::view(Timestamp time) const
{
    const double pitch = 35 * kDegree * swing(time, 3.7);
    const double yaw = 35 * kDegree * swing(time, 4.9);
    const double roll = 15 * kDegree * swing(time, 6.1);
    const double distance = 0.75 + 0.2 * swing(time, 5.3);
    // As far to the sides as both eyes see the whole board.
    const double reachX = std::max(0.0, distance / kFocalLength / 2 - kHalfWidth - kBaseline / 2);
    const double reachY = std::max(0.0, distance / kFocalLength / 2 * height / width - kHalfHeight);
    const Vector middle = {reachX * swing(time, 7.3) - eyeX, reachY * swing(time, 3.1), distance};
    // Turned about the axes across, down and ahead, in this order.
    const double sp = std::sin(pitch);
    const double sy = std::sin(yaw);
    const double cy = std::cos(yaw);
    const double sr = std::sin(roll);
    const double cr = std::cos(roll);
    const Vector across = {cr * cy, sr * cy, -sy};
    const Vector down = {cr * sy * sp - sr * std::cos(pitch), sr * sy * sp + cr * std::cos(pitch),
                         cy * sp};
    return {project(across), project(down), project(middle)};
}

void Chessboard::draw(std::uint8_t* yuyv, Timestamp time) const
{
    const View seen = view(time);
    // The inverse matrix but for a factor, which the division below takes out.
    const View back = {cross(seen[1], seen[2]), cross(seen[2], seen[0]), cross(seen[0], seen[1])};
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x, yuyv += 2) {
            int sum = 0;
            for (const double py : {y - 0.25, y + 0.25}) {
                for (const double px : {x - 0.25, x + 0.25}) {
                    const auto along = [px, py](const Vector& row) {
                        return row[0] * px + row[1] * py + row[2];
                    };
                    const double scale = along(back[2]);
                    sum += luma(along(back[0]) / scale, along(back[1]) / scale);
                }
            }
            yuyv[0] = static_cast<std::uint8_t>(sum / 4);
            yuyv[1] = 128;
        }
    }
}

}  // namespace tq
