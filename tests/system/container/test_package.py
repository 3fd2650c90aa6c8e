# SPDX-License-Identifier: Apache-2.0
"""The package in a booted container, step by step: each builds on those before it."""
import hashlib
import json
import re
import pathlib
import subprocess
import time

import pytest
from machine import (CONFIGURATION, LOCKS, PORTS, SERIALS, SETTINGS, UNIT, WINDOW_TOOLS,
                     two_virtual_cameras, wait_for)

SOURCE = pathlib.Path(__file__).resolve().parents[3]
DAEMON = "nvargus-daemon.service"
FILES = "/usr/share/doc/kor-vistrel"


def check_files(machine):
    """What the package holds besides its programs."""
    machine.shell("""entry=/usr/share/applications/kor_vistrel.desktop
        test -x "$(sed -n "s/^Exec=//p" $entry)" &&
        test -s "/usr/share/icons/hicolor/scalable/apps/$(sed -n "s/^Icon=//p" $entry).svg" """)
    for name in "kor_vistrel", "vistrel-receive":
        machine.shell(f"zcat /usr/share/man/man1/{name}.1.gz | grep -q '^.TH'")
        machine.output("bash", "-c",
                       f". /usr/share/bash-completion/completions/{name} && complete -p {name}")
    for rig in (SOURCE / "sdk/rigs").glob("*.json"):
        wanted = hashlib.md5(rig.read_bytes()).hexdigest()
        assert machine.output("md5sum", f"/usr/share/kor-vistrel/rigs/{rig.name}").split()[0] == wanted
    machine.output("grep", "-q", "^License: Apache-2.0", f"{FILES}/copyright")
    machine.shell(f'grep -q "SIL Open Font License" {FILES}/licenses/*-OFL.txt')
    guide = machine.output("cat", f"{FILES}/operators-guide.md")
    for picture in re.findall(r"images/[a-z-]+\.png", guide):
        machine.output("test", "-s", f"{FILES}/{picture}")


class TestInstall:
    def test_package_before_on_a_bare_system(self, machine):
        machine.install("/srv/packages/previous.deb")

    def test_linker_finds_every_library(self, machine):
        for files in "/usr/bin/kor_vistrel /usr/bin/vistrel-receive", \
                "/usr/lib/*/qt5/plugins/platforms/libqxcb.so":
            assert "not found" not in machine.shell(f"ldd {files}")

    def test_programs_start(self, machine):
        machine.output("kor_vistrel", "--help")
        machine.output("vistrel-receive", "--version")

    def test_service_is_off_and_waits_for_a_configuration(self, machine):
        assert machine.is_enabled() == "disabled"
        machine.systemctl("start", UNIT, check=False)
        assert machine.is_active() == "inactive"
        assert machine.property("ConditionResult") == "no"
        assert f"ConditionPathExists={CONFIGURATION}" in machine.log()
        assert machine.property("ExecMainPID") == "0"

    def test_settings_folder_is_the_groups(self, machine):
        assert machine.output("stat", "-c", "%a %U:%G", SETTINGS) == "2775 root:kor"
        # Two operators and somebody else.
        machine.shell("""for name in pilot copilot stranger; do
                useradd --create-home --shell /bin/bash $name; done
            adduser --quiet pilot kor; adduser --quiet copilot kor""")

    def test_window_on_the_bare_system(self, machine):
        """Before any step adds packages. The service's mode starts in the step "stream"."""
        machine.shell("QT_QPA_PLATFORM=offscreen setsid kor_vistrel >/tmp/bare.log 2>&1 & "
                      "echo $! >/tmp/bare.pid", user="pilot")
        found = wait_for(40, lambda: machine.ok(
            "grep", "-q", "Found :  2  available cameras", "/tmp/bare.log"))
        log = machine.output("cat", "/tmp/bare.log")
        machine.shell('kill -KILL "$(cat /tmp/bare.pid)"; rm /tmp/bare.pid /tmp/bare.log')
        (machine.out / "bare.log").write_text(log)
        assert found, log
        version = machine.output("dpkg-query", "-W", "-f", "${Version}", "kor-vistrel")
        assert f"[KORVistrel] Version  {version.rpartition('-')[0]}" in log

    def test_files(self, machine, previous):
        if not previous:
            check_files(machine)


