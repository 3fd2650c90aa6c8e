# SPDX-License-Identifier: Apache-2.0
"""Connections as such: many, and many at once."""
import contextlib
import multiprocessing
import socket
import struct
import time

from arena import attack, in_background
from rtsp import Connection


LIMIT = 300  # seconds


def connect_and_leave(port, count, tried, taken):
    reset, end = struct.pack("ii", 1, 0), time.monotonic() + LIMIT
    for _ in range(count):
        if time.monotonic() > end:
            return
        with tried.get_lock():
            tried.value += 1
        with contextlib.suppress(OSError), socket.socket() as client:
            # Without resets the machine, not the program, runs out of ports.
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, reset)
            client.settimeout(0.05)
            client.connect(("127.0.0.1", port))
            with taken.get_lock():
                taken.value += 1


@attack("connects", "connections opened and closed at once", quick=True)
def connects(arena, service):
    count, start = arena.count(100_000, 5_000), time.monotonic()
    tried, taken = multiprocessing.Value("i", 0), multiprocessing.Value("i", 0)
    with contextlib.ExitStack() as stack:
        crowd = [stack.enter_context(in_background(connect_and_leave, service.port, count // 4,
                                                   tried, taken))
                 for _ in range(4)]
        arena.judge_viewers(service, "meanwhile")
        for process in crowd:
            process.join()
    seconds = time.monotonic() - start
    arena.tried = f"{tried.value} connects, {taken.value} of them taken"
    arena.figures["rate"] = f"{taken.value / seconds:.0f} per second"
    arena.figures["log"] = f"{len(service.log().splitlines()) / seconds:.0f} lines per second"


def hold(arena, service, sources):
    held, refused = [], 0
    for number in range(arena.count(500, 100)):
        try:
            held.append(Connection(service.port, source=sources[number % len(sources)], timeout=2))
        except OSError:
            refused += 1
    arena.judge_viewers(service, "meanwhile")
    arena.figures["most descriptors"] = service.resources().descriptors
    for connection in held:
        connection.close()
    arena.tried = f"{len(held)} connections held that say nothing, {refused} refused"


@attack("held-one-address", "silent connections held by one address", quick=True)
def held_by_one(arena, service):
    hold(arena, service, ["127.0.0.1"])


@attack("held-many-addresses", "silent connections held by fifty addresses")
def held_by_many(arena, service):
    hold(arena, service, [f"127.0.1.{number}" for number in range(1, 51)])
