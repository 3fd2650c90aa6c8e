# SPDX-License-Identifier: Apache-2.0
"""A Debian 12 that is made once, copied, booted with a network of its own, and operated."""
import contextlib
import fcntl
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

UNIT = "kor_vistrel_cli.service"
SETTINGS = "/usr/local/kor/settings"
CONFIGURATION = f"{SETTINGS}/virtual_tsolo_config.json"
SERIALS = 30123456, 30123457  # of the built-in rig
PORTS = 34000, 34010
LOCKS = [f"/dev/shm/tq_local_{serial}" for serial in SERIALS]
# Shared memory of another program under names like the lock files': one with content, one whose name
# is no serial number.
FOREIGN_MEMORY = "/dev/shm/tq_local_30199999 /dev/shm/tq_local_frames /dev/shm/tq_local_30199998.1"
WINDOW_TOOLS = ("xvfb openbox xdotool imagemagick libgl1-mesa-dri wmctrl dbus-x11 at-spi2-core procps "
                "python3-gi gir1.2-atspi-2.0").split()
GET = "apt-get", "-q", "-y", "--no-install-recommends"
# Boots again when the container wants to, within the memory group whose list is the first argument.
BOOT = """[ -z "$1" ] || echo $$ >"$1"; shift
status=133
while [ $status -eq 133 ]; do status=0; "$@" || status=$?; done"""


class CannotRun(Exception):
    """Why this machine cannot run the test."""


def demand(condition, reason):
    if not condition:
        raise CannotRun(reason)


def wait_for(seconds, condition):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.2)
    return True


