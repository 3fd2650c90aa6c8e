# SPDX-License-Identifier: Apache-2.0
"""A network that loses, delays and reorders, between the program and its viewers."""
import time

import link
from arena import attack
from link import Weather
from receivers import in_words, side_by_side
from rtsp import Viewer

WEATHERS = [Weather(title="clean link"),
            Weather(loss=0.01, delay=0.02, title="1 % lost, 20 ms"),
            Weather(loss=0.05, delay=0.05, title="5 % lost, 50 ms"),
            Weather(delay=0.05, jitter=0.03, title="50 to 80 ms, reordered"),
            Weather(loss=0.02, delay=0.15, jitter=0.1, title="2 % lost, 150 to 250 ms, reordered")]


@attack("network-weather", "loss, delay and reordering between two network namespaces", service=None)
def weather(arena):
    with link.Link() as between, arena.service(before=("ip", "netns", "exec", link.NAMES[0])) as service:
        service.host, service.honest_address = link.ADDRESSES
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


@attack("network-outage", "the link is gone for ten seconds under viewers of both kinds", service=None)
def outage(arena):
    with link.Link() as between, arena.service(before=("ip", "netns", "exec", link.NAMES[0])) as service:
        service.host, service.honest_address = link.ADDRESSES
        with between.carrying(WEATHERS[0]):
            service.start()
            before = service.warm_up()
            viewers = {"UDP": Viewer(service, tcp=False), "TCP": Viewer(service, tcp=True)}
            for viewer in viewers.values():
                viewer.watch(2)
        time.sleep(10)
        with between.carrying(WEATHERS[0]):
            for transport, viewer in viewers.items():
                start, whole = time.monotonic(), viewer.frames.whole
                viewer.watch(20, whole + 30)
                arena.figures[f"{transport} goes on after"] = f"{time.monotonic() - start:.1f} s"
                arena.check(viewer.frames.whole >= whole + 30, f"{transport} viewer got no more frames")
                viewer.close()
            arena.after(service, before)
    arena.tried = "10 s without a link"
