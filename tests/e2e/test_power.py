"""Standby, wake-up and power-off on a mocked power service."""
import pytest

from conftest import int_rule, policy, wait_for
from services import Logind, Subscriber

KEY = "db/menu/picture/backlight"
PREPARED = "db/private/tvs-cv/power_on_prepared"
RULE = int_rule(KEY, "IS", 3)
ALIVE = "logind is there: power notifications work"
MISSING = "logind is missing"


@pytest.fixture
def logind(machine):
    return Logind(machine)


@pytest.fixture
def listening(machine, logind):
    """A daemon that hears the power service."""
    daemon = machine.start_daemon()
    machine.wait_log(ALIVE, name="main")
    # It asks for the lock once it has subscribed.
    wait_for(logind.is_held_up, "the delay lock")
    yield daemon
    if daemon.process.poll() is None:
        assert daemon.stop() == 0


@pytest.mark.parametrize("going", ["prepare_for_sleep", "prepare_for_shutdown"])
def test_subscribers_are_told_before_standby_and_before_the_machine_goes_off(machine, logind, listening, going):
    subscribers = [Subscriber(machine, "answer") for _ in range(2)]

    getattr(logind, going)(True)

    assert [subscriber.next_line() for subscriber in subscribers] == ["code 5", "code 5"]
    machine.wait_log("Power off callback successfuly executed!")


def test_standby_waits_until_five_subscribers_have_answered(machine, logind, listening):
    wait_for(logind.is_held_up, "the delay lock")
    subscribers = [Subscriber(machine, "ask") for _ in range(5)]

    logind.prepare_for_sleep(True)

    for subscriber in subscribers:
        assert subscriber.next_line() == "code 5"
        assert logind.is_held_up()
        subscriber.answer()
    wait_for(lambda: not logind.is_held_up(), "the delay lock to go")


def test_standby_waits_for_a_subscriber_no_longer_than_the_power_service_does(machine, logind):
    logind.limit_delays(300)
    machine.start_daemon()
    wait_for(logind.is_held_up, "the delay lock")
    hanging = Subscriber(machine, "hang")

    logind.prepare_for_sleep(True)

    assert hanging.next_line() == "code 5"
    wait_for(lambda: not logind.is_held_up(), "the delay lock to go")


def test_a_wake_up_prepares_power_on(machine, logind, listening):
    assert machine.push(policy(RULE)).returncode == 0
    assert machine.get(PREPARED) == "false"

    logind.prepare_for_sleep(True)
    logind.prepare_for_sleep(False)

    wait_for(lambda: machine.get(PREPARED) == "true", "the prepared power-on")
    assert machine.push(policy(), "--force").returncode == 0
    assert machine.get(PREPARED) == "false"


def test_a_subscriber_that_never_answers_stops_nothing(machine, logind, listening):
    hanging = Subscriber(machine, "hang")
    logind.prepare_for_sleep(True)
    assert hanging.next_line() == "code 5"

    assert machine.push(policy(RULE)).returncode == 0
    machine.set(KEY, "3", "int")
    assert machine.collect().joinpath("header.json").exists()
    machine.wait_log("m_notiPathList is empty, return")

    assert listening.stop() == 0


def test_a_subscriber_that_dies_counts_as_no_reply_like_nobody(machine, logind, listening):
    logind.prepare_for_sleep(True)
    machine.wait_log("No application responded to power off notification!")

    hanging = Subscriber(machine, "hang")
    logind.prepare_for_sleep(True)
    assert hanging.next_line() == "code 5"
    hanging.process.kill()

    machine.wait_log("No application responded to power off notification!", times=2)


def test_a_power_service_that_comes_late_and_comes_back_is_heard(machine, daemon):
    subscriber = Subscriber(machine, "answer")

    for turn in (1, 2):
        logind = Logind(machine)
        machine.wait_log(ALIVE, times=turn, name="main")
        wait_for(logind.is_held_up, "the delay lock")
        logind.prepare_for_sleep(True)
        assert subscriber.next_line() == "code 5"
        logind.stop()
        machine.wait_log(MISSING, times=turn + 1, name="main")
