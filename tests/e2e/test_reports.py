"""zolctl report: what lies there, and a collector that runs once."""
import json
import os
import pathlib
import subprocess

import pytest

from conftest import BIN, HANDOVER_KEY, wait_for
from reports import another_second, folders, hit, make_report, publish, watch_keys


@pytest.fixture(name="target")
def make_target(machine):
    folder = machine.folder / "target"
    folder.mkdir()
    return folder


def collected(target):
    return sorted(entry.name for entry in target.iterdir())


def test_reports_are_listed_oldest_first_with_what_their_headers_say(machine):
    make_report(machine, "t\n_1700000001")
    path = make_report(machine, "t_1700000000", files={"core": b"12345"})
    make_report(machine, "CV_dump")
    publish(machine, path)

    rows = [row.split("\t") for row in machine.zolctl("report", "list", check=0).stdout.splitlines()]
    listed = json.loads(machine.zolctl("report", "list", "--json", check=0).stdout)

    size = (machine.path(path) / "header.json").stat().st_size
    assert rows[0] == ["2023-11-14T22:13:20Z", "HW-1", "42", str(size + 5), "published", path]
    assert rows[1][4:] == ["lying", r"/tmp/zol/t\n_1700000001"] and len(rows) == 2
    assert [one["state"] for one in listed] == ["published", "lying"]
    assert listed[1]["path"] == "/tmp/zol/t\n_1700000001" and listed[1]["header"]["lcid"] == "42"


def test_none_are_listed_where_none_were_made(machine):
    assert machine.zolctl("report", "list", check=0).stdout == ""
    assert json.loads(machine.zolctl("report", "list", "--json", check=0).stdout) == []


def test_a_report_is_shown_by_its_path_or_its_name(machine):
    path = make_report(machine, "t_1700000000", files={"below/core": b"12345"})

    shown = machine.zolctl("report", "show", path, check=0).stdout.splitlines()
    also = json.loads(machine.zolctl("report", "show", "t_1700000000", "--json", check=0).stdout)

    assert "id\tHW-1" in shown and "file\t5\tbelow/core" in shown
    assert also["header"]["evid"] == "1700000000"
    assert {"name": "below/core", "bytes": 5} in also["files"]


def test_what_is_no_report_is_not_shown(machine):
    make_report(machine, "t_1")
    machine.path("/tmp/zol/link_1").symlink_to("/etc")

    for path, words in (("/etc", "is no report right in /tmp/zol"), ("/tmp/zol/link_1", "is a link or not a folder"),
                        ("/tmp/zol/none_1", "No such file")):
        refused = machine.zolctl("report", "show", path)
        assert refused.returncode == 1 and words in refused.stderr and refused.stderr.count("\n") == 1


def test_the_published_report_is_taken_and_the_daemon_publishes_the_next(machine, daemon, target):
    watch_keys(machine)
    first = hit(machine, 0)
    another_second()
    second = hit(machine, 1)
    wait_for(lambda: machine.get(HANDOVER_KEY) == first, "the first path")

    taken = machine.zolctl("report", "take", target, check=0)

    name = pathlib.Path(first).name
    assert taken.stdout == f"{target}/{name}\n"
    assert json.loads((target / name / "header.json").read_text())["category"] == "ZOL"
    wait_for(lambda: machine.get(HANDOVER_KEY) == second, "the second path")


def test_nothing_is_taken_when_nothing_is_published(machine, target):
    refused = machine.zolctl("report", "take", target)

    assert (refused.returncode, refused.stdout, refused.stderr) == (1, "", "zolctl: no report is published\n")


@pytest.mark.parametrize("path, words", [("/tmp/zol/gone_1", "No such file"), ("/etc/x_1", "is no report right in"),
                                         ("/tmp/zol/link_1", "is a link or not a folder")])
def test_what_cannot_be_taken_is_told_and_holds_nobody_up(machine, target, path, words):
    make_report(machine, "t_1")
    machine.path("/tmp/zol/link_1").symlink_to(target)
    publish(machine, path)

    refused = machine.zolctl("report", "take", target)

    assert refused.returncode == 1 and words in refused.stderr and refused.stderr.count("\n") == 1
    assert machine.get(HANDOVER_KEY) == "" and collected(target) == []


