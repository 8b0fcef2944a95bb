"""Power cuts: the load runs, the power goes, the machine boots from what its disk kept, and everything that was
acknowledged must be there."""
import random
import subprocess
import sys
import time

import disk
import image
import load
from check import Check, Tally
from machine import wait_for

DROP_IN = "[Service]\nEnvironment=LD_PRELOAD=/usr/local/lib/zol-vm/no_sync.so\n"


def boot_with_load(machine, kernel_state, without_sync):
    """Boots for the first time, and leaves on the disk for good what the load begins with."""
    machine.boot_kept(kernel_state)
    machine.wait_until_serving()
    if without_sync:
        for unit in ("zol", "zol-vconf"):
            machine.run("mkdir", "-p", f"/etc/systemd/system/{unit}.service.d")
            machine.run("tee", f"/etc/systemd/system/{unit}.service.d/no_sync.conf", stdin=DROP_IN)
        machine.run("systemctl", "daemon-reload")
        machine.run("systemctl", "restart", "zol-vconf", "zol")
        machine.wait_until_serving()
    machine.run("zolctl", "vconf", "set", load.STANDING_KEY, "1", "--type", "int", user="member")
    machine.run("zolctl", "policy", "push", "-", user="member", stdin=load.policy(1))
    machine.run("sync")


class Cuts:
    """A machine whose power goes again and again; each cut has a random source of its own that `seed` determines."""

    def __init__(self, machine, kernel_state, seed, without_sync=False):
        self.machine = machine
        self.kernel_state = kernel_state
        self.seed = seed
        self.record = load.Record()
        self.tally = Tally()
        boot_with_load(machine, kernel_state, without_sync)

    def run(self, count):
        for number in range(count):
            self._one(number, random.Random(f"{self.seed}/{number}"))
        for refused in self.record.refused:
            print(f"not done: {refused}", file=sys.stderr)

    def file_system_is_sound(self):
        """Shuts the machine down in order and has all of its disk checked."""
        self.machine.shut_down()
        image = self.machine.folder / "image"
        self.machine.disk.export(image)
        checked = subprocess.run(["e2fsck", "-f", "-n", image], capture_output=True, text=True, check=False)
        if checked.returncode != 0:
            print(f"file system: {checked.stdout}", file=sys.stderr)
        return checked.returncode == 0

    def _one(self, number, source):
        kept = source.choice(disk.KEPT)
        began, steps = time.monotonic(), self.record.acknowledged
        when = self._cut(source)
        unflushed = self.machine.disk.power_on(kept, source)
        booted = int(time.time())
        self.machine.boot_kept(self.kernel_state)
        check = Check(self.machine, self.record.expected(), booted)
        if image.TORN_JOURNAL in self.machine.run("dmesg").stdout:
            check.notes.append(image.TORN_JOURNAL)
        findings = check.findings + self.record.faults
        self.record.settle(check.found)
        self.record.faults = []
        self.tally.count(kept, self.record.acknowledged - steps, unflushed, findings)
        print(f"cut {number}: {when}, kept {kept} of {unflushed} unflushed writes, "
              f"{self.record.acknowledged - steps} steps, {time.monotonic() - began:.0f} s: "
              f"{'; '.join(findings) or 'all there'}", *check.notes, sep="\n    ", file=sys.stderr, flush=True)

    def _cut(self, source):
        """One cut of four comes at a moment of time, the others with a write, so that they hit what is not flushed."""
        enough = self.record.acknowledged + source.randrange(10)
        going = load.Load(self.machine, self.record, source)
        if source.random() < 0.25:
            wait_for(lambda: self.record.acknowledged >= enough, "the steps before the cut", 60)
            moment = source.uniform(0, 1)
            time.sleep(moment)
            text = f"{moment:.2f} s behind a step"
        else:
            writes = source.randrange(1, 50)
            self.machine.disk.cut_after(writes)
            if not self.machine.disk.went_off.wait(60):
                self.record.faults.append("the load wrote nothing for a minute")
            text = f"with write {writes}"
        self.machine.cut()
        going.join()
        self.machine.disconnect()
        return text
