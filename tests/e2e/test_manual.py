"""The manual pages (packaging/man) say what the programs say of themselves, and their examples work."""
import os
import re
import subprocess

import pytest

from conftest import BIN, SANITIZER_OPTIONS, TOP

PAGES = TOP / "packaging" / "man"
PROGRAMS = ("zol_daemon.8", "zol_vconfd.8", "zol_collector.8", "dlogutil.1", "app_launcher.1")
OF_EVERY_COMMAND = {"-h", "--help"}


def help_of(*words):
    """What a program prints as its help, whichever way it is called."""
    if words[:3] == ("zolctl", "policy", "test"):
        words = ("zol_policy_test",)  # which zolctl starts; an emulated program cannot
    told = subprocess.run([BIN / words[0], *words[1:], "--help"], env={**os.environ, **SANITIZER_OPTIONS},
                          capture_output=True, text=True, timeout=60, check=False)
    return told.stdout + told.stderr


def options_in_help(text):
    """Of the usage line, and of the lines that begin with an option."""
    usage = re.findall(r"[Uu]sage:.*", text)
    names = set(re.findall(r"(?<=[\[ |])--?[a-z][\w-]*", " ".join(usage)))
    for names_of_one in re.findall(r"^ +(-[^\s=]*(?:, *-[^\s=]+)*)", text, re.M):
        names.update(re.split(r", *", names_of_one))
    return names


def commands_in_help(*words):
    """Every command of zolctl that has none below it."""
    listed = re.search(r"^\w*ommands:\n((?:  .*\n)+)", help_of(*words), re.M)
    if not listed:
        return {words[1:]}
    below = re.findall(r"^  ([a-z]\S*)", listed.group(1), re.M)
    return set().union(*(commands_in_help(*words, word) for word in below))


def options_in_page(text):
    return {f"-{name}" for name in re.findall(r"\bFl (-?[a-z][\w-]*)", text)}


def section(page, name):
    return re.search(rf"^\.Sh {name}\n(.*?)(?=^\.Sh |\Z)", (PAGES / page).read_text(), re.M | re.S).group(1)


def commands_in_page():
    """Each command of zolctl(1) and the options that stand with it."""
    items = re.split(r"^\.It Cm ", section("zolctl.1", "COMMANDS"), flags=re.M)[1:]
    return {tuple(re.match(r"(?:[a-z]+ ?)+", item).group().split()): options_in_page(item) for item in items}


def displays(page):
    """The literal displays among a page's examples, as they are shown."""
    shown = re.findall(r"^\.Bd -literal.*?\n(.*?)^\.Ed", section(page, "EXAMPLES"), re.M | re.S)
    return [text.replace(r"\e", "\\") for text in shown]


@pytest.mark.parametrize("page", sorted(path.name for path in PAGES.iterdir()))
def test_pages_are_without_warnings(page):
    told = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", PAGES / page], capture_output=True, text=True,
                          timeout=60, check=False)

    assert (told.returncode, told.stdout + told.stderr) == (0, "")


@pytest.mark.parametrize("page", PROGRAMS)
def test_a_page_has_the_options_of_its_program(page):
    assert options_in_page((PAGES / page).read_text()) == options_in_help(help_of(page.split(".")[0]))


def test_zolctl_has_the_commands_and_options_that_stand_in_its_page():
    told = {words: options_in_help(help_of("zolctl", *words)) - OF_EVERY_COMMAND
            for words in commands_in_help("zolctl")}

    assert commands_in_page() == told
    assert options_in_page(section("zolctl.1", "OPTIONS")) == options_in_help(help_of("zolctl"))


def test_the_policy_of_the_page_is_without_findings(machine):
    assert machine.zolctl("policy", "check", "--strict", "-", stdin=displays("zol-policy.5")[0], check=0).stdout == ""


def test_the_scenario_of_the_page_passes(machine, tmp_path):
    scenario = tmp_path / "scenario.yaml"
    scenario.write_text(displays("zol-scenario.5")[0])

    told = subprocess.run([BIN / "zol_policy_test", scenario], env=machine.env, capture_output=True, text=True,
                          timeout=60, check=False)

    assert (told.returncode, told.stdout.splitlines()[-1]) == (0, "1 scenario: 1 passed, 0 failed"), told.stdout


def test_the_configuration_of_the_page_is_read(machine, tmp_path):
    file = tmp_path / "collector.conf"
    file.write_text(displays("zol_collector.8")[0])
    for folder in ("reports", "refused"):
        (tmp_path / "spool" / folder).mkdir(parents=True)

    told = subprocess.run([BIN / "zol_collector", f"--config={file}", "--spool", tmp_path / "spool", "--status"],
                          env=machine.env, capture_output=True, text=True, timeout=60, check=False)

    assert told.returncode == 0, told.stderr
