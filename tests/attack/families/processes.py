# SPDX-License-Identifier: Apache-2.0
"""The process itself: killed at any moment, stopped and continued, its log not read."""
import concurrent.futures
import contextlib
import ctypes
import fcntl
import json
import os
import random
import select
import signal
import time

from arena import attack
from rtsp import Viewer
from service import SERIAL, configuration
from window import Display, Window, desktop

WORKERS = 3
F_SETPIPE_SZ = 1031
IN_ALL = 0x2 | 0x8 | 0x20 | 0x40 | 0x80 | 0x100  # written, closed, opened, moved, made


def in_shares(arena, count, work):
    """Spreads `count` turns of work(turns, seed) over some threads; returns what they return."""
    workers = min(WORKERS, count)
    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        shares = [count // workers + (number < count % workers) for number in range(workers)]
        return [future.result() for future in [pool.submit(work, share, seed)
                                               for seed, share in enumerate(shares)]]


@attack("kill-headless", "kill -9 of the headless program at any moment", service=None, quick=True)
def kill_headless(arena):
    def work(turns, seed):
        dice = random.Random(seed)
        with arena.service() as service:
            content = service.saved.read_bytes()
            for turn in range(turns):
                if turn % 10 == 9:  # while somebody watches
                    service.start()
                    arena.check(not isinstance(service.honest()["TCP"], str), "no stream after a kill")
                else:
                    service.launch()
                    time.sleep(dice.uniform(0, 3.5))
                arena.check(service.alive(), "ended by itself: " + service.log()[-300:])
                service.kill()
                arena.check(service.saved.read_bytes() == content, "the configuration changed")
            start = time.monotonic()
            service.start()
            arena.judge_viewers(service, f"after {seed}")
            return time.monotonic() - start

    count = arena.count(200, 9)
    slowest = max(in_shares(arena, count, work))
    arena.figures["streams again after"] = f"{slowest:.1f} s"
    arena.tried = f"{count} times, 0 to 3.5 s after the start"


@attack("kill-window", "kill -9 of the window at any moment", service=None)
def kill_window(arena):
    def work(turns, seed):
        dice = random.Random(seed)
        with Display() as display, desktop(arena, display) as service:
            window = Window(display, service, {})
            content = service.saved.read_bytes()
            for turn in range(turns):
                if turn % 10 == 9:
                    window.open()
                else:
                    service.launch()
                    time.sleep(dice.uniform(0, 2.5))
                arena.check(service.alive(), "ended by itself: " + service.log()[-300:])
                service.kill()
                arena.check(service.saved.read_bytes() == content, "the configuration changed")
            (service.folder / "log").unlink()
            window.open()
            window.logged(f"Loading virtual camera configuration S/N {SERIAL}")
            service.kill()
            service.arguments = ("--cli",)
            arena.judge_viewers(service.start(), f"after {seed}")

    count = arena.count(200, 3)
    in_shares(arena, count, work)
    arena.tried = f"{count} times, 0 to 2.5 s after the start"


@contextlib.contextmanager
def touched(folder):
    """A function that waits until something happens to the files of a folder, and so often more."""
    libc = ctypes.CDLL(None, use_errno=True)
    handle = libc.inotify_init()
    libc.inotify_add_watch(handle, os.fsencode(folder), IN_ALL)

    def wait(more):
        for _ in range(1 + more):
            if select.select([handle], [], [], 1)[0]:
                os.read(handle, 4096)
    try:
        yield wait
    finally:
        os.close(handle)


def whole_configuration(content):
    """Whether it is a whole configuration of the one virtual camera."""
    try:
        keys = set(json.loads(content)[str(SERIAL)])
        return keys == set(configuration(0)[str(SERIAL)]) and content.endswith(b"\n")
    except (ValueError, KeyError, TypeError):
        return False


@attack("kill-save", "kill -9 while SAVE writes the configuration", service=None)
def kill_save(arena):
    def work(turns, seed):
        dice, counts = random.Random(seed), {"old": 0, "new": 0, "broken": 0}
        with Display() as display, desktop(arena, display) as service:
            window = Window(display, service, display.controls(arena.build, 1))
            old = service.saved.read_bytes()  # has blanks, which the program's own has not
            for turn in range(turns):
                (service.folder / "log").unlink(missing_ok=True)
                service.saved.write_bytes(old)
                window.open()
                window.logged("Loading virtual camera configuration")
                time.sleep(0.3)
                if turn % 2:
                    with touched(service.saved.parent) as wait:
                        window.click("ApplyButton")
                        wait(dice.randrange(3))
                        service.signal(signal.SIGKILL)
                else:
                    window.click("ApplyButton")
                    time.sleep(dice.uniform(0, 0.04))
                service.kill()
                new = service.saved.read_bytes() if service.saved.exists() else b""
                counts["old" if new == old else "new" if whole_configuration(new) else "broken"] += 1
            left = [each.name for each in service.saved.parent.iterdir() if each != service.saved]
        return counts, len(left)

    count = arena.count(200, 3)
    results = in_shares(arena, count, work)
    total = {kind: sum(counts[kind] for counts, _ in results) for kind in ("old", "new", "broken")}
    arena.check(not total["broken"], f"{total['broken']} files were neither the old nor the new one")
    arena.figures["file afterwards"] = ", ".join(f"{kind} {number}" for kind, number in total.items())
    arena.figures["files left aside"] = sum(left for _, left in results)
    arena.tried = f"{count} times, 0 to 40 ms after the click or as soon as a file is touched"


@attack("stop-continue", "SIGSTOP and SIGCONT under viewers", quick=True, rehearsed=True)
def stop_continue(arena, service):
    turns, seconds = arena.count(5, 1), arena.count(10, 4)
    viewers = {"UDP": Viewer(service, tcp=False), "TCP": Viewer(service, tcp=True)}
    for _ in range(turns):
        for viewer in viewers.values():
            viewer.watch(1)
        service.signal(signal.SIGSTOP)
        time.sleep(seconds)
        service.signal(signal.SIGCONT)
        arena.judge_viewers(service, "at once")
        for transport, viewer in viewers.items():
            whole = viewer.frames.whole
            viewer.watch(3, whole + 60)
            arena.check(viewer.frames.whole > whole + 10, f"the {transport} viewer from before gets nothing")
    for viewer in viewers.values():
        viewer.close()
    arena.tried = f"{turns} times {seconds} s"


@attack("log-unread", "nobody reads the log, and everybody makes lines", service=None, quick=True)
def log_unread(arena):
    reader, writer = os.pipe()
    fcntl.fcntl(writer, F_SETPIPE_SZ, 4096)
    with arena.service(output=writer) as service:
        late = time.monotonic() + 30
        service.start()
        os.close(writer)
        before, lines = service.warm_up(), 0
        for lines in range(arena.count(300, 100)):
            with contextlib.suppress(Exception), Viewer(service, tcp=True, source="127.0.0.3") as viewer:
                viewer.watch(0.02)
            if time.monotonic() > late + 30:
                break
        arena.after(service, before)
    os.close(reader)
    arena.tried = f"a pipe of 4096 bytes that nobody reads, {lines + 1} viewers"
