"""What zolctl tells of the policy that was pushed and of what runs."""
import json
import os
import re
import signal
import subprocess
import time

import pytest

from conftest import BIN, HANDOVER_KEY, int_rule, policy, processes_on, string_rule, wait_for
from services import MOCK, Mock

NUMBER = "db/menu/level"
TEXT = "db/menu/text"
PAIRING = '<monitor kind="3" method="31" name="remote" duration="5" repetition="2" reserve1="15"/>'
INSTALL = '<monitor kind="1" method="11" id="org.kaldo.example" name="Example" duration="60" repetition="3"/>'
MINUTE = r"\d{4}-\d\d-\d\d \d\d:\d\d"
DIGEST = r"[0-9a-f]{64}"
UNREACHABLE = "zolctl: the daemon cannot be reached: "


def lines_of(result):
    """The text behind each name."""
    return dict(line.split("\t", 1) for line in result.stdout.splitlines())


def test_a_push_tells_what_became_of_the_policy(machine, daemon):
    first = policy(int_rule(NUMBER, "IS", 3), int_rule("db/dropped", "IS"), PAIRING, expires=86400)

    running = machine.push(first, "--force")
    again = machine.push(first, "--force")
    stored = machine.push(policy(int_rule(NUMBER, "IS", 4)))
    nothing = machine.push(policy(PAIRING, int_rule("db/dropped", "IS"), expires=-1).replace("31", "99"), "--force")

    assert re.fullmatch(rf"accepted, running: 2 of 3 rules, expires {MINUTE}\n", running.stdout)
    assert again.stdout == "accepted, stored: this policy runs already\n"
    assert stored.stdout == "accepted, stored: takes effect at the next start\n"
    assert nothing.stdout == "accepted, stored: takes effect at the next start\n"
    daemon.stop()
    machine.start_daemon()
    assert machine.push(policy(PAIRING.replace("31", "99")), "--force").stdout == "accepted: nothing to watch\n"


def test_the_expiry_is_told_in_the_time_of_the_place(machine, daemon):
    machine.env["TZ"] = "EAST-3"
    running = machine.push(policy(int_rule(NUMBER, "IS", 3), expires=3600))

    moments = [time.gmtime(time.time() + (3 + 1) * 3600 - late) for late in (0, 60)]
    assert running.stdout[-17:-1] in [time.strftime("%Y-%m-%d %H:%M", moment) for moment in moments]


def test_an_expired_policy_that_runs_is_told_as_such(machine):
    machine.env["ZOL_TEST_CLOCK_SPEED"] = "100"
    machine.start_daemon("zol_daemon_steered")
    machine.push(policy(int_rule(NUMBER, "IS", 3), expires=60))
    machine.wait_log("Removing policy")

    assert re.fullmatch(rf"a policy since {MINUTE}, expired, SHA-256 {DIGEST}",
                        lines_of(machine.zolctl("status", check=0))["running"])


def test_a_document_in_another_encoding_is_pushed_byte_by_byte(machine, daemon):
    document = policy(string_rule(TEXT, "IS", "\xe9")).replace("UTF-8", "ISO-8859-1").encode("latin-1")
    file = machine.folder / "latin.xml"
    file.write_bytes(document)

    assert machine.zolctl("policy", "push", file, check=0).stdout == "accepted; zolctl status tells what runs\n"

    assert machine.path("/var/lib/zol/policy.xml").read_bytes() == document
    assert '"\xe9"' in machine.zolctl("policy", "show", check=0).stdout


def test_without_a_policy_the_status_says_so(machine, daemon):
    del daemon
    assert machine.zolctl("status", check=0).stdout == (
        "daemon\t1.0.0\nrunning\tno policy\nstored\tno policy\nrules\t0 watched, 0 dropped\n"
        "reports\tnone published, 0 in line\nhit\tnone since the daemon started\nmissing\tlogind\n")
    assert machine.zolctl("policy", "show", check=0).stdout == (
        "running\tno policy\nstored\tno policy\nrules\t0 watched, 0 dropped\n")
    explained = machine.zolctl("policy", "explain")
    assert (explained.returncode, explained.stderr) == (
        1, "zolctl: no rule that runs looks at anything\n")


