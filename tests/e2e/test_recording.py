"""A test recording from the first key to the archive, and everything that may be wrong with the stick."""
import json
import os
import shutil
import subprocess

import pytest

from conftest import wait_for
from recording import START, STOP, Display, Recorder

STATE = "db/window_system/system_state"
NO_PATH = "[TestRecording] Fail to get USB Path"
NOT_RUN = "[TestRecording] Recording hasn't been run yet."
STARTED, FINISHING = ("Recording started...", 5000), ("Recording finishing...", 10000)
# Root may write everywhere; who has no such right meets the same limits as anybody else.
NO_OVERRIDE = ["setpriv", "--bounding-set=-dac_override,-dac_read_search", "--inh-caps=-all"]


@pytest.fixture
def recorder(machine):
    recorder = Recorder(machine)
    yield recorder
    recorder.close()


@pytest.fixture
def running(recorder):
    recorder.start()
    return recorder


def names(folder):
    return sorted(path.name for path in folder.iterdir())


def test_a_recording_holds_focus_lines_picture_trace_and_scenario(machine, recorder):
    machine.env["DISPLAY"] = Display(machine).name
    recorder.start()
    (recorder.stick / "recorded_scenario.txt").write_text("of an earlier recording")

    recorder.begin()
    assert machine.get(STATE) == "1"
    assert recorder.toasts() == [STARTED]
    assert not (recorder.stick / "recorded_scenario.txt").exists()
    (recorder.stick / "recorded_scenario.txt").write_text("press OK\n")
    recorder.focus("OnFocused: home", "OnClosed: home", "OnFocused: store")
    machine.set("memory/boot/dyboost/lumo_onfocus", "store_tile", "string")
    machine.wait_log("store_tile")
    recorder.finish()

    assert machine.get(STATE) == "0"
    assert recorder.toasts() == [STARTED, FINISHING]
    assert recorder.followers() == []
    folder = recorder.unpack()
    assert names(folder) == ["ScreenCapture", "csfs_log.txt", "dumpCV", "recorded_scenario.txt"]
    assert (folder / "recorded_scenario.txt").read_text() == "press OK\n"
    lines = (folder / "csfs_log.txt").read_text().splitlines()
    assert [line.split(" ", 1)[1] for line in lines] == ["I/CSFS(1:1): OnFocused: home",
                                                         "I/CSFS(1:1): OnFocused: store"]
    (picture,) = (folder / "ScreenCapture").iterdir()
    assert picture.name.startswith("Capturefile_20")
    seen = subprocess.run(["identify", "-format", "%m %w %h %[fx:mean]", picture], capture_output=True, text=True,
                          check=True)
    assert seen.stdout == "JPEG 960 540 1"
    events = json.loads((folder / "dumpCV/trace.json").read_text())["traceEvents"]
    focus = [event for event in events if event["name"] == "m_ScreenScrollCb"]
    assert [(event["ph"], event["args"]["item0"]) for event in focus] == [("X", "store_tile")]


def test_without_a_display_the_rest_is_recorded(machine, running):
    running.begin()
    running.focus("OnFocused: home")
    running.finish()

    machine.wait_log("[TestRecording] dc_request_capture_to_file_sync failed")
    assert machine.log("main").count("no display to capture") == 1
    folder = running.unpack()
    assert names(folder) == ["ScreenCapture", "csfs_log.txt", "dumpCV"]
    assert names(folder / "ScreenCapture") == []
    assert "OnFocused: home" in (folder / "csfs_log.txt").read_text()


def test_a_display_that_does_not_answer_is_told_and_the_rest_is_recorded(machine, recorder):
    # The last number there is: servers of tests beside this one take the first that is free.
    machine.env["DISPLAY"] = ":59535"
    recorder.start()

    recorder.begin()
    recorder.finish()

    assert "cannot capture the display: every tool failed" in machine.log("main")
    assert names(recorder.unpack()) == ["ScreenCapture", "csfs_log.txt", "dumpCV"]


def test_keys_in_the_wrong_order_only_log(machine, running):
    running.press(STOP, NOT_RUN)
    assert machine.get(STATE) is None
    running.begin()

    running.press(START, "[TestRecording] Already recording...")

    assert len(running.followers()) == 1
    running.finish()
    running.press(STOP, NOT_RUN, times=2)
    assert running.toasts() == [STARTED, FINISHING]
    assert machine.log().count("StartDlog cmd is") == 1


def test_a_second_recording_replaces_the_first(machine, running):
    for turn, element in enumerate(("first", "second"), start=1):
        running.begin(times=turn)
        machine.set("memory/boot/dyboost/lumo_onselect", element, "string")
        machine.wait_log(f"> {element}")
        running.finish(times=turn)

    events = json.loads((running.unpack() / "dumpCV/trace.json").read_text())["traceEvents"]
    assert [event["args"]["item0"] for event in events if event["name"] == "m_ScreenSelectCb"] == ["second"]


