# SPDX-License-Identifier: Apache-2.0
"""Files: a full disk, folders that cannot be written, files that are none, locks that others hold."""
import contextlib
import fcntl
import os
import pathlib
import subprocess
import tempfile
import time

from arena import Skipped, attack
from families.processes import whole_configuration
from rtsp import Connection
from service import CAMERAS
from window import Display, Window, desktop


@contextlib.contextmanager
def small_disk(folder, options="size=16k"):
    """Mounts a small file system in memory over a folder."""
    done = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "none", folder], check=False,
                          stderr=subprocess.PIPE, text=True)
    if done.returncode:
        raise Skipped(f"a small file system cannot be mounted: {done.stderr.strip()}")
    try:
        yield folder
    finally:
        subprocess.run(["umount", "--lazy", folder], check=False)


def fill(folder):
    with open(folder / "filler", "wb", buffering=0) as filler, contextlib.suppress(OSError):
        while True:
            filler.write(bytes(512))


def saved_twice(arena, hinder, sandbox=()):
    """SAVE while something hinders it, and when it does no longer; what the file is each time."""
    with Display() as display, desktop(arena, display, sandbox=sandbox) as service:
        old = service.saved.read_bytes()
        with hinder(service) as free:
            service.saved.exists() or service.saved.write_bytes(old)
            window = Window(display, service, display.controls(arena.build, 1)).open()
            window.logged("Loading virtual camera configuration")
            free and fill(service.saved.parent)
            time.sleep(0.5)
            window.save()
            content = service.saved.read_bytes()
            arena.check(content == old or whole_configuration(content),
                        f"the configuration has {len(content)} bytes and is neither the old nor the new one")
            arena.check(service.alive(), "the window ended")
            arena.figures["file"] = ("old" if content == old else "new" if whole_configuration(content)
                                     else f"{len(content)} bytes")
            arena.figures["log says so"] = "yes" if "was not written" in service.log() else "no"
            if free:
                (service.saved.parent / "filler").unlink()
                window.save()
                arena.check(whole_configuration(service.saved.read_bytes()), "not saved with room again")


@attack("disk-full-save", "SAVE on a full disk", service=None, quick=True)
def disk_full(arena):
    saved_twice(arena, lambda service: small_disk(service.saved.parent))
    arena.tried = "a file system of 16 KB, full"


@attack("read-only-save", "SAVE where settings are read-only", service=None)
def read_only(arena):
    saved_twice(arena, lambda service: contextlib.nullcontext(), sandbox=("--read-only",))
    arena.tried = "settings mounted read-only"


@attack("disk-full-log", "the log's disk is full", service=None)
def disk_full_log(arena):
    with tempfile.TemporaryDirectory(prefix="vistrel-attack.") as folder, \
            small_disk(pathlib.Path(folder)) as disk:
        fill(disk)
        with open(disk / "log", "wb") as log, arena.service(output=log) as service:
            service.start()
            before = service.warm_up()
            for _ in range(20):
                service.honest()
            arena.after(service, before)
    arena.tried = "the log in a full file system"


@attack("locks-held", "cameras held by another process, and free again", service=None, quick=True)
def locks_held(arena):
    with arena.service() as service:
        with open(service.folder / f"shm/tq_local_{CAMERAS[1]}", "wb") as lock:
            os.chmod(lock.fileno(), 0o666)
            fcntl.flock(lock, fcntl.LOCK_EX)
            service.launch()
            start = time.monotonic()
            with contextlib.suppress(subprocess.TimeoutExpired):
                service.process.wait(20)
            # A camera that is not available is skipped or refused; either way nothing hangs.
            arena.figures["ended"] = (f"status {service.process.returncode} after "
                                      f"{time.monotonic() - start:.1f} s")
            arena.check("used by another process" in service.log() or service.alive(),
                        "no line says that the camera is in use")
            arena.figures["log says so"] = "yes" if "used by another process" in service.log() else "no"
            service.kill()
        service.start()
        arena.judge_viewers(service, "after")
    arena.tried = "the right camera's lock held for one start"


@attack("lock-folder-full", "no room for lock files", service=None)
def lock_folder_full(arena):
    with arena.service() as service, small_disk(service.folder / "shm", "size=16k,nr_inodes=1"):
        service.launch()
        with contextlib.suppress(subprocess.TimeoutExpired):
            service.process.wait(20)
        arena.check(service.process.returncode == 1, f"status {service.process.returncode} instead of 1")
        arena.check("tq_local" in service.log(), "no line names the lock file: " + service.log()[-200:])
        service.kill()
    arena.tried = "a /dev/shm without room for a file"


def make_special(path, kind):
    path.unlink(missing_ok=True)
    if kind == "FIFO":
        os.mkfifo(path)
    elif kind == "folder":
        path.mkdir()
    elif kind == "broken link":
        path.symlink_to("/nowhere/at/all")
    else:
        path.symlink_to(kind)


@attack("special-files", "configuration and rig that are no regular files", service=None, quick=True)
def special_files(arena):
    kinds = ["FIFO", "/dev/zero", "folder", "broken link", "/proc/kcore"][:arena.count(5, 2)]
    for which in ("rig.json", "settings/virtual_tsolo_config.json"):
        for kind in kinds:
            with arena.service() as service:
                make_special(service.folder / which, kind)
                judge_special(arena, service, f"{pathlib.Path(which).stem} as {kind}")
    arena.tried = f"{', '.join(kinds)} as rig and as configuration"


def judge_special(arena, service, title):
    """It must end, or serve nothing that answers without the rig, in ten seconds and small memory."""
    service.launch()
    memory, start = 0, time.monotonic()
    while service.alive() and time.monotonic() < start + 8:
        with contextlib.suppress(OSError, KeyError):
            memory = max(memory, service.found() and service.resources().memory)
        if memory > 500:
            break
        time.sleep(0.1)
    lines = [line for line in service.log().splitlines() if "Version" not in line and "CLI" not in line]
    ended = f"status {service.process.returncode}" if not service.alive() else "runs on"
    arena.figures[title] = f"{ended}, {memory:.0f} MB"
    arena.check(memory < 500, f"{title}: memory grows beyond 500 MB")
    # A link that leads nowhere is a configuration that is missing, which ends the program silently.
    missing = not service.saved.exists() and service.process.returncode == 1
    arena.check(lines or missing, f"{title}: no line says why")
    if service.alive():
        with contextlib.suppress(OSError), Connection(service.port) as connection:
            status = connection.ask("DESCRIBE").status
            arena.check(status != 200, f"{title}: served nevertheless")


@attack("rig-gone", "the rig with a password is gone when a stream is opened", service=None, quick=True)
def rig_gone(arena):
    with Display() as display, desktop(
            arena, display, password=True, rig_file="settings/rig.json") as service:
        window = Window(display, service, display.controls(arena.build, 1)).open()
        window.logged("Loading virtual camera configuration")
        service.rig.unlink()
        time.sleep(0.5)
        window.click("TestButton.0")
        window.logged("Enable streaming of virtual camera")
        late, status = time.monotonic() + 10, "not served"
        while status == "not served" and time.monotonic() < late:
            with contextlib.suppress(OSError), Connection(service.port) as connection:
                status = connection.ask("DESCRIBE").status
            time.sleep(0.2)
        arena.figures["without a password"] = f"status {status}" if status != "not served" else status
        arena.check(status != 200, "served without a password")
        arena.check(service.alive(), "the window ended")
    arena.tried = "the rig deleted between the start and the click on the stream's button"
