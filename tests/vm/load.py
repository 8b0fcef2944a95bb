"""What goes on in the machine until the power goes, and the record of it outside that no cut takes away.

Four clients at once, each over a line of its own: one hands in policies, one sets durable keys, one makes the rules
hit, one collects reports. A step counts as acknowledged when its client has ended with status 0 and the machine could
still say so.
"""
import threading

from machine import PowerIsOff

HANDOVER_KEY = "db/zol/send_zol_files_path"
# Holds whenever a policy begins to be watched: one report then, at each start.
STANDING_KEY = "db/vm/standing"
# Gone at each boot, so that it does not hold then and each change of it is a hit.
HIT_KEY = "memory/vm/hit"
DURABLE_KEYS = [f"db/vm/key{number}" for number in range(2)]
COMMANDS_ONLY = "<zolitem/>"


def policy(number):
    """The policy of that number: odd ones are small, even ones too large for one block of the disk."""
    padding = "x" * (100 if number % 2 else 50000)
    return (f'<zolitem numofzol="2"><!-- {number} --><zol_expired_time time="2592000"/>'
            f'<zols key="{STANDING_KEY}" condition="IS" type="INT" intvalue="1"/>'
            f'<zols key="{HIT_KEY}" condition="GREATER" type="INT" intvalue="0"/><!-- {padding} --></zolitem>\n')


class Step:
    """A value that is replaced again and again: the last one acknowledged, and the one on its way."""

    def __init__(self, value):
        self.acknowledged = value
        self.under_way = value

    def allows(self, value):
        return value in (self.acknowledged, self.under_way)

    def settle(self, value):
        """What was found after a cut is what there is from now on."""
        self.acknowledged = self.under_way = value


class Record:
    """What the machine has promised since the beginning."""

    def __init__(self):
        self.policy = Step(policy(1))
        self.number = 1
        self.keys = {key: Step(None) for key in DURABLE_KEYS}
        self.paths = []          # published and seen, since the last check
        self.acknowledged = 0    # steps in all
        self.faults = []         # what went wrong while there was power


class Load:
    """The clients on one machine, until its power goes. They run from construction on."""

    def __init__(self, machine, record, random):
        self.machine = machine
        self.record = record
        clients = (self._push, self._set, self._hit, self._collect)
        # Each has its own numbers, whatever the others draw.
        self.threads = [threading.Thread(target=self._repeat, args=[client, type(random)(random.random()), port])
                        for port, client in enumerate(clients)]
        for thread in self.threads:
            thread.start()

    def join(self):
        for thread in self.threads:
            thread.join()

    def _repeat(self, client, random, port):
        try:
            while True:
                client(random, port)
        except PowerIsOff:
            pass
        except Exception as error:  # pylint: disable=broad-except
            self.record.faults.append(f"{client.__name__}: {error}")

    def _zolctl(self, port, *arguments, stdin=""):
        result = self.machine.run("zolctl", *arguments, stdin=stdin, port=port)
        self.record.acknowledged += 1
        return result.stdout.rstrip("\n")

    def _push(self, random, port):
        # A policy that comes after such a document is applied at once; others are stored for the next start.
        if random.random() < 0.2:
            self._zolctl(port, "policy", "push", "-", stdin=COMMANDS_ONLY)
        self.record.number += 1
        step = self.record.policy
        step.under_way = policy(self.record.number)
        self._zolctl(port, "policy", "push", "-", stdin=step.under_way)
        step.acknowledged = step.under_way

    def _set(self, random, port):
        key = random.choice(DURABLE_KEYS)
        step = self.record.keys[key]
        step.under_way = f"{random.randrange(10**6)}:" + "y" * random.choice((0, 10, 5000))
        self._zolctl(port, "vconf", "set", key, "--type", "string", "--", step.under_way)
        step.acknowledged = step.under_way

    def _hit(self, random, port):
        self._zolctl(port, "vconf", "set", HIT_KEY, str(random.randrange(1, 10**6)), "--type", "int")

    def _collect(self, random, port):
        del random  # a collector takes what there is
        path = self._zolctl(port, "vconf", "get", HANDOVER_KEY)
        if path and path not in self.record.paths:
            self.record.paths.append(path)
        if path:
            self._zolctl(port, "vconf", "set", HANDOVER_KEY, "", "--type", "string")
