"""zol_collector: takes what is published, what waits in line and what was left lying, once."""
import os
import pathlib
import re
import shutil
import signal
import subprocess

import pytest

from collecting import Collector, wakeups
from conftest import BIN, BUILD, EMULATOR, HANDOVER_KEY, processes_on, wait_for
from reports import KEYS, another_second, hit, make_report, publish, watch_keys


@pytest.fixture(name="start_collector")
def make_start_collector(machine):
    return lambda *arguments, **options: Collector(machine, *arguments, **options)


def name_of(path):
    return pathlib.Path(path).name


def test_a_hit_is_collected_and_the_key_emptied(machine, daemon, start_collector):
    collector = start_collector().started()
    watch_keys(machine)
    path = hit(machine, 0)

    collector.wait_names(name_of(path))
    wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")
    entry = next((collector.spool / "reports").iterdir())

    header = entry / name_of(path) / "header.json"
    assert header.read_bytes() == (machine.path(path) / "header.json").read_bytes()
    assert collector.status()["counts"]["taken"] == 1
    assert collector.stop() == 0


def test_what_was_published_and_in_line_before_it_started_is_collected_in_order(machine, daemon, start_collector):
    watch_keys(machine)
    paths = []
    for number in range(3):
        paths.append(hit(machine, number))
        another_second()

    start_collector().wait_names(*map(name_of, paths))


def test_what_was_in_line_when_the_daemon_was_killed_is_collected_once(machine, start_collector):
    daemon = machine.start_daemon()
    watch_keys(machine)
    paths = []
    for number in range(3):
        paths.append(hit(machine, number))
        another_second()
    daemon.stop(signal.SIGKILL)
    for path in paths:
        os.utime(machine.path(path), (1700000000, 1700000000))
    collector = start_collector().started()
    wait_for(lambda: sorted(collector.names()) == sorted(map(name_of, paths)), "all reports")

    # A daemon that starts again takes the key back; that makes nothing new.
    for key in KEYS:
        machine.set(key, "0", "int")
    machine.start_daemon()
    watch_keys(machine)
    publish(machine, paths[1])
    wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")
    collector.stop()
    again = start_collector().started()
    assert len(again.names()) == 3 and again.status()["counts"]["taken"] == 3


def test_what_may_still_be_written_is_left(machine, start_collector):
    make_report(machine, "t_1700000000")
    make_report(machine, "t_1700000001", age=-3600)
    young = machine.path(make_report(machine, "t_1700000002", age=0))
    unfinished = make_report(machine, "t_1700000003")
    (machine.path(unfinished) / "header.json").unlink()
    os.utime(machine.path(unfinished), (1700000000, 1700000000))

    collector = start_collector().started()

    def are_taken():
        os.utime(young)  # however slow the machine is, it was changed just now
        return len(collector.names()) == 2
    wait_for(are_taken, "two reports")

    assert sorted(collector.names()) == ["t_1700000000", "t_1700000001"]


def test_a_second_collector_says_so_and_ends(start_collector):
    collector = start_collector().started()
    second = start_collector()

    assert second.process.wait(timeout=60) == 3
    assert second.said() == [f"zol_collector: another collector works on {collector.spool}"]
    assert collector.process.poll() is None


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL])
def test_a_collector_that_ends_is_followed_by_another(machine, start_collector, how):
    first = start_collector().started()
    publish(machine, make_report(machine, "t_1"))
    first.wait_names("t_1")
    assert first.stop(how) == (0 if how == signal.SIGTERM else -how)

    publish(machine, make_report(machine, "t_2"))
    start_collector().wait_names("t_1", "t_2")


@pytest.mark.parametrize("path, words", [("/tmp/zol/gone_1", "No such file"), ("/etc/x_1", "is no report right in"),
                                         ("/tmp/zol/link_1", "is a link or not a folder")])
def test_what_cannot_be_taken_is_one_line_and_holds_nobody_up(machine, start_collector, path, words):
    good = make_report(machine, "t_1", age=0)
    machine.path("/tmp/zol/link_1").symlink_to("/etc")
    collector = start_collector().started()

    publish(machine, path)
    wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")
    publish(machine, good)

    collector.wait_names("t_1")
    assert sum(words in line for line in collector.said()) == 1


def test_a_full_disk_keeps_reports_published_until_there_is_room(machine, start_collector):
    path = make_report(machine, "t_1", age=0, files={"core": b"x" * 100000})
    limited = ("bash", "-c", 'trap "" XFSZ; ulimit -S -f 50; exec "$0" "$@"')
    collector = start_collector(wrapper=limited).started()
    publish(machine, path)
    collector.wait_said("cannot copy t_1/core: File too large")
    assert machine.get(HANDOVER_KEY) == path and collector.names() == []

    subprocess.run(["prlimit", "--pid", str(collector.process.pid), "--fsize=unlimited"], check=True)

    collector.wait_names("t_1")
    collector.wait_said("goes on")
    assert sum("File too large" in line for line in collector.said()) == 1


