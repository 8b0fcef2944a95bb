"""The completion of zolctl in bash and in zsh."""
import os
import pty
import select
import shlex
import subprocess

import pytest

from conftest import BIN, TOP, wait_for

COMMANDS = {"status", "policy", "vconf", "kpi", "report", "log", "doctor"}
POLICY = {"check", "test", "show", "explain", "push"}
LIST_OPTIONS = {"-h", "--help", "--json", "-n", "--since", "-f", "--follow"}


def run(machine, *shell):
    """What a shell prints that finds this build's zolctl."""
    return subprocess.run(shell, env={**machine.env, "PATH": f"{BIN}:{machine.env['PATH']}"}, capture_output=True,
                          text=True, timeout=60, check=True).stdout


@pytest.mark.parametrize("words, completed", [
    (("",), COMMANDS), (("po",), {"policy"}), (("x",), set()), (("policy", ""), POLICY),
    (("policy", "push", "--"), {"--help", "--force"}), (("policy", "push", "--force", ""), set()),
    (("kpi", "list", "--s"), {"--since"}), (("kpi", "list", "-"), LIST_OPTIONS), (("vconf", "get", "db/a", ""), set()),
    (("foo", ""), set()), (("--v",), {"--version"})])
def test_commands_and_options_are_those_that_zolctl_has(machine, words, completed):
    script = (f"source {TOP}/packaging/zolctl.bash; COMP_WORDS=(zolctl {shlex.join(words)}); "
              f"COMP_CWORD={len(words)}; _zolctl 2>/dev/null; printf '%s\\n' \"${{COMPREPLY[@]}}\"")

    assert set(run(machine, "bash", "-c", script).split()) == completed


# What zsh itself then chooses from by what was typed of the word.
@pytest.mark.parametrize("words, offered", [
    (("",), COMMANDS), (("po",), COMMANDS), (("policy", ""), POLICY),
    (("policy", "push", "-"), {"-h", "--help", "--force"}), (("policy", "push", "--force", ""), {"FILES"}),
    (("kpi", "list", "-"), LIST_OPTIONS), (("vconf", "get", "db/a", ""), {"FILES"}), (("foo", ""), set()),
    (("pol*", ""), set())])
def test_zsh_is_offered_the_commands_and_options_that_zolctl_has(machine, words, offered):
    script = ("compadd() { print -l -- ${(P)2} }; _describe() { print -l -- ${${(P)4}%%:*} }; "
              f"_files() {{ print FILES }}; words=(zolctl {shlex.join(words)}); CURRENT={len(words) + 1}; "
              f"source {TOP}/packaging/_zolctl || true")

    assert set(run(machine, "zsh", "-f", "-c", script).split()) == offered


def test_zsh_completes_what_is_typed(machine):
    (machine.folder / ".zshrc").write_text(f"fpath=({TOP}/packaging $fpath)\nautoload -Uz compinit\n"
                                           f"compinit -u -d {machine.folder}/dump\nPS1='ready '\n")
    controller, terminal = pty.openpty()
    machine.env["ZDOTDIR"] = str(machine.folder)
    machine.start("zsh", "-d", "-i", stdin=terminal, stdout=terminal, stderr=terminal, start_new_session=True)
    os.close(terminal)

    def shown_until(text):
        seen = bytearray()

        def is_shown():
            if select.select([controller], [], [], 0)[0]:
                seen.extend(os.read(controller, 4096))
            return text in seen
        wait_for(is_shown, f"{text} in {seen}")

    shown_until(b"ready ")
    os.write(controller, b"zolctl kp\tl\t--js\t\n")
    shown_until(b"[]")
    os.write(controller, b"zolctl --vers\t\n")
    shown_until(b"zolctl 1.")
    os.close(controller)
