# SPDX-License-Identifier: Apache-2.0
"""An encrypted stream: plain requests, halves of handshakes, wrong records."""
import contextlib
import random
import ssl
import time

from arena import Skipped, attack
from rtsp import Connection, NoAnswer
from service import Ended


def serve(arena):
    """An encrypted service that runs, and its resources."""
    service = arena.service(encrypted=True, password=True)
    try:
        return service.start(), service.warm_up()
    except Ended as reason:
        service.end()
        if "certificate" in str(reason):
            raise Skipped("this program does not encrypt") from None
        raise
    except BaseException:
        service.end()
        raise


def hello():
    """The first message of a handshake."""
    outgoing = ssl.MemoryBIO()
    with contextlib.suppress(ssl.SSLWantReadError):
        ssl.create_default_context().wrap_bio(ssl.MemoryBIO(), outgoing, server_hostname="x").do_handshake()
    return outgoing.read()


@attack("tls-plain", "plain requests to an encrypted stream", service=None)
def plain(arena):
    service, before = serve(arena)
    with service:
        count, answered = arena.count(200, 40), 0
        for _ in range(count):
            with contextlib.suppress(OSError, NoAnswer), Connection(service.port, timeout=0.3) as connection:
                connection.ask("OPTIONS")
                answered += 1
        arena.check(not answered, f"{answered} plain requests were answered")
        arena.after(service, before)
    arena.tried = f"{count} plain requests, {answered} answered"


@attack("tls-half", "handshakes that stop after some bytes, held", service=None)
def half(arena):
    service, before = serve(arena)
    with service, contextlib.ExitStack() as stack:
        whole, count = hello(), arena.count(100, 30)
        for number in range(count):
            with contextlib.suppress(OSError):
                held = stack.enter_context(Connection(service.port, source="127.0.0.3", timeout=1))
                held.send(whole[:number * len(whole) // count])
            if number in (0, count // 2):
                arena.judge_viewers(service, f"meanwhile, {number + 1} held")
        arena.judge_viewers(service, "meanwhile")
        stack.pop_all().close()
        arena.after(service, before)
    arena.tried = f"{count} parts of a first message of {len(whole)} bytes"


@attack("tls-junk", "random bytes and wrong records before and after the handshake", service=None)
def junk(arena):
    service, before = serve(arena)
    with service:
        dice, count, whole = random.Random(9), arena.count(300, 60), hello()
        for number in range(count):
            with contextlib.suppress(OSError, NoAnswer):
                spoilt = bytearray(whole)
                for _ in range(dice.randrange(1, 8)):
                    spoilt[dice.randrange(len(spoilt))] = dice.randrange(256)
                tls = service.tls if number % 3 == 0 else None
                with Connection(service.port, timeout=1, tls=tls) as connection:
                    raw = connection.socket.unwrap if tls and number % 2 else None
                    connection.send((bytes(spoilt), dice.randbytes(2000))[number % 2])
                    if raw:
                        connection.socket.settimeout(0.05)
                        raw()
                    connection.receive(time.monotonic() + 0.02)
        arena.after(service, before)
    arena.tried = f"{count} connections, a third of them with a right handshake first"
