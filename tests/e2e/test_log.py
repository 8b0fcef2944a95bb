"""zolctl log: the platform log for people."""
import pathlib
import re
import signal
import subprocess
import time

import pytest

from conftest import BIN, int_rule, policy, string_rule, wait_for
from services import Bluez
from terminal import on_terminal

KEY, OTHER, TEXT = "db/menu/level", "db/menu/level2", "db/menu/mode"
APP = "org.kaldo.example"
REMOTE = "AA:BB:CC:DD:EE:01"
PAIRING = '<monitor kind="3" name="remote" method="31" duration="10" repetition="1" reserve1="1"/>'
INSTALL = f'<monitor kind="1" id="{APP}" name="Example" method="11" duration="60" repetition="1"/>'
NONE = "zolctl: there is no log for this account, neither in the journal nor in /var/log/zol"
SENT = "SendKPI: sent 19_errdata KPI"


def line(second, text, level="E", tag="T", thread=2):
    """A line of the log, `second` seconds after a moment in 2026."""
    return f"2026-01-31 12:00:{second:02}.000 {level}/{tag}(1:{thread}): {text}\n"


def write(machine, text, name="system.log", mode="a"):
    file = machine.path("/var/log/zol") / name
    file.parent.mkdir(exist_ok=True)
    with file.open(mode + "b") as log:
        log.write(text if isinstance(text, bytes) else text.encode())
    return file


def shown(machine, *arguments):
    """The lines of the log, without what stands before the text."""
    output = machine.zolctl("log", *arguments, check=0).stdout
    return [text.split("): ", 1)[1] for text in output.splitlines()]


def said(lines):
    """Lines of the daemon as "function: text"."""
    return [re.sub(r"^\w+: (\w+)\(\d+\) > ", r"\1: ", text) for text in lines]


def hit(machine, key, value, kind="int"):
    """Sets a key and waits until its hit is reported."""
    before = machine.log().count("m_UpdateVconfKey(")
    machine.set(key, value, kind)
    wait_for(lambda: machine.log().count("m_UpdateVconfKey(") > before, "a report")


# --- of one rule --------------------------------------------------------------------------------------------------
def test_the_life_of_a_rule_for_a_key_is_told_and_that_of_no_other(machine, daemon):
    del daemon
    machine.push(policy(int_rule(KEY, "IS", 3), int_rule(OTHER, "IS", 3), string_rule(TEXT, "IS", "shop")))
    for key, value, kind in ((TEXT, "shop", "string"), (KEY, "3", "int"), (OTHER, "3", "int")):
        hit(machine, key, value, kind)
    machine.set(KEY, "1", "int")
    machine.wait_log("> find!", times=4)

    told = said(shown(machine, "--rule", KEY))

    assert [text for text in told if not text.startswith("m_GetKpiDescription")] == [
        f"m_HandleZolsTag: key[{KEY}], condition[IS], type[INT], intValue[3], strValue[null], "
        "greater[-1], less[-1]",
        f"m_CheckOrWatch: [{KEY}] registered",
        f"m_KeyChangedCb: [m_KeyChangedCb] key : {KEY}", "m_Check: find!",
        "m_CheckIntType: [m_CheckIntType] vconfValue[3] == value[3], send event to notify",
        f"AddNotify: key[{KEY}], intValue[3], strValue[null]", "m_KeyChangedCb: found on list!",
        "Notify: m_Notify() CALL",
        SENT, "m_UpdateVconfKey: vconfkey is not empty, add current path to list",
        f"m_KeyChangedCb: [m_KeyChangedCb] key : {KEY}", "m_Check: find!"]
    assert [f";key={KEY};value=3;" in text for text in told if text.startswith("m_GetKpiDescription")] == [True]
    also = said(shown(machine, "--rule", TEXT, "--rule", OTHER))
    assert also.count(SENT) == 2 and not any(f"{KEY}]" in text or f"{KEY};" in text for text in also)
    assert "m_UpdateVconfKey: vconf_set_str success" in also


