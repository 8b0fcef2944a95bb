"""What zolctl shows on a terminal while something takes long."""
import os
import re
import subprocess

import pytest

from conftest import BIN, EMULATOR, int_rule, policy
from reports import make_report
from terminal import on_terminal

CLEAR = "\r\x1b[K"
GOOD = policy(int_rule("db/menu/level", "IS", 3))
SCENARIO = "name: {}\npolicy: policy.xml\nsteps:\n  - restart\n"
TEST = ["zol_policy_test"] if EMULATOR else ["zolctl", "policy", "test"]


@pytest.fixture(name="files")
def write_files(machine):
    (machine.folder / "policy.xml").write_text(GOOD)
    for name in ("one", "two"):
        (machine.folder / f"{name}.yaml").write_text(SCENARIO.format(name))
    return machine.folder


def bars(text):
    """Of what is shown: how far it was, each time; what stays."""
    drawn = re.findall(r"\r\x1b\[K(\[[#.]{20}\] \d+ of \d+ [a-z ]+)", text)
    return drawn, re.sub(r"\r\x1b\[K\[[#.]{20}\] \d+ of \d+ [a-z ]+(?=\r\x1b\[K)|\r\x1b\[K", "", text)


def test_scenarios_that_are_left_are_told_and_nothing_of_it_stays(machine, files):
    played, left = bars(on_terminal(machine, BIN / TEST[0], *TEST[1:], files / "one.yaml", files / "two.yaml"))
    assert played == ["[....................] 0 of 2 scenarios", "[##########..........] 1 of 2 scenarios"]
    assert [line[:6] for line in left.splitlines()] == ["ok    ", "ok    ", "2 scen"]


def test_a_run_of_one_file_and_a_run_without_a_terminal_show_nothing(machine, files):
    assert bars(on_terminal(machine, BIN / TEST[0], *TEST[1:], files / "one.yaml"))[0] == []
    piped = subprocess.run([BIN / TEST[0], *TEST[1:], files / "one.yaml", files / "two.yaml"], env=machine.env,
                           capture_output=True, text=True, timeout=60, check=True)
    assert piped.stderr == "" and "\x1b" not in piped.stdout
    make_report(machine, "t_1")
    (files / "target").mkdir()
    assert machine.zolctl("report", "collect", files / "target", "--wait", "0", check=0).stderr == ""


def test_reports_are_collected_with_a_word_of_what_is_waited_for(machine, files):
    for number in range(3):
        make_report(machine, f"t_{number}")
    (files / "target").mkdir()
    with open(files / "output", "w+") as output:
        text = on_terminal(machine, BIN / "zolctl", "report", "collect", files / "target", "--wait", "0",
                           output=output)
        output.seek(0)
        printed = output.read()

    waits = f"{CLEAR}0 taken, waiting for the next to be published{CLEAR}"
    assert text.startswith(waits)
    drawn, left = bars(text.removeprefix(waits))
    assert [bar[23:] for bar in drawn] == [f"{number} of 3 reports that lie there" for number in range(3)]
    assert left == "" and printed.count("\n") == 3 and len(os.listdir(files / "target")) == 3
