"""A policy arrives, a watched key reaches a forbidden value, a report is handed over."""
import json
import signal

from conftest import HANDOVER_KEY, RUNNING_KEY, TGID, int_rule, policy, string_rule, wait_for

BACKLIGHT = "db/menu/picture/backlight"


def test_a_rule_that_already_holds_is_reported_when_the_policy_arrives(machine, daemon):
    machine.set("db/comss/hwduid", "ABCDEFGHIJKLMNOPQRST", "string")
    machine.set(BACKLIGHT, "10", "int")

    pushed = machine.push(policy(int_rule(BACKLIGHT, "IS", 10)))

    assert (pushed.returncode, pushed.stdout) == (0, "accepted\n")
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


def test_a_text_key_is_compared_byte_by_byte(machine, daemon):
    machine.set("file/menu/mode", "home", "string")
    machine.push(policy(string_rule("file/menu/mode", "IS", "shop")))

    machine.set("file/menu/mode", "Shop", "string")
    machine.wait_log("[m_KeyChangedCb] key : file/menu/mode")
    assert machine.kpi() == []
    machine.set("file/menu/mode", "shop", "string")

    machine.published()
    assert [event["items"]["value"] for event in wait_for(machine.kpi)] == ["shop"]


def test_three_hits_at_the_start_make_three_events_and_one_path(machine, daemon):
    for name in "abc":
        machine.set(f"db/rule/{name}", "7", "int")

    machine.push(policy(*(int_rule(f"db/rule/{name}", "IS", 7) for name in "abc")))

    machine.published()
    events = wait_for(lambda: len(machine.kpi()) == 3 and machine.kpi(), "three KPI events")
    assert [event["items"]["key"] for event in events] == ["db/rule/a", "db/rule/b", "db/rule/c"]
    assert len({event["items"]["evid"] for event in events}) == 1
    machine.collect()
    machine.wait_log("m_notiPathList is empty, return")


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


def test_the_stored_policy_is_applied_again_after_a_restart(machine, daemon):
    document = policy(int_rule(BACKLIGHT, "IS", 3))
    machine.push(document)
    assert daemon.stop() == 0
    assert machine.path("/var/lib/zol/policy.xml").read_text() == document

    again = machine.start_daemon()
    machine.set(BACKLIGHT, "3", "int")

    machine.published()
    assert again.stop() == 0


def test_the_stored_policy_survives_a_killed_daemon(machine, daemon):
    machine.push(policy(int_rule(BACKLIGHT, "IS", 3)))
    daemon.stop(signal.SIGKILL)

    again = machine.start_daemon()
    machine.set(BACKLIGHT, "3", "int")

    machine.published()
    assert again.stop() == 0


def test_a_policy_of_commands_only_leaves_the_stored_one_and_clears_the_flag(machine, daemon):
    document = policy(int_rule(BACKLIGHT, "IS", 3))
    machine.push(document)

    assert machine.push(policy()).returncode == 0

    assert machine.path("/var/lib/zol/policy.xml").read_text() == document
    assert machine.get(RUNNING_KEY) == "false"
    machine.set(BACKLIGHT, "3", "int")
    machine.published()


def test_an_update_while_monitoring_runs_is_stored_and_applied_at_the_next_start(machine, daemon):
    machine.push(policy(int_rule(BACKLIGHT, "IS", 3)))
    second = policy(int_rule("db/other", "IS", 9))

    assert machine.push(second).returncode == 0

    machine.wait_log("Monitoring is already running.")
    assert machine.path("/var/lib/zol/policy.xml").read_text() == second
    machine.set("db/other", "9", "int")
    machine.set(BACKLIGHT, "3", "int")
    assert [e["items"]["key"] for e in wait_for(machine.kpi)] == [BACKLIGHT]
    daemon.stop()
    again = machine.start_daemon()
    wait_for(lambda: [e["items"]["key"] for e in machine.kpi()] == [BACKLIGHT, "db/other"], "the second rule")
    assert again.stop() == 0


def test_a_policy_whose_items_are_all_invalid_starts_nothing(machine, daemon):
    pushed = machine.push(policy('<zols key="k" condition="GREATER" type="INT" greater="10"/>',
                                 '<zols key="k" condition="IS" type="STRING"/>'))

    assert pushed.returncode == 0
    machine.wait_log("policy_monitorCnt is zero")
    assert machine.get(RUNNING_KEY) == "false"
    assert machine.log().count("> removed") == 2


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


def test_sigint_ends_the_daemon_in_order(machine, daemon):
    machine.push(policy(int_rule(BACKLIGHT, "IS", 3)))

    assert daemon.stop(signal.SIGINT) == 0
