# SPDX-License-Identifier: Apache-2.0
"""The demonstration, ./run, with the programs of one build folder: what it leaves, how it ends.

In tests/sandbox/run-in-sandbox --private-network, so that ports are free, no camera is in use and the
settings are the test's. VISTREL_DEMO_SECONDS is how long a demonstration is that ends by itself.
"""
import json
import os
import pathlib
import signal
import subprocess
import time

import pytest
from conftest import SOURCE

SETTINGS = pathlib.Path("/usr/local/kor/settings")
SECONDS = os.environ.get("VISTREL_DEMO_SECONDS", "5")


def wait_until(condition, what):
    end = time.monotonic() + 120
    while not condition():
        assert time.monotonic() < end, what
        time.sleep(0.1)


def settings_now():
    return {path: (path.stat().st_ino, path.stat().st_mode, path.stat().st_mtime_ns, path.read_bytes())
            for path in SETTINGS.iterdir()}


class Desk:
    """Where the demonstration is called: a folder of a user, with settings that must stay."""

    def __init__(self, folder):
        self.folder, self.temporary = folder / "user", folder / "tmp"
        self.folder.mkdir()
        self.temporary.mkdir()
        # Were these read, no camera would be there.
        (SETTINGS / "virtual_tsolo_config.json").write_text('{"1": {"Left": 1}}')
        (SETTINGS / "rig.json").write_text('{"cameras": []}')
        self.settings = settings_now()
        # All processes of a demonstration inherit the mark.
        self.mark = f"VISTREL_DEMO_MARK={folder}".encode()
        self.environment = {**os.environ, "TMPDIR": str(self.temporary),
                            "VISTREL_DEMO_MARK": str(folder)}
        for name in "KOR_RIG", "KOR_ENCODER":
            self.environment.pop(name, None)

    def start(self, *arguments, log="output", **environment):
        output = open(self.folder / log, "wb")
        process = subprocess.Popen([SOURCE / "run", *arguments], cwd=self.folder, stdout=output,
                                   env={**self.environment, **environment}, stderr=output,
                                   stdin=subprocess.DEVNULL)
        output.close()
        return process

    def said(self, log="output"):
        return (self.folder / log).read_text()

    def ends(self, status, text, *arguments, **environment):
        process = self.start(*arguments, **environment)
        assert process.wait() == status, self.said()
        assert text in self.said()

    def processes(self):
        """Command lines of the processes of a demonstration."""
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if self.mark in (process / "environ").read_bytes().split(b"\0"):
                    found.append((process / "cmdline").read_text())
            except OSError:  # it has ended meanwhile
                pass
        return "".join(found)

    def assert_nothing_left(self):
        wait_until(lambda: not self.processes(), "processes are left")
        assert not list(self.temporary.iterdir())
        assert settings_now() == self.settings


@pytest.fixture
def desk(tmp_path):
    if os.environ.get("VISTREL_SANDBOX") != "1":
        pytest.exit("skipped: not in the sandbox", 77)
    # The demonstration makes a sandbox of its own in this one.
    if subprocess.run([SOURCE / "tests/sandbox/run-in-sandbox", "--check"], check=False).returncode:
        pytest.exit("skipped: no sandbox in the sandbox", 77)
    desk = Desk(tmp_path)
    yield desk
    desk.assert_nothing_left()


@pytest.mark.parametrize("status, text, arguments", [
    (2, "usage: ./run", ["--nonsense"]),
    (2, "argument --rig: expected one argument", ["--rig"]),
    (2, "argument --port: must be a number from 1 to 65535", ["--port", "70000"]),
    (2, 'argument --size: must read like 960x600, not "large"', ["--size", "large"]),
    (2, "not allowed with argument --rig", ["--rig", "a.json", "--recording", "b"]),
    (1, "{}/absent.json: cannot be read", ["--rig", "absent.json"]),
    (2, "--once needs --recording", ["--once"]),
    (1, "{}/absent is not a folder", ["--recording", "absent"]),
    (1, "{}/output is no recording of a stream with its data", ["--recording", "output"])])
def test_refused(desk, status, text, arguments):
    desk.ends(status, text.format(desk.folder), *arguments)


def test_rig_of_the_environment(desk):
    desk.ends(1, f"{desk.folder}/absent.json: cannot be read", KOR_RIG="absent.json")


