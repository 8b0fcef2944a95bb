"""zolctl policy check, and the check before a push."""
import json
import os
import re
import signal
import subprocess

import pytest

from conftest import ACCEPTED, BIN, RUNNING_KEY, TOP, int_rule, policy, processes_on, string_rule, wait_for
from terminal import on_terminal

KEY = "db/menu/picture/backlight"
STORED = "/var/lib/zol/policy.xml"
GOOD = policy(int_rule(KEY, "IS", 3))
WARNED = policy(int_rule(KEY, "BETWEEN", greater=5, less=6))
DROPPED = policy(int_rule(KEY, "IS", 3), int_rule(KEY, "is", 3))
EMPTY_RANGE = "4:3: warning: never a hit: no integer lies between 5 and 6"
UNKNOWN_WORD = "5:3: error: dropped: condition 'is' is unknown (did you mean IS?)"


@pytest.fixture
def write(machine):
    def in_folder(name, document):
        file = machine.folder / name
        file.write_bytes(document if isinstance(document, bytes) else document.encode())
        return file
    return in_folder


def check(machine, *arguments, **options):
    """Exit status, output, errors."""
    result = machine.zolctl("policy", "check", *arguments, **options)
    return result.returncode, result.stdout, result.stderr


# --- the check ---------------------------------------------------------------------------------------------------
def test_a_good_policy_is_checked_without_a_word(machine, write):
    assert check(machine, write("good.xml", GOOD)) == (0, "", "")
    assert check(machine, TOP / "examples/policy.xml", "--strict") == (0, "", "")
    assert check(machine, "-", stdin=GOOD) == (0, "", "")


def test_findings_are_printed_with_file_line_and_column(machine, write):
    warned, dropped = write("warned.xml", WARNED), write("dropped.xml", DROPPED)

    assert check(machine, warned) == (0, f"{warned}:{EMPTY_RANGE}\n", "")
    assert check(machine, warned, "--strict")[0] == 1
    assert check(machine, dropped, warned) == (1, f"{dropped}:{UNKNOWN_WORD}\n{warned}:{EMPTY_RANGE}\n", "")


@pytest.mark.parametrize("make, why", [
    (lambda path: None, "cannot read {}: No such file or directory"),
    (lambda path: path.mkdir(), "{} is a folder"),
    (os.mkfifo, "{} is no regular file; standard input is -"),
    (lambda path: path.symlink_to("/dev/zero"), "{} is no regular file; standard input is -"),
    (lambda path: path.write_bytes(b"\x7fELF\0\0<zolitem/>"), "{} holds binary data, no XML document"),
    (lambda path: path.write_bytes(GOOD.encode().ljust(4 * 1024 * 1024 + 1)), "{} is larger than 4194304 bytes"),
    (lambda path: path.symlink_to(path), "cannot read {}: Too many levels of symbolic links"),
], ids=["missing", "folder", "pipe", "device", "binary", "huge", "loop"])
def test_what_cannot_be_a_policy_is_said_in_one_line_and_the_others_are_checked(machine, write, make, why):
    odd, dropped = machine.folder / "odd\n", write("dropped.xml", DROPPED)
    make(odd)

    status, output, errors = check(machine, odd, dropped)

    assert (status, output) == (2, f"{dropped}:{UNKNOWN_WORD}\n")
    assert errors == "zolctl: " + why.format(str(odd).replace("\n", r"\n")) + "\n"
    listed = json.loads(check(machine, "--json", odd, dropped)[1])
    assert [len(one["findings"]) for one in listed] == [0, 1] and "unreadable" in listed[0]


def test_text_of_sixteen_bits_is_no_binary_data(machine, write):
    file = write("wide.xml", DROPPED.replace("UTF-8", "UTF-16").encode("utf-16"))

    assert check(machine, file) == (1, f"{file}:{UNKNOWN_WORD}\n", "")


def test_json_holds_every_finding(machine, write):
    dropped, warned = write("dropped.xml", DROPPED), write("warned.xml", WARNED)

    status, output, _ = check(machine, "--json", dropped, warned)

    assert status == 1
    assert json.loads(output) == [
        {"file": str(dropped), "findings": [
            {"line": 5, "column": 3, "severity": "error", "name": "dropped", "hint": "did you mean IS?",
             "text": "dropped: condition 'is' is unknown"}]},
        {"file": str(warned), "findings": [
            {"line": 4, "column": 3, "severity": "warning", "name": "empty-range", "hint": "",
             "text": "never a hit: no integer lies between 5 and 6"}]}]


