"""zolctl policy test."""
import os
import signal
import subprocess
import xml.etree.ElementTree

import pytest

from conftest import BIN, EMULATOR, SANITIZER_OPTIONS, int_rule, policy, string_rule, wait_for

# An emulated zolctl cannot start another program.
COMMAND = [BIN / "zol_policy_test"] if EMULATOR else [BIN / "zolctl", "policy", "test"]
LEVEL, MODE = "db/menu/level", "db/menu/mode"
REMOTE = '<monitor kind="3" name="remote" method="31" duration="10" repetition="3" reserve1="1"/>'
APP = '<monitor kind="1" id="org.kaldo.example" name="Example" method="11" duration="60" repetition="2"/>'
POLICY = policy(int_rule(LEVEL, "IS", 3), string_rule(MODE, "IS", "shop"), REMOTE, APP, expires=3600)
HIT = f'a hit of {LEVEL} with value "3" at 2026-01-01 08:00:00'


class Runner:
    """Scenarios in a folder of their own, and the program that plays them."""

    def __init__(self, folder):
        self.folder = folder
        self.scratch = folder / "scratch"
        self.scratch.mkdir()
        self.env = {**os.environ, **SANITIZER_OPTIONS, "TMPDIR": str(self.scratch)}
        self.write("policy.xml", POLICY)

    def write(self, name, text):
        (self.folder / name).write_bytes(text if isinstance(text, bytes) else text.encode())
        return name

    def run(self, *arguments, **options):
        """Exit status, output, errors."""
        result = subprocess.run([*COMMAND, *arguments], cwd=self.folder, env=self.env, timeout=300, check=False,
                                capture_output=True, **options)
        return result.returncode, result.stdout.decode(errors="replace"), result.stderr.decode(errors="replace")

    def play(self, *steps, head=""):
        """The same for a scenario of these steps; the first step stands in line 4, or behind what `head` has."""
        self.write("scenario.yaml", scenario(*steps, head=head))
        return self.run("scenario.yaml")


def scenario(*steps, name="as written", head=""):
    return f"name: {name}\npolicy: policy.xml\n{head}steps:\n" + "".join(f"  - {step}\n" for step in steps)


@pytest.fixture
def runner(tmp_path):
    return Runner(tmp_path)


def first_failure(output):
    """What is wrong, without the lines that explain it."""
    return output.splitlines()[1].removeprefix("scenario.yaml:")


# --- what passes --------------------------------------------------------------------------------------------------
def test_each_scenario_of_each_file_has_a_line_and_all_of_them_one(runner):
    runner.write("two.yaml", scenario("restart", name="first") + "---\n" + scenario("restart", name="second"))
    runner.write("one.yaml", scenario("restart", name="third"))

    assert runner.run("two.yaml", "one.yaml") == (0, "ok    two.yaml:1: first\nok    two.yaml:6: second\n"
                                                  "ok    one.yaml:1: third\n3 scenarios: 3 passed, 0 failed\n", "")


def test_a_hit_is_expected_with_its_value_its_time_its_event_and_its_report(runner):
    status, output, _ = runner.play(
        "pass: 90 s", f"set: {{{LEVEL}: 3}}",
        f"expect: {{rule: {LEVEL}, value: 3, at: 2026-01-01 08:01:30, kpi: {{key: {LEVEL}, value: 3, app_id: ''}},"
        " header: {category: ZOL, idtype: HWDUID, evid: 1767254490},"
        " report: /tmp/zol/00000000-0000-0000-0000-000000000001_1767254490}")
    assert status == 0, output


@pytest.mark.parametrize("expected", [("at: 08:00:00", "value: 3"), ("value: 3", "at: 08:00:00")])
def test_hits_are_expected_in_any_order_whoever_else_they_fit(runner, expected):
    runner.write("policy.xml", policy(int_rule(LEVEL, "GREATER", 2)))
    hits = ", ".join(f"{{rule: {LEVEL}, {what}}}" for what in expected)
    assert runner.play(f"set: {{{LEVEL}: 3}}", f"set: {{{LEVEL}: 4}}", f"expect: [{hits}]")[0] == 0
    assert runner.play(f"set: {{{LEVEL}: 4}}", f"set: {{{LEVEL}: 5}}", f"expect: [{hits}]")[0] == 1


