"""Runs the trials and prints what they found; scripts/vm is the way in."""
import argparse
import sys
import time
import traceback

import cuts
import image
import moments
import scenarios
from machine import Machine, PowerIsOff

CUTS, MOMENTS = 5, 50


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/vm", add_help=False)
    parser.add_argument("--cuts", type=int, default=0)
    parser.add_argument("--moments", type=int, default=0)
    parser.add_argument("--scenario", action="append", default=[], choices=[*scenarios.SCENARIOS, "all"])
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rebuild", action="store_true")
    parser.add_argument("--without-sync", action="store_true")
    options = parser.parse_args()
    if not (options.cuts or options.moments or options.scenario):
        options.cuts, options.moments, options.scenario = CUTS, MOMENTS, ["all"]
    if "all" in options.scenario:
        options.scenario = list(scenarios.SCENARIOS)
    return options


def try_cuts(files, options):
    """@return rows of the table"""
    machine = Machine(*files)
    sound = False
    try:
        trial = cuts.Cuts(machine, image.started(), options.seed, options.without_sync)
        try:
            trial.run(options.cuts)
            sound = trial.file_system_is_sound()
        except (AssertionError, RuntimeError, TimeoutError, PowerIsOff):
            # A machine that does not come back: what was found until then stays in the table.
            print(traceback.format_exc(), file=sys.stderr, flush=True)
    finally:
        machine.close()
    return [*trial.tally.rows("cut"), ("file system in the end", 1, "-", "-", int(not sound))]


def try_moments(files, options):
    machine = Machine(*files)
    try:
        cuts.boot_with_load(machine, image.started(), options.without_sync)
        trial = moments.Moments(machine, options.seed)
        trial.run(options.moments)
    finally:
        machine.close()
    return trial.tally.rows("moment")


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
    print(f"scenario {name}, {time.monotonic() - began:.0f} s: {finding or 'as it should be'}", file=sys.stderr,
          flush=True)
    return [(f"scenario {name}", 1, "-", "-", int(finding is not None))]


def main():
    options = arguments()
    try:
        files = image.prepare(options.rebuild)
    except (RuntimeError, OSError) as error:
        print(f"vm: the machine cannot be made: {error}", file=sys.stderr)
        return 2
    rows = try_cuts(files, options) if options.cuts else []
    rows += try_moments(files, options) if options.moments else []
    for name in options.scenario:
        rows += try_scenario(files, name)
    for row in [("trial", "runs", "steps", "unflushed", "findings"), *rows]:
        print("%-24s %6s %7s %10s %9s" % row)
    return 1 if any(row[-1] for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