def test_a_report_of_two_rules_is_told_with_each_of_them(machine, daemon):
    del daemon
    machine.set(KEY, "3", "int")
    machine.set(OTHER, "3", "int")
    machine.push(policy(int_rule(KEY, "IS", 3), int_rule(OTHER, "IS", 3)))
    machine.wait_log("vconf_set_str success")

    for key in (KEY, OTHER):
        told = said(shown(machine, "--rule", key))
        assert told.count(SENT) == 1 and told[-1] == "m_UpdateVconfKey: vconf_set_str success"


def test_the_life_of_a_rule_for_pairings_or_installations_is_told(machine):
    bluez = Bluez(machine)
    bluez.add_remote(REMOTE)
    applications = machine.path("/home/.local/share/applications")
    applications.mkdir(parents=True)
    machine.start_daemon()
    machine.push(policy(int_rule(KEY, "IS", 3), PAIRING, INSTALL))
    machine.wait_log("watching the Bluetooth devices", name="main")
    machine.wait_log("[InstallMonitor] RegisterCallback() success")
    bluez.set_connected(REMOTE, True)
    machine.wait_log(SENT.replace("SendKPI: ", ""))
    (applications / f"{APP}.desktop").write_text("[Desktop Entry]\nType=Application\nName=Example\nExec=true\n")
    machine.wait_log(SENT.replace("SendKPI: ", ""), times=2)
    machine.wait_log("m_UpdateVconfKey(", times=2)

    pairing, install = said(shown(machine, "--rule", "pairing")), said(shown(machine, "--rule", APP))

    for told, words in ((pairing, ("MONITOR_TYPE[3]", "INIT [BT PAIR]", "success to register bt callback",
                                   "Current Repetition : 1", ";zol_error_type=3;", SENT,
                                   "m_UpdateVconfKey: vconf_set_str success")),
                        (install, (f"MONITOR_ID[{APP}]", "INIT [APP INSTALL]", "RegisterCallback() success",
                                   "Current Repetition : 1", f";app_id={APP};", SENT,
                                   "m_UpdateVconfKey: vconfkey is not empty"))):
        places = [next((at for at, text in enumerate(told) if word in text), -1) for word in words]
        assert -1 not in places and places == sorted(places)
        assert told.count(SENT) == 1 and not any(KEY in text for text in told)


def test_lines_that_do_not_name_their_rule_are_known_by_what_their_thread_has_logged_before(machine):
    lines = [(2, f"ZOLVconfChecker: m_KeyChangedCb(1) > [m_KeyChangedCb] key : {KEY}"),
             (3, f"ZOLVconfChecker: m_KeyChangedCb(1) > [m_KeyChangedCb] key : {OTHER}"),
             (2, "ZOLVconfChecker: m_Check(2) > find!"), (3, "ZOLVconfChecker: m_Check(2) > find! as well"),
             (2, "ZOLScheduler: m_Run(3) > something else"), (2, "ZOLVconfChecker: m_Check(2) > of nobody"),
             (4, f"ZOLNotifyManager: m_GetKpiDescription(4) > kpiDesc : {{evid=1;key={KEY};value=3;}}"),
             (4, "ZOLNotifyManager: t_OnEvent(5) > the next report"),
             (4, "ZOLNotifyManager: m_UpdateVconfKey(6) > the path of the next report")]
    write(machine, "".join(line(at, text, tag="ZOL", thread=thread) for at, (thread, text) in enumerate(lines)))

    def places(*arguments):
        return [[text for _, text in lines].index(text) for text in shown(machine, *arguments)]

    assert places("--rule", KEY) == places("--key", KEY, "--rule", KEY) == [0, 2, 6]
    assert places("--rule", OTHER) == [1, 3]


