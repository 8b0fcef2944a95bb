"""A device to measure: the end-to-end tests' machine, and a client that stays."""
import contextlib
import pathlib
import queue
import shutil
import subprocess
import sys
import tempfile
import threading

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[1:1] = [str(TOP / "tests" / name) for name in ("e2e", "faults")]
# The tests' own, for the groups; the path above must stand first.
from conftest import BIN, BUILD, BUS_NAME, HANDOVER_KEY, Machine, int_rule, policy, processes_on, wait_for  # noqa: E402

__all__ = ["BIN", "BUILD", "BUS_NAME", "HANDOVER_KEY", "KEY", "HIT", "TOP", "Client", "Machine", "document",
           "int_rule", "new_machine", "policy", "processes_on", "running", "service_pid", "wait_for"]

KEY = "db/bench/watched"
HIT = 7
PATIENCE = 300  # seconds after which a client has failed


@contextlib.contextmanager
def new_machine():
    """A device on the disk of /tmp, which is gone afterwards."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-", dir="/tmp"))
    machine = Machine(folder)
    try:
        yield machine
    finally:
        machine.close()
        shutil.rmtree(folder, ignore_errors=True)


def document(items, *more):
    """A policy of so many rules, one of them hit when KEY is HIT."""
    rules = [int_rule(f"db/bench/filler{number}", "IS", 3) for number in range(items - 1)]
    return policy(*rules, int_rule(KEY, "IS", HIT), *more)


def service_pid(machine):
    """The key service's."""
    return wait_for(lambda: processes_on(machine.root, "zol_vconfd"), "the key service")[0]


@contextlib.contextmanager
def running(machine, text=None, wrapper=()):
    """A daemon and its policy, if there is one, and a client."""
    daemon = machine.start_daemon(wrapper=wrapper)
    client = Client(machine)
    if text is not None:
        client.push(text, "running")
    try:
        yield daemon, client
    finally:
        client.close()
        daemon.stop()


class Client:
    """bench_client on a machine's bus and key store."""

    def __init__(self, machine):
        self.machine = machine
        self.process = machine.start(BIN / "bench_client", stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                     bufsize=1)
        self.answers = queue.Queue()
        self.moments = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            words = line.split()
            if words[0] in ("owned", "running"):
                self.moments.put((words[0], int(words[1])))
            else:
                self.answers.put(words)
        self.answers.put(["ended"])

    def ask(self, command, rounds, *arguments):
        """Microseconds and, if there is one, the word of each round."""
        print(command, rounds, *arguments, file=self.process.stdin)
        samples = []
        while (words := self._answer(command))[0] != "done":
            samples.append((float(words[0]), *words[1:]))
        return samples

    def _answer(self, command):
        try:
            words = self.answers.get(timeout=PATIENCE)
        except queue.Empty:
            words = ["ended"]
        assert words[0] != "ended", f"bench_client has no answer to '{command}'"
        return words

    def times(self, command, rounds, *arguments):
        """Microseconds alone."""
        return [sample[0] for sample in self.ask(command, rounds, *arguments)]

    def push(self, text, outcome):
        """Microseconds of a SetPolicy with this outcome."""
        file = self.machine.folder / "document.xml"
        file.write_text(text, encoding="utf-8")
        took, word = self.ask("set-policy", 1, file)[0]
        assert word == outcome, f"SetPolicy: {word} instead of {outcome}"
        return took

    def await_moments(self, *names):
        """When, in seconds of the monotonic clock, each of these came next."""
        found = {}
        while set(names) - set(found):
            name, when = self.moments.get(timeout=PATIENCE)
            found.setdefault(name, when / 1e9)
        return found

    def forget_moments(self):
        while not self.moments.empty():
            self.moments.get()

    def close(self):
        self.process.stdin.close()
        self.process.wait(timeout=60)