def test_a_scenario_comes_from_standard_input_too(runner):
    assert runner.run("-", input=scenario("restart").encode())[:2] == (
        0, "ok    -:1: as written\n1 scenario: 1 passed, 0 failed\n")


def test_the_time_zone_of_the_machine_means_nothing(runner):
    runner.env["TZ"] = "Asia/Seoul"
    assert runner.play(f"set: {{{LEVEL}: 3}}", f"expect: {{rule: {LEVEL}, at: 08:00:00}}",
                       "state: {expires: 2026-01-01 09:00:00}")[0] == 0


def test_many_runs_come_out_the_same(runner):
    runner.write("scenario.yaml", scenario("connect", "pass: 5 min", "connect", "restart", f"set: {{{LEVEL}: 3}}",
                                           f"expect: {LEVEL}", "restart", f"expect: {LEVEL}", "standby: 1 h",
                                           "install: org.kaldo.example", "pass: 1 h", "install: org.kaldo.example",
                                           "expect: org.kaldo.example"))
    assert {runner.run(*["scenario.yaml"] * 20)[0] for _ in range(3)} == {0}


# --- what fails ---------------------------------------------------------------------------------------------------
@pytest.mark.parametrize("steps, failure", [
    ([f"set: {{{LEVEL}: 3}}"], f"5:5: nothing expects {HIT}"),
    ([f"set: {{{LEVEL}: 3}}", "expect: none"], f"6:5: nothing expects {HIT}"),
    ([f"set: {{{LEVEL}: 2}}", f"expect: {LEVEL}"], f"6:13: expected a hit of {LEVEL}, and none came"),
    ([f"set: {{{LEVEL}: 3}}", f"expect: {LEVEL}", f"expect: {LEVEL}"],
     f"7:13: expected a hit of {LEVEL}, and none came"),
    (["connect", "expect: pairing"], "6:13: expected a hit of pairing, and none came"),
    (["install: org.kaldo.example", "expect: org.kaldo.example"],
     "6:13: expected a hit of org.kaldo.example, and none came"),
    (["holds: {db/zol/corvel_policy: false}"], "5:5: expected db/zol/corvel_policy to be false, and it is true"),
    (["holds: {db/x: '1'}"], '5:5: expected db/x to be "1", and it is nothing'),
    (["state: {monitoring: false}"], "5:5: expected monitoring to be false, and it is true"),
    (["state: {watched: 3}"], "5:5: expected watched to be 3, and it is 4"),
    (["state: {dropped: 1}"], "5:5: expected dropped to be 1, and it is 0"),
    (["state: {expires: none}"], "5:5: expected expires to be none, and it is 2026-01-01 09:00:00"),
])
def test_what_is_not_as_expected_fails_where_it_is_expected(runner, steps, failure):
    # No rule of these holds at the start, and each of them is watched.
    head = f"keys: {{{LEVEL}: 1}}\n"
    status, output, errors = runner.play(*steps, head=head)
    assert (status, first_failure(output), errors) == (1, failure, "")


@pytest.mark.parametrize("entry, difference", [
    ("value: 4", 'the value is "3", not "4"'),
    ("at: 08:00:01", "it came at 2026-01-01 08:00:00, not at 08:00:01"),
    ("at: 2026-01-02 08:00:00", "it came at 2026-01-01 08:00:00, not at 2026-01-02 08:00:00"),
    ("kpi: {value: 4}", 'the value of the KPI event is "3", not "4"'),
    ("kpi: {appid: 4}", "the KPI event has no appid (did you mean app_id?)"),
    ("header: {category: X}", 'the category of header.json is "ZOL", not "X"'),
    ("report: /tmp", "the report is /tmp/zol/00000000-0000-0000-0000-000000000001_1767254400, not /tmp"),
])
def test_a_hit_that_is_another_one_is_told_with_what_is_other(runner, entry, difference):
    status, output, _ = runner.play(f"set: {{{LEVEL}: 3}}", f"expect: {{rule: {LEVEL}, {entry}}}")
    assert status == 1
    assert output.splitlines()[2] == f"    what came instead: {HIT}; {difference}"


