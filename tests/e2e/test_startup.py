"""How the daemon comes up, once on each device, and ends."""
import os
import re
import shutil
import signal
import subprocess

import pytest
from conftest import BIN, DEADLINE, HANDOVER_KEY, int_rule, policy

KEY = "db/menu/picture/backlight"

# Without the allocator's line: a sanitizer's allocator takes no options.
ORDER = [
    "Create g_main_loop",
    "test mode is on",
    "Dbus server created. Testmode: 0",
    "[TCCVLogger] start",
    "m_LoggingCsfs() end",
    "Loading start time from vconf",
    "vconf_set_bool(db/zol/corvel_policy) : 0",
    "volume level : -1",
    "Set policy information.",
    "Current policy:",
]
DEBUG_IMAGE = "Debug Image!"


def restart(machine):
    """Starts the daemon on a stored policy; its log then holds this start alone."""
    daemon = machine.start_daemon()
    assert machine.push(policy(int_rule(KEY, "IS", 3))).returncode == 0
    assert daemon.stop() == 0
    machine.path("/var/log/zol/system.log").unlink()
    return machine.start_daemon()


def positions(machine, lines):
    log = machine.log()
    assert all(line in log for line in lines), log
    return [log.index(line) for line in lines]


def test_a_debug_image_starts_in_one_fixed_order_with_the_recorder_last(machine):
    machine.path("/etc/debug").mkdir()
    daemon = restart(machine)
    machine.wait_log(DEBUG_IMAGE)

    found = positions(machine, ORDER + [DEBUG_IMAGE])

    assert found == sorted(found)
    assert daemon.stop() == 0


def test_a_product_image_starts_without_the_recorder(machine):
    daemon = restart(machine)
    machine.wait_log(ORDER[-1])

    found = positions(machine, ORDER)

    assert found == sorted(found)
    assert daemon.stop() == 0
    assert DEBUG_IMAGE not in machine.log()
    assert "no input device" not in machine.log("main")


def test_signals_behind_the_first_one_leave_the_teardown_and_its_status_alone(machine):
    daemon = machine.start_daemon()
    assert machine.push(policy(int_rule(KEY, "IS", 3))).returncode == 0

    while daemon.process.poll() is None:
        os.kill(daemon.pid(), signal.SIGTERM)
        os.kill(daemon.pid(), signal.SIGINT)

    assert daemon.process.returncode == 0, daemon.output()
    machine.wait_log("Destroyed")
    assert daemon.stop() == 0


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_each_of_its_signals_ends_the_daemon_in_order(machine, how):
    daemon = machine.start_daemon()

    assert daemon.stop(how) == 0


def test_a_backlog_is_reported_for_a_while_and_the_rest_is_given_up_with_a_count(machine):
    hits = 6000
    # Five seconds of this daemon are fifty milliseconds.
    machine.env["ZOL_TEST_CLOCK_SPEED"] = "100"
    daemon = machine.start_daemon("zol_daemon_steered")
    machine.set(KEY, "3", "int")
    assert machine.push(policy(*[int_rule(KEY, "IS", 3)] * hits)).returncode == 0

    assert daemon.stop() == 0

    given_up = re.findall(r"(\d+) hits are given up", machine.log())
    assert len(given_up) == 1
    assert int(given_up[0]) + len(machine.kpi()) == hits


def test_a_clock_beyond_the_calendar_ends_neither_the_start_nor_a_push(machine):
    machine.env["ZOL_TEST_CLOCK_AHEAD"] = str(8000 * 31556952)  # beyond the year 9999
    daemon = machine.start_daemon("zol_daemon_steered")
    assert machine.push(policy(int_rule(KEY, "IS", 3))).returncode == 0

    machine.set(KEY, "3", "int")

    assert (machine.collect() / "header.json").exists()
    assert daemon.stop() == 0
    assert "ZOL error" not in machine.log()


def run(machine, *arguments, program="zol_daemon"):
    return subprocess.run([BIN / program, *arguments], env=machine.env, capture_output=True, text=True,
                          timeout=DEADLINE, check=False)


@pytest.mark.parametrize("program", ["zol_daemon", "zol_daemon_steered"])
def test_questions_are_answered_and_other_arguments_refused_without_a_daemon(machine, program):
    def files():
        return set(machine.path("/var/lib").rglob("*")) | set(machine.path("/run").rglob("*"))

    before = files()
    helped = run(machine, "--help", program=program)
    assert (helped.returncode, helped.stderr) == (0, "")
    assert helped.stdout.startswith("Usage: zol_daemon ")

    version = run(machine, "--version", program=program)
    assert (version.returncode, version.stderr) == (0, "")
    assert version.stdout.startswith("zol_daemon 1.")

    for arguments in (["--hlep"], [""], ["--help", "--version"], ["start"]):
        refused = run(machine, *arguments, program=program)
        assert (refused.returncode, refused.stdout) == (2, "")
        assert refused.stderr == helped.stdout

    assert files() == before


@pytest.mark.parametrize("second", ["zol_daemon", "zol_daemon_steered"])
def test_a_second_daemon_of_a_device_says_so_and_touches_nothing(machine, daemon, second):
    machine.set(HANDOVER_KEY, "/tmp/zol/one", "string")
    machine.wait_log("test mode is on")

    result = run(machine, program=second)

    assert result.returncode == 3
    assert f"process {daemon.pid()} is the daemon" in result.stderr
    assert machine.get(HANDOVER_KEY) == "/tmp/zol/one"
    assert machine.log().count("test mode is on") == 1


def test_a_daemon_that_was_killed_leaves_no_lock_behind(machine):
    machine.start_daemon().stop(signal.SIGKILL)

    assert machine.start_daemon().stop() == 0


def test_on_a_device_without_a_run_folder_a_second_daemon_is_noticed_all_the_same(machine):
    shutil.rmtree(machine.path("/run"))
    machine.start_daemon()

    second = machine.start_daemon(wait=False)

    assert second.process.wait(timeout=DEADLINE) == 3


def test_devices_side_by_side_have_a_daemon_each(machine, other_machine):
    machine.start_daemon()

    assert other_machine.start_daemon().stop() == 0


def test_without_a_place_for_its_lock_the_daemon_runs_and_says_so(machine):
    machine.path("/run/zol/daemon.lock").mkdir(parents=True)

    daemon = machine.start_daemon()

    machine.wait_log("Unable to lock /run/zol/daemon.lock: ")
    assert daemon.stop() == 0
