"""Figures of the running daemon: key set in another process to path published, zolctl status, start to first answer,
idle CPU and resident memory. Prints one line each."""
import argparse
import os
import pathlib
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))
from conftest import BIN, HANDOVER_KEY, Machine, int_rule, policy, wait_for  # noqa: E402

KEY = "db/bench/watched"


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


class Watch:
    """zolctl vconf watch on the hand-over key; its lines are read as they come."""

    def __init__(self, machine):
        self.process = machine.start(BIN / "zolctl", "vconf", "watch", HANDOVER_KEY, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True, bufsize=1)
        self.process.stderr.readline()

    def next_path(self):
        while True:
            value = self.process.stdout.readline().rstrip("\n").split("\t")[2]
            if value:
                return value


def key_to_path(machine, items, rounds):
    """Milliseconds from the start of the setting process to the path seen by a watching process."""
    filler = [int_rule(f"db/bench/filler{i}", "IS", 3) for i in range(items - 1)]
    daemon = machine.start_daemon()
    assert machine.push(policy(*filler, int_rule(KEY, "IS", 7))).returncode == 0
    watch = Watch(machine)
    times = []
    for _ in range(rounds):
        machine.set(KEY, "1", "int")
        before = time.monotonic()
        machine.set(KEY, "7", "int")
        watch.next_path()
        times.append((time.monotonic() - before) * 1000)
        machine.set(HANDOVER_KEY, "", "string")
    daemon.stop()
    return times


def status(machine, rounds):
    """Milliseconds of a whole zolctl status, its start included, beside a daemon that watches a rule; and how many of
    them it has a processor, on average."""
    daemon = machine.start_daemon()
    assert machine.push(policy(int_rule(KEY, "IS", 7))).returncode == 0
    times = []
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    for _ in range(rounds):
        before = time.monotonic()
        subprocess.run([BIN / "zolctl", "status"], env=machine.env, stdout=subprocess.DEVNULL, check=True)
        times.append((time.monotonic() - before) * 1000)
    now = resource.getrusage(resource.RUSAGE_CHILDREN)
    daemon.stop()
    return times, (now.ru_utime + now.ru_stime - used.ru_utime - used.ru_stime) / rounds * 1000


def start_to_answer(machine, rounds):
    """Milliseconds from starting the process to the first SetPolicy that it answers."""
    document = policy()
    times = []
    for _ in range(rounds):
        before = time.monotonic()
        daemon = machine.start_daemon(wait=False)
        wait_for(lambda: machine.push(document, "--force").returncode == 0)
        times.append((time.monotonic() - before) * 1000)
        daemon.stop()
    return times


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def idle(machine, seconds):
    """Share of one core, and resident MiB, with every task up."""
    machine.path("/etc/debug").write_text("")
    daemon = machine.start_daemon()
    items = [int_rule(KEY, "IS", 7), '<monitor kind="3" name="remote" method="31" duration="10" repetition="5"/>',
             '<monitor kind="1" id="org.kaldo.example" name="x" method="11" duration="60" repetition="3"/>']
    assert machine.push(policy(*items)).returncode == 0
    pid = daemon.process.pid
    before = cpu_seconds(pid)
    time.sleep(seconds)
    share = (cpu_seconds(pid) - before) / seconds * 100
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    resident = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmRSS"))
    threads = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("Threads"))
    daemon.stop()
    return share, resident / 1024, threads


def with_machine(measure, *arguments):
    folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-", dir="/tmp"))
    machine = Machine(folder)
    try:
        return measure(machine, *arguments)
    finally:
        machine.close()
        shutil.rmtree(folder, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--idle", type=int, default=60, help="idle seconds")
    parser.add_argument("--rounds", type=int, default=300, help="rounds of each latency")
    options = parser.parse_args()
    for items in (1, 10000):
        times = with_machine(key_to_path, items, options.rounds)
        print(f"key set to path published, policy of {items:5} items: median {statistics.median(times):.1f} ms, "
              f"p99 {percentile(times, 0.99):.1f} ms (the setting process's own start included)")
    times, processor = with_machine(status, options.rounds)
    print(f"zolctl status, start to end: median {statistics.median(times):.1f} ms, "
          f"p99 {percentile(times, 0.99):.1f} ms, {processor:.1f} ms of processor")
    times = with_machine(start_to_answer, max(5, options.rounds // 10))
    print(f"start to first SetPolicy answered: median {statistics.median(times):.0f} ms, max {max(times):.0f} ms "
          f"(the asking process's own starts included)")
    share, resident, threads = with_machine(idle, options.idle)
    print(f"idle for {options.idle} s with all tasks up: {share:.2f} % of one core, {resident:.1f} MiB resident, "
          f"{threads} threads")


if __name__ == "__main__":
    main()
