# SPDX-License-Identifier: Apache-2.0
"""Latency from capture to picture, and from the start of the process to the first frame, beside the
peers."""
import json
import pathlib
import subprocess
import tempfile

from cost import OWN
from measure import ROOT, Service, listening, program_below, started
from peers import DECODER, Receiver, ffmpeg_cameras, gstreamer_cameras, wait_until

# The pause that the program makes at its start, after it has restarted the camera daemon, in s. All
# others on the way are of 100 microseconds.
PRESCRIBED_PAUSE = 2.0
START_SIZE, START_FPS = (960, 600), 30


def latency_of(arguments, size, source):
    if isinstance(source, int):
        line = (f"udpsrc port={source} buffer-size=2000000 caps=application/x-rtp,media=video,"
                f"clock-rate=90000,encoding-name=H264,payload=96 ! rtpjitterbuffer latency=0 ! "
                f"{DECODER}")
    else:
        port = int(source.split(":")[2].split("/")[0])
        wait_until(lambda: listening(port), "no server")
        line = (f"rtspsrc location={source} latency=0 protocols=udp udp-buffer-size=2000000 "
                f"name=src src. ! application/x-rtp,media=video ! {DECODER}")
    result = subprocess.run([ROOT / arguments.build / "benchmarks/bench_latency", str(size[0]),
                             str(arguments.seconds), line], check=True, capture_output=True)
    return json.loads(result.stdout)


def in_turn(arguments, programs):
    figures = {program: [] for program in programs}
    for _ in range(arguments.rounds):
        for program, run in programs.items():
            figures[program].append(run())
    return {"figures": figures}


def measure_latency(arguments, size, fps):
    build = ROOT / arguments.build
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)

        def gstreamer():
            with gstreamer_cameras(build, size, fps, 2, True) as program:
                return latency_of(arguments, size, program.source)

        def hstack():
            with ffmpeg_cameras(build, folder, size, fps, 2) as program:
                return latency_of(arguments, size, program.source)

        def own():
            with Service(build, size, fps) as service:
                return latency_of(arguments, size, service.url())

        return in_turn(arguments, {"GStreamer": gstreamer, "ffmpeg": hstack, OWN: own})


def first_frame(program, source):
    """Seconds from the start of a process to the first whole frame at a receiver that waits."""
    with Receiver(source) as receiver:
        wait_until(lambda: receiver.first is not None, "no frame")
        return receiver.first - started(program.pid)


def measure_start(arguments):
    build = ROOT / arguments.build
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)

        def gstreamer():
            with gstreamer_cameras(build, START_SIZE, START_FPS, 2, True) as program:
                return first_frame(program, program.source)

        def hstack():
            with ffmpeg_cameras(build, folder, START_SIZE, START_FPS, 2) as program:
                return first_frame(program, program.source)

        def own():
            with Service(build, START_SIZE, START_FPS, wait=False) as service:
                wait_until(lambda: program_below(service.process.pid), "no program")
                service.pid = program_below(service.process.pid)
                return first_frame(service, service.url()) - PRESCRIBED_PAUSE

        return in_turn(arguments, {"GStreamer": gstreamer, "ffmpeg": hstack, OWN: own})
