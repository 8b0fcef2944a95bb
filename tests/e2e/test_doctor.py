"""zolctl doctor: what is as it should be and what is not."""
import json
import re
import signal
import subprocess
import time

from conftest import BIN, int_rule, policy

RULE = int_rule("db/menu/level", "IS", 3)


def looked_at(result):
    """By what was looked at: whether it is as it should be, and the words."""
    lines = [line.split("\t") for line in result.stdout.splitlines()]
    return {name: (verdict, text) for verdict, name, text in lines}


def test_a_daemon_that_lacks_a_service_only_is_told_so(machine, daemon):
    del daemon
    machine.push(policy(RULE))

    found = looked_at(machine.zolctl("doctor", check=1))

    assert found.pop("services") == ("wrong", "logind missing; rules that need them wait until they are there")
    assert {verdict for verdict, _ in found.values()} == {"ok"}
    assert found["daemon"] == ("ok", "answers, version 1.0.0")
    assert found["keys"] == ("ok", "the key store answers, no report is published")
    assert found["policy"] == ("ok", "the stored one is sound") and found["events"] == ("ok", "0 in the log, 0 dropped")
    assert set(found) == {"daemon", "keys", "policy", "events", "state", "reports", "clock"}


def test_what_is_wrong_is_told_with_what_to_do(machine):
    machine.path("/var/lib/zol").mkdir(parents=True, exist_ok=True)
    machine.path("/var/lib/zol/policy.xml").write_text("<zolitem><zols")
    machine.path("/var/lib/zol/kpi.db").write_text("no database" * 1000)
    machine.spoil_key_store()
    machine.path("/tmp").rmdir()

    found = looked_at(machine.zolctl("doctor", check=1))

    assert found["daemon"][0] == "wrong" and found["daemon"][1].endswith("; is the bus there, and does zol_daemon run? "
                                                                         "systemctl status dbus zol")
    assert found["keys"][0] == "wrong"
    assert found["policy"] == ("wrong", "the stored one has errors; zolctl policy check "
                               f"{machine.path('/var/lib/zol/policy.xml')}")
    assert found["events"] == ("wrong", "the event log cannot be read; see the log")
    assert found["reports"] == ("wrong", "/tmp: No such file or directory; systemd-tmpfiles --create")
    assert found["state"][0] == found["clock"][0] == "ok"


def test_a_clock_that_was_not_set_is_told(machine):
    def clock(ahead):
        told = subprocess.run([BIN / "zolctl_steered", "doctor"], text=True, timeout=60, check=False,
                              env={**machine.env, "ZOL_TEST_CLOCK_AHEAD": str(ahead)}, capture_output=True)
        return looked_at(told)["clock"]

    since_1970 = int(time.time())
    verdict, text = clock(-since_1970)
    assert verdict == "wrong"
    assert re.fullmatch(r"it is 1970-01-01T\S+Z; set it: policies expire and reports are named by it", text)
    assert clock(1767225600 + 3600 - since_1970)[0] == "ok"
    assert clock(1767225600 - 3600 - since_1970)[0] == "wrong"


def test_a_daemon_that_hangs_is_told(machine, daemon):
    daemon.process.send_signal(signal.SIGSTOP)

    found = looked_at(machine.zolctl("doctor", check=1))

    daemon.process.send_signal(signal.SIGCONT)
    assert found["daemon"][0] == "wrong" and "Timeout" in found["daemon"][1]


def test_programs_get_it_as_json(machine, daemon):
    del daemon
    found = json.loads(machine.zolctl("doctor", "--json", check=1).stdout)

    assert [one["name"] for one in found if not one["ok"]] == ["services"]
    assert all((one["advice"] == "") == one["ok"] for one in found)
