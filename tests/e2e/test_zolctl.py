"""What zolctl prints: changes of watched keys, reported events, pushed files."""
import json
import re
import signal
import subprocess

import pytest

from conftest import ACCEPTED, BIN, int_rule, policy, string_rule, wait_for

NUMBER = "db/menu/picture/backlight"
TEXT = "file/menu/mode"
SWITCH = "db/menu/eco"
NASTY = "one\ttwo\nthree\rfour\\n"
NASTY_SHOWN = r"one\ttwo\nthree\rfour\\n"


class Watcher:
    """A zolctl that watches keys, ready when it is made."""

    def __init__(self, machine, *keys):
        self.process = machine.start(BIN / "zolctl", "vconf", "watch", *keys, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True)
        self.greeting = self.process.stderr.readline()

    def next_change(self):
        return self.process.stdout.readline()

    def stop(self, how):
        """The exit status and what was printed last."""
        self.process.send_signal(how)
        output, errors = self.process.communicate(timeout=60)
        return self.process.returncode, output + errors


def test_a_watch_prints_key_type_and_value_of_every_change_in_one_line(machine):
    watcher = Watcher(machine, NUMBER, TEXT, SWITCH)
    assert watcher.greeting == "watching 3 keys\n"

    for key, value, kind in ((NUMBER, "-7", "int"), (TEXT, "shop", "string"), (SWITCH, "true", "bool"),
                             (SWITCH, "false", "bool"), (NUMBER, "8", "int"), (TEXT, "", "string")):
        machine.set(key, value, kind)
        assert watcher.next_change() == f"{key}\t{kind}\t{value}\n"
    machine.set(TEXT, NASTY, "string")
    assert watcher.next_change() == f"{TEXT}\tstring\t{NASTY_SHOWN}\n"

    assert watcher.stop(signal.SIGTERM) == (0, "")


def test_a_watch_tells_of_its_keys_only(machine):
    watcher = Watcher(machine, NUMBER)
    assert watcher.greeting == "watching 1 key\n"

    machine.set(TEXT, "shop", "string")
    machine.set(NUMBER, "1", "int")

    assert watcher.next_change() == f"{NUMBER}\tint\t1\n"
    assert watcher.stop(signal.SIGINT) == (0, "")


def test_a_policy_is_pushed_from_a_file(machine, daemon):
    document = policy(int_rule(NUMBER, "IS", 3))
    file = machine.folder / "pushed.xml"
    file.write_text(document)

    pushed = machine.zolctl("policy", "push", file, check=0)

    assert re.fullmatch(ACCEPTED, pushed.stdout) and pushed.stderr == ""
    assert machine.path("/var/lib/zol/policy.xml").read_text() == document


def test_reported_events_are_listed_oldest_first_in_tab_separated_columns(machine, daemon):
    machine.push(policy(int_rule(NUMBER, "IS", 3)))
    for turn in (1, 2):
        machine.set(NUMBER, "3", "int")
        wait_for(lambda turn=turn: len(machine.kpi()) == turn, f"{turn} events")
        machine.set(NUMBER, "0", "int")
        machine.wait_log(f"[m_KeyChangedCb] key : {NUMBER}", times=2 * turn)

    listed = machine.zolctl("kpi", "list", check=0)

    rows = [line.split("\t") for line in listed.stdout.splitlines()]
    assert [row[0] for row in rows] == [str(event["sequence"]) for event in machine.kpi()]
    for row, event in zip(rows, machine.kpi()):
        assert row[1:] == [event["time"], "20_errdata", "ZOL", "EV007", event["description"]]
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", row[1])
    assert listed.stderr == ""


def report(machine, *values):
    """An event for each value of a rule's key, in their order."""
    for number, value in enumerate(values, len(machine.kpi()) + 1):
        machine.set(NUMBER, str(value), "int")
        wait_for(lambda number=number: len(machine.kpi()) == number, f"{number} events")


def test_of_the_events_the_newest_or_those_since_a_moment_are_listed(machine, daemon):
    del daemon
    machine.push(policy(int_rule(NUMBER, "GREATER", 0)))
    report(machine, 1, 2, 3)
    everything = machine.zolctl("kpi", "list", check=0).stdout.splitlines()

    def listed(*arguments):
        return machine.zolctl("kpi", "list", *arguments, check=0).stdout.splitlines()

    assert len(everything) == 3
    assert listed("-n", "2") == everything[1:] and listed("-n", "9") == everything
    assert listed("--since", "1h") == listed("--since", "2001-01-01T00:00:00Z") == everything
    assert listed("--since", "2199-01-01T00:00:00Z") == []
    events = json.loads(machine.zolctl("kpi", "list", "--json", "-n", "1", check=0).stdout)
    assert [event["items"]["value"] for event in events] == ["3"] and events[0]["items"]["key"] == NUMBER
    for wrong in (("--since", "yesterday"), ("--since", "-1h"), ("--since", "1w"), ("-n", "0"), ("-n", "x")):
        refused = machine.zolctl("kpi", "list", *wrong)
        assert (refused.returncode, refused.stdout) == (2, "") and refused.stderr.count("\n") == 1


