# SPDX-License-Identifier: Apache-2.0
"""A stream in two browsers, by way of scripts/relay; see run.

The simulated cameras write serial, frame number and capture time into a corner of their pictures. They
are read from the canvas of the page, so what is checked is what a user sees."""
import binascii
import contextlib
import json
import os
import pathlib
import signal
import socket
import statistics
import subprocess
import time

import pytest
from conftest import SOURCE
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

OUT = pathlib.Path(os.environ["VISTREL_RELAY_OUT"])
SERIALS = 30123456, 30123457
EYE, FPS = (640, 400), 30
PHONE = {"width": 390, "height": 700, "deviceScaleFactor": 2, "mobile": True}
CELL, COLUMNS, ROWS = 4, 18, 8  # of the pattern, in an eye of this size

# The cells of each eye's pattern in the picture that is drawn next, and the time of that. A canvas can be
# read until the browser has shown it, else it is empty, so this asks until the cells are not all alike.
READ = """
const [eyes, cell, columns, rows, done] = arguments;
const canvas = document.querySelector("canvas"), gl = canvas.getContext("webgl");
function look() {
  const width = canvas.width, band = cell * (rows + 4), pixels = new Uint8Array(width * band * 4);
  gl.readPixels(0, canvas.height - band, width, band, gl.RGBA, gl.UNSIGNED_BYTE, pixels);
  const read = eyes.map(([eye, channel]) => Array.from({length: columns * rows}, (_, i) => {
    const x = eye * width / 2 + cell * (2.5 + i % columns);
    const y = band - 1 - cell * (2.5 + Math.floor(i / columns));
    return pixels[(Math.floor(y) * width + Math.floor(x)) * 4 + channel] > 127 ? 1 : 0;
  }));
  if (read[0].includes(1)) done([read, Date.now() / 1000, width, canvas.height]);
  else requestAnimationFrame(look);
}
requestAnimationFrame(look);
"""


def wait_until(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, what() if callable(what) else what
        time.sleep(0.1)


def free_ports(count):
    with contextlib.ExitStack() as stack:
        return [stack.enter_context(socket.create_server(("127.0.0.1", 0))).getsockname()[1]
                for _ in range(count)]


class Process:
    """Something that is started, ended and started again."""

    def __init__(self, name, *command, ready):
        self.log, self.command, self.ready, self.process = OUT / f"{name}.log", command, ready, None

    def start(self):
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(lambda: self.ready in self.log.read_text() or self.process.poll() is not None,
                   f"{self.log} does not say: {self.ready}")
        assert self.process.poll() is None, self.log.read_text()

    def end(self):
        """As Ctrl-C does."""
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(20) == 0, self.log.read_text()


class Page:
    """The page in a browser of its own."""

    def __init__(self, address, *arguments):
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        # Chromium's own sandbox refuses root; the page is ours.
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                         "--window-size=1280,700", "--enable-unsafe-swiftshader", *arguments):
            options.add_argument(argument)
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.browser.set_script_timeout(60)
        self.address = address
        self.browser.get(address)

    def comes_to_say(self, words):
        wait_until(lambda: words in self.text("message"),
                   lambda: f"the page says \"{self.text('message')}\" instead of \"{words}\"")

    def comes_to_play(self):
        wait_until(lambda: self.text("message") == "",
                   lambda: f"the page goes on saying \"{self.text('message')}\"")

    def text(self, element):
        return self.browser.execute_script("return document.getElementById(arguments[0]).textContent",
                                           element)

    def read(self, *eyes):
        """Serial, frame number and capture time (s) of each eye as drawn, when that was, and the size.
        Eyes are (0 left or 1 right half, colour channel)."""
        end = time.monotonic() + 60
        while True:
            read, drawn, *size = self.browser.execute_async_script(READ, eyes, CELL, COLUMNS, ROWS)
            patterns = [int("".join(map(str, cells)), 2).to_bytes(18, "big") for cells in read]
            if all(binascii.crc_hqx(pattern[:16], 0xFFFF) == int.from_bytes(pattern[16:], "big")
                   for pattern in patterns):
                return [(int.from_bytes(pattern[4:8], "big"), int.from_bytes(pattern[:4], "big"),
                         int.from_bytes(pattern[8:16], "big") / 1e9) for pattern in patterns], drawn, size
            assert time.monotonic() < end, "the pattern in the picture cannot be read"

    def pair(self):
        return self.read((0, 0), (1, 0))

    def choose(self, mode):
        self.browser.execute_script(
            "document.querySelector(`input[value=${arguments[0]}]`).click()", mode)

    def appearance(self, scheme, metrics=None):
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": scheme}]})
        if metrics:
            self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", metrics)
        else:
            self.browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})

    def save(self, name):
        self.browser.save_screenshot(str(OUT / f"{name}.png"))

    def fits(self):
        """Whether nothing lies outside at the side."""
        return self.browser.execute_script(
            "return document.documentElement.scrollWidth <= window.innerWidth")


@pytest.fixture(scope="module")
def ports():
    return free_ports(3)


@pytest.fixture(scope="module")
def program(ports):
    rig = {"stream": {"bitrate": 3000}, "cameras": [
        {"serial": serial, "model": "KOR T Solo GS", "source": {"type": "simulated", "eye": eye}}
        for serial, eye in zip(SERIALS, ("left", "right"))]}
    (OUT / "rig.json").write_text(json.dumps(rig))
    made = Process("program", SOURCE / "run", "--no-setup", "--rig", OUT / "rig.json", "--out",
                   OUT / "demonstration", "--port", str(ports[0]), "--fps", str(FPS), "--size",
                   f"{EYE[0]}x{EYE[1]}", ready=" fps ")
    made.start()
    yield made
    made.end()


