"""Reports as tests of their collectors need them."""
import json
import os
import time

from conftest import HANDOVER_KEY, int_rule, policy, wait_for

KEYS = [f"db/menu/report/{number}" for number in range(4)]
OLD = 60  # seconds after which nothing more comes into a report


def make_report(machine, name, age=OLD, files=()):
    """A report as the daemon leaves it; its path on the device."""
    folder = machine.path(f"/tmp/zol/{name}")
    folder.mkdir(parents=True)
    header = {"category": "ZOL", "evid": name.rpartition("_")[2], "id": "HW-1", "lcid": "42", "tgid": "t"}
    (folder / "header.json").write_text(json.dumps(header))
    for file, content in dict(files).items():
        (folder / file).parent.mkdir(parents=True, exist_ok=True)
        (folder / file).write_bytes(content)
    moment = time.time() - age
    os.utime(folder, (moment, moment))
    return f"/tmp/zol/{name}"


def watch_keys(machine):
    """Has the daemon report each of KEYS that becomes 3."""
    assert machine.push(policy(*(int_rule(key, "IS", 3) for key in KEYS))).returncode == 0


def hit(machine, number):
    """One hit of the watched keys, and its report; the report's path on the device."""
    before = set(folders(machine))
    machine.set(KEYS[number], "3", "int")
    return "/tmp/zol/" + wait_for(lambda: set(folders(machine)) - before, "a report").pop()


def folders(machine):
    """Names of the reports whose header is in place."""
    root = machine.path("/tmp/zol")
    return [entry.name for entry in root.iterdir() if (entry / "header.json").exists()] if root.exists() else []


def publish(machine, path):
    machine.set(HANDOVER_KEY, path, "string")


def another_second():
    """Reports of one second share a folder."""
    now = int(time.time())
    wait_for(lambda: int(time.time()) != now, "the next second")
