"""The scenarios that faults are put into: each prepares a machine, then drives it while calls count."""
import tarfile

from recording import START, STOP, Recorder
from services import Bluez, Logind, Subscriber
from trial import Document, Ended, until

REMOTE = "AA:BB:CC:DD:EE:01"
APP = "org.kaldo.example"
PREPARED = "db/private/tvs-cv/power_on_prepared"
FIRST, SECOND = Document("db/menu/picture/backlight"), Document("db/menu/picture/contrast")
INSTALL = Document("db/unused/install", f'<monitor kind="1" id="{APP}" name="Example" method="11" duration="60" '
                                        'repetition="1"/>')
PAIRING = Document("db/unused/pairing", '<monitor kind="3" name="remote" method="32" duration="60" repetition="1" '
                                        'reserve1="1"/>')


def road(trial):
    """A first start on an empty machine, a policy, two reports, another policy, the end."""
    trial.control.arm()
    trial.start()
    trial.prepare_keys(FIRST, SECOND)
    trial.push(FIRST)
    trial.hit(FIRST)
    trial.hit(FIRST)
    trial.push(SECOND)
    trial.stop()


def restart(trial):
    """A start on a stored policy, and a report."""
    file = trial.machine.path("/var/lib/zol/policy.xml")
    file.parent.mkdir(parents=True)
    file.write_text(FIRST.text)
    trial.stored = FIRST
    trial.prepare_keys(FIRST)  # with a key service that is not broken
    trial.control.arm()
    trial.start()
    trial.hit(FIRST)
    trial.hit(FIRST)
    trial.stop()


def install(trial):
    """A policy that watches installs, and two of them."""
    folder = trial.machine.path("/home/.local/share/applications")
    folder.mkdir(parents=True)
    trial.prepare_keys(INSTALL)
    trial.start()
    trial.control.arm()
    trial.push(INSTALL)
    for turn in range(2):
        def write(turn=turn):
            text = f"[Desktop Entry]\nType=Application\nName=Example {turn}\nExec=example\n"
            (folder / f"{APP}.desktop").write_text(text)
        trial.await_watching()
        trial.report(write, f"install {turn}")
    trial.stop()


def pairing(trial):
    """A policy that watches the remote, and two pairings of the same one."""
    bluez = Bluez(trial.machine)
    bluez.add_remote(REMOTE)
    trial.prepare_keys(PAIRING)
    trial.set("file/bluetooth/bt_last_connected_smart_rc", REMOTE, "string")
    trial.start()
    trial.control.arm()
    trial.push(PAIRING)
    trial.await_watching()
    until(lambda: "watching the Bluetooth devices" in trial.machine.log("main"), 5)
    for turn in range(2):
        def pair():
            bluez.set_connected(REMOTE, False)
            bluez.set_connected(REMOTE, True)
        trial.report(pair, f"pairing {turn}")
    trial.stop()


def power_off(trial):
    """Standby and wake-up, then power-off, with a subscriber that answers."""
    logind = Logind(trial.machine)
    trial.prepare_keys(FIRST)
    trial.start()
    until(logind.is_held_up)
    subscriber = Subscriber(trial.machine, "answer")
    trial.push(FIRST)
    trial.control.arm()
    logind.prepare_for_sleep(True)
    trial.expect(lambda: not logind.is_held_up(), "the delay lock to go before standby")
    was_over = trial.control.is_broken or not trial.fault.nth
    logind.prepare_for_sleep(False)
    trial.expect(lambda: trial.get(PREPARED) == "true", "the prepared power-on", not was_over)
    trial.expect(logind.is_held_up, "the delay lock again", not was_over)
    logind.prepare_for_shutdown(True)
    trial.expect(lambda: not logind.is_held_up(), "the delay lock to go before power-off")
    trial.stop()
    subscriber.process.kill()


def recording(trial):
    """A test recording from key to archive."""
    recorder = Recorder(trial.machine)
    try:
        trial.prepare_keys()
        trial.start(wrapper=recorder.keyboard.wrapper([str(word) for word in trial.wrapper()]))
        recorder.keyboard.plug()
        trial.expect(lambda: "input device event1 is there" in trial.machine.log("main"), "the keyboard")
        trial.control.arm()
        press(trial, recorder, START)
        trial.expect(recorder.toasts, "the toast", True)
        trial.expect(trial.is_running, "the daemon to go on")
        press(trial, recorder, STOP)
        # Told by the file, too: the line may be what is lost. Packing takes long on a busy machine.
        archive = recorder.stick / "testrecording.tar.gz"
        trial.expect(lambda: "Done making tar file." in trial.machine.log() or is_archive(archive), "the archive",
                     True, 60)
        check_archive(trial, archive)
        trial.stop()
    finally:
        recorder.keyboard.close()
        recorder.notifications.stop()
        recorder.session.stop()


def press(trial, recorder, key):
    """Presses a key; the keyboard goes with the program."""
    try:
        recorder.keyboard.press(key)
    except BrokenPipeError:
        trial.expect(lambda: False, "the daemon, which has lost its keyboard, to end")
        raise Ended from None


def is_archive(path):
    """Whether it can be read and has the trace."""
    try:
        with tarfile.open(path) as opened:
            return any(name.endswith("dumpCV") for name in opened.getnames())
    except (OSError, EOFError, tarfile.TarError):
        return False


def check_archive(trial, archive):
    """The archive has the trace, or a line tells what went wrong."""
    if not is_archive(archive) and not trial.loss_lines():
        trial.find("the archive lacks the trace, and no line tells of it")


def commands(trial):
    """Each command of zolctl, broken itself, at a daemon that is not."""
    trial.prepare_keys(FIRST)
    trial.start(wrapper=())
    trial.control.arm()
    wrapper = [str(word) for word in trial.wrapper()]
    pushed = trial.broken_tool(wrapper, "policy", "push", "-", stdin=FIRST.text)
    # One that was not acknowledged may still be on its way: what is stored is looked at in the end.
    trial.attempted = FIRST
    if pushed.returncode == 0:
        trial.stored, trial.attempted = FIRST, None
    changed = trial.broken_tool(wrapper, "vconf", "set", "db/one", "7", "--type", "int")
    if changed.returncode == 0 and trial.get("db/one") != "7":
        trial.find("zolctl says that a key is set, and it is not")
    read = trial.broken_tool(wrapper, "vconf", "get", "db/one")
    if read.returncode == 0 and read.stdout != (trial.get("db/one") or "") + "\n":
        trial.find(f"zolctl shows another value: {read.stdout!r}")
    listed = trial.broken_tool(wrapper, "kpi", "list", "--json")
    if listed.returncode == 0 and listed.stdout.strip() != "[]":
        trial.find(f"zolctl lists other events: {listed.stdout!r}")
    trial.stop()


def keys(trial):
    """The key service alone: what it has acknowledged is there after it is killed."""
    service = trial.start_service()
    trial.control.arm()
    trial.set_and_restart(service)


ROADS = {"road": road, "restart": restart, "install": install, "pairing": pairing, "power-off": power_off,
         "recording": recording, "zolctl": commands, "keys": keys}
PROGRAMS = {"zolctl": ("zolctl",), "keys": ("zol_vconfd",)}
