# SPDX-License-Identifier: Apache-2.0
"""What the benchmarks that run the whole program share."""
import contextlib
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
TICKS = os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def camera(index, serial, recording=None, more=None):
    """One camera of a rig, even indices see the left eye. `more` are further keys of a simulated one, or
    a pair of them, for left and right."""
    if isinstance(more, tuple):
        more = more[index % 2]
    if recording:
        source = {"type": "recording", "path": str(pathlib.Path(recording).resolve()),
                  "camera": f"cam{index % 2}"}
    else:
        source = {"type": "simulated", "eye": ("left", "right")[index % 2], **(more or {})}
    has_imu = recording is None or (pathlib.Path(recording) / "mav0/imu0").exists()
    imu = {"type": "recorded" if recording else "simulated"} if has_imu else {"type": "none"}
    return {"serial": serial, "model": "KOR T Solo GS", "source": source, "imu": imu}


class Service:
    """kor_vistrel --cli in a private view of the settings folder, with pairs of cameras that all
    see the same."""

    def __init__(self, build, size, fps, recording=None, pairs=1, more=None, environment=(),
                 stream=None, wait=True):
        self.ports = [free_port() for _ in range(pairs)]
        self.folder = tempfile.TemporaryDirectory()
        folder = pathlib.Path(self.folder.name)
        self.log_file = folder / "log"
        self.serials = serials = [30100001 + n for n in range(2 * pairs)]
        rig = {"cameras": [camera(n, serial, recording, more) for n, serial in enumerate(serials)],
               "stream": stream or {}}
        width, height = size
        configuration = {str(101234567 + n): {"Left": serials[2 * n], "Right": serials[2 * n + 1],
                                              "IMU": True, "Width": width, "Height": height,
                                              "FPS": fps, "Port": self.ports[n], "HDR": 0}
                         for n in range(pairs)}
        (folder / "settings").mkdir()
        (folder / "rig.json").write_text(json.dumps(rig))
        (folder / "settings/virtual_tsolo_config.json").write_text(json.dumps(configuration))
        with open(self.log_file, "w", encoding="utf-8") as log:
            self.process = subprocess.Popen(
                [ROOT / "tests/sandbox/run-in-sandbox", "--settings", folder / "settings", "--",
                 build / "app/kor_vistrel", "--cli"],
                env={**os.environ, **dict(environment), "KOR_RIG": str(folder / "rig.json")},
                stdout=log, stderr=log)
        self.pid = self.wait_for_stream() if wait else None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()
        self.folder.cleanup()

    def stop(self):
        """Ends the program and returns what it logged."""
        if self.process.poll() is None:
            os.kill(self.pid, signal.SIGTERM)
            self.process.wait()
        return self.log_file.read_text()

    def url(self, pair=0):
        return f"rtsp://127.0.0.1:{self.ports[pair]}/stereo"

    def wait_for_stream(self):
        for _ in range(600):
            if self.process.poll() is not None:
                sys.exit("the program ended before it streamed:\n" + self.log_file.read_text())
            if all(listening(port) for port in self.ports):
                return program_below(self.process.pid)
            time.sleep(0.1)
        sys.exit("no stream after 60 seconds")


def listening(port):
    with socket.socket() as client:
        return client.connect_ex(("127.0.0.1", port)) == 0


def descendants(pid):
    """Of a process and those below it, the ones that are still there."""
    found = [pid]
    with contextlib.suppress(OSError):
        for task in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
            for child in task.read_text().split():
                found += descendants(int(child))
    return found


def program_below(pid):
    """Process number of kor_vistrel itself, below the sandbox."""
    for candidate in descendants(pid):
        with contextlib.suppress(OSError):
            if pathlib.Path(f"/proc/{candidate}/comm").read_text().strip() == "kor_vistrel":
                return candidate
    return None


def started(pid):
    """Seconds since the machine was started, to 10 ms."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return int(fields[19]) / TICKS


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def cpu_by_thread(pid):
    """CPU seconds of the threads of a process, added up by name."""
    sums = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        name = (task / "comm").read_text().strip()
        fields = (task / "stat").read_text().rsplit(")", 1)[1].split()
        sums[name] = sums.get(name, 0) + (int(fields[11]) + int(fields[12])) / TICKS
    return sums


def wakeups(pid):
    """How often threads of a process have waited for something and were woken."""
    return sum(int(line.split()[1]) for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
               for line in (task / "status").read_text().splitlines()
               if line.startswith("voluntary_ctxt_switches"))


def resident_mb(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS"):
            return int(line.split()[1]) / 1024
    return 0