class TestRights:
    def test_drop_in(self, machine):
        machine.output("visudo", "-c", "-q")
        assert machine.output("stat", "-c", "%a %U:%G", "/etc/sudoers.d/kor-vistrel") == "440 root:root"

    @pytest.mark.parametrize("arguments, may", [
        *((f"{verb} {UNIT}", True) for verb in ("stop", "restart", "enable", "disable")),
        ("restart nvargus-daemon.service", True), ("restart nvargus-daemon", True),
        *((line, False) for line in (
            "stop dbus.service", "restart dbus.service", f"start {UNIT}", f"mask {UNIT}",
            f"status {UNIT}", f"kill {UNIT}", f"edit {UNIT}", "reboot", f"stop {UNIT} dbus.service",
            "stop nvargus-daemon", "enable nvargus-daemon", f"--force stop {UNIT}",
            "stop kor_vistrel_cli"))])
    def test_what_an_operator_may(self, machine, arguments, may):
        assert may == machine.ok("sudo", "-n", "-l", "systemctl", *arguments.split(), user="pilot")

    def test_nothing_else_as_root(self, machine):
        assert not machine.ok("sudo", "-n", "-l", "/bin/sh", user="pilot")
        before = machine.property("MainPID", "dbus.service")
        assert not machine.ok("sudo", "-n", "systemctl", "stop", "dbus.service", user="pilot")
        assert machine.property("MainPID", "dbus.service") == before

    def test_who_is_not_in_the_group(self, machine):
        assert not machine.ok("sudo", "-n", "systemctl", "stop", UNIT, user="stranger")
        assert not machine.ok("touch", f"{SETTINGS}/x", user="stranger")

    def test_operators_share_the_configuration(self, machine):
        machine.configure()
        assert machine.output("stat", "-c", "%a %U:%G", CONFIGURATION) == "664 pilot:kor"
        machine.shell(f"echo '{{}}' >{CONFIGURATION}", user="copilot")
        machine.output("kor_vistrel", "--clear-config", user="copilot")
        assert not machine.ok("test", "-e", CONFIGURATION)

    def test_unit(self, machine):
        # The bare system has no program that shows man pages.
        machine.output("systemd-analyze", "--man=no", "--recursive-errors=no", "verify",
                       f"/lib/systemd/system/{UNIT}")
        judged = machine.output("systemd-analyze", "security", "--no-pager", UNIT)
        (machine.out / "security.log").write_text(judged)
        stated = re.search(r" rates the exposure ([0-9.]+) of 10",
                           (SOURCE / "docs/operations.md").read_text())[1]
        assert re.search(r"[0-9]+\.[0-9]+", judged.splitlines()[-1])[0] == stated


class TestStream:
    def test_service_streams(self, machine):
        machine.configure()
        machine.systemctl("enable", "--now", UNIT)
        assert machine.streams()

    def test_account(self, machine):
        process = f"/proc/{machine.property('MainPID')}"
        assert machine.output("stat", "-c", "%U", process) == "kor-vistrel"
        assert "CapPrm:\t0000000000000000" in machine.output("cat", f"{process}/status")
        assert machine.unlocked() == []

    def test_cameras_behind_pipelines(self, machine):
        """Converters with code made at run time. The two pipelines begin apart: only at a high frame
        rate are their frames always close enough to be pairs."""
        pipeline = ("videotestsrc is-live=true ! video/x-raw,format=NV12,width={width},"
                    "height={height},framerate={fps}/1 ! videoconvert")
        machine.write_settings("rig.json", rig(
            [{"type": "gstreamer", "pipeline": pipeline}] * 2, imu="none"))
        machine.configure(160, 120, 100)
        machine.systemctl("restart", UNIT)
        assert machine.streams()
        assert "mmap" not in machine.log()
        machine.output("rm", f"{SETTINGS}/rig.json")
        machine.configure()
        machine.systemctl("restart", UNIT)
        assert machine.streams()


