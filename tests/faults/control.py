"""The page that a test shares with the tracer and the failing allocator (control.h)."""
import dataclasses
import errno
import mmap
import pathlib
import struct
import subprocess

from conftest import BIN

TRACER = BIN / "fault_tracer"
ALLOCATOR = BIN / "failing_allocator.so"

SHORT_WRITE = -1
KILL = -2
HOW_NAMES = {SHORT_WRITE: "short", KILL: "kill"}

_HEAD = struct.Struct("<IIIi128s")
_BROKEN = struct.Struct("<I")
_PLACE_BYTES = 1024


def kinds():
    """Names of the kinds of calls, in the tracer's order."""
    listed = subprocess.run([TRACER, "--list"], capture_output=True, text=True, check=True)
    return listed.stdout.split()


def how_name(how):
    """What breaks a call: an errno's name, or a word."""
    return HOW_NAMES.get(how) or errno.errorcode[how]


@dataclasses.dataclass(frozen=True)
class Fault:
    """The nth call of a kind, and how it breaks; nth 0 breaks none."""

    kind: str
    nth: int
    how: int

    def __str__(self):
        return f"{self.kind} {self.nth} {how_name(self.how)}" if self.nth else "none"


NO_FAULT = Fault("open", 0, errno.EIO)


class Control:
    """The shared page of one run."""

    def __init__(self, path, fault, programs):
        self.path = pathlib.Path(path)
        self.kinds = kinds()
        self.counts_at = _HEAD.size + _BROKEN.size
        self.place_at = self.counts_at + 4 * len(self.kinds)
        names = ":" + ":".join(programs) + ":"
        head = _HEAD.pack(0, self.kinds.index(fault.kind), fault.nth, fault.how, names.encode())
        self.path.write_bytes(head + bytes(self.place_at + _PLACE_BYTES - len(head)))
        with self.path.open("r+b") as file:
            self.page = mmap.mmap(file.fileno(), 0)

    def arm(self, armed=True):
        """From now on calls count; or no longer."""
        self.page[0:4] = struct.pack("<I", int(armed))

    @property
    def is_broken(self):
        """Whether the call that was to be broken has been."""
        return _BROKEN.unpack_from(self.page, _HEAD.size)[0] != 0

    def counts(self):
        """How many calls of each kind there were."""
        values = struct.unpack_from(f"<{len(self.kinds)}I", self.page, self.counts_at)
        return dict(zip(self.kinds, values))

    @property
    def place(self):
        """The call that was broken."""
        return self.page[self.place_at:].split(b"\0", 1)[0].decode(errors="replace")

    def close(self):
        self.page.close()
