# SPDX-License-Identifier: Apache-2.0
"""The program under attack: kor_vistrel in the tests' sandbox, with simulated cameras."""
import contextlib
import json
import os
import pathlib
import random
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import time

import rtsp

ROOT = pathlib.Path(__file__).resolve().parents[2]
SANDBOX = ROOT / "tests/sandbox/run-in-sandbox"
STAND_INS = ROOT / "scripts/demo/commands"
CONFIGURATION = "virtual_tsolo_config.json"
SERIAL = 101234567
CAMERAS = (30100001, 30100002)
LOGIN = ("viewer", "correct horse")
START_LIMIT = 60.0
# What the allocator keeps back, for each thread and for later, would hide what the program keeps.
# G_SLICE is what GLib does by itself since 2.76.
ALLOCATOR = {"MALLOC_ARENA_MAX": "1", "MALLOC_MMAP_THRESHOLD_": "65536",
             "MALLOC_TRIM_THRESHOLD_": "65536", "G_SLICE": "always-malloc"}


class Ended(Exception):
    """The program ended, or served nothing."""


def free_port():
    """A port that the window's rows offer, below those that the machine gives to clients."""
    while True:
        port = random.randrange(30000, 32700)
        with contextlib.suppress(OSError), socket.socket() as probe:
            probe.bind(("0.0.0.0", port))
            return port


def descendants(pid):
    found = [pid]
    for task in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
        for child in task.read_text().split():
            found += descendants(int(child))
    return found


def named(pid, name):
    """The process of that name below another one, or None."""
    try:
        for candidate in descendants(pid):
            if pathlib.Path(f"/proc/{candidate}/comm").read_text().strip() == name:
                return candidate
    except OSError:  # one of them ended meanwhile
        pass
    return None


def simulated_rig(left=None, right=None, stream=None):
    """Two simulated cameras; `left` and `right` are further keys of their sources."""
    def camera(serial, eye, more):
        return {"serial": serial, "model": "KOR T Solo GS", "imu": {"type": "simulated"},
                "source": {"type": "simulated", "eye": eye, **(more or {})}}
    return {"cameras": [camera(CAMERAS[0], "left", left), camera(CAMERAS[1], "right", right)],
            "stream": stream or {}}


def configuration(port, width=480, height=300, fps=30):
    return {str(SERIAL): {"Left": CAMERAS[0], "Right": CAMERAS[1], "IMU": True, "Width": width,
                          "Height": height, "FPS": fps, "Port": port, "HDR": 0}}


class Resources:
    """What a process holds: resident memory in MB, threads, descriptors."""

    def __init__(self, pid):
        status = dict(line.split(":", 1) for line in
                      pathlib.Path(f"/proc/{pid}/status").read_text().splitlines())
        self.memory = int(status["VmRSS"].split()[0]) / 1024
        self.threads = int(status["Threads"])
        self.descriptors = len(os.listdir(f"/proc/{pid}/fd"))

    def beyond(self, before, share=0.1):
        """What is more than a share above an earlier state, in words."""
        return [f"{name} {getattr(before, name):.0f} -> {getattr(self, name):.0f}"
                for name in ("memory", "threads", "descriptors")
                if getattr(self, name) > (1 + share) * getattr(before, name)]

    def __str__(self):
        return f"{self.memory:.0f} MB, {self.threads} threads, {self.descriptors} descriptors"


