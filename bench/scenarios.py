"""How long zolctl policy test takes: a scenario of a thousand steps, and a day that passes. Prints one line each."""
import argparse
import os
import pathlib
import statistics
import subprocess
import tempfile
import time

BUILD = pathlib.Path(os.environ.get("ZOL_BUILD_DIR", pathlib.Path(__file__).resolve().parents[1] / "build/release"))

POLICY = """  <zolitem numofzol="4">
    <zol_expired_time time="2592000"/>
    <zols key="db/menu/level" condition="IS" type="INT" intvalue="3"/>
    <zols key="db/menu/mode" condition="IS" type="STRING" strvalue="shop"/>
    <monitor kind="3" name="remote" method="31" duration="10" repetition="3" reserve1="1"/>
    <monitor kind="1" id="org.kaldo.example" name="Example" method="11" duration="60" repetition="2"/>
  </zolitem>
"""
# Ten steps of all kinds: keys, hits with their reports, events, time.
TEN = ["set: {db/menu/level: 3}", "expect: db/menu/level", "pass: 30 s", "install: org.kaldo.example", "pass: 2 min",
       "set: {db/menu/level: 1}", "install: org.kaldo.example", "expect: org.kaldo.example", "connect", "pass: 11 min"]


def scenario(steps):
    return f"name: measured\npolicy: |\n{POLICY}steps:\n" + "".join(f"  - {step}\n" for step in steps)


def seconds(file):
    """The whole program, its start included."""
    begin = time.monotonic()
    subprocess.run([BUILD / "bin" / "zolctl", "policy", "test", file], check=True, stdout=subprocess.DEVNULL)
    return time.monotonic() - begin


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=20, help="runs of each")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="zol-") as folder:
        for what, steps in (("1,000 steps", TEN * 100), ("a day that passes", ["pass: 1 d"])):
            file = pathlib.Path(folder) / "scenario.yaml"
            file.write_text(scenario(steps), encoding="utf-8")
            times = [seconds(file) for _ in range(options.rounds)]
            print(f"zolctl policy test, {what}: median {statistics.median(times):.2f} s, max {max(times):.2f} s")


if __name__ == "__main__":
    main()