def test_all_reports_are_collected_published_in_line_and_left_lying(machine, daemon, target):
    lying = make_report(machine, "t_1700000000")
    watch_keys(machine)
    paths = []
    for number in range(3):
        paths.append(hit(machine, number))
        another_second()

    told = json.loads(machine.zolctl("report", "collect", target, "--json", "--wait", "5", check=0).stdout)

    assert [one["path"] for one in told] == [*paths, lying]
    assert told[-1]["moved"] is True
    assert collected(target) == sorted(pathlib.Path(path).name for path in (*paths, lying))
    assert machine.get(HANDOVER_KEY) == "" and "t_1700000000" not in folders(machine)


def test_what_may_still_be_written_is_not_collected(machine, target):
    make_report(machine, "t_1700000000")
    # However slow the machine is, it was changed just now.
    young = machine.path(make_report(machine, "t_1700000001"))
    subprocess.run(["bash", "-c", f"while sleep 0.1; do touch {young}; done & touch {young}; "
                    f"{BIN}/zolctl report collect {target} --wait 0; status=$?; kill $!; exit $status"],
                   env=machine.env, check=True, capture_output=True)

    assert collected(target) == ["t_1700000000"] and folders(machine) == ["t_1700000001"]


def test_a_report_that_is_complete_only_after_it_was_taken_is_told_once(machine, target):
    path = make_report(machine, "t_1700000000", age=0)
    publish(machine, path)
    collecting = machine.start(BIN / "zolctl", "report", "collect", target, "--wait", "3", stdout=subprocess.PIPE,
                               text=True)
    wait_for(lambda: (target / "t_1700000000").exists() and machine.get(HANDOVER_KEY) == "", "the report")
    os.utime(machine.path(path), (0, 0))

    told, _ = collecting.communicate(timeout=60)

    assert (collecting.returncode, told) == (0, f"{target}/t_1700000000\n")


def test_what_was_collected_is_not_collected_again(machine, target):
    path = make_report(machine, "t_1700000000", age=0)
    publish(machine, path)
    machine.zolctl("report", "collect", target, "--wait", "0", check=0)
    publish(machine, path)

    again = machine.zolctl("report", "collect", target, "--wait", "0", check=0)

    assert again.stdout == f"{target}/t_1700000000\tknown\n"
    assert collected(target) == ["t_1700000000"]


def test_a_full_destination_keeps_the_report_published(machine, target):
    make_report(machine, "t_1600000000")
    path = make_report(machine, "t_1700000000", age=0, files={"core": b"x" * 100000})
    publish(machine, path)

    # No file grows beyond 50 KiB.
    full = machine.start("bash", "-c", f"trap '' XFSZ; ulimit -f 50; exec {BIN}/zolctl report collect {target}",
                         stderr=subprocess.PIPE, text=True)
    _, errors = full.communicate(timeout=60)

    # A build that counts coverage has lines of its own.
    lines = [line for line in errors.splitlines() if not line.startswith(("profiling:", "libgcov"))]
    assert (full.returncode, lines) == (2, ["zolctl: cannot copy t_1700000000/core: File too large"])
    assert machine.get(HANDOVER_KEY) == path and collected(target) == []


def test_a_folder_that_cannot_be_used_is_told(machine):
    publish(machine, make_report(machine, "t_1"))

    missing = machine.zolctl("report", "collect", "/nowhere")
    usage = machine.zolctl("report", "collect")

    assert (missing.returncode, missing.stderr) == (2, "zolctl: /nowhere: No such file or directory\n")
    assert usage.returncode == 2 and usage.stderr.count("\n") == 1
    assert machine.get(HANDOVER_KEY) == "/tmp/zol/t_1"


def test_a_key_store_that_is_down_is_told_and_the_list_stays(machine, target):
    make_report(machine, "t_1700000000")
    machine.end_key_service()
    os.makedirs(machine.path("/var/lib/zol"), exist_ok=True)
    store = machine.path("/var/lib/zol/vconfd")
    if store.exists():
        store.rename(store.with_name("moved"))
    store.symlink_to(store)

    listed = machine.zolctl("report", "list")
    refused = machine.zolctl("report", "collect", target, "--wait", "0")

    line = "zolctl: the key store cannot be used: Input/output error\n"
    assert (listed.returncode, listed.stderr) == (2, line) and listed.stdout.split("\t")[4] == "unknown"
    assert (refused.returncode, refused.stderr) == (2, line) and collected(target) == []
