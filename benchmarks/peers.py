# SPDX-License-Identifier: Apache-2.0
"""What an expert builds from GStreamer and ffmpeg without this program, and a receiver for all."""
import contextlib
import os
import socket
import subprocess
import sys
import threading
import time

from measure import free_port, listening

FRAMES = 12  # of each eye, on disk; a multiple of nothing in the encoder
BITRATE = 20000  # kbit/s
INTERVAL = 120  # frames from one key frame to the next
X264 = (f"x264enc bitrate={BITRATE} speed-preset=ultrafast tune=zerolatency aud=false "
        f"sliced-threads=true vbv-buf-capacity=300 bframes=0 key-int-max={INTERVAL}")
PAY = "rtph264pay name=pay0 pt=96 config-interval=0 aggregate-mode=zero-latency mtu=1400"
DECODER = "rtph264depay ! h264parse ! avdec_h264 max-threads=2 thread-type=slice"


class Frames:
    """The same few pictures as a recording, as raw files and as numbered raw files."""

    def __init__(self, folder, size, fps, recording):
        self.size, self.fps, self.folder = size, fps, folder
        for index, eye in enumerate(("left", "right")):
            pictures = folder / f"mav0/cam{index}/data"
            pictures.mkdir(parents=True)
            source = (["-pattern_type", "glob", "-i", f"{recording}/mav0/cam{index}/data/*.png"]
                      if recording else ["-f", "lavfi", "-i", f"testsrc2=size=752x480:rate={fps}"])
            ffmpeg(*source, "-frames:v", FRAMES, "-vf", f"scale={size[0]}:{size[1]}",
                   pictures / "%02d.png")
            names = sorted(pictures.glob("*.png"))
            lines = ["#timestamp [ns],filename"]
            for number, name in enumerate(names):
                lines.append(f"{1000000000 + number * 1000000000 // fps},{name.name}")
            (pictures.parent / "data.csv").write_text("\n".join(lines) + "\n")
            ffmpeg("-i", pictures / "%02d.png", "-pix_fmt", "yuyv422", "-f", "rawvideo",
                   folder / f"{eye}.yuyv")
            picture_bytes = size[0] * size[1] * 2
            raw = (folder / f"{eye}.yuyv").read_bytes()
            for number in range(FRAMES):
                (folder / f"{eye}-{number:02}.yuyv").write_bytes(
                    raw[number * picture_bytes:(number + 1) * picture_bytes])


def ffmpeg(*arguments):
    subprocess.run(["ffmpeg", "-v", "error", "-y", *map(str, arguments)], check=True,
                   stdin=subprocess.DEVNULL)


