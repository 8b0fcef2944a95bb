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
    """A value that is replaced again and again, and when: a moment is a number of events of the disk's recording."""

    def __init__(self, value):
        self.history = [[value, 0, 0]]  # value, when it began, when it was acknowledged or None

    def begin(self, value, moment):
        self.history.append([value, moment, None])

    def acknowledge(self, moment):
        self.history[-1][2] = moment

    def allowed(self, moment):
        """What may be there after a cut at that moment: the last value acknowledged by then, or what began later."""
        last = max(index for index, (_, _, done) in enumerate(self.history) if done is not None and done <= moment)
        return [value for value, begun, _ in self.history[last:] if begun <= moment]


class Record:
    """What the machine has promised since the beginning."""

    def __init__(self, recording=None):
        self.recording = recording
        self.number = 1
        self.policy = Step(policy(1))
        self.keys = {key: Step(None) for key in DURABLE_KEYS}
        self.paths = {}          # published and seen: path to moment
        self.acknowledged = 0    # steps in all
        self.refused = []        # steps that failed while there was power, which a slow machine may make
        self.faults = []         # what went wrong in the clients themselves

    def steps_by(self, moment):
        """How many policies, keys and reports had been acknowledged or seen by then."""
        steps = [self.policy, *self.keys.values()]
        return (sum(done is not None and 0 < done <= moment for step in steps for _, _, done in step.history)
                + sum(seen <= moment for seen in self.paths.values()))

    def moment(self):
        return len(self.recording.events) if self.recording else 0

    def expected(self, moment=0):
        """What must be there after a cut at that moment."""
        return Expected(self.policy.allowed(moment), {key: step.allowed(moment) for key, step in self.keys.items()},
                        [path for path, seen in self.paths.items() if seen <= moment])

    def settle(self, found):
        """After a cut and a boot: what was found is what there is from now on; what could not be read stays open."""
        for policy_found in found.policies:
            self.policy = Step(policy_found)
        for key, values in found.keys.items():
            self.keys[key] = Step(values[0])
        self.paths.clear()


class Expected:
    """The policies one of which must be stored, the values of which each key must have one, the whole reports."""

    def __init__(self, policies, keys, paths):
        self.policies = policies
        self.keys = keys
        self.paths = paths


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
        """@return what it printed; None when it could not be done"""
        result = self.machine.run("zolctl", *arguments, stdin=stdin, port=port, check=False)
        if result.returncode != 0:
            self.record.refused.append(f"zolctl {' '.join(arguments)[:60]}: {result.stderr.strip()}")
            return None
        self.record.acknowledged += 1
        return result.stdout.rstrip("\n")

    def _push(self, random, port):
        # A policy that comes after such a document is applied at once; others are stored for the next start.
        if random.random() < 0.2:
            self._zolctl(port, "policy", "push", "--force", "-", stdin=COMMANDS_ONLY)
        self.record.number += 1
        document = policy(self.record.number)
        self.record.policy.begin(document, self.record.moment())
        if self._zolctl(port, "policy", "push", "-", stdin=document) is not None:
            self.record.policy.acknowledge(self.record.moment())

    def _set(self, random, port):
        key = random.choice(DURABLE_KEYS)
        value = f"{random.randrange(10**6)}:" + "y" * random.choice((0, 10, 5000))
        self.record.keys[key].begin(value, self.record.moment())
        if self._zolctl(port, "vconf", "set", key, "--type", "string", "--", value) is not None:
            self.record.keys[key].acknowledge(self.record.moment())

    def _hit(self, random, port):
        self._zolctl(port, "vconf", "set", HIT_KEY, str(random.randrange(1, 10**6)), "--type", "int")

    def _collect(self, random, port):
        del random  # a collector takes what there is
        path = self._zolctl(port, "vconf", "get", HANDOVER_KEY)
        if path:
            self.record.paths.setdefault(path, self.record.moment())
            self._zolctl(port, "vconf", "set", HANDOVER_KEY, "", "--type", "string")
