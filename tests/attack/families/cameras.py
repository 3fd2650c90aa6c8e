# SPDX-License-Identifier: Apache-2.0
"""The seeded faults of the simulated cameras, and what a receiver sees of each."""
import time

from arena import attack
from receivers import Receiver, in_words
from service import simulated_rig

GROWTH = 1124  # MB; each of two sides may hold 512 MB of unpaired frames
TOO_MUCH = 3000  # MB; the machine is to survive too


def fault(name, title, right, expected, quick=False, width=480, height=300):
    """`expected(report)` says whether a receiver saw what it must, from its statistics."""
    @attack(f"fault-{name}", title, service=None, quick=quick)
    def faulty(arena):
        seconds = arena.count(65, 12)
        with arena.service(rig=simulated_rig(right=right), width=width, height=height) as service:
            service.start()
            before = service.resources()
            receivers = {transport: Receiver(arena.build, service, seconds, tcp=transport == "TCP")
                         for transport in ("UDP", "TCP")}
            end, most = time.monotonic() + seconds + 3, 0.0
            while time.monotonic() < end and service.alive() and most < TOO_MUCH:
                most = max(most, service.resources().memory)
                time.sleep(0.5)
            for transport, receiver in receivers.items():
                report = receiver.report(5)
                arena.figures[transport] = in_words(report)
                arena.check(expected(report, seconds), f"{transport}: {in_words(report)}")
            arena.check(service.alive(), f"the program ended with status {service.process.returncode}")
            arena.figures["memory"] = f"{before.memory:.0f} MB at the start, at most {most:.0f} MB"
            arena.check(most - before.memory < GROWTH, f"memory grew to {most:.0f} MB")
            said = [line for line in service.log().splitlines() if "pair" in line.lower()]
            arena.figures["log lines about pairs"] = len(said)
        arena.tried = f"{right}, {seconds} s"


def rate(least, most=31):
    return lambda report, seconds: least <= report.get("fps", 0) <= most


fault("none", "no fault, to compare with", {}, rate(28))
fault("phase-4ms", "the right camera 4 ms late: pairs", {"phase": 4000}, rate(28))
fault("phase-6ms", "the right camera 6 ms late: never a pair", {"phase": 6000},
      lambda report, seconds: not report.get("frames"), quick=True)
fault("phase-6ms-large", "the same at 1920 x 1200", {"phase": 6000},
      lambda report, seconds: not report.get("frames"), width=1920, height=1200)
fault("jitter", "the right camera up to 8 ms off at random", {"jitter": 8000}, rate(10))
fault("drift", "the right camera's clock runs 100 ppm fast", {"drift": 100, "phase": -2500}, rate(28))
fault("drop", "a fifth of the right camera's frames lost", {"drop": 0.2}, rate(21, 27))
fault("stall", "the right camera silent for 10 s", {"stall": {"at": 8, "for": 10}},
      lambda report, seconds: report.get("frames", 0) > (seconds - 20) * 27)
fault("death", "the right camera dies after 10 s", {"deathAfter": 10},
      lambda report, seconds: report.get("frames", 0) > 0)