class Program:
    """A peer that runs: its process, and what a receiver opens."""

    def __init__(self, command, source, others=()):
        self.process = subprocess.Popen(list(map(str, command)), stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        self.pid, self.source, self.others = self.process.pid, source, others

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in (self.process, *self.others):
            process.kill()
            process.wait()


def gstreamer_line(size, threads, direct, left, right):
    width, height = size
    joined = f"video/x-raw,width={2 * width},height={height}"
    conversion = (f"{joined},format=I420" if direct else
                  f"{joined},format=YUY2 ! videoconvert ! video/x-raw,format=I420")
    return (f"( compositor name=join background=black sink_1::xpos={width} ! {conversion} ! "
            f"{X264} threads={threads} ! {PAY} {left} ! join. {right} ! join. )")


def gstreamer_files(build, frames, threads, direct):
    def eye(name):
        return (f"multifilesrc location={frames.folder}/{name}-%02d.yuyv loop=true "
                f"stop-index={FRAMES - 1} ! rawvideoparse format=yuy2 width={frames.size[0]} "
                f"height={frames.size[1]} framerate={frames.fps}/1 ! clocksync")

    port = free_port()
    return Program([build / "benchmarks/bench_peer", port,
                    gstreamer_line(frames.size, threads, direct, eye("left"), eye("right"))],
                   f"rtsp://127.0.0.1:{port}/stereo")


def gstreamer_cameras(build, size, fps, threads, direct):
    def eye(name):
        return (f"appsrc name={name} caps=video/x-raw,format=YUY2,width={size[0]},"
                f"height={size[1]},framerate={fps}/1")

    port = free_port()
    return Program([build / "benchmarks/bench_peer", port,
                    gstreamer_line(size, threads, direct, eye("left"), eye("right")), *size, fps],
                   f"rtsp://127.0.0.1:{port}/stereo")


def ffmpeg_command(size, fps, threads, inputs, port):
    raw = ["-f", "rawvideo", "-pix_fmt", "yuyv422", "-s", f"{size[0]}x{size[1]}", "-r", fps]
    command = ["ffmpeg", "-v", "error", "-y"]
    for options in inputs:
        command += [*options[:-1], *raw, "-i", options[-1]]
    return command + [
        "-filter_complex", "[0:v][1:v]hstack,format=yuv420p", "-c:v", "libx264", "-preset",
        "ultrafast", "-tune", "zerolatency", "-b:v", f"{BITRATE}k", "-maxrate", f"{BITRATE}k",
        "-bufsize", f"{BITRATE * 3 // 10}k", "-g", INTERVAL, "-bf", "0", "-threads", threads,
        "-x264-params", "sliced-threads=1", "-f", "rtp",
        f"rtp://127.0.0.1:{port}?pkt_size=1400"]


def ffmpeg_files(_build, frames, threads, _direct):
    port = free_port()
    inputs = [["-re", "-stream_loop", "-1", frames.folder / f"{eye}.yuyv"]
              for eye in ("left", "right")]
    return Program(ffmpeg_command(frames.size, frames.fps, threads, inputs, port), port)


def ffmpeg_cameras(build, folder, size, fps, threads):
    port = free_port()
    pipes = [folder / "left.pipe", folder / "right.pipe"]
    cameras = []
    for pipe, eye in zip(pipes, ("left", "right")):
        if not pipe.exists():
            os.mkfifo(pipe)
        cameras.append(subprocess.Popen([build / "benchmarks/bench_camera", eye,
                                         *map(str, (*size, fps)), pipe]))
    inputs = [["-probesize", "32", "-analyzeduration", "0", "-thread_queue_size", "1", pipe]
              for pipe in pipes]
    return Program(ffmpeg_command(size, fps, threads, inputs, port), port, cameras)


class Receiver:
    """Takes the video over UDP, counts its frames and does not decode them.

    source: an rtsp address, or the port that RTP packets are sent to
    reads: or the system throws the packets away, which costs the sender the same
    first: seconds since the machine was started, when the first frame was complete
    """

    def __init__(self, source, reads=True):
        self.frames, self.first = 0, None
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self.socket.bind(("127.0.0.1", source if isinstance(source, int) else 0))
        self.control = None if isinstance(source, int) else self.play(source)
        if reads:
            threading.Thread(target=self.count, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()
        if self.control:
            self.control.close()

    def play(self, url):
        port = int(url.split(":")[2].split("/")[0])
        wait_until(lambda: listening(port), "no server")
        control = socket.create_connection(("127.0.0.1", port))
        answers = control.makefile("rb")
        session = {}
        mine = self.socket.getsockname()[1]
        for number, (method, target, header) in enumerate((
                ("DESCRIBE", url, {}),
                ("SETUP", url + "/stream=0",
                 {"Transport": f"RTP/AVP;unicast;client_port={mine}-{mine + 1}"}),
                ("PLAY", url, {}))):
            lines = [f"{method} {target} RTSP/1.0", f"CSeq: {number + 1}"]
            lines += [f"{key}: {value}" for key, value in {**header, **session}.items()]
            control.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
            status, fields = answers.readline(), {}
            while (line := answers.readline().strip()):
                key, value = line.decode().split(":", 1)
                fields[key.lower()] = value.strip()
            answers.read(int(fields.get("content-length", 0)))
            if b" 200 " not in status:
                sys.exit(f"compare: {method} is answered by {status.decode().strip()}")
            if "session" in fields:
                session = {"Session": fields["session"].split(";")[0]}
        return control

    def count(self):
        with contextlib.suppress(OSError):
            while packet := self.socket.recv(65536):
                self.frames += packet[1] >> 7  # the marker of a frame's last packet
                if self.frames == 1 and self.first is None:
                    self.first = time.clock_gettime(time.CLOCK_BOOTTIME)


def wait_until(condition, what):
    end = time.monotonic() + 30
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"compare: {what} for 30 seconds")
        time.sleep(0.002)