# --- which lines --------------------------------------------------------------------------------------------------
def test_lines_are_chosen_by_key_level_and_time(machine):
    now = time.strftime("%Y-%m-%d %H:%M:%S.000", time.localtime())
    write(machine, line(1, f"[{KEY}] registered") + line(2, f"[{OTHER}] registered", "W") + line(3, "else", "I"))
    write(machine, line(4, f"cannot read {KEY}: gone", "D") + f"{now} F/T(1:2): {KEY}\n", "main.log")

    assert shown(machine, "--key", KEY) == [f"[{KEY}] registered", f"cannot read {KEY}: gone", KEY]
    assert shown(machine, "--key", KEY, "--key", OTHER, "--level", "W") == [
        f"[{KEY}] registered", f"[{OTHER}] registered", KEY]
    assert shown(machine, "--since", "1h") == [KEY] and len(shown(machine)) == 5
    assert len(shown(machine, "--since", "200000000d")) == 5
    assert shown(machine, "--key", "menu/level") == [] == shown(machine, "--rule", "db/none")
    for wrong in (("--since", "yesterday"), ("--since", "1000000001d"), ("--level", "X"), ("--key",)):
        refused = machine.zolctl("log", *wrong)
        assert (refused.returncode, refused.stdout) == (2, "") and refused.stderr.count("\n") == 1


def test_lines_have_the_form_that_dlogutil_gives_them(machine, daemon):
    del daemon
    machine.push(policy(int_rule(KEY, "IS", 3)))
    log = machine.zolctl("log", check=0).stdout

    other = subprocess.run([BIN / "dlogutil", "-d"], env=machine.env, capture_output=True, text=True, check=True)

    assert log.count("\n") > 20 and other.stdout.startswith(log)


def test_control_characters_of_a_log_that_somebody_else_wrote_are_shown_and_not_obeyed(machine):
    write(machine, line(1, "a\x1b[2Jb\x07\x9bc\t\u20ac\r", tag="\x1b[7m"))

    text = machine.zolctl("log", check=0).stdout

    assert text == line(1, "a\\x1b[2Jb\\x07\\xc2\\x9bc\t\u20ac\\x0d", tag="\\x1b[7m")


def test_lines_are_coloured_by_level_on_a_terminal_only(machine):
    levels = "VDIWEF"
    write(machine, "".join(line(at, "x", level) for at, level in enumerate(levels)))
    plain = machine.zolctl("log", check=0).stdout

    coloured = on_terminal(machine, BIN / "zolctl", "log", NO_COLOR="")

    assert on_terminal(machine, BIN / "zolctl", "log", NO_COLOR="1") == plain and "\x1b" not in plain
    starts = [re.match(r"(?:\x1b\[(\d+)m)?2026", text).group(1) for text in coloured.splitlines()]
    assert starts == ["2", "2", None, "33", "31", "31"]
    assert re.sub(r"\x1b\[\d+m", "", coloured) == plain


# --- where there is none, and a log that goes on ------------------------------------------------------------------
def test_where_there_is_no_log_one_line_says_so(machine):
    told = machine.zolctl("log")
    assert (told.returncode, told.stdout, told.stderr) == (1, "", NONE + "\n")

    machine.path("/var/log/zol").mkdir()
    assert machine.zolctl("log").returncode == 1
    machine.path("/run/systemd/journal").mkdir(parents=True)
    machine.path("/run/systemd/journal/socket").touch()
    assert machine.zolctl("log").stderr == NONE + "\n"


@pytest.mark.parametrize("options", [(), ("--follow",)])
def test_a_log_that_cannot_be_read_is_told_behind_what_can(machine, options):
    write(machine, line(1, "there"), "main.log")
    machine.path("/var/log/zol/system.log").symlink_to("system.log")

    told = machine.zolctl("log", *options)

    assert (told.returncode, told.stdout) == (2, line(1, "there"))
    assert told.stderr == "zolctl: the log in /var/log/zol cannot be read: Too many levels of symbolic links\n"


