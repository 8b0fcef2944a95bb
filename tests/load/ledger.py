"""What the daemon must have reported, and whether it has.

A key that a round sets once to a value that holds its rule is a hit for each set of tasks that watches it. Neither the
end of a daemon nor that of the key service excuses one: the key still holds its rule when the next daemon starts, which
reports it. So each such hit is an event at least once, and more often only as far as docs/report-format.md and
docs/platform-linux-store.md let a restart tell things twice. A key that is set again and again may be told less often,
but its last value is told.

The daemon's own books must agree as well: the hits that it logs as accepted are events, or stand in the line that
counts those given up at its end; the reports that it logs as made are handed over, or stand in a line that says they
are not. A daemon that is killed excuses what it had accepted and not yet stored, and the reports that stood in line.
"""
import collections
import dataclasses

BARRIER = "memory/load/barrier"
HOT = [f"memory/load/hot{number}" for number in range(4)]
APPS = ["org.kaldo.load.one", "org.kaldo.load.two"]
MAX_SETS = 8
MAX_FOLDERS = 512 + 64

# Lines of the daemon's log that its books are made of; a group is a number.
LINES = {
    "notices": rb"> m_Notify\(\) CALL",
    "key hits": rb"AddNotify\(\d+\) > key\[",
    "monitor hits": rb"> NotifyZOL\(\) CALL",
    "monitor hits lost": rb"> (?:\[\w+\] )?Send Event fail",
    "queue full": rb"> Send\(\) fail",
    "given up": rb"> (\d+) hits are given up",
    "published": rb"m_UpdateVconfKey\(\d+\) > vconf_set_str success",
    "reports": rb"> header\.json created",
    "never told": rb"> (\d+) report folders stay that no collector",
    "not told": rb"stays, and no collector is told of it",
    "removed": rb"> (\d+) report folders that nobody collected",
    "handler failed": rb"handler failed",
    "report without a header": rb"> (?:cannot write \S+/header\.json|file open failed)",
}


def key_name(number):
    """Some are durable, most are not: a thousand a second are too much for a disk."""
    return f"db/load/{number}" if number < 10 else f"memory/load/{number}"


class Tasks:
    """The sets of tasks that the daemon runs, by how many of the numbered keys each watches."""

    def __init__(self):
        self.sizes = []
        self.created = []  # in this round
        self.stored = 0
        self.is_running = False

    def pushed(self, size):
        self.stored = size
        if not self.is_running and len(self.sizes) < MAX_SETS:
            self.sizes.append(size)
            self.created.append(size)
            self.is_running = True

    def refused(self):
        self.is_running = False

    def started(self):
        self.sizes = [self.stored] if self.stored else []
        self.created += self.sizes
        self.is_running = bool(self.stored)


@dataclasses.dataclass
class Round:
    """One round: what was done to the daemon, and what came of it."""
    sizes: list  # of the sets of tasks at its begin
    once: dict = dataclasses.field(default_factory=dict)  # number of a key to its value
    hot: dict = dataclasses.field(default_factory=lambda: collections.defaultdict(list))  # key to its values, in order
    barriers: list = dataclasses.field(default_factory=list)
    installs: list = dataclasses.field(default_factory=list)
    connects: int = 0
    starts: int = 0
    daemon_kills: int = 0
    service_kills: int = 0
    bus_restarts: int = 0
    collector_kills: int = 0
    retries: int = 0
    hits: collections.Counter = dataclasses.field(default_factory=collections.Counter)  # (key, value) of events
    monitored: collections.Counter = dataclasses.field(default_factory=collections.Counter)  # apps, and "remote"
    evids: set = dataclasses.field(default_factory=set)
    taken: list = dataclasses.field(default_factory=list)  # paths

    def add(self, events):
        for event in events:
            self.evids.add(event["evid"])
            if event["key"]:
                self.hits[event["key"], event["value"]] += 1
            else:
                self.monitored[event["app_id"] or "remote"] += 1

    @property
    def again(self):
        """How many times the key service may have told one change."""
        return 1 + self.service_kills + self.retries


