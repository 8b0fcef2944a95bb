"""Toasts through the launcher, as anything on the device shows them."""
import subprocess

import pytest

from conftest import BIN, PrivateBus
from services import Notifications

TOAST = ["-s", "org.kaldo.alert-syspopup", "type", "toast", "text", "Hello <b>& goodbye</b>", "timeout", "7"]


@pytest.fixture
def session(machine):
    bus = PrivateBus(machine.folder, "session")
    bus.start()
    machine.env["DBUS_SESSION_BUS_ADDRESS"] = bus.address
    yield bus
    bus.stop()


def launch(machine, *arguments):
    result = subprocess.run([BIN / "app_launcher", *arguments], env=machine.env, capture_output=True, text=True,
                            check=False)
    return result.returncode, result.stderr.splitlines()


def test_a_toast_is_shown_with_its_text_and_time(machine, session):
    viewer = Notifications(machine, session.address)

    assert launch(machine, *TOAST) == (0, [])

    assert viewer.toasts() == [("Hello <b>& goodbye</b>", 7000)]


def test_an_unknown_application_is_one_line_and_a_failure(machine, session):
    viewer = Notifications(machine, session.address)

    status, lines = launch(machine, "-s", "org.kaldo.unknown", *TOAST[2:])

    assert (status, lines) == (2, ['app_launcher: unknown application "org.kaldo.unknown"'])
    assert viewer.toasts() == []


@pytest.mark.parametrize("bus", ["a bus", "a dead bus", "no bus"])
def test_nobody_who_shows_toasts_is_one_line_and_a_failure(machine, session, bus):
    if bus == "a dead bus":
        session.stop()
    if bus == "no bus":
        del machine.env["DBUS_SESSION_BUS_ADDRESS"]

    assert launch(machine, *TOAST) == (1, ["app_launcher: nobody shows notifications"])

    assert machine.log("main").count("nobody shows notifications: ") == 1