def test_files_that_were_turned_over_are_read_as_one_log(machine):
    for name, second in (("system.log", 4), ("system.1.log", 3), ("system.2.log", 1), ("main.log", 2)):
        write(machine, line(second, str(second)) + "\0garbage\n", name)

    assert shown(machine) == ["1", "2", "3", "4"]


class Follower:
    """A zolctl log --follow."""

    def __init__(self, machine, *options):
        self.process = machine.start(BIN / "zolctl", "log", "--follow", *options, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True)

    def next(self):
        return self.process.stdout.readline()


@pytest.mark.parametrize("how", [signal.SIGINT, signal.SIGTERM])
def test_a_log_is_followed_from_before_its_begin_and_across_its_files(machine, how):
    follower = Follower(machine)
    assert follower.process.stderr.readline() == NONE + ": waiting for it\n"

    for turn in range(1, 4):
        file = write(machine, line(turn, f"turn {turn}"))
        assert follower.next() == line(turn, f"turn {turn}")
        file.rename(file.with_name("system.1.log"))

    follower.process.send_signal(how)
    assert follower.process.wait(timeout=60) == 0
    assert follower.process.stdout.read() == follower.process.stderr.read() == ""


def test_one_rule_is_followed(machine, daemon):
    del daemon
    machine.push(policy(int_rule(KEY, "IS", 3), int_rule(OTHER, "IS", 3)))
    follower = Follower(machine, "--rule", KEY)
    while "registered" not in follower.next():
        pass

    hit(machine, OTHER, "3")
    hit(machine, KEY, "3")

    followed = [follower.next() for _ in range(9)]
    assert f"key : {KEY}\n" in followed[0] and "m_UpdateVconfKey" in followed[8]


def test_a_follower_whose_reader_has_gone_ends_with_a_failure(machine):
    write(machine, line(1, "before"))
    follower = Follower(machine)
    assert follower.next() == line(1, "before")

    follower.process.stdout.close()

    assert follower.process.wait(timeout=60) == 2
    assert follower.process.stderr.read() == "zolctl: cannot write the output\n"


def test_the_journal_is_read_where_there_is_one(machine):
    boot = pathlib.Path("/proc/sys/kernel/random/boot_id").read_text().strip().replace("-", "")
    journal = machine.path("/var/log/journal/" + "a" * 32)
    journal.mkdir(parents=True)
    machine.path("/run/systemd/journal").mkdir(parents=True)
    machine.path("/run/systemd/journal/socket").touch()
    write(machine, line(1, "a file is not read"))
    entries = "".join(f"__REALTIME_TIMESTAMP=170000000{number}123456\n__MONOTONIC_TIMESTAMP={number}\n_BOOT_ID={boot}\n"
                      f"_PID=7\nTID=8\nSYSLOG_IDENTIFIER=ZOL\nDLOG_BUFFER=system\nDLOG_PRIORITY={level}\n"
                      f"MESSAGE=ZOLVconfChecker: {text}\n\n"
                      for number, level, text in ((0, "I", f"m_KeyChangedCb(1) > [m_KeyChangedCb] key : {OTHER}"),
                                                  (1, "I", "m_Check(2) > find!"),
                                                  (2, "E", f"m_KeyChangedCb(1) > [m_KeyChangedCb] key : {KEY}"),
                                                  (3, "E", "m_Check(2) > find!\x1b")))
    (machine.folder / "export").write_text(entries)
    subprocess.run(["/lib/systemd/systemd-journal-remote", "--split-mode=none", f"--output={journal}/system.journal",
                    machine.folder / "export"], check=True, capture_output=True)

    assert len(shown(machine)) == 4
    assert shown(machine, "--rule", KEY) == [f"ZOLVconfChecker: m_KeyChangedCb(1) > [m_KeyChangedCb] key : {KEY}",
                                             "ZOLVconfChecker: m_Check(2) > find!\\x1b"]
    assert re.match(r"2023-11-1\d \d\d:\d\d:\d\d\.123 I/ZOL\(7:8\): ", machine.zolctl("log").stdout)
