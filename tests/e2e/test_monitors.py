"""Behaviour monitors on real sources of events: a mocked Bluetooth service, real files."""
import os
import time

import pytest

from conftest import TGID, int_rule, policy, wait_for
from services import Bluez

LAST_CONNECTED = "file/bluetooth/bt_last_connected_smart_rc"
FIRST, SECOND = "AA:BB:CC:DD:EE:01", "AA:BB:CC:DD:EE:02"
APP = "org.kaldo.example"
# A policy without a key rule would be commands-only.
RULE = int_rule("db/unused", "IS", 1)
CALLS = {31: "BtCountingCb() called, connected", 32: "BtLastConnectedCb() called, connected"}


def pairing(method, repetition=3, ignore=1, minutes=10):
    return policy(RULE, f'<monitor kind="3" name="remote" method="{method}" duration="{minutes}" '
                        f'repetition="{repetition}" reserve1="{ignore}"/>')


def install(repetition, app=APP):
    return policy(RULE, f'<monitor kind="1" id="{app}" name="Example" method="11" duration="60" '
                        f'repetition="{repetition}"/>')


@pytest.fixture
def bluez(machine):
    service = Bluez(machine)
    service.add_remote(FIRST)
    service.add_remote(SECOND)
    return service


class Remote:
    """Connects and disconnects, and waits each time until the daemon has heard of it."""

    def __init__(self, machine, bluez, method):
        self.machine, self.bluez, self.method = machine, bluez, method
        self.heard = 0

    def set_connected(self, address, connected):
        self.bluez.set_connected(address, connected)
        self.heard += 1
        self.machine.wait_log(CALLS[self.method], times=self.heard)


def push_and_await_pairing(machine, document):
    assert machine.push(document).returncode == 0
    machine.wait_log("[BtMonitor] success to register bt callback.")
    # The platform asks the service which devices there are; from then on it hears of changes.
    machine.wait_log("watching the Bluetooth devices", name="main")


def test_a_remote_that_reconnects_within_the_ignore_time_counts_once(machine, bluez, daemon):
    push_and_await_pairing(machine, pairing(31, repetition=2, ignore=600))
    remote = Remote(machine, bluez, 31)

    for connected in (True, False, True, False):
        remote.set_connected(FIRST, connected)

    machine.wait_log("called between ignoreTime, return", times=3)
    assert machine.log().count("Current Repetition : 1") == 1
    assert machine.kpi() == []


def test_a_remote_that_reconnects_repeatedly_is_reported(machine, bluez):
    # Two seconds outside the ignore time pass in two thousandths of ours.
    machine.env["ZOL_TEST_CLOCK_SPEED"] = "1000"
    daemon = machine.start_daemon("zol_daemon_steered")
    # A period that no slow machine leaves: at this speed ten minutes are over within 0.6 s.
    push_and_await_pairing(machine, pairing(31, repetition=3, ignore=1, minutes=100000))
    remote = Remote(machine, bluez, 31)

    for connected in (True, False, True):
        remote.set_connected(FIRST, connected)
        time.sleep(0.005)  # the steered clock moves on by five seconds

    event = wait_for(machine.kpi, "a KPI event")[0]
    assert event["items"]["zol_error_type"] == "3"
    assert event["items"]["app_name"] == "remote"
    assert event["items"]["zol_duration"] == "100000"
    assert event["items"]["zol_repetion"] == "3"
    assert (machine.published() / "header.json").exists()
    assert daemon.stop() == 0


def test_the_same_remote_connecting_again_is_a_hit_and_a_new_one_is_none(machine, bluez, daemon):
    machine.set(LAST_CONNECTED, "", "string")
    push_and_await_pairing(machine, pairing(32))
    remote = Remote(machine, bluez, 32)

    remote.set_connected(FIRST, True)
    machine.wait_log("m_LastConnectedId is empty, first pairing case")
    assert machine.get(LAST_CONNECTED) == FIRST
    remote.set_connected(FIRST, False)
    remote.set_connected(SECOND, True)
    machine.wait_log("m_LastConnectedId is different as currentId, new rc pairing case")
    assert machine.get(LAST_CONNECTED) == SECOND
    assert machine.kpi() == []
    remote.set_connected(SECOND, False)
    remote.set_connected(SECOND, True)

    machine.wait_log("m_LastConnectedId is same as currentId, abnormal case")
    event = wait_for(machine.kpi, "a KPI event")[0]
    assert event["items"]["zol_error_type"] == "3"
    assert machine.published().name.startswith(TGID)


def test_a_bluetooth_service_that_comes_late_is_heard(machine, daemon):
    machine.push(pairing(32))
    machine.wait_log("[BtMonitor] success to register bt callback.")

    bluez = Bluez(machine)
    bluez.add_remote(FIRST)
    machine.wait_log("watching the Bluetooth devices", name="main")

    Remote(machine, bluez, 32).set_connected(FIRST, True)


# --- installs -------------------------------------------------------------------------------------------


@pytest.fixture
def applications(machine):
    folder = machine.path("/home/.local/share/applications")
    folder.mkdir(parents=True)
    return folder


def desktop_file(turn):
    return f"[Desktop Entry]\nType=Application\nName=Example {'x' * turn}\nExec=example\n"


def by_write(folder, turn):
    (folder / f"{APP}.desktop").write_text(desktop_file(turn))


def by_rename_over(folder, turn):
    new = folder / f"{APP}.desktop.new"
    new.write_text(desktop_file(turn))
    new.rename(folder / f"{APP}.desktop")


def by_link(folder, turn):
    """As package tools do: the file lies elsewhere, a link to it is put in place by a rename."""
    target = folder.parent / f"target-{turn}.desktop"
    target.write_text(desktop_file(turn))
    link = folder / ".link.new"
    os.symlink(target, link)
    link.rename(folder / f"{APP}.desktop")


def await_installs(machine, count):
    machine.wait_log("[InstallMonitor] AppInstallCb(), event : 100", times=count)


@pytest.mark.parametrize("way", [by_write, by_rename_over, by_link])
def test_an_app_that_is_installed_three_times_is_reported(machine, applications, daemon, way):
    machine.push(install(repetition=3))
    machine.wait_log("APP INSTALL monitoring started.")

    for turn in (1, 2, 3):
        way(applications, turn)
        await_installs(machine, turn)

    event = wait_for(machine.kpi, "a KPI event")[0]
    assert event["items"]["app_id"] == APP
    assert event["items"]["app_name"] == "Example"
    assert event["items"]["zol_error_type"] == "1"
    assert machine.log().count("event : 100") == 3
    assert (machine.published() / "header.json").exists()


def test_a_folder_that_does_not_exist_yet_is_watched_when_it_appears(machine, daemon):
    machine.push(install(repetition=1))
    machine.wait_log("APP INSTALL monitoring started.")
    folder = machine.path("/usr/share/applications")

    folder.mkdir(parents=True)
    by_write(folder, 1)

    await_installs(machine, 1)
    assert wait_for(machine.kpi)[0]["items"]["app_id"] == APP


def test_monitors_and_rules_end_in_order_with_the_daemon(machine, bluez, applications):
    daemon = machine.start_daemon()
    push_and_await_pairing(machine, policy(
        RULE, '<monitor kind="3" name="remote" method="31" duration="1" repetition="5"/>',
        f'<monitor kind="1" id="{APP}" name="Example" method="11" duration="60" repetition="3"/>'))

    bluez.set_connected(FIRST, True)
    by_write(applications, 1)

    assert daemon.stop() == 0
