"""A running zol_collector."""
import json
import pathlib
import signal
import subprocess
import time

from conftest import BIN, wait_for

SETTLE = "1"  # seconds, not to wait long for reports that were left lying


def switches(pid):
    """How often the threads of a process have stopped running so far."""
    words = [line.split() for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
             for line in (task / "status").read_text().splitlines()]
    return sum(int(line[1]) for line in words if "ctxt_switches" in line[0])


def wakeups(pid, seconds):
    """How often a process runs in that time."""
    before = switches(pid)
    time.sleep(seconds)
    return switches(pid) - before


class Collector:
    """A zol_collector with a spool in the machine's folder."""

    def __init__(self, machine, *arguments, wrapper=()):
        self.machine = machine
        self.spool = machine.folder / "spool"
        self.errors = machine.folder / f"collector{len(machine.processes)}"
        with self.errors.open("w") as errors:
            self.process = machine.start(*wrapper, BIN / "zol_collector", "--spool", self.spool, "--settle", SETTLE,
                                         *arguments, stderr=errors)

    def said(self):
        return self.errors.read_text().splitlines()

    def wait_said(self, text, times=1):
        wait_for(lambda: sum(text in line for line in self.said()) >= times, f"'{text}' in {self.said()}")

    def started(self):
        self.wait_said("collecting into")
        return self

    def status(self):
        result = subprocess.run([BIN / "zol_collector", "--spool", self.spool, "--status", "--json"],
                                env=self.machine.env, capture_output=True, text=True, check=True)
        return json.loads(result.stdout)

    def names(self):
        return [report["name"] for report in self.status()["reports"]]

    def wait_names(self, *names):
        self.started()
        wait_for(lambda: self.names() == list(names), f"{names} in the spool")

    def stop(self, how=signal.SIGTERM):
        self.process.send_signal(how)
        return self.process.wait(timeout=60)
