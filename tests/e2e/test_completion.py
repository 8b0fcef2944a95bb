"""The completion of zolctl in bash."""
import shlex
import subprocess

import pytest

from conftest import BIN, TOP


@pytest.mark.parametrize("words, completed", [
    (("",), {"status", "policy", "vconf", "kpi", "report", "doctor"}), (("po",), {"policy"}), (("x",), set()),
    (("policy", ""), {"check", "test", "show", "explain", "push"}), (("policy", "push", "--"), {"--help", "--force"}),
    (("policy", "push", "--force", ""), set()), (("kpi", "list", "--s"), {"--since"}),
    (("kpi", "list", "-"), {"-h", "--help", "--json", "-n", "--since", "-f", "--follow"}),
    (("vconf", "get", "db/a", ""), set()), (("foo", ""), set()), (("--v",), {"--version"})])
def test_commands_and_options_are_those_that_zolctl_has(machine, words, completed):
    script = (f"source {TOP}/packaging/zolctl.bash; COMP_WORDS=(zolctl {shlex.join(words)}); "
              f"COMP_CWORD={len(words)}; _zolctl 2>/dev/null; printf '%s\\n' \"${{COMPREPLY[@]}}\"")

    told = subprocess.run(["bash", "-c", script], env={**machine.env, "PATH": f"{BIN}:{machine.env['PATH']}"},
                          capture_output=True, text=True, timeout=60, check=True)

    assert set(told.stdout.split()) == completed
