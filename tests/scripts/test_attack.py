# SPDX-License-Identifier: Apache-2.0
"""What the attacks judge by: the client, the counter of frames, the verdicts."""
import math
import socket
import struct
import sys
import threading
import types

import pytest

from conftest import SOURCE

sys.path += [str(SOURCE / "tests/attack"), str(SOURCE / "tests/endurance")]
import arena  # noqa: E402
import rtsp  # noqa: E402
import service  # noqa: E402
import svg  # noqa: E402
import table  # noqa: E402
import verdict  # noqa: E402


def packet(number, kind, last=False, payload_type=96):
    return struct.pack(">BBHII", 0x80, payload_type | 128 * last, number & 0xFFFF, 0, 1) + bytes([kind, 0, 0])


def test_a_digest_is_the_one_of_the_standard():
    challenge = 'Digest realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093"'
    answer = rtsp.digest(challenge, "Mufasa", "CircleOfLife", "GET", "/dir/index.html")
    assert 'response="1949323746fe6a43ef61f9606e7febea"' in answer


def test_frames_count_from_the_first_key_frame_on_and_only_when_whole():
    frames = rtsp.Frames()
    for number, kind, last in ((65534, 1, True), (65535, 7, False), (0, 5, True), (1, 1, True),
                               (3, 1, True), (4, 1, True)):
        frames.add(packet(number, kind, last))
    assert (frames.whole, frames.broken) == (3, 1)


def test_other_payloads_are_no_frames():
    frames = rtsp.Frames()
    frames.add(packet(1, 5, True, payload_type=97))
    frames.add(b"short")
    assert (frames.whole, frames.packets) == (0, 0)


@pytest.fixture
def answering():
    """Starts a server that sends some bytes to whoever comes; returns its port."""
    with socket.socket() as server:
        def start(data):
            server.bind(("127.0.0.1", 0))
            server.listen()

            def serve():
                client = server.accept()[0]
                client.sendall(data)
                client.recv(1 << 16)
                client.close()
            threading.Thread(target=serve, daemon=True).start()
            return server.getsockname()[1]
        yield start


def test_media_between_answers_are_handed_out(answering):
    port = answering(b"$\x00\x00\x03abc" b"RTSP/1.0 200 OK\r\nCSeq: 1\r\nContent-Length: 4\r\n\r\nbody"
                     b"$\x01\x00\x01x")
    seen = []
    with rtsp.Connection(port) as connection:
        connection.on_media = lambda *media: seen.append(media)
        answer = connection.response()
        connection.media()
    assert (answer.status, answer.body) == (200, b"body")
    assert seen == [(0, b"abc"), (1, b"x")]


def test_a_newcomer_without_an_answer_is_told_why(answering):
    nobody = types.SimpleNamespace(port=answering(b""), login=None, tls=None, host="127.0.0.1",
                                   honest_address="127.0.0.1")
    assert "closed the connection" in rtsp.first_frame(nobody, tcp=True)


def test_ten_percent_more_is_allowed():
    def held(memory, threads, descriptors):
        return types.SimpleNamespace(memory=memory, threads=threads, descriptors=descriptors)
    before = held(100.0, 10, 20)
    assert service.Resources.beyond(held(110.0, 11, 22), before) == []
    assert service.Resources.beyond(held(111.0, 11, 23), before) == ["memory 100 -> 111",
                                                                     "descriptors 20 -> 23"]


def test_an_attack_that_fails_says_why():
    def fails(place):
        place.check(True, "not this")
        place.check(False, "this")
    row = arena.Arena(".", True).carry_out(arena.Attack("name", "title", fails, None, True, False))
    assert (row["survived"], row["failures"]) == (False, ["this"])
    assert "NO" in table.line(row) and "1 not survived" in table.summary([row])


def test_what_this_machine_cannot_do_is_skipped():
    def skips(_):
        raise arena.Skipped("no such thing")
    row = arena.Arena(".", True).carry_out(arena.Attack("name", "title", skips, None, True, False))
    assert row["survived"] is None and "no such thing" in table.line(row)


def endured(memory):
    rows = [{"seconds": 10.0 * n, "size": "small", "memory": memory(n), "threads": 9, "descriptors": 9,
             "shared_files": 2, "shared_bytes": 0} for n in range(120)]
    visitors = types.SimpleNamespace(came=9, failed=0, reasons=[], frames=99, slowest=0.1)
    return verdict.judge(rows, visitors, types.SimpleNamespace(changes=3), alive=True)


def test_what_does_not_grow_endures():
    assert endured(lambda n: 100 + n % 3)["held"]


def test_what_grows_does_not_endure():
    assert endured(lambda n: 100 + n)["faults"] == ["memory grew from 159.5 to 189.0"]


def test_plots_are_well_formed():
    import xml.etree.ElementTree as tree
    rows = [("x", 0.5, math.inf), ("y", None, 1)]
    tree.fromstring(svg.dots("a < b", "c", rows, [(0.1, "0"), (2, "2")], 2, "no"))
    tree.fromstring(svg.lines("a", "b", [0, 1, 2], [("m", "MB", [1, 2, 3])], mark=1, bands=[(0, 1)]))
