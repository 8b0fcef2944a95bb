"""Counts the instructions of the hot paths under callgrind and compares them with a file of expected ones, or writes
that file anew. scripts/instructions runs it."""
import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile

EXIT_BEYOND = 1
EXIT_CANNOT = 2
TOLERANCE = 0.03

# Program: options of callgrind. Of the rules only the callback counts, and not the store that calls it.
PROGRAMS = {
    "count_runtime": [],
    "count_rules": ["--toggle-collect=zol::TCVconfChecker::m_KeyChangedCb*"],
}

HEAD = f"""# Instructions of one passage of each hot path: release build, Debian 12, x86_64. scripts/instructions compares, and
# fails beyond {TOLERANCE:.0%} to either side; "scripts/instructions --update" writes this file anew.
"""


def counts_of(program, options):
    """Instructions of one passage of each path that a program counts."""
    with tempfile.TemporaryDirectory(prefix="zol-count-") as folder:
        root = pathlib.Path(folder, "root")
        (root / "var/log/zol").mkdir(parents=True)
        # What the processor offers decides which of the C library's functions run.
        env = dict(os.environ, ZOL_ROOT=str(root), GLIBC_TUNABLES="glibc.cpu.hwcaps=-AVX,-AVX2,-ERMS,-FSRM,-BMI2")
        command = ["valgrind", "--tool=callgrind", "--instr-atstart=no", "--fair-sched=yes",
                   f"--callgrind-out-file={folder}/counts", *options, program]
        ended = subprocess.run(command, env=env, capture_output=True, text=True, check=False)
        if ended.returncode != 0:
            print(f"instructions: {program} failed under valgrind: {ended.stderr}", file=sys.stderr)
            sys.exit(EXIT_CANNOT)
        return dict(one for file in sorted(pathlib.Path(folder).glob("counts.*"), key=number_of)
                    for one in read_dump(file.read_text()))


def number_of(file):
    return int(file.suffix[1:])


def read_dump(text):
    """Name and count of a dump that a program asked for."""
    named = re.search(r"^desc: Trigger: Client Request: (.*)/(\d+)$", text, re.MULTILINE)
    if named:
        total = int(re.search(r"^totals: (\d+)$", text, re.MULTILINE)[1])
        yield named[1], round(total / int(named[2]))


def read_expected(file):
    lines = [line for line in file.read_text().splitlines() if line and not line.startswith("#")]
    return {path: int(count) for count, path in (line.split(None, 1) for line in lines)}


def verdict(path, got, expected):
    """What is wrong with a count, in a sentence; None when nothing is."""
    if expected is None:
        return f"{path}: no count is expected, got {got}"
    if got is None:
        return f"{path}: expected {expected}, and no program counts it any more"
    change = got / expected - 1
    if abs(change) > TOLERANCE:
        return f"{path}: expected {expected}, got {got} ({change:+.1%})"
    return None


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("programs", type=pathlib.Path, help="folder of the programs that count")
    parser.add_argument("expected", type=pathlib.Path, help="file of expected counts")
    parser.add_argument("--update", action="store_true", help="write the file anew")
    options = parser.parse_args()
    got = {}
    for program, words in PROGRAMS.items():
        got.update(counts_of(options.programs / program, words))
    if options.update:
        options.expected.write_text(HEAD + "".join(f"{count:>9}  {path}\n" for path, count in got.items()))
        print(f"instructions: {len(got)} counts written to {options.expected}")
        return 0
    expected = read_expected(options.expected)
    for path, count in got.items():
        print(f"{count:>9}  {path}, {expected.get(path, 'nothing')} expected")
    paths = list(dict.fromkeys([*expected, *got]))
    wrong = [fault for path in paths if (fault := verdict(path, got.get(path), expected.get(path)))]
    for fault in wrong:
        print(f"instructions: {fault}. Find what the change adds or saves; when it is meant, run "
              "scripts/instructions --update and commit the file with it", file=sys.stderr)
    return EXIT_BEYOND if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