def test_a_failure_shows_what_was_counted_and_how_the_rules_stand(runner):
    _, output, _ = runner.play("connect: 00:1A:7D:00:00:01", "pass: 5 s", "disconnect", "pass: 1 s", "connect",
                               "install: org.kaldo.other", f"set: {{{LEVEL}: 2}}", "expect: pairing")
    assert output.splitlines()[2:-1] == [
        "    since the last expect:",
        "      line 4, 2026-01-01 08:00:00: connect 00:1A:7D:00:00:01; counted, 1 of 3",
        "      line 5, 2026-01-01 08:00:05: pass 5 s",
        "      line 6, 2026-01-01 08:00:05: disconnect; counted, 2 of 3",
        "      line 7, 2026-01-01 08:00:06: pass 1 s",
        "      line 8, 2026-01-01 08:00:06: connect; not counted, still 2 of 3",
        "      line 9, 2026-01-01 08:00:06: install org.kaldo.other; no rule counts it",
        f"      line 10, 2026-01-01 08:00:06: set {LEVEL} = 2",
        "    how the rules stand at 2026-01-01 08:00:06:",
        f"      zols 1: {LEVEL} IS 3: watched; the key is 2 (int), so it does not hold",
        f'      zols 2: {MODE} IS "shop": watched; there is no such key',
        "      monitor 1: pairing, method 31: watched; counted 2 of 3 within 600 s, which end at 2026-01-01 08:10:00;"
        " what comes within 1 s of another is not counted",
        "      monitor 2: install of org.kaldo.example, method 11: watched; counted 0 of 2 within 3600 s"]


def test_other_scenarios_are_played_after_one_that_failed(runner):
    runner.write("bad.yaml", scenario("expect: pairing"))
    runner.write("good.yaml", scenario("restart"))
    status, output, _ = runner.run("bad.yaml", "good.yaml")
    assert (status, output.splitlines()[-2:]) == (
        1, ["ok    good.yaml:1: as written", "2 scenarios: 1 passed, 1 failed"])


# --- policies -----------------------------------------------------------------------------------------------------
FAULTY = policy(int_rule(LEVEL, "is", 3), int_rule(MODE, "IS", 3))


def test_a_policy_with_errors_fails_its_scenario_unless_that_says_so(runner):
    runner.write("policy.xml", FAULTY)
    finding = "policy.xml:4:3: error: dropped: condition 'is' is unknown (did you mean IS?)"

    status, output, _ = runner.play("restart")
    assert (status, output.splitlines()[1:3]) == (
        1, ['scenario.yaml:2:9: the policy has errors ("faulty: true" plays it all the same)', "    " + finding])

    status, output, _ = runner.play("state: {watched: 1, dropped: 1}", head="faulty: true\n")
    assert (status, output.splitlines()[0]) == (0, finding)


def test_what_is_found_in_a_policy_of_the_scenario_itself_stands_where_it_is_written(runner):
    lines = FAULTY.splitlines()[1:]  # an XML declaration stands at the very beginning or not at all
    text = "name: inline\nfaulty: true\npolicy: |\n\n" + "".join(f"    {line}\n" for line in lines)
    runner.write("scenario.yaml", text + "steps: [restart]\n")
    place = next(f"{number}:{line.index('<zols') + 1}" for number, line in enumerate(text.splitlines(), 1)
                 if '"is"' in line)
    assert runner.run("scenario.yaml")[1].startswith(f"scenario.yaml:{place}: error: dropped: ")


def test_warnings_of_a_policy_are_told_once_and_fail_nothing(runner):
    runner.write("policy.xml", policy(int_rule(LEVEL, "BETWEEN", greater=5, less=6)))
    runner.write("scenario.yaml", scenario("restart") + "---\n" + scenario("restart"))
    status, output, _ = runner.run("scenario.yaml")
    assert (status, output.count("warning: never a hit")) == (0, 1)


def test_a_policy_that_arrives_while_another_runs_waits_for_the_next_start(runner):
    runner.write("next.xml", policy(int_rule("db/next", "IS", 1)))
    assert runner.play("policy: next.xml", "set: {db/next: 1}", "expect: none", "restart",
                       "expect: db/next")[0] == 0


