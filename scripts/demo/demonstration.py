#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds the program and shows it at work: two cameras become one stereo stream.

For tests: VISTREL_DEMO_BUILD names a folder with the finished programs; then nothing is installed or
built. VISTREL_DEMO_PICTURE is where a window in memory leaves a screenshot at its end.
"""
import argparse
import contextlib
import errno
import glob
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse

import rigs
from rigs import Failed

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("VISTREL_DEMO_BUILD", ROOT / "build/release"))
SANDBOX = ROOT / "tests/sandbox/run-in-sandbox"
DESCRIPTION = """\
Without "desktop": stream headless, receive the stream, show its state. With it: open the desktop
program.

Installs what is missing, builds, and streams two simulated cameras as one stereo camera until
Ctrl-C. Everything happens in a private view of /usr/local/kor/settings, with stand-ins for sudo
and systemctl: no configuration and no service of this machine is touched, and once the packages
are installed nothing needs root."""
STATUSES = """\
Exit status:
  0         frames were received, until the seconds were over or Ctrl-C; desktop: the window was
            closed or the seconds were over, without a display also: the screenshot was taken
  1         something failed or no frame was received; a line says what
  2         wrong use
  130, 143  ended by Ctrl-C or SIGTERM before the stream was there; desktop: at any time"""
NO_SANDBOX = """this machine allows no private mount namespace: ordinary users need unprivileged user \
namespaces (sysctl user.max_user_namespaces and, where they exist, kernel.unprivileged_userns_clone \
and kernel.apparmor_restrict_unprivileged_userns), containers the right to mount"""
OVER = " is silent from now on"  # that each camera of a recording says
ADDRESSES = """Open it in a player, for example
    ffplay -fflags nobuffer -flags low_delay {0}
    mpv --profile=low-latency {0}
    gst-launch-1.0 playbin3 uri={0}
