# SPDX-License-Identifier: Apache-2.0
"""A sender that means harm: it answers RTSP requests as an attack says, and sends what it says."""
import itertools
import re
import socket
import struct
import subprocess
import threading
import time

SESSION = """v=0\r
o=- 1 1 IN IP4 127.0.0.1\r
s={name}\r
t=0 0\r
a=control:*\r
m=video 0 RTP/AVP 96\r
a=rtpmap:96 H264/90000\r
a=control:stream=0\r
m=application 0 RTP/AVP 97\r
a=rtpmap:97 SMPTE336M/90000\r
a=control:stream=1\r
"""
VIDEO, DATA = 0, 1
# Fills a terminal's title, clears it and rings.
ESCAPES = "\x1b]0;owned\x07\x1b[2J\x9b31m\x07"


def rtp(stream, sequence, time_, payload, marker=False, ssrc=None):
    """One RTP packet of the video or data stream."""
    ssrc = 0x1000 + stream if ssrc is None else ssrc
    return struct.pack(">BBHII", 0x80, (0x80 if marker else 0) | 96 + stream, sequence & 0xFFFF,
                       time_ & 0xFFFFFFFF, ssrc) + payload


def interleaved(channel, packet):
    return b"$" + struct.pack(">BH", channel, len(packet)) + packet


def answer(request, status="200 OK", headers=(), body=b""):
    """An RTSP answer to a request's text."""
    number = re.search(r"^CSeq: *(\d+)", request, re.MULTILINE | re.IGNORECASE)
    lines = [f"RTSP/1.0 {status}", f"CSeq: {number.group(1) if number else 0}", *headers]
    if body:
        lines += [f"Content-Length: {len(body)}", "Content-Type: application/sdp"]
    return "\r\n".join([*lines, "", ""]).encode("utf-8", "surrogateescape") + body


class Ended(Exception):
    """The receiver has gone, or the test is over."""


class Attack:
    """An honest sender without a single frame; attacks differ in some method."""

    session = SESSION.format(name="KOR stereo 1")
    timeout = 1  # of the receiver, seconds

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.over = threading.Event()
        self.client_ports = {}
        self.threads = []
        self.sockets = []
        self.connections = 0

    def __enter__(self):
        self._start(self._accept)
        return self

    def __exit__(self, *_):
        self.over.set()
        self.listener.close()
        for connection in self.sockets:
            connection.close()
        for thread in self.threads:
            thread.join()

    def _start(self, function, *arguments):
        def run():
            try:
                function(*arguments)
            except (OSError, Ended):
                pass
        thread = threading.Thread(target=run, daemon=True)
        self.threads.append(thread)
        thread.start()

    def _accept(self):
        self.listener.settimeout(0.1)
        while not self.over.is_set():
            try:
                connection = self.listener.accept()[0]
            except TimeoutError:
                continue
            connection.settimeout(0.1)
            self.connections += 1
            self.sockets.append(connection)
            self._start(self._serve, connection)

    def _serve(self, connection):
        try:
            self.connected(connection)
        finally:
            connection.close()

    def send(self, connection, data):
        """All of it, for as long as the receiver takes it."""
        view = memoryview(data)
        while view:
            if self.over.is_set():
                raise Ended
            try:
                view = view[connection.send(view):]
            except TimeoutError:
                pass

    def requests(self, connection):
        """The texts of the receiver's requests; its interleaved packets are passed over."""
        pending = b""
        while not self.over.is_set():
            try:
                data = connection.recv(65536)
            except TimeoutError:
                continue
            if not data:
                return
            pending += data
            while pending:
                if pending[:1] == b"$":
                    length = 4 + struct.unpack(">H", pending[2:4].ljust(2, b"\0"))[0]
                    if len(pending) < max(4, length):
                        break
                    pending = pending[length:]
                    continue
                text, end, rest = pending.partition(b"\r\n\r\n")
                if not end:
                    break
                pending = rest
                yield text.decode()

    def wait(self, seconds):
        if self.over.wait(seconds):
            raise Ended

    # What attacks replace.

    def connected(self, connection):
        for request in self.requests(connection):
            self.requested(connection, request)

    def requested(self, connection, request):
        method = request.split(" ", 1)[0]
        getattr(self, method.lower(), self.other)(connection, request)

    def options(self, connection, request):
        self.send(connection, answer(request, headers=[
            "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN, GET_PARAMETER"]))

    def describe(self, connection, request):
        self.send(connection, answer(request, body=self.session.encode("utf-8")))

    def setup(self, connection, request):
        stream = int(re.search(r"stream=(\d+)", request).group(1))
        ports = re.search(r"client_port=(\d+)", request)
        if ports:
            self.client_ports[stream] = int(ports.group(1))
            transport = (f"RTP/AVP;unicast;client_port={ports.group(1)}-{int(ports.group(1)) + 1};"
                         "server_port=50000-50001")
        else:
            self.client_ports.pop(stream, None)
            transport = f"RTP/AVP/TCP;unicast;interleaved={2 * stream}-{2 * stream + 1}"
        self.send(connection, answer(request, headers=[f"Transport: {transport}", "Session: 1"]))

    def play(self, connection, request):
        self.send(connection, answer(request, headers=["Session: 1"]))
        packets = self.packets()
        first = next(packets, None)
        if first is None:
            return
        if self.client_ports:
            self._start(self.by_udp, itertools.chain([first], packets))
        else:
            self.by_tcp(connection, itertools.chain([first], packets))

    def other(self, connection, request):
        self.send(connection, answer(request, headers=["Session: 1"]))

    def packets(self):
        """Tuples of stream, whether it is RTCP, and bytes."""
        return iter(())

    def by_udp(self, packets):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as out:
            for stream, control, packet in packets:
                if self.over.is_set():
                    return
                out.sendto(packet, ("127.0.0.1", self.client_ports.get(stream, 9) + control))

    def by_tcp(self, connection, packets):
        while True:
            block = [interleaved(2 * stream + control, packet)
                     for stream, control, packet in itertools.islice(packets, 200)]
            if not block:
                return
            self.send(connection, b"".join(block))


