"""Bad input and broken surroundings: the daemon refuses, says so, and lives on."""
import os
import pathlib
import signal
import sqlite3
import struct

import dbus
import pytest

from conftest import BUILD, BUS_NAME, HANDOVER_KEY, RUNNING_KEY, TGID, int_rule, policy, wait_for

KEY = "db/menu/picture/backlight"
RULE = int_rule(KEY, "IS", 3)

SIGNATURE = b"serialization::archive"
# Bytes of a long, and of a length, on the machine that the daemon is built for.
LONG = 8 if (BUILD / "bin/zol_daemon").read_bytes()[4] == 2 else 4
HUGE = 2 ** (8 * LONG - 4)


def length(number):
    return number.to_bytes(LONG, "little")


# Library version, then the sizes of int, long, float and double, and the byte order.
ARCHIVE_HEADER = (length(len(SIGNATURE)) + SIGNATURE + struct.pack("<H", 18) + bytes([4, LONG, 4, 8]) +
                  struct.pack("<I", 1))


def archive(text, announced=None):
    data = text.encode()
    return ARCHIVE_HEADER + length(len(data) if announced is None else announced) + data


class Caller:
    """Calls the daemon with any bytes."""

    def __init__(self, machine):
        connection = dbus.bus.BusConnection(machine.bus.address)
        self.daemon = dbus.Interface(connection.get_object(BUS_NAME, "/org/zol/Daemon1"), "org.zol.Native1")

    def call(self, code, data):
        handled, reply = self.daemon.Call(dbus.Int32(code), dbus.ByteArray(data), timeout=60)
        return bool(handled), bytes(reply)


@pytest.fixture
def caller(machine, daemon):
    return Caller(machine)


def still_serving(machine):
    return machine.push(policy(RULE)).returncode == 0


def test_the_archive_of_these_tests_is_taken_and_no_bytes_or_another_code_are_not(machine, caller):
    assert caller.call(4, archive(policy(RULE))) == (True, ARCHIVE_HEADER + struct.pack("<i", 1))
    assert caller.call(5, archive(policy(RULE))) == (False, b"")
    assert caller.call(4, b"") == (False, b"")


@pytest.mark.parametrize("data", [
    b"\x00", os.urandom(16), os.urandom(4096), archive(policy(RULE))[:40], archive(policy(RULE))[:-1],
    archive("", announced=HUGE), length(HUGE) + SIGNATURE, archive("x", announced=2**31)],
    ids=["one byte", "16 random bytes", "4096 random bytes", "cut in the header", "last byte missing",
         "a huge string", "a huge signature", "a string of 2 GiB"])
def test_a_request_that_is_no_archive_is_answered_with_an_error(machine, daemon, caller, data):
    with pytest.raises(dbus.DBusException) as error:
        caller.call(4, data)

    assert error.value.get_dbus_name().startswith("org.zol.Error")
    assert still_serving(machine)


def test_malformed_policies_are_refused_and_the_stored_one_stays(machine, daemon):
    document = policy(RULE)
    machine.push(document)

    for bad in ("<zolitem><zols></zolitem>", "no xml at all", "\x01\x02\x03", '<a b="1" b="2"/>', "<a>&unknown;</a>"):
        pushed = machine.push(bad, "--force")
        assert pushed.returncode == 1, bad
        assert pushed.stderr.endswith(
            "zolctl: refused: the daemon could not parse or store the policy (see its log)\n")

    assert machine.path("/var/lib/zol/policy.xml").read_text() == document


def test_a_policy_of_ten_thousand_items_works(machine, daemon):
    rules = [int_rule(f"db/many/{i}", "IS", 3) for i in range(10000)]
    assert machine.push(policy(*rules)).returncode == 0

    machine.set("db/many/9999", "3", "int")

    assert [event["items"]["key"] for event in wait_for(machine.kpi)] == ["db/many/9999"]