def rig(sources, imu="simulated"):
    return json.dumps({"cameras": [
        {"serial": serial, "model": "KOR T Solo GS", "imu": {"type": imu}, "source": source}
        for serial, source in zip(SERIALS, sources)]})


class TestUpgrade:
    def test_upgrade_while_it_streams(self, machine, package):
        before = machine.output("md5sum", CONFIGURATION)
        process = machine.property("MainPID")
        # As if an operator's window had made them; the end of the operator's session would remove them.
        machine.output("chown", "pilot", *LOCKS)
        machine.make_foreign_memory()
        machine.install("/srv/packages/this.deb")
        assert machine.streams()
        # From the moment on at which the old service went.
        gone = (float(machine.output("cat", "/proc/uptime").split()[0]) -
                int(machine.property("ActiveExitTimestampMonotonic")) / 1e6)
        assert machine.property("MainPID") != process
        assert gone <= 10
        version = subprocess.check_output(["dpkg-deb", "-f", package, "Version"], text=True).strip()
        assert machine.output("dpkg-query", "-W", "-f", "${Version}", "kor-vistrel") == version
        assert machine.output("stat", "-c", "%U", *LOCKS).split() == ["kor-vistrel"] * 2
        assert machine.foreign_memory_owners() == ["pilot"] * 3
        assert machine.output("md5sum", CONFIGURATION) == before
        assert machine.is_enabled() == "enabled"

    def test_files(self, machine, previous):
        if previous:
            check_files(machine)


class TestReboot:
    def test_streams_come_back(self, machine):
        before = machine.leader()
        machine.ok("systemctl", "reboot")
        assert wait_for(90, lambda: machine.leader() not in (None, before) and machine.booted())
        if machine.have_memory_controller:
            machine.find_memory_controller()
        assert machine.streams(60)


def kill(machine):
    machine.output("kill", "-KILL", machine.property("MainPID"))


def pausing(machine):
    """The service waits between two starts."""
    return "service-step\0pause" in machine.output(
        "cat", f"/proc/{machine.property('ControlPID')}/cmdline", check=False)


class TestKills:
    def test_ten_times_in_a_row(self, machine):
        for _ in range(10):
            process, start = machine.property("MainPID"), time.monotonic()
            kill(machine)
            assert wait_for(60, lambda: machine.property("MainPID") not in ("0", process))
            assert machine.streams(60)
            print(f"both streams back after {time.monotonic() - start:.1f} s")
        assert int(machine.property("NRestarts")) >= 10
        assert "starting again in 30 s" in machine.log()

    def test_restart_by_hand_ends_the_pause(self, machine):
        kill(machine)
        assert wait_for(30, lambda: pausing(machine))
        machine.output("timeout", "15", "systemctl", "restart", UNIT)
        assert machine.streams(15)
        assert not machine.ok("test", "-e", "/run/kor_vistrel_cli/failures")

    def test_stop_by_hand_ends_the_pause(self, machine):
        machine.shell("echo 9 >/run/kor_vistrel_cli/failures")
        kill(machine)
        assert wait_for(30, lambda: pausing(machine))
        machine.output("timeout", "15", "systemctl", "stop", UNIT)
        assert (machine.property("ActiveState"), machine.property("Result")) == ("inactive", "success")
        assert machine.unlocked() == LOCKS

    def test_start_by_hand_waits_for_no_pause(self, machine):
        machine.systemctl("start", UNIT)
        assert machine.streams(15)


class TestDaemon:
    def test_camera_daemon_is_restarted(self, machine):
        """A camera daemon that only counts its starts."""
        machine.shell(f"cat >/etc/systemd/system/{DAEMON}", stdin="[Service]\nExecStart=/bin/sleep "
                      "infinity\n[Install]\nWantedBy=multi-user.target\n")
        machine.systemctl("daemon-reload")
        machine.systemctl("start", DAEMON)
        before = machine.property("MainPID", DAEMON)
        machine.systemctl("restart", UNIT)
        assert machine.streams()
        assert machine.property("MainPID", DAEMON) != before
        machine.output("sudo", "-n", "systemctl", "restart", "nvargus-daemon", user="pilot")

    def test_without_it(self, machine):
        machine.systemctl("stop", DAEMON)
        machine.output("rm", f"/etc/systemd/system/{DAEMON}")
        machine.systemctl("daemon-reload")
        machine.systemctl("restart", UNIT)
        assert machine.streams()