@pytest.mark.skipif(bool(EMULATOR), reason="an emulated collector cannot start another program")
def test_a_key_store_that_is_killed_costs_nothing(machine, start_collector):
    collector = start_collector().started()
    # The collector itself starts the next one.
    for service in processes_on(machine.root, "zol_vconfd"):
        os.kill(service, signal.SIGKILL)

    publish(machine, make_report(machine, "t_1", age=0))

    collector.wait_names("t_1")


@pytest.mark.skipif(bool(EMULATOR), reason="an emulated collector cannot start another program")
def test_a_key_store_that_is_down_is_one_line_and_waited_for(machine, start_collector):
    make_report(machine, "t_1")
    run = machine.path("/run/zol")
    run.symlink_to(run)
    collector = start_collector()
    collector.wait_said("the key store cannot be used: Input/output error")
    run.unlink()

    collector.wait_names("t_1")
    assert sum("the key store cannot be used" in line for line in collector.said()) == 1


def test_what_has_no_room_is_dropped_counted_and_shown(machine, start_collector):
    for number in range(3):
        make_report(machine, f"t_{number}", age=0, files={"core": b"x" * 30000})
    collector = start_collector("--max-bytes", "100KB", "--max-reports", "2").started()
    for number in range(3):
        publish(machine, f"/tmp/zol/t_{number}")
        wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")

    status = collector.status()
    shown = subprocess.run([BIN / "zol_collector", "--spool", collector.spool, "--status"], capture_output=True,
                           text=True, check=True, env=machine.env).stdout

    assert [(report["name"], report["whole"]) for report in status["reports"]] == [("t_1", True), ("t_2", True)]
    assert status["counts"]["dropped_bodies"] == 1 and status["counts"]["dropped_reports"] == 1
    assert "dropped_reports\t1\n" in shown and "\twaiting\t" in shown


@pytest.mark.parametrize("arguments, words", [
    (("--max-bytes", "1"), "--max-bytes"), (("--nothing",), "--nothing"), (("--json",), "--json"),
    (("--config", "CONFIG"), "max-reports")])
def test_wrong_arguments_are_one_line(machine, start_collector, arguments, words):
    (machine.folder / "collector.conf").write_text("max-reports=none\n")
    arguments = [word.replace("CONFIG", str(machine.folder / "collector.conf")) for word in arguments]
    collector = start_collector(*arguments)

    assert collector.process.wait(timeout=60) == 2
    assert len(collector.said()) == 1 and words in collector.said()[0]


def test_options_come_from_a_file_too(machine, start_collector):
    machine.path("/etc/zol").mkdir(parents=True)
    machine.path("/etc/zol/collector.conf").write_text("max-reports=1\n")
    collector = start_collector().started()
    for number in range(2):
        publish(machine, make_report(machine, f"t_{number}", age=0))
        wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")

    assert collector.names() == ["t_1"]


def test_a_spool_that_cannot_be_made_is_one_line(machine, start_collector):
    (machine.folder / "spool").write_text("")
    collector = start_collector()

    assert collector.process.wait(timeout=60) == 1
    assert collector.said() == [f"zol_collector: {collector.spool}: Not a directory"]


def test_reports_that_somebody_took_out_of_the_spool_are_not_missed(machine, start_collector):
    collector = start_collector("--max-reports", "2").started()
    for number in range(4):
        publish(machine, make_report(machine, f"t_{number}", age=0))
        wait_for(lambda: machine.get(HANDOVER_KEY) == "", "an empty key")
        if number == 1:
            shutil.rmtree(next((collector.spool / "reports").glob("*/t_0")).parent)

    collector.wait_names("t_2", "t_3")
    assert collector.status()["counts"]["dropped_reports"] == 1


@pytest.mark.skipif(bool(EMULATOR) or BUILD.name in ("asan", "tsan", "coverage"), reason="is about the product's own memory")
def test_it_sleeps_and_is_small_while_nothing_is_to_be_done(start_collector):
    collector = start_collector("--upload", "http://127.0.0.1:9/").started()
    pid = collector.process.pid

    # The look at what was left lying comes a second after the start.
    wait_for(lambda: wakeups(pid, seconds=3) == 0, "a sleep of three seconds")
    assert wakeups(pid, seconds=5) == 0

    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    assert int(re.search(r"VmRSS:\s*(\d+)", status).group(1)) < 8 * 1024


def test_help_shows_examples(machine):
    shown = subprocess.run([BIN / "zol_collector", "--help"], capture_output=True, text=True, check=True,
                           env=machine.env)
    assert "Examples:" in shown.stdout and "Exit statuses:" in shown.stdout
