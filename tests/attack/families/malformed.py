# SPDX-License-Identifier: Apache-2.0
"""Requests that are wrong: noise, a grammar with faults, many at once, cut at every byte."""
import base64
import random
import socket

from arena import attack
from rtsp import Connection, NoAnswer, request

METHODS = ["OPTIONS", "DESCRIBE", "SETUP", "PLAY", "PAUSE", "TEARDOWN", "GET_PARAMETER", "SET_PARAMETER",
           "ANNOUNCE", "RECORD", "GET", "POST", "REDIRECT", "", "\0", "A" * 300, "describe", "OPTIONS\t"]
PATHS = ["/stereo", "/", "*", "/stereo/stream=0", "/stereo/stream=9", "/stereo/../..", "/%00", "/%zz",
         "/stereo?" + "a=b&" * 200, "/" + "x" * 4000, "/stereo/stream=-1", "//stereo", ""]
VERSIONS = ["RTSP/1.0", "RTSP/2.0", "RTSP/9.9", "HTTP/1.0", "HTTP/1.1", "RTSP/", "", "RTSP/1.0 extra"]
HEADERS = {
    "CSeq": ["1", "-1", "99999999999999999999", "x", "", "1,2"],
    "Session": ["", "x", "0" * 500, "%n%s%x", "1;timeout=-1", "\x01\x02"],
    "Transport": ["RTP/AVP;unicast;client_port=1-0", "RTP/AVP;unicast;client_port=99999-100000", "RTP/AVP",
                  "RTP/AVP/TCP;unicast;interleaved=0-255", "RTP/AVP/TCP;interleaved=-5-70000",
                  "RTP/AVP;multicast;destination=224.0.0.1;port=1-2;ttl=999", "," * 500, ";" * 500,
                  "RTP/AVP;unicast;destination=8.8.8.8;client_port=9-10", "RTP/SAVP;unicast", "RAW/RAW/UDP"],
    "Range": ["npt=0-", "npt=-", "npt=1e308-", "clock=20990101T000000Z-", "smpte=99:99:99-", "bytes=0-", "="],
    "Scale": ["0", "-1", "1e400", "nan"], "Speed": ["0", "-1e9", "nan"],
    "Blocksize": ["-1", "0", "4294967296", "1"],
    "Content-Length": ["-1", "0", "99999999999999999999", "x", "10"],
    "Content-Type": ["text/parameters", "application/sdp", ""],
    "Accept": ["", "application/sdp", "*/*" * 300], "Require": ["everything"], "Proxy-Require": ["x"],
    "Connection": ["close", "keep-alive"], "x-sessioncookie": ["a", "", "b" * 3000],
    "Authorization": ["Digest", "Basic", "Basic %%%", "Digest " + "," * 500, 'Digest username="'],
    "User-Agent": ["\xff\xfe", "a" * 2000], "": ["no name"], " ": ["blank"],
}


def grammatical(dice):
    """A request of the protocol's grammar with faults in it."""
    url = f"rtsp://{dice.choice(['127.0.0.1', '[::1', 'a' * 500, ''])}{dice.choice(PATHS)}"
    lines = [" ".join([dice.choice(METHODS), url, dice.choice(VERSIONS)])]
    for _ in range(dice.randrange(12)):
        name = dice.choice(list(HEADERS))
        lines.append(name + dice.choice([": ", ":", " ", " : "]) + dice.choice(HEADERS[name]))
    end = dice.choice(["\r\n", "\n", "\r", "\n\r"])
    text = end.join(lines) + dice.choice([end + end, end, ""])
    return text.encode("latin-1") + dice.randbytes(dice.choice([0, 0, 10, 2000]))


def throw(service, data, half=False):
    """Sends bytes on a connection of their own, takes what comes at once and leaves."""
    with Connection(service.port, timeout=2) as connection:
        connection.socket.settimeout(2)
        try:
            connection.send(data)
            if half:
                connection.socket.shutdown(socket.SHUT_WR)
            connection.socket.settimeout(0.01)
            connection.socket.recv(1 << 16)
        except OSError:
            pass


@attack("malformed-random", "random bytes as requests", rehearsed=True)
def random_bytes(arena, service):
    dice, count = random.Random(1), arena.count(1000, 200)
    for _ in range(count):
        throw(service, dice.randbytes(dice.randrange(1, 2000)))
    arena.tried = f"{count} connections of 1 to 2000 random bytes"


