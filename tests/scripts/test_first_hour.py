# SPDX-License-Identifier: Apache-2.0
"""docs/first-hour.md: its commands, from the page and in its order, in one folder. Simulated cameras without a
common trigger stand in for the real ones, and what takes a time of its own takes VISTREL_DEMO_SECONDS.

In tests/sandbox/run-in-sandbox --private-network; VISTREL_DEMO_BUILD is the folder with the programs."""
import json
import os
import pathlib
import re
import shutil
import sys
import tempfile

from conftest import SOURCE
from test_commands import Reader, end, program

PAGE = SOURCE / "docs/first-hour.md"
# Whether the system's Python can load the package.
PYTHON = os.environ.get("VISTREL_DEMO_PYTHON") != "OFF"
SECONDS = os.environ.get("VISTREL_DEMO_SECONDS", "5")
RECEIVE = "build/release/tools/vistrel-receive "
LINE = r"101234567  1280x480  [0-9.]+ fps .*left 640x480 moving  right 640x480 moving"
APART = "IMU 0/s  eyes 3.0 ms apart  left"
# The board's squares are taken for smaller than they are, and the baseline of 120 mm, too.
CALIBRATED = r"views; reprojection error 0\.\d+ pixels(?s:.*)\nbaseline: 7[2-8]\.\d+ mm"
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
    (RECEIVE + "--record board.ts ", LINE, "by itself"),
    ("sudo apt install python3-opencv", None, "not run: it installs a package on the machine"),
    ("cmake --build ", None, "not run: the build that this test is a part of"),
    ("env PYTHONPATH=build/release/python examples/calibrate.py ", CALIBRATED, "by itself"),
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


def exchange_cameras(path):
    """What the reader does in an editor, here with cameras that every machine has."""
    rig = json.loads(path.read_text())
    for camera, eye, phase in zip(rig["cameras"], ("left", "right"), (0, 3000)):
        source = camera["source"]
        assert source.pop("pipeline").startswith("v4l2src device=/dev/video")
        assert (source["type"], source["timestamps"]) == ("gstreamer", "grid")
        source.update(type="simulated", scene="chessboard", eye=eye, phase=phase)
    path.write_text(json.dumps(rig))


def test_first_hour():
    with tempfile.TemporaryDirectory(prefix="vistrel-test.") as folder:
        reader = Reader(pathlib.Path(folder))
        # The Python that the package was built for.
        (reader.folder / "bin").mkdir()
        (reader.folder / "bin/python3").symlink_to(sys.executable)
        reader.environment["PATH"] = f"{reader.folder / 'bin'}:{reader.environment['PATH']}"
        running = None
        for command, (_, expected, ends) in zip(commands(), STEPS):
            command = re.sub(r"--(seconds|duration) \d+", rf"--\1 {SECONDS}", command)
            installed = "/" in program(command) or shutil.which(program(command))
            if ends.startswith("not run") or not installed or not PYTHON and "PYTHONPATH" in command:
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
        for file in ["out/desktop.png", *["stereo.yaml", "camchain.yaml"] * PYTHON]:
            assert (reader.folder / file).exists(), file
