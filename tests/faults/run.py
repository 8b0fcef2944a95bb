"""Plans and runs trials; see scripts/faults."""
import argparse
import collections
import concurrent.futures
import errno
import os
import pathlib
import random
import shutil
import signal
import sys
import time
import traceback

TOP = pathlib.Path(__file__).resolve().parents[2]
os.environ.setdefault("ZOL_BUILD_DIR", str(TOP / "build" / "release"))
os.environ.setdefault("ZOL_E2E_DEADLINE", "20")
sys.path[:0] = [str(TOP / "tests" / "e2e"), str(TOP / "tests" / "faults")]

from control import KILL, SHORT_WRITE, Fault, how_name  # noqa: E402
from kills import KILLED, KILLS  # noqa: E402
from roads import PROGRAMS, ROADS  # noqa: E402
from trial import Ended, Trial  # noqa: E402

FINDINGS = TOP / "build" / "faults"
# Calls that are the mocks own where a scenario has such: the mocked input device talks to its library.
LEFT_OUT = {"recording": {"socket", "connect", "send"}}
# How the calls of a kind break.
HOWS = {"open": (errno.EMFILE, errno.EIO), "create": (errno.ENOSPC, errno.EMFILE),
        "write": (errno.ENOSPC, errno.EIO, SHORT_WRITE), "log": (errno.ENOSPC,), "sync": (errno.EIO,),
        "rename": (errno.EIO,), "mkdir": (errno.ENOSPC,), "ftruncate": (errno.EIO,), "close": (errno.EIO,),
        "mmap": (errno.ENOMEM,), "thread": (errno.EAGAIN,), "socket": (errno.EMFILE,),
        "connect": (errno.ECONNREFUSED,), "accept": (errno.EMFILE,), "send": (errno.ENOBUFS,),
        "allocation": (errno.ENOMEM,)}
FIRST_CALLS = 500  # of each kind are all broken, of the rest a sample
SAMPLE = 100
# What --quick breaks of each kind.
QUICK_CALLS = 1
QUICK_CALLS_OF_MANY = 3
QUICK_MANY = 60


def drive(scenario, fault, usual_lines=frozenset()):
    """One trial; its result can be handed between processes."""
    programs = (KILLED[scenario],) if scenario in KILLS else PROGRAMS.get(scenario, ("zol_daemon", "zol_vconfd"))
    trial = Trial(fault, programs, usual_lines)
    try:
        run_trial(trial, (KILLS if scenario in KILLS else ROADS)[scenario])
        result = {"findings": trial.findings, "ended": trial.ended, "place": trial.control.place,
                  "broken": trial.control.is_broken, "counts": trial.control.counts(), "lines": trial.lines()}
        if trial.findings:
            keep(scenario, trial)
        return result
    finally:
        trial.close()


def run_trial(trial, scenario):
    """Drives it and checks what must hold afterwards; whatever goes wrong is a finding."""
    try:
        try:
            scenario(trial)
        except Ended:
            pass
        trial.check_rest()
    except Ended:
        pass
    except Exception:  # what a scenario did not foresee is a finding of this trial, not the end of the run
        trial.find(traceback.format_exc())


def keep(scenario, trial):
    """Leaves what was logged and found for whoever looks into it."""
    FINDINGS.mkdir(parents=True, exist_ok=True)
    name = f"{scenario}-{trial.fault}".replace(" ", "-")
    (FINDINGS / name).write_text("\n".join([
        *trial.findings, trial.control.place, "--- system", trial.machine.log("system"), "--- main",
        trial.machine.log("main"), "--- told", trial.told, "--- printed", *trial.outputs]))


def options_of(arguments):
    parser = argparse.ArgumentParser(prog="faults", add_help=False, usage="scripts/faults [options]; see --help")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--kills", action="store_true")
    parser.add_argument("--kind", action="append", choices=sorted(HOWS))
    parser.add_argument("--scenario", action="append", choices=[*ROADS, *KILLS])
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--nth", type=int)
    parser.add_argument("--most", type=int)
    parser.add_argument("--minutes", type=float, default=float("inf"))
    parser.add_argument("--jobs", type=int, default=2 * (os.cpu_count() or 1))
    return parser.parse_args(arguments)


def scenarios_of(options):
    """The roads, the kills or both, as far as they are wanted."""
    # A kill has no kind of call.
    every = list(KILLS) if options.kills else [*ROADS, *(() if options.kind else KILLS)]
    return [name for name in every if options.scenario is None or name in options.scenario]


def sample(count, options):
    """Which of so many calls are broken."""
    if options.nth:
        return [options.nth]
    if options.most:
        return spread(1, count, options.most)
    if options.quick:
        return spread(1, count, QUICK_CALLS if count < QUICK_MANY else QUICK_CALLS_OF_MANY)
    first = list(range(1, min(count, FIRST_CALLS) + 1))
    return first + spread(FIRST_CALLS + 1, count, SAMPLE)


