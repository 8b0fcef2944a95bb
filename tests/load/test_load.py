"""A short load of a fixed seed; scripts/soak runs longer ones."""
import pathlib
import subprocess
import sys

SOAK = pathlib.Path(__file__).with_name("soak.py")


def run(*arguments):
    return subprocess.run([sys.executable, SOAK, *arguments], capture_output=True, text=True, check=False)


def test_every_hit_of_a_short_load_is_a_report_or_stands_in_the_log():
    result = run("0.4", "--seed", "5")

    assert result.returncode == 0, result.stderr + result.stdout
    table = dict(line.split("\t") for line in result.stdout.splitlines())
    assert table["findings"] == "0"
    assert int(table["events"]) >= int(table["hits"]) > 0


def test_a_load_that_cannot_run_says_why_in_its_status():
    assert run("many").returncode == 2