def test_the_timers_of_the_daemons_main_loop_follow_the_simulated_clock(runner):
    """An application that cannot be watched holds up the one behind it until a timer tries again."""
    broken = APP.replace("org.kaldo.example", "/")
    runner.write("policy.xml", policy(int_rule(LEVEL, "IS", 3), broken, APP))
    assert runner.play("install: org.kaldo.example", "install: org.kaldo.example", "expect: none", "pass: 1 min",
                       "install: org.kaldo.example", "install: org.kaldo.example",
                       "expect: org.kaldo.example")[0] == 0


# --- what cannot be read ------------------------------------------------------------------------------------------
UNREADABLE = [
    (scenario("sett: {a: 1}"), "4:5: step 'sett' is unknown (did you mean set?)"),
    (scenario("restrat"), "4:5: step 'restrat' is unknown (did you mean restart?)"),
    (scenario("pass"), "4:5: 'pass' does not say what (\"- pass: ...\")"),
    (scenario("set: {a: 1}\n    pass: 1 s"), "4:5: a step has one name, this one has 2 (begin each step with \"- \")"),
    (scenario("pass: 5"), "4:11: '5' is no length of time (such as 90 s, 5 min or 1 h 30 min, at most 400 d)"),
    (scenario("pass: 401 d"),
     "4:11: '401 d' is no length of time (such as 90 s, 5 min or 1 h 30 min, at most 400 d)"),
    (scenario("clock: 2026-02-30 00:00:00"),
     "4:12: '2026-02-30 00:00:00' is no moment (such as 2026-01-31 08:00:30, from 1970 on)"),
    (scenario("expect: {rule: pairing, vale: 1}"), "4:29: entry of a hit 'vale' is unknown (did you mean value?)"),
    (scenario("expect: pairin"), "4:13: rule 'pairin' is unknown (did you mean pairing?)"),
    (scenario("expect: {value: 1}"),
     "4:13: a hit has a rule (\"rule: \" and a key, the id of an application, or pairing)"),
    (scenario("expect: {rule: pairing, at: noon}"),
     "4:33: 'noon' is no time (such as 08:00:30 or 2026-01-31 08:00:30)"),
    (scenario("expect: []"), "4:13: an empty list of hits (\"- expect: none\")"),
    (scenario("expect: [none]"), "4:14: none stands alone (\"- expect: none\")"),
    (scenario("state: {watched: many}"), "4:22: expected a number of rules, not 'many'"),
    (scenario("state: {wached: 1}"), "4:13: entry of a state 'wached' is unknown (did you mean watched?)"),
    (scenario("set: {a: 99999999999}"),
     "4:14: no key holds the integer 99999999999 (a key has 32 bits; in quotation marks it is a text)"),
    (scenario("set: {a: [1]}"), "4:14: expected the value of a key, not a list"),
    (scenario("standby: 1500 ms"), "4:14: expected whole seconds"),
    (scenario("off: 500 ms"), "4:10: expected whole seconds"),
    (scenario("set: &many {a: " + "x" * 10000 + "}", *["set: *many"] * 2000),
     "4:20: more than 16777216 bytes of keys and values in one file"),
    (scenario("install:"), "4:5: expected the id of an application, not nothing"),
    (scenario("restart", head="step: 1\n"), "3:1: entry of a scenario 'step' is unknown (did you mean steps?)"),
    (scenario("restart", head="faulty: yes\n"), "3:9: faulty is true or false, not 'yes'"),
    (scenario("restart", head="name: twice\n"), "3:1: 'name' comes twice"),
    (scenario("policy: nothing.xml"), "4:13: cannot read nothing.xml: No such file or directory"),
    ("policy: policy.xml\nsteps: [restart]", "1:1: a scenario has a name (\"name: what it shows\")"),
    ("name: x\nsteps: [restart]", "1:1: a scenario has a policy (\"policy: FILE\")"),
    ("name: x\npolicy: policy.xml", "1:1: a scenario has steps (\"steps:\" and a list of them)"),
    ("- a", "1:1: expected a scenario (\"name: value\")"),
    ("", "1:1: no scenario in this file"),
    ("name: [", "1:1: no YAML: end of sequence flow not found"),
    ("[" * 100000, "1:1: no scenario: nested too deeply"),
    ("#" * (1 << 20) + "#", "1:1: a scenario file has at most 1048576 bytes"),
    (scenario("expect: &many [" + "pairing, " * 1000 + "]", *["expect: *many"] * 100),
     "4:8120: more than 100000 steps, keys, expected hits and entries of them in one file"),
    (scenario("expect: {rule: pairing, header: &many {" + ", ".join(f"a{number}: x" for number in range(2000)) + "}}",
              *["expect: {rule: pairing, header: *many}"] * 50),
     "4:17934: more than 100000 steps, keys, expected hits and entries of them in one file"),
]