def test_without_a_stick_there_is_the_toast_and_no_recording(machine, running):
    running.udisks.unplug()

    running.press(START, NO_PATH)

    running.wait_toasts(1)
    assert machine.get(STATE) is None
    running.press(STOP, NOT_RUN)


def test_a_stick_that_vanishes_leaves_the_recording_active_until_it_is_back(machine, running):
    running.begin()
    running.udisks.unplug()
    shutil.rmtree(running.stick)

    # Neither where to end the recording nor where to pack it.
    running.press(STOP, NO_PATH, times=2)
    assert machine.get(STATE) == "1"
    running.stick.mkdir()
    running.udisks.plug(running.stick)
    running.press(STOP, "[TestRecording] Done making tar file.")

    assert machine.get(STATE) == "0"
    assert running.followers() == []
    # What was in the focus log went with the stick's old folder.
    assert names(running.unpack()) == ["ScreenCapture", "dumpCV"]


def test_a_stick_that_is_full_ends_the_recording_and_the_next_one_works(machine, running):
    running.fill_stick()
    running.begin()
    running.focus("OnFocused: home")
    running.finish()
    assert machine.get(STATE) == "0"
    output = running.daemon.output()
    assert "grep: write error: File too large" in output
    assert "gzip: stdout: File too large" in output
    assert (running.stick / "csfs_log.txt").stat().st_size == 0

    running.empty_stick()
    running.begin(times=2)
    running.finish(times=2)

    assert "dumpCV" in names(running.unpack())


def test_a_folder_in_the_archives_place_ends_the_recording(machine, running):
    (running.stick / "testrecording.tar.gz").mkdir()

    running.begin()
    running.finish()

    assert machine.get(STATE) == "0"
    assert "Is a directory" in running.daemon.output()


def test_a_stick_that_is_read_only_ends_the_recording_and_is_told(machine, recorder):
    recorder.start(wrapper=NO_OVERRIDE if os.geteuid() == 0 else [])
    recorder.stick.chmod(0o555)

    recorder.begin()
    recorder.finish()

    assert "Failed to create Screen Capture directory! Dir: " in machine.log()
    assert "the trace dump cannot be saved in " in machine.log("main")
    assert machine.get(STATE) == "0"
    assert names(recorder.stick) == []
    recorder.stick.chmod(0o755)
    recorder.begin(times=2)
    recorder.finish(times=2)
    assert names(recorder.unpack()) == ["ScreenCapture", "csfs_log.txt", "dumpCV"]


def test_a_mount_path_is_never_shell_code(machine, recorder):
    marker = machine.folder / "broken-out"
    recorder.add_tool("break_out", f"#!/bin/sh\ntouch {marker}\n")
    subprocess.run(["sh", "-c", "break_out"], env=machine.env, check=True)
    marker.unlink()
    recorder.udisks.unplug()
    recorder.stick = machine.path("/media/-a 'b\" $(break_out) `break_out` ; break_out & \\ * stick")
    recorder.stick.mkdir()
    recorder.udisks.plug(recorder.stick)
    recorder.start()

    recorder.begin()
    recorder.focus("OnFocused: home")
    recorder.finish()

    assert not marker.exists()
    folder = recorder.unpack()
    assert names(folder) == ["ScreenCapture", "csfs_log.txt", "dumpCV"]
    assert "OnFocused: home" in (folder / "csfs_log.txt").read_text()


def test_without_anybody_who_shows_toasts_the_recording_goes_on(machine, running):
    running.notifications.stop()

    running.press(START, "[TestRecording] StartDlog cmd is")
    running.finish()

    assert "dumpCV" in names(running.unpack())


def test_a_daemon_that_ends_during_a_recording_ends_in_order(machine, running):
    running.begin()

    assert running.daemon.stop() == 0


def test_on_a_product_image_the_keys_do_nothing(machine, recorder):
    machine.path("/etc/debug").unlink()
    recorder.daemon = machine.start_daemon(wrapper=recorder.keyboard.wrapper())

    assert "Debug Image!" not in machine.log()
    assert "input device" not in machine.log("main")


def test_keys_of_a_table_of_ones_own_start_a_recording(machine, recorder):
    machine.path("/etc/zol").mkdir()
    machine.path("/etc/zol/keycombination.conf").write_text("95 = KEY_S + KEY_LEFTCTRL\nnonsense\n")
    recorder.start()
    assert '/etc/zol/keycombination.conf: line 2: no "="' in machine.log("main")

    recorder.keyboard.press(STOP)

    recorder.wait_toasts(1)
    assert machine.get(STATE) == "1"
