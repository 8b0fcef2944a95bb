"""zolctl vconf: keys listed, removed, and watched from what they hold now."""
import signal
import subprocess

import pytest

from conftest import BIN


def test_keys_are_listed_with_their_types_in_their_order(machine):
    machine.set("db/b", "two\tlines\n", "string")
    machine.set("db/a", "-7", "int")
    machine.set("memory/c", "true", "bool")
    machine.set("db/aa/x", "", "string")

    assert machine.zolctl("vconf", "list", check=0).stdout == (
        "db/a\tint\t-7\ndb/aa/x\tstring\t\ndb/b\tstring\ttwo\\tlines\\n\nmemory/c\tbool\ttrue\n")
    assert machine.zolctl("vconf", "list", "db/a", check=0).stdout == "db/a\tint\t-7\ndb/aa/x\tstring\t\n"
    assert machine.zolctl("vconf", "list", "db/none", check=0).stdout == ""
    assert machine.zolctl("vconf", "list", "z" * 300, check=0).stdout == ""


def test_what_a_terminal_would_obey_is_shown_as_in_c(machine):
    machine.set("db/\x1b[2J", "red\x1b[31m", "string")

    assert machine.zolctl("vconf", "list", check=0).stdout == "db/\\x1b[2J\tstring\tred\\x1b[31m\n"
    assert machine.zolctl("vconf", "get", "db/\x1b[2J", check=0).stdout == "red\x1b[31m\n", "as it is"


def test_a_key_is_removed_once(machine):
    machine.set("db/a", "1", "int")

    assert machine.zolctl("vconf", "unset", "db/a", check=0).stdout == ""
    again = machine.zolctl("vconf", "unset", "db/a")

    assert (again.returncode, again.stderr) == (1, "zolctl: no such key: db/a\n")
    assert machine.zolctl("vconf", "list", check=0).stdout == ""


def test_a_watch_may_begin_with_what_the_keys_hold(machine):
    machine.set("db/a", "1", "int")
    process = machine.start(BIN / "zolctl", "vconf", "watch", "--now", "db/a", "db/none", stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)

    assert [process.stdout.readline() for _ in range(2)] == ["db/a\tint\t1\n", "db/none\tnone\t\n"]
    assert process.stderr.readline() == "watching 2 keys\n"
    machine.set("db/none", "x", "string")
    assert process.stdout.readline() == "db/none\tstring\tx\n"
    process.send_signal(signal.SIGTERM)
    assert process.wait(timeout=60) == 0


@pytest.mark.parametrize("text, is_told", [("1", True), ("true", True), ("text", False), ("1 ", False)])
def test_a_type_that_is_guessed_for_what_looks_like_another_one_is_told(machine, text, is_told):
    done = machine.zolctl("vconf", "set", "db/new", text, check=0)

    assert done.stderr == ("zolctl: warning: db/new is new and becomes a string; --type int or --type bool makes it "
                           "another type\n" if is_told else "")
    assert machine.zolctl("vconf", "list", check=0).stdout == f"db/new\tstring\t{text}\n"
    assert machine.zolctl("vconf", "set", "db/new", "2", check=0).stderr == "", "it has a type"


@pytest.mark.parametrize("command", [
    ("get", "db/a"), ("list",), ("unset", "db/a"), ("set", "db/a", "5"), ("set", "db/a", "5", "--type", "int"),
    ("watch", "--now", "db/a")], ids=" ".join)
def test_a_store_that_cannot_be_read_is_told(machine, command):
    machine.spoil_key_store()

    failed = machine.zolctl("vconf", *command)

    assert failed.returncode == 2 and failed.stderr.startswith("zolctl: cannot ") and failed.stderr.count("\n") == 1


def test_a_name_that_no_key_may_have_is_not_watched(machine):
    failed = machine.zolctl("vconf", "watch", "db/a", "k" * 5000)

    assert failed.returncode == 2 and failed.stderr.startswith("zolctl: cannot watch k") and failed.stdout == ""
