"""Runs the daemon under load and keeps a ledger of every hit: see scripts/soak --help."""
import argparse
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import time

import dbus

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from conftest import BIN  # noqa: E402
from load import Load  # noqa: E402

SOUND, FINDING, CANNOT_RUN = 0, 1, 2
# Beyond what a process took at rest after its first rounds: a share of that, and KiB.
MEMORY_SHARE, MEMORY_SLACK = 0.1, 1024
WARM_UP = 3  # rounds with as many sets of tasks


def percentile(ordered, share):
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))] if ordered else 0


def memory_findings(appetites):
    """Processes that took more memory at the end of their lives than after their first rounds."""
    for (program, _, sets), taken in appetites.items():
        if len(taken) <= 2 * WARM_UP:
            continue  # too short a life to tell growth from warming up
        for what in ("rss", "pss"):
            warm = max(getattr(appetite, what) for appetite in taken[:WARM_UP])
            last = min(getattr(appetite, what) for appetite in taken[-WARM_UP:])
            if last > warm * (1 + MEMORY_SHARE) + MEMORY_SLACK:
                sizes = f" with {sets} sets of tasks" if sets else ""
                yield f"{program}{sizes} grew from {warm} to {last} KiB {what.upper()} in {len(taken)} rounds"


def appetite_rows(appetites):
    """The longest life of each program, and the most that any life took."""
    for program in ("zol_daemon", "zol_vconfd"):
        lives = [taken for key, taken in appetites.items() if key[0] == program]
        if not lives:
            continue
        yield f"{program}: processes compared", len(lives)
        longest = max(lives, key=len)
        yield f"{program}: rounds of the longest comparison", len(longest)
        for field in ("descriptors", "threads", "rss", "pss"):
            unit = " KiB" if field in ("rss", "pss") else ""
            first, last = (getattr(longest[place], field) for place in (min(WARM_UP, len(longest)) - 1, -1))
            yield f"{program}: {field}{unit} when warm, at the end, most of any", \
                f"{first} {last} {max(getattr(taken, field) for life in lives for taken in life)}"


def table(load, seed, seconds):
    yield "seed", seed
    yield "seconds", round(seconds)
    yield "rounds", load.number
    yield from sorted(load.totals.items())
    yield "log gaps", load.tail.gaps
    yield from appetite_rows(load.appetites)
    answers = sorted(load.probe.answers)
    yield "answers of the main thread", len(answers)
    for name, share in (("median", 0.5), ("99 %", 0.99), ("most", 1)):
        yield f"answer time ms, {name}", percentile(answers, share)
    yield "answers that took longer than 10 s", load.probe.silences
    yield "findings", len(load.findings)


def run(load, minutes):
    """Rounds until the time is over, or something that must come does not; how many seconds that took."""
    begin = time.monotonic()
    load.begin()
    try:
        run_rounds(load, begin, begin + minutes * 60)
        load.end()
    except (AssertionError, OSError, dbus.DBusException) as error:
        # A program under load that is gone, or a result that does not come.
        load.find(f"{type(error).__name__}: {error}")
    load.findings += memory_findings(load.appetites)
    if load.probe.silences:
        load.findings.append(f"{load.probe.silences} times the main thread did not answer within 10 s")
    return time.monotonic() - begin


def run_rounds(load, begin, end):
    while time.monotonic() < end:
        before = len(load.findings)
        done = load.round()
        print(f"round {load.number}, {time.monotonic() - begin:.0f} s: {done}; {load.totals['hits']} hits, "
              f"{load.totals['events']} events", file=sys.stderr, flush=True)
        for finding in load.findings[before:]:
            print(finding, file=sys.stderr, flush=True)


def missing():
    """What there must be before anything can run; none is none."""
    for program in ("zol_daemon", "zol_daemon_steered", "zol_vconfd", "zolctl", "load_client"):
        if not (BIN / program).exists():
            return f"{BIN / program} is missing: build it first"
    for tool in ("dbus-daemon", "gdbus"):
        if not shutil.which(tool):
            return f"{tool} is missing: run scripts/setup first"
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("minutes", type=float)
    parser.add_argument("--seed", type=int, default=random.randrange(10**6))
    options = parser.parse_args()
    if why := missing():
        print(f"soak: {why}", file=sys.stderr)
        return CANNOT_RUN
    folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-", dir="/tmp"))
    load = Load(folder, random.Random(options.seed))
    try:
        seconds = run(load, options.minutes)
    except (OSError, subprocess.SubprocessError) as error:
        print(f"soak: {error}", file=sys.stderr)
        return CANNOT_RUN
    finally:
        load.close()
    for name, value in table(load, options.seed, seconds):
        print(f"{name}\t{value}")
    for finding in load.findings:
        print(f"finding\t{finding}")
    if load.findings:
        print(f"soak: found something; its device is kept in {folder}", file=sys.stderr)
        return FINDING
    shutil.rmtree(folder, ignore_errors=True)
    return SOUND


if __name__ == "__main__":
    sys.exit(main())
