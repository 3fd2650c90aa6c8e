# SPDX-License-Identifier: Apache-2.0
"""More than anybody needs: headers, line ends, bodies, requests, RTP and RTCP."""
import contextlib
import random
import socket
import struct
import time

from arena import attack, in_background
from rtsp import Connection, NoAnswer, Viewer, request
from window import Display, Window, desktop

RATE = 1.5e6  # bytes per second and connection
CLOSED_WITHIN = 2.0  # seconds from the click, one of them for the server
GROWTH = 32  # MB that all of a flood may take at once


def pour(port, opening, unit, connections, rate=RATE):
    """Sends an opening, then a unit again and again, on some connections; connects anew when cut off."""
    block = unit * max(1, int(rate / 100) // len(unit))
    streams = [None] * connections
    while True:
        start = time.monotonic()
        for index, stream in enumerate(streams):
            try:
                if stream is None:
                    streams[index] = stream = Connection(port, source="127.0.0.3", timeout=1)
                    stream.send(opening)
                    stream.socket.settimeout(0.01)
                stream.socket.send(block)
            except socket.timeout:
                pass
            except OSError:
                if stream:
                    stream.close()
                streams[index] = None
        time.sleep(max(0.001, len(block) / rate - (time.monotonic() - start)))


def flood(name, title, opening, unit, connections=2, **more):
    @attack(name, title, **more)
    def flooding(arena, service):
        seconds = arena.count(20, 4)
        before = service.resources().memory
        with in_background(pour, service.port, opening, unit, connections):
            time.sleep(seconds)
            arena.judge_viewers(service, "meanwhile")
            growth = service.resources().memory - before
        arena.figures["growth"] = f"{growth:.0f} MB"
        arena.check(growth < GROWTH, f"memory grew by {growth:.0f} MB")
        arena.tried = f"{connections} connections of {RATE / 1e6:g} MB/s for {seconds} s"


START = b"OPTIONS rtsp://127.0.0.1/stereo RTSP/1.0\r\nCSeq: 1\r\n"
flood("flood-headers", "short headers without end", START, b"a: b\r\n", quick=True)
flood("flood-header-names", "different headers without end", START,
      b"".join(b"X-%d: y\r\n" % number for number in range(1000)))
flood("flood-long-header", "one header without end", START + b"X: ", b"y" * 1000)
flood("flood-line-ends", "line ends without end", b"", b"\r\n", quick=True)
flood("flood-request-line", "a request line without end", b"OPTIONS ", b"z" * 1000)
flood("flood-requests", "right requests without reading the answers", b"", START + b"\r\n")
flood("flood-answers", "answers to requests that were never made", b"",
      b"RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n")
flood("flood-packets", "media packets before any session", b"", b"$\0\x04\0" + b"\x80" * 1024)
flood("flood-body", "a body of 2 GB before any password",
      b"SET_PARAMETER rtsp://127.0.0.1/stereo RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 2000000000\r\n\r\n",
      b"x" * 1000)
flood("flood-headers-login", "short headers without end, where a password is asked for", START, b"a: b\r\n",
      service={"password": True})


@attack("flood-close", "a stream switched off in the window during a flood of headers", service=None)
def close_under_flood(arena):
    arena.tried = "2 connections of short headers, the row's button"
    with Display() as display, desktop(arena, display) as service:
        window = Window(display, service, display.controls(arena.build, 1)).open()
        window.logged("Loading virtual camera configuration")
        time.sleep(0.5)
        window.click("TestButton.0")
        window.logged("--> Enter <--")
        with in_background(pour, service.port, START, b"a: b\r\n", 2):
            time.sleep(3)
            start = time.monotonic()
            window.click("TestButton.0")
            window.logged(": closed after ")
            seconds = time.monotonic() - start
        arena.figures["closed after"] = f"{seconds:.1f} s"
        arena.check(seconds < CLOSED_WITHIN, f"the window stood still for {seconds:.1f} s")
        arena.check(service.alive(), "the window ended")


@attack("flood-long-requests", "requests with many and long headers, one after the other")
def long_requests(arena, service):
    count = arena.count(2000, 100)
    data = request("OPTIONS", "rtsp://127.0.0.1/stereo", [(f"X-{n}", "y" * 200) for n in range(200)])
    with in_background(pour, service.port, b"", data, 2):
        time.sleep(arena.count(20, 4))
        arena.judge_viewers(service, "meanwhile")
    arena.tried = f"requests of {len(data)} bytes on 2 connections, {count} and more"


def junk(dice):
    """RTP or RTCP that is wrong in some way: noise, wrong lengths, every packet type, farewells."""
    kind = dice.randrange(4)
    if kind == 0:
        return dice.randbytes(dice.randrange(1500))
    head = struct.pack(">BBHI", 0x80 | dice.randrange(32), dice.choice([200, 201, 202, 203, 204, 205, 206]),
                       dice.choice([0, 1, 6, 7, 65535]), dice.choice([101234567, dice.getrandbits(32)]))
    if kind == 1:
        return head
    return (head + dice.randbytes(24)) * dice.randrange(1, 20)


def throw_packets(ports, seed):
    dice = random.Random(seed)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as out:
        out.bind(("127.0.0.3", 0))
        while True:
            for _ in range(100):
                with contextlib.suppress(OSError):
                    out.sendto(junk(dice), ("127.0.0.1", dice.choice(ports)))
            time.sleep(0.01)


@attack("junk-udp", "RTP and RTCP junk to the ports of a viewer's session", quick=True, rehearsed=True)
def junk_udp(arena, service):
    seconds = arena.count(30, 4)
    with Viewer(service, tcp=False) as viewer:
        ports = viewer.server_ports()
        viewer.watch(1)
        before = viewer.frames.whole
        with in_background(throw_packets, ports, 6):
            viewer.watch(seconds)
            arena.judge_viewers(service, "meanwhile")
        frames = viewer.frames.whole - before
    arena.figures["frames of the session meanwhile"] = frames
    arena.check(frames > 0.8 * 30 * seconds, f"the session got {frames} frames in {seconds} s")
    arena.tried = f"about 10 000 packets per second for {seconds} s"


@attack("junk-own-rtcp", "a viewer's own RTCP junk, over UDP and inside its connection", rehearsed=True)
def junk_own(arena, service):
    dice, count = random.Random(7), arena.count(20_000, 2_000)
    with Viewer(service, tcp=False, source="127.0.0.3") as udp:
        target = ("127.0.0.1", udp.server_ports()[1])
        for number in range(count):
            udp.sockets[1].sendto(junk(dice), target)
            if number % 100 == 0:
                udp.poll(0)
        arena.judge_viewers(service, "meanwhile (UDP)")
    with contextlib.suppress(OSError, NoAnswer), Viewer(service, tcp=True, source="127.0.0.3") as tcp:
        for number in range(count):
            packet = junk(dice)
            tcp.connection.send(b"$" + bytes([number % 4]) + len(packet).to_bytes(2, "big") + packet)
            if number % 10 == 0:
                tcp.poll(0)
    arena.judge_viewers(service, "meanwhile (TCP)")
    arena.tried = f"{count} packets over UDP, {count} inside the connection"
