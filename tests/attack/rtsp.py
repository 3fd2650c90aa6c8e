# SPDX-License-Identifier: Apache-2.0
"""The least RTSP client that can tell whether frames come, and can be told to misbehave."""
import contextlib
import hashlib
import re
import select
import socket
import struct
import time

HONEST = "127.0.0.2"  # honest viewers come from here, so that limits per address tell them apart
VIDEO = 96  # payload type
WITHIN = 2.0  # seconds until an honest viewer must have a whole key frame


class NoAnswer(Exception):
    """The server closed the connection, or said nothing in time."""


class Refused(Exception):
    """The server answered with an error status."""


class Response:
    def __init__(self, head, body):
        lines = head.decode("latin-1").split("\r\n")
        self.status = int(lines[0].split(" ")[1])
        self.headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            self.headers.setdefault(name.strip().lower(), value.strip())
        self.body = body


def digest(challenge, user, password, method, url):
    """The answer to a digest challenge without quality of protection (RFC 2617)."""
    given = dict(re.findall(r'(\w+)="([^"]*)"', challenge))

    def md5(text):
        return hashlib.md5(text.encode()).hexdigest()
    secret = md5(f"{user}:{given.get('realm', '')}:{password}")
    response = md5(f"{secret}:{given.get('nonce', '')}:{md5(f'{method}:{url}')}")
    return (f'Digest username="{user}", realm="{given.get("realm", "")}", '
            f'nonce="{given.get("nonce", "")}", uri="{url}", response="{response}"')


def request(method, url, headers=(), body=b"", cseq=1):
    """A request as bytes; headers are pairs."""
    lines = [f"{method} {url} RTSP/1.0", f"CSeq: {cseq}", *(f"{name}: {value}" for name, value in headers)]
    if body:
        lines.append(f"Content-Length: {len(body)}")
    return "\r\n".join([*lines, "", ""]).encode("latin-1") + body


class Connection:
    """One RTSP connection. Media that come inside of it go to `on_media(channel, packet)`."""

    def __init__(self, port, source="127.0.0.1", host="127.0.0.1", timeout=5.0, tls=None):
        """`tls`: the context of an encrypted connection."""
        self.url = f"{'rtsps' if tls else 'rtsp'}://{host}:{port}/stereo"
        self.socket = socket.create_connection((host, port), timeout, (source, 0))
        if tls:
            self.socket = tls.wrap_socket(self.socket)
        self.timeout = timeout
        self.cseq, self.buffer, self.challenge = 0, b"", None
        self.on_media = lambda channel, packet: None

    def close(self, reset=False):
        """With `reset` the other side sees a viewer that was cut off."""
        with contextlib.suppress(OSError):
            if reset:
                self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, data):
        self.socket.sendall(data)

    def receive(self, deadline):
        """Takes what has arrived; waits for it until the deadline of the monotonic clock."""
        pause = 0.0 if self.decrypted() else max(0.0, deadline - time.monotonic())
        if not select.select([self.socket], [], [], pause)[0] and not self.decrypted():
            return False
        data = self.socket.recv(1 << 16)
        if not data:
            raise NoAnswer("the server closed the connection")
        self.buffer += data
        return True

    def decrypted(self):
        """Bytes that wait above the socket, where no select() sees them."""
        return self.socket.pending() if hasattr(self.socket, "pending") else 0

    def media(self):
        """Hands out the media at the front of what has arrived."""
        while len(self.buffer) >= 4 and self.buffer[0] == ord("$"):
            channel, length = struct.unpack(">xBH", self.buffer[:4])
            if len(self.buffer) < 4 + length:
                return
            packet, self.buffer = self.buffer[4:4 + length], self.buffer[4 + length:]
            self.on_media(channel, packet)

    def response(self):
        deadline = time.monotonic() + self.timeout
        while True:
            self.media()
            head, found, rest = self.buffer.partition(b"\r\n\r\n")
            if found and head.startswith(b"RTSP/"):
                answer = Response(head, b"")
                length = int(answer.headers.get("content-length", 0))
                if len(rest) >= length:
                    answer.body, self.buffer = rest[:length], rest[length:]
                    return answer
            if not self.receive(deadline):
                raise NoAnswer(f"no answer within {self.timeout:g} s")

    def ask(self, method, url=None, headers=(), body=b"", login=None):
        """Sends a request and waits for its answer; proves who asks where the server wants that."""
        url = url or self.url
        for _ in range(2):
            self.cseq += 1
            proof = []
            if login and self.challenge:
                proof = [("Authorization", digest(self.challenge, *login, method, url))]
            self.send(request(method, url, [*headers, *proof], body, self.cseq))
            answer = self.response()
            if answer.status != 401 or not login:
                break
            self.challenge = answer.headers.get("www-authenticate", "")
        return answer

    def demand(self, method, url=None, headers=(), login=None):
        answer = self.ask(method, url, headers, login=login)
        if answer.status != 200:
            raise Refused(f"{method}: status {answer.status}")
        return answer