# Media that never make a frame.

class UnitWithoutEnd(Attack):
    """A unit of the data stream, and no packet is its last."""

    def packets(self):
        for sequence in itertools.count():
            begin = FRAME_LABEL + b"\x84\xff\xff\xff\xff" if sequence == 0 else b""
            yield DATA, 0, rtp(DATA, sequence, 0, begin + bytes(60000))


class FrameWithoutEnd(Attack):
    """A unit of the video that is never complete."""

    def packets(self):
        for sequence in itertools.count():
            header = b"\x7c\x85" if sequence == 0 else b"\x7c\x05"
            yield VIDEO, 0, rtp(VIDEO, sequence, 0, header + bytes(60000))


class UnitsWithoutFrame(Attack):
    """Whole units of the video of one time, and never the last of a frame."""

    def packets(self):
        for sequence in itertools.count():
            yield VIDEO, 0, rtp(VIDEO, sequence, 0, b"\x06" + bytes(60000))


class FramesOfGarbage(Attack):
    """Frames that no decoder can read."""

    def packets(self):
        for sequence in itertools.count():
            yield VIDEO, 0, rtp(VIDEO, sequence, sequence, b"\x65" + b"\xa5" * 60000, True)


class Gaps(Attack):
    """Every second packet is missing, and time stands still."""

    def packets(self):
        for sequence in itertools.count():
            yield VIDEO, 0, rtp(VIDEO, 2 * sequence, 0, b"\x06" + bytes(60000))


class Future(Attack):
    """Every second packet is missing, and time flies."""

    def packets(self):
        for sequence in itertools.count():
            yield VIDEO, 0, rtp(VIDEO, 2 * sequence, 900000 * sequence, b"\x06" + bytes(60000))


class ManySources(Attack):
    """Every packet has another source."""

    def packets(self):
        for sequence in itertools.count():
            yield VIDEO, 0, rtp(VIDEO, sequence, 0, b"\x06" + bytes(1000), True, sequence)
            yield VIDEO, 0, rtp(VIDEO, sequence + 1, 0, b"\x06" + bytes(1000), True, sequence)


