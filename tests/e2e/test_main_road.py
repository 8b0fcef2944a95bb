"""A policy arrives, a watched key reaches a forbidden value, a report is handed over."""
import json
import re
import signal

import pytest

from conftest import ACCEPTED, HANDOVER_KEY, RUNNING_KEY, TGID, int_rule, policy, wait_for

BACKLIGHT = "db/menu/picture/backlight"


def test_a_rule_that_already_holds_is_reported_when_the_policy_arrives(machine, daemon):
    machine.set("db/comss/hwduid", "ABCDEFGHIJKLMNOPQRST", "string")
    machine.set(BACKLIGHT, "10", "int")

    pushed = machine.push(policy(int_rule(BACKLIGHT, "IS", 10)))

    assert pushed.returncode == 0 and re.fullmatch(ACCEPTED, pushed.stdout)
    folder = machine.published()
    header = json.loads((folder / "header.json").read_text())
    event = wait_for(machine.kpi, "a KPI event")[0]
    evid = header.pop("evid")
    assert header == {"idtype": "HWDUID", "id": "ABCDEFGHIJKLM", "category": "ZOL", "tgid": TGID,
                      "lcid": "0123456789", "Content-Type": "multipart/form-data"}
    assert folder.name == f"{TGID}_{evid}"
    assert (event["type"], event["category"], event["event_id"]) == ("20_errdata", "ZOL", "EV007")
    assert (event["items"]["key"], event["items"]["value"]) == (BACKLIGHT, "10")
    assert event["items"]["evid"] == evid
    assert machine.get(RUNNING_KEY) == "true"


def test_a_key_that_changes_to_a_forbidden_value_is_reported(machine, daemon):
    machine.set(BACKLIGHT, "1", "int")
    machine.push(policy(int_rule(BACKLIGHT, "BETWEEN", greater=5, less=15)))
    assert machine.get(HANDOVER_KEY) == ""

    for turn, value in enumerate(("5", "15"), start=1):
        machine.set(BACKLIGHT, value, "int")
        machine.wait_log(f"[m_KeyChangedCb] key : {BACKLIGHT}", times=turn)
    assert machine.kpi() == []
    machine.set(BACKLIGHT, "14", "int")

    machine.published()
    events = wait_for(machine.kpi, "a KPI event")
    # A hit between two bounds is reported without its value: the text stands in.
    assert [event["items"]["value"] for event in events] == ["null"]


def test_paths_wait_in_a_queue_while_the_collector_is_slow(machine, daemon):
    machine.push(policy(int_rule(BACKLIGHT, "IS", 3)))

    for turn in (1, 2, 3):
        machine.set(BACKLIGHT, "3", "int")
        wait_for(lambda turn=turn: len(machine.kpi()) == turn, f"{turn} KPI events")
        machine.set(BACKLIGHT, "0", "int")
        machine.wait_log(f"[m_KeyChangedCb] key : {BACKLIGHT}", times=2 * turn)
    machine.wait_log("vconfkey is not empty, add current path to list", times=2)

    first = machine.get(HANDOVER_KEY)
    assert first
    for _ in range(3):
        assert machine.collect().joinpath("header.json").exists()
    machine.wait_log("m_notiPathList is empty, return")
    assert machine.get(HANDOVER_KEY) == ""


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL])
def test_the_stored_policy_is_applied_again_after_a_restart(machine, daemon, how):
    document = policy(int_rule(BACKLIGHT, "IS", 3))
    machine.push(document)
    assert daemon.stop(how) == (0 if how == signal.SIGTERM else -signal.SIGKILL)
    assert machine.path("/var/lib/zol/policy.xml").read_text() == document

    again = machine.start_daemon()
    machine.set(BACKLIGHT, "3", "int")

    machine.published()
    assert again.stop() == 0


def test_the_expiry_is_logged_once_policy_time_passes_it(machine):
    # The steered clock runs a hundred times as fast as ours: at more, a pass that a busy machine holds up looks
    # like a clock that was set.
    machine.env["ZOL_TEST_CLOCK_SPEED"] = "100"
    daemon = machine.start_daemon("zol_daemon_steered")
    machine.push(policy(int_rule(BACKLIGHT, "IS", 3), expires=60))

    machine.wait_log("Removing policy")

    assert machine.log().count("Removing policy") == 1
    assert machine.path("/var/lib/zol/policy.xml").exists()
    assert daemon.stop() == 0


def test_where_the_kernel_tells_no_ids_those_of_the_machine_are_taken_and_else_none(machine):
    for name in ("global_uniqueID", "life_cycleID"):
        machine.path(f"/proc/{name}").unlink()
    made = machine.path("/var/lib/zol/device")
    made.mkdir(parents=True)
    (made / "unique_id").write_text("made")
    machine.start_daemon()
    machine.set(BACKLIGHT, "10", "int")

    machine.push(policy(int_rule(BACKLIGHT, "IS", 10)))

    header = json.loads((machine.published() / "header.json").read_text())
    assert (header["tgid"], header["lcid"]) == ("made", "NULL")
