"""The installed service under a real systemd as PID 1, in namespaces of its own.

Fixtures:
  device          a booted machine with the programs of ZOL_BUILD_DIR installed; it can be shut down and booted again
  shared_device   one for all tests of a module, which leave it as they found it

The root is build/systemd-image (scripts/systemd-image) under an overlay that goes with the test. Needs root.
"""
import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZOL_BUILD_DIR", TOP / "build" / "release"))
IMAGE = TOP / "build" / "systemd-image"
DEADLINE = float(os.environ.get("ZOL_E2E_DEADLINE", "60"))

# Runs as PID 1 of new namespaces and becomes systemd. $1: folder with the overlay's parts. $2: the image.
BOOT = r"""
set -e
mount --make-rprivate /
mount -t tmpfs tmpfs "$1/mount"
mkdir "$1/mount/root"
root=$1/mount/root
mount -t overlay overlay -o "lowerdir=$2,upperdir=$1/upper,workdir=$1/work" "$root"
mount -t proc proc "$root/proc"
mount -t sysfs sysfs "$root/sys"
mount -t tmpfs tmpfs "$root/sys/fs"
mkdir "$root/sys/fs/cgroup"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount -t tmpfs -o mode=755 tmpfs "$root/dev"
for device in null zero full random urandom tty; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
done
touch "$root/dev/console"
mkdir "$root/dev/pts" "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
cd "$root"
pivot_root . mnt
umount -l /mnt
exec env -i container=test PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --log-target=journal
"""


def wait_for(condition, what):
    """The first true result of condition(); fails the test after the deadline."""
    end = time.monotonic() + DEADLINE
    while not (result := condition()):
        assert time.monotonic() < end, f"waited {DEADLINE} s in vain for {what}"
        time.sleep(0.02)
    return result


class Device:
    """One machine: what it writes stays over its boots, and lies beside the image that it boots from."""

    def __init__(self, folder, image=IMAGE):
        self.folder = folder
        self.image = image
        for name in ("upper", "work", "mount"):
            (folder / name).mkdir()
        self.outer = None
        self.init = None

    def install(self):
        # DESTDIR is the overlay's upper layer: to the image these are ordinary files.
        subprocess.run(["cmake", "--install", str(BUILD)], env=dict(os.environ, DESTDIR=str(self.folder / "upper")),
                       check=True, stdout=subprocess.DEVNULL)

    def boot(self):
        self.outer = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--fork", "--uts", "--ipc", "--net", "--cgroup", "--kill-child",
             "bash", "-c", BOOT, "boot", str(self.folder), str(self.image)], stdin=subprocess.DEVNULL,
            stdout=(self.folder / "console").open("ab"), stderr=subprocess.STDOUT)
        wait_for(self._find_init, "systemd to begin")
        wait_for(lambda: self.run("systemctl", "is-system-running", "--wait", check=False).stdout.strip()
                 in ("running", "degraded"), "the boot to end")

    def _find_init(self):
        assert self.outer.poll() is None, (self.folder / "console").read_text(errors="replace")
        children = pathlib.Path(f"/proc/{self.outer.pid}/task/{self.outer.pid}/children").read_text().split()
        if children and pathlib.Path(f"/proc/{children[0]}/comm").read_text().strip() == "systemd":
            self.init = children[0]
        return self.init

    def shut_down(self):
        self.run("systemctl", "poweroff", check=False)
        self.outer.wait(timeout=2 * DEADLINE)
        self.init = None

    def close(self):
        if self.outer is not None and self.outer.poll() is None:
            os.kill(int(self.init) if self.init else self.outer.pid, signal.SIGKILL)
            self.outer.wait()

    # --- what goes on in it -------------------------------------------------------------------------------
    def run(self, *command, user=None, stdin="", check=True):
        """Runs a command as root or as another account of the machine, with that account's groups."""
        enter = ["nsenter", "--all", "--target", self.init, "--"]
        become = ["runuser", "-u", user, "--"] if user else []
        result = subprocess.run([*enter, *become, *map(str, command)], input=stdin, capture_output=True,
                                text=True, timeout=2 * DEADLINE, check=False)
        assert not check or result.returncode == 0, (command, result.stdout, result.stderr)
        return result

    def show(self, name):
        return self.run("systemctl", "show", "zol", "--value", "-p", name).stdout.strip()

    def daemon(self):
        """The daemon's id inside the machine; None while it does not run."""
        pid = self.show("MainPID")
        return pid if pid != "0" else None

    def in_the_service(self, *command, check=True):
        """Runs a command with the files that the daemon sees, and as it sees them."""
        return self.run("nsenter", "--mount", "--target", self.daemon(), "--", *command, check=check)

    def wait_until_serving(self):
        wait_for(lambda: "true" in self.run(
            "gdbus", "call", "--system", "--dest", "org.freedesktop.DBus", "--object-path",
            "/org/freedesktop/DBus", "--method", "org.freedesktop.DBus.NameHasOwner", "org.zol.Daemon1",
            check=False).stdout, "the daemon on the bus")

    def modes(self, *paths):
        """Mode, owner and group of each path."""
        return self.run("stat", "--format=%a %U %G %n", *paths).stdout.splitlines()


@contextlib.contextmanager
def booted_machine(prepare):
    """A machine that is booted once prepare(device) has put files into it."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-device-"))
    device = None
    try:
        device = Device(folder)
        prepare(device)
        device.boot()
        yield device
    finally:
        if device is not None:
            device.close()
        shutil.rmtree(folder, ignore_errors=True)


@contextlib.contextmanager
def booted_device():
    with booted_machine(Device.install) as device:
        device.run("useradd", "--system", "--groups", "zol", "member")
        device.run("useradd", "--system", "stranger")
        device.run("systemctl", "start", "zol")
        device.wait_until_serving()
        yield device


@pytest.fixture
def device():
    with booted_device() as device:
        yield device


@pytest.fixture(scope="module")
def shared_device():
    with booted_device() as device:
        yield device