class Frames:
    """Counts the frames that are whole, from the first key frame on."""

    def __init__(self):
        self.whole = self.broken = self.packets = 0
        self.first = self.last = None  # monotonic seconds
        self.longest = 0.0  # between two whole frames, seconds
        self.expected, self.intact, self.key = None, False, False

    @staticmethod
    def is_key(packet):
        csrcs, extension = packet[0] & 15, packet[0] & 16
        start = 12 + 4 * csrcs
        if extension:
            start += 4 + 4 * struct.unpack(">H", packet[start + 2:start + 4])[0]
        kind = packet[start] & 31
        if kind == 28:  # a fragment names the kind of the whole
            kind = packet[start + 1] & 31
        return kind in (5, 7, 24)

    def add(self, packet):
        if len(packet) < 14 or packet[1] & 127 != VIDEO:
            return
        self.packets += 1
        number = struct.unpack(">H", packet[2:4])[0]
        if self.expected is not None and number != self.expected:
            self.intact = False
        self.expected = (number + 1) & 0xFFFF
        if self.is_key(packet):
            if not self.key and not self.whole:
                self.intact = True  # what came before the first key frame counts for nothing
            self.key = True
        if packet[1] & 128:
            self.end()

    def end(self):
        if self.intact and (self.key or self.whole):
            now = time.monotonic()
            self.whole += 1
            self.first = self.first or now
            self.longest = max(self.longest, now - (self.last or now))
            self.last = now
        elif self.whole:
            self.broken += 1
        self.intact, self.key = True, False


class Viewer:
    """An honest player of the video, over UDP or inside its connection."""

    def __init__(self, service, tcp, source=None):
        self.began = time.monotonic()
        self.tcp, self.source, self.login = tcp, source or service.honest_address, service.login
        self.frames, self.sockets = Frames(), []
        self.connection = Connection(service.port, self.source, service.host, tls=service.tls)
        self.connection.on_media = lambda channel, packet: channel == 0 and self.frames.add(packet)
        try:
            self.setup()
        except BaseException:
            self.close()
            raise

    def udp_pair(self):
        """Two sockets on an even port and the next."""
        while True:
            media, control = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
            with contextlib.suppress(OSError):
                media.bind((self.source, 0))
                port = media.getsockname()[1]
                if port % 2 == 0:
                    control.bind((self.source, port + 1))
                    media.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
                    return [media, control]
            media.close()
            control.close()

    def setup(self):
        connection = self.connection
        connection.demand("DESCRIBE", headers=[("Accept", "application/sdp")], login=self.login)
        if self.tcp:
            transport = "RTP/AVP/TCP;unicast;interleaved=0-1"
        else:
            self.sockets = self.udp_pair()
            port = self.sockets[0].getsockname()[1]
            transport = f"RTP/AVP;unicast;client_port={port}-{port + 1}"
        answer = connection.demand("SETUP", connection.url + "/stream=0", [("Transport", transport)],
                                   self.login)
        self.transport = answer.headers.get("transport", "")
        self.session = answer.headers["session"].partition(";")[0]
        connection.demand("PLAY", headers=[("Session", self.session), ("Range", "npt=0-")],
                          login=self.login)
        connection.media()

    def server_ports(self):
        """The server's UDP ports of media and control."""
        return tuple(map(int, re.search(r"server_port=(\d+)-(\d+)", self.transport).groups()))

    def poll(self, deadline):
        """Takes what arrives until the deadline; returns whether anything came."""
        wanted = [self.connection.socket, *self.sockets]
        waiting = self.connection.decrypted()
        pause = 0.0 if waiting else max(0.0, deadline - time.monotonic())
        ready, _, _ = select.select(wanted, [], [], pause)
        if waiting and self.connection.socket not in ready:
            ready.append(self.connection.socket)
        for each in ready:
            if each is self.connection.socket:
                self.connection.receive(0)
                self.connection.media()
            else:
                packet = each.recv(1 << 16)
                if each is self.sockets[0]:
                    self.frames.add(packet)
        return bool(ready)

    def watch(self, seconds, frames=1 << 60):
        """Looks on for so long, or until there were so many frames in all."""
        deadline = time.monotonic() + seconds
        while self.frames.whole < frames and self.poll(deadline):
            pass
        return self.frames.whole

    def close(self, reset=False, politely=True):
        if politely and hasattr(self, "session"):
            with contextlib.suppress(OSError, NoAnswer):
                self.connection.timeout = 1.0
                self.connection.ask("TEARDOWN", headers=[("Session", self.session)], login=self.login)
        self.connection.close(reset)
        for each in self.sockets:
            each.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def first_frame(service, tcp, limit=WITHIN):
    """Seconds from connecting to the first whole key frame, or the reason why none came in time."""
    try:
        began = time.monotonic()
        with Viewer(service, tcp) as viewer:
            viewer.watch(began + limit - time.monotonic(), frames=1)
            if viewer.frames.first:
                taken = viewer.frames.first - viewer.began
                return taken if taken <= limit else f"a whole key frame after {taken:.1f} s only"
            return f"{viewer.frames.packets} packets and no whole key frame within {limit:g} s"
    except (OSError, NoAnswer, Refused, KeyError) as reason:
        return str(reason) or type(reason).__name__
