"""What the load sees of the daemon: its log, its events, the folders it hands over, its answers and its appetite."""
import collections
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import threading

from conftest import BIN, wait_for

ROTATIONS = 3


class LogTail(threading.Thread):
    """Counts lines of a rotating log while it is written. Thread-safe."""

    POLL_SECONDS = 0.02

    def __init__(self, file, patterns):
        """patterns: name to a regular expression of bytes; its group, when it has one, is a number that is added up."""
        super().__init__(daemon=True)
        self.folder, self.name = file.parent, file.stem
        self.patterns = {name: re.compile(pattern) for name, pattern in patterns.items()}
        self.counts = collections.Counter()
        self.gaps = 0
        self.open = None
        self.rest = b""
        self.lock = threading.Lock()
        self.over = threading.Event()

    def run(self):
        while not self.over.wait(self.POLL_SECONDS):
            self.catch_up()

    def stop(self):
        self.over.set()
        self.join()

    def catch_up(self):
        """Reads all that is written by now; returns the counts."""
        with self.lock:
            while self._read() or self._follow():
                pass
            return collections.Counter(self.counts)

    def _read(self):
        data = self.open.read() if self.open else b""
        lines, newline, rest = (self.rest + data).rpartition(b"\n")
        if not newline:
            self.rest = rest
            return bool(data)
        self.rest = rest
        for name, pattern in self.patterns.items():
            for match in pattern.finditer(lines):
                self.counts[name] += int(match[1]) if pattern.groups else 1
        return True

    def _follow(self):
        """Goes on to the file that was begun after the one that is open; False when there is none."""
        inodes = [self._inode(turn) for turn in range(ROTATIONS)]
        present = [turn for turn in range(ROTATIONS) if inodes[turn]]
        if not present:
            return False
        if self.open is None:
            following = present[-1]
        else:
            inode = os.fstat(self.open.fileno()).st_ino
            if inode == inodes[0]:
                return False
            if self._read():
                return True  # the last lines before it was rotated
            if inode in inodes:
                following = inodes.index(inode) - 1
            else:
                self.gaps += 1
                following = present[-1]
        try:
            self.open = open(self._path(following), "rb")
        except FileNotFoundError:
            pass  # rotated meanwhile: the next look finds it
        return True

    def _path(self, turn):
        return self.folder / (f"{self.name}.{turn}.log" if turn else f"{self.name}.log")

    def _inode(self, turn):
        try:
            return os.stat(self._path(turn)).st_ino
        except FileNotFoundError:
            return None


class Events:
    """Reads the KPI events that are new, in the order of their numbers."""

    ITEMS = re.compile(r"[{;](evid|key|value|app_id|zol_error_type)=([^;]*)")

    def __init__(self, machine):
        self.file = machine.path("/var/lib/zol/kpi.db")
        self.last = 0
        self.missing = 0

    def read(self):
        """Dictionaries of the items of each event since the last time."""
        if not self.file.exists():
            return []
        connection = sqlite3.connect(f"file:{self.file}?mode=ro", uri=True, timeout=30)
        try:
            rows = connection.execute(
                "SELECT sequence, description FROM event WHERE sequence > ? ORDER BY sequence", (self.last,)).fetchall()
        except sqlite3.OperationalError:
            return []  # its maker has not got that far
        finally:
            connection.close()
        if rows:
            self.missing += rows[-1][0] - self.last - len(rows)
            self.last = rows[-1][0]
        return [dict(self.ITEMS.findall(description)) for _, description in rows]


class LineReader(threading.Thread):
    """Hands each line of a program's output to a function."""

    def __init__(self, process, take):
        super().__init__(daemon=True)
        self.process, self.take = process, take
        self.start()

    def run(self):
        for line in self.process.stdout:
            if line.endswith("\n"):
                self.take(line.split())


class Collector:
    """A collecting process that may be slow, be gone, and come back."""

    def __init__(self, machine):
        self.machine = machine
        self.paths = []  # as they were handed over
        self.without_header = []
        self.removed = set()
        self.process = self.reader = None

    def start(self, delay_ms=0):
        self.process = self.machine.start(BIN / "load_client", "collect", delay_ms, stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "watching\n", "the collector cannot watch the hand-over"
        self.reader = LineReader(self.process, self._take)

    def _take(self, words):
        self.paths.append(words[0])
        if words[1] != "1" and words[0] not in self.removed:
            self.without_header.append(words[0])

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.reader.join()
            self.process = None

    def remove_taken(self):
        """What a collector does with what it has taken."""
        for path in set(self.paths):
            shutil.rmtree(self.machine.path(path), ignore_errors=True)
            self.removed.add(path)


class Setter:
    """Sets keys in another process."""

    def __init__(self, machine):
        self.process = machine.start(BIN / "load_client", "set", stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def send(self, pairs):
        self.process.stdin.write("".join(f"{key} {value}\n" for key, value in pairs))
        self.process.stdin.flush()

    def finish(self):
        """Waits until all is set; how many sets that were, and how many had to be tried again."""
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        words = self.process.stdout.readline().split()
        assert words and words[0] == "done", "the setting client has ended"
        return int(words[1]), int(words[2])


class Probe:
    """Times the answers of the daemon's main thread, from a process of its own."""

    def __init__(self, machine):
        script = pathlib.Path(__file__).with_name("probe.py")
        self.answers, self.silences = [], 0
        self.process = machine.start(sys.executable, script, machine.bus.address, stdout=subprocess.PIPE, text=True)
        self.reader = LineReader(self.process, self._take)

    def _take(self, words):
        if words[0] == "silent":
            self.silences += 1
        else:
            self.answers.append(float(words[0]))


class Appetite(collections.namedtuple("Appetite", "descriptors threads rss pss")):
    """What a process takes; memory in KiB."""

    @classmethod
    def of(cls, pid):
        folder = pathlib.Path(f"/proc/{pid}")
        memory = dict(re.findall(r"^(Rss|Pss):\s+(\d+) kB", (folder / "smaps_rollup").read_text(), re.MULTILINE))
        return cls(len(list((folder / "fd").iterdir())), len(list((folder / "task").iterdir())), int(memory["Rss"]),
                   int(memory["Pss"]))


def settled_appetite(pid, known):
    """The appetite of a process once it has no more descriptors and threads than it had, or as it is after the
    deadline."""
    def is_settled():
        now = Appetite.of(pid)
        return now.descriptors <= known.descriptors and now.threads <= known.threads
    if known:
        try:
            wait_for(is_settled, "spare descriptors and threads to go")
        except AssertionError:
            pass  # the caller sees it in the numbers
    return Appetite.of(pid)
