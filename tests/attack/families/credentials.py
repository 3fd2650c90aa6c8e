# SPDX-License-Identifier: Apache-2.0
"""Guessing, and going around the password."""
import base64
import time

from arena import attack
from rtsp import Connection, NoAnswer, digest
from service import LOGIN

ADDRESSES = ("/stereo", "/stereo/", "/STEREO", "//stereo", "/stereo/stream=0", "/stereo?x", "/./stereo",
             "/")
TCP = ("Transport", "RTP/AVP/TCP;unicast;interleaved=0-1")


def basic(user, password):
    return "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()


def forged(challenge, url):
    """Proofs that must not be taken."""
    stale = digest('nonce="0000000000000000", realm="' + "x" * 10 + '"', *LOGIN, "DESCRIBE", url)
    right = digest(challenge, *LOGIN, "DESCRIBE", url)
    return [stale, right[:60], right.replace('response="', 'response="0'), right.replace("username", "user"),
            digest(challenge, LOGIN[0], "wrong", "DESCRIBE", url),
            digest(challenge, LOGIN[0], "", "DESCRIBE", url),
            digest(challenge, "", "", "DESCRIBE", url),
            digest(challenge, *LOGIN, "OPTIONS", url),
            basic(*LOGIN), basic(LOGIN[0], ""), basic("", ""),
            "", "Digest", "Bearer x", "Digest " + "a" * 5000]


@attack("credentials-wrong", "wrong, stale, cut and foreign proofs of who asks",
        service={"password": True}, quick=True)
def wrong(arena, service):
    count, let_in, times, tried = arena.count(1000, 150), 0, [], 0
    while tried < count:
        try:
            with Connection(service.port) as connection:
                challenge = connection.ask("DESCRIBE").headers.get("www-authenticate", "")
                for proof in forged(challenge, connection.url):
                    start = time.monotonic()
                    tried += 1
                    answer = connection.ask("DESCRIBE", headers=[("Authorization", proof)])
                    times.append(time.monotonic() - start)
                    let_in += answer.status == 200 or b"m=video" in answer.body
        except (OSError, NoAnswer):
            continue
    arena.check(not let_in, f"{let_in} were let in")
    arena.figures["slowest refusal"] = f"{1000 * max(times):.0f} ms"
    arena.tried = f"{tried} proofs, {let_in} let in"


@attack("credentials-around", "every method without a password, in every order", service={"password": True})
def around(arena, service):
    let_in, tried = [], 0
    for address in ADDRESSES:
        for method in ("DESCRIBE", "SETUP", "PLAY", "RECORD", "ANNOUNCE", "GET_PARAMETER", "SET_PARAMETER"):
            tried += 1
            try:
                with Connection(service.port, timeout=3) as connection:
                    url = connection.url.replace("/stereo", address)
                    answer = connection.ask(method, url, [TCP, ("Session", "1")])
                    if answer.status == 200 and method not in ("GET_PARAMETER", "SET_PARAMETER"):
                        let_in.append(f"{method} {address}")
                    if b"m=video" in answer.body:
                        let_in.append(f"description by {method} {address}")
            except (OSError, NoAnswer):
                pass
    arena.check(not let_in, "; ".join(let_in))
    arena.tried = f"{tried} requests without a password, {len(let_in)} let in"