@pytest.mark.parametrize("text, error", UNREADABLE, ids=[error for _, error in UNREADABLE])
def test_what_is_no_scenario_is_one_line_with_its_place(runner, text, error):
    runner.write("scenario.yaml", text)
    assert runner.run("scenario.yaml") == (
        2, "0 scenarios: 0 passed, 0 failed; 1 file cannot be read\n", f"zolctl: scenario.yaml:{error}\n")


@pytest.mark.parametrize("name, error", [
    ("nothing.yaml", "cannot read nothing.yaml: No such file or directory"),
    (".", "cannot read .: Is a directory"),
    ("/dev/zero", "/dev/zero is larger than 4194304 bytes"),
])
def test_a_file_that_cannot_be_read_costs_the_others_nothing(runner, name, error):
    runner.write("good.yaml", scenario("restart"))
    assert runner.run(name, "good.yaml") == (
        2, "ok    good.yaml:1: as written\n1 scenario: 1 passed, 0 failed; 1 file cannot be read\n",
        f"zolctl: {error}\n")


BROKEN_BY = [b"", b"\0", b"{", b"\n", b"'", b"\xff", None]


@pytest.mark.parametrize("inserted", BROKEN_BY, ids=["missing", "nul", "brace", "line", "quote", "invalid", "cut"])
def test_a_scenario_broken_at_any_byte_is_one_line_or_another_scenario(runner, inserted):
    text = scenario(f"set: {{{LEVEL}: 3}}", f"expect: {{rule: {LEVEL}, at: '08:00'}}", "pass: 5 min", "restart",
                    f"expect:\n      - {LEVEL}", head="keys:\n  db/a: true\n").encode()
    for at in range(len(text)):
        rest = b"" if inserted is None else (inserted or b"") + text[at + 1:]
        runner.write(f"{at:03}.yaml", text[:at] + rest)
    runner.write("good.yaml", text)
    files = sorted(path.name for path in runner.folder.glob("*.yaml"))

    status, output, errors = runner.run(*files)

    assert status == 2
    played = sum(line.startswith(("ok ", "FAIL ")) for line in output.splitlines())
    assert all(line.startswith("zolctl: ") for line in errors.splitlines())
    assert played + len(errors.splitlines()) == len(files)
    assert "ok    good.yaml:1: as written" in output
    assert "ended here" not in output


def test_bad_usage_and_a_lost_output_are_status_2(runner):
    runner.write("good.yaml", scenario("restart"))
    assert runner.run() == (2, "", "zolctl: SCENARIO is required (see zolctl policy test --help)\n")
    status, _, errors = runner.run("good.yaml", "--junit", "nowhere/results.xml")
    assert (status, errors) == (2, "zolctl: cannot write nowhere/results.xml: No such file or directory\n")
    with open("/dev/full", "wb") as full:
        result = subprocess.run([*COMMAND, "good.yaml"], cwd=runner.folder, env=runner.env, stdout=full,
                                stderr=subprocess.PIPE, timeout=60, check=False)
    assert (result.returncode, result.stderr) == (2, b"zolctl: cannot write the output\n")


@pytest.mark.skipif(bool(EMULATOR), reason="an emulated zolctl cannot start another program")
def test_zolctl_finds_the_program_that_plays_where_it_is_installed_and_says_when_it_is_not(runner):
    (runner.folder / "bin").mkdir()
    alone = runner.folder / "bin" / "zolctl"
    alone.write_bytes((BIN / "zolctl").read_bytes())
    alone.chmod(0o755)
    installed = runner.folder / "libexec" / "zol" / "zol_policy_test"

    def run():
        result = subprocess.run([alone, "policy", "test", "a b"], capture_output=True, text=True, timeout=60,
                                check=False)
        return result.returncode, result.stdout, result.stderr

    assert run() == (2, "", "zolctl: policy test: this installation has no zol_policy_test "
                     f"({runner.folder}/bin/../libexec/zol/zol_policy_test)\n")
    installed.parent.mkdir(parents=True)
    installed.write_text('#!/bin/sh\necho "played $1"\nexit 1\n')
    assert run() == (2, "", f"zolctl: cannot start {runner.folder}/bin/../libexec/zol/zol_policy_test: "
                     "Permission denied\n")
    installed.chmod(0o755)
    assert run() == (1, "played a b\n", "")


