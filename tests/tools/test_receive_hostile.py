# SPDX-License-Identifier: Apache-2.0
"""vistrel-receive against senders that mean harm: it ends in time, in bounded memory, in words."""
import concurrent.futures
import functools
import json
import os
import pathlib
import subprocess
import tempfile
import time

import pytest
from hostile_sender import ATTACKS, AbsurdCounters, BlockedUdp, CorruptedLengths, video

RECEIVE = os.environ["VISTREL_RECEIVE"]
# A sanitizer's own memory is beyond what is judged here.
SANITIZED = bool(os.environ.get("VISTREL_SANITIZED"))
ALLOWED_MB = 4000 if SANITIZED else 200
# What comes while the program is not scheduled, on a busy machine.
OVERSHOOT_MB = 300
# Long after the time that the program is given, for the same reason.
ENDS_S = 120 if SANITIZED else 30
MEDIA = {"UnitWithoutEnd", "FrameWithoutEnd", "UnitsWithoutFrame", "FramesOfGarbage", "Gaps",
         "Future", "ManySources", "ManyReports", "Noise", "SilentAfterPlay", "DropsAfterPlay",
         "DeafAfterPlay"}
CASES = [(name, by) for name in ATTACKS for by in ("tcp", "udp") if by == "tcp" or name in MEDIA]


def attacked(case):
    """Exit status, peak of memory in MB and output of a receiver under attack."""
    name, by = case
    with ATTACKS[name]() as sender, tempfile.TemporaryDirectory(prefix="vistrel-test.") as folder:
        output = pathlib.Path(folder, "output")
        command = [RECEIVE, "-t", str(sender.timeout), "--memory", str(ALLOWED_MB),
                   *(["--tcp"] if by == "tcp" else []), f"rtsp://127.0.0.1:{sender.port}/stereo"]
        with output.open("wb") as out, \
                subprocess.Popen(command, stdout=out, stderr=subprocess.STDOUT) as receiver:
            end = time.monotonic() + ENDS_S
            ended = None
            while ended is None:
                if time.monotonic() > end:
                    receiver.kill()
                if os.waitid(os.P_PID, receiver.pid, os.WEXITED | os.WNOWAIT | os.WNOHANG):
                    ended = os.wait4(receiver.pid, 0)
                    receiver.returncode = os.waitstatus_to_exitcode(ended[1])
                else:
                    time.sleep(0.02)
        return receiver.returncode, ended[2].ru_maxrss // 1000, output.read_text()


@functools.cache
def outcomes():
    """All attacks, some at a time, as most of them wait."""
    with concurrent.futures.ThreadPoolExecutor(6) as pool:
        return dict(zip(CASES, pool.map(attacked, CASES)))


@pytest.mark.parametrize("case", CASES, ids="-".join)
def test_survives(case):
    status, memory, output = outcomes()[case]
    assert status == 1, output
    assert output.startswith("vistrel-receive: "), output
    assert all(character.isprintable() or character == "\n" for character in output), output
    if not SANITIZED:
        assert memory < ALLOWED_MB + OVERSHOOT_MB


def statistics_of(attack, by, folder):
    """Statistics of a receiver that has read some records of an attack."""
    packets, statistics = folder / "packets", folder / "statistics"
    with attack() as sender, subprocess.Popen(
            [RECEIVE, "-q", "-t", "100", "-i", packets, "-j", statistics,
             *(["--tcp"] if by == "tcp" else []),
             f"rtsp://127.0.0.1:{sender.port}/stereo"]) as receiver:
        # Its buffer is written when it is full.
        while receiver.poll() is None and not (packets.exists() and packets.stat().st_size):
            time.sleep(0.05)
        receiver.terminate()
    return json.loads(statistics.read_text())


@pytest.mark.parametrize("by", ["tcp", "udp"])
def test_corrupted_lengths_are_malformed(tmp_path, by):
    statistics = statistics_of(CorruptedLengths, by, tmp_path)
    assert statistics["imuPackets"] > 0
    assert statistics["malformedRecords"] > 0
    assert statistics["frameRecords"] == 0


@pytest.mark.parametrize("by", ["tcp", "udp"])
def test_lost_frames_are_not_absurd(tmp_path, by):
    statistics = statistics_of(AbsurdCounters, by, tmp_path)
    assert statistics["frameRecords"] > 0
    # No more than 1000 for each second that the program can have taken.
    assert statistics["framesLost"] <= 1000 * 101


def test_takes_tcp_where_udp_is_blocked(tmp_path):
    """The streams of the session are chosen a second time then."""
    with BlockedUdp(video(tmp_path, (64, 48))) as sender:
        done = subprocess.run(
            [RECEIVE, "-q", "-t", "50", "-n", "20", f"rtsp://127.0.0.1:{sender.port}/stereo"],
            text=True, capture_output=True, check=False)
    assert done.returncode == 0, done.stderr
