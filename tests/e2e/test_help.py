"""The --help of zolctl's commands, and the examples in it."""
import re
import shlex
import subprocess

import pytest

from conftest import BIN, EMULATOR

# An emulated zolctl cannot start the other program, whose --help this is.
ELSEWHERE = {("policy", "test"): "zol_policy_test"} if EMULATOR else {}


def help_of(words):
    command = [BIN / ELSEWHERE[words]] if words in ELSEWHERE else [BIN / "zolctl", *words]
    return subprocess.run([*command, "--help"], capture_output=True, text=True, timeout=60, check=True).stdout


def commands_in(text):
    listed = text.partition("\nSubcommands:\n")[2].split("\n\n")[0]
    return re.findall(r"^  ([a-z]+)", listed, re.M)


def walk(words=()):
    """Each command with its help, the program itself first."""
    text = help_of(words)
    yield words, text
    for name in commands_in(text):
        yield from walk((*words, name))


@pytest.fixture(scope="module", name="helps")
def helps_of_all():
    return dict(walk())


def examples_in(text):
    """The examples at the end of a help: what a shell would run, each as words behind "zolctl"."""
    last = text.rstrip("\n").rpartition("\n\n")[2]
    lines = re.search(r"^Examples?:(.*)\Z", last, re.M | re.S)
    found = []
    for line in lines.group(1).splitlines() if lines else ():
        for command in re.split(r"&&|\|", line.partition("  #")[0]):
            words = shlex.split(command)
            words = words[1:] if words[:1] == ["sudo"] else words
            if words[:1] == ["zolctl"]:
                found.append(words[1:])
    return found


def positionals_of(text):
    """How many positional words there must be, and how many there may be."""
    listed = text.partition("\nPositionals:\n")[2].split("\n\n")[0]
    lines = re.findall(r"^  [A-Z]+ TEXT(.*)$", listed, re.M)
    return sum("REQUIRED" in line for line in lines), float("inf") if any(
        " ..." in line for line in lines) else len(lines)


def options_of(text):
    """Options by name, and whether a value follows."""
    listed = re.findall(r"^  (-[-a-z,]+)( (?:TEXT|UINT))?", text.partition("\nOptions:\n")[2], re.M)
    return {name: bool(value) for names, value in listed for name in names.split(",")}


def problem_of(words, helps):
    """Why zolctl would not take these words; None when it would."""
    command = ()
    while (*command, *words[:1]) in helps and words:
        command, words = (*command, words[0]), words[1:]
    if commands_in(helps[command]):
        return None if words == ["--help"] else f"{command} is no whole command"
    options, count, is_over, is_help = options_of(helps[command]), 0, False, "--help" in words
    words = iter(words)
    for word in words:
        is_over = is_over or word == "--"
        if word == "--":
            continue
        if is_over or not word.startswith("-") or word == "-":
            count += 1
        elif word not in options:
            return f"{command} has no option {word}"
        elif options[word] and next(words, None) is None:
            return f"{word} has no value"
    fewest, most = positionals_of(helps[command])
    return None if fewest <= count <= most or not count and is_help else f"{count} words for {command}"


def test_every_help_ends_with_an_example_that_zolctl_would_take(helps):
    assert len(helps) > 20
    for words, text in helps.items():
        examples = examples_in(text)
        assert examples, f"no example in the help of zolctl {' '.join(words)}"
        assert [problem_of(example, helps) for example in examples] == [None] * len(examples), words
        assert any(tuple(example[:len(words)]) == words for example in examples), f"none of its own in {words}"


def test_what_zolctl_would_not_take_is_known_as_such(helps):
    """That the test above can fail."""
    for wrong in (["stauts"], ["policy"], ["policy", "push"], ["policy", "push", "--frce", "x"], ["kpi", "list", "-n"],
                  ["vconf", "get", "a", "b"], ["report", "collect"]):
        assert problem_of(wrong, helps) is not None