# Run by systemd in the service's memory group when the service has ended: notes how many of the
# group's processes the kernel has killed for memory. The group goes with the service.
NOTE_OOM_KILLS = r"""
older=$(sed -n "s/^[0-9]*:memory://p" /proc/self/cgroup)
unified=$(sed -n "s/^0:://p" /proc/self/cgroup)
for file in "/sys/fs/cgroup/memory$older/memory.oom_control" "/sys/fs/cgroup$unified/memory.events"; do
    [ ! -r "$file" ] || sed -n "s/^oom_kill //p" "$file"
done >>/run/oom-kills
"""


class TestMemory:
    def test_ceiling(self, machine):
        if not machine.have_memory_controller:
            pytest.skip("memory ceiling: the container has no memory controller")

        def others():
            return [machine.property("MainPID", unit) for unit in (
                "dbus.service", "systemd-journald.service", "systemd-logind.service",
                "bystander.service")]
        machine.systemctl("stop", UNIT)
        # The package's ceiling is half of the memory: too long a wait for a test.
        machine.shell(f"mkdir -p /etc/systemd/system/{UNIT}.d; rm -f /run/oom-kills; "
                      f"cat >/etc/systemd/system/{UNIT}.d/ceiling.conf",
                      stdin="[Service]\nMemoryMax=700M\nExecStopPost=-+/bin/sh /run/note-oom-kills\n")
        machine.shell("cat >/run/note-oom-kills", stdin=NOTE_OOM_KILLS)
        since = machine.output("date", "+%s")
        machine.systemctl("daemon-reload")
        machine.output("systemd-run", "--quiet", "--unit=bystander", "sleep", "infinity")
        machine.write_settings("rig.json", rig([
            {"type": "simulated", "eye": "left"},
            {"type": "simulated", "eye": "right", "deathAfter": 25}]))
        machine.configure(1920, 1200, 15)
        services = others()
        machine.systemctl("start", UNIT)
        assert machine.streams(), "before one eye dies"
        before = int(machine.property("NRestarts"))
        # The queue of the dead eye's partner ends the service.
        assert wait_for(120, lambda: int(machine.property("NRestarts")) > before)
        machine.shell("cat /run/oom-kills; grep -q '^[1-9]' /run/oom-kills || "
                      f"journalctl --no-pager -u {UNIT} --since=@{since} | grep -q oom-kill")
        assert machine.streams(60)
        assert others() == services
        machine.systemctl("stop", UNIT, "bystander.service")
        machine.shell(f"rm -r /etc/systemd/system/{UNIT}.d {SETTINGS}/rig.json /run/note-oom-kills "
                      "/run/oom-kills")
        machine.systemctl("daemon-reload")
        machine.configure()
        machine.systemctl("start", UNIT)
        assert machine.streams()


