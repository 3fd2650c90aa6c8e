# SPDX-License-Identifier: Apache-2.0
"""Viewers that come in numbers, stop reading, vanish, or take more than their share."""
import contextlib
import pathlib
import threading
import time

from arena import attack
from receivers import Receiver
from rtsp import Connection, NoAnswer, Refused, Viewer
from service import simulated_rig

MANY = {"stream": {"maxClients": 100, "maxPerAddress": 100}}


@attack("viewers-64", "64 viewers, of which 20 never read", service=MANY, rehearsed=True, quick=True)
def sixty_four(arena, service):
    total, deaf = arena.count(64, 24), arena.count(20, 8)
    seconds, viewers, refused = arena.count(20, 5), [], 0
    for number in range(total):
        try:
            viewers.append(Viewer(service, tcp=number % 2 == 0, source=f"127.0.2.{number + 1}"))
        except (OSError, NoAnswer, Refused, KeyError):
            refused += 1
    silent = [viewer for viewer in viewers if viewer.tcp][:deaf]
    reading = [viewer for viewer in viewers if viewer not in silent]
    with watching(reading):
        start = time.monotonic()
        arena.judge_viewers(service, "meanwhile")
        time.sleep(max(0.0, start + seconds - time.monotonic()))
    rates = sorted(viewer.frames.whole / seconds for viewer in reading)
    if rates:
        arena.figures["frames per second"] = f"slowest {rates[0]:.0f}, median {rates[len(rates) // 2]:.0f}"
        arena.check(rates[0] > 0, "a viewer that reads got nothing")
    arena.check(not refused, f"{refused} were refused")
    arena.figures["most"] = str(service.resources())
    for viewer in viewers:
        viewer.close(reset=True, politely=viewer in reading)
    arena.tried = f"{len(viewers)} viewers, {len(silent)} of them do not read, for {seconds} s"


@contextlib.contextmanager
def watching(viewers):
    """Each of them watches, on a thread of its own, while this context lasts."""
    over = threading.Event()

    def watch(viewer):
        with contextlib.suppress(OSError, NoAnswer):
            while not over.is_set():
                viewer.watch(0.2)

    threads = [threading.Thread(target=watch, args=(viewer,)) for viewer in viewers]
    for thread in threads:
        thread.start()
    try:
        yield
    finally:
        over.set()
        for thread in threads:
            thread.join()


@attack("viewers-vanish", "viewers that are cut off, over both transports", service=MANY)
def vanish(arena, service):
    count, came = arena.count(300, 40), 0
    for number in range(count):
        with contextlib.suppress(OSError, NoAnswer, Refused, KeyError):
            viewer = Viewer(service, tcp=number % 2 == 0, source=f"127.0.3.{number % 50 + 1}")
            came += 1
            viewer.watch(0.05)
            viewer.close(reset=number % 3 == 0, politely=False)
    arena.check(came == count, f"{count - came} were not served")
    arena.tried = f"{came} viewers came and vanished without a word"


@attack("viewers-crowd", "one address takes all sessions that it can get")
def crowd(arena, service):
    viewers, refused = [], 0
    for _ in range(32):
        try:
            viewers.append(Viewer(service, tcp=True, source="127.0.0.3"))
        except (OSError, NoAnswer, Refused, KeyError):
            refused += 1
    arena.judge_viewers(service, "meanwhile")
    for viewer in viewers:
        viewer.close(politely=False)
    arena.tried = f"32 sessions asked for by one address, {len(viewers)} given"


@attack("viewers-sessions", "one connection sets up session after session")
def sessions(arena, service):
    given = 0
    with Connection(service.port, source="127.0.0.3") as connection, contextlib.suppress(OSError, NoAnswer):
        connection.ask("DESCRIBE")
        for number in range(200):
            channels = f"{2 * number % 250}-{2 * number % 250 + 1}"
            answer = connection.ask("SETUP", connection.url + "/stream=0",
                                    [("Transport", f"RTP/AVP/TCP;unicast;interleaved={channels}")])
            given += answer.status == 200
        arena.judge_viewers(service, "meanwhile")
    arena.tried = f"200 sessions asked for by one connection, {given} given"


def unsent(port):
    """Bytes that wait in the server's sockets."""
    rows = [line.split() for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]]
    return sum(int(row[4].split(":")[0], 16) for row in rows if int(row[1].split(":")[1], 16) == port)


def wait_until_full(port, limit=60):
    """Waits until every buffer on the way to a viewer that does not read is full."""
    late, before, since = time.monotonic() + limit, -1, 0.0
    while time.monotonic() < late:
        now = unsent(port)
        if now != before or not now:
            before, since = now, time.monotonic()
        if time.monotonic() - since > 2:
            return
        time.sleep(0.1)


def stuck(name, title, before, stopped, **more):
    """`before`: transports of viewers that are there already."""
    @attack(name, title, service={"width": 960, "height": 600}, rehearsed=True, **more)
    def sticking(arena, service):
        with contextlib.ExitStack() as stack:
            healthy = [stack.enter_context(Viewer(service, tcp=transport == "TCP")) for transport in before]
            stack.enter_context(watching(healthy))
            halted = [Receiver(arena.build, service, tcp=True) for _ in range(stopped)]
            for receiver in halted:
                stack.callback(receiver.kill)
            time.sleep(3)  # so long they are honest
            for receiver in halted:
                receiver.stop()
            wait_until_full(service.port)
            for turn in range(arena.count(5, 2)):
                arena.judge_viewers(service, f"newcomer {turn + 1}")
            counts = [viewer.frames.whole for viewer in healthy]
            time.sleep(1)
            arena.check(all(viewer.frames.whole > count + 10 for viewer, count in zip(healthy, counts)),
                        "who was there before gets no frames")
        arena.tried = f"{stopped} stopped, {' and '.join(before) or 'nobody'} there before"


stuck("stuck-only", "a TCP viewer that is stopped, alone", (), 1, quick=True)
stuck("stuck-second-udp", "a TCP viewer that is stopped beside a UDP viewer", ("UDP",), 1)
stuck("stuck-second-tcp", "a TCP viewer that is stopped beside a TCP viewer", ("TCP",), 1)
stuck("stuck-three", "three TCP viewers that are stopped, alone", (), 3)


@attack("no-picture", "descriptions asked for while a camera is dead", service=None)
def no_picture(arena):
    with arena.service(rig=simulated_rig(right={"deathAfter": 0}), **MANY) as service:
        service.start()
        asked = [Connection(service.port, source="127.0.0.3", timeout=30) for _ in range(5)]
        start, answers = time.monotonic(), []
        for connection in asked:
            connection.send(b"DESCRIBE rtsp://127.0.0.1/stereo RTSP/1.0\r\nCSeq: 1\r\n\r\n")
        time.sleep(0.5)
        with Connection(service.port, timeout=5) as other:
            began = time.monotonic()
            try:
                other.ask("OPTIONS")
                arena.figures["others are answered after"] = f"{time.monotonic() - began:.2f} s"
                arena.check(time.monotonic() - began < 1, "another client waited more than 1 s")
            except NoAnswer:
                arena.figures["others are answered after"] = "more than 5 s"
                arena.fail("another client was not answered within 5 s")
        for connection in asked:
            with contextlib.suppress(NoAnswer, OSError):
                answers.append(connection.response().status)
            connection.close()
        arena.figures["descriptions"] = f"{answers} after {time.monotonic() - start:.1f} s"
        arena.check(len(answers) == len(asked), "a description was neither given nor refused within 30 s")
    arena.tried = "5 descriptions asked for at once, the right camera dead from the start"
