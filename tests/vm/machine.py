"""One virtual machine: an emulator process, its disk, and the agent that runs commands in it."""
import contextlib
import json
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import threading
import time

import disk as disks

PORTS = 5
DEADLINE = float(os.environ.get("ZOL_VM_DEADLINE", "240"))
# The time that the kernel takes is the emulated processor's: what it need not do, it does not.
KERNEL_WORDS = ["console=ttyS0", "root=/dev/vda", "quiet", "mitigations=off", "nokaslr", "random.trust_cpu=on",
                "no_timer_check", "systemd.show_status=0"]
# Power notifications are the business of a scenario, not of the power cuts. The kernel recovers the file system's
# journal when it mounts it; what a check of all of it would find, the host looks for in the end.
QUICK_WORDS = ["systemd.mask=systemd-logind.service", "fsck.mode=skip"]
BUS_NAME = "org.zol.Daemon1"


class PowerIsOff(Exception):
    """The machine went off while a command ran; whether it was done is not known."""


def wait_for(condition, what, deadline=DEADLINE):
    """The first true result of condition()."""
    end = time.monotonic() + deadline
    while not (result := condition()):
        if time.monotonic() > end:
            raise TimeoutError(f"waited {deadline} s in vain for {what}")
        time.sleep(0.05)
    return result


class Port:
    """One line to the machine."""

    def __init__(self, path):
        self.lock = threading.Lock()
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(2 * DEADLINE)
        self.socket.connect(str(path))
        self.stream = self.socket.makefile("rb")

    def call(self, request):
        """One command at a time. @return the agent's answer"""
        with self.lock:
            self.send(json.dumps(request))
            return json.loads(self.line())

    def send(self, text):
        try:
            self.socket.sendall(text.encode() + b"\n")
        except OSError as error:
            raise PowerIsOff from error

    def line(self):
        try:
            line = self.stream.readline()
        except ConnectionError as error:
            raise PowerIsOff from error
        if not line.endswith(b"\n"):
            raise PowerIsOff
        return line.decode().rstrip("\n")

    def close(self):
        self.stream.close()
        self.socket.close()


