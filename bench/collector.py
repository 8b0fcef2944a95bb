"""Figures of the collector: wake-ups and resident memory while nothing is to be done, and how long after a path was
published the key is empty again. Prints one line each."""
import argparse
import pathlib
import statistics
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))
from collecting import Collector, wakeups  # noqa: E402
from conftest import BIN, HANDOVER_KEY, wait_for  # noqa: E402
from daemon import percentile, with_machine  # noqa: E402
from reports import make_report, publish  # noqa: E402


def idle(machine, seconds):
    """Wake-ups, and resident KiB: all, and its own alone."""
    collector = Collector(machine, "--upload", "http://127.0.0.1:9/").started()
    time.sleep(5)  # the look at what was left lying is over
    pid = collector.process.pid
    count = wakeups(pid, seconds)
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    resident = {line.split(":")[0]: int(line.split()[1]) for line in status.splitlines() if line.startswith(
        ("VmRSS", "RssAnon"))}
    return count, resident["VmRSS"], resident["RssAnon"]


def published_to_taken(machine, rounds):
    """Milliseconds from a published path to the empty key, as one that watches sees them."""
    Collector(machine).started()
    watch = machine.start(BIN / "zolctl", "vconf", "watch", HANDOVER_KEY, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, bufsize=1)
    watch.stderr.readline()
    times = []
    for number in range(rounds):
        path = make_report(machine, f"t_{number}", age=0)
        publish(machine, path)
        begin = None
        while True:
            value = watch.stdout.readline().rstrip("\n").split("\t")[2]
            if value:
                begin = time.monotonic()
            else:
                break
        # Both changes may arrive as one.
        if begin is not None:
            times.append((time.monotonic() - begin) * 1000)
        wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")
    return times


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--idle", type=int, default=60, help="idle seconds")
    parser.add_argument("--rounds", type=int, default=100, help="reports")
    options = parser.parse_args()
    count, resident, own = with_machine(idle, options.idle)
    print(f"collector idle for {options.idle} s: {count} wake-ups, {resident / 1024:.1f} MiB resident, "
          f"{own / 1024:.1f} MiB of them its own")
    times = with_machine(published_to_taken, options.rounds)
    print(f"path published to report on the disk and key empty: median {statistics.median(times):.1f} ms, "
          f"p99 {percentile(times, 0.99):.1f} ms")


if __name__ == "__main__":
    main()
