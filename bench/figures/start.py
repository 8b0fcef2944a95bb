"""The start of the daemon: from exec to main, to the key store, to the policy applied, to the name on the bus."""
import subprocess
import time

import programs
from device import BIN, document, new_machine, running
from results import row

GROUP = "start"
ITEMS = (10, 10000)

MOMENTS = {"main": "main", "store": "the key service connected", "running": "the policy applied",
           "owned": "the name owned"}


def one_start(machine, client):
    """Milliseconds from before the fork to each moment."""
    notes = machine.folder / "timeline"
    notes.write_text("")
    client.forget_moments()
    machine.env["LD_PRELOAD"] = str(BIN / "bench_timeline.so")
    machine.env["ZOL_BENCH_TIMELINE"] = str(notes)
    begin = time.monotonic()
    daemon = machine.start_daemon(wait=False)
    for name in ("LD_PRELOAD", "ZOL_BENCH_TIMELINE"):
        machine.env.pop(name)
    moments = client.await_moments("running", "owned")
    moments.update((name, int(when) / 1e9) for name, when in map(str.split, notes.read_text().splitlines()))
    daemon.stop()
    return {name: (when - begin) * 1000 for name, when in moments.items()}


def starts(items, count):
    """On a device with a stored policy; its key service, which a client uses, runs already."""
    programs.program("bench_timeline.so")
    with new_machine() as machine:
        with running(machine, document(items)) as (daemon, client):
            daemon.stop()
            return [one_start(machine, client) for _ in range(count)]


def true(count):
    """Milliseconds of the start and end of a program that does nothing."""
    times = []
    for _ in range(count):
        begin = time.monotonic()
        subprocess.run(["/bin/true"], check=True)
        times.append((time.monotonic() - begin) * 1000)
    return times


def start(effort):
    nothing = true(effort.starts)
    rows = []
    for items in ITEMS:
        found = starts(items, effort.starts)
        rows += [row(GROUP, f"exec to {what}, stored policy of {items:,} items", "ms", [one[name] for one in found],
                     peers=[("/bin/true, start to end", nothing)]) for name, what in MOMENTS.items()]
    return rows
