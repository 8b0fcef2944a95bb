"""The real daemon on a private bus and a throw-away root.

Fixtures:
  machine   a fresh root with a private bus; starts daemons and tools on it
  daemon    a running daemon on that machine

Nothing here sleeps for something to come up: every wait is on a condition, with a deadline that only a broken
program meets.
"""
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import pytest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZOL_BUILD_DIR", TOP / "build" / "dev"))
# What runs the build's programs when they are another machine's.
EMULATOR = os.environ.get("ZOL_EMULATOR", "")
BIN = BUILD / "bin"
DEADLINE = float(os.environ.get("ZOL_E2E_DEADLINE", "30"))

HANDOVER_KEY = "db/zol/send_zol_files_path"
RUNNING_KEY = "db/zol/corvel_policy"
BUS_NAME = "org.zol.Daemon1"

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="false"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""

TGID = "11111111-2222-3333-4444-555555555555"
SANITIZER_OPTIONS = {
    "ASAN_OPTIONS": "detect_leaks=1:strict_string_checks=1:allocator_may_return_null=1",
    "UBSAN_OPTIONS": "halt_on_error=1:print_stacktrace=1",
    "LSAN_OPTIONS": f"suppressions={TOP}/tests/lsan.supp:print_suppressions=0",
}


def emulated(folder):
    """A folder with a script for each program of the build that runs it in the emulator."""
    for program in BIN.iterdir():
        if program.is_file() and os.access(program, os.X_OK):
            script = folder / program.name
            script.write_text(f'#!/bin/sh\nexec {EMULATOR} -0 "$0" {program} "$@"\n')
            script.chmod(0o755)
    return folder


if EMULATOR:
    SCRIPTS = tempfile.TemporaryDirectory(prefix="zol-emulated-")
    BIN = emulated(pathlib.Path(SCRIPTS.name))


def wait_for(condition, what="the condition"):
    """The first true result of condition(); fails the test after the deadline."""
    end = time.monotonic() + DEADLINE
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < end, f"waited {DEADLINE} s in vain for {what}"
        time.sleep(0.01)


def program(process):
    """The name of the program that a process runs."""
    name = (process / "comm").read_text().rstrip("\n")
    if EMULATOR.startswith(name[:15]):
        # Behind the emulator's own words: -0, the name, the program.
        words = (process / "cmdline").read_bytes().split(b"\0")
        name = os.path.basename(os.fsdecode(words[words.index(b"-0") + 2]))
    return name


def processes_on(root, name=None):
    """Ids of the processes that run on a machine's root: all, or those of one program."""
    wanted = f"ZOL_ROOT={root}".encode()
    found = []
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if wanted in (folder / "environ").read_bytes().split(b"\0") and name in (None, program(folder)):
                found.append(int(folder.name))
        except OSError:
            continue  # gone meanwhile, or somebody else's
    return found


class PrivateBus:
    """A dbus-daemon of its own, at an address that stays the same when it is stopped and started again."""

    def __init__(self, folder, name="bus"):
        self.socket = folder / name
        self.config = folder / f"{name}.conf"
        self.config.write_text(BUS_CONFIG.format(socket=self.socket))
        self.address = f"unix:path={self.socket}"
        self.process = None

    def start(self):
        reading, writing = os.pipe()
        self.process = subprocess.Popen(
            ["dbus-daemon", f"--config-file={self.config}", "--nofork", "--nopidfile", "--nosyslog",
             f"--print-address={writing}"], pass_fds=[writing], stderr=subprocess.DEVNULL)
        os.close(writing)
        with os.fdopen(reading) as pipe:
            assert pipe.readline(), "the bus did not start"

    def stop(self):
        if self.process:
            self.process.terminate()
            self.process.wait()
            self.process = None


