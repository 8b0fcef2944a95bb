"""Measures, and prints one table: median, spread and 99th percentile of each row, and its peers in the same run.
scripts/bench runs it."""
import argparse
import pathlib
import queue
import subprocess
import sys
import traceback

import calls
import changes
import collector
import costs
import effort
import idle
import keys
import policies
import programs
import results
import runtime
import start
import surroundings
import tools

GROUPS = {
    "log": runtime.log, "events": runtime.events, "timers": runtime.timers, "containers": runtime.containers,
    "trace": runtime.trace, "keys": keys.keys, "policy": policies.policies, "calls": calls.calls,
    "changes": changes.changes, "costs": costs.costs, "start": start.start, "idle": idle.idle,
    "memory": idle.policies_in_memory, "collector": collector.collector, "tools": tools.tools,
}
PAGE_BEGIN, PAGE_END = "<!-- figures: scripts/bench --page writes them -->", "<!-- end of the figures -->"


def tell(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def measure(names, how):
    """Rows of these groups, and how many groups failed. One that cannot be measured does not end the others."""
    rows, failed = [], 0
    for name in names:
        tell(name)
        try:
            of_group = GROUPS[name](how)
        except programs.Missing as missing:
            tell(f"{name}: left out, {missing}")
            continue
        except (AssertionError, OSError, subprocess.SubprocessError, queue.Empty) as failure:
            traceback.print_exc()
            tell(f"{name}: cannot be measured: {failure!r}")
            failed += 1
            continue
        rows += of_group
        print("\n".join(results.table(of_group)) + "\n", flush=True)
    return rows, failed


def write_page(file, rows, machine):
    """Puts the figures in the place of those that a page shows."""
    before, rest = file.read_text(encoding="utf-8").split(PAGE_BEGIN)
    after = rest.split(PAGE_END)[1]
    told = ", ".join(f"{name} {value}" for name, value in machine.items())
    lines = [PAGE_BEGIN, "", f"Machine: {told}.", *results.page(rows), PAGE_END]
    file.write_text(before + "\n".join(lines) + after, encoding="utf-8")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("groups", nargs="*", metavar="GROUP", help=f"of {', '.join(GROUPS)}; none: all")
    parser.add_argument("--quick", action="store_true", help="fewer rounds")
    parser.add_argument("--json", type=pathlib.Path, help="file to write")
    parser.add_argument("--page", type=pathlib.Path, help="page whose figures are replaced")
    options = parser.parse_args()
    unknown = [name for name in options.groups if name not in GROUPS]
    if unknown:
        parser.error(f"no group '{unknown[0]}'; there are {', '.join(GROUPS)}")
    machine = surroundings.describe()
    warning = surroundings.warning(machine)
    print(", ".join(f"{name}: {value}" for name, value in machine.items()) + "\n", flush=True)
    if warning:
        tell(warning)
    rows, failed = measure(options.groups or GROUPS, effort.QUICK if options.quick else effort.Effort())
    if options.json:
        results.write_json(options.json, rows, machine)
    if options.page:
        write_page(options.page, rows, machine)
    if warning:
        tell(warning)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
