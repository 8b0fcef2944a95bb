"""Runs the trials and prints what they found; scripts/vm is the way in."""
import argparse
import pathlib
import sys
import time
import traceback

import cuts
import image
import scenarios
from machine import Machine

CUTS = 20


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/vm", add_help=False)
    parser.add_argument("--cuts", type=int)
    parser.add_argument("--scenario", action="append", choices=[*scenarios.SCENARIOS, "all"])
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rebuild", action="store_true")
    parser.add_argument("--without-sync", action="store_true")
    return parser.parse_args()


def try_cuts(files, options):
    """@return rows of the table"""
    machine = Machine(*files)
    try:
        trial = cuts.Cuts(machine, image.started(), options.seed, options.without_sync)
        trial.run(options.cuts)
        sound = trial.file_system_is_sound()
    finally:
        machine.close()
    rows = [(f"cut, kept {kept}", row["cuts"], row["acknowledged"], row["unflushed"], row["findings"])
            for kept, row in trial.rows.items()]
    return [*rows, ("file system in the end", 1, "-", "-", int(not sound))]


def try_scenario(files, name):
    began = time.monotonic()
    machine = Machine(*files)
    try:
        machine.boot()
        machine.wait_until_serving()
        scenarios.SCENARIOS[name](machine)
        finding = None
    except Exception:  # pylint: disable=broad-except
        finding = traceback.format_exc()
    finally:
        machine.close()
    print(f"scenario {name}, {time.monotonic() - began:.0f} s: {finding or 'as it should be'}", file=sys.stderr, flush=True)
    return [(f"scenario {name}", 1, "-", "-", int(finding is not None))]


def main():
    options = arguments()
    if options.cuts is None and options.scenario is None:
        options.cuts, options.scenario = CUTS, ["all"]
    names = options.scenario or []
    names = list(scenarios.SCENARIOS) if "all" in names else names
    try:
        files = image.prepare(options.rebuild)
    except (RuntimeError, OSError) as error:
        print(f"vm: the machine cannot be made: {error}", file=sys.stderr)
        return 2
    rows = try_cuts(files, options) if options.cuts else []
    for name in names:
        rows += try_scenario(files, name)
    for row in [("trial", "runs", "steps", "unflushed", "findings"), *rows]:
        print("%-24s %6s %7s %10s %9s" % row)
    return 1 if any(row[-1] for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
