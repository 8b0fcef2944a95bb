"""The order in which the daemon builds its objects, as its log tells it."""
import os
import signal

from conftest import int_rule, policy

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
