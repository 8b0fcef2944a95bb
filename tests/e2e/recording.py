"""What a test recording needs: keys, a stick, a display, somebody who shows toasts."""
import datetime
import errno
import os
import pathlib
import struct
import subprocess
import tarfile

import pytest

from conftest import EMULATOR, PrivateBus, processes_on, wait_for
from services import Notifications, Udisks

START, STOP = 95, 96
# Linux's input events.
EV_SYN, EV_KEY = 0, 1
KEYS = {"KEY_LEFTCTRL": 29, "KEY_LEFTALT": 56, "KEY_R": 19, "KEY_S": 31}
COMBINATIONS = {START: ("KEY_LEFTCTRL", "KEY_LEFTALT", "KEY_R"), STOP: ("KEY_LEFTCTRL", "KEY_LEFTALT", "KEY_S")}
BITS = {"EVIOCGPROP": 32, "EVIOCGBIT(0)": 32, "EVIOCGBIT(1)": 768, "EVIOCGBIT(2)": 16, "EVIOCGBIT(3)": 64,
        "EVIOCGBIT(4)": 8, "EVIOCGBIT(5)": 17, "EVIOCGBIT(17)": 16, "EVIOCGBIT(18)": 8, "EVIOCGBIT(21)": 128,
        "EVIOCGKEY": 768, "EVIOCGLED": 16, "EVIOCGSW": 17}

# Runs the real program of its name where no file can grow: its writes fail. What it says of that goes through a pipe.
FULL = """#!/usr/bin/python3
import os, resource, subprocess, sys
os.environ["PATH"] = os.environ["PATH"].partition(":")[2]
run = subprocess.run([os.path.basename(sys.argv[0]), *sys.argv[1:]], stderr=subprocess.PIPE, restore_signals=False,
                     preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0)))
sys.stderr.buffer.write(run.stderr)
sys.exit(run.returncode)
"""
# What writes to the stick from the daemon's shell.
WRITERS = "grep", "tar"

# The real one would end those of the whole computer.
KILLALL = """#!/bin/sh
echo "$*" >> "$ZOL_ROOT/killed"
for folder in /proc/[0-9]*; do
    if [ "$(cat "$folder/comm" 2>/dev/null)" = "$1" ] &&
        tr '\\0' '\\n' 2>/dev/null < "$folder/environ" | grep -qxF "ZOL_ROOT=$ZOL_ROOT"; then
        kill "${folder#/proc/}"
    fi
done
"""


