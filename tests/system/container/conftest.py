# SPDX-License-Identifier: Apache-2.0
"""Options of the tests, see run, and the machine that they share."""
import os
import pathlib
import shutil
import subprocess

import machine as container
import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
# Where this machine has Debian 12 from; nothing when it runs another system.
OWN_MIRROR = f". {REPOSITORY}/scripts/own-mirror; ownMirror bookworm"


def pytest_addoption(parser):
    for name in "--package", "--previous", "--folder", "--out", "--results":
        parser.addoption(name, type=lambda text: pathlib.Path(text).resolve())
    parser.addoption("--steps", type=lambda text: text.split(","))
    parser.addoption("--mirror")
    parser.addoption("--keep", action="store_true")


def pytest_collection_modifyitems(config, items):
    steps = config.option.steps
    wanted = {f"Test{step.title()}" for step in ("install", *(steps or []))}
    items[:] = [item for item in items if not steps or item.cls.__name__ in wanted]


@pytest.fixture(scope="session")
def package(pytestconfig):
    found = sorted((REPOSITORY / "build/release/packages").glob("kor-vistrel_*.deb"))
    return pytestconfig.option.package or (found and found[-1])


@pytest.fixture(scope="session")
def previous(pytestconfig):
    """The package before, unless it is the package's content."""
    return pytestconfig.option.previous


@pytest.fixture(scope="session")
def machine(pytestconfig, package, previous):
    options = pytestconfig.option
    folder = options.folder or pathlib.Path("/var/tmp/kor-vistrel-container")
    made = container.Machine(folder, options.out or folder / "out")
    try:
        container.demand(os.geteuid() == 0, "only root can boot another system")
        for tool in "debootstrap", "systemd-nspawn", "nsenter", "dpkg-deb":
            container.demand(shutil.which(tool), f"{tool} is not installed")
        container.demand(package, "there is no package; make one with scripts/package")
        mirror = options.mirror or subprocess.run(
            ["bash", "-c", OWN_MIRROR], text=True, stdout=subprocess.PIPE, check=False).stdout.strip()
        made.make(package, previous, mirror, not options.steps or "window" in options.steps)
        made.boot()
        yield made
    except container.CannotRun as reason:
        pytest.exit(f"container: skipped: {reason}", 77)
    finally:
        made.end(options.keep)


class Results:
    """A line for each test, as scripts/run-tests leaves them."""

    def __init__(self, file):
        self.file = file
        file.write_text("")

    def pytest_runtest_logreport(self, report):
        if report.when == "call" or report.outcome != "passed":
            reason = f": {report.longrepr[2]}" if report.skipped else ""
            with open(self.file, "a", encoding="utf-8") as file:
                file.write(f"{report.outcome}: {report.nodeid.partition('::')[2]}{reason}\n")


def pytest_configure(config):
    if config.option.results:
        config.pluginmanager.register(Results(config.option.results))
