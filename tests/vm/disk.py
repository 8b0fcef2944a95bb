"""The virtual machine's disk: one with a volatile write cache, as real ones have.

What the machine has written and not flushed lies in that cache. A power cut keeps what was flushed, and of the rest
nothing, everything, or a random part in units of a sector: the disk may have begun with any of it, in any order.

The disk is served to the emulator over a Unix socket in the protocol of network block devices; each new machine gets a
connection of its own. It lives in memory: a base image that stays as it is, and the blocks that differ from it.
"""
import os
import pathlib
import shutil
import socket
import struct
import threading

BLOCK = 4096
SECTOR = 512

OPTION_MAGIC = 0x49484156454F5054
OPTION_REPLY_MAGIC = 0x3E889045565A9
REQUEST_MAGIC = 0x25609513
REPLY_MAGIC = 0x67446698
OPTION_GO = 7
REPLY_ACK, REPLY_INFO, REPLY_UNSUPPORTED = 1, 3, 0x80000001
READ, WRITE, DISCONNECT, FLUSH = range(4)
FLAG_FUA = 1
EXPORT_FLAGS = 1 | 4 | 8  # has flags, flushes, honours FUA

NOTHING, EVERYTHING, PART = "nothing", "everything", "part"
KEPT = (NOTHING, EVERYTHING, PART)


class Disk:
    """Content as of the last flush, and the writes since."""

    def __init__(self, base):
        self.base = os.open(base, os.O_RDONLY)
        self.size = os.fstat(self.base).st_size
        self.durable = {}   # block number to bytes, where it differs from the base
        self.seen = {}      # the same, with the cached writes: what the machine reads
        self.cached = []    # (block number, bytes) in the order of the writes
        self.lock = threading.Lock()
        self.is_off = False
        self.writes_left = None  # the power goes with the last of them
        self.went_off = threading.Event()
        self.recording = None

    # --- what the machine does ----------------------------------------------------------------------------
    def read(self, offset, length):
        with self.lock:
            first, last = offset // BLOCK, (offset + length - 1) // BLOCK
            data = b"".join(self._block(number) for number in range(first, last + 1))
        return data[offset - first * BLOCK:][:length]

    def write(self, offset, data, through):
        """@return whether the disk still had power"""
        with self.lock:
            if self.is_off:
                return False
            while data:
                number, start = divmod(offset, BLOCK)
                part = data[:BLOCK - start]
                old = self._block(number)
                new = old[:start] + part + old[start + len(part):]
                self.seen[number] = new
                self.cached.append((number, new))
                if through:
                    self.durable[number] = new
                if self.recording is not None:
                    self.recording.events.append((number, new, bool(through)))
                offset, data = offset + len(part), data[len(part):]
            self._count_write()
            return not self.is_off

    def flush(self):
        """@return whether the disk still had power"""
        with self.lock:
            if self.is_off:
                return False
            self.durable.update(self.cached)
            self.cached.clear()
            if self.recording is not None:
                self.recording.events.append(None)
            return True

    def _block(self, number):
        return self.seen.get(number) or os.pread(self.base, BLOCK, number * BLOCK)

    def _count_write(self):
        if self.writes_left is not None:
            self.writes_left -= 1
            if self.writes_left == 0:
                self.is_off = True
                self.went_off.set()

    # --- power --------------------------------------------------------------------------------------------
    def cut_after(self, writes):
        """Lets the power go with that write from now, which is cached and not answered; `went_off` tells when."""
        with self.lock:
            self.writes_left = writes

    def cut(self):
        """Lets the power go now."""
        with self.lock:
            self.is_off = True

    def power_on(self, kept, random):
        """Power again after a cut. @param kept of the cached writes. @return how many of them there were"""
        with self.lock:
            count = len(self.cached)
            self._keep(self.durable, self.cached, kept, random)
            self.seen = dict(self.durable)
            self.cached.clear()
            self.is_off, self.writes_left = False, None
            self.went_off.clear()
            return count

    def record(self):
        """Begins to keep every write and flush. @return the recording, which goes on"""
        with self.lock:
            self.recording = Recording(dict(self.durable), list(self.cached))
            return self.recording

    def _keep(self, durable, cached, kept, random):
        for number, data in cached if kept != NOTHING else []:
            durable[number] = data if kept == EVERYTHING else self._mixed(durable, number, data, random)

    def _mixed(self, durable, number, data, random):
        old = durable.get(number) or os.pread(self.base, BLOCK, number * BLOCK)
        parts = [(data if random.random() < 0.5 else old)[start:start + SECTOR] for start in range(0, BLOCK, SECTOR)]
        return b"".join(parts)

    # --- as a file ----------------------------------------------------------------------------------------
    def export(self, path):
        """Writes what has been flushed to a file."""
        self._write_file(path, self.durable)

    def export_moment(self, path, recording, count, kept, random):
        """Writes to a file what the disk had held after a cut behind so many events of a recording.

        @return how many writes had not been flushed
        """
        durable, cached = recording.at(count)
        unflushed = len(cached)
        self._keep(durable, cached, kept, random)
        self._write_file(path, durable)
        return unflushed

    def _write_file(self, path, blocks):
        shutil.copyfile(f"/proc/self/fd/{self.base}", path)
        with open(path, "r+b") as file:
            for number, data in blocks.items():
                file.seek(number * BLOCK)
                file.write(data)

    def close(self):
        os.close(self.base)


