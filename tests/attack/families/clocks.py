# SPDX-License-Identifier: Apache-2.0
"""The machine's clock is set while viewers watch."""
import glob
import pathlib
import tempfile
import time

from arena import Skipped, attack
from families.viewers import watching
from rtsp import Viewer

WATCH = 4.0  # seconds


@attack("clock-set", "the real-time clock set forward and back under viewers", service=None)
def clock_set(arena):
    libraries = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
    if not libraries:
        raise Skipped("faketime is not installed")
    with tempfile.TemporaryDirectory(prefix="vistrel-attack.") as folder:
        offset = pathlib.Path(folder, "offset")
        offset.write_text("+0\n")
        # Only the real-time clock is set; the monotonic one never is.
        wrapper = ("env", f"LD_PRELOAD={libraries[0]}", f"FAKETIME_TIMESTAMP_FILE={offset}",
                   "FAKETIME_NO_CACHE=1", "FAKETIME_DONT_FAKE_MONOTONIC=1")
        with arena.service(wrapper=wrapper) as service:
            service.start()
            for step in ("+3600", "+0"):  # the first jumps need room, which stays
                offset.write_text(step + "\n")
                before = service.warm_up()
            steps = ["+3600", "-3600", "+0", "+0.5", "-0.5", "+86400", "+0"]
            steps = steps[:arena.count(len(steps), 3)]
            viewers = {"UDP": Viewer(service, tcp=False), "TCP": Viewer(service, tcp=True)}
            for step in steps:
                offset.write_text(step + "\n")
                with watching(viewers.values()):
                    counts = {transport: viewer.frames.whole for transport, viewer in viewers.items()}
                    time.sleep(WATCH)
                for transport, viewer in viewers.items():
                    rate = (viewer.frames.whole - counts[transport]) / WATCH
                    arena.figures[f"{transport} at {step} s"] = f"{rate:.0f} fps"
                    arena.check(rate > 15, f"{transport} viewer at {step} s: {rate:.0f} fps")
                arena.judge_viewers(service, f"new at {step} s")
            for viewer in viewers.values():
                viewer.close()
            arena.after(service, before)
    arena.tried = "set to " + ", ".join(steps) + " s beside the true time"
