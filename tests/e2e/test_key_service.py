"""The program zol_vconfd as whoever starts it by hand meets it: arguments and exit statuses."""
import os
import signal
import subprocess

import pytest

from conftest import BIN, DEADLINE, EMULATOR, wait_for

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="its clients need one that runs already")


def run(machine, *arguments):
    return subprocess.run([BIN / "zol_vconfd", *arguments], env=machine.env, capture_output=True, text=True,
                          timeout=DEADLINE, check=False)


def test_help_tells_the_arguments_and_every_exit_status(machine):
    helped = run(machine, "--help")

    assert (helped.returncode, helped.stderr) == (0, "")
    assert helped.stdout.startswith("Usage: zol_vconfd ")
    for word in ("--detach", "--idle-ms", "0 ended", "1 it cannot serve", "2 wrong usage"):
        assert word in helped.stdout


@pytest.mark.parametrize("arguments, wrong", [
    (["--dettach"], "unknown argument '--dettach'"),
    (["serve"], "unknown argument 'serve'"),
    ([""], "unknown argument ''"),
    (["--detach", "-x"], "unknown argument '-x'"),
    (["--idle-ms"], "a number is missing after '--idle-ms'"),
    *((["--idle-ms", text], f"--idle-ms takes a number from 1 to 86400000, not '{text}'")
      for text in ("0", "-1", "86400001", "99999999999999999999", "1s", "", " 1", "1.5")),
])
def test_wrong_arguments_are_named_in_one_line_and_nothing_is_begun(machine, arguments, wrong):
    refused = run(machine, *arguments)

    assert (refused.returncode, refused.stdout) == (2, "")
    assert refused.stderr == f"zol_vconfd: {wrong} (see --help)\n"
    assert not machine.path("/var/lib/zol").exists() and not machine.path("/run/zol").exists()


def test_it_ends_with_0_when_nobody_came_or_another_one_serves(machine):
    assert run(machine, "--idle-ms", "1").returncode == 0

    machine.start_key_service()

    assert run(machine).returncode == 0


def test_it_ends_with_1_and_a_line_in_the_log_when_it_cannot_serve(machine):
    machine.path("/run/zol").mkdir(parents=True)
    machine.path("/run/zol/vconfd").write_text("in the way")

    assert run(machine).returncode == 1

    assert "key store folder /run/zol/vconfd cannot be used" in machine.log("main")


def test_detached_it_returns_when_it_listens(machine):
    assert run(machine, "--detach", "--idle-ms", "86400000").returncode == 0

    machine.set("db/k", "1", "int")

    machine.end_key_service()