def spread(begin, end, wanted):
    """At most so many numbers from begin to end, evenly."""
    count = end - begin + 1
    wanted = min(wanted, count)
    return [begin + (2 * i + 1) * count // (2 * wanted) for i in range(wanted)] if count > 0 else []


def faults_of(scenario, counts, options):
    """The faults of a scenario, of whose calls there are so many."""
    if scenario in KILLS:
        return [Fault("any", nth, KILL) for nth in sample(counts["any"], options)]
    wanted = set(options.kind or HOWS) - LEFT_OUT.get(scenario, set())
    return [Fault(kind, nth, how) for kind, hows in HOWS.items() if kind in wanted
            for how in hows for nth in sample(counts[kind], options)]


def count_calls(pool, scenarios):
    """What each scenario does unbroken: its counts and log lines. A finding there ends the run."""
    blanks = {(name, kind): pool.submit(drive, name, Fault(kind, 0, errno.EIO))
              for name in scenarios for kind in (("any",) if name in KILLS else ("open", "allocation"))}
    usual = {}
    for (name, _), future in blanks.items():
        result = future.result()
        if result["findings"]:
            raise CannotRun(f"scenario {name} fails without a fault: {result['findings']}")
        counts, lines = usual.setdefault(name, (collections.Counter(), set()))
        counts.update({kind: count for kind, count in result["counts"].items() if not counts[kind]})
        lines |= result["lines"]
    return usual


class CannotRun(Exception):
    """What is to be broken is not there."""


class Table:
    """Results by what breaks and scenario."""

    def __init__(self):
        self.cells = collections.defaultdict(collections.Counter)
        self.places = collections.Counter()

    def add(self, scenario, fault, result):
        """Counts a trial and prints what it found."""
        cell = self.cells[f"{fault.kind} {how_name(fault.how)}", scenario]
        if not result["broken"]:
            cell["not reached"] += 1
            if not result["findings"]:
                return
        cell["injected"] += result["broken"]
        cell["ended"] += bool(result["ended"])
        cell["findings"] += bool(result["findings"])
        for finding in result["findings"]:
            print(f"{scenario}: {fault} at {result['place']}: {finding}", flush=True)

    def total(self, what):
        return sum(cell[what] for cell in self.cells.values())

    def print(self, scenarios):
        """A row for each way to break a call: injected, and ended and found in brackets."""
        rows = sorted({row for row, _ in self.cells})
        print("| broken call | " + " | ".join(scenarios) + " |")
        print("|---|" + "---|" * len(scenarios))
        for row in rows:
            print(f"| {row} | " + " | ".join(self.text(self.cells.get((row, name))) for name in scenarios) + " |")

    @staticmethod
    def text(cell):
        if not cell:
            return ""
        more = [f"{cell[what]} {what}" for what in ("ended", "findings") if cell[what]]
        return str(cell["injected"]) + (f" ({', '.join(more)})" if more else "")


def plan(usual, options):
    """All trials, mixed in a fixed way: a run that ends before its time has tried something of everything."""
    trials = [(name, fault, frozenset(lines)) for name, (counts, lines) in usual.items()
              for fault in faults_of(name, counts, options)]
    random.Random(1).shuffle(trials)
    unbroken = set() if options.kills or options.kind or options.scenario else \
        set(HOWS) - {fault.kind for _, fault, _ in trials}
    if unbroken:
        raise CannotRun(f"no call of these kinds is made: {' '.join(sorted(unbroken))}")
    return trials


def run_all(pool, trials, options, table):
    """Runs the trials until the time is over; how many have not been run."""
    end = time.monotonic() + 60 * options.minutes
    waiting = collections.deque(trials)
    running = {}
    done = 0
    while running or (waiting and time.monotonic() < end):
        while waiting and len(running) < options.jobs and time.monotonic() < end:
            name, fault, lines = waiting.popleft()
            running[pool.submit(drive, name, fault, lines)] = (name, fault)
        finished, _ = concurrent.futures.wait(running, return_when=concurrent.futures.FIRST_COMPLETED)
        for future in finished:
            table.add(*running.pop(future), future.result())
            done += 1
            if done % 200 == 0:
                print(f"{done} of {len(trials)} trials", file=sys.stderr, flush=True)
    return len(waiting)


def main(arguments):
    """The exit status."""
    options = options_of(arguments)
    if options.list:
        print("\n".join(["scenarios: " + " ".join(ROADS), "kills: " + " ".join(KILLS), "kinds: " + " ".join(HOWS)]))
        return 0
    # The workers, too: a trial that is ended leaves nothing behind.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    start = time.monotonic()
    scenarios = scenarios_of(options)
    table = Table()
    shutil.rmtree(FINDINGS, ignore_errors=True)
    with concurrent.futures.ProcessPoolExecutor(options.jobs) as pool:
        try:
            trials = plan(count_calls(pool, scenarios), options)
        except CannotRun as reason:
            print(f"faults: {reason}", file=sys.stderr)
            return 2
        print(f"{len(trials)} trials of {len(scenarios)} scenarios, {options.jobs} at a time", flush=True)
        left = run_all(pool, trials, options, table)
    table.print(scenarios)
    findings = table.total("findings")
    if trials and not table.total("injected"):
        print("faults: not one call was broken", file=sys.stderr)
        return 2
    print(f"{table.total('injected')} broken calls, {table.total('ended')} ended the program in an allowed way, "
          f"{table.total('not reached')} not reached, {left} not tried, {findings} findings, "
          f"{time.monotonic() - start:.0f} s")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