def watching(sizes, number):
    return sum(size > number for size in sizes)


class Ledger:
    """Compares one round with what must have come of it."""

    def __init__(self, this, tasks):
        self.this, self.tasks = this, tasks
        # Sets that were there all the time.
        self.lasting = 0 if this.starts else len(this.sizes)
        self.ever = this.sizes + tasks.created

    def expected_once(self):
        """(key, value) of each hit, how often it must have been reported, and how often it may."""
        for number, value in self.this.once.items():
            yield ((key_name(number), str(value)), watching(self.tasks.sizes, number),
                   watching(self.ever, number) * self.this.again)

    def is_reported(self):
        hits = self.this.hits
        return (all(hits[hit] >= low for hit, low, _ in self.expected_once()) and
                all(hits[key, str(values[-1])] >= self.lasting for key, values in self.this.hot.items()) and
                all(hits[BARRIER, str(value)] >= len(self.tasks.sizes) for value in self.this.barriers))

    def is_monitored(self, lost):
        return sum(self.this.monitored.values()) + lost >= sum(low for _, low, _ in self.expected_monitored())

    def expected_monitored(self):
        this = self.this
        is_calm = not (this.starts or self.tasks.created)
        for app in this.installs:
            yield app, len(this.sizes) if is_calm else 0, len(self.ever)
        # The platform has one place for who hears of remotes: that of the newest set.
        is_heard = is_calm and this.sizes and not (this.bus_restarts or this.service_kills)
        yield "remote", this.connects if is_heard else 0, this.connects

    def wrong_hits(self):
        this = self.this
        known = set()
        for hit, low, high in self.expected_once():
            known.add(hit)
            if not low <= this.hits[hit] <= high:
                yield f"{hit[0]} = {hit[1]} was reported {this.hits[hit]} times, not {low} to {high} times"
        for key, values in this.hot.items():
            known |= {(key, str(value)) for value in values}
            last = this.hits[key, str(values[-1])]
            if last < self.lasting:
                yield f"the last value {values[-1]} of {key} was reported {last} times, not {self.lasting} times"
            total, high = sum(this.hits[key, str(value)] for value in values), len(values) * len(self.ever) * this.again
            if total > high:
                yield f"{key} was reported {total} times, not {high} times at most"
        known |= {(BARRIER, str(value)) for value in this.barriers}
        for hit in set(this.hits) - known:
            yield f"{hit[0]} = {hit[1]} was reported, and nobody had set it"

    def wrong_monitors(self, lost):
        for name, low, high in self.expected_monitored():
            count = self.this.monitored[name]
            if not low - lost <= count <= high:
                yield f"{name} was reported {count} times, not {low} to {high} times ({lost} lost with a line)"

    def wrong_reports(self, lines):
        """lines: how many of each kind the round has brought."""
        this = self.this
        # What begins anew empties the key; who dies in the midst leaves something undone.
        low = lines["published"] - len(self.tasks.created) - this.service_kills
        high = lines["published"] + this.collector_kills + this.service_kills + this.daemon_kills
        if not low <= len(this.taken) <= high:
            yield f"{len(this.taken)} reports were handed over, not {low} to {high}"
        told = {path.rpartition("_")[2] for path in this.taken}
        missing = self.this.evids - told
        excused = lines["never told"] + lines["not told"] + lines["published"] - low
        if not this.daemon_kills and len(missing) > excused:
            yield f"the folders of {len(missing)} seconds were not handed over, {excused} may be missing"


def unhandled(lines):
    """How many events of one life of the daemon the notify task has still to handle, or has lost without a line."""
    sent = lines["notices"] - lines["queue full"] + lines["monitor hits"] - lines["monitor hits lost"]
    return sent - lines["reports"]


def in_line(lines):
    """How many reports of one life of the daemon wait for the collector."""
    return lines["reports"] - lines["published"] - lines["not told"] - lines["never told"]
