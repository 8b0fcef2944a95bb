"""Programs from start to end: zolctl status beside a running daemon, and simulated scenarios."""
import resource
import subprocess
import time

from device import BIN, document, new_machine, running
from results import percentile, row

GROUP = "tools"

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
SCENARIOS = {"a scenario of 1,000 steps, 22 simulated hours among them": TEN * 100, "a simulated day": ["pass: 1 d"]}


def timed(command, env, count):
    """Milliseconds of each run, and how many of them a processor was used, on average."""
    times = []
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    for _ in range(count):
        begin = time.monotonic()
        subprocess.run(command, env=env, stdout=subprocess.DEVNULL, check=True)
        times.append((time.monotonic() - begin) * 1000)
    now = resource.getrusage(resource.RUSAGE_CHILDREN)
    return times, (now.ru_utime + now.ru_stime - used.ru_utime - used.ru_stime) / count * 1000


def status(effort):
    with new_machine() as machine, running(machine, document(1)):
        times, processor = timed([BIN / "zolctl", "status"], machine.env, effort.rounds)
        _, nothing = timed([BIN / "zolctl", "--version"], machine.env, effort.rounds)
    return row(GROUP, "zolctl status, start to end", "ms", times, p99=percentile(times, 0.99),
               note=f"{processor:.1f} ms of processor, zolctl --version {nothing:.1f} ms")


def scenario(machine, what, steps, effort):
    file = machine.folder / "scenario.yaml"
    file.write_text(f"name: measured\npolicy: |\n{POLICY}steps:\n" + "".join(f"  - {step}\n" for step in steps))
    times, _ = timed([BIN / "zolctl", "policy", "test", file], machine.env, effort.starts)
    return row(GROUP, f"zolctl policy test, start to end, {what}", "ms", times)


def tools(effort):
    with new_machine() as machine:
        return [status(effort), *(scenario(machine, what, steps, effort) for what, steps in SCENARIOS.items())]
