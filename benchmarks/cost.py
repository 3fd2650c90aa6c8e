# SPDX-License-Identifier: Apache-2.0
"""CPU and memory: per stereo frame beside the peers, and as cameras and receivers grow."""
import contextlib
import pathlib
import tempfile
import time

from measure import ROOT, Service, cpu_seconds, resident_mb
from peers import Frames, Receiver, ffmpeg_files, gstreamer_files, wait_until

OWN = "KOR Vistrel"
SCALE_SIZE = (960, 600)
CAMERAS, CAMERAS_FPS = (1, 2, 4, 8), 10  # so that two cores encode eight
RECEIVERS, RECEIVERS_FPS = (1, 4, 16, 64), 20


def cpu_per_frame(program, source, fps, seconds):
    """ms of CPU per stereo frame of a process that streams to one receiver."""
    with Receiver(source) as receiver:
        wait_until(lambda: receiver.frames > 0, "no frame")
        time.sleep(2)
        start, cpu, frames = time.monotonic(), cpu_seconds(program.pid), receiver.frames
        time.sleep(seconds)
        elapsed = time.monotonic() - start
        cpu, frames = cpu_seconds(program.pid) - cpu, receiver.frames - frames
    if abs(frames / elapsed / fps - 1) > 0.05:
        print(f"    (only {frames / elapsed:.1f} frames per second arrived)")
    return 1000 * cpu / max(1, frames)


def variants():
    """How each peer is tried: its name, how it is started, threads, conversion in the compositor."""
    found = {}
    for threads in (1, 2):
        name = f"{threads} thread{'s' * (threads - 1)}"
        found[f"ffmpeg, {name}"] = (ffmpeg_files, threads, None)
        for direct in (False, True):
            conversion = "compositor to I420" if direct else "YUY2, videoconvert"
            found[f"GStreamer, {conversion}, {name}"] = (gstreamer_files, threads, direct)
    return found


def measure_cpu(arguments, size, fps):
    build = ROOT / arguments.build
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        frames = Frames(folder, size, fps, arguments.recording)
        peers = variants()
        known = arguments.page.get("cpu", {}).get(f"{size[0]}x{size[1]}@{fps}", {}).get("figures", {})

        def run(peer):
            start, threads, direct = peers[peer]
            with start(build, frames, threads, direct) as program:
                return cpu_per_frame(program, program.source, fps, arguments.seconds)

        def own():
            with Service(build, size, fps, folder) as service:
                return cpu_per_frame(service, service.url(), fps, arguments.seconds)

        # In a hurry those that were the best when the page was made.
        if arguments.quick and known:
            trials, best = {}, [peer for peer in peers if peer in known]
        else:
            trials = {peer: run(peer) for peer in peers}
            best = [min((peer for peer in peers if peer.startswith(kind)), key=trials.get)
                    for kind in ("GStreamer", "ffmpeg")]
        figures = {peer: [] for peer in (*best, OWN)}
        for _ in range(arguments.rounds):
            for peer in best:
                figures[peer].append(run(peer))
            figures[OWN].append(own())
        return {"trials": trials, "figures": figures}


def load_of(service, seconds):
    """% of a core and MB."""
    start, cpu = time.monotonic(), cpu_seconds(service.pid)
    time.sleep(seconds)
    return {"cpu": 100 * (cpu_seconds(service.pid) - cpu) / (time.monotonic() - start),
            "memory": resident_mb(service.pid)}


def measure_cameras(arguments, count):
    """So many virtual cameras with a receiver each."""
    with Service(ROOT / arguments.build, SCALE_SIZE, CAMERAS_FPS, pairs=count) as service, \
            contextlib.ExitStack() as receivers:
        for pair in range(count):
            receivers.enter_context(Receiver(service.url(pair), reads=False))
        time.sleep(3)
        return load_of(service, arguments.seconds)


def measure_receivers(arguments, counts):
    """So many receivers of one stream, more and more of them."""
    found = {}
    stream = {"maxClients": max(counts), "maxPerAddress": max(counts)}
    with Service(ROOT / arguments.build, SCALE_SIZE, RECEIVERS_FPS, stream=stream) as service, \
            contextlib.ExitStack() as receivers:
        for count in counts:
            for _ in range(count - max(found, default=0)):
                receivers.enter_context(Receiver(service.url(), reads=False))
            time.sleep(3)
            found[count] = load_of(service, arguments.seconds)
    return found


def measure_scale(arguments):
    cameras = CAMERAS[::3] if arguments.quick else CAMERAS
    receivers = RECEIVERS[::2] if arguments.quick else RECEIVERS
    return {"cameras": {count: measure_cameras(arguments, count) for count in cameras},
            "receivers": measure_receivers(arguments, receivers)}


def slope(points, key):
    """Growth per one more, from the least to the most."""
    counts = sorted(map(int, points))
    first, last = (points.get(count, points.get(str(count))) for count in (counts[0], counts[-1]))
    return (last[key] - first[key]) / (counts[-1] - counts[0])
