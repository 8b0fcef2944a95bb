"""The D-Bus interface org.zol.Policy1 as a client in another language meets it."""
import hashlib
import time

import dbus
import dbus.bus
import pytest

from conftest import BUS_NAME, HANDOVER_KEY, int_rule, policy, string_rule, wait_for

OBJECT = "/org/zol/Daemon1"
INTERFACE = "org.zol.Policy1"
RULE = int_rule("db/menu/level", "IS", 3)
PAIRING = '<monitor kind="3" method="31" name="remote" duration="5" repetition="2" reserve1="0"/>'


@pytest.fixture(name="proxy")
def make_proxy(machine, daemon):
    del daemon
    connection = dbus.bus.BusConnection(machine.bus.address)
    yield connection.get_object(BUS_NAME, OBJECT, introspect=False)
    connection.close()


def read(proxy, name):
    return proxy.Get(INTERFACE, name, dbus_interface="org.freedesktop.DBus.Properties")


def call(proxy, method, *arguments):
    return getattr(dbus.Interface(proxy, INTERFACE), method)(*arguments)


def digest(text):
    return hashlib.sha256(text.encode()).hexdigest()


def test_a_policy_that_is_set_runs_and_another_one_waits_for_the_next_start(machine, daemon, proxy):
    first, second = policy(RULE, expires=100), policy(RULE, expires=200)
    assert tuple(read(proxy, "PolicyDigest")) == ("", "")
    assert not read(proxy, "Monitoring") and (read(proxy, "Since"), read(proxy, "Expires")) == (0, 0)

    assert call(proxy, "SetPolicy", first)[:2] == (True, "running")
    assert read(proxy, "Monitoring")
    assert abs(read(proxy, "Since") - time.time()) < 60
    assert abs(read(proxy, "Expires") - time.time() - 100) < 60
    assert call(proxy, "SetPolicy", second)[:2] == (True, "stored")

    assert tuple(read(proxy, "PolicyDigest")) == (digest(second), digest(first))
    assert call(proxy, "SetPolicy", "<zolitem/>")[:2] == (True, "nothing to watch")
    assert call(proxy, "SetPolicy", "<zolitem>")[:2] == (True, "nothing to watch"), "cut short, and so without a rule"
    assert call(proxy, "SetPolicy", "no policy")[:2] == (False, "refused")
    assert machine.path("/var/lib/zol/policy.xml").read_text() == second
    daemon.stop()
    machine.start_daemon()
    proxy = dbus.bus.BusConnection(machine.bus.address).get_object(BUS_NAME, OBJECT, introspect=False)
    assert tuple(read(proxy, "PolicyDigest")) == (digest(second), digest(second))


def test_rules_are_counted_and_explained_with_what_holds_now(machine, proxy):
    machine.set("db/held", "7", "int")
    machine.set("db/text", "here", "string")
    call(proxy, "SetPolicy", policy(RULE, int_rule("db/held", "GREATER", 5), string_rule("db/text", "IS", "there"),
                                    int_rule("db/menu/level", "BETWEEN", greater=1, less=9),
                                    int_rule("db/dropped", "IS"), PAIRING))

    assert (read(proxy, "RulesWatched"), read(proxy, "RulesDropped")) == (5, 1)
    machine.set("db/menu/level", "4", "int")
    rules = call(proxy, "Explain", "")
    assert [dict(rule) for rule in rules] == [
        {"kind": "key", "set": 1, "item": 1, "key": "db/menu/level", "condition": "IS", "type": "INT", "intvalue": 3,
         "state": "watched", "value-type": "int", "value": 4, "holds": False},
        {"kind": "key", "set": 1, "item": 2, "key": "db/held", "condition": "GREATER", "type": "INT", "intvalue": 5,
         "state": "reported at the start", "value-type": "int", "value": 7, "holds": True},
        {"kind": "key", "set": 1, "item": 3, "key": "db/text", "condition": "IS", "type": "STRING",
         "strvalue": "there", "state": "watched", "value-type": "string", "value": "here", "holds": False},
        {"kind": "key", "set": 1, "item": 4, "key": "db/menu/level", "condition": "BETWEEN", "type": "INT",
         "greater": 1, "less": 9, "state": "watched", "judged-by": 1, "value-type": "int", "value": 4, "holds": True},
        {"kind": "pairing", "set": 1, "item": 1, "method": 31, "period": 300, "repetition": 2, "count": 0,
         "state": "watched", "ignore": 10}]
    assert call(proxy, "Explain", "db/held") == [rules[1]]
    assert call(proxy, "Explain", "db/none") == []


def test_a_hit_and_a_change_are_told_to_whoever_listens(machine, daemon, proxy):
    del daemon
    listener = machine.start("gdbus", "monitor", "--address", machine.bus.address, "--dest", BUS_NAME,
                             stdout=(machine.folder / "told").open("wb"))
    told = machine.folder / "told"
    wait_for(lambda: "is owned by" in told.read_text(), "the listener")
    call(proxy, "SetPolicy", policy(RULE))
    wait_for(lambda: "PropertiesChanged" in told.read_text(), "the change")
    assert "'Monitoring': <true>" in told.read_text() and "'RulesWatched': <uint32 1>" in told.read_text()

    machine.set("db/menu/level", "3", "int")
    wait_for(lambda: "org.zol.Policy1.Hit" in told.read_text(), "the hit")
    listener.terminate()

    when, rule, value, report = read(proxy, "LastHit")
    assert (rule, value) == ("db/menu/level", "3") and abs(when - time.time()) < 60
    assert report == machine.get(HANDOVER_KEY)
    assert f"org.zol.Policy1.Hit (uint64 {when}, 'db/menu/level', '3', '{report}')" in told.read_text()
    machine.set("db/menu/level", "3", "int")
    wait_for(lambda: read(proxy, "PathsWaiting") == 1, "a second report in line")


def test_version_and_missing_services_are_told(proxy):
    assert read(proxy, "Version") == "1.0.0"
    assert read(proxy, "PolicyVersion") == -1
    call(proxy, "SetPolicy", policy(RULE, PAIRING))
    wait_for(lambda: list(read(proxy, "MissingServices")) == ["BlueZ", "logind"], "the missing services")
    everything = proxy.GetAll(INTERFACE, dbus_interface="org.freedesktop.DBus.Properties")
    assert sorted(everything) == ["Expires", "LastHit", "MissingServices", "Monitoring", "PathsWaiting", "PolicyDigest",
                                  "PolicyVersion", "RulesDropped", "RulesWatched", "Since", "Version"]


def test_what_is_wrong_with_a_policy_is_told_and_nothing_else_is_done(machine, proxy):
    wrong = policy(int_rule("db/x", "IS"), '<zolss key="db/y"/>')

    remarks = call(proxy, "Check", wrong)

    assert [tuple(remark)[:4] for remark in remarks] == [
        (2, 1, "error", "nothing-watched"), (4, 3, "error", "dropped"), (5, 3, "warning", "unknown-element")]
    assert "zols" in remarks[2][5]
    assert call(proxy, "SetPolicy", wrong) == (True, "nothing to watch", remarks)
    assert call(proxy, "Check", "no policy")[0][2:4] == ("error", "refused")
    stored = machine.path("/var/lib/zol/policy.xml").read_text()
    assert call(proxy, "Check", policy(RULE)) == []
    assert machine.path("/var/lib/zol/policy.xml").read_text() == stored
