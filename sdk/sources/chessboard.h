// SPDX-License-Identifier: Apache-2.0
// A chessboard that moves in front of two pinhole cameras, for calibration.
#pragma once

#include <array>
#include <cstdint>

#include "sdk/rig/rig.h"
#include "tq_kor/types.h"

namespace tq {

/// What one camera sees of a board of 10 × 7 squares with a white margin. The cameras are parallel
/// and without distortion, their principal points in the middle of the picture.
class Chessboard {
public:
    static constexpr double kFocalLength = 0.8;  // widths of the picture
    static constexpr double kBaseline = 0.12;    // m
    static constexpr double kSquare = 0.04;      // m
    static constexpr int kColumns = 10;
    static constexpr int kRows = 7;

    /// @param width,height of the picture, pixels; width even
    Chessboard(int width, int height, rig::Eye eye);

    /// Draws one frame.
    /// @param yuyv packed, width × height × 2 bytes
    /// @param time decides where the board is, ns
    void draw(std::uint8_t* yuyv, Timestamp time) const;

private:
    using Vector = std::array<double, 3>;
    /// Columns of the matrix from (across the board, down the board, 1) in metres to pixels.
    using View = std::array<Vector, 3>;

    View view(Timestamp time) const;
    Vector project(const Vector& point) const;

    const int width;
    const int height;
    const double focalLength;  // pixels
    const double eyeX;         // m, from the middle between the eyes
};

}  // namespace tq