@pytest.mark.parametrize("inside", [
    b"<a b='\"\\/&#9;&#10;&#x2028;&#x9b;&#x10ffff;'/><\xc3\xa4\xf0\x9f\x98\x80/>", b"\xff\xfe", b"<a>\xc3</a>", b"\0",
    b"<zols condition='&quot;&#x7f;\xe2\x80\xae'/>"], ids=repr)
def test_json_is_valid_whatever_the_policy_and_its_name_hold(machine, inside):
    file = os.fsencode(machine.folder) + b"/odd\xff\"\\\x1b.xml"
    with open(file, "wb") as out:
        out.write(b"<zolitem>" + inside + b"</zolitem>")

    raw = subprocess.run([BIN / "zolctl", "policy", "check", "--json", file], env=machine.env, check=False,
                         capture_output=True, timeout=60).stdout

    (one,) = json.loads(raw.decode("utf-8"))
    assert one["file"].endswith('odd\ufffd"\\\x1b.xml')
    assert one["findings"] or one["unreadable"]


def test_what_a_policy_quotes_commands_no_terminal(machine, write):
    file = write("\x1b[31m.xml", DROPPED.replace('"is"', '"\u009b&#10;i"'))

    output = check(machine, file)[1]

    assert output.count("\n") == 1 and re.search(r"[\x00-\x09\x0b-\x1f\x7f-\x9f]", output) is None
    assert r"\x1b[31m.xml:5:3: error: dropped: condition '\xc2\x9b\ni' is unknown" in output


def test_a_terminal_is_shown_colours_and_the_line(machine, write):
    file = write("warned.xml", WARNED.replace("  <zols", "\t\u00e4 <zols"))
    command = (BIN / "zolctl", "policy", "check", file)
    shown = on_terminal(machine, *command)
    lines = re.sub(r"\x1b\[[0-9;]*m", "", shown).splitlines()

    assert "\x1b[1;33mwarning:\x1b[0m" in shown
    assert lines[0].startswith(f"{file}:4:4: warning: ")
    assert lines[1].index("<zols") == lines[2].index("^")
    plain = f"{file}:{EMPTY_RANGE.replace('4:3', '4:4')}\n"
    assert on_terminal(machine, *command, NO_COLOR="1") == plain
    assert on_terminal(machine, *command, NO_COLOR="").count("\x1b[") > 2
    assert check(machine, file)[1] == plain


def test_a_long_line_is_shown_around_the_place(machine, write):
    file = write("long.xml", GOOD.replace("<zols", "<!--" + "-".join("x" * 3000) + "--><zolz/><zols"))

    shown = re.sub(r"\x1b\[[0-9;]*m", "", on_terminal(machine, BIN / "zolctl", "policy", "check", file))

    assert max(map(len, shown.splitlines()[1:])) <= 104
    assert shown.splitlines()[1].index("<zolz") == shown.splitlines()[2].index("^")


def test_a_line_of_up_to_a_hundred_characters_is_shown_whole(machine, write):
    lines = ["  <!--" + "x" * (length - 16) + "--><zolz/>" for length in (101, 100)]
    lines.append("  <zolz/><!--" + "x" * 100 + "-->")
    file = write("wide.xml", GOOD.replace("  <zols", "\n".join([*lines, "  <zols"])))

    shown = re.sub(r"\x1b\[[0-9;]*m", "", on_terminal(machine, BIN / "zolctl", "policy", "check", file)).splitlines()

    assert shown[1::3] == ["    " + lines[0][54:], "    " + lines[1], "    " + lines[2][:100]]
    assert shown[2::3] == [" " * 44 + "^", " " * 97 + "^", " " * 6 + "^"]


def test_the_help_shows_an_example(machine):
    text = machine.zolctl("policy", "check", "--help", check=0).stdout

    assert "Example: zolctl policy check --strict policy.xml" in text
    for word in ("--json", "--strict", "FILE"):
        assert word in text


def test_every_finding_is_described(machine):
    names = re.findall(r'EPolicyFinding::[A-Z_]+, "([a-z-]+)"', (TOP / "zol/src/check/PolicyFindings.cpp").read_text())

    assert len(names) > 20
    assert re.findall(r"^\| `([a-z-]+)` \| (?:error|warning)", (TOP / "docs/policy-reference.md").read_text(),
                      re.MULTILINE) == names


