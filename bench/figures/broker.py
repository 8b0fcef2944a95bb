"""dbus-broker in the place of a machine's dbus-daemon.

Its launcher belongs to systemd: it takes its socket as systemd hands it over, and ends where there is no journal. So it
runs in a mount namespace with an empty /run in which a socket stands for the journal; that takes root. Run as a program,
this file is what becomes the launcher in there.
"""
import os
import pathlib
import shutil
import socket
import subprocess
import sys

LAUNCHER = "dbus-broker-launch"
LISTENING = 3  # the first descriptor that systemd hands over
JOURNAL = pathlib.Path("/run/systemd/journal/socket")


def obstacle():
    """Why it cannot run here; None when it can."""
    if shutil.which(LAUNCHER) is None:
        return "dbus-broker is missing: scripts/setup --bench installs it"
    if os.geteuid() != 0:
        return "dbus-broker needs a mount namespace here, and with that root"
    return None


class Broker:
    """Takes over a bus's socket and configuration."""

    def __init__(self, bus):
        bus.stop()
        bus.socket.unlink(missing_ok=True)
        self.address = bus.address
        with socket.socket(socket.AF_UNIX) as listening:
            listening.bind(str(bus.socket))
            listening.listen()
            self.process = subprocess.Popen(
                ["unshare", "--mount", sys.executable, __file__, str(listening.fileno()), "--scope", "system",
                 "--config-file", bus.config], pass_fds=[listening.fileno()], stdout=subprocess.DEVNULL,
                stderr=subprocess.PIPE, env=dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus.address))

    def failure(self):
        """Why it does not run; None while it does."""
        asked = subprocess.run(["busctl", f"--address={self.address}", "--timeout=5", "list"], capture_output=True,
                               check=False)
        if asked.returncode == 0:
            return None
        self.stop()
        said = self.process.stderr.read().decode(errors="replace").strip().splitlines()
        return f"dbus-broker cannot run here: {said[-1] if said else 'it does not answer'}"

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            self.process.wait()


def become_launcher(listening, *arguments):
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
    JOURNAL.parent.mkdir(parents=True)
    journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    journal.bind(str(JOURNAL))
    if journal.fileno() == LISTENING:
        journal = journal.dup()
    journal.set_inheritable(True)  # lives as long as the launcher
    os.dup2(int(listening), LISTENING)
    os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()))
    os.execvp(LAUNCHER, [LAUNCHER, *arguments])


if __name__ == "__main__":
    become_launcher(*sys.argv[1:])