or in a browser, with the page that this starts:
    scripts/relay {0}"""


def number(low, high):
    def convert(text):
        if not re.fullmatch("[0-9]{1,10}", text) or not low <= int(text) <= high:
            raise argparse.ArgumentTypeError(f"must be a number from {low} to {high}")
        return int(text)
    return convert


def eye(text):
    size = re.fullmatch("([0-9]+)x([0-9]+)", text)
    if not size:
        raise argparse.ArgumentTypeError(f'must read like 960x600, not "{text}"')
    return int(size[1]), int(size[2])


def path(text):
    return pathlib.Path(text).absolute()


def parse():
    parser = argparse.ArgumentParser(
        prog="./run", description=DESCRIPTION, epilog=STATUSES, allow_abbrev=False,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    add, cameras = parser.add_argument, parser.add_mutually_exclusive_group()
    add("mode", nargs="?", choices=["desktop"])
    add("--seconds", type=number(1, 10**9), metavar="N", help="end after N seconds")
    cameras.add_argument("--rig", type=path, metavar="FILE", help="the cameras described in FILE (see "
                         "docs/rig.md); the first two of the same family become the stereo camera")
    cameras.add_argument("--recording", type=path, metavar="PATH", help="play a stereo and "
                         "IMU recording: a folder in the ASL layout (PATH/mav0/cam0, cam1, imu0), or a "
                         "file that vistrel-receive has recorded (PATH.ts)")
    add("--once", action="store_true", help="play the recording once, and end with it, instead of in a "
        "loop")
    add("--size", type=eye, metavar="WxH", help="size of one eye, default 960x600 for GS and 1920x1080 "
        "for UHD cameras, or the recording's")
    add("--fps", type=number(1, 1000), metavar="N", help="frames per second, default 30 or the "
        "recording's")
    add("--port", type=number(1, 65535), metavar="N", default=30000, help="port of the stream, default "
        "%(default)s")
    add("--out", type=path, metavar="DIR", default=ROOT / "out", help="logs and pictures go there, "
        "default the folder out beside ./run")
    add("--no-setup", action="store_true", help="install nothing")
    options = parser.parse_args()
    if options.once and not options.recording:
        parser.error("--once needs --recording")
    return options


def have_display():
    """A display of this user, unless only a stand-in in memory can be had."""
    return os.environ.get("DISPLAY") or os.environ.get("WAYLAND_DISPLAY") and glob.glob(
        "/usr/lib/*/qt5/plugins/platforms/libqwayland-*.so")


def call(reason, *command):
    if subprocess.run(command, cwd=ROOT, check=False).returncode:
        raise Failed(reason)


def prepare(options):
    if "VISTREL_DEMO_BUILD" not in os.environ:
        if not options.no_setup:
            memory = options.mode == "desktop" and not have_display()
            call("packages are missing", "scripts/setup", "run", *["desktop"] * memory)
        if not (BUILD / "build.ninja").exists():
            call("the build cannot be configured", "cmake", "--preset", "release")
        call("the build fails", "cmake", "--build", BUILD, "--target", "kor_vistrel", "vistrel-receive")
    call(NO_SANDBOX, SANDBOX, "--check")


def describe(recording, once):
    """The rig that plays a recording, the size of an eye and the rate."""
    if not recording.is_file():
        return rigs.record(recording, once)
    read = subprocess.run([BUILD / "tools/vistrel-receive", "--quiet", "--no-decode", "--json", "-",
                           recording], stdout=subprocess.PIPE, check=False)
    return rigs.play_file(recording, json.loads(read.stdout), once)


def configure(options, work):
    """Writes the settings, and the rig of a recording; returns the rig's file, if there is one, and
    its stream object."""
    rig, size, fps = options.rig, options.size, options.fps
    # KOR_RIG may be a habit of this user: what is asked for here goes before it.
    if not rig and not options.recording and os.environ.get("KOR_RIG"):
        rig = path(os.environ["KOR_RIG"])
    if options.recording:
        rig = work / "rig.json"
        described, recorded_size, recorded_fps = describe(options.recording, options.once)
        rig.write_text(json.dumps(described))
        fps = fps or recorded_fps
        # The window offers the family's sizes only; recordings are scaled.
        size = size or (None if options.mode else recorded_size)
    for folder in work / "settings", work / "state", options.out:
        folder.mkdir(parents=True, exist_ok=True)
    # The same cameras as the built-in rig's.
    pair, stream = rigs.pair(rig or ROOT / "sdk/rigs/two-gs.json", size, fps or 30, options.port)
    (work / "settings/virtual_tsolo_config.json").write_text(json.dumps(pair))
    return rig, stream


def port_taken(host, port):
    """Whether somebody listens there; asked without a connection, which could meet itself."""
    try:
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        socket.create_server((host, port), family=family).close()
    except OSError as error:
        return error.errno == errno.EADDRINUSE
    return False


def end(process):
    """Ends a process with all that it started; kills what is left after five seconds."""
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGTERM)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(5)
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


class Demonstration:
    """The program in its private view of the machine, and the receiver."""

    def __init__(self, options, work, stack):
        self.options, self.stack = options, stack
        self.rig, self.stream = configure(options, work)
        self.log = options.out / "kor_vistrel.log"
        self.environment = {**os.environ, "VISTREL_DEMO_STATE": str(work / "state"),
                            "XDG_CONFIG_HOME": str(work / "config"), "KOR_RIG": str(self.rig)}
        if not self.rig:
            del self.environment["KOR_RIG"]
        # /dev/shm is shared, so that cameras which another process holds are seen as such.
        self.command = [SANDBOX, "--settings", work / "settings", "--shm", "/dev/shm", "--commands",
                        ROOT / "scripts/demo/commands", "--", BUILD / "app/kor_vistrel"]
        self.receiver = None

    def start(self, command, output=None):
        """Starts a process in a session of its own, so that Ctrl-C reaches this one only."""
        process = subprocess.Popen(command, env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=output, stderr=output, start_new_session=True)
        self.stack.callback(end, process)
        return process

    def start_program(self, *arguments):
        with open(self.log, "wb") as log:
            return self.start([*self.command, *arguments], log)

    def fail_with_log(self, what):
        tail = self.log.read_text(errors="replace").splitlines()[-15:]
        raise Failed("\n".join([f"{what}. The end of {self.log}:", *tail]))

    def address(self, host):
        scheme = "rtsps" if self.stream.get("certificate") else "rtsp"
        return f"{scheme}://{host}:{self.options.port}/stereo"

    def show_addresses(self):
        hosts = subprocess.run("hostname -I 2>/dev/null", shell=True, stdout=subprocess.PIPE, text=True,
                               check=False).stdout.split()
        print("\nThe stereo stream is served at")
        for host in ["localhost", *(host for host in hosts if ":" not in host)]:
            print(f"    {self.address(host)}")
        print(ADDRESSES.format(self.address("localhost")))
        if self.stream.get("user"):
            print("with the user and password of the rig's stream object.")
        print()

    def headless(self):
        options, bound = self.options, self.stream.get("bindAddress") or "0.0.0.0"
        host = "127.0.0.1" if bound in ("0.0.0.0", "::") else bound
        if port_taken(bound, options.port):
            raise Failed(f"port {options.port} is used by another program; choose one with --port")
        program = self.start_program("--cli")
        print("Starting the cameras and the stream ...")
        late = time.monotonic() + 60
        while f":{options.port}/stereo" not in self.log.read_text(errors="replace"):
            if program.poll() is not None:
                self.fail_with_log("the program ended before it streamed")
            if time.monotonic() > late:
                self.fail_with_log("no stream after 60 seconds")
            time.sleep(0.1)
        self.show_addresses()

        picture = options.out / "snapshot.png"
        picture.unlink(missing_ok=True)
        login = ""
        if self.stream.get("user"):
            login = ":".join(urllib.parse.quote(str(self.stream.get(key, "")), safe="")
                             for key in ("user", "password")) + "@"
        self.receiver = self.start(
            [BUILD / "tools/vistrel-receive", "--snapshot", picture, "--timeout", "20",
             "--json", options.out / "statistics.json",
             *(["--duration", str(options.seconds)] if options.seconds else []),
             # The certificate is of the rig's making, and the way leads through this machine only.
             *(["--insecure"] if self.stream.get("certificate") else []),
             self.address(login + host)])
        status = self.follow()
        print()
        if picture.exists() and picture.stat().st_size:
            print(f"A picture of the stereo frame: {picture}")
        if program.poll() is not None:
            self.fail_with_log("the program ended")
        if status:
            raise Failed(f"no frames were received; the program's log: {self.log}")

    def follow(self):
        """Waits for the receiver, and ends it when a recording that is played once is over."""
        while self.options.once and self.receiver.poll() is None:
            if self.log.read_text(errors="replace").count(OVER) == 2:
                time.sleep(1)  # the last frames are on their way
                self.receiver.terminate()
                break
            time.sleep(0.1)
        return self.receiver.wait()

    def desktop(self):
        screen = os.environ.get("DISPLAY")
        print(f"The window opens on {screen or os.environ['WAYLAND_DISPLAY']}; its log: {self.log}")
        if not screen:
            self.environment["QT_QPA_PLATFORM"] = "wayland"
        program = self.start_program()
        with contextlib.suppress(subprocess.TimeoutExpired):
            if program.wait(self.options.seconds):
                self.fail_with_log(f"the program ended with status {program.returncode}")
        picture = os.environ.get("VISTREL_DEMO_PICTURE")
        if picture:
            call("no screenshot could be taken", "import", "-window", "root", picture)
            print(f"A screenshot: {picture}")

    def signalled(self, signum, _):
        """Ends the receiver, which then reports, or else the demonstration."""
        if not self.receiver:
            sys.exit(128 + signum)
        if self.receiver.poll() is None:
            self.receiver.terminate()


def on_signals(handler):
    for each in signal.SIGINT, signal.SIGTERM:
        signal.signal(each, handler)


def main():
    sys.stdout.reconfigure(line_buffering=True)
    on_signals(lambda signum, _: sys.exit(128 + signum))
    options = parse()
    try:
        prepare(options)
        if options.mode and not have_display():
            print("There is no display: the window opens on one in memory.")
            options.out.mkdir(parents=True, exist_ok=True)
            os.environ["VISTREL_DEMO_PICTURE"] = str(options.out / "desktop.png")
            command = [ROOT / "cmake/with-display", "--screen", "1440x900x24", "--wm", "openbox", "--",
                       ROOT / "run", "--no-setup", "--seconds", "10", *sys.argv[1:]]
            os.execv(command[0], command)
        with contextlib.ExitStack() as stack:
            work = stack.enter_context(tempfile.TemporaryDirectory(prefix="vistrel-demo."))
            try:
                demonstration = Demonstration(options, pathlib.Path(work), stack)
                on_signals(demonstration.signalled)
                (demonstration.desktop if options.mode else demonstration.headless)()
            finally:
                on_signals(signal.SIG_IGN)
    except Failed as failure:
        sys.exit(f"run: {failure}")


if __name__ == "__main__":
    main()