def test_each_key_that_the_daemon_writes_is_known_as_its_own(machine, write):
    table = (TOP / "docs/keys-and-files.md").read_text()
    own = re.findall(r"^\| `([^`]+)` \| \w+ \| daemon", table, re.MULTILINE)

    output = check(machine, write("own.xml", policy(*[string_rule(key, "NOT", "x") for key in own])))[1]

    assert len(own) > 5
    assert re.findall(r":(\d+):3: warning: the daemon .*writes this key", output) == [
        str(line) for line in range(4, 4 + len(own))]
    assert output.count("it loops") == 1


# --- the store ---------------------------------------------------------------------------------------------------
def test_a_store_that_runs_is_asked_for_the_types_of_the_keys(machine, write):
    for key, value, kind in (("db/int", "1", "int"), ("db/text", "1", "string"), ("db/switch", "true", "bool")):
        machine.set(key, value, kind)
    keys = ("db/int", "db/text", "db/switch", "db/none")
    file = write("types.xml", policy(*[int_rule(key, "IS", 1) for key in keys]))

    assert check(machine, file) == (0, f"{file}:5:3: warning: type is INT, but key 'db/text' in this machine's store "
                                       f"is a text\n{file}:6:3: warning: type is INT, but key 'db/switch' in this "
                                       "machine's store is a boolean, which is never compared\n", "")


def test_no_store_is_started_for_a_check(machine, write):
    assert check(machine, write("good.xml", GOOD)) == (0, "", "")

    assert processes_on(machine.root, "zol_vconfd") == [] or os.environ.get("ZOL_EMULATOR")
    assert not machine.path("/var/lib/zol/vconfd").exists() or os.environ.get("ZOL_EMULATOR")


def test_a_store_that_hangs_is_given_up_once(machine, write):
    machine.set("db/0", "1", "int")
    (service,) = processes_on(machine.root, "zol_vconfd")
    file = write("many.xml", policy(*[int_rule(f"db/{number}", "IS", 1) for number in range(1000)]))
    os.kill(service, signal.SIGSTOP)
    try:
        # With each key to itself it would take more than half an hour.
        assert check(machine, file)[:2] == (0, "")
    finally:
        os.kill(service, signal.SIGCONT)


# --- the push ----------------------------------------------------------------------------------------------------
def test_errors_keep_a_policy_from_being_sent(machine, daemon, write):
    file = write("dropped.xml", DROPPED.replace("<zolitem", "<zolitem more=''"))

    refused = machine.zolctl("policy", "push", file, check=1)

    assert refused.stdout == ""
    assert refused.stderr == (
        f"zolctl: {file}:2:1: warning: attribute 'more' of zolitem means nothing\n"
        f"zolctl: refused: {file}:{UNKNOWN_WORD.replace('error: ', '')}\n"
        "zolctl: nothing was sent; --force sends it all the same\n")
    assert not machine.path(STORED).exists()

    forced = machine.zolctl("policy", "push", "--force", file, check=0)

    assert forced.stdout.startswith("accepted, running: ") and f"zolctl: {file}:{UNKNOWN_WORD}\n" in forced.stderr
    assert machine.path(STORED).exists()


def test_warnings_are_told_and_the_policy_is_sent(machine, daemon, write):
    file = write("warned.xml", WARNED)

    pushed = machine.zolctl("policy", "push", file, check=0)

    assert re.fullmatch(ACCEPTED, pushed.stdout) and pushed.stderr == f"zolctl: {file}:{EMPTY_RANGE}\n"


def test_an_empty_document_is_never_sent(machine, daemon):
    assert machine.push(GOOD).returncode == 0
    running = machine.get(RUNNING_KEY)
    for document in ("", " \n\t"):
        for options in ((), ("--force",)):
            refused = machine.push(document, *options)
            assert (refused.returncode, refused.stderr) == (1, "zolctl: refused: - is empty\n")

    assert running == machine.get(RUNNING_KEY) == "true"


def test_nothing_that_watches_nothing_is_sent_unless_it_must_be(machine, daemon):
    assert machine.push(GOOD).returncode == 0

    assert "refused: -:1:1: nothing is watched" in machine.push("<zolitem/>").stderr
    assert machine.get(RUNNING_KEY) == "true"
    assert machine.push("<zolitem/>", "--force").stdout == "accepted: nothing to watch\n"
    wait_for(lambda: machine.get(RUNNING_KEY) == "false", "the end of the policy's application")
