# SPDX-License-Identifier: Apache-2.0
"""An encrypted stream: plain requests, halves of handshakes, wrong records."""
import contextlib
import random
import ssl
import time

from arena import attack
from rtsp import Connection, NoAnswer

ENCRYPTED = {"encrypted": True, "password": True}


def hello():
    """The first message of a handshake."""
    outgoing = ssl.MemoryBIO()
    with contextlib.suppress(ssl.SSLWantReadError):
        ssl.create_default_context().wrap_bio(ssl.MemoryBIO(), outgoing, server_hostname="x").do_handshake()
    return outgoing.read()


@attack("tls-plain", "plain requests to an encrypted stream", service=ENCRYPTED, rehearsed=True)
def plain(arena, service):
    count, answered = arena.count(200, 20), 0
    for _ in range(count):
        with contextlib.suppress(OSError, NoAnswer), Connection(service.port, timeout=0.3) as connection:
            connection.ask("OPTIONS")
            answered += 1
    arena.check(not answered, f"{answered} plain requests were answered")
    arena.tried = f"{count} plain requests, {answered} answered"


@attack("tls-half", "handshakes that stop after some bytes, held", service=ENCRYPTED, rehearsed=True, quick=True)
def half(arena, service):
    whole, count = hello(), arena.count(100, 30)
    with contextlib.ExitStack() as stack:
        for number in range(count):
            with contextlib.suppress(OSError):
                held = stack.enter_context(Connection(service.port, source="127.0.0.3", timeout=1))
                held.send(whole[:number * len(whole) // count])
            if number in (0, count // 2):
                arena.judge_viewers(service, f"meanwhile, {number + 1} held")
        arena.judge_viewers(service, "meanwhile")
    arena.tried = f"{count} parts of a first message of {len(whole)} bytes"


@attack("tls-junk", "wrong bytes before and after the handshake", service=ENCRYPTED, rehearsed=True)
def junk(arena, service):
    dice, count, whole = random.Random(9), arena.count(300, 60), hello()
    for number in range(count):
        spoilt = bytearray(whole)
        for _ in range(dice.randrange(1, 8)):
            spoilt[dice.randrange(len(spoilt))] = dice.randrange(256)
        with contextlib.suppress(OSError, NoAnswer):
            with Connection(service.port, timeout=1, tls=number % 3 == 0 and service.tls) as connection:
                connection.send((bytes(spoilt), dice.randbytes(2000))[number % 2])
                connection.receive(time.monotonic() + 0.02)
    arena.tried = f"{count} connections, a third of them after a right handshake"