@pytest.mark.parametrize("arguments", [
    (), ("nonsense",), ("--nonsense",), ("policy",), ("policy", "push"), ("policy", "push", "a", "b"),
    ("policy", "push", "a", "b\nc"), ("policy", "pull"), ("policy", "push", "-"),
    ("policy", "push", "/does/not/exist"), ("policy", "check"), ("policy", "check", "--xml", "a"), ("vconf",), ("vconf", "get"), ("vconf", "set", "k"),
    ("vconf", "set", "k", "1", "--type", "float"), ("vconf", "set", "k", "x", "--type", "int"), ("vconf", "watch"),
    ("kpi",), ("kpi", "list", "--xml")], ids=" ".join)
def test_zolctl_says_in_one_line_why_it_failed(machine, arguments):
    result = machine.zolctl(*arguments, stdin=policy(RULE), check=2)

    assert result.stdout == ""
    assert result.stderr.startswith("zolctl: ")
    assert result.stderr.count("\n") == 1


@pytest.mark.parametrize("file, why", [("/dev/zero", "larger than"), ("/", "cannot read")])
def test_zolctl_refuses_what_is_no_document(machine, daemon, file, why):
    assert why in machine.zolctl("policy", "push", file, check=2).stderr


def test_a_report_on_a_full_tmp_goes_out_without_its_header(machine):
    full = "mount -t tmpfs -o size=64k tmpfs $ZOL_ROOT/tmp && ! cat /dev/zero > $ZOL_ROOT/tmp/fill && exec $0"
    root = [] if os.geteuid() == 0 else ["--map-root-user"]
    daemon = machine.start_daemon(wrapper=["unshare", "--mount", *root, "sh", "-c", full])
    machine.push(policy(RULE))

    machine.set(KEY, "3", "int")

    path = wait_for(lambda: machine.get(HANDOVER_KEY), "a published path")
    # As the daemon sees it.
    folder = pathlib.Path(f"/proc/{daemon.pid()}/root{machine.path(path)}")
    assert list(folder.iterdir()) == []
    assert machine.log().count(f"cannot write {path}/header.json: No space left on device") == 1
    assert [event["items"]["key"] for event in machine.kpi()] == [KEY]
    assert daemon.stop() == 0


def test_report_folders_that_nobody_collects_are_bounded(machine):
    for number in range(1000):
        folder = machine.path(f"/tmp/zol/{TGID}_{number}")
        folder.mkdir(parents=True)
        (folder / "header.json").write_text("{}")
        os.utime(folder, (number, number))
    daemon = machine.start_daemon()
    machine.push(policy(RULE))

    machine.set(KEY, "3", "int")

    machine.wait_log("488 report folders that nobody collected are removed")
    left = {folder.name for folder in machine.path("/tmp/zol").iterdir()}
    assert left == {f"{TGID}_{number}" for number in range(488, 1000)} | {machine.published().name}
    assert daemon.stop() == 0


def test_a_damaged_store_is_set_aside_and_the_daemon_comes_up(machine):
    store = machine.path("/var/lib/zol/vconfd")
    store.mkdir(parents=True, exist_ok=True)
    (store / "vconf.db").write_bytes(b"SQLite format 3\0" + b"\xa5" * 8192)

    daemon = machine.start_daemon()

    aside = [file for file in store.iterdir() if file.name == "vconf.db.damaged"]
    assert len(aside) == 1 and aside[0].stat().st_size == 8208
    assert machine.get(RUNNING_KEY) == "false"
    wait_for(lambda: "damaged" in machine.log("main"), "a line about the damaged store")
    machine.push(policy(RULE))
    machine.set(KEY, "3", "int")
    assert machine.published().exists()
    assert daemon.stop() == 0


def test_a_locked_store_does_not_keep_the_daemon_from_coming_up(machine):
    machine.set(KEY, "1", "int")
    machine.end_key_service()
    holder = sqlite3.connect(machine.path("/var/lib/zol/vconfd/vconf.db"), isolation_level=None)
    holder.execute("BEGIN IMMEDIATE")

    daemon = machine.start_daemon()

    wait_for(lambda: "locked" in machine.log("main"), "a line about the locked store")
    holder.execute("ROLLBACK")
    assert still_serving(machine)
    assert daemon.stop() == 0