class Machine:
    """One device: a root, a bus, an environment."""

    def __init__(self, folder):
        self.folder = folder
        self.root = folder / "root"
        for name in ("dev", "etc", "proc", "tmp", "usr/bin", "var/lib", "var/log", "run", "home"):
            (self.root / name).mkdir(parents=True)
        (self.root / "proc/global_uniqueID").write_text(TGID)
        (self.root / "proc/life_cycleID").write_text("0123456789")
        self.bus = PrivateBus(folder)
        self.bus.start()
        self.env = dict(os.environ, ZOL_ROOT=str(self.root), DBUS_SYSTEM_BUS_ADDRESS=self.bus.address,
                        HOME=str(self.root / "home"), XDG_DATA_HOME=str(self.root / "home/.local/share"),
                        XDG_DATA_DIRS=str(self.root / "usr/share"), XDG_RUNTIME_DIR=str(self.root / "run"),
                        PATH=f"{BIN}:{os.environ['PATH']}", **SANITIZER_OPTIONS)
        for name in ("DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "WAYLAND_DISPLAY", "DBUS_STARTER_ADDRESS"):
            self.env.pop(name, None)
        self.processes = []
        if EMULATOR:
            self.start_key_service()

    # --- programs -----------------------------------------------------------------------------------------
    def start(self, *command, **options):
        """Starts a program in the background; it is ended with the machine."""
        process = subprocess.Popen([str(part) for part in command], env=self.env, **options)
        self.processes.append(process)
        return process

    def zolctl(self, *arguments, stdin=None, check=None):
        result = subprocess.run([str(BIN / "zolctl"), *map(str, arguments)], env=self.env, input=stdin,
                                capture_output=True, text=True, timeout=4 * DEADLINE)
        if check is not None:
            assert result.returncode == check, result.stderr
        return result

    def start_daemon(self, program="zol_daemon", wait=True, wrapper=()):
        daemon = Daemon(self, program, wrapper)
        if wait:
            daemon.wait_until_serving()
        return daemon

    def start_key_service(self):
        """What its clients do, unless they are emulated: such a program cannot start another one."""
        def listens():
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as probe:
                return probe.connect_ex(str(self.path("/run/zol/vconf.sock"))) == 0
        self.start(BIN / "zol_vconfd", "--idle-ms", "1000000")
        wait_for(listens, "the key service")

    def end_key_service(self):
        """Kills it; the next client has another one."""
        for pid in processes_on(self.root, "zol_vconfd"):
            os.kill(pid, signal.SIGKILL)
        wait_for(lambda: not processes_on(self.root, "zol_vconfd"), "the end of the key service")
        if EMULATOR:
            self.start_key_service()

    def spoil_key_store(self):
        """In the store's place there is something that no store can be."""
        self.end_key_service()
        store = self.path("/var/lib/zol/vconfd")
        if store.exists():
            store.rename(store.with_name("moved"))
        store.parent.mkdir(parents=True, exist_ok=True)
        store.symlink_to(store)
        for pid in processes_on(self.root, "zol_vconfd"):
            os.kill(pid, signal.SIGKILL)

    # --- the device's state -------------------------------------------------------------------------------
    def path(self, device_path):
        return pathlib.Path(str(self.root) + device_path)

    def get(self, key):
        """The value of a key as text; None when there is none."""
        result = self.zolctl("vconf", "get", key)
        return result.stdout.rstrip("\n") if result.returncode == 0 else None

    def set(self, key, value, kind):
        self.zolctl("vconf", "set", key, "--type", kind, "--", value, check=0)

    def push(self, document, *options):
        """Options: --force for a document that zolctl itself would not send."""
        return self.zolctl("policy", "push", *options, "-", stdin=document)

    def kpi(self):
        """The reported events: dictionaries whose description is a dictionary too."""
        events = json.loads(self.zolctl("kpi", "list", "--json", check=0).stdout)
        for event in events:
            pairs = event["description"].strip("{}").split(";")
            event["items"] = dict(pair.split("=", 1) for pair in pairs if pair)
        return events

    def log(self, name="system"):
        file = self.path(f"/var/log/zol/{name}.log")
        return file.read_text(errors="replace") if file.exists() else ""

    def wait_log(self, text, times=1, name="system"):
        wait_for(lambda: self.log(name).count(text) >= times, f"log line '{text}'")

    def published(self):
        """The published folder as it lies on this machine, as soon as there is one."""
        path = wait_for(lambda: self.get(HANDOVER_KEY), "a published path")
        return self.path(path)

    def collect(self):
        """What a collector does: takes the published path and empties the key."""
        folder = self.published()
        self.set(HANDOVER_KEY, "", "string")
        return folder

    def close(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
                process.wait()
        self.bus.stop()
        # What those have started and left behind.
        for pid in processes_on(self.root):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass


class Daemon:
    """A running daemon.

    A wrapper is a command that runs another one, with the same exit status.
    """

    def __init__(self, machine, program, wrapper):
        self.machine = machine
        self.program = program if wrapper else None
        self.stderr = tempfile.TemporaryFile()
        self.process = machine.start(*wrapper, BIN / program, stderr=self.stderr, stdout=self.stderr)

    def wait_until_serving(self):
        def serving():
            assert self.process.poll() is None, f"the daemon ended: {self.output()}"
            result = subprocess.run(
                ["gdbus", "call", "--address", self.machine.bus.address, "--dest", "org.freedesktop.DBus",
                 "--object-path", "/org/freedesktop/DBus", "--method", "org.freedesktop.DBus.NameHasOwner",
                 BUS_NAME], capture_output=True, text=True, check=False)
            return "true" in result.stdout
        wait_for(serving, "the daemon on the bus")

    def pid(self):
        """The daemon's own, not that of a wrapper."""
        # A child has the daemon's name too until it is another program.
        return min(processes_on(self.machine.root, self.program)) if self.program else self.process.pid

    def output(self):
        self.stderr.seek(0)
        return self.stderr.read().decode(errors="replace")

    def stop(self, how=signal.SIGTERM):
        """Ends the daemon and returns its exit status. Anything a sanitizer said fails the test."""
        if self.process.poll() is None:
            os.kill(self.pid(), how)
        status = self.process.wait(timeout=2 * DEADLINE)
        if how != signal.SIGKILL:
            output = self.output()
            assert "Sanitizer" not in output and "runtime error" not in output, output
        return status


def new_machine():
    # Not pytest's tmp_path: a unix socket's path has room for 107 bytes only.
    folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-"))
    machine = Machine(folder)
    yield machine
    machine.close()
    shutil.rmtree(folder, ignore_errors=True)


machine = pytest.fixture(new_machine, name="machine")
other_machine = pytest.fixture(new_machine, name="other_machine")


@pytest.fixture
def daemon(machine):
    daemon = machine.start_daemon()
    yield daemon
    if daemon.process.poll() is None:
        assert daemon.stop() == 0, daemon.output()


# What zolctl says when it has pushed a policy with one rule, and that runs.
ACCEPTED = r"accepted, running: 1 of 1 rules, expires \d{4}-\d\d-\d\d \d\d:\d\d\n"


def policy(*items, expires=2592000, count=None):
    """A policy document of the given elements."""
    count = len(items) if count is None else count
    lines = "\n  ".join(items)
    return (f'<?xml version="1.0" encoding="UTF-8"?>\n<zolitem numofzol="{count}">\n'
            f'  <zol_expired_time time="{expires}"/>\n  {lines}\n</zolitem>\n')


def int_rule(key, condition, value=None, greater=None, less=None):
    parts = [f'key="{key}"', f'condition="{condition}"', 'type="INT"']
    parts += [f'{name}="{number}"' for name, number in (("intvalue", value), ("greater", greater), ("less", less))
              if number is not None]
    return f'<zols {" ".join(parts)}/>'


def string_rule(key, condition, value):
    return f'<zols key="{key}" condition="{condition}" type="STRING" strvalue="{value}"/>'
