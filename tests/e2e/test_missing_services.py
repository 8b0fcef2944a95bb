"""A daemon without the services around it comes up, says once what is missing, and ends in order."""
import pytest

from conftest import int_rule, policy
from recording import START, Recorder
from services import Bluez, Logind

KEY = "db/menu/picture/backlight"
POLICY = policy(int_rule(KEY, "IS", 3),
                '<monitor kind="3" name="remote" method="31" duration="10" repetition="3" reserve1="1"/>')
MISSING = ["BlueZ is missing: no remote control connections until it appears",
           "logind is missing: no power notifications until it appears"]
NO_BUS = ["no system bus for BlueZ", "no system bus for logind"]
NO_INPUT = "no input device in /dev/input: no key combinations until one appears"


@pytest.fixture
def image(machine):
    """A debug image with a stored policy that needs every service."""
    daemon = machine.start_daemon()
    assert machine.push(POLICY).returncode == 0
    assert daemon.stop() == 0
    machine.path("/etc/debug").touch()
    for name in ("main", "system"):
        machine.path(f"/var/log/zol/{name}.log").unlink()
    return machine


def wait_each(machine, lines):
    for line in lines:
        machine.wait_log(line, name="main")


def counts(machine, lines):
    return [machine.log("main").count(line) for line in lines]


def test_a_bus_without_services_and_no_input_device_are_each_told_once(image):
    daemon = image.start_daemon()

    wait_each(image, MISSING + [NO_INPUT])
    image.set(KEY, "3", "int")
    assert image.collect().joinpath("header.json").exists()
    assert image.push(POLICY).returncode == 0

    assert daemon.stop() == 0
    assert counts(image, MISSING + [NO_INPUT]) == [1, 1, 1]


def test_no_system_bus_is_told_once_for_each_service_and_the_daemon_reports_all_the_same(image):
    image.bus.stop()
    daemon = image.start_daemon(wait=False)

    wait_each(image, NO_BUS + [NO_INPUT])
    image.set(KEY, "3", "int")
    assert image.collect().joinpath("header.json").exists()
    # Its next attempts find the bus.
    image.bus.start()
    wait_each(image, MISSING)

    assert daemon.stop() == 0
    assert counts(image, NO_BUS + MISSING + [NO_INPUT]) == [1] * 5


def test_services_that_come_late_and_go_are_told_once_for_each_change(image):
    daemon = image.start_daemon()
    wait_each(image, MISSING)
    there = ["BlueZ is there: remote control connections work", "logind is there: power notifications work"]

    for turn in (1, 2):
        services = Bluez(image), Logind(image)
        for line in there:
            image.wait_log(line, times=turn, name="main")
        for service in services:
            service.stop()
        for line in MISSING:
            image.wait_log(line, times=turn + 1, name="main")

    assert daemon.stop() == 0
    assert counts(image, there + MISSING) == [2, 2, 3, 3]


@pytest.fixture
def recorder(image):
    recorder = Recorder(image)
    yield recorder
    recorder.close()


def test_no_storage_service_is_told_once_when_a_recording_is_wanted(image, recorder):
    recorder.udisks.stop()
    recorder.start()
    lines = ["UDisks2 unavailable"]
    assert counts(image, lines) == [0]

    for turn in (1, 2):
        recorder.press(START, "[TestRecording] Fail to get USB Path", times=turn)

    assert recorder.daemon.stop() == 0
    assert counts(image, lines) == [1]
    assert image.log().count("[TestRecording]failed to get mass storage list from usb-server") == 2


def test_no_system_bus_is_told_when_a_recording_is_wanted(image, recorder):
    recorder.start()
    image.bus.stop()

    for turn in (1, 2):
        recorder.press(START, "[TestRecording] failed to initialize usb device", times=turn)

    assert recorder.daemon.stop() == 0
    assert counts(image, ["no system bus for UDisks2"]) == [1]


def test_no_session_bus_and_no_display_are_told_when_a_recording_needs_them(image, recorder):
    del image.env["DBUS_SESSION_BUS_ADDRESS"]
    recorder.start()
    lines = ["nobody shows notifications", "no display to capture"]
    assert counts(image, lines) == [0, 0]

    recorder.press(START, "[TestRecording] StartDlog cmd is")
    recorder.finish()

    assert recorder.daemon.stop() == 0
    # Each toast is a program of its own, which says it once.
    assert counts(image, lines) == [2, 1]
    assert (recorder.stick / "testrecording.tar.gz").exists()
