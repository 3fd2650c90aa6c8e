# SPDX-License-Identifier: Apache-2.0
"""A network that loses, delays and reorders, between the program and its viewers."""
import contextlib
import time

import link
from arena import attack
from families.viewers import watching
from link import Weather
from receivers import in_words, side_by_side
from rtsp import Viewer

WEATHERS = [Weather(title="clean link"),
            Weather(loss=0.01, delay=0.02, title="1 % lost, 20 ms"),
            Weather(loss=0.05, delay=0.05, title="5 % lost, 50 ms"),
            Weather(delay=0.05, jitter=0.03, title="50 to 80 ms, reordered"),
            Weather(loss=0.02, delay=0.15, jitter=0.1, title="2 % lost, 150 to 250 ms, reordered")]


@contextlib.contextmanager
def linked(arena):
    """The service in a network of its own, this thread beyond the link, both joined by nothing yet.
    Viewers whose farewell is lost are given up soon."""
    with link.Link() as between, arena.service(before=("ip", "netns", "exec", link.NAMES[0]),
                                               stream={"sessionTimeout": 10}) as service:
        service.host, service.honest_address = link.ADDRESSES
        yield between, service


@attack("network-weather", "loss, delay and reordering between two network namespaces", service=None)
def weather(arena):
    with linked(arena) as (between, service):
        with between.carrying(WEATHERS[-1]):
            service.start()
            side_by_side(arena.build, service, 5)  # packets that wait need room, which stays
        with between.carrying(WEATHERS[0]):
            before = service.warm_up()
        seconds, chosen = arena.count(30, 6), WEATHERS if not arena.quick else WEATHERS[1::2]
        for each in chosen:
            with between.carrying(each):
                for transport, report in side_by_side(arena.build, service, seconds).items():
                    arena.figures[f"{transport}, {each.title}"] = in_words(report)
                    arena.check(report.get("frames"), f"{transport}, {each.title}: no frame")
        with between.carrying(WEATHERS[0]):
            arena.after(service, before)
    arena.tried = f"{len(chosen)} kinds of weather, {seconds} s each, over UDP and TCP"


def cut(arena, between, service, seconds, frames):
    """Cuts the link under a viewer of each kind; writes down when they have so many frames more."""
    with between.carrying(WEATHERS[0]):
        viewers = {"UDP": Viewer(service, tcp=False), "TCP": Viewer(service, tcp=True)}
    with watching(viewers.values()):
        with between.carrying(WEATHERS[0]):
            time.sleep(2)
        time.sleep(seconds)
        goals = {transport: viewer.frames.whole + frames for transport, viewer in viewers.items()}
        with between.carrying(WEATHERS[0]):
            start = time.monotonic()
            while goals and time.monotonic() < start + 20:
                for transport in [each for each in goals if viewers[each].frames.whole >= goals[each]]:
                    arena.figures[f"{transport}, {frames} frames after"] = f"{time.monotonic() - start:.1f} s"
                    del goals[transport]
                time.sleep(0.05)
    arena.check(not goals, f"no {frames} frames more within 20 s by {', '.join(goals)}")
    for viewer in viewers.values():
        viewer.close(politely=False)


@attack("network-outage", "the link is gone for five seconds under viewers of both kinds", service=None)
def outage(arena):
    # Shorter than what ends a viewer: ten seconds without a sign of life, or in which he takes nothing.
    seconds, frames = 5, 150  # frames: more than what waits in the link's queues
    with linked(arena) as (between, service):
        with between.carrying(WEATHERS[0]):
            service.start()
        cut(arena, between, service, seconds, frames)  # what waits needs room, which stays
        with between.carrying(WEATHERS[0]):
            before = service.warm_up()
        cut(arena, between, service, seconds, frames)
        with between.carrying(WEATHERS[0]):
            arena.after(service, before)
    arena.tried = f"{seconds} s without a link"
