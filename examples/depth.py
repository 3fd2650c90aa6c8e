#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Shows the disparity of a stereo stream or recorded file: near things are warm, far ones cold.

    examples/depth.py rtsp://localhost:30000/stereo

Opens a window (Esc or q ends it), or writes one picture with --save and ends. The pair is taken to be
rectified, as the simulated cameras are; of others, rectify the eyes first, with what
examples/calibrate.py finds.
"""
import argparse
import sys

import cv2
import numpy as np

import vistrel


def matcher(width):
    """Semi-global matching, for disparities up to 1/15 of the width."""
    most = max(16, round(width / 15 / 16) * 16)
    return cv2.StereoSGBM_create(
        minDisparity=0, numDisparities=most, blockSize=5, P1=8 * 25, P2=32 * 25, disp12MaxDiff=1,
        uniquenessRatio=5, speckleWindowSize=100, speckleRange=2, mode=cv2.STEREO_SGBM_MODE_SGBM_3WAY)


def disparity(left, right, matching):
    """Pixels by which things are farther left for the right eye, (height, width) of float32; NaN where
    it is not known."""
    # Beyond the left edge the right eye sees nothing, and the matcher would leave out as much inside.
    edge = matching.getNumDisparities()
    wider = [cv2.copyMakeBorder(eye, 0, 0, edge, 0, cv2.BORDER_REPLICATE) for eye in (left, right)]
    found = matching.compute(*wider)[:, edge:].astype(np.float32) / 16
    found[found < 0] = np.nan
    return found


def colors(found, most):
    """A picture of disparities from 0 to most: blue, green, red. What is not known is dark."""
    scaled = np.nan_to_num(found * (255 / most)).clip(0, 255).astype(np.uint8)
    picture = cv2.applyColorMap(scaled, cv2.COLORMAP_TURBO)
    picture[np.isnan(found)] = 24
    return picture


def beside(frame, found, most):
    """The left eye, the right eye and the disparity in a row, with a little space between."""
    space = np.full((found.shape[0], max(4, found.shape[1] // 100), 3), 255, np.uint8)
    return np.hstack([frame.left, space, frame.right, space, colors(found, most)])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("address", help="rtsp:// address, or FILE.ts")
    parser.add_argument("--save", metavar="FILE", help="write a picture (PNG or JPEG) and end")
    parser.add_argument("--range", type=float, metavar="PIXELS", help="disparity that is shown in the warmest "
                        "colour, default 1/24 of the width")
    options = parser.parse_args()
    matching = None
    with vistrel.open(options.address, color=True) as camera:
        # Matching takes longer than a frame lasts: the newest, so that the picture does not lag.
        for frame in iter(camera.read_latest, None):
            width = frame.left.shape[1]
            matching = matching or matcher(width)
            found = disparity(*(cv2.cvtColor(eye, cv2.COLOR_BGR2GRAY) for eye in (frame.left, frame.right)),
                              matching)
            picture = beside(frame, found, options.range or width / 24)
            if options.save:
                if not cv2.imwrite(options.save, picture):
                    sys.exit(f"{options.save}: cannot be written")
                break
            cv2.imshow("left, right, disparity", picture)
            if cv2.waitKey(1) in (27, ord("q")):
                break


if __name__ == "__main__":
    try:
        main()
    except (vistrel.Error, KeyboardInterrupt) as problem:
        sys.exit(f"depth.py: {problem}")
