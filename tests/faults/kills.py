"""Roads on which a process is killed before each of its system calls."""
from conftest import HANDOVER_KEY
from roads import FIRST, SECOND
from trial import until


def start_with(trial, document=None):
    """A running daemon, whose key service is not the one to be killed, with a policy that is applied."""
    trial.prepare_keys(FIRST, SECOND)
    trial.start()
    if document:
        trial.push(document)
        trial.await_watching()


def hand_over(trial, document):
    """Pushes a policy once while calls count; a daemon that is killed meanwhile answers nothing."""
    trial.attempted = document
    trial.control.arm()
    pushed = trial.machine.zolctl("policy", "push", "-", stdin=document.text)
    trial.control.arm(False)
    if pushed.returncode == 0:
        trial.stored, trial.attempted = document, None
    trial.check_stored()


def first_policy(trial):
    """The daemon, from a policy's arrival to its answer; there was none."""
    start_with(trial)
    hand_over(trial, FIRST)


def next_policy(trial):
    """The daemon, from a policy's arrival to its answer; another one runs."""
    start_with(trial, FIRST)
    hand_over(trial, SECOND)


def report(trial):
    """The daemon, from a hit to the published path and the event."""
    start_with(trial, FIRST)
    trial.control.arm()
    trial.set(FIRST.key, 3)
    until(lambda: not trial.is_running() or (trial.published() and trial.events()))
    trial.control.arm(False)
    check_published(trial)


def report_keys(trial):
    """The key service, from a hit to the published path and the event; the daemon must hand over all the same."""
    trial.start_service()
    trial.prepare_keys(FIRST)
    trial.start(wrapper=())
    trial.push(FIRST)
    trial.control.arm()
    trial.report(lambda: trial.set(FIRST.key, 3), "a hit")
    trial.control.arm(False)


def next_path(trial):
    """The daemon, from the taking of a path to the publishing of the next one."""
    start_with(trial, FIRST)
    two_reports(trial)
    trial.control.arm()
    trial.set(HANDOVER_KEY, "", "string")
    until(lambda: not trial.is_running() or trial.published())
    trial.control.arm(False)
    check_published(trial)


def taking(trial):
    """Who takes a path: reads the key, empties it. Another one goes on where it was killed."""
    trial.prepare_keys(FIRST)
    trial.start(wrapper=())
    trial.push(FIRST)
    two_reports(trial)
    trial.control.arm()
    wrapper = trial.wrapper()
    taken = 0
    for _ in range(2):
        read = trial.killed_tool(wrapper, "vconf", "get", HANDOVER_KEY)
        if read.returncode == 0:
            trial.check_header(trial.machine.path(read.stdout.rstrip("\n")))
            taken += 1
            if trial.killed_tool(wrapper, "vconf", "set", HANDOVER_KEY, "--type", "string", "--", "").returncode == 0:
                trial.expect(lambda: trial.published() or "m_notiPathList is empty" in trial.machine.log(), "the next")
    trial.control.arm(False)
    while trial.published():
        trial.collect()
        trial.expect(lambda: trial.published() or "m_notiPathList is empty" in trial.machine.log(), "the next")
        taken += 1
    if taken < 2:
        trial.find(f"2 paths were handed over and {taken} taken")
    trial.stop()


def setting(trial):
    """The key service, from the first of six sets to the last."""
    service = trial.start_service()
    trial.control.arm()
    trial.set_and_restart(service)


def two_reports(trial):
    """One path is published and another one waits."""
    for turn in (1, 2):
        trial.set(FIRST.key, 3)
        # Two changes in quick succession may be judged by the later value, and be two hits.
        trial.expect(lambda turn=turn: len(trial.events()) >= turn, "the event")
        trial.expect(trial.published, "the path")
        if turn == 2:
            trial.expect(lambda: "add current path to list" in trial.machine.log(), "the path in line")
        trial.set(FIRST.key, 0)


def check_published(trial):
    """A path that is published stands for a whole report."""
    folder = trial.published()
    if folder:
        trial.check_header(folder)


KILLS = {"first-policy": first_policy, "next-policy": next_policy, "report": report, "report-keys": report_keys,
         "next-path": next_path, "taking": taking, "setting": setting}
KILLED = {"first-policy": "zol_daemon", "next-policy": "zol_daemon", "report": "zol_daemon",
          "report-keys": "zol_vconfd", "next-path": "zol_daemon", "taking": "zolctl", "setting": "zol_vconfd"}
