#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds the program and shows it at work: two cameras become one stereo stream.

For tests: VISTREL_DEMO_BUILD names a folder with the finished programs; then nothing is installed or
built. VISTREL_DEMO_PICTURE is where a window in memory leaves a screenshot at its end.
"""
import argparse
import contextlib
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

ROOT = pathlib.Path(__file__).resolve().parents[2]
DESCRIPTION = """\
Without "desktop": stream headless, receive the stream, show its state. With it: open the desktop
program.

Installs what is missing, builds, and streams two simulated cameras as one stereo camera until
Ctrl-C. Everything happens in a private view of /usr/local/kor/settings, with stand-ins for sudo
and systemctl: no configuration and no service of this machine is touched, and once the packages
are installed nothing needs root.
"""
STATUSES = """\
Exit status:
  0         frames were received, until the seconds were over or Ctrl-C; desktop: the window was
            closed or the seconds were over, without a display also: the screenshot was taken
  1         something failed or no frame was received; a line says what
  2         wrong use
  130, 143  ended by Ctrl-C or SIGTERM before the stream was there; desktop: at any time
"""


class Failed(Exception):
    """What went wrong, for the user."""


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
    parser.add_argument("mode", nargs="?", choices=["desktop"])
    parser.add_argument("--seconds", type=number(1, 10**9), metavar="N", help="end after N seconds")
    cameras = parser.add_mutually_exclusive_group()
    cameras.add_argument("--rig", type=path, metavar="FILE", help="the cameras described in FILE (see "
                         "docs/rig.md); the first two of the same family become the stereo camera")
    cameras.add_argument("--recording", type=path, metavar="DIR", help="play a stereo and IMU recording "
                         "in the ASL layout (DIR/mav0/cam0, cam1, imu0)")
    parser.add_argument("--size", type=eye, metavar="WxH", help="size of one eye, default 960x600 for "
                        "GS and 1920x1080 for UHD cameras, or the recording's")
    parser.add_argument("--fps", type=number(1, 1000), metavar="N",
                        help="frames per second, default 30 or the recording's")
    parser.add_argument("--port", type=number(1, 65535), metavar="N", default=30000,
                        help="port of the stream, default 30000")
    parser.add_argument("--out", type=path, metavar="DIR", default=ROOT / "out",
                        help="logs and pictures go there, default the folder out beside ./run")
    parser.add_argument("--no-setup", action="store_true", help="install nothing")
    return parser.parse_args()


def have_display():
    """A display of this user, unless only a stand-in in memory can be had."""
    return os.environ.get("DISPLAY") or os.environ.get("WAYLAND_DISPLAY") and glob.glob(
        "/usr/lib/*/qt5/plugins/platforms/libqwayland-*.so")


def call(*command):
    """Runs a step of the preparation, which says itself what fails."""
    if subprocess.run(command, cwd=ROOT, check=False).returncode:
        raise Failed(f"{command[0]} failed")


def prepare(options, build):
    if "VISTREL_DEMO_BUILD" not in os.environ:
        if not options.no_setup:
            memory = options.mode == "desktop" and not have_display()
            call("scripts/setup", "run", *(["desktop"] if memory else []))
        if not (build / "build.ninja").exists():
            call("cmake", "--preset", "release")
        call("cmake", "--build", str(build), "--target", "kor_vistrel", "vistrel-receive")
    if subprocess.run([ROOT / "tests/sandbox/run-in-sandbox", "--check"], check=False).returncode:
        raise Failed(
            "this machine allows no private mount namespace: ordinary users need unprivileged user "
            "namespaces (sysctl user.max_user_namespaces and, where they exist, "
            "kernel.unprivileged_userns_clone and kernel.apparmor_restrict_unprivileged_userns), "
            "containers the right to mount")


class Demonstration:
    def __init__(self, options, build, work, stack):
        self.options, self.build, self.work, self.stack = options, build, work, stack
        self.log = options.out / "kor_vistrel.log"
        self.stream = {}  # the rig's stream object
        self.receiver = None

    def configure(self):
        """Writes the rig, if there is one, and the settings; the environment of the program."""
        options = self.options
        rig, size, fps = options.rig, options.size, options.fps
        # KOR_RIG may be a habit of this user: what is asked for here goes before it.
        if not rig and not options.recording and os.environ.get("KOR_RIG"):
            rig = path(os.environ["KOR_RIG"])
        if options.recording:
            rig = self.work / "rig.json"
            described, recorded_size, recorded_fps = rigs.record(options.recording)
            rig.write_text(json.dumps(described))
            fps = fps or recorded_fps
            # The window offers the family's sizes only; recordings are scaled.
            size = size or (None if options.mode == "desktop" else recorded_size)
        for folder in self.work / "settings", self.work / "state", self.work / "config", options.out:
            folder.mkdir(parents=True, exist_ok=True)
        # The same cameras as the built-in rig's.
        cameras = rig or ROOT / "sdk/rigs/two-gs.json"
        described = rigs.read(cameras)
        try:
            pair = rigs.pair(described, size, fps or 30, options.port)
        except rigs.Refused as refusal:
            raise Failed(f"{cameras}: {refusal}") from None
        (self.work / "settings/virtual_tsolo_config.json").write_text(json.dumps(pair))
        environment = {**os.environ, "VISTREL_DEMO_STATE": str(self.work / "state"),
                       "XDG_CONFIG_HOME": str(self.work / "config"), "KOR_RIG": str(rig or "")}
        if rig:
            self.stream = described.get("stream", {})
        else:
            del environment["KOR_RIG"]
        return environment

    def start(self, command, **where):
        """Starts a process in a session of its own, so that Ctrl-C reaches this one only."""
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True, **where)
        self.stack.callback(end, process)
        return process

    def program(self, environment, *arguments):
        """The program in its private view of the machine. /dev/shm is shared, so that cameras which
        another process holds are seen as such."""
        with open(self.log, "wb") as log:
            return self.start(
                [ROOT / "tests/sandbox/run-in-sandbox", "--settings", self.work / "settings",
                 "--shm", "/dev/shm", "--commands", ROOT / "scripts/demo/commands", "--",
                 self.build / "app/kor_vistrel", *arguments],
                env=environment, stdout=log, stderr=log)

    def fail_with_log(self, what):
        tail = self.log.read_text(errors="replace").splitlines()[-15:]
        raise Failed("\n".join([f"{what}. The end of {self.log}:", *tail]))

    def wait_for_stream(self, host, program):
        print("Starting the cameras and the stream ...")
        for _ in range(600):
            if program.poll() is not None:
                self.fail_with_log("the program ended before it streamed")
            if port_open(host, self.options.port):
                return
            time.sleep(0.1)
        self.fail_with_log("no stream after 60 seconds")

    def show_addresses(self):
        port, hosts = self.options.port, ""
        with contextlib.suppress(OSError):
            hosts = subprocess.run(["hostname", "-I"], stdout=subprocess.PIPE, text=True,
                                   stderr=subprocess.DEVNULL, check=False).stdout
        print("\nThe stereo stream is served at")
        for host in ["localhost", *(host for host in hosts.split() if ":" not in host)]:
            print(f"    rtsp://{host}:{port}/stereo")
        url = f"rtsp://localhost:{port}/stereo"
        print("Open it in a player, for example\n"
              f"    ffplay -fflags nobuffer -flags low_delay {url}\n"
              f"    vlc --network-caching=200 {url}\n"
              f"    gst-launch-1.0 playbin3 uri={url}")
        if self.stream.get("user"):
            print("with the user and password of the rig's stream object.")
        print()

    def headless(self, environment):
        options, bound = self.options, self.stream.get("bindAddress") or "0.0.0.0"
        host = "127.0.0.1" if bound in ("0.0.0.0", "::") else bound
        if port_open(host, options.port):
            raise Failed(f"port {options.port} is used by another program; choose one with --port")
        program = self.program(environment, "--cli")
        self.wait_for_stream(host, program)
        self.show_addresses()

        picture = options.out / "snapshot.png"
        picture.unlink(missing_ok=True)
        login = ""
        if self.stream.get("user"):
            login = ":".join(urllib.parse.quote(str(self.stream.get(key, "")), safe="")
                             for key in ("user", "password")) + "@"
        self.receiver = self.start(
            [self.build / "tools/vistrel-receive", "--snapshot", picture, "--timeout", "20",
             "--json", options.out / "statistics.json",
             *(["--duration", str(options.seconds)] if options.seconds else []),
             f"rtsp://{login}{host}:{options.port}/stereo"])
        status = self.receiver.wait()
        print()
        if picture.exists() and picture.stat().st_size:
            print(f"A picture of the stereo frame: {picture}")
        if program.poll() is not None:
            self.fail_with_log("the program ended")
        if status:
            raise Failed(f"no frames were received; the program's log: {self.log}")

    def desktop(self, environment):
        screen = os.environ.get("DISPLAY")
        print(f"The window opens on {screen or os.environ['WAYLAND_DISPLAY']}; its log: {self.log}")
        if not screen:
            environment["QT_QPA_PLATFORM"] = "wayland"
        program = self.program(environment)
        with contextlib.suppress(subprocess.TimeoutExpired):
            status = program.wait(self.options.seconds)
            if status:
                self.fail_with_log(f"the program ended with status {status}")
        picture = os.environ.get("VISTREL_DEMO_PICTURE")
        if picture:
            pathlib.Path(picture).unlink(missing_ok=True)
            if subprocess.run(["import", "-window", "root", picture], check=False).returncode:
                raise Failed("no screenshot could be taken")
            print(f"A screenshot: {picture}")

    def signalled(self, signum, _):
        """Ends the receiver, which then reports, or else the demonstration."""
        if self.receiver:
            if self.receiver.poll() is None:
                self.receiver.terminate()
        else:
            sys.exit(128 + signum)


def end(process):
    """Ends a process with all that it started; kills what is left after five seconds."""
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGTERM)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(5)
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


def port_open(host, port):
    try:
        socket.create_connection((host, port), timeout=5).close()
        return True
    except OSError:
        return False


def on_signals(handler):
    for each in signal.SIGINT, signal.SIGTERM:
        signal.signal(each, handler)


def main():
    sys.stdout.reconfigure(line_buffering=True)
    on_signals(lambda signum, _: sys.exit(128 + signum))
    options = parse()
    build = pathlib.Path(os.environ.get("VISTREL_DEMO_BUILD", ROOT / "build/release"))
    try:
        prepare(options, build)
        if options.mode == "desktop" and not have_display():
            print("There is no display: the window opens on one in memory.")
            options.out.mkdir(parents=True, exist_ok=True)
            os.environ["VISTREL_DEMO_PICTURE"] = str(options.out / "desktop.png")
            command = [str(ROOT / "cmake/with-display"), "--screen", "1440x900x24", "--wm", "openbox",
                       "--", str(ROOT / "run"), "--no-setup", "--seconds", "10", *sys.argv[1:]]
            os.execv(command[0], command)
        with contextlib.ExitStack() as stack:
            work = stack.enter_context(tempfile.TemporaryDirectory(prefix="vistrel-demo."))
            demonstration = Demonstration(options, build, pathlib.Path(work), stack)
            on_signals(demonstration.signalled)
            try:
                environment = demonstration.configure()
                (demonstration.desktop if options.mode else demonstration.headless)(environment)
            finally:
                on_signals(signal.SIG_IGN)
    except (Failed, rigs.Refused) as failure:
        sys.exit(f"run: {failure}")


if __name__ == "__main__":
    main()