class ManyReports(Attack):
    """Sender reports and descriptions of ever new sources."""

    def packets(self):
        for source in itertools.count(1):
            report = struct.pack(">BBHIIIIII", 0x80, 200, 6, source, 0, 0, 0, 0, 0)
            name = ESCAPES.encode("latin-1").ljust(250, b"x")
            item = struct.pack(">I", source) + bytes([1, len(name)]) + name
            item += bytes(4 - len(item) % 4)
            description = struct.pack(">BBH", 0x81, 202, len(item) // 4) + item
            yield VIDEO, 1, report + description


class Noise(Attack):
    """Packets of nothing."""

    def packets(self):
        for number in itertools.count():
            yield number % 2, number // 2 % 2, bytes([number & 0xFF]) * (number * 7919 % 60000)


# Records of the data stream that are not what they say.

FRAME_LABEL = bytes.fromhex("060E2B34020501010F4B4F5201010100")


def frame_record(counter, length=200):
    """A frame record that claims a length."""
    value = struct.pack(">IIQQQHHIII", 1, 0, counter, time.time_ns(), 0, 1, 2, 160, 120, 30)
    return FRAME_LABEL + b"\x82" + struct.pack(">H", length) + value.ljust(200, b"\0")


# An honest one, which shows that others have been read before it.
IMU_RECORD = bytes.fromhex("060E2B34020501010F4B4F5201020100820168") + bytes(360)


class Records(Attack):
    """Records, each followed by an honest one."""

    def records(self):
        """Bytes, for ever."""

    def packets(self):
        number = itertools.count()
        for record in self.records():
            yield DATA, 0, rtp(DATA, next(number), 0, record, True)
            yield DATA, 0, rtp(DATA, next(number), 0, IMU_RECORD, True)


class CorruptedLengths(Records):
    """Lengths that do not fit the records."""

    def records(self):
        return (frame_record(1, length)
                for length in itertools.cycle([0, 1, 199, 201, 5000, 65535]))


class AbsurdCounters(Records):
    """Counters that jump, wrap and run backwards."""

    def records(self):
        return map(frame_record, itertools.cycle(
            [0, 2**63, 7, 2**64 - 1, 5, 2**32, 3, 10**6, 0, 10**5]))


# RTSP without end.

class EndlessHeaders(Attack):
    def describe(self, connection, request):
        self.send(connection, answer(request)[:-2])
        while True:
            self.send(connection, b"X-Header: 1\r\n" * 5000)


class EndlessLine(Attack):
    def describe(self, connection, request):
        self.send(connection, answer(request)[:-2] + b"X-Header: ")
        while True:
            self.send(connection, b"x" * 65536)


class EndlessBody(Attack):
    length = 4000000000
    timeout = 10  # its memory is full before

    def describe(self, connection, request):
        self.send(connection, answer(request, headers=[
            f"Content-Length: {self.length}", "Content-Type: application/sdp"]))
        while True:
            self.send(connection, b"a=x\r\n" * 13000)
            time.sleep(0.0005)  # a gigabit per second: what a network brings, not what memory does


class HugeDescription(Attack):
    """More media than any camera has."""

    session = SESSION.format(name="x") + "".join(
        f"m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:stream={number}\r\n"
        for number in range(2, 20000))


class EndlessInformation(Attack):
    """Interim answers for ever."""

    def describe(self, connection, request):
        while True:
            self.send(connection, answer(request, "100 Continue") * 500)


class EndlessRequests(Attack):
    """The sender asks instead of answering."""

    def describe(self, connection, request):
        number = itertools.count(1)
        while True:
            self.send(connection, b"".join(
                b"OPTIONS * RTSP/1.0\r\nCSeq: %d\r\n\r\n" % next(number) for _ in range(500)))


class EndlessDenial(Attack):
    """Asks for credentials again and again."""

    def describe(self, connection, request):
        self.send(connection, answer(request, "401 Unauthorized", [
            'WWW-Authenticate: Digest realm="x", nonce="%d", stale=true' % time.monotonic_ns()]))


class EndlessRedirection(Attack):
    def describe(self, connection, request):
        self.send(connection, answer(request, "302 Found", [
            f"Location: rtsp://127.0.0.1:{self.port}/again"]))


class EndlessPackets(Attack):
    """Packets of channels that nobody asked for, instead of an answer."""

    def describe(self, connection, request):
        while True:
            self.send(connection, interleaved(77, bytes(65535)) * 10)


# Senders that keep a receiver waiting.

class Silent(Attack):
    def connected(self, connection):
        self.wait(1000)


class SilentAfterPlay(Attack):
    """Promises a stream and sends none."""


class Drip(Attack):
    """An answer that comes byte by byte."""

    def requested(self, connection, request):
        for byte in itertools.chain(b"RTSP/1.0 200 OK\r\nX-Slow: ", itertools.repeat(0x78)):
            self.send(connection, bytes([byte]))
            self.wait(0.05)


class Drops(Attack):
    """Hangs up in the middle of the first answer."""

    def requested(self, connection, request):
        self.send(connection, answer(request)[:20])
        raise Ended


class DropsAfterPlay(Attack):
    def play(self, connection, request):
        super().play(connection, request)
        raise Ended


class DeafAfterPlay(Attack):
    """Neither sends nor takes anything any more."""

    def play(self, connection, request):
        super().play(connection, request)
        self.wait(1000)


class DeafInSetup(Attack):
    def setup(self, connection, request):
        self.wait(1000)


# Words for the terminal.

class Escapes(Attack):
    session = SESSION.format(name=ESCAPES).replace("H264", "H264" + ESCAPES)

    def play(self, connection, request):
        self.send(connection, answer(request, "500 " + ESCAPES, ["Session: " + ESCAPES]))


class EscapesInRefusal(Attack):
    def describe(self, connection, request):
        self.send(connection, answer(request, "404 " + ESCAPES, ["Server: " + ESCAPES]))


class EscapesInRedirection(Attack):
    def describe(self, connection, request):
        self.send(connection, answer(request, "302 " + ESCAPES, [f"Location: {ESCAPES}://x/"]))


class EscapesInTransport(Attack):
    def setup(self, connection, request):
        self.send(connection, answer(request, headers=[
            f"Transport: RTP/{ESCAPES};unicast;destination={ESCAPES}", "Session: 1"]))


# Honest video.

def video(folder, size):
    """A second of H.264 made by GStreamer, a key frame in each third of it."""
    width, height = size
    path = folder / f"{width}.h264"
    subprocess.run(
        ["gst-launch-1.0", "-q", "videotestsrc", "num-buffers=30", "!",
         f"video/x-raw,width={width},height={height},framerate=30/1", "!",
         "x264enc", "tune=zerolatency", "threads=1", "key-int-max=10", "!",
         "video/x-h264,stream-format=byte-stream,profile=baseline", "!",
         "filesink", f"location={path}"], check=True)
    return path.read_bytes()


class Video(Attack):
    """Frames of H.264 byte streams, one NAL unit for each, one after the other, for ever."""

    def __init__(self, *streams):
        super().__init__()
        self.streams = streams

    def packets(self):
        number = itertools.count()
        frames = 0
        while True:
            for stream in self.streams:
                for unit in re.split(rb"\x00?\x00\x00\x01", stream)[1:]:
                    picture = unit[0] & 31 in (1, 5)
                    yield VIDEO, 0, rtp(VIDEO, next(number), 3000 * frames, unit, picture)
                    if picture:
                        frames += 1
                        self.wait(0.01)

    def by_tcp(self, connection, packets):
        for stream, control, packet in packets:
            self.send(connection, interleaved(2 * stream + control, packet))


class BlockedUdp(Video):
    """Video that a firewall lets pass by TCP only."""

    def by_udp(self, packets):
        pass


ATTACKS = {attack.__name__: attack for attack in (
    UnitWithoutEnd, FrameWithoutEnd, UnitsWithoutFrame, FramesOfGarbage, Gaps, Future, ManySources,
    ManyReports, Noise, EndlessHeaders, EndlessLine, EndlessBody, HugeDescription,
    EndlessInformation, EndlessRequests, EndlessDenial, EndlessRedirection, EndlessPackets, Silent,
    SilentAfterPlay, Drip, Drops, DropsAfterPlay, DeafAfterPlay, DeafInSetup, Escapes,
    EscapesInRefusal, EscapesInRedirection, EscapesInTransport)}