class TestAlive:
    """systemd ends a service that gives no sign of life, and it comes back without a hand."""

    def restarted(self, machine, process, seconds=90):
        return wait_for(seconds, lambda: machine.property("MainPID") not in ("0", process))

    def test_start_is_told(self, machine):
        machine.configure()
        machine.systemctl("restart", UNIT)  # ends when the service says that it streams
        assert machine.property("Type") == "notify"
        assert machine.property("WatchdogUSec") == "30s"
        assert "--> Enter <--" in machine.log()
        assert machine.streams()

    def test_hang(self, machine):
        process, start = machine.property("MainPID"), time.monotonic()
        machine.output("kill", "-STOP", process)
        assert self.restarted(machine, process)
        assert "Watchdog timeout" in machine.log()
        assert machine.streams(60)
        print(f"a hang: both streams back after {time.monotonic() - start:.1f} s")

    def test_both_eyes_dead(self, machine):
        dead = {"type": "simulated", "deathAfter": 25}
        machine.write_settings("rig.json", rig([dead, dead]))
        machine.systemctl("restart", UNIT)
        assert machine.streams(20)
        process = machine.property("MainPID")
        start = time.monotonic()
        assert self.restarted(machine, process)
        assert "No camera of any stream delivers" in machine.log()
        # Opening a dead camera anew revives it.
        assert machine.streams(60)
        print(f"both eyes dead: both streams back after {time.monotonic() - start:.1f} s")

    def test_one_dead_eye(self, machine):
        """... is no silence: other pairs would be interrupted with it."""
        machine.write_settings("rig.json", rig([
            {"type": "simulated"}, {"type": "simulated", "deathAfter": 2}]))
        machine.systemctl("restart", UNIT)
        process = machine.property("MainPID")
        time.sleep(50)  # longer than systemd waits
        assert machine.property("MainPID") == process
        assert "has no pair of images: camera 30123457 delivers nothing" in machine.log()

    def test_no_camera_at_the_start(self, machine):
        machine.write_settings("rig.json", json.dumps({"cameras": []}))
        machine.systemctl("restart", UNIT)
        process = machine.property("MainPID")
        machine.output("rm", f"{SETTINGS}/rig.json")
        assert self.restarted(machine, process)
        assert machine.streams(60)

    def test_empty_configuration(self, machine):
        machine.write_settings("virtual_tsolo_config.json", "{}")
        machine.systemctl("restart", UNIT)
        process = machine.property("MainPID")
        time.sleep(50)  # longer than systemd waits
        assert machine.property("MainPID") == process
        assert "names no virtual camera" in machine.log()
        machine.configure()
        machine.systemctl("restart", UNIT)
        assert machine.streams()


class TestWindow:
    """An ordinary user of the group works with the window, beside the service."""

    def where(self, machine, name):
        """The middle of the control of this name, as the accessibility bus tells it."""
        return machine.output("timeout", "30", "python3", "/srv/packages/where", name, user="pilot",
                              check=False).split()

    def click(self, machine, name):
        place = self.where(machine, name)
        assert place, f'no control "{name}"'
        machine.output("xdotool", "mousemove", *place, "click", "1", user="pilot")

    @staticmethod
    def received(machine):
        """Serial number, eye size and frame rate of each stream."""
        reports = [machine.receive(port) for port in PORTS]
        return [tuple(report[key] for key in ("serial", "eyeWidth", "eyeHeight", "nominalFps"))
                for report in reports]

    @staticmethod
    def saved(machine):
        """The same from the configuration file."""
        records = json.loads(machine.output("cat", CONFIGURATION)).items()
        found = {record["Port"]: (int(serial), record["Width"], record["Height"], record["FPS"])
                 for serial, record in records}
        return [found[port] for port in PORTS]

    def test_display(self, machine):
        # Whatever steps came before: the service streams, and starts at boot.
        machine.systemctl("enable", "--quiet", "--now", UNIT)
        assert machine.streams()
        TestWindow.before = self.received(machine)
        machine.install(*WINDOW_TOOLS)
        machine.shell("rm -rf /tmp/desk; install -d -o pilot -m 700 /tmp/desk")
        machine.shell("mkfifo /tmp/desk/ready; setsid Xvfb -displayfd 3 -screen 0 1500x900x24 "
                      "3>/tmp/desk/ready >/tmp/desk/x.log 2>&1 & cat /tmp/desk/ready >/tmp/desk/number; "
                      "DISPLAY=:$(cat /tmp/desk/number) dbus-launch --sh-syntax >/tmp/desk/bus",
                      user="pilot")
        machine.desktop = {
            "DISPLAY": ":" + machine.output("cat", "/tmp/desk/number"), "LIBGL_ALWAYS_SOFTWARE": "1",
            "XDG_RUNTIME_DIR": "/tmp/desk", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1",
            "DBUS_SESSION_BUS_ADDRESS": machine.shell(
                '. /tmp/desk/bus; echo "$DBUS_SESSION_BUS_ADDRESS"')}
        for program in "openbox", "kor_vistrel":
            machine.shell(f"setsid {program} >/tmp/desk/{program}.log 2>&1 &", user="pilot")

    def test_takes_the_cameras(self, machine):
        assert wait_for(30, lambda: machine.is_active() == "inactive")
        assert wait_for(30, lambda: machine.ok("pgrep", "-u", "pilot", "-x", "kor_vistrel") and
                        not machine.unlocked())
        assert wait_for(30, lambda: self.where(machine, "SAVE"))
        assert machine.receive(PORTS[0]) is None

    def test_automatic_start(self, machine):
        for state in "disabled", "enabled":
            self.click(machine, "Enable Vistrel Deamon")
            assert wait_for(20, lambda: machine.is_enabled() == state)  # noqa: B023

    def test_save(self, machine):
        """The cameras here run at a size that the window does not offer, so it saves one of its own."""
        self.click(machine, "SAVE")
        assert wait_for(20, lambda: self.where(machine, "OK"))
        machine.shell("import -window root /tmp/desk/window.png; base64 /tmp/desk/window.png "
                      ">/tmp/desk/window.txt", user="pilot")
        self.click(machine, "OK")
        assert wait_for(20, lambda: not self.where(machine, "OK"))
        configuration = json.loads(machine.output("cat", CONFIGURATION))
        assert PORTS[1] in [record["Port"] for record in configuration.values()]
        assert 480 not in [record["Width"] for record in configuration.values()]

    def test_close(self, machine):
        machine.output("wmctrl", "-c", "KORTSolo Vistrel", user="pilot")
        assert wait_for(40, lambda: not machine.ok("pgrep", "-u", "pilot", "-x", "kor_vistrel"))
        assert machine.streams(60)
        after = self.received(machine)
        assert after == self.saved(machine)
        assert after != TestWindow.before

    def test_log(self, machine):
        log = machine.output("cat", "/tmp/desk/kor_vistrel.log")
        (machine.out / "window.log").write_text(log)
        machine.ok("pkill", "-u", "pilot")
        machine.desktop = {}
        assert "[KORVistrel] Version  " in log
        assert not re.search("password|no new privileges|not allowed", log, re.IGNORECASE)


