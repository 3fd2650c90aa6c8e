# SPDX-License-Identifier: Apache-2.0
"""vistrel-receive, and what it reports."""
import contextlib
import json
import pathlib
import signal
import subprocess
import tempfile
import time


class Receiver:
    """A vistrel-receive for some seconds. Its report has the names of its JSON statistics."""

    def __init__(self, build, service, seconds=0, tcp=False, timeout=0):
        handle, name = tempfile.mkstemp(prefix="vistrel-attack.")
        open(handle, "wb").close()
        self.file = pathlib.Path(name)
        login = "%s:%s@" % tuple(part.replace(" ", "%20") for part in service.login) if service.login else ""
        self.process = subprocess.Popen(
            [build / "tools/vistrel-receive", "--quiet", *(["--tcp"] if tcp else []), "--json", self.file,
             "--duration", str(seconds), "--timeout", str(timeout),
             f"rtsp://{login}{service.host}:{service.port}/stereo"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def report(self, limit=None):
        """Waits for its end and returns its statistics, {} when there are none."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(limit)
        self.end()
        try:
            return json.loads(self.file.read_text())
        except (OSError, ValueError):
            return {}
        finally:
            self.file.unlink(missing_ok=True)

    def stop(self):
        """It reads no more."""
        self.process.send_signal(signal.SIGSTOP)

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.file.unlink(missing_ok=True)

    def end(self):
        """Asks it to end; kills it when it does not."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.process.terminate()
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(5)
            self.process.kill()
        self.process.wait()


def in_words(report):
    """The figures of a report that tables show."""
    if not report.get("frames"):
        return "no frame"
    latency = report["latencyMs"]
    return (f"{report['fps']:.1f} fps, {report['framesLost']} of "
            f"{report['framesReceived'] + report['framesLost']} frames lost, latency "
            f"{latency['p50']:.0f} ms (99 %: {latency['p99']:.0f})")


def side_by_side(build, service, seconds):
    """Reports of a UDP and a TCP receiver that run at the same time, by transport."""
    running = {transport: Receiver(build, service, seconds, tcp=transport == "TCP")
               for transport in ("UDP", "TCP")}
    late = time.monotonic() + seconds + 15
    return {transport: receiver.report(late - time.monotonic()) for transport, receiver in running.items()}
