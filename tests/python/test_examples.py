# SPDX-License-Identifier: Apache-2.0
"""The programs of examples/ on simulated cameras whose scenes are known."""
import contextlib
import math
import os
import re
import subprocess
import sys

import cv2
import numpy as np
import pytest
import yaml
from simulated import BUILD, ROOT, service

import vistrel

sys.path += [str(ROOT / "examples")]
import depth  # noqa: E402

SIZE = 960, 600


def example(name, *arguments):
    done = subprocess.run([sys.executable, ROOT / "examples" / name, *map(str, arguments)], text=True,
                          env={**os.environ, "PYTHONPATH": str(BUILD / "python"), "PYTHONDONTWRITEBYTECODE": "1"},
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=240, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.fixture(scope="module")
def program():
    with service(SIZE) as running:
        yield running


def nearest_disc(time):
    """Where the left eye sees the middle of the nearest disc, which nothing hides, and its radius and
    disparity, pixels: as sdk/sources/scene.cpp has it."""
    width, height = SIZE
    radius, shift = 48, 16
    top = width // 120 * 12
    reach = (width - 2 * radius) / 2 - shift, (height - top - 2 * radius) / 2
    across, down = (2 * math.pi * (time / 1e9 % period / period + phase)
                    for period, phase in ((11.5, 0.75), (8.75, 0.375)))
    column = shift + reach[0] * (1 + math.sin(across)) + shift + radius
    return round(column), round(top + reach[1] * (1 + math.sin(down)) + radius), radius, 2 * shift


def test_depth_of_the_simulated_scene(program):
    """The sky is far away; the floor comes nearer from the horizon to the bottom, its grain in whole
    pixels; discs are flat."""
    with vistrel.open(program.url(), timeout=60) as camera:
        # An encoder's first frames are coarse: they lack the grain that is to be matched.
        frame = next(frame for number, frame in enumerate(camera) if number == 30)
    found = depth.disparity(frame.left, frame.right, depth.matcher(SIZE[0]))
    assert found.shape == frame.left.shape
    width, height = SIZE
    horizon = height * 45 // 100
    for row in range(horizon + 60, height - 10, 40):
        expected = 0.04 * width * (row - horizon + 1) / (height - horizon)
        seen = found[row, width // 6:]  # discs hide a part of it
        # The matcher makes steps of what slopes.
        assert 0.88 * expected - 2 < np.nanmedian(seen) < expected + 0.5, row
        assert np.isfinite(seen).mean() > 0.6, row
    assert np.nanmedian(found[110:horizon - 20, width // 6:]) < 1
    x, y, radius, expected = nearest_disc(frame.time_ns)
    disc = found[y - radius // 2:y + radius // 2, x - radius // 2:x + radius // 2]
    if x > 3 * radius:  # else it is at the edge that only the left eye sees
        assert abs(np.nanmedian(disc) - expected) < 0.5


def test_depth_saves_a_picture(program, tmp_path):
    example("depth.py", program.url(), "--save", tmp_path / "depth.png")
    picture = cv2.imread(str(tmp_path / "depth.png"))
    assert picture.shape[0] == SIZE[1] and picture.shape[1] > 3 * SIZE[0]
    # The disparity at the bottom is warm, the left eye is as it came.
    bottom = picture[-60:-20, -SIZE[0] * 3 // 4:].mean(axis=(0, 1))
    assert bottom[2] > bottom[0] + 50


def test_imu_plot(program, tmp_path):
    said = example("imu_plot.py", program.url(), "--seconds", "2", "--save", tmp_path / "imu.png")
    packets, rate, frames = map(float, re.fullmatch(
        r"(\d+) packets, ([0-9.]+) per second, (\d+) frames\n", said).groups())
    assert packets > 200 and abs(rate - 200) < 2 and frames > 20
    assert cv2.imread(str(tmp_path / "imu.png")).std() > 10


def test_calibration_against_known_geometry(tmp_path):
    """docs/rig.md: focal length 0.8 widths, eyes 120 mm apart, parallel."""
    with service(SIZE, more={"scene": "chessboard"}) as program:
        said = example("calibrate.py", program.url(), "--square", "0.04", "--views", "20", "--out", tmp_path)
    assert " of 20 views; reprojection error " in said
    with contextlib.closing(Storage(tmp_path / "stereo.yaml")) as stored:
        assert stored["reprojection_error"] < 0.5
        for eye in "12":
            camera = stored["K" + eye]
            assert np.allclose((camera[0, 0], camera[1, 1]), 0.8 * SIZE[0], rtol=0.01)
            assert np.allclose(camera[:2, 2], ((SIZE[0] - 1) / 2, (SIZE[1] - 1) / 2), atol=8)
        translation = stored["T"].ravel()
        assert np.isclose(np.linalg.norm(translation), 0.12, rtol=0.01)
        assert np.allclose(translation, (-0.12, 0, 0), atol=0.0012)
        assert np.allclose(stored["R"], np.eye(3), atol=0.01)
        assert stored["Q"].shape == (4, 4) and stored["P1"].shape == (3, 4)
    chain = yaml.safe_load((tmp_path / "camchain.yaml").read_text())
    assert list(chain) == ["cam0", "cam1"]
    assert chain["cam0"]["resolution"] == list(SIZE)
    assert (chain["cam0"]["camera_model"], chain["cam0"]["distortion_model"]) == ("pinhole", "radtan")
    assert len(chain["cam1"]["distortion_coeffs"]) == 4
    assert np.allclose(chain["cam1"]["intrinsics"][:2], 0.8 * SIZE[0], rtol=0.01)
    transform = np.array(chain["cam1"]["T_cn_cnm1"])
    assert transform.shape == (4, 4) and np.allclose(transform[:3, 3], translation)


class Storage:
    """A file of OpenCV."""

    def __init__(self, path):
        self.file = cv2.FileStorage(str(path), cv2.FILE_STORAGE_READ)

    def __getitem__(self, name):
        node = self.file.getNode(name)
        return node.real() if node.isReal() else node.mat()

    def close(self):
        self.file.release()


def test_calibration_needs_a_board(program, tmp_path):
    subprocess.run([BUILD / "tools/vistrel-receive", "--quiet", "--frames", "10", "--record",
                    tmp_path / "session.ts", program.url()], check=True, timeout=120)
    with pytest.raises(AssertionError, match="the board was seen in 0 different places only"):
        example("calibrate.py", "--square", "0.04", tmp_path / "session.ts")