class Recording:
    """What the disk held in the beginning, and every write and flush since.

    An event is the number of a block, its bytes and whether they were written through; None is a flush.
    """

    def __init__(self, durable, cached):
        self.durable = durable
        self.cached = cached
        self.events = []

    def at(self, count):
        """@return what was durable behind so many events, and the writes that were cached then"""
        durable, cached = dict(self.durable), list(self.cached)
        for event in self.events[:count]:
            if event is None:
                durable.update(cached)
                cached.clear()
            else:
                number, data, through = event
                cached.append((number, data))
                if through:
                    durable[number] = data
        return durable, cached


class Server:
    """Serves a disk at a Unix socket; one thread for each connection."""

    def __init__(self, disk, path: pathlib.Path):
        self.disk = disk
        self.path = path
        self.listening = socket.socket(socket.AF_UNIX)
        self.listening.bind(str(path))
        self.listening.listen()
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self.listening.close()
        self.path.unlink()

    def _accept(self):
        while True:
            try:
                connection, _ = self.listening.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=[connection], daemon=True).start()

    def _serve(self, connection):
        with connection, connection.makefile("rb") as stream:
            try:
                if self._agree(connection, stream):
                    while self._answer(connection, stream):
                        pass
            except (OSError, struct.error):
                return  # the emulator is gone

    def _agree(self, connection, stream):
        """The handshake: refuses what is optional until the client takes the one export."""
        connection.sendall(b"NBDMAGIC" + struct.pack(">QH", OPTION_MAGIC, 1 | 2))
        stream.read(4)
        while True:
            _, option, length = struct.unpack(">QII", stream.read(16))
            stream.read(length)

            def reply(kind, data=b"", option=option):
                connection.sendall(struct.pack(">QIII", OPTION_REPLY_MAGIC, option, kind, len(data)) + data)
            if option == OPTION_GO:
                reply(REPLY_INFO, struct.pack(">HQH", 0, self.disk.size, EXPORT_FLAGS))
                reply(REPLY_ACK)
                return True
            reply(REPLY_UNSUPPORTED)

    def _answer(self, connection, stream):
        """@return whether there may be a further request; a disk without power answers nothing"""
        magic, flags, kind, ticket, offset, length = struct.unpack(">IHHQQI", stream.read(28))
        if magic != REQUEST_MAGIC or kind == DISCONNECT:
            return False
        data = b""
        if kind == READ:
            data = self.disk.read(offset, length)
        elif kind == WRITE:
            if not self.disk.write(offset, stream.read(length), flags & FLAG_FUA):
                return False
        elif kind == FLUSH and not self.disk.flush():
            return False
        connection.sendall(struct.pack(">IIQ", REPLY_MAGIC, 0, ticket) + data)
        return True