def maintainer_script(machine, name, argument):
    """As dpkg calls it."""
    machine.output("env", "DPKG_MAINTSCRIPT_PACKAGE=kor-vistrel", f"DPKG_MAINTSCRIPT_NAME={name}",
                   f"/var/lib/dpkg/info/kor-vistrel.{name}", argument)


class TestPurge:
    def test_removal_that_is_given_up(self, machine):
        machine.systemctl("enable", "--quiet", "--now", UNIT)
        maintainer_script(machine, "prerm", "remove")
        assert machine.is_active() != "active"
        maintainer_script(machine, "postinst", "abort-remove")
        assert machine.streams()

    def test_removal_and_return(self, machine):
        machine.output("apt-get", "-q", "-y", "remove", "kor-vistrel")
        machine.output("test", "-s", CONFIGURATION)
        assert machine.is_active() != "active"
        machine.install("/srv/packages/this.deb")
        assert machine.is_enabled() == "enabled"
        machine.systemctl("start", UNIT)
        assert machine.streams()

    def test_purge_while_it_streams(self, machine):
        machine.make_foreign_memory()
        machine.output("apt-get", "-q", "-y", "purge", "kor-vistrel")
        assert machine.foreign_memory_owners() == ["pilot"] * 3
        assert machine.our_files() == machine.files_before
        assert not machine.ok("systemctl", "cat", UNIT)
        assert machine.systemctl("--failed", "--no-legend") == ""

    def test_settings_folder_of_somebody_else(self, machine):
        machine.shell(f"mkdir -p {SETTINGS} && echo mine >{SETTINGS}/mine")
        machine.install("/srv/packages/this.deb")
        machine.shell(f"cat >{CONFIGURATION}", stdin=two_virtual_cameras(480, 300, 15))
        machine.output("apt-get", "-q", "-y", "purge", "kor-vistrel")
        assert machine.output("ls", SETTINGS) == "mine"
        machine.output("rm", "-r", SETTINGS)
