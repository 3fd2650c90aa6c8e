# SPDX-License-Identifier: Apache-2.0
"""The window on a display in memory, operated through it as a person does."""
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

from arena import Skipped
from service import ROOT

TITLE = "^KORTSolo Vistrel$"
LIMIT = 30.0


class Display:
    """A display of its own with a window manager; `environment` is what programs on it need."""

    def __init__(self):
        for tool in ("Xvfb", "openbox", "xdotool"):
            if not shutil.which(tool):
                raise Skipped(f"{tool} is not installed")
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vistrel-display."))
        told = self.folder / "environment"
        self.process = subprocess.Popen(
            [ROOT / "cmake/with-display", "--screen", "1600x1000x24", "--wm", "openbox", "--", "sh", "-c",
             'env -0 >"$0.new"; mv "$0.new" "$0"; exec sleep infinity', told],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        while not told.exists():
            if self.process.poll() is not None:
                raise Skipped("no display in memory can be had")
            time.sleep(0.05)
        pairs = (each.partition("=") for each in told.read_text().split("\0") if each)
        self.environment = {name: value for name, _, value in pairs}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def xdotool(self, *words):
        done = subprocess.run(["xdotool", *map(str, words)], env=self.environment, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, timeout=LIMIT, check=False)
        return done.stdout.split()

    def titled(self, title):
        return self.xdotool("search", "--onlyvisible", "--name", title)

    def wait_for(self, title, limit=LIMIT):
        late = time.monotonic() + limit
        while time.monotonic() < late:
            found = self.titled(title)
            if found:
                return found[0]
            time.sleep(0.05)
        raise OSError(f'no window "{title}" within {limit:g} s')

    def controls(self, build, rows):
        """Middle of each control, by the name that the window's form gives it; the controls of a row
        are called NAME.0 and so on. Asked of a window with the same content that is not shown."""
        tool = build / "tests/attack/window_controls"
        if not tool.exists():
            raise Skipped("window_controls is not built")
        done = subprocess.run([tool, str(rows)], env=self.environment, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, timeout=LIMIT, check=True)
        return {name: (int(x), int(y)) for name, x, y in map(str.split, done.stdout.splitlines())}


class Window:
    """The window of a service that runs in desktop mode."""

    def __init__(self, display, service, places):
        self.display, self.service, self.places = display, service, places

    def open(self):
        """Starts the program and waits until its window is there and its cameras are open."""
        self.service.launch()
        self.number = self.display.wait_for(TITLE)
        self.service.found()
        self.logged("[KORVistrel] Opening camera  1 ")
        return self

    def logged(self, text, times=1, limit=LIMIT):
        late = time.monotonic() + limit
        while self.service.log().count(text) < times:
            if time.monotonic() > late:
                raise OSError(f'"{text}" was not logged within {limit:g} s')
            time.sleep(0.05)

    def click(self, name):
        x, y = self.places[name]
        self.display.xdotool("mousemove", "--window", self.number, x, y, "click", 1)

    def choose(self, name, entry):
        """Takes an entry of a list by keyboard: by its place, or the last one as "End"."""
        self.click(name)
        time.sleep(0.3)
        self.display.xdotool("key", *(["End"] if entry == "End" else ["Home", *["Down"] * entry]), "Return")
        time.sleep(0.2)

    def answer_box(self, title="^Information$"):
        box = self.display.wait_for(title)
        self.display.xdotool("windowactivate", "--sync", box, "key", "Return")
        late = time.monotonic() + LIMIT
        while self.display.titled(title):
            if time.monotonic() > late:
                raise OSError("the box stays")
            time.sleep(0.05)

    def save(self):
        self.click("ApplyButton")
        self.answer_box()


def desktop(arena, display, **settings):
    """A service in desktop mode on a display."""
    environment = {**{name: value for name, value in display.environment.items()
                      if os.environ.get(name) != value}, **settings.pop("environment", {})}
    return arena.service(arguments=(), environment=environment, width=960, height=600, **settings)
