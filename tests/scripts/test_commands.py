# SPDX-License-Identifier: Apache-2.0
"""The commands of README.md and docs: each is run as the page has it, or stands below with the reason why
not.

In tests/sandbox/run-in-sandbox --private-network, like test_demonstration.py, so that the ports of the
pages are free. VISTREL_DEMO_BUILD is the folder with the programs."""
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

import pytest
from conftest import SOURCE

# The first hour has a test of its own.
PAGES = [SOURCE / "README.md", *(page for page in sorted((SOURCE / "docs").rglob("*.md"))
                                 if page.name != "first-hour.md")]
BUILD = pathlib.Path(os.environ.get("VISTREL_DEMO_BUILD", SOURCE / "build/release"))
STREAM = "rtsp://localhost:30000/stereo"
COMMAND = re.compile(r"(\./|(scripts|tests|benchmarks|build|examples)/|(sudo|apt|apt-get|systemctl|"
                     r"journalctl|cmake|ctest|c\+\+|vistrel-receive|kor_vistrel|ffplay|ffprobe|ffmpeg|mpv|"
                     r"gst-launch-1.0|openssl|echo|nft|pip)( |$))")
# Commands that receive, and what they say when they do. They are then ended as Ctrl-C does.
RECEIVE = {
    "ffplay": "Video: h264", "mpv": r"VO: \[null\]", "gst-launch-1.0": "Setting pipeline to PLAYING",
    "ffmpeg": r"frame= *[1-9]", "vistrel-receive": r"[0-9] fps ",
    "build/release/tools/vistrel-receive": r"[0-9] fps "}
ONCE = "vistrel-receive --quiet --frames 30 --timeout 10 --json - "
# Beginnings of commands that no test runs from the page, and why.
NOT_RUN = {
    "./run --seconds 20": "scripts_demonstration runs it with fewer seconds",
    "./run --recording": "needs a recording; sdk_recording and scripts_rigs read some",
    "./run --rig sdk/rigs/two-webcams.json": "needs two USB cameras; scripts_first_hour puts others in their place",
    "./test": "this test is a part of it",
    "scripts/setup": "installs packages on the machine",
    "scripts/relay": "needs Janus and a browser: tests/relay, stage relay of .ci/run",
    "scripts/package": "stage package of .ci/run",
    "sudo scripts/package arm64": "stage arm64 of .ci/run",
    "cmake --preset": "the build that this test is a part of; stage vendor of .ci/run",
    "cmake --build --preset": "the build that this test is a part of",
    "cmake --install": "writes into /usr/local; consumer_install installs into a folder of its own",
    "c++ -std=c++17": "consumer_package, with an installed SDK",
    "build/release/tests/sdk/sdk_conformance": "sdk_conformance, and with a vendor's SDK a board",
    "build/release/benchmarks/": "needs the benchmarks and a quiet machine",
    "benchmarks/": "needs the benchmarks and a quiet machine",
    "tests/attack/": "an hour: stages attack and attack-quick of .ci/run",
    "tests/endurance/": "hours: stage endurance of .ci/run",
    "examples/": "python_examples",
    "pip install": "python_install, without a network",
    "sudo apt install": "needs root: tests/system/container installs the package",
    "sudo adduser NAME kor": "needs root: tests/system/container",
    "sudo systemctl": "needs root and a booted system: tests/system/container",
    "systemctl": "needs a booted system: tests/system/container",
    "sudo journalctl": "needs a booted system: tests/system/container",
    "sudo install": "needs root",
    "sudo chmod": "needs root",
    "sudo sysctl": "changes the machine",
    "echo net.core.rmem_default": "changes the machine",
    "nft add rule": "needs root and a firewall",
}


def commands_of(page):
    """The commands in the indented blocks of a page, without the words beside them."""
    found, before, block = [], "", False
    for line in re.sub(r" \\\n +", " ", page.read_text()).splitlines():
        block = line.startswith("    ") and (block or not before.strip())
        if block and COMMAND.match(line[4:]):
            found.append(re.split(r"\s{2,}|\s+# ", line[4:])[0].strip())
        before = line
        block = block or not line.strip()
    return found


ALL = [(page.relative_to(SOURCE), command) for page in PAGES for command in commands_of(page)]


def program(command):
    return command.split()[0]


def receives(command):
    return program(command) in RECEIVE and "rtsp://" in command and not command.startswith(ONCE)


def certifies(command):
    return program(command) == "openssl" or command.startswith('echo "subjectAltName')


def listed(command):
    return any(command.startswith(beginning) for beginning in NOT_RUN)


