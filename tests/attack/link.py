# SPDX-License-Identifier: Apache-2.0
"""Two network namespaces and the link between them, which loses, delays and reorders as told.

The link is this program: it reads the packets of one TUN device and writes them to the other. So it
needs no support for traffic control in the kernel, and a seed repeats it.
"""
import contextlib
import ctypes
import dataclasses
import fcntl
import heapq
import os
import random
import select
import struct
import subprocess
import time

from arena import Skipped, in_background

NAMES = (f"attack-a{os.getpid()}", f"attack-b{os.getpid()}")  # at most 15 bytes
ADDRESSES = ("10.99.0.1", "10.99.0.2")
TUNSETIFF, IFF_TUN, IFF_NO_PI = 0x400454CA, 1, 0x1000
CLONE_NEWNET = 0x40000000


@dataclasses.dataclass
class Weather:
    loss: float = 0  # share of packets
    delay: float = 0  # seconds
    jitter: float = 0  # seconds more at most; packets overtake each other
    title: str = "a clean link"


def device(name):
    tun = os.open("/dev/net/tun", os.O_RDWR)
    fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH", name.encode(), IFF_TUN | IFF_NO_PI))
    return tun


def ip(*words):
    subprocess.run(["ip", *words], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def carry(tuns, weather):
    """Carries packets both ways until it is killed."""
    dice, waiting, order = random.Random(8), [], 0
    while True:
        now = time.monotonic()
        while waiting and waiting[0][0] <= now:
            _, _, out, packet = heapq.heappop(waiting)
            with contextlib.suppress(OSError):
                os.write(out, packet)
        pause = max(0.0, waiting[0][0] - now) if waiting else None
        for tun in select.select(tuns, [], [], pause)[0]:
            packet = os.read(tun, 1 << 16)
            if dice.random() >= weather.loss:
                order += 1
                due = time.monotonic() + weather.delay + dice.random() * weather.jitter
                heapq.heappush(waiting, (due, order, tuns[1 - tuns.index(tun)], packet))


def enter(name):
    """Moves this thread to a network namespace; returns a descriptor of the former one."""
    former = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    with open(f"/run/netns/{name}", "rb") as wanted:
        if ctypes.CDLL(None, use_errno=True).setns(wanted.fileno(), CLONE_NEWNET):
            raise OSError(ctypes.get_errno(), "setns")
    return former


class Link:
    """Both namespaces. While it is entered, this thread is in the second one, with the viewers."""

    def __enter__(self):
        if os.geteuid() or not os.access("/dev/net/tun", os.W_OK):
            raise Skipped("network namespaces with a TUN device between them need root")
        self.stack = contextlib.ExitStack()
        try:
            self.tuns = []
            for name, address, peer in zip(NAMES, ADDRESSES, reversed(ADDRESSES)):
                ip("netns", "add", name)
                self.stack.callback(ip, "netns", "del", name)
                self.tuns.append(device(name))
                self.stack.callback(os.close, self.tuns[-1])
                ip("link", "set", name, "netns", name)
                ip("-n", name, "addr", "add", address, "peer", peer, "dev", name)
                ip("-n", name, "link", "set", name, "up")
                ip("-n", name, "link", "set", "lo", "up")
            former = enter(NAMES[1])
        except (OSError, subprocess.CalledProcessError) as reason:
            self.stack.close()
            raise Skipped(f"no network namespaces here: {reason}") from None
        self.stack.callback(self.leave, former)
        return self

    @staticmethod
    def leave(former):
        ctypes.CDLL(None).setns(former, CLONE_NEWNET)
        os.close(former)

    def __exit__(self, *_):
        self.stack.close()

    def carrying(self, weather):
        """The link works while this context lasts."""
        return in_background(carry, self.tuns, weather)