def children(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    except OSError:
        return []


def two_virtual_cameras(width, height, fps):
    """A configuration of two virtual cameras that share the two cameras of the built-in rig."""
    left, right = SERIALS
    capture = {"FPS": fps, "HDR": 0, "Height": height, "IMU": True, "Width": width}
    return json.dumps({"100000001": {**capture, "Left": left, "Port": PORTS[0], "Right": right},
                       "100000002": {**capture, "Left": right, "Port": PORTS[1], "Right": left}})


class Machine:
    def __init__(self, folder, out):
        self.folder, self.out = folder, out
        self.base, self.archives, self.packages = folder / "base", folder / "archives", out / "packages"
        self.room = self.boots = self.memory_group = None
        self.have_memory_controller = False
        self.desktop = {}  # environment of a user who sits at a display

    # --- Making it ---------------------------------------------------------------------------

    def prepare(self, root, log, *command):
        """Runs a command in the files of a system that is not booted, with this machine's network."""
        passed = [f"--setenv={name}={os.environ[name]}"
                  for name in ("http_proxy", "https_proxy", "no_proxy") if os.environ.get(name)]
        with open(log, "ab") as output:
            return subprocess.run(
                ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--pipe",
                 "--resolv-conf=copy-host", f"--bind={self.archives}:/var/cache/apt/archives",
                 "--setenv=DEBIAN_FRONTEND=noninteractive", *passed, f"--directory={root}", "--",
                 *command], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                check=False).returncode == 0

    def make_base(self, mirror):
        if self.base.exists():
            return
        new = self.folder / "base.new"
        shutil.rmtree(new, ignore_errors=True)
        log = self.folder / "debootstrap.log"
        with open(log, "wb") as output:
            demand(subprocess.run(
                ["debootstrap", "--variant=minbase", "--include=systemd-sysv,dbus,ca-certificates",
                 "bookworm", new, *([mirror] if mirror else [])],
                stdout=output, stderr=output, check=False).returncode == 0,
                f"debootstrap failed, see {log}")
        # How this machine fetches packages: proxies, dates, certificates.
        dump = subprocess.run(["apt-config", "dump", "Acquire"], text=True, stdout=subprocess.PIPE,
                              check=True).stdout
        (new / "etc/apt/apt.conf.d/00acquire").write_text(
            re.sub(r"(?m)^Acquire::IndexTargets.*\n", "", dump))
        # A copy that is thrown away needs no care for power failures.
        (new / "etc/dpkg/dpkg.cfg.d/unsafe-io").write_text("force-unsafe-io\n")
        demand(self.prepare(new, log, "apt-get", "-qq", "update"),
               f"no package lists can be fetched, see {log}")
        (new / "etc/hostname").unlink(missing_ok=True)
        new.rename(self.base)

    def fetch(self, *wanted):
        """Packages are fetched beforehand: the booted container has a network of its own."""
        log, get = self.out / "fetch.log", [*GET, "--download-only", "install", *wanted]
        # Lists that are out of date name files that the mirror has replaced.
        demand(self.prepare(self.room, log, *get) or
               self.prepare(self.room, log, "apt-get", "-q", "update") and
               self.prepare(self.room, log, *get), f"packages cannot be fetched, see {log}")

    def make(self, this, previous, mirror, tools):
        """Copies the base, after the packages and all that they need have been fetched."""
        (self.archives / "partial").mkdir(parents=True, exist_ok=True)
        self.packages.mkdir(parents=True, exist_ok=True)
        self.lock = open(self.folder / "lock", "w", encoding="ascii")
        try:
            fcntl.flock(self.lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            raise CannotRun(f"another run uses {self.folder}") from None
        (self.out / "fetch.log").unlink(missing_ok=True)
        self.make_base(mirror)
        self.room = pathlib.Path(tempfile.mkdtemp(prefix="room.", dir=self.folder))
        subprocess.run(["cp", "-a", f"{self.base}/.", self.room], check=True)
        shutil.copy(this, self.packages / "this.deb")
        shutil.copy(pathlib.Path(__file__).with_name("where"), self.packages)
        if previous:
            shutil.copy(previous, self.packages / "previous.deb")
        else:
            self.make_previous(this)
        inside = self.room / "srv/packages"
        shutil.copytree(self.packages, inside)
        for package in "this", "previous":
            self.fetch(f"/srv/packages/{package}.deb")
        if tools:
            self.fetch(*WINDOW_TOOLS)
        shutil.rmtree(inside)
        inside.mkdir()

    def make_previous(self, this):
        """The package's content under a lower version."""
        with tempfile.TemporaryDirectory(dir=self.folder) as content:
            subprocess.run(["dpkg-deb", "--raw-extract", this, content], check=True)
            os.chmod(content, 0o755)
            control = pathlib.Path(content, "DEBIAN/control")
            control.write_text(re.sub(r"(?m)^(Version: .*)$", r"\1~before", control.read_text()))
            subprocess.run(["dpkg-deb", "--root-owner-group", "--build", content,
                            self.packages / "previous.deb"], stdout=subprocess.DEVNULL, check=True)

    def boot(self):
        """Whether this machine can boot a container shows at the first one."""
        # Without systemd on this machine there is nobody to ask for a unit.
        keep = [] if os.path.isdir("/run/systemd/system") else ["--keep-unit"]
        name = f"vistrel-{os.getpid()}"
        # A memory group of its own, within the one that this process runs in.
        older = re.search(r"^\d+:memory:(.*)$", pathlib.Path("/proc/self/cgroup").read_text(), re.M)
        if older:
            group = pathlib.Path(f"/sys/fs/cgroup/memory{older[1]}", name)
            with contextlib.suppress(OSError):
                group.mkdir()
                self.memory_group = group
        with open(self.out / "console.log", "wb") as console:
            self.boots = subprocess.Popen(
                ["sh", "-c", BOOT, "boot",
                 str(self.memory_group / "cgroup.procs") if self.memory_group else "",
                 "systemd-nspawn", "--quiet", "--register=no", "--private-network", "--boot",
                 f"--directory={self.room}", f"--machine={name}",
                 f"--bind={self.archives}:/var/cache/apt/archives",
                 f"--bind-ro={self.packages}:/srv/packages", *keep],
                stdin=subprocess.DEVNULL, stdout=console, stderr=console, start_new_session=True)
        demand(wait_for(60, self.booted), f"the container does not boot, see {console.name}")
        self.have_memory_controller = self.find_memory_controller()
        self.files_before = self.our_files()

    def find_memory_controller(self):
        """Containers of systems with the older control groups see the memory controller read-only; a
        system that finds it so does without memory limits."""
        if self.output("stat", "-f", "-c", "%T", "/sys/fs/cgroup") == "cgroup2fs":
            return self.ok("grep", "-qw", "memory", "/sys/fs/cgroup/cgroup.controllers")
        return self.memory_group is not None and self.ok(
            "/bin/sh", "-c", "mount -o remount,bind,rw /sys/fs/cgroup/memory && systemctl daemon-reexec"
        ) and wait_for(20, self.booted)

    def end(self, keep):
        if self.boots:
            (self.out / "journal.log").write_text(
                self.output("journalctl", "--no-pager", "-b", "-o", "short-precise", check=False))
            self.ok("systemctl", "poweroff")
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.boots.wait(30)
            with contextlib.suppress(ProcessLookupError):
                os.killpg(self.boots.pid, signal.SIGKILL)
            self.boots.wait()
        if self.memory_group:
            subprocess.run(["find", self.memory_group, "-depth", "-type", "d", "-exec", "rmdir", "{}",
                            ";"], stderr=subprocess.DEVNULL, check=False)
        if self.room and keep:
            print(f"container: kept in {self.room}")
        elif self.room:
            shutil.rmtree(self.room)

    # --- Operating it ------------------------------------------------------------------------

    def leader(self):
        """The container's first process; another one after each boot."""
        for outer in children(self.boots.pid)[:1]:
            for first in children(outer)[:1]:
                return first
        return None

    def run(self, *command, user=None, stdin=None):
        """Runs a command in the booted container as root, or as a user who has logged in."""
        leader = self.leader()
        if leader is None:
            return subprocess.CompletedProcess(command, 1, "", "the container does not run")
        if user:
            command = ("runuser", "-u", user, "--", "env", f"HOME=/home/{user}", f"USER={user}",
                       f"LOGNAME={user}", "PATH=/usr/local/bin:/usr/bin:/bin",
                       *(f"{name}={value}" for name, value in self.desktop.items()), *command)
        return subprocess.run(
            ["nsenter", "--target", leader, "--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup",
             "--", "env", "-i", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
             "HOME=/root", "LANG=C.UTF-8", "DEBIAN_FRONTEND=noninteractive", *command],
            input=stdin or "", text=True, errors="replace", capture_output=True, check=False)

    def ok(self, *command, **options):
        return self.run(*command, **options).returncode == 0

    def output(self, *command, check=True, **options):
        done = self.run(*command, **options)
        if check and done.returncode:
            said = "\n".join((done.stdout + done.stderr).splitlines()[-12:])
            raise AssertionError(f"{' '.join(map(str, command))}: status {done.returncode}\n{said}")
        return done.stdout.rstrip("\n")

    def shell(self, script, **options):
        return self.output("/bin/sh", "-c", script, **options)

    def systemctl(self, *arguments, check=True):
        return self.output("systemctl", *arguments, check=check)

    def install(self, *packages):
        self.output(*GET, "install", *packages)

    def booted(self):
        return self.systemctl("is-system-running", check=False) in ("running", "degraded")

    def property(self, name, unit=UNIT):
        return self.systemctl("show", "--value", "-p", name, unit)

    def is_active(self):
        return self.systemctl("is-active", UNIT, check=False)

    def is_enabled(self):
        return self.systemctl("is-enabled", UNIT, check=False)

    def log(self):
        return self.output("journalctl", "--no-pager", "-u", UNIT)

    def write_settings(self, name, text):
        """As an operator writes it."""
        self.shell(f"umask 077; cat >{SETTINGS}/{name}", user="pilot", stdin=text)

    def configure(self, width=480, height=300, fps=15):
        self.write_settings("virtual_tsolo_config.json", two_virtual_cameras(width, height, fps))

    def receive(self, port):
        """What the receiver reports after ten frames; None when they did not come."""
        done = self.run("timeout", "60", "vistrel-receive", "--quiet", "--frames", "10", "--timeout",
                        "10", "--json", "-", f"rtsp://127.0.0.1:{port}/stereo")
        return json.loads(done.stdout) if done.returncode == 0 else None

    def both_streams(self):
        return all(map(self.receive, PORTS))

    def streams(self, seconds=30):
        return wait_for(seconds, self.both_streams)

    def unlocked(self):
        """The cameras whose locks nobody holds. A shared lock, like that of the library's own look: an
        exclusive one makes the camera look taken to a program that enumerates at this moment."""
        return [lock for lock in LOCKS if self.ok("flock", "--shared", "--nonblock", lock, "true")]

    def make_foreign_memory(self):
        self.shell(f"touch {FOREIGN_MEMORY}; echo frames >/dev/shm/tq_local_30199999; "
                   f"chown pilot {FOREIGN_MEMORY}")

    def foreign_memory_owners(self):
        """And removes it."""
        return self.shell(f"stat -c %U {FOREIGN_MEMORY}; rm {FOREIGN_MEMORY}").split()

    def our_files(self):
        return sorted(self.shell(r"""
            find / -xdev \( -path /proc -o -path /sys -o -path /srv/packages -o -path /var/cache/apt \
                -o -path /var/log -o -path /home -o -path /tmp \) -prune \
                -o \( -iname "*vistrel*" -o -iname "*tq_*" -o -path "/usr/local/kor*" \) -print
            find /dev/shm /run -iname "*vistrel*" -o -iname "tq_local*"
            getent group kor; getent passwd kor-vistrel; true""").splitlines())
