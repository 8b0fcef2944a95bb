"""One run of a scenario with at most one broken call, and what must hold in it whatever breaks."""
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

import dbus

from conftest import BIN, BUS_NAME, DEADLINE, HANDOVER_KEY, RUNNING_KEY, TGID, Machine, int_rule, policy, processes_on
from control import ALLOCATOR, KILL, TRACER, Control

POLICY_FILE = "/var/lib/zol/policy.xml"
HEADER = {"idtype", "id", "category", "tgid", "lcid", "evid", "Content-Type"}
# How long a result may take before the log is asked for the reason.
PATIENCE = 1.0
# What a line says that tells of a loss.
LOSS = re.compile(
    r"fail|cannot|could not|couldn't|unable|error|lost|refused|too many|no space|unavailable|bad_alloc|missing|"
    r"not all|dropped|stays|given up|damaged|closed|no service|trying again|differs|out of memory|invalid",
    re.IGNORECASE)
# How GLib ends a process that lacks memory, a thread or a descriptor.
GLIB_END = re.compile(r"GLib.*ERROR.*(failed to allocate|creating thread|creating pipes|Creating pipes|"
                      r"Cannot create|eventfd)|failed to allocate \d+ bytes|"
                      r"GLib \(gthread-posix.c\): Unexpected error from C library during", re.IGNORECASE)
SHORT_OF_MEMORY = {"allocation", "mmap", "thread"}


class Ended(Exception):
    """The program under test is no longer there."""


def until(condition, seconds=DEADLINE):
    """The first true result of condition(); None when there was none in time."""
    end = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            return None
        time.sleep(0.01)


class Document:
    """A policy with one rule of its own: the key must not be 3. Others may follow."""

    def __init__(self, key, *more):
        self.key = key
        self.text = policy(int_rule(key, "IS", 3), *more)


