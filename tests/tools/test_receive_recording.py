# SPDX-License-Identifier: Apache-2.0
"""Files of vistrel-receive that fail while they are written."""
import os
import shutil
import subprocess

import pytest
from hostile_sender import Video, video

RECEIVE = os.environ["VISTREL_RECEIVE"]


def receive(sender, *options):
    return subprocess.run(
        [RECEIVE, "--tcp", "-t", "50", *options, f"rtsp://127.0.0.1:{sender.port}/stereo"],
        text=True, capture_output=True, check=False, timeout=200)


@pytest.mark.parametrize("option", ["--record", "--imu", "--snapshot", "--json"])
def test_full_disk(tmp_path, option):
    with Video(video(tmp_path, (64, 48))) as sender:
        done = receive(sender, "-n", "40", option, "/dev/full")
    assert done.returncode == 3, done.stderr
    assert "vistrel-receive: /dev/full: " in done.stderr
    assert "stream has ended" not in done.stderr


@pytest.mark.parametrize("name", ["video.mkv", "both.ts"])
def test_full_disk_ends_the_recording(tmp_path, name):
    recording = tmp_path / name
    recording.symlink_to("/dev/full")
    with Video(video(tmp_path, (64, 48))) as sender:
        done = receive(sender, "--record", recording)
    assert done.returncode == 3, done.stderr
    assert len(done.stderr.splitlines()) == 1
    assert f"vistrel-receive: {recording}: " in done.stderr


def test_silent_data_stream_holds_up_nothing(tmp_path):
    recording = tmp_path / "both.ts"
    with Video(video(tmp_path, (64, 48))) as sender:
        done = receive(sender, "-n", "150", "--record", recording)
    assert done.returncode == 0, done.stderr
    again = subprocess.run([RECEIVE, "-n", "150", recording], check=False)
    assert again.returncode == 0


def test_folder_goes_away(tmp_path):
    recording = tmp_path / "gone/video.mkv"
    recording.parent.mkdir()
    with Video(video(tmp_path, (64, 48))) as sender:
        receiver = subprocess.Popen(
            [RECEIVE, "--tcp", "-t", "50", "-r", recording,
             f"rtsp://127.0.0.1:{sender.port}/stereo"],
            text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        receiver.stdout.readline()  # a status line: frames have come
        shutil.rmtree(recording.parent)
        receiver.terminate()
        errors = receiver.communicate(timeout=200)[1]
    assert receiver.returncode == 3, errors
    assert f"vistrel-receive: {recording}: " in errors


def test_size_changes(tmp_path):
    """The file format has one size for all."""
    recording = tmp_path / "video.mkv"
    with Video(video(tmp_path, (64, 48)), video(tmp_path, (96, 64))) as sender:
        done = receive(sender, "-n", "1000", "-r", recording)
    assert done.returncode == 3, done.stderr
    assert f"vistrel-receive: {recording}: " in done.stderr
