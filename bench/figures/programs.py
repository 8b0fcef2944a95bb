"""Runs the benchmark programs of the build and reads what they print."""
import contextlib
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import tempfile

from device import BIN

NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
SETUP = "missing: scripts/setup --bench installs it"


class Missing(Exception):
    """The build has no such program: an older one, or a part of it that does not compile."""


def program(name):
    path = BIN / name
    if not path.exists():
        raise Missing(f"this build has no {name}")
    return path


@contextlib.contextmanager
def root():
    """The environment of a program on a throw-away root; short, because a socket lies in it."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-bench-", dir="/tmp"))
    try:
        for name in ("var/log", "var/lib", "run", "tmp", "etc", "usr/bin"):
            (folder / name).mkdir(parents=True)
        yield dict(os.environ, ZOL_ROOT=str(folder), XDG_CONFIG_HOME=str(folder / "config"),
                   XDG_RUNTIME_DIR=str(folder / "run"))
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def google(name, effort, wrapper=()):
    """Nanoseconds of each benchmark of a program, one for each repetition; those that cannot run are left out."""
    with root() as env:
        out = pathlib.Path(env["ZOL_ROOT"], "out.json")
        subprocess.run([*wrapper, program(name), f"--benchmark_repetitions={effort.repetitions}",
                        f"--benchmark_min_time={effort.seconds / effort.repetitions}",
                        "--benchmark_enable_random_interleaving=true", f"--benchmark_out={out}",
                        "--benchmark_out_format=json"], env=env, check=True, capture_output=True)
        runs = json.loads(out.read_text())["benchmarks"]
    samples = {}
    for run in runs:
        if run["run_type"] == "iteration" and not run.get("error_occurred"):
            is_real = run["run_name"].endswith("/real_time")
            taken = run["real_time" if is_real else "cpu_time"] * NANOSECONDS[run["time_unit"]]
            samples.setdefault(run["run_name"].removesuffix("/real_time"), []).append(taken)
    return samples


def sampled(name, effort, *arguments):
    """Medians and 99th percentiles, microseconds, of each case that a program prints; one for each repetition."""
    cases = {}
    for _ in range(effort.repetitions):
        with root() as env:
            ended = subprocess.run([program(name), *map(str, arguments)], env=env, check=True, capture_output=True,
                                   text=True)
        for line in ended.stdout.splitlines():
            case, median, p99 = line.split("\t")
            medians, others = cases.setdefault(case, ([], []))
            medians.append(float(median))
            others.append(float(p99))
    return cases


def p99_of(case):
    return statistics.median(case[1])
