"""What a disk takes for the writes of a piece of work, and nothing else: they are recorded with strace and made again,
by one program, on files of the same file system."""
import dataclasses
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time

from device import service_pid, wait_for
from programs import SETUP, Missing

SYNCS = ("fsync", "fdatasync")
CALLS = ("openat", "write", "pwrite64", *SYNCS, "rename", "renameat", "renameat2", "mkdir", "mkdirat", "unlink",
         "unlinkat", "ftruncate")
# strace -f -y: the thread, the call with its arguments, the result; a descriptor's path stands in angle brackets.
LINE = re.compile(r"^\d+ +(\w+)\((.*)\) += (-?\d+)")
PATH = re.compile(r'\d+<([^>]*)>|"([^"]*)"')
NEEDED = "strace"


@dataclasses.dataclass(frozen=True)
class Write:
    """One call that changes files, or makes such changes durable."""

    call: str
    paths: tuple
    size: int

    def is_sync(self):
        return self.call in SYNCS


def understood(line, root):
    """The call of a line of strace; None when it changes no file of the device, or failed."""
    found = LINE.match(line)
    if not found or int(found[3]) < 0:
        return None
    call, arguments, result = found[1], found[2], int(found[3])
    names = [described or quoted for described, quoted in PATH.findall(arguments)]
    paths = tuple(name for name in names if name.startswith(f"{root}/"))
    if not paths or (call == "openat" and "O_CREAT" not in arguments):
        return None
    return Write(call, paths, int(arguments.rsplit(",", 1)[1]) if call == "ftruncate" else result)


def record(machine, daemon, work):
    """The writes of the daemon and the key service while `work` runs."""
    if shutil.which(NEEDED) is None:
        raise Missing(f"strace is {SETUP}")
    out = machine.folder / "writes"
    command = [NEEDED, "-f", "-y", "-s", "0", "-e", f"trace={','.join(CALLS)}", "-o", out]
    tracer = subprocess.Popen([*command, "-p", str(daemon.pid()), "-p", str(service_pid(machine))],
                              stderr=subprocess.PIPE, text=True)
    pid = daemon.pid()
    wait_for(lambda: "TracerPid:\t0\n" not in pathlib.Path(f"/proc/{pid}/status").read_text(), "strace")
    tracer.stderr.readline()
    tracer.stderr.readline()
    work()
    tracer.terminate()
    tracer.communicate()
    lines = out.read_text(errors="replace").splitlines()
    return [write for line in lines if (write := understood(line, machine.root))]


class Files:
    """Files of one folder in the place of those that were recorded."""

    def __init__(self, folder, writes):
        self.folder = folder
        self.opened = {}
        self.folders = {os.path.dirname(path) for write in writes for path in write.paths}
        made = {write.paths[-1] for write in writes if write.call.startswith(("openat", "rename"))}
        for path in (path for write in writes if not write.call.startswith("mkdir") for path in write.paths):
            # What was there before: making it is not part of the work.
            if path not in made:
                self.descriptor(path)

    def place(self, path):
        return self.folder / path.strip("/").replace("/", "_")

    def descriptor(self, path):
        if path not in self.opened:
            self.opened[path] = (os.open(self.folder, os.O_RDONLY) if path in self.folders else
                                 os.open(self.place(path), os.O_RDWR | os.O_CREAT, 0o600))
        return self.opened[path]

    def make_again(self, write):
        """One call. What is written goes to the file's end."""
        path = write.paths[-1]
        if write.call in ("write", "pwrite64"):
            os.write(self.descriptor(path), bytes(write.size))
        elif write.call in SYNCS:
            getattr(os, write.call)(self.descriptor(path))
        elif write.call == "ftruncate":
            os.ftruncate(self.descriptor(path), write.size)
        elif write.call == "openat":
            self.descriptor(path)
        elif write.call.startswith("mkdir"):
            self.place(path).mkdir()
        elif write.call.startswith("rename"):
            os.rename(self.place(write.paths[0]), self.place(path))
        else:
            os.unlink(self.place(path))

    def close(self):
        for file in self.opened.values():
            os.close(file)


def replay(machine, writes):
    """Milliseconds of these writes one after another, on a fresh set of files."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="writes-", dir=machine.folder))
    files = Files(folder, writes)
    begin = time.monotonic()
    for write in writes:
        files.make_again(write)
    took = (time.monotonic() - begin) * 1000
    files.close()
    shutil.rmtree(folder)
    return took