@pytest.fixture(scope="module")
def relay(ports, program):
    made = Process("relay", SOURCE / "scripts/relay", f"rtsp://localhost:{ports[0]}/stereo", "--port",
                   str(ports[1]), "--janus-port", str(ports[2]), ready="Open in a browser")
    made.start()
    yield made
    made.end()


@pytest.fixture(scope="module")
def pages(ports, relay):
    with contextlib.ExitStack() as stack:
        made = []
        for _ in range(2):
            made.append(Page(f"http://localhost:{ports[1]}/"))
            stack.callback(made[-1].browser.quit)
        yield made


def assert_moving(page):
    """Both eyes are decoded, differ, belong together, and go on; nothing else is said."""
    page.comes_to_play()
    (left, right), _, _ = page.pair()
    assert (left[0], right[0]) == SERIALS
    assert left[1:] == right[1:]

    def later():
        return page.pair()[0][0][1] > left[1]

    wait_until(later, "the picture stands still")
    assert page.text("message") == ""


def assert_outage_is_survived(process, pages, said, picture):
    """The pages say that something has ended, and show pictures once it runs again."""
    process.end()
    for page in pages:
        page.comes_to_say(said)
    pages[0].save(picture)
    process.start()
    for page in pages:
        assert_moving(page)


def test_two_pages(pages):
    for page in pages:
        assert_moving(page)
    for page in pages:
        wait_until(lambda: page.text("rate") != "–", "no frame rate")
        assert page.text("size") == "640 × 400"
        # Two browsers and an encoder share this machine; that frames come at all is checked above.
        assert FPS / 4 < float(page.text("rate").split()[0]) < FPS * 1.5
        assert page.text("delay").endswith(" ms")
        delays = [drawn - left[2] for (left, _), drawn, _ in (page.pair() for _ in range(30))]
        print(f"\nfrom capture to canvas: median {statistics.median(delays) * 1000:.0f} ms; the page: "
              f"{page.text('delay')} from the relay, {page.text('rate')}")
        assert 0 < statistics.median(delays) < 2


def test_each_mode_shows_what_it_names(pages):
    page = pages[0]
    for mode, eyes, serials, width in (("left", [(0, 0)], SERIALS[:1], 640),
                                       ("right", [(0, 0)], SERIALS[1:], 640),
                                       ("anaglyph", [(0, 0), (0, 1)], SERIALS, 640),
                                       ("pair", [(0, 0), (1, 0)], SERIALS, 1280)):
        page.choose(mode)
        wait_until(lambda: page.browser.execute_script(
            "return document.querySelector('canvas').width") == width, f"{mode} has another size")
        # The frame before the choice may still be there.
        wait_until(lambda: tuple(read[0] for read in page.read(*eyes)[0]) == serials,
                   f"{mode} shows something else")
        assert page.read(*eyes)[2] == [width, 400]
        assert page.browser.current_url.endswith("#" + mode)


def test_looks(pages):
    page = pages[0]
    for mode, scheme in (("pair", "light"), ("left", "light"), ("right", "dark"), ("anaglyph", "dark")):
        page.choose(mode)
        page.appearance(scheme)
        page.pair() if mode == "pair" else page.read((0, 0))
        page.save(f"{mode}-{scheme}")
        assert page.fits()
        page.appearance(scheme, PHONE)
        page.save(f"{mode}-{scheme}-phone")
        assert page.fits()
    page.choose("pair")
    page.appearance("light")


def test_without_webgl(pages):
    """The pair, as the browser itself draws it."""
    page = Page(pages[0].address + "#anaglyph", "--disable-3d-apis")
    try:
        page.comes_to_play()
        assert page.browser.execute_script("return document.querySelector('main video').videoWidth") == 1280
        assert page.browser.execute_script("return document.getElementById('modes').disabled")
    finally:
        page.browser.quit()


def test_two_streams(ports, program, pages):
    """Here one by two names; the page has a list, and its address says which."""
    own = free_ports(2)
    several = Process("relay-of-two", SOURCE / "scripts/relay", f"rtsp://localhost:{ports[0]}/stereo",
                      f"rtsp://127.0.0.1:{ports[0]}/stereo", "--port", str(own[0]), "--janus-port", str(own[1]),
                      "--udp-ports", "21000-21999", ready="Open in a browser")
    several.start()
    page = Page(f"http://localhost:{own[0]}/")
    try:
        page.comes_to_play()
        assert page.text("streams").split("rtsp://")[1:] == [f"localhost:{ports[0]}/stereo",
                                                            f"127.0.0.1:{ports[0]}/stereo"]
        page.browser.execute_script(
            "const list = document.getElementById('streams'); list.value = 2;"
            "list.dispatchEvent(new Event('change'))")
        page.comes_to_say("Changing the stream")
        assert_moving(page)
        assert "id=2" in page.browser.current_url
        page.save("two-streams")
    finally:
        page.browser.quit()
        several.end()


# The packets' numbers begin at random with each start; a browser takes half of them for old ones.
@pytest.mark.parametrize("start", range(3))
def test_program_restarts(program, pages, start):
    assert_outage_is_survived(program, pages, "No pictures from the camera", "camera-gone")


def test_relay_restarts(relay, pages):
    assert_outage_is_survived(relay, pages, "The relay does not answer", "relay-gone")


def test_a_page_that_comes_while_the_camera_is_away(program, relay, pages):
    page = pages[0]
    program.end()
    page.comes_to_say("No pictures from the camera")
    page.browser.get(page.address + "?again")
    wait_until(lambda: page.text("address"), "the page does not know the stream")
    program.start()
    assert_moving(page)