def test_the_status_tells_what_runs_and_what_waits(machine, daemon):
    del daemon
    machine.push(policy(int_rule(NUMBER, "IS", 3)))
    machine.push(policy(int_rule(NUMBER, "IS", 4)))
    for turn in (1, 2):
        machine.set(NUMBER, "3", "int")
        wait_for(lambda turn=turn: len(machine.kpi()) == turn, f"{turn} events")
        machine.set(NUMBER, "0", "int")
    path = machine.get(HANDOVER_KEY)

    lines = lines_of(machine.zolctl("status", check=0))
    told = json.loads(machine.zolctl("status", "--json", check=0).stdout)

    assert re.fullmatch(rf"a policy since {MINUTE}, expires {MINUTE}, SHA-256 {DIGEST}", lines["running"])
    assert re.fullmatch(rf"another policy, for the next start, SHA-256 {DIGEST}", lines["stored"])
    assert lines["rules"] == "1 watched, 0 dropped"
    assert lines["reports"] == f"{path} published, 1 in line"
    assert re.fullmatch(rf"{MINUTE} {NUMBER} = 3, {told['last_hit']['report']}", lines["hit"])
    assert told["running_digest"] in lines["running"] and told["stored_digest"] in lines["stored"]
    assert (told["published"], told["paths_waiting"], told["monitoring"]) == (path, 1, True)
    assert (told["last_hit"]["rule"], told["last_hit"]["value"]) == (NUMBER, "3")
    assert told["missing_services"] == ["logind"] and told["policy_version"] == -1


def test_without_a_key_store_the_rest_of_the_status_is_told(machine, daemon):
    del daemon
    machine.push(policy(int_rule(NUMBER, "IS", 3)))
    # In the store's place there is something that no store can be.
    store = machine.path("/var/lib/zol/vconfd")
    store.rename(store.with_name("moved"))
    store.symlink_to(store)
    for process in processes_on(machine.root, "zol_vconfd"):
        os.kill(process, signal.SIGKILL)

    def has_heard():
        lines = lines_of(machine.zolctl("status", check=0))
        return lines["reports"] == "the key store is missing, 0 in line" and "key store" in lines["missing"]
    wait_for(has_heard, "the end of the key service, told by zolctl and by the daemon")

    assert lines_of(machine.zolctl("status", check=0))["rules"] == "1 watched, 0 dropped"
    assert json.loads(machine.zolctl("status", "--json", check=0).stdout)["published"] is None


