# SPDX-License-Identifier: Apache-2.0
"""The program with simulated cameras, and what stands in the corner of their pictures (docs/rig.md)."""
import binascii
import os
import pathlib
import subprocess
import sys

import numpy as np
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("VISTREL_BUILD", ROOT / "build/release"))
sys.path += [str(ROOT / "benchmarks"), str(BUILD / "python")]
from measure import Service  # noqa: E402

__all__ = ["BUILD", "ROOT", "pattern", "service"]


def service(size=(480, 300), fps=30, **more):
    """The program, streaming."""
    checked = subprocess.run([ROOT / "tests/sandbox/run-in-sandbox", "--check"], check=False)
    if checked.returncode:
        pytest.exit("skipped: this machine allows no sandbox", 77)
    return Service(BUILD, size, fps, **more)


def pattern(grey):
    """Counter, serial and capture time (ns) that an eye's picture shows; None when they cannot be read."""
    cell = max(4, grey.shape[1] // 120 // 2 * 2)
    cells = grey[2 * cell:10 * cell, 2 * cell:20 * cell].reshape(8, cell, 18, cell)
    margin = cell // 4
    bits = cells[:, margin:-margin, :, margin:-margin].mean(axis=(1, 3)) > 126
    data = np.packbits(bits.ravel()).tobytes()
    if binascii.crc_hqx(data[:16], 0xFFFF) != int.from_bytes(data[16:], "big"):
        return None
    return tuple(int.from_bytes(data[begin:end], "big") for begin, end in ((0, 4), (4, 8), (8, 16)))