def test_events_are_followed_until_interrupted(machine, daemon):
    del daemon
    machine.push(policy(int_rule(NUMBER, "GREATER", 0)))
    report(machine, 1)
    process = machine.start(BIN / "zolctl", "kpi", "list", "--follow", stdout=subprocess.PIPE, text=True)
    late = machine.start(BIN / "zolctl", "kpi", "list", "--follow", "--since", "2199-01-01T00:00:00Z",
                         stdout=subprocess.PIPE, text=True)
    assert "value=1;" in process.stdout.readline()

    report(machine, 2, 3)

    assert ["value=2;" in process.stdout.readline(), "value=3;" in process.stdout.readline()] == [True, True]
    process.send_signal(signal.SIGINT)
    assert process.wait(timeout=60) == 0 and process.stdout.read() == ""
    late.send_signal(signal.SIGINT)
    assert late.wait(timeout=60) == 0 and late.stdout.read() == ""


def test_events_of_a_log_that_was_begun_anew_are_followed(machine, daemon):
    del daemon
    machine.push(policy(int_rule(NUMBER, "GREATER", 0)))
    report(machine, 1, 2)
    output = machine.folder / "followed"
    with output.open("w") as file:
        machine.start(BIN / "zolctl", "kpi", "list", "--follow", stdout=file)
    followed = output.read_text
    wait_for(lambda: followed().count("\n") == 2, "two events")

    for file in machine.path("/var/lib/zol").glob("kpi.db*"):
        file.unlink()
    report(machine, 3)

    wait_for(lambda: followed().count("\n") == 3, "an event of the new log")
    assert [event.split("\t")[0] for event in followed().splitlines()] == ["1", "2", "1"]
    assert "value=3;" in followed().splitlines()[2]


@pytest.mark.parametrize("words, hint", [
    (("stauts",), "A subcommand is required (did you mean status?)"),
    (("policy", "psh"), "A subcommand is required (did you mean push?)"),
    (("policy", "push", "--frce", "x"), "The following argument was not expected: --frce (did you mean --force?)"),
    (("--verison",), "A subcommand is required (did you mean --version?)"), (("vconf",), "A subcommand is required"),
    (("elephant",), "A subcommand is required")])
def test_a_word_that_is_unknown_is_answered_with_the_nearest_one(machine, words, hint):
    told = machine.zolctl(*words)

    assert (told.returncode, told.stdout, told.stderr) == (2, "", f"zolctl: {hint} (see zolctl --help)\n")
    assert machine.zolctl("--version", check=0).stdout.startswith("zolctl 1.")


def test_a_watched_text_of_several_lines_does_not_forge_an_event(machine, daemon):
    machine.push(policy(string_rule(TEXT, "NOT", "home")))
    machine.set(TEXT, NASTY, "string")
    wait_for(machine.kpi, "an event")

    rows = machine.zolctl("kpi", "list", check=0).stdout.split("\n")

    assert len(rows) == 2 and rows[1] == ""
    assert rows[0].count("\t") == 5
    assert f"value={NASTY_SHOWN};" in rows[0]


@pytest.mark.parametrize("command", [("vconf", "get", NUMBER), ("kpi", "list", "--json"), ("--help",)])
def test_output_that_cannot_be_written_is_a_failure(machine, command):
    machine.set(NUMBER, "1", "int")

    with open("/dev/full", "w") as full:
        process = machine.start(BIN / "zolctl", *command, stdout=full, stderr=subprocess.PIPE, text=True)
        _, errors = process.communicate(timeout=60)

    assert (process.returncode, errors) == (2, "zolctl: cannot write the output\n")


def test_a_watch_whose_reader_has_gone_ends_with_a_failure(machine):
    watcher = Watcher(machine, NUMBER)
    watcher.process.stdout.close()

    machine.set(NUMBER, "1", "int")

    assert watcher.process.wait(timeout=60) == 2
    assert watcher.process.stderr.read() == "zolctl: cannot write the output\n"


def test_a_key_that_is_not_there_is_told_from_a_store_that_cannot_be_read(machine):
    machine.set(NUMBER, "1", "int")

    missing = machine.zolctl("vconf", "get", TEXT)
    machine.spoil_key_store()
    unreadable = machine.zolctl("vconf", "get", NUMBER)

    assert (missing.returncode, missing.stderr) == (1, f"zolctl: no such key: {TEXT}\n")
    assert (unreadable.returncode, unreadable.stderr) == (2, f"zolctl: cannot read {NUMBER}: Input/output error\n")


def test_a_document_that_the_daemon_would_not_take_is_not_sent(machine, daemon):
    document = policy(int_rule(NUMBER, "IS", 3)).ljust(4 * 1024 * 1024 + 1)

    refused = machine.zolctl("policy", "push", "-", stdin=document)
    taken = machine.zolctl("policy", "push", "-", stdin=document[:-1])

    assert (refused.returncode, refused.stderr) == (2, "zolctl: - is larger than 4194304 bytes\n")
    assert taken.returncode == 0 and re.fullmatch(ACCEPTED, taken.stdout)
