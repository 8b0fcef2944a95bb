"""What must be true after a boot that follows a power cut."""
import json
import re

import disk
import load
from machine import PowerIsOff, wait_for

HEADER_MEMBERS = {"idtype", "id", "category", "tgid", "lcid", "evid", "Content-Type"}


class Tally:
    """How many cuts there were with each loss, and what they had: the rows of the table."""

    def __init__(self):
        self.counts = {kept: [0, 0, 0, 0] for kept in disk.KEPT}  # cuts, steps before them, unflushed, with findings

    def count(self, kept, steps, unflushed, findings):
        for index, more in enumerate((1, steps, unflushed, int(bool(findings)))):
            self.counts[kept][index] += more

    def rows(self, name):
        return [(f"{name}, kept {kept}", *counts) for kept, counts in self.counts.items()]


class Check:
    """What must be true after a boot that follows a cut. `findings` says what was not, `notes` what may be."""

    def __init__(self, machine, expected, booted):
        self.machine = machine
        self.expected = expected
        self.booted = booted  # seconds since 1970, before the boot
        self.findings = []
        self.notes = []
        self.found = load.Expected([], {}, [])
        for check in (self._daemon, self._policy, self._keys, self._stores, self._reports, self._events,
                      self._is_watching):
            try:
                check()
            except (AssertionError, TimeoutError, ValueError, PowerIsOff) as error:
                self._expect(False, f"{check.__name__}: {error}")

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
        self.found.policies.append(text)
        self._expect(text in self.expected.policies,
                     f"the stored policy ({len(text)} bytes, begins {text[:40]!r}) is none of "
                     f"{[policy[:40] for policy in self.expected.policies]}")
        owner = self.machine.run("stat", "--format=%u:%g %a", "/var/lib/zol/policy.xml", check=False).stdout.strip()
        self._expect(owner == "951:951 640", f"the stored policy has owner and mode {owner!r}")

    def _keys(self):
        for key, allowed in self.expected.keys.items():
            result = self._zolctl("vconf", "get", key)
            value = result.stdout.rstrip("\n") if result.returncode == 0 else None
            self.found.keys[key] = [value]
            self._expect(value in allowed and result.returncode < 2,
                         f"{key} is {str(value)[:20]!r} (status {result.returncode}), none of "
                         f"{[str(one)[:20] for one in allowed]}")

    def _stores(self):
        listed = self.machine.run("find", "/var/lib/zol", "-name", "*.damaged*").stdout.split()
        self._expect(not listed, f"set aside as damaged: {listed}")

    def _reports(self):
        """A path is published behind its header, so each one seen is whole."""
        for path in self.expected.paths:
            text = self.machine.run("cat", f"{path}/header.json", check=False).stdout
            try:
                whole = set(json.loads(text)) == HEADER_MEMBERS
            except ValueError:
                whole = False
            self._expect(whole, f"{path}/header.json is not whole: {text[:40]!r}")

    def _events(self):
        """The event of a report is stored before its path is published."""
        if not self.expected.paths:
            return
        listed = self.machine.run("sh", "-c", "zolctl kpi list | tail -n 150").stdout
        for path in self.expected.paths:
            evid = path.rsplit("_", 1)[1]
            self._expect(f"evid={evid};" in listed, f"no KPI event for the published {path}")

    def _is_watching(self):
        """The stored policy is applied again: the rule that always holds makes an event of this boot, and a report.

        Where the key store starts more slowly than its clients wait, the path of an earlier boot is still published,
        which a collector takes, and the new one may be lost, which is a line.
        """
        def is_hit():
            listed = self.machine.run("sh", "-c", "zolctl kpi list | tail -n 150").stdout
            hits = re.findall(rf"evid=(\d+);key={load.STANDING_KEY};", listed)
            return any(int(evid) >= self.booted for evid in hits)

        def is_told():
            path = self._zolctl("vconf", "get", load.HANDOVER_KEY).stdout.strip()
            if path and int(path.rsplit("_", 1)[1]) < self.booted:
                self._zolctl("vconf", "set", load.HANDOVER_KEY, "", "--type", "string")
                self.notes.append(f"{path} of an earlier boot was still published")
                return False
            return path or any("no collector is told" in line for line in self._lines())
        try:
            wait_for(is_hit, "an event of this boot", 60)
            wait_for(is_told, "a report of this boot", 60)
        finally:
            if self.notes or not is_told():
                self.notes += self._lines()

    def _lines(self):
        """What the daemon said of the hand-over in this boot, and when its key store started."""
        lines = self.machine.run("journalctl", "-b", "-u", "zol", "-u", "zol-vconf", "-o", "short-monotonic",
                                 "--no-pager", check=False).stdout.splitlines()
        return [line[:160] for line in lines if re.search("vconf_|vconfkey|key store|no collector|kpiDesc", line)]