class Service:
    """One run of the program. Its folder holds settings/, shm/, rig.json and log."""

    def __init__(self, build, rig=None, password=False, stream=None, arguments=("--cli",),
                 environment=(), sandbox=(), before=(), wrapper=(), output=None, rig_file="rig.json",
                 encrypted=False, **size):
        """`before` goes before the sandbox's command, `wrapper` before the program's."""
        self.build, self.arguments = pathlib.Path(build), arguments
        self.environment, self.sandbox = dict(environment), sandbox
        self.before, self.wrapper, self.output = before, wrapper, output
        self.host, self.honest_address = "127.0.0.1", rtsp.HONEST
        self.login, self.tls = LOGIN if password else None, None
        self.port = free_port()
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vistrel-attack."))
        self.process = self.pid = self.idle = None
        for name in ("settings", "shm", "config", "state"):
            (self.folder / name).mkdir(exist_ok=True)
        rig = rig or simulated_rig()
        if password:
            rig["stream"].update(user=LOGIN[0], password=LOGIN[1])
        rig["stream"].update(stream or {})
        if encrypted:
            self.encrypt(rig["stream"])
        self.rig = self.folder / rig_file
        self.rig.write_text(json.dumps(rig))
        self.saved.write_text(json.dumps(configuration(self.port, **size)))

    def encrypt(self, stream):
        """Serves with a certificate of its own, which viewers take as it is."""
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                        "/CN=localhost", "-keyout", self.folder / "key.pem", "-out",
                        self.folder / "certificate.pem"], check=True, stderr=subprocess.DEVNULL)
        stream.update(certificate="certificate.pem", key="key.pem")
        self.tls = ssl.create_default_context()
        self.tls.check_hostname = False
        self.tls.verify_mode = ssl.CERT_NONE

    @property
    def transports(self):
        """What viewers are tried with. Encrypted media come inside the connection only."""
        return ("TCP",) if self.tls else ("UDP", "TCP")

    @property
    def saved(self):
        return self.folder / "settings" / CONFIGURATION

    def log(self):
        try:
            return (self.folder / "log").read_text(errors="replace")
        except OSError:
            return ""

    def command(self):
        return [str(part) for part in
                (*self.before, SANDBOX, "--settings", self.folder / "settings", "--shm", self.folder / "shm",
                 "--commands", STAND_INS, *self.sandbox, "--", *self.wrapper,
                 self.build / "app/kor_vistrel", *self.arguments)]

    def launch(self):
        """Starts it and waits for nothing."""
        environment = {**os.environ, "KOR_RIG": str(self.rig),
                       "XDG_CONFIG_HOME": str(self.folder / "config"),
                       "VISTREL_DEMO_STATE": str(self.folder / "state"),
                       **ALLOCATOR, **self.environment}
        environment.pop("KOR_ENCODER", None)
        if self.rig.parent.name == "settings":
            del environment["KOR_RIG"]  # there it is found without being named
        with open(self.folder / "log", "ab") as log:
            output = self.output or log
            self.process = subprocess.Popen(self.command(), env=environment, stdin=subprocess.DEVNULL,
                                            stdout=output, stderr=output, start_new_session=True)
        self.pid = None
        return self

    def found(self):
        """Whether the program itself, not the sandbox, runs; then `pid` is its number."""
        self.pid = self.pid or named(self.process.pid, "kor_vistrel")
        return self.pid is not None

    def start(self, limit=START_LIMIT):
        """Starts it and waits until somebody listens on its port."""
        self.launch()
        late = time.monotonic() + limit
        while time.monotonic() < late:
            if self.process.poll() is not None:
                raise Ended(f"ended with status {self.process.returncode} before it streamed: "
                            + self.log()[-500:])
            with socket.socket() as probe:
                if probe.connect_ex((self.host, self.port)) == 0 and self.found():
                    self.idle = self.resources()
                    return self
            time.sleep(0.05)
        raise Ended(f"no stream after {limit:g} s: " + self.log()[-500:])

    def alive(self):
        return self.process is not None and self.process.poll() is None

    def signal(self, number):
        if self.found():
            with contextlib.suppress(ProcessLookupError):  # it has ended, and nobody has told the sandbox yet
                os.kill(self.pid, number)

    def kill(self):
        """kill -9, for the program and the sandbox around it."""
        if self.process is None:
            return
        if self.alive():
            self.signal(signal.SIGKILL)
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()

    def end(self):
        self.kill()
        shutil.rmtree(self.folder, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def resources(self):
        return Resources(self.pid)

    def honest(self):
        """What an honest viewer over UDP and one over TCP get: seconds or a reason, by transport."""
        return {transport: rtsp.first_frame(self, transport == "TCP") for transport in self.transports}

    def warm_up(self):
        """Has had viewers of both kinds, so that what is made once is made; returns its resources."""
        for _ in range(8):
            self.honest()
        with contextlib.ExitStack() as stack:
            viewers = [stack.enter_context(rtsp.Viewer(self, transport == "TCP"))
                       for transport in self.transports]
            end = time.monotonic() + 4
            while time.monotonic() < end:
                for viewer in viewers:
                    viewer.watch(0.05)
        return self.settled(lambda now: now.descriptors <= self.idle.descriptors
                            and now.threads <= self.idle.threads, 10)

    def settled(self, is_good, limit):
        """Resources as soon as they are good, at the latest after a limit in seconds."""
        late = time.monotonic() + limit
        while True:
            now = self.resources()
            if is_good(now) or time.monotonic() > late:
                return now
            time.sleep(0.25)