def test_pages_have_commands():
    assert ("./run" in commands_of(SOURCE / "README.md"))
    assert len(ALL) > 50


@pytest.mark.parametrize("page, command", ALL)
def test_run_or_listed(page, command):
    run = command in ("./run", "./run desktop") or receives(command) or command.startswith(ONCE) \
        or certifies(command)
    assert run != listed(command), f"{page}: run it here, or say in NOT_RUN why not"


def test_list_is_short():
    """What no page has any more is not listed."""
    assert [beginning for beginning in NOT_RUN
            if not any(command.startswith(beginning) for _, command in ALL)] == []


class Reader:
    """A user in front of a checkout with the programs built."""

    def __init__(self, folder):
        if os.environ.get("VISTREL_SANDBOX") != "1":
            pytest.exit("skipped: not in the sandbox", 77)
        # The demonstration makes a sandbox of its own in this one.
        if subprocess.run([SOURCE / "tests/sandbox/run-in-sandbox", "--check"], check=False).returncode:
            pytest.exit("skipped: no sandbox in the sandbox", 77)
        self.folder = folder / "checkout"
        self.folder.mkdir()
        for name in "run", "cmake", "examples", "scripts", "sdk", "tests":
            copy = shutil.copytree if (SOURCE / name).is_dir() else shutil.copy
            copy(SOURCE / name, self.folder / name)
        (self.folder / "build").mkdir()
        (self.folder / "build/release").symlink_to(BUILD)
        (folder / "mpv").mkdir()
        (folder / "mpv/mpv.conf").write_text("vo=null\n")
        self.environment = {**os.environ, "VISTREL_DEMO_BUILD": str(BUILD), "MPV_HOME": str(folder / "mpv"),
                            "SDL_VIDEODRIVER": "dummy", "SDL_AUDIODRIVER": "dummy",
                            "PATH": f"{BUILD / 'tools'}:{os.environ['PATH']}"}
        for name in "KOR_RIG", "KOR_ENCODER", "DISPLAY", "WAYLAND_DISPLAY":
            self.environment.pop(name, None)

    def start(self, command, log):
        # The pages stream from a board or from this machine.
        command = re.sub(r"rtsp://[\w.:]+/stereo", STREAM, command)
        with open(log, "wb") as output:
            return subprocess.Popen(["bash", "-c", f"exec {command}"], cwd=self.folder, env=self.environment,
                                    stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                    start_new_session=True)

    def run(self, command, expected):
        """Runs a command until it says what is expected; returns it."""
        log = self.folder / f"{len(list(self.folder.glob('*.log')))}.log"
        process, late = self.start(command, log), time.monotonic() + 120
        while not re.search(expected, log.read_text(errors="replace")):
            if process.poll() is not None or time.monotonic() > late:
                end(process)
                pytest.fail(f'{command}: no "{expected}" in\n{log.read_text(errors="replace")[-3000:]}')
            time.sleep(0.1)
        return process

    def run_to_end(self, command):
        log = self.folder / "end"
        assert self.start(command, log).wait() == 0, f"{command}:\n{log.read_text(errors='replace')}"
        return log.read_text(errors="replace")


def end(process):
    """As Ctrl-C does; players that take their time are not waited for."""
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGINT)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(10)
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


@pytest.fixture(scope="module")
def reader():
    with tempfile.TemporaryDirectory(prefix="vistrel-test.") as folder:
        yield Reader(pathlib.Path(folder))


@pytest.fixture(scope="module")
def stream(reader):
    """What the reader does first."""
    demonstration = reader.run("./run", " fps ")
    yield
    end(demonstration)


@pytest.mark.parametrize("page, command", [each for each in ALL if receives(each[1])])
def test_receiver(reader, stream, page, command):
    if not ("/" in program(command) or shutil.which(program(command), path=reader.environment["PATH"])):
        pytest.skip(f"{program(command)} is not installed")
    end(reader.run(command, RECEIVE[program(command)]))


def test_check_in_a_script(reader, stream):
    command = next(command for _, command in ALL if command.startswith(ONCE))
    assert '"frames": 30' in reader.run_to_end(command)


def test_window(reader):
    assert "A screenshot: " in reader.run_to_end("./run desktop")
    assert (reader.folder / "out/desktop.png").read_bytes().startswith(b"\x89PNG")


def test_certificates(reader):
    """In the order of the page, in which each uses what those before have made."""
    for command in (command for _, command in ALL if certifies(command)):
        reader.run_to_end(command)
        if " -CA " in command:
            reader.run_to_end("openssl verify -CAfile authority.pem board.pem")
