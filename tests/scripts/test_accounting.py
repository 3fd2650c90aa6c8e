# SPDX-License-Identifier: Apache-2.0
"""Every pair that was due is accounted for (benchmarks/soak)."""
import sys

import pytest
from conftest import SOURCE

sys.path.append(str(SOURCE / "benchmarks"))
import accounting  # noqa: E402

FPS, LEFT, RIGHT = 10, 1, 2
SECOND = 10**9


def at(frame):
    return 1700000000 * SECOND + frame * SECOND // FPS


def skipped(serial, count, before, after):
    return f"[tq_kor] camera S/N {serial} skipped {count} frames between those of {at(before)} and {at(after)}\n"


def lost(serial, frame):
    return f"vistrel.images: [KTCamera] Camera {serial} image of {at(frame)} lost: the receiver was late\n"


def dropped(serial, frame):
    return f"vistrel.images: [VirtualCameraStreamer] Camera {serial} image of {at(frame)} dropped for newer ones\n"


def account(log, joined=100, dropped_before_encoder=0, received=None, packets_lost=0):
    """Pairs 0 to 99 were due, and the first and the last one were received."""
    received = joined - dropped_before_encoder if received is None else received
    return accounting.account(log, {"span": {
        "firstCaptureTime": at(0), "lastCaptureTime": at(99), "firstCounter": 7, "lastCounter": 6 + joined,
        "framesDroppedBySender": dropped_before_encoder, "frames": received},
        "videoPacketsLost": packets_lost}, (LEFT, RIGHT), FPS)


def test_all_received():
    assert (account("").due, account("").unexplained) == (100, 0)


def test_each_eye_by_itself():
    log = (skipped(LEFT, 3, 10, 14) + skipped(RIGHT, 2, 11, 14) + dropped(RIGHT, 11) + lost(LEFT, 20) + dropped(RIGHT, 20))
    result = account(log, joined=96, dropped_before_encoder=6)
    assert [(eye.skipped, eye.lost, eye.dropped) for eye in result.eyes] == [(3, 1, 0), (2, 0, 2)]
    assert (result.lost_on_the_way, result.unexplained) == (0, 0)


def test_outside():
    """Before the first and after the last pair that was received nothing is due."""
    log = skipped(LEFT, 3, -4, 0) + dropped(RIGHT, -1) + lost(LEFT, 100) + skipped(RIGHT, 5, 99, 105) + skipped(9, 5, 3, 9)
    assert account(log).unexplained == 0


@pytest.mark.parametrize("log,joined,unexplained", [
    ("", 99, 1), (dropped(LEFT, 5), 99, 1), (dropped(LEFT, 5) + dropped(RIGHT, 5), 100, -1)])
def test_unexplained(log, joined, unexplained):
    assert account(log, joined).unexplained == unexplained


def test_on_the_way():
    """Only where packets were."""
    assert account("", received=98, packets_lost=5).unexplained == 0
    assert account("", received=98).unexplained == 2
    assert account("", received=101, packets_lost=5).unexplained == -1


def test_lines_at_the_edge_are_told():
    result = account(skipped(LEFT, 4, -3, 5), joined=96)
    assert result.eyes[0].uncertain == 4
