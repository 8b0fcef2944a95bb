"""Power cuts at many moments of one load.

The load runs in the virtual machine, and its disk keeps the order of every write and flush. For each moment of it the
disk is made as a cut had left it then; the host's kernel recovers its file system, and its systemd boots from it in
namespaces, which takes a fraction of the time of the virtual machine.
"""
import contextlib
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import time

import disk
import load
from check import Check, Tally
from image import TOP
from machine import wait_for

sys.path.insert(0, str(TOP / "tests" / "systemd"))
from conftest import Device  # pylint: disable=wrong-import-position

STEPS = 60  # of the load that is recorded


@contextlib.contextmanager
def booted(image):
    """A device in namespaces on a disk's file. What it writes goes elsewhere; only the file system is recovered."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-moment-", dir="/tmp"))
    mounted = folder / "disk"
    mounted.mkdir()
    try:
        subprocess.run(["mount", "-o", "loop", image, mounted], check=True)
        try:
            device = Device(folder, mounted)
            try:
                device.boot()
                yield device
            finally:
                device.close()
        finally:
            subprocess.run(["umount", "--lazy", mounted], check=True)
    finally:
        shutil.rmtree(folder, ignore_errors=True)


class Moments:
    """One load on a machine that serves already, and the moments of its recording."""

    def __init__(self, machine, seed):
        self.machine = machine
        self.seed = seed
        self.record = load.Record(machine.disk.record())
        self.tally = Tally()
        going = load.Load(machine, self.record, random.Random(seed))
        wait_for(lambda: self.record.acknowledged >= STEPS or self.record.faults, "the load", 600)
        machine.cut()
        going.join()
        machine.disconnect()
        for refused in self.record.refused:
            print(f"not done: {refused}", file=sys.stderr)

    def run(self, count):
        for number in range(count):
            self._one(number, random.Random(f"{self.seed}/{number}"))

    def _one(self, number, source):
        kept = source.choice(disk.KEPT)
        moment = source.randrange(len(self.record.recording.events))
        image = self.machine.folder / "image"
        unflushed = self.machine.disk.export_moment(image, self.record.recording, moment, kept, source)
        began = time.time()
        try:
            with booted(image) as device:
                findings = Check(device, self.record.expected(moment), int(began)).findings + self.record.faults
        except (AssertionError, subprocess.SubprocessError) as error:
            findings = [f"no boot: {error}"]
        self.tally.count(kept, self.record.steps_by(moment), unflushed, findings)
        print(f"moment {moment} of {len(self.record.recording.events)}: kept {kept} of {unflushed} unflushed writes, "
              f"{time.time() - began:.0f} s: {'; '.join(findings) or 'all there'}", file=sys.stderr, flush=True)