@attack("malformed-grammar", "requests with faults in method, address, headers, body", quick=True)
def grammar(arena, service):
    dice, count = random.Random(2), arena.count(2000, 300)
    for _ in range(count):
        throw(service, grammatical(dice), half=dice.random() < 0.3)
    arena.tried = f"{count} requests, a third of them half-closed"


@attack("malformed-pipelined", "many right and wrong requests in one piece")
def pipelined(arena, service):
    dice, count = random.Random(3), arena.count(1000, 200)
    for _ in range(count // 50):
        right = request("OPTIONS", f"rtsp://127.0.0.1:{service.port}/stereo")
        throw(service, b"".join(grammatical(dice) if dice.random() < 0.3 else right for _ in range(50)))
    with Connection(service.port) as connection:
        connection.send(right * 100)
        answers = sum(connection.response().status == 200 for _ in range(100))
    arena.check(answers == 100, f"{answers} of 100 requests in one piece were answered")
    arena.tried = f"{count} requests, 50 in a piece; 100 right ones in a piece, {answers} answered"


@attack("malformed-split", "a request cut in two at every byte, and byte by byte", quick=True)
def split(arena, service):
    whole = request("DESCRIBE", f"rtsp://127.0.0.1:{service.port}/stereo", [("Accept", "application/sdp")])
    step, answers = arena.count(1, 9), []
    places = range(1, len(whole), step)
    with Connection(service.port) as connection:
        connection.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for place in places:
            connection.send(whole[:place])
            connection.receive(0)
            connection.send(whole[place:])
            answers.append(connection.response().status)
        for each in whole:
            connection.send(bytes([each]))
        answers.append(connection.response().status)
    arena.check(set(answers) == {200}, f"answers: {answers}")
    arena.tried = f"{len(places)} places and once byte by byte, {answers.count(200)} answered"


@attack("malformed-half-open", "requests that end in the middle, half-closed or left open", quick=True)
def half_open(arena, service):
    whole = request("SETUP", f"rtsp://127.0.0.1:{service.port}/stereo/stream=0",
                    [("Transport", "RTP/AVP/TCP;unicast;interleaved=0-1")])
    count, left = arena.count(1000, 150), []
    for number in range(count):
        part = whole[:1 + number % (len(whole) - 1)]
        if number % 3:
            throw(service, part, half=number % 2)
            continue
        try:
            left.append(Connection(service.port, source="127.0.0.3"))
            left[-1].send(part)
        except OSError:
            pass
    arena.judge_viewers(service, "meanwhile")
    for connection in left:
        connection.close(reset=True)
    arena.tried = f"{count} parts of a request, {len(left)} left open while viewers came"


@attack("malformed-interleaved", "media packets inside a connection that plays nothing, or the wrong channel")
def interleaved(arena, service):
    dice, count = random.Random(4), arena.count(1000, 200)
    for number in range(count // 20):
        with Connection(service.port, timeout=2) as connection:
            try:
                if number % 2:
                    connection.ask("DESCRIBE")
                    connection.ask("SETUP", connection.url + "/stream=0",
                                   [("Transport", "RTP/AVP/TCP;unicast;interleaved=0-1")])
                for _ in range(20):
                    body = dice.randbytes(dice.randrange(300))
                    length = dice.choice([len(body), 65535, 0])
                    connection.send(b"$" + bytes([dice.randrange(256)]) + length.to_bytes(2, "big") + body)
            except (OSError, NoAnswer):
                pass
    arena.tried = f"{count} packets on channels 0 to 255, a third with a wrong length"


@attack("malformed-tunnel", "RTSP in HTTP: halves of tunnels without the other half, wrong base64")
def tunnel(arena, service):
    dice, count, held = random.Random(5), arena.count(500, 60), []
    for number in range(count):
        cookie = f"cookie-{number // 3}"
        head = (f"{('GET', 'POST')[number % 2]} /stereo HTTP/1.0\r\nx-sessioncookie: {cookie}\r\n"
                "Accept: application/x-rtsp-tunnelled\r\nContent-Length: 32767\r\n\r\n").encode()
        body = base64.b64encode(grammatical(dice))
        try:
            held.append(Connection(service.port, source="127.0.0.3"))
            held[-1].send(head + (body if number % 5 else body[:-3] + b"%%%"))
        except OSError:
            pass
    arena.judge_viewers(service, "meanwhile")
    for connection in held:
        connection.close()
    arena.tried = f"{count} halves of HTTP tunnels, held while viewers came"