def test_rig_that_the_program_refuses(desk):
    cameras = [{"serial": serial, "model": "KOR T Solo GS", "source": {"type": "nonsense"}}
               for serial in (30200001, 30200002)]
    (desk.folder / "rig.json").write_text(json.dumps({"cameras": cameras}))
    desk.ends(1, f"[tq_kor] {desk.folder}/rig.json: cameras[0].source.type", "--rig", "rig.json",
              "--port", "41233", "--out", "logs")


def test_some_seconds(desk):
    desk.ends(0, "rtsp://localhost:41234/stereo", "--seconds", SECONDS, "--port", "41234",
              "--out", "pictures")
    picture = desk.folder / "pictures/snapshot.png"
    assert picture.read_bytes().startswith(b"\x89PNG")
    assert f"picture of the stereo frame: {picture}" in desk.said()


def interrupt(process):
    process.send_signal(signal.SIGINT)
    return process.wait()


def camera(serial, eye):
    return {"serial": serial, "model": "KOR T Solo GS", "source": {"type": "simulated", "eye": eye}}


def test_two_at_once_and_interrupt(desk):
    (desk.folder / "own.json").write_text(json.dumps(
        {"cameras": [camera(30200001, "left"), camera(30200002, "right")]}))
    first = desk.start("--rig", "own.json", "--size", "480x300", "--fps", "15", "--port", "41236",
                       "--out", "pictures", log="first")
    wait_until(lambda: "fps" in desk.said("first") or first.poll() is not None, "no frames came")
    desk.ends(1, "port 41236 is used by another program; choose one with --port", "--port", "41236",
              "--out", "second")
    assert "kor_vistrel" in desk.processes()
    assert first.poll() is None, desk.said("first")
    assert interrupt(first) == 0


def test_recorded_stream_is_played_once(desk):
    (desk.folder / "own.json").write_text(json.dumps({"cameras": [
        {**camera(30200001, "left"), "imu": {"type": "simulated"}}, camera(30200002, "right")]}))
    first = desk.start("--rig", "own.json", "--size", "480x300", "--port", "41239", "--out",
                       "pictures", log="first")
    wait_until(lambda: "fps" in desk.said("first") or first.poll() is not None, "no frames came")
    session = desk.folder / "session.ts"
    receive = pathlib.Path(os.environ["VISTREL_DEMO_BUILD"], "tools/vistrel-receive")
    subprocess.run([receive, "--tcp", "-q", "-n", "60", "-r", session, "rtsp://127.0.0.1:41239/stereo"],
                   check=True)
    assert interrupt(first) == 0
    # It ends by itself.
    desk.ends(0, "rtsp://localhost:41239/stereo", "--recording", "session.ts", "--once", "--port",
              "41239", "--out", "again")
    statistics = json.loads((desk.folder / "again/statistics.json").read_text())
    assert (statistics["eyeWidth"], statistics["eyeHeight"]) == (480, 300)
    assert 0 < statistics["frames"] <= 75
    assert statistics["imuPackets"] > 0


def test_encrypted(desk):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=board",
                    "-keyout", "board.key", "-out", "board.pem"], cwd=desk.folder, check=True,
                   stderr=subprocess.DEVNULL)
    (desk.folder / "own.json").write_text(json.dumps(
        {"cameras": [camera(30200001, "left"), camera(30200002, "right")],
         "stream": {"certificate": "board.pem", "key": "board.key",
                    "user": "viewer", "password": "a:b@c"}}))
    desk.ends(0, "rtsps://localhost:41240/stereo", "--rig", "own.json", "--size", "480x300",
              "--seconds", SECONDS, "--port", "41240", "--out", "pictures")
    assert "rtsps://0.0.0.0:41240/stereo" in (desk.folder / "pictures/kor_vistrel.log").read_text()


# Then a connection to a port on which nobody listens yet soon meets itself.
def test_port_of_outgoing_connections(desk):
    ports = pathlib.Path("/proc/sys/net/ipv4/ip_local_port_range")
    usual = ports.read_text()
    try:
        ports.write_text("41242 41257")
        desk.ends(0, "rtsp://localhost:41250/stereo", "--seconds", SECONDS, "--port", "41250", "--out",
                  "pictures")
    finally:
        ports.write_text(usual)


@pytest.mark.parametrize("signum, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_interrupt_before_the_stream(desk, signum, status):
    process = desk.start("--port", "41238", "--out", "pictures")
    wait_until(lambda: "Starting the cameras" in desk.said() or process.poll() is not None, "no start")
    process.send_signal(signum)
    assert process.wait() == status