class Trial:
    """A machine, a fault, what was promised on it, and what was found wrong."""

    def __init__(self, fault, programs=("zol_daemon", "zol_vconfd"), usual_lines=frozenset()):
        # Not deep: a unix socket's path has room for 107 bytes only.
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-", dir="/tmp"))
        self.machine = Machine(self.folder)
        self.fault = fault
        self.control = Control(self.folder / "control", fault, programs)
        self.usual_lines = usual_lines
        self.connection = dbus.bus.BusConnection(self.machine.bus.address)
        self.daemon = None
        self.daemons = []  # all that were started
        self.findings = []
        self.ended = None  # how the program ended before its time, where that is allowed
        self.told = ""     # what tools said on their standard error
        self.stored = None     # the policy that was acknowledged last
        self.attempted = None  # one that was sent after it and not acknowledged
        self.described = 0     # events that must be in the event log at the end

    # --- programs -----------------------------------------------------------------------------------------
    def wrapper(self):
        """What the program under test runs in: the tracer or the failing allocator."""
        if self.fault.kind == "allocation":
            # Beside what else is to be loaded before, such as mocked devices.
            load = f'LD_PRELOAD="{ALLOCATOR}:$LD_PRELOAD" ZOL_FAULTS_CONTROL={self.control.path} exec "$0" "$@"'
            return ["sh", "-c", load]
        every = ["--every-call"] if self.fault.kind == "any" else []
        return [TRACER, self.control.path, *every]

    def prepare_keys(self, *documents):
        """What a device has set: so a run without a fault says nothing of missing keys."""
        self.set("db/comss/hwduid", "ABCDEFGHIJKLM", "string")
        for document in documents:
            self.set(document.key, 0)

    def start(self, wrapper=None):
        """Starts the daemon in what breaks its calls, or in another wrapper, and waits until it serves."""
        wrapper = self.wrapper() if wrapper is None else wrapper
        self.daemon = self.machine.start_daemon(wait=False, wrapper=wrapper)
        self.daemons.append(self.daemon)
        self.expect(self.serves, "the daemon to serve")

    def is_running(self):
        """Whether the daemon lives."""
        return self.daemon.process.poll() is None

    def serves(self):
        """Whether the daemon has its name on the bus."""
        return self.connection.name_has_owner(BUS_NAME)

    def stop(self):
        """Ends the daemon in order."""
        if self.is_running():
            for pid in processes_on(self.machine.root, "zol_daemon"):
                os.kill(pid, signal.SIGTERM)
            if not until(lambda: not self.is_running()):
                self.find("the daemon does not end")
                self.daemon.process.kill()
        if self.daemon.process.wait() != 0:
            self.judge_end()

    def judge_end(self):
        """Says how the daemon ended and whether it may end so."""
        status = self.daemon.process.returncode
        output = self.daemon.output()
        said = GLIB_END.search(output)
        if self.ended:
            return
        if status == -signal.SIGKILL and self.fault.how == KILL:
            self.ended = "killed"
            return
        self.ended = f"ended with {status}"
        # What wraps it may tell of the signal as a status.
        if abs(status) in (signal.SIGTRAP, signal.SIGABRT) and said and self.fault.kind in SHORT_OF_MEMORY:
            self.ended = "ended by GLib"
        elif status in (0, 1) and self.fault.kind in SHORT_OF_MEMORY and self.loss_lines():
            self.ended = "ended in order"
        else:
            self.find(f"the daemon ended with {status}: {output[-400:].strip()}")

    def start_service(self):
        """Starts the key service in what breaks its calls, and waits until it listens."""
        service = self.machine.start(*self.wrapper(), BIN / "zol_vconfd", "--idle-ms", "1000000",
                                     stderr=subprocess.DEVNULL)
        until(self.machine.path("/run/zol/vconf.sock").exists)
        return service

    def end_service(self, service):
        """Kills the key service; one that ended by itself must have been short of memory."""
        killed = self.fault.how == KILL and service.poll() == -signal.SIGKILL
        if service.poll() is not None and service.returncode not in (0, 1) and not killed:
            self.find(f"the key service ended with {service.returncode}")
        self.machine.end_key_service()

    def set_and_restart(self, service):
        """Sets keys, some of them twice, ends the service and looks for what was acknowledged."""
        known = {}
        for number in range(6):
            key, value = f"db/fault/{number % 3}", f"value {number}"
            result = self.tool("vconf", "set", key, "--type", "string", "--", value)
            known[key] = {value} if result.returncode == 0 else known.get(key, {None}) | {value}
        self.control.arm(False)
        self.end_service(service)
        for key, values in known.items():
            if self.get(key) not in values:
                self.find(f"{key} is {self.get(key)}, not one of {values}")
        self.set("db/fault/0", "the end", "string")

    def killed_tool(self, wrapper, *arguments):
        """Runs zolctl, which may be killed."""
        return subprocess.run([*wrapper, BIN / "zolctl", *arguments], env=self.machine.env, capture_output=True,
                              text=True, timeout=2 * DEADLINE, check=False)

    def broken_tool(self, wrapper, *arguments, stdin=None):
        """Runs zolctl in what breaks its calls."""
        result = subprocess.run([*wrapper, BIN / "zolctl", *arguments], env=self.machine.env, input=stdin,
                                capture_output=True, text=True, timeout=2 * DEADLINE, check=False)
        if result.returncode not in (0, 1, 2) and not GLIB_END.search(result.stderr):
            self.find(f"zolctl {' '.join(arguments)} ended with {result.returncode}: {result.stderr[-300:]}")
        if result.returncode != 0 and not result.stderr.strip():
            self.find(f"zolctl {' '.join(arguments)} failed without a word")
        self.told += result.stderr
        return result

    # --- judgements ---------------------------------------------------------------------------------------
    def find(self, text):
        """Notes something that must not be."""
        self.findings.append(text)

    def expect(self, condition, what, may_be_lost=False, seconds=DEADLINE):
        """Waits for a result. One that does not come is a finding, unless it may be lost and a line says so."""
        def over():
            if self.daemon and not self.is_running():
                self.judge_end()
                raise Ended
            return condition()
        result = until(over, PATIENCE if may_be_lost else seconds)
        if not result and may_be_lost:
            if self.loss_lines():
                return None
            result = until(over, seconds)
        if not result:
            hint = "" if not may_be_lost else ", and no line tells of a loss"
            if not (may_be_lost and self.loss_lines()):
                self.find(f"waited in vain for {what}{hint}")
        return result

    def lines(self):
        """All that was logged or printed, without times and numbers."""
        text = self.machine.log("system") + self.machine.log("main") + self.told
        text += "\n".join(self.outputs)
        return {re.sub(r"0x[0-9a-f]+|[\d.]+", "#", line.split("): ", 1)[-1]) for line in text.splitlines()}

    @property
    def outputs(self):
        """What the daemons printed."""
        return [daemon.output() for daemon in self.daemons]

    def loss_lines(self):
        """Lines that tell of a loss and that a run without a fault does not have."""
        return {line for line in self.lines() - self.usual_lines if LOSS.search(line) and "kpiDesc" not in line}

    # --- steps --------------------------------------------------------------------------------------------
    def tool(self, *arguments, stdin=None):
        """Runs zolctl, unbroken; what it says of a failure counts as told."""
        result = self.machine.zolctl(*arguments, stdin=stdin)
        if result.returncode < 0:
            self.find(f"zolctl {arguments} ended with {result.returncode}")
        if result.returncode != 0:
            if not result.stderr.strip():
                self.find(f"zolctl {arguments} failed without a word")
            self.told += result.stderr
        return result

    def set(self, key, value, kind="int"):
        """Sets a key; once again when a broken call kept it from being set."""
        for _ in range(2):
            if self.tool("vconf", "set", key, "--type", kind, "--", str(value)).returncode == 0:
                return
            time.sleep(1.1)  # after a failure the library fails at once for a second
        self.find(f"{key} cannot be set")

    def get(self, key):
        """The value of a key as text; None when there is none."""
        result = self.machine.zolctl("vconf", "get", key)
        return result.stdout.rstrip("\n") if result.returncode == 0 else None

    def push(self, document):
        """Hands a policy over; once again when it was not acknowledged because of a broken call."""
        for _ in range(2):
            self.attempted = document
            was_broken = self.control.is_broken
            if self.tool("policy", "push", "-", stdin=document.text).returncode == 0:
                # What was synced is on the disk, whatever its close says.
                if (self.control.is_broken and not was_broken and self.breaks(POLICY_FILE)
                        and self.fault.kind != "close"):
                    self.find(f"a policy is acknowledged although it failed: {self.control.place}")
                self.stored, self.attempted = document, None
                return
            if not self.is_running():
                self.judge_end()
                raise Ended
            self.check_stored()
            self.expect(self.serves, "the daemon to serve again")
        self.find("a policy is refused again after the fault is over")

    def breaks(self, device_path):
        """Whether what is broken keeps a file from being on the disk; one that is written short is written on."""
        names = (device_path, device_path + ".new", os.path.dirname(device_path))
        is_lost = self.fault.kind in ("create", "write", "sync", "rename", "close") and self.fault.how > 0
        return is_lost and self.control.place.split(" ")[-1] in {str(self.machine.path(name)) for name in names}

    def check_stored(self):
        """The stored policy is the acknowledged one; or, whole, one whose answer did not arrive."""
        file = self.machine.path(POLICY_FILE)
        there = file.read_text() if file.exists() else None
        allowed = [self.stored.text if self.stored else None]
        if self.attempted:
            allowed.append(self.attempted.text)
        if there not in allowed:
            self.find(f"the stored policy is neither the old nor the new one: {str(there)[:200]!r}")
        if self.attempted and there == self.attempted.text:
            self.stored = self.attempted
        self.attempted = None

    def events(self):
        """The stored events."""
        result = self.machine.zolctl("kpi", "list", "--json")
        return json.loads(result.stdout) if result.returncode == 0 else []

    def published(self):
        """The published path as it lies on this machine; None when there is none."""
        path = self.get(HANDOVER_KEY)
        return self.machine.path(path) if path else None

    def collect(self):
        """Takes a report, as a collector does."""
        folder = self.published()
        if folder:
            self.check_header(folder, self.control.is_broken)
            self.set(HANDOVER_KEY, "", "string")

    def check_header(self, folder, may_lack=False):
        """The header of a report is whole, or absent and told of."""
        header = folder / "header.json"
        if not folder.is_dir():
            self.find(f"the published folder {folder.name} is not there")
        elif not header.exists():
            if not (may_lack and self.loss_lines()):
                self.find("a header is missing, and no line tells of it")
        elif not is_whole(header):
            self.find(f"a header is not whole: {header.read_bytes()[:200]!r}")

    def report(self, cause, what):
        """Causes a hit and takes the report that it must make: at once before the fault, after it too."""
        before = len(self.events())
        was_over = self.control.is_broken or not self.fault.nth
        cause()
        may_be_lost = not was_over
        self.expect(lambda: len(self.events()) > before, f"the event of {what}", may_be_lost)
        self.expect(self.published, f"the report of {what}", may_be_lost)
        self.collect()

    def await_watching(self):
        """Until monitoring runs: what holds before that is reported once and not watched."""
        def watches_all():
            log = self.machine.log()
            begun = log.count("not all of the policy is watched") <= log.count("all of the policy is watched now")
            return begun and self.get(RUNNING_KEY) == "true"
        self.expect(watches_all, "monitoring to run")

    def hit(self, document):
        """Lets the key of a policy reach its forbidden value."""
        self.await_watching()
        self.set(document.key, 0)
        self.report(lambda: self.set(document.key, 3), f"{document.key} = 3")

    # --- the end ------------------------------------------------------------------------------------------
    def check_rest(self):
        """After the faulted run: what was promised holds, and an unbroken start applies the stored policy."""
        self.control.arm(False)
        if self.daemon and not self.ended:
            self.stop()
        self.check_stored()
        for folder in self.machine.path("/tmp/zol").glob(f"{TGID}_*"):
            # A kill leaves a folder without a header, and without a line, that nobody is told of.
            if self.fault.how != KILL or (folder / "header.json").exists():
                self.check_header(folder, self.fault.nth != 0)
        log = self.machine.log()
        sent = log.count("sent 19_errdata KPI")
        if not self.ended and not self.loss_lines():
            sent = max(sent, log.count("kpiDesc : "))
        if len(self.events()) < sent:
            self.find(f"{sent} events were acknowledged and {len(self.events())} are stored")
        if self.stored:
            self.check_restart()

    def check_restart(self):
        """An unbroken start applies the stored policy: its hit is reported."""
        if self.get(self.stored.key) != "0":
            self.set(self.stored.key, 0)
        self.start(wrapper=())
        self.await_watching()
        before = len(self.events())
        self.set(self.stored.key, 3)
        self.expect(lambda: len(self.events()) > before, "the event of the stored policy after a start")
        folder = self.expect(self.published, "the report of the stored policy after a start")
        if folder:
            self.check_header(folder)

    def close(self):
        """Ends what runs and removes the machine."""
        self.connection.close()
        self.machine.close()
        self.control.close()
        shutil.rmtree(self.folder, ignore_errors=True)


def is_whole(header):
    """Whether a header can be read and has all its members."""
    try:
        return set(json.loads(header.read_text())) == HEADER
    except ValueError:
        return False

