"""Power cuts: the load runs, the power goes, the machine boots from what its disk kept, and everything that was
acknowledged must be there."""
import json
import random
import subprocess
import sys
import time

import disk
import load
from machine import wait_for

HEADER_MEMBERS = {"idtype", "id", "category", "tgid", "lcid", "evid", "Content-Type"}
DROP_IN = "[Service]\nEnvironment=LD_PRELOAD=/usr/local/lib/zol-vm/no_sync.so\n"


def install_load(machine, without_sync):
    """The state that the first load begins with, on the disk for good."""
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


class Check:
    """What must be true after a boot that follows a cut. `findings` says what was not."""

    def __init__(self, machine, record, booted):
        self.machine = machine
        self.record = record
        self.booted = booted  # seconds since 1970, before the boot
        self.findings = []
        for check in (self._daemon, self._policy, self._keys, self._stores, self._reports, self._events,
                      self._is_watching):
            try:
                check()
            except (AssertionError, TimeoutError, ValueError) as error:
                self._expect(False, f"{check.__name__}: {error}")
        record.paths.clear()

    def _expect(self, condition, finding):
        if not condition:
            self.findings.append(finding)

    def _zolctl(self, *arguments):
        return self.machine.run("zolctl", *arguments, check=False)

    def _daemon(self):
        self.machine.wait_until_serving()
        restarts = self.machine.run("systemctl", "show", "zol", "--value", "-p", "NRestarts").stdout.strip()
        self._expect(restarts == "0", f"the daemon was started again {restarts} times")

    def _policy(self):
        text = self.machine.run("cat", "/var/lib/zol/policy.xml", check=False).stdout
        step = self.record.policy
        self._expect(step.allows(text), f"the stored policy ({len(text)} bytes, begins {text[:60]!r}) is neither the "
                     f"acknowledged {step.acknowledged[:40]!r} nor the one under way {step.under_way[:40]!r}")
        step.settle(text)
        owner = self.machine.run("stat", "--format=%u:%g %a", "/var/lib/zol/policy.xml", check=False).stdout.strip()
        self._expect(owner == "951:951 640", f"the stored policy has owner and mode {owner!r}")

    def _keys(self):
        for key, step in self.record.keys.items():
            result = self._zolctl("vconf", "get", key)
            value = result.stdout.rstrip("\n") if result.returncode == 0 else None
            self._expect(step.allows(value) and result.returncode < 2,
                         f"{key} is {str(value)[:20]!r} (status {result.returncode}), acknowledged was "
                         f"{str(step.acknowledged)[:20]!r}, under way {str(step.under_way)[:20]!r}")
            step.settle(value)

    def _stores(self):
        listed = self.machine.run("find", "/var/lib/zol", "-name", "*.damaged*").stdout.split()
        self._expect(not listed, f"set aside as damaged: {listed}")

    def _reports(self):
        """A path is published behind its header, so each one seen is whole."""
        for path in self.record.paths:
            text = self.machine.run("cat", f"{path}/header.json", check=False).stdout
            try:
                whole = set(json.loads(text)) == HEADER_MEMBERS
            except ValueError:
                whole = False
            self._expect(whole, f"{path}/header.json is not whole: {text[:40]!r}")

    def _events(self):
        """The event of a report is stored before its path is published."""
        if not self.record.paths:
            return
        listed = self.machine.run("sh", "-c", "zolctl kpi list | tail -n 150").stdout
        for path in self.record.paths:
            evid = path.rsplit("_", 1)[1]
            self._expect(f"evid={evid};" in listed, f"no KPI event for the published {path}")

    def _is_watching(self):
        """The stored policy is applied again: the rule that always holds makes a report of this boot."""
        def is_new():
            path = self._zolctl("vconf", "get", load.HANDOVER_KEY).stdout.strip()
            return path and int(path.rsplit("_", 1)[1]) >= self.booted
        wait_for(is_new, "a report of this boot", 120)


class Cuts:
    """A machine whose power goes again and again; each cut has a random source of its own that `seed` determines."""

    def __init__(self, machine, kernel_state, seed, without_sync=False):
        self.machine = machine
        self.kernel_state = kernel_state
        self.seed = seed
        self.record = load.Record()
        self.rows = {kept: {"cuts": 0, "acknowledged": 0, "unflushed": 0, "findings": 0} for kept in disk.KEPT}
        machine.boot_kept(kernel_state)
        machine.wait_until_serving()
        install_load(machine, without_sync)

    def run(self, count):
        for number in range(count):
            self._one(number, random.Random(f"{self.seed}/{number}"))

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
        findings = Check(self.machine, self.record, booted).findings + self.record.faults
        self.record.faults = []
        row = self.rows[kept]
        row["cuts"] += 1
        row["acknowledged"] += self.record.acknowledged - steps
        row["unflushed"] += unflushed
        row["findings"] += bool(findings)
        print(f"cut {number}: {when}, kept {kept} of {unflushed} unflushed writes, "
              f"{self.record.acknowledged - steps} steps, {time.monotonic() - began:.0f} s: "
              f"{'; '.join(findings) or 'all there'}", file=sys.stderr, flush=True)

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