class Machine:
    """A device: what it has flushed stays over its boots.

    Different threads may run commands at once, each over a port of its own.
    """

    def __init__(self, image, kernel, initrd):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zol-vm-", dir="/tmp"))
        self.kernel, self.initrd = kernel, initrd
        self.disk = disks.Disk(image)
        self.server = disks.Server(self.disk, self.folder / "disk")
        self.emulator = None
        self.ports = []
        self.qmp = None

    def close(self):
        self.kill()
        self.server.close()
        self.disk.close()
        shutil.rmtree(self.folder)

    # --- power --------------------------------------------------------------------------------------------
    def boot(self, *words):
        """A cold boot, from the kernel's first instruction. @param words for the kernel's command line"""
        self._start("-append", " ".join([*KERNEL_WORDS, *words]))
        self._wait_for_initial_root()
        self._mount_and_go()

    def boot_kept(self, state):
        """A boot whose kernel has started already: it is resumed where it has not seen the disk yet.

        @param state the kept kernel; made at the first call
        """
        words = ["-append", " ".join([*KERNEL_WORDS, *QUICK_WORDS])]
        if not state.exists():
            self._start(*words)
            self._wait_for_initial_root()
            self._keep(state)
        self._start(*words, "-incoming", f"exec:cat {state}")
        wait_for(lambda: self.qmp.execute("query-status")["status"] not in ("inmigrate", "prelaunch"),
                 "the kept kernel")
        self.qmp.execute("cont")
        self._mount_and_go()

    def _start(self, *options):
        self.emulator = subprocess.Popen(
            ["qemu-system-x86_64", "-accel", "tcg,tb-size=256", "-M", "pc", "-m", "384", "-smp", "1", "-nodefaults",
             "-display", "none", "-no-reboot", "-kernel", self.kernel, "-initrd", self.initrd, "-serial",
             f"file:{self.folder}/console", "-qmp", f"unix:{self.folder}/qmp,server=on,wait=off", "-drive",
             f"if=none,id=disk,format=raw,cache=writeback,file=nbd:unix:{self.server.path}", "-device",
             "virtio-blk-pci,drive=disk", "-device", "virtio-serial-pci", *self._port_options(), *options],
            stdin=subprocess.DEVNULL, stdout=(self.folder / "emulator").open("ab"), stderr=subprocess.STDOUT)
        wait_for(self._has_started, "the emulator")
        self.ports = [Port(self.folder / f"port{number}") for number in range(PORTS)]
        self.qmp = Monitor(self.folder / "qmp")

    def _wait_for_initial_root(self):
        assert self.ports[-1].line() == "ready"

    def _mount_and_go(self):
        self.ports[-1].send(str(int(time.time())))
        for port in self.ports:
            assert port.line() == "hello"

    def _keep(self, state):
        unfinished = state.with_name(f"{state.name}.new")
        self.qmp.execute("stop")
        self.qmp.execute("migrate", uri=f"exec:cat >{unfinished}")
        wait_for(lambda: self.qmp.execute("query-migrate")["status"] == "completed", "the kernel to be kept")
        self.kill()
        self.disconnect()
        unfinished.rename(state)

    def _port_options(self):
        for number in range(PORTS):
            yield from ("-chardev", f"socket,id=port{number},path={self.folder}/port{number},server=on,wait=off",
                        "-device", f"virtserialport,chardev=port{number}")

    def _has_started(self):
        if self.emulator.poll() is not None:
            raise RuntimeError((self.folder / "emulator").read_text())
        return (self.folder / "qmp").exists() and (self.folder / f"port{PORTS - 1}").exists()

    def kill(self):
        """Ends the emulator; what has come from the agent by then can still be read."""
        if self.emulator is not None:
            self.emulator.kill()
            self.emulator.wait()
            self.emulator = None
            for name in ("qmp", *(f"port{number}" for number in range(PORTS))):
                (self.folder / name).unlink(missing_ok=True)  # an emulator that ends by itself removes them

    def disconnect(self):
        """Call it when no thread uses a port any more."""
        for port in self.ports:
            port.close()
        self.ports = []
        if self.qmp is not None:
            self.qmp.close()
            self.qmp = None

    def cut(self):
        """The power goes."""
        self.disk.cut()
        self.kill()

    def shut_down(self):
        with contextlib.suppress(PowerIsOff):  # it may be off before it answers
            self.run("systemctl", "--no-block", "poweroff", check=False)
        self.emulator.wait(timeout=DEADLINE)
        self.kill()
        self.disconnect()
        self.disk.power_on(disks.EVERYTHING, None)

    def console(self):
        return (self.folder / "console").read_text(errors="replace")

    def processor_use(self, seconds):
        """The part of one processor that the emulator uses in that time."""
        def used():
            fields = pathlib.Path(f"/proc/{self.emulator.pid}/stat").read_text().rsplit(")", 1)[1].split()
            return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
        before = used()
        time.sleep(seconds)
        return (used() - before) / seconds

    # --- what goes on in it -------------------------------------------------------------------------------
    def run(self, *command, user=None, stdin="", check=True, port=0):
        """Runs a command as root or as another account of the machine, with that account's groups."""
        answer = self.ports[port].call({"command": [str(part) for part in command], "user": user, "stdin": stdin,
                                        "timeout": DEADLINE})
        result = subprocess.CompletedProcess(command, answer["status"], answer["stdout"], answer["stderr"])
        assert not check or result.returncode == 0, (command, result.stdout, result.stderr)
        return result

    def wait_until_serving(self):
        """Until the daemon answers on the bus."""
        wait_for(lambda: "false" in self.run(
            "gdbus", "call", "--system", "--timeout", "10", "--dest", BUS_NAME, "--object-path", "/org/zol/Daemon1",
            "--method", "org.zol.Native1.Call", "99", "@ay []", check=False).stdout, "the daemon on the bus")


class Monitor:
    """The emulator's control socket."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(str(path))
        self.stream = self.socket.makefile("rb")
        self.stream.readline()
        self.execute("qmp_capabilities")

    def execute(self, command, **arguments):
        self.socket.sendall(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        while True:
            answer = json.loads(self.stream.readline())
            if "error" in answer:
                raise RuntimeError(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]

    def close(self):
        self.stream.close()
        self.socket.close()