def bits(count, numbers=()):
    """Hexadecimal text of a bit set of the kernel's size, behind its length in bytes."""
    data = bytearray((count + 63) // 64 * 8)
    for number in numbers:
        data[number // 8] |= 1 << number % 8
    return f"{len(data)} {data.hex().upper()}"


def keyboard_answers(device):
    """What a keyboard answers the input library; no key is held."""
    known = {"EVIOCGBIT(0)": (EV_SYN, EV_KEY), "EVIOCGBIT(1)": KEYS.values()}
    lines = [f"@DEV {device} (EVDEV)", "EVIOCGVERSION 0 01000100", "EVIOCGID 0 0300010001000100",
             "EVIOCGNAME 255 " + "0" * 510]
    lines += [f"{call} {bits(count, known.get(call, ()))}" for call, count in BITS.items()]
    return "\n".join(lines) + "\n"


class Keyboard:
    """The input device event1 of a daemon that runs under wrapper()."""

    def __init__(self, machine):
        self.answers = machine.folder / "event1.ioctl"
        self.answers.write_text(keyboard_answers("/dev/input/event1"))
        self.place = machine.folder / "mocked"
        self.fd = None
        (machine.root / "dev/input").symlink_to("/dev/input")
        # The mock comes before a sanitizer's own library.
        machine.env["ASAN_OPTIONS"] += ":verify_asan_link_order=0"

    def wrapper(self, inner=()):
        """What the daemon must run under; the inner command runs it within the mock."""
        # The mocked /dev is a folder that the mock makes: it must be known, and be there before the daemon is.
        script = f'mkdir -p "$UMOCKDEV_DIR/dev/input" && ln -sT "$UMOCKDEV_DIR" {self.place} && exec "$0"'
        return ["umockdev-run", f"--ioctl=/dev/input/event1={self.answers}", "--", *inner, "sh", "-c",
                script]

    def plug(self):
        wait_for(self.place.exists, "the mocked devices")
        device = self.place / "dev/input/event1"
        os.mkfifo(device)

        def opened():
            # There is no writing end before somebody reads.
            try:
                self.fd = os.open(device, os.O_WRONLY | os.O_NONBLOCK)
            except OSError as error:
                assert error.errno == errno.ENXIO
            return self.fd is not None
        wait_for(opened, "the daemon to open the keyboard")

    def press(self, combination):
        """Presses the keys of a combination and lets them go."""
        keys = [KEYS[name] for name in COMBINATIONS[combination]]
        for value, order in ((1, keys), (0, reversed(keys))):
            for key in order:
                event = struct.pack("@llHHi", 0, 0, EV_KEY, key, value)
                os.write(self.fd, event + struct.pack("@llHHi", 0, 0, EV_SYN, 0, 0))

    def close(self):
        if self.fd is not None:
            os.close(self.fd)


class Display:
    """A display whose whole picture is white."""

    def __init__(self, machine):
        reading, writing = os.pipe()
        self.process = machine.start("Xvfb", "-displayfd", writing, "-screen", "0", "1280x720x24", "-wr",
                                     "-nolisten", "tcp", pass_fds=[writing], stderr=subprocess.DEVNULL)
        os.close(writing)
        with os.fdopen(reading) as pipe:
            self.name = ":" + pipe.readline().strip()
        assert self.name != ":", "the display did not start"


class Recorder:
    """A debug image with a keyboard, a stick and a viewer who sees toasts."""

    def __init__(self, machine, stick="/media/stick"):
        if EMULATOR:
            pytest.skip("input devices are mocked by a library of this machine's kind")
        self.machine = machine
        self.stick = machine.path(stick)
        self.stick.mkdir(parents=True)
        machine.path("/etc/debug").touch()
        self.tools = machine.folder / "tools"
        self.tools.mkdir()
        machine.env["PATH"] = f"{self.tools}:{machine.env['PATH']}"
        self.add_tool("killall", KILLALL)
        self.session = PrivateBus(machine.folder, "session")
        self.session.start()
        machine.env["DBUS_SESSION_BUS_ADDRESS"] = self.session.address
        self.notifications = Notifications(machine, self.session.address)
        self.udisks = Udisks(machine)
        self.udisks.plug(self.stick)
        self.keyboard = Keyboard(machine)
        self.daemon = None

    def add_tool(self, name, script):
        """A program that the daemon's shell finds before all others."""
        (self.tools / name).write_text(script)
        (self.tools / name).chmod(0o755)

    def fill_stick(self):
        """Whatever the daemon's shell writes fails as it does on a full stick."""
        for name in WRITERS:
            self.add_tool(name, FULL)

    def empty_stick(self):
        for name in WRITERS:
            (self.tools / name).unlink()

    def start(self, wrapper=()):
        self.daemon = self.machine.start_daemon(wrapper=self.keyboard.wrapper(wrapper))
        self.keyboard.plug()
        self.machine.wait_log("input device event1 is there: key combinations work", name="main")

    def press(self, combination, line, times=1):
        """Presses a combination and waits for what the recorder says to it."""
        self.keyboard.press(combination)
        self.machine.wait_log(line, times)

    def begin(self, times=1):
        self.press(START, "[TestRecording] StartDlog cmd is", times)
        self.wait_toasts(times)

    def finish(self, times=1):
        self.press(STOP, "[TestRecording] Done making tar file.", times)

    def wait_toasts(self, started):
        """The start toast is the last thing that a start does."""
        wait_for(lambda: self.toasts().count(("Recording started...", 5000)) >= started, "the toast")

    def toasts(self):
        return self.notifications.toasts()

    def focus(self, *elements):
        """Logs that elements got the focus, and waits until the follower has seen it."""
        now = datetime.datetime.now().strftime("%Y-%m-%d %H:%M:%S.%f")[:-3]
        log = self.machine.path("/var/log/zol/main.log")
        with log.open("a") as file:
            file.writelines(f"{now} I/CSFS(1:1): {element}\n" for element in elements)
        wait_for(lambda: any(self._has_read(pid, log) for pid in self.followers()), "the follower to read")

    def followers(self):
        return processes_on(self.machine.root, "dlogutil")

    @staticmethod
    def _has_read(pid, log):
        """True when a process is at the end of a file and waits for more: what it read is written by then."""
        process = pathlib.Path(f"/proc/{pid}")
        try:
            for link in (process / "fd").iterdir():
                if os.path.samefile(link, log):
                    position = (process / "fdinfo" / link.name).read_text().split()[1]
                    sleeping = (process / "stat").read_text().rpartition(")")[2].split()[0] == "S"
                    return int(position) == log.stat().st_size and sleeping
        except OSError:
            pass  # gone meanwhile
        return False

    def unpack(self):
        folder = self.machine.folder / "unpacked"
        with tarfile.open(self.stick / "testrecording.tar.gz") as archive:
            archive.extractall(folder)
        return folder

    def close(self):
        if self.daemon and self.daemon.process.poll() is None:
            assert self.daemon.stop() == 0, self.daemon.output()
        self.keyboard.close()
        self.notifications.stop()
        self.session.stop()
