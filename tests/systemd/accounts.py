"""Processes of this machine's Python that act inside a booted one, as one of its accounts."""
import contextlib
import multiprocessing
import os
import re
import socket
import struct

GET, SET, WATCH = 1, 2, 3
INT, STRING = 1, 2
FROM_NOW = -1


class KeyClient:
    """Speaks to the key store's service in frames (docs/platform-linux-store.md). In /run of the machine."""

    HEAD = struct.Struct("=BBHIiiIIq")

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.connect("zol/vconf.sock")

    def send(self, operation, key, kind=0, number=0, text=b"", change=0):
        self.socket.send(self.HEAD.pack(operation, kind, len(key), len(text), number, 0, 1, 0, change) + key + text)

    def call(self, *request, **fields):
        """The errno of the answer."""
        self.send(*request, **fields)
        return self.HEAD.unpack_from(self.socket.recv(70000))[5]


def _become(device, account, folder):
    """Enters the folder before the account is changed: the way there is root's."""
    ids = device.run("id", account).stdout
    user, group = (int(re.search(rf"{name}=(\d+)", ids).group(1)) for name in ("uid", "gid"))
    os.chdir(f"/proc/{device.init}/root{folder}")
    os.setgroups([int(number) for number in re.findall(r"(\d+)\(", ids.partition("groups=")[2])])
    os.setgid(group)
    os.setuid(user)


@contextlib.contextmanager
def acting_as(device, account, folder, body):
    """Runs body(pipe) as an account, in a folder of the machine, until the block ends."""
    def run(pipe):
        _become(device, account, folder)
        body(pipe)

    ours, theirs = multiprocessing.Pipe()
    process = multiprocessing.get_context("fork").Process(target=run, args=(theirs,))
    process.start()
    theirs.close()
    try:
        yield ours
    finally:
        process.kill()
        process.join()


def act_as(device, account, folder, body):
    """Runs body() as an account, in a folder of the machine, to its end."""
    def tell(pipe):
        body()
        pipe.send("done")

    with acting_as(device, account, folder, tell) as pipe:
        assert pipe.recv() == "done"