# --- results for continuous integration ---------------------------------------------------------------------------
def test_the_junit_report_has_all_results_whatever_they_are_called(runner):
    runner.write("two.yaml", scenario("restart", name='"a <b> & \\"c\\" \\e[0m \\x01"') + "---\n" +
                 scenario(f"set: {{{MODE}: \"shop\\0\"}}", "expect: pairing", name='"\\u2028 and"'))
    runner.write("bad<.yaml", b"name: \xff\n'")

    assert runner.run("two.yaml", "bad<.yaml", "--junit", "results.xml")[0] == 2

    suites = xml.etree.ElementTree.parse(runner.folder / "results.xml").getroot()
    assert {name: suites.get(name) for name in ("tests", "failures", "errors")} == {
        "tests": "3", "failures": "1", "errors": "1"}
    cases = {case.get("classname"): [] for case in suites.iter("testcase")}
    for case in suites.iter("testcase"):
        cases[case.get("classname")].append(case)
    passed, failed = cases["two.yaml"]
    assert passed.get("name") == 'a <b> & "c" �[0m �' and len(passed) == 0
    assert failed.find("failure").get("message").startswith("two.yaml:10:13: expected a hit of pairing")
    assert "how the rules stand" in failed.find("failure").text
    assert cases["bad<.yaml"][0].find("error").get("message").startswith("bad<.yaml:2:")


def test_the_junit_report_replaces_no_other_file_than_the_one_that_is_named(runner):
    runner.write("good.yaml", scenario("restart"))
    for name in ("results.xml", "results.xml.new", "results.xml.new.1"):
        runner.write(name, "mine")
    before = set(os.listdir(runner.folder))

    assert runner.run("good.yaml", "--junit", "results.xml")[0] == 0

    assert set(os.listdir(runner.folder)) == before
    assert xml.etree.ElementTree.parse(runner.folder / "results.xml").getroot().get("tests") == "1"
    assert {(runner.folder / f"results.xml.{name}").read_text() for name in ("new", "new.1")} == {"mine"}


def test_the_junit_report_goes_into_a_pipe_and_replaces_no_device(runner):
    runner.write("good.yaml", scenario("restart"))
    result = subprocess.run([*COMMAND, "good.yaml", "--junit", "/dev/stderr"], cwd=runner.folder, env=runner.env,
                            capture_output=True, timeout=60, check=False)
    assert result.returncode == 0
    assert xml.etree.ElementTree.fromstring(result.stderr).get("tests") == "1"
    assert os.path.islink("/dev/stderr")


# --- what stays behind --------------------------------------------------------------------------------------------
def test_nothing_stays_behind(runner):
    runner.play(f"set: {{{LEVEL}: 3}}", f"expect: {LEVEL}", "restart")
    assert list(runner.scratch.iterdir()) == []


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_the_run_and_nothing_stays_behind(runner, number):
    runner.write("long.yaml", scenario(*["pass: 400 d"] * 100))
    process = subprocess.Popen([*COMMAND, "long.yaml"], cwd=runner.folder, env=runner.env)
    wait_for(lambda: any(runner.scratch.glob("*/*")), "the scenario to be played")

    process.send_signal(number)

    assert process.wait(timeout=60) == -number
    assert list(runner.scratch.iterdir()) == []


def test_a_path_in_the_key_of_the_collector_leads_nowhere(runner):
    victim = runner.folder / "victim"
    victim.mkdir()
    path = "/tmp/zol/" + "../" * 12 + str(victim)
    assert runner.play(f"set: {{{LEVEL}: 3}}", f"expect: {LEVEL}", f"set: {{db/zol/send_zol_files_path: {path}}}",
                       f"holds: {{db/zol/send_zol_files_path: {path}}}")[0] == 0
    assert victim.exists()
