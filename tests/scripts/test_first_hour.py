# SPDX-License-Identifier: Apache-2.0
"""docs/first-hour.md: its commands, from the page and in its order, in one folder. GStreamer's own pictures
stand in for the cameras, and what takes a time of its own takes VISTREL_DEMO_SECONDS.

In tests/sandbox/run-in-sandbox --private-network; VISTREL_DEMO_BUILD is the folder with the programs."""
import json
import os
import pathlib
import re
import shutil
import tempfile

from conftest import SOURCE
from test_commands import Reader, end, program

PAGE = SOURCE / "docs/first-hour.md"
SECONDS = os.environ.get("VISTREL_DEMO_SECONDS", "5")
RECEIVE = "build/release/tools/vistrel-receive "
LINE = r"101234567  1280x480  [0-9.]+ fps .*left 640x480 moving  right 640x480 moving"
APART = r"IMU 0/s  (eyes [0-9.]+ ms apart  )?left"  # cameras may be in step by chance
# The beginning of each command, in the order of the page; what it says; when it ends.
STEPS = [
    ("./run --seconds ", "A picture of the stereo frame: .*/snapshot.png", "by itself"),
    ("v4l2-ctl --list-devices", None, "not run: it says what cameras a machine has"),
    ("cp sdk/rigs/two-webcams.json ", "", "by itself"),
    ("./run --rig webcams.json ", APART, "when it is asked to"),
    ("ffplay ", "Video: h264", "at once"),
    ("mpv ", r"VO: \[null\]", "at once"),
    (RECEIVE + "rtsp://", LINE, "at once"),
    (RECEIVE + "--record session.ts ", LINE, "by itself"),
    (RECEIVE + "session.ts", LINE, "by itself"),
    ("./run --recording session.ts --once", LINE, "by itself"),
    (RECEIVE + "--asl session ", LINE, "by itself"),
    ("./run desktop --rig webcams.json", "A screenshot: ", "by itself")]


def commands():
    """All that is indented and not fenced."""
    text = re.sub(r"(?ms)^```.*?^```$", "", PAGE.read_text())
    return re.findall(r"(?m)^    (\S.*)$", text)


def test_every_command_has_its_step():
    beginnings = [beginning for beginning, _, _ in STEPS]
    assert len(commands()) == len(STEPS)
    assert all(map(str.startswith, commands(), beginnings)), list(zip(commands(), beginnings))


def exchange_cameras(rig):
    """What the reader does in an editor, here with cameras that every machine has."""
    text, devices = re.subn(r"v4l2src device=/dev/video\d", "videotestsrc is-live=true pattern=ball",
                            rig.read_text())
    assert devices == 2
    assert [camera["source"]["timestamps"] for camera in json.loads(text)["cameras"]] == ["grid"] * 2
    rig.write_text(text)


def test_first_hour():
    with tempfile.TemporaryDirectory(prefix="vistrel-test.") as folder:
        reader = Reader(pathlib.Path(folder))
        running = None
        for command, (_, expected, ends) in zip(commands(), STEPS):
            command = re.sub(r"--(seconds|duration) \d+", rf"--\1 {SECONDS}", command)
            installed = "/" in program(command) or shutil.which(program(command))
            if ends.startswith("not run") or not installed:
                continue
            if ends == "by itself":
                if command.startswith("./run --recording"):
                    end(running)  # as the page says
                output = reader.run_to_end(command)
                assert re.search(expected, output), f"{command}:\n{output[-3000:]}"
            elif ends == "at once":
                end(reader.run(command, expected))
            else:
                running = reader.run(command, expected)
            if command.startswith("cp "):
                exchange_cameras(reader.folder / "webcams.json")
        asl = reader.folder / "session/mav0"
        pictures = [sorted(file.name for file in (asl / eye / "data").glob("*.png"))
                    for eye in ("cam0", "cam1")]
        assert pictures[0] == pictures[1] and len(pictures[0]) > 60
        assert (reader.folder / "out/desktop.png").exists()
