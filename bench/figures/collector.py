"""The collector: what it costs while nothing is to be done, and how long it holds a published path."""
import subprocess
import time

from device import BIN, HANDOVER_KEY, new_machine, wait_for
from idle import SETTLED, memory, passing, rows_of
from results import percentile, row
# The end-to-end tests' own.
from collecting import Collector
from reports import make_report, publish

GROUP = "collector"


def idle(seconds):
    with new_machine() as machine:
        collector = Collector(machine, "--upload", "http://127.0.0.1:9/").started()
        time.sleep(SETTLED)  # the look at what was left lying is over
        pid = collector.process.pid
        did = passing([pid], seconds)[pid]
        return rows_of(GROUP, "collector with an upload address", seconds, did, memory(pid))


def published_to_taken(machine, rounds):
    """Milliseconds from a published path to the empty key, as one that watches sees them."""
    Collector(machine).started()
    watch = machine.start(BIN / "zolctl", "vconf", "watch", HANDOVER_KEY, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, bufsize=1)
    watch.stderr.readline()
    times = []
    for number in range(rounds):
        publish(machine, make_report(machine, f"t_{number}", age=0))
        begin = None
        while value := watch.stdout.readline().rstrip("\n").split("\t")[2]:
            begin = time.monotonic()
        # Both changes may arrive as one.
        if begin is not None:
            times.append((time.monotonic() - begin) * 1000)
        wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")
    return times


def collector(effort):
    with new_machine() as machine:
        times = published_to_taken(machine, effort.rounds)
    return [*idle(effort.idle), row(GROUP, "path published to report on the disk and key empty", "ms", times,
                                    p99=percentile(times, 0.99))]
