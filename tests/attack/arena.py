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


def started(service):
    try:
        return service.start()
    except Ended as reason:
        if service.tls and "certificate" in str(reason):
            raise Skipped("this program does not encrypt") from None
        raise


class Kept:
    """A service that survived, for the next attack on one that is set up in the same way. Only quick
    attacks follow one another on it: it saves the start and the first viewers."""

    def __init__(self):
        self.service = self.settings = None

    def keep(self, service, settings):
        self.service, self.settings = service, settings

    def take(self, settings):
        """The service, no longer kept, or None."""
        service, self.service = self.service, None
        if service and self.settings != settings:
            service.end()
            return None
        return service

    def end(self):
        self.take(None)


class Arena:
    """What an attack finds: how large to be, where to write figures and failures."""

    def __init__(self, build, quick, kept=None):
        self.build, self.quick, self.kept = pathlib.Path(build), quick, kept or Kept()
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
                self.against(chosen)
        except Skipped as reason:
            skipped = str(reason)
        except (Ended, OSError, rtsp.NoAnswer, rtsp.Refused) as reason:
            self.fail(f"{type(reason).__name__}: {reason}")
        return {"attack": chosen.name, "title": chosen.title, "tried": self.tried,
                "survived": None if skipped else not self.failures, "skipped": skipped,
                "failures": self.failures, "figures": self.figures,
                "seconds": round(time.monotonic() - start, 1)}

    def against(self, chosen):
        service, survived = self.kept.take(chosen.service) or self.service(**chosen.service), False
        try:
            before = service.resources() if service.alive() else started(service).warm_up()
            if chosen.rehearsed:
                chosen.function(Arena(self.build, self.quick), service)
                before = service.warm_up()
            try:
                chosen.function(self, service)
            finally:
                self.after(service, before)
            survived = not self.failures
        finally:
            if self.quick and survived:
                self.kept.keep(service, chosen.service)
            else:
                service.end()

    def after(self, service, before):
        if not service.alive():
            self.fail(f"the program ended with status {service.process.returncode}: "
                      + service.log()[-300:])
            return
        self.judge_viewers(service, "after")
        self.judge_resources(service, before)
