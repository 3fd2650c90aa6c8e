# SPDX-License-Identifier: Apache-2.0
"""The registry of attacks, and how one is carried out and judged."""
import contextlib
import dataclasses
import multiprocessing
import pathlib
import time
import typing

import rtsp
from service import Ended, Service

SETTLING = 20.0  # seconds within which memory, threads and descriptors must be back
ATTACKS = {}


class Skipped(Exception):
    """This machine cannot do it; the text says what is missing."""


@dataclasses.dataclass
class Attack:
    name: str
    title: str
    function: typing.Callable
    service: typing.Optional[dict]  # how the program is set up; None: the attack does that itself
    quick: bool
    rehearsed: bool


def attack(name, title, service=(), quick=False, rehearsed=False):
    """Registers a function as an attack: function(arena, service), or function(arena) when it
    brings its own service (`service=None`). `quick`: part of `--quick`. `rehearsed`: carried out
    once before memory is measured, because the allocator keeps room for as much as there ever was."""
    def register(function):
        ATTACKS[name] = Attack(name, title, function, None if service is None else dict(service),
                               quick, rehearsed)
        return function
    return register


def in_background(function, *arguments):
    """Runs a function in a process of its own, so that it takes no time from the honest viewers."""
    process = multiprocessing.get_context("fork").Process(target=function, args=arguments, daemon=True)
    process.start()

    @contextlib.contextmanager
    def running():
        try:
            yield process
        finally:
            process.kill()
            process.join()
    return running()


class Arena:
    """What an attack finds: how large to be, where to write figures and failures."""

    def __init__(self, build, quick):
        self.build, self.quick = pathlib.Path(build), quick
        self.figures, self.failures, self.tried = {}, [], ""

    def count(self, full, quick):
        return quick if self.quick else full

    def fail(self, reason):
        self.failures.append(reason)

    def check(self, condition, reason):
        if not condition:
            self.fail(reason)

    def service(self, **settings):
        return Service(self.build, **settings)

    def judge_viewers(self, service, when):
        """Honest viewers must have a frame in time; their seconds become figures."""
        for transport, result in service.honest().items():
            late = isinstance(result, str)
            self.figures[f"{transport} {when}"] = "none" if late else f"{result:.2f} s"
            if late:
                self.fail(f"{transport} viewer {when}: {result}")

    def judge_resources(self, service, before):
        after = service.settled(lambda now: not now.beyond(before), SETTLING)
        self.figures["before"], self.figures["after"] = str(before), str(after)
        self.failures += after.beyond(before)

    def carry_out(self, chosen):
        """Returns the row of the table for one attack."""
        start = time.monotonic()
        skipped = None
        try:
            if chosen.service is None:
                chosen.function(self)
            else:
                with self.service(**chosen.service) as service:
                    self.against(chosen, service.start())
        except Skipped as reason:
            skipped = str(reason)
        except (Ended, OSError, rtsp.NoAnswer, rtsp.Refused) as reason:
            self.fail(f"{type(reason).__name__}: {reason}")
        return {"attack": chosen.name, "title": chosen.title, "tried": self.tried,
                "survived": None if skipped else not self.failures, "skipped": skipped,
                "failures": self.failures, "figures": self.figures,
                "seconds": round(time.monotonic() - start, 1)}

    def against(self, chosen, service):
        if chosen.rehearsed:
            chosen.function(Arena(self.build, self.quick), service)
        before = service.warm_up()
        try:
            chosen.function(self, service)
        finally:
            self.after(service, before)

    def after(self, service, before):
        if not service.alive():
            self.fail(f"the program ended with status {service.process.returncode}: "
                      + service.log()[-300:])
            return
        self.judge_viewers(service, "after")
        self.judge_resources(service, before)