def test_a_running_flag_that_cannot_be_cleared_does_not_switch_monitoring_off(machine):
    daemon = machine.start_daemon()
    machine.push(policy(RULE))
    assert machine.get(RUNNING_KEY) == "true"
    daemon.stop(signal.SIGKILL)
    machine.end_key_service()
    holder = sqlite3.connect(machine.path("/var/lib/zol/vconfd/vconf.db"), isolation_level=None)
    holder.execute("BEGIN IMMEDIATE")

    daemon = machine.start_daemon(wait=False)

    machine.wait_log("vconf_set_bool(db/zol/corvel_policy) failed")
    machine.wait_log("not all of the policy is watched: trying again until it is")
    holder.close()
    machine.wait_log(f"[{KEY}] registered", times=2)
    machine.wait_log("vconf_set_bool(db/zol/corvel_policy) : 1 sucessful", times=2)
    machine.set(KEY, "3", "int")
    assert machine.published().exists()
    assert daemon.stop() == 0


def test_sets_of_tasks_beside_one_another_are_bounded(machine, daemon):
    def push_and_clear(key):
        assert machine.push(policy(int_rule(key, "IS", 3))).returncode == 0
        assert machine.push("<zolitem/>", "--force").returncode == 0

    for number in range(8):
        push_and_clear(f"db/set/{number}")
    threads = len(os.listdir(f"/proc/{daemon.pid()}/task"))

    push_and_clear("db/set/8")

    machine.wait_log("8 sets of tasks run already, the policy is applied at the next start")
    assert len(os.listdir(f"/proc/{daemon.pid()}/task")) <= threads
    assert "[db/set/8] registered" not in machine.log()


def test_a_name_that_is_taken_is_served_once_it_is_free(machine):
    # A connection of its own: the name goes with it.
    connection = dbus.bus.BusConnection(machine.bus.address)
    connection.request_name(BUS_NAME, dbus.bus.NAME_FLAG_DO_NOT_QUEUE)
    daemon = machine.start_daemon(wait=False)
    wait_for(lambda: BUS_NAME in machine.log("main"), "a line about the name")

    connection.release_name(BUS_NAME)

    wait_for(lambda: machine.push(policy(RULE)).returncode == 0, "the daemon to serve")
    assert daemon.stop() == 0


def test_a_bus_that_goes_away_and_comes_back_is_served_again(machine):
    daemon = machine.start_daemon()
    machine.push(policy(RULE))
    machine.bus.stop()
    machine.set(KEY, "3", "int")
    assert machine.collect().exists()

    machine.bus.start()

    daemon.wait_until_serving()
    assert still_serving(machine)
    assert daemon.stop() == 0


@pytest.mark.parametrize("appears", [True, False])
def test_a_daemon_that_starts_without_a_bus_comes_alive_with_it_and_ends_in_order(machine, appears):
    machine.bus.stop()
    daemon = machine.start_daemon(wait=False)
    wait_for(lambda: machine.get(RUNNING_KEY) == "false", "the daemon's start")

    if appears:
        machine.bus.start()
        daemon.wait_until_serving()

    assert daemon.stop() == 0


def test_a_trap_file_of_nonsense_is_told_by_line_and_the_good_line_counts(machine):
    machine.path("/etc/zol").mkdir()
    machine.path("/etc/zol/traps.conf").write_bytes(
        b"\x00\xff\x01 nonsense\nbad S:F eight signed > 1\nloud ZOLCVLogger:LogVolumeLevel 0 signed > 80\n"
        b"# fine\nname nowhere\n")
    daemon = machine.start_daemon()

    for line in (1, 2, 5):
        machine.wait_log(f"/etc/zol/traps.conf: line {line} skipped: ", name="main")
    assert machine.log("main").count("skipped: ") == 3
    assert still_serving(machine)
    assert daemon.stop() == 0


def test_a_kpi_event_that_cannot_be_stored_is_stored_at_the_daemons_end(machine, daemon):
    machine.push(policy(RULE))
    log = machine.path("/var/lib/zol/kpi.db")
    log.mkdir()
    machine.set(KEY, "3", "int")
    machine.published()
    machine.wait_log("could not send event log")
    log.rmdir()

    assert daemon.stop() == 0

    assert [event["items"]["key"] for event in machine.kpi()] == [KEY]
