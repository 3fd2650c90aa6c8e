#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Calibrates a stereo camera from a chessboard that is moved in front of it.

    examples/calibrate.py rtsp://localhost:30000/stereo --square 0.04

Move the board slowly through the whole picture, near and far, and tilt it to all sides. A view is taken
when both eyes see the board, and it is where it was in no view before. When there are enough, the
result is written: stereo.yaml for OpenCV (cv2.FileStorage), camchain.yaml as Kalibr writes it.
"""
import argparse
import sys

import cv2
import numpy as np

import vistrel

SPREAD = 0.04  # how far a corner must have moved from each view before, in widths of the picture


def corners(grey, size):
    """Inner corners of the board, (n, 2) pixels, or None."""
    # On a small picture first: one without a board takes longest.
    scale = max(1, grey.shape[1] / 640)
    small = cv2.resize(grey, None, fx=1 / scale, fy=1 / scale, interpolation=cv2.INTER_AREA)
    found, places = cv2.findChessboardCorners(
        small, size, flags=cv2.CALIB_CB_ADAPTIVE_THRESH | cv2.CALIB_CB_NORMALIZE_IMAGE | cv2.CALIB_CB_FAST_CHECK)
    if not found:
        return None
    places = (places + 0.5) * np.float32(scale) - 0.5
    # Windows that do not reach the next corner.
    points = places.reshape(size[1], size[0], 2)
    step = min(np.linalg.norm(np.diff(points, axis=axis), axis=2).min() for axis in (0, 1))
    window = int(min(11, max(2, step / 2.5)))
    criteria = (cv2.TERM_CRITERIA_EPS | cv2.TERM_CRITERIA_COUNT, 50, 0.001)
    return cv2.cornerSubPix(grey, np.ascontiguousarray(places), (window, window), (-1, -1), criteria).reshape(-1, 2)


def is_new(view, views, width):
    """Whether a view is unlike all before: a corner of the board has moved far enough."""
    outer = [0, -1]
    return all(np.linalg.norm((view - old)[outer], axis=1).max() > SPREAD * width for old in views)


def collect(address, size, wanted):
    """Corners of both eyes in so many views, and the size of the picture. Ends with the file."""
    lefts, rights, shape = [], [], None
    with vistrel.open(address) as camera:
        for frame in iter(camera.read_latest, None):
            shape = frame.left.shape[::-1]
            left = corners(frame.left, size)
            if left is None or not is_new(left, lefts, shape[0]):
                continue
            right = corners(frame.right, size)
            if right is None:
                continue
            lefts.append(left)
            rights.append(right)
            print(f"\rview {len(lefts)} of {wanted}", end="", file=sys.stderr, flush=True)
            if len(lefts) == wanted:
                break
    print(file=sys.stderr)
    return lefts, rights, shape


def calibrate(lefts, rights, shape, size, square):
    """Cameras, their distortion, and where the right one is, from corners in pixels. The first error is
    that of both cameras together, the others of each alone (root mean square, pixels)."""
    board = np.zeros((size[0] * size[1], 3), np.float32)
    board[:, :2] = np.mgrid[:size[0], :size[1]].T.reshape(-1, 2) * square
    boards = [board] * len(lefts)
    singles = [cv2.calibrateCameraExtended(boards, views, shape, None, None, flags=cv2.CALIB_FIX_K3)
               for views in (lefts, rights)]
    # A view whose corners were found badly would spoil the rest.
    errors = np.maximum(*(single[-1].ravel() for single in singles))
    good = np.flatnonzero(errors <= 2.5 * np.median(errors))
    if len(good) < len(boards):
        return calibrate([lefts[i] for i in good], [rights[i] for i in good], shape, size, square)
    error, *cameras, rotation, translation, _, _ = cv2.stereoCalibrate(
        boards, lefts, rights, singles[0][1], singles[0][2], singles[1][1], singles[1][2], shape,
        flags=cv2.CALIB_USE_INTRINSIC_GUESS | cv2.CALIB_FIX_K3)
    return {"views": len(boards), "errors": [error, singles[0][0], singles[1][0]], "size": shape,
            "matrices": cameras[0::2], "distortions": [each.ravel()[:4] for each in cameras[1::2]],
            "rotation": rotation, "translation": translation.ravel()}


def write_opencv(path, result):
    """With rectification, for cv2.initUndistortRectifyMap and cv2.reprojectImageTo3D."""
    (k1, k2), (d1, d2) = result["matrices"], result["distortions"]
    r1, r2, p1, p2, q, _, _ = cv2.stereoRectify(k1, d1, k2, d2, result["size"], result["rotation"],
                                                result["translation"])
    file = cv2.FileStorage(str(path), cv2.FILE_STORAGE_WRITE)
    if not file.isOpened():
        raise OSError(f"{path}: cannot be written")
    file.write("image_width", result["size"][0])
    file.write("image_height", result["size"][1])
    file.write("reprojection_error", result["errors"][0])
    for name, value in dict(K1=k1, D1=d1, K2=k2, D2=d2, R=result["rotation"], T=result["translation"], R1=r1,
                            R2=r2, P1=p1, P2=p2, Q=q).items():
        file.write(name, value)
    file.release()


def write_kalibr(path, result):
    """T_cn_cnm1 takes points from the left camera's frame to the right one's."""
    def row(values):
        return "[" + ", ".join(repr(float(value)) for value in values) + "]"

    transform = np.eye(4)
    transform[:3, :3], transform[:3, 3] = result["rotation"], result["translation"]
    lines = []
    for index, (matrix, distortion) in enumerate(zip(result["matrices"], result["distortions"])):
        lines += [f"cam{index}:", f"  cam_overlaps: [{1 - index}]", "  camera_model: pinhole",
                  f"  distortion_coeffs: {row(distortion)}", "  distortion_model: radtan",
                  f"  intrinsics: {row([matrix[0, 0], matrix[1, 1], matrix[0, 2], matrix[1, 2]])}",
                  f"  resolution: [{result['size'][0]}, {result['size'][1]}]",
                  f"  rostopic: /cam{index}/image_raw"]
        if index == 1:
            lines += ["  T_cn_cnm1:", *(f"  - {row(each)}" for each in transform)]
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(lines) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add = parser.add_argument
    add("address", help="rtsp:// address, or FILE.ts")
    add("--corners", default="9x6", metavar="NxM", help="inner corners of the board, default %(default)s")
    add("--square", type=float, required=True, metavar="M", help="edge of a square in metres")
    add("--views", type=int, default=25, metavar="N", help="default %(default)s")
    add("--out", default=".", metavar="DIR", help="where the files go, default here")
    options = parser.parse_args()
    size = tuple(int(number) for number in options.corners.split("x"))
    lefts, rights, shape = collect(options.address, size, options.views)
    if len(lefts) < 5:
        sys.exit(f"calibrate.py: the board was seen in {len(lefts)} different places only; 5 are the least")
    result = calibrate(lefts, rights, shape, size, options.square)
    both, left, right = result["errors"]
    print(f"{result['views']} of {len(lefts)} views; reprojection error {both:.3f} pixels (left {left:.3f}, right {right:.3f})")
    for name, matrix in zip(("left", "right"), result["matrices"]):
        print(f"{name}: focal length {matrix[0, 0]:.1f}, {matrix[1, 1]:.1f} pixels, "
              f"principal point {matrix[0, 2]:.1f}, {matrix[1, 2]:.1f}")
    print(f"baseline: {np.linalg.norm(result['translation']) * 1000:.2f} mm")
    write_opencv(f"{options.out}/stereo.yaml", result)
    write_kalibr(f"{options.out}/camchain.yaml", result)


if __name__ == "__main__":
    try:
        main()
    except (vistrel.Error, KeyboardInterrupt, OSError) as problem:
        sys.exit(f"calibrate.py: {problem}")
