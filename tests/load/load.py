"""One machine under load: the real programs, what disturbs them, and rounds of it."""
import collections
import os
import signal
import threading

from conftest import HANDOVER_KEY, Machine, TGID, int_rule, policy, processes_on, wait_for
from ledger import APPS, BARRIER, HOT, LINES, MAX_FOLDERS, Ledger, Round, Tasks, in_line, key_name, unhandled
from observers import Collector, Events, LogTail, Probe, Setter, settled_appetite
from services import Bluez, Logind

REMOTE = "AA:BB:CC:DD:EE:01"
LAST_CONNECTED = "file/bluetooth/bt_last_connected_smart_rc"
SLICES = 20
SLICE_PAUSE = 0.02  # seconds between two slices of a paced load
STALE_FOLDERS = 700  # of reports that nobody has collected before


def document(size):
    keys = [BARRIER, *HOT, *(key_name(number) for number in range(size))]
    monitors = [f'<monitor kind="1" id="{app}" name="x" method="11" duration="60" repetition="1"/>' for app in APPS]
    return policy(*(int_rule(key, "GREATER", 0) for key in keys), *monitors,
                  '<monitor kind="3" name="remote" method="32" duration="1" repetition="1"/>')


class Load:
    """The machine, its clients and its rounds. On one thread, but for the feeding of a burst."""

    FLOODS = (200, 600)  # sets of each hot key in a round

    def __init__(self, folder, random):
        self.random = random
        self.findings = []
        self.totals = collections.Counter()
        self.appetites = collections.defaultdict(list)  # (program, process, sets) to what it took, round by round
        self.machine = Machine(folder)
        self.clock = folder / "clock"
        self.serial = 0
        self.tasks = Tasks()
        self.number = 0
        self.rounds_left = 3
        self.daemon = None

    # --- the machine's life -------------------------------------------------------------------------------
    def begin(self):
        machine = self.machine
        self._leave_stale_folders()
        self.applications = machine.path("/home/.local/share/applications")
        self.applications.mkdir(parents=True)
        machine.set(LAST_CONNECTED, REMOTE, "string")
        self.tail = LogTail(machine.path("/var/log/zol/system.log"), LINES)
        self.main_tail = LogTail(machine.path("/var/log/zol/main.log"),
                                 {"bluez": rb"watching the Bluetooth devices", "logind": rb"logind is there"})
        self.tail.start()
        self.main_tail.start()
        self.events = Events(machine)
        self.setter = Setter(machine)
        self.collector = Collector(machine)
        self.collector.start()
        self._start_services()
        self._start_daemon(wait=True)
        self.probe = Probe(machine)
        self.push(300)

    def end(self):
        self._check_end(self.daemon.stop())
        self.tail.stop()
        self.main_tail.stop()

    def close(self):
        self.machine.close()

    def _leave_stale_folders(self):
        for number in range(STALE_FOLDERS):
            folder = self.machine.path(f"/tmp/zol/{TGID}_{number}")
            folder.mkdir(parents=True)
            os.utime(folder, (number, number))

    def _start_services(self):
        self.bluez = Bluez(self.machine)
        self.bluez.add_remote(REMOTE)
        self.logind = Logind(self.machine)

    def _start_daemon(self, wait):
        is_steered = self.random.random() < 0.5
        if is_steered:
            self._turn_clock(0)
            self.machine.env["ZOL_TEST_CLOCK_FILE"] = str(self.clock)
        self.is_steered = is_steered
        self.books = self.tail.catch_up()
        self.heard = self.main_tail.catch_up()
        self.life_events = 0
        self.daemon = self.machine.start_daemon("zol_daemon_steered" if is_steered else "zol_daemon", wait=wait)
        self.tasks.started()
        self.totals["daemon lives"] += 1

    def _check_end(self, status):
        if status != 0:
            self.find(f"the daemon ended with status {status}")

    # --- what is done to it -------------------------------------------------------------------------------
    def push(self, size):
        if self.machine.push(document(size)).returncode != 0:
            self.find("a good policy was refused")
        self.tasks.pushed(size)
        self.totals["policies pushed"] += 1

    def push_same(self, _):
        self.push(self.tasks.stored)

    def push_growing(self, _):
        stored = self.tasks.stored
        self.push(stored + 20 if stored < 500 else 300)

    def push_refused(self, _):
        result = self.machine.push(document(20).replace("/>", ">", 1), "--force")
        if result.returncode != 1:
            self.find("a malformed policy was not refused")
        self.tasks.refused()
        self.totals["policies refused"] += 1

    def kill_service(self, this):
        this.service_kills += 1
        for pid in processes_on(self.machine.root, "zol_vconfd"):
            os.kill(pid, signal.SIGKILL)

    def kill_daemon(self, this):
        this.daemon_kills += 1
        self.daemon.stop(signal.SIGKILL)
        self._daemon_ended(this)

    def restart_daemon(self, this):
        self._check_end(self.daemon.stop())
        self._daemon_ended(this)

    def _daemon_ended(self, this):
        this.starts += 1
        self._read_events(this)
        self._balance(is_killed=this.daemon_kills > 0)
        self._start_daemon(wait=True)

    def restart_bus(self, this):
        this.bus_restarts += 1
        self.machine.bus.stop()
        for service in (self.bluez, self.logind):
            service.process.kill()
            service.process.wait()
        self.machine.bus.start()
        self.heard = self.main_tail.catch_up()
        self._start_services()
        self.daemon.wait_until_serving()

    def stand_by(self, _):
        self.logind.prepare_for_sleep(True)
        self.logind.prepare_for_sleep(False)
        self.totals["standbys"] += 1

    def jump_clock(self, _):
        if self.is_steered:
            self._turn_clock(self.random.choice([-86400, -3600, -5, 5, 3600, 86400, 20 * 365 * 86400]))
            self.totals["clock jumps"] += 1

    def _turn_clock(self, seconds):
        self.clock.write_text(f"{seconds:+021d}\n")

    def kill_collector(self, this):
        this.collector_kills += 1
        self.collector.kill()

    DISTURBANCES = {push_same: 4, push_growing: 3, restart_bus: 3, stand_by: 3, jump_clock: 3, kill_collector: 3,
                    push_refused: 1}
    # What ends the life of a process, and so what can be said of its appetite.
    ENDS = {kill_service: 2, kill_daemon: 1, restart_daemon: 1}
    LIVES = (1, 3, 8, 20)  # rounds between two of these

    def install(self, this, app):
        new = self.applications / f".{app}.new"
        new.write_text(f"[Desktop Entry]\nType=Application\nName={self._next()}\nExec=x\n")
        new.rename(self.applications / f"{app}.desktop")
        this.installs.append(app)

    def connect_remote(self, this):
        wait_for(lambda: self.main_tail.catch_up()["bluez"] > self.heard["bluez"], "the Bluetooth service to be heard")
        self.bluez.set_connected(REMOTE, True)
        self.bluez.set_connected(REMOTE, False)
        this.connects += 1

    # --- a round ------------------------------------------------------------------------------------------
    def round(self):
        """Hits, what disturbs them in their midst, and the audit of what came of it. What was done, in words."""
        self.number += 1
        self.tasks.created = []
        this = Round(list(self.tasks.sizes))
        self.begun = self.tail.catch_up()
        self._prepare_collector()
        chosen = self._choose()
        for app in self.random.sample(APPS, self.random.randint(0, len(APPS))):
            self.install(this, app)
        if self.random.random() < 0.5:
            self.connect_remote(this)
        feeder = self._feed(this)
        wait_for(lambda: self._read_events(this), "the first event of the round")
        for disturb in chosen:
            disturb(self, this)
        feeder.join()
        self._settle(this)
        self._audit(this)
        self._measure()
        if self.tasks.created:
            self._restart_in_quiet()
        elif not self.tasks.is_running:
            self.push(self.tasks.stored)  # while no key holds its rule
        return ", ".join(disturb.__name__.replace("_", " ") for disturb in chosen)

    def _choose(self):
        def some(weights, numbers):
            return self.random.choices(list(weights), list(weights.values()), k=self.random.choice(numbers))
        chosen = some(self.DISTURBANCES, [1, 2, 3])
        # A push after a refused one is applied in the midst of hits: the end of that life, too.
        chosen.sort(key=lambda disturb: disturb is Load.push_refused)
        self.rounds_left -= 1
        if self.rounds_left <= 0:
            chosen += some(self.ENDS, [1, 1, 2])
            self.random.shuffle(chosen)
            self.rounds_left = self.random.choice(self.LIVES)
        return chosen

    def _next(self):
        self.serial += 1
        return self.serial

    def _prepare_collector(self):
        """At times a slow one, at times the one that is there."""
        self.collector.paths = []
        if self.random.random() < 0.2:
            self.collector.kill()
            self.collector.start(delay_ms=self.random.choice([0, 1, 3]))

    def _feed(self, this):
        """Begins to set keys on a thread of its own: each chosen key once, the hot ones again and again."""
        size = max(40, min(self.tasks.stored, 400 // len(self.tasks.sizes)))
        numbers = self.random.sample(range(self.tasks.stored), size)
        this.once = {number: self._next() for number in numbers}
        slices = []
        for turn in range(SLICES):
            pairs = [(key_name(number), this.once[number]) for number in numbers[turn::SLICES]]
            for _ in range(self.random.randint(*self.FLOODS) // SLICES):
                for key in HOT:
                    this.hot[key].append(self._next())
                    pairs.append((key, this.hot[key][-1]))
            slices.append(pairs)
        pause = self.random.choice([0, SLICE_PAUSE])
        self.totals["hits"] += size
        self.totals["changes"] += sum(map(len, slices))
        feeder = threading.Thread(target=self._set_slices, args=(slices, pause), daemon=True)
        feeder.start()
        return feeder

    def _set_slices(self, slices, pause):
        never = threading.Event()
        for pairs in slices:
            self.setter.send(pairs)
            never.wait(pause)

    def _settle(self, this):
        """Waits until all that must come has come, puts the keys to rest, and sees that nothing more comes."""
        if self.collector.process is None:
            self.collector.start()
        this.retries = self.setter.finish()[1]
        ledger = Ledger(this, self.tasks)
        self._await(lambda: self._read_events(this) and ledger.is_reported())
        self._await(lambda: self._read_events(this) and ledger.is_monitored(self._lost_monitor_hits(this)))
        self.setter.send([(key_name(number), 0) for number in this.once] + [(key, 0) for key in HOT])
        this.barriers.append(self._next())
        self.setter.send([(BARRIER, this.barriers[-1])])
        self.setter.finish()
        self._await(lambda: self._read_events(this) and ledger.is_reported())
        self.setter.send([(BARRIER, 0)])
        self.setter.finish()
        self._await(lambda: self._is_idle(this) and self.machine.get(HANDOVER_KEY) == "")
        if this.collector_kills:
            self.collector.kill()  # and all that it has told is heard
            self.collector.start()
        this.taken = self.collector.paths
        self._await(lambda: len(this.taken) >= self._lines()["published"] - len(self.tasks.created) - this.service_kills)

    def _is_idle(self, this):
        book = self._book()
        return unhandled(book) <= self._lost_monitor_hits(this) and in_line(book) == 0

    @staticmethod
    def _await(condition):
        try:
            wait_for(condition)
        except AssertionError:
            pass  # the audit says what is missing

    def _read_events(self, this):
        events = self.events.read()
        this.add(events)
        self.life_events += len(events)
        self.totals["events"] += len(events)
        return sum(this.hits.values()) + sum(this.monitored.values()) > 0

    def _lines(self):
        """How many log lines of each kind this round has brought."""
        return self.tail.catch_up() - self.begun

    def _book(self):
        """The same of this life of the daemon."""
        return self.tail.catch_up() - self.books

    def _lost_monitor_hits(self, this):
        """Those that a full queue has lost: those of method 32 without a line."""
        lines = self._lines()
        is_full = lines["queue full"] + lines["monitor hits lost"] > 0
        return lines["monitor hits lost"] + (this.connects if is_full else 0)

    # --- the audit ----------------------------------------------------------------------------------------
    def find(self, text):
        self.findings.append(f"round {self.number}: {text}")

    def _audit(self, this):
        lines = self._lines()
        ledger = Ledger(this, self.tasks)
        for text in [*ledger.wrong_hits(), *ledger.wrong_monitors(self._lost_monitor_hits(this)),
                     *ledger.wrong_reports(lines)]:
            self.find(text)
        for path in self.collector.without_header:
            self.find(f"{path} was handed over without a header.json")
        self.collector.without_header = []
        if self.daemon.process.poll() is not None:
            self.find(f"the daemon has ended: {self.daemon.process.returncode}")
        if self.collector.process and self.collector.process.poll() is not None:
            self.find(f"the collector has ended: {self.collector.process.returncode}")
        for name in ("handler failed", "report without a header"):
            if lines[name]:
                self.find(f"{name}: {lines[name]} lines")
        if self.events.missing:
            self.find(f"{self.events.missing} events have gone from the KPI log")
            self.events.missing = 0
        lost = self._lost_monitor_hits(this)
        if unhandled(self._book()) > lost and not self.tail.gaps:
            self.find(f"{unhandled(self._book())} events of the notify task are no reports, {lost} may be lost")
        if not this.starts:
            self._balance(lost=lost)
        self._check_folders()
        for name in ("reports", "given up", "never told", "not told", "removed"):
            self.totals[name] += lines[name]
        self.totals["reports handed over"] += len(this.taken)
        for name in ("daemon_kills", "service_kills", "bus_restarts", "collector_kills", "retries"):
            self.totals[name.replace("_", " ")] += getattr(this, name)

    def _balance(self, is_killed=False, lost=0):
        """The daemon's own books of its life: hits accepted, and what came of them."""
        if self.tail.gaps:
            return  # too much was logged to be read
        lines = self._book()
        accepted = lines["key hits"] + lines["monitor hits"] - lines["monitor hits lost"]
        missing = accepted - self.life_events - lines["given up"]
        if is_killed and missing >= 0:
            self.totals["hits lost with a kill"] += missing
        elif not 0 <= missing <= lost:
            self.find(f"{accepted} hits were accepted in this life of the daemon, {self.life_events} are events, "
                      f"{lines['given up']} were given up")
        if not is_killed and in_line(lines) != 0:
            self.find(f"{in_line(lines)} reports of this life of the daemon are neither published nor counted as lost")

    def _check_folders(self):
        names = [folder.name for folder in self.machine.path("/tmp/zol").iterdir() if folder.name.startswith(TGID)]
        if len(names) > MAX_FOLDERS:
            self.find(f"{len(names)} report folders lie about")
        self.totals["most report folders"] = max(self.totals["most report folders"], len(names))
        if self.random.random() < 0.5:
            self.collector.remove_taken()

    def _measure(self):
        """Two processes, at rest; each is compared with itself, with as many sets of tasks."""
        services = processes_on(self.machine.root, "zol_vconfd")
        if len(services) != 1:
            self.find(f"{len(services)} key services run")
        for name, pid in [("zol_daemon", self.daemon.process.pid), *(("zol_vconfd", pid) for pid in services)]:
            known = self.appetites[name, pid, len(self.tasks.sizes) if name == "zol_daemon" else 0]
            known.append(settled_appetite(pid, known[0] if known else None))
            if known[-1].descriptors > known[0].descriptors or known[-1].threads > known[0].threads:
                self.find(f"{name} has {known[-1].descriptors} descriptors and {known[-1].threads} threads, and had "
                          f"{known[0].descriptors} and {known[0].threads}")

    def _restart_in_quiet(self):
        """So that a set of tasks which found keys holding their rules watches them again."""
        self._check_end(self.daemon.stop())
        self._balance()
        self._start_daemon(wait=True)