def test_rules_are_shown_and_explained(machine, daemon):
    del daemon
    machine.set(TEXT, "here", "string")
    machine.push(policy(int_rule(NUMBER, "IS", 3), string_rule(TEXT, "IS", "here"),
                        int_rule(NUMBER, "BETWEEN", greater=1, less=9), PAIRING, INSTALL))

    assert machine.zolctl("policy", "show", check=0).stdout.splitlines()[3:] == [
        f"1\tkey\t{NUMBER} IS 3\twatched", f'2\tkey\t{TEXT} IS "here"\treported at the start',
        f"3\tkey\t{NUMBER} BETWEEN 1 and 9\twatched",
        "1\tpairing\tpairing of remotes, 2 in 300 s (method 31)\twatched",
        "2\tinstall\tinstall of org.kaldo.example, 3 in 3600 s (method 11)\twatched"]
    assert machine.zolctl("policy", "explain", NUMBER, check=0).stdout == (
        f"1 {NUMBER} IS 3: watched\n  now: there is no such key\n"
        f"3 {NUMBER} BETWEEN 1 and 9: watched\n  now: there is no such key\n"
        "  a change of the key is judged by rule 1 alone, which names it first\n")
    machine.set(NUMBER, "true", "bool")
    assert "\n  now: true (bool), which is compared with nothing\n" in machine.zolctl(
        "policy", "explain", NUMBER, check=0).stdout
    machine.set(NUMBER, "10", "int")
    assert "\n  now: 10 (int), the rule does not hold\n" in machine.zolctl(
        "policy", "explain", NUMBER, check=0).stdout
    everything = machine.zolctl("policy", "explain", check=0).stdout
    assert f'2 {TEXT} IS "here": reported at the start\n  now: "here" (string), the rule holds\n' in everything
    assert "\n  counted: 0 of 2\n  ignored: what follows within 15 s\n" in everything

    shown = json.loads(machine.zolctl("policy", "show", "--json", check=0).stdout)
    explained = json.loads(machine.zolctl("policy", "explain", TEXT, "--json", check=0).stdout)
    assert len(shown["rules"]) == 5 and explained == [shown["rules"][1]]
    assert explained[0]["value"] == "here" and shown["running_digest"] == shown["stored_digest"]
    unknown = machine.zolctl("policy", "explain", "db/none", "--json")
    assert (unknown.returncode, unknown.stdout, unknown.stderr) == (
        1, "[]\n", "zolctl: no rule that runs looks at db/none\n")
    no_text = subprocess.run([BIN / "zolctl", "policy", "explain", b"\xff"], env=machine.env, capture_output=True,
                             check=False)
    assert (no_text.returncode, no_text.stderr) == (1, b"zolctl: no rule that runs looks at \xff\n")


@pytest.mark.parametrize("command", [("status",), ("status", "--json"), ("policy", "show"), ("policy", "explain")])
def test_without_a_daemon_there_is_one_line_and_no_output(machine, command):
    told = machine.zolctl(*command)

    assert (told.returncode, told.stdout) == (2, "")
    assert told.stderr.startswith(UNREACHABLE) and told.stderr.count("\n") == 1


def test_a_daemon_that_hangs_is_given_up_in_one_line(machine, daemon):
    daemon.process.send_signal(signal.SIGSTOP)
    waiting = [machine.start(BIN / "zolctl", *command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
               for command in (("status",), ("policy", "show"))]
    for process in waiting:
        output, errors = process.communicate(timeout=60)
        assert (process.returncode, output, errors.count("\n")) == (2, "", 1) and errors.startswith(UNREACHABLE)
    daemon.process.send_signal(signal.SIGCONT)


def test_a_watched_status_is_printed_when_it_changes_and_while_the_daemon_is_away(machine, daemon):
    process = machine.start(BIN / "zolctl", "status", "--watch", stdout=subprocess.PIPE, text=True)

    def next_status():
        return dict(line.rstrip("\n").split("\t", 1) for line in iter(process.stdout.readline, "\n"))

    assert next_status()["running"] == "no policy"
    machine.push(policy(int_rule(NUMBER, "IS", 3)))
    assert next_status()["rules"] == "1 watched, 0 dropped"
    daemon.stop()
    assert next_status() == {"daemon": "not reachable"}
    machine.start_daemon()
    assert next_status()["stored"] == "the policy that runs"

    process.send_signal(signal.SIGTERM)
    assert process.wait(timeout=60) == 0


def test_a_daemon_that_answers_with_errors_is_told_from_one_that_is_not_there(machine):
    other = Mock(machine, "org.zol.Daemon1", "org.zol.Daemon1", "/org/zol/Daemon1", "org.zol.Daemon1")
    other.object("/org/zol/Daemon1", MOCK).AddMethod("org.zol.Policy1", "SetPolicy", "s", "bsa(uussss)",
                                                     "ret = (True, 'stored', [])")

    for command in (("status",), ("policy", "show"), ("policy", "explain")):
        failed = machine.zolctl(*command)
        assert failed.returncode == 2 and failed.stderr.startswith("zolctl: the daemon answers with an error: ")
    assert machine.push(policy(int_rule(NUMBER, "IS", 3))).stdout == "accepted, stored\n", "and what runs is unknown"
