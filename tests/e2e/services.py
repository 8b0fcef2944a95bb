"""Mocked system services on a machine's private bus."""
import pathlib
import subprocess

import dbus

from conftest import wait_for

MOCK = "org.freedesktop.DBus.Mock"
REMOTE_CLASS = 0x00050C  # class of device: peripheral, remote control


class Mock:
    """A python-dbusmock process that owns a name on the machine's bus."""

    def __init__(self, machine, name, *arguments, address=None):
        self.machine = machine
        self.name = name
        self.process = machine.start("/usr/bin/python3", "-m", "dbusmock",
                                     "--session" if address else "--system", *arguments,
                                     stdout=subprocess.DEVNULL)
        self.connection = dbus.bus.BusConnection(address or machine.bus.address)
        wait_for(lambda: self.connection.name_has_owner(name), name)

    def object(self, path, interface):
        return dbus.Interface(self.connection.get_object(self.name, path), interface)

    def update(self, path, interface, properties):
        """Changes properties and tells it, as the service does."""
        self.object(path, MOCK).UpdateProperties(interface, dbus.Dictionary(properties, signature="sv"))

    def stop(self):
        self.process.terminate()
        self.process.wait()
        wait_for(lambda: not self.connection.name_has_owner(self.name), f"{self.name} to go")


class Bluez(Mock):
    """The Bluetooth service with one adapter."""

    DEVICE = "org.bluez.Device1"

    def __init__(self, machine):
        super().__init__(machine, "org.bluez", "--template", "bluez5")
        self.bluez = self.object("/org/bluez", "org.bluez.Mock")
        self.bluez.AddAdapter("hci0", "television")

    @staticmethod
    def path(address):
        return "/org/bluez/hci0/dev_" + address.replace(":", "_")

    def add_remote(self, address):
        self.bluez.AddDevice("hci0", address, "Remote")
        self.update(self.path(address), self.DEVICE, {"Class": dbus.UInt32(REMOTE_CLASS)})

    def set_connected(self, address, connected):
        self.update(self.path(address), self.DEVICE, {"Connected": dbus.Boolean(connected)})


class Logind(Mock):
    """The power service."""

    MANAGER = "org.freedesktop.login1.Manager"

    def __init__(self, machine):
        super().__init__(machine, "org.freedesktop.login1", "--template", "logind")
        self.manager = self.object("/org/freedesktop/login1", MOCK)

    def limit_delays(self, milliseconds):
        """How long it waits for delay locks, as it is before anybody asks."""
        self.manager.AddProperty(self.MANAGER, "InhibitDelayMaxUSec", dbus.UInt64(milliseconds * 1000))

    def is_held_up(self):
        return len(self.object("/org/freedesktop/login1", self.MANAGER).ListInhibitors()) > 0

    def _emit(self, signal, value):
        self.manager.EmitSignal(self.MANAGER, signal, "b", [dbus.Boolean(value)])

    def prepare_for_sleep(self, begins):
        self._emit("PrepareForSleep", begins)

    def prepare_for_shutdown(self, begins):
        self._emit("PrepareForShutdown", begins)


class Udisks(Mock):
    """The storage service with the sticks that are plugged in."""

    ROOT = "/org/freedesktop/UDisks2"
    DRIVE = ROOT + "/drives/Stick"
    PARTITION = ROOT + "/block_devices/sda1"
    INTERFACE = "org.freedesktop.UDisks2."

    def __init__(self, machine):
        super().__init__(machine, "org.freedesktop.UDisks2", "--is-object-manager", "org.freedesktop.UDisks2",
                         self.ROOT, self.INTERFACE + "Manager")
        self.manager = self.object(self.ROOT, MOCK)

    def plug(self, mount_point):
        """A USB drive with one file system that is mounted on a folder of this machine."""
        path = dbus.ByteArray(bytes(mount_point) + b"\0")
        self._add(self.DRIVE, "Drive", ConnectionBus="usb", TimeDetected=dbus.UInt64(1))
        self._add(self.PARTITION, "Block", Drive=dbus.ObjectPath(self.DRIVE),
                  CryptoBackingDevice=dbus.ObjectPath("/"))
        self._add_properties("Filesystem", MountPoints=dbus.Array([path], signature="ay"))
        self._add_properties("Partition", Number=dbus.UInt32(1))

    def unplug(self):
        self.manager.RemoveObject(self.PARTITION)
        self.manager.RemoveObject(self.DRIVE)

    def _add(self, path, interface, **properties):
        self.manager.AddObject(path, self.INTERFACE + interface, dbus.Dictionary(properties, signature="sv"),
                               dbus.Array([], signature="(ssss)"))

    def _add_properties(self, interface, **properties):
        self.object(self.PARTITION, MOCK).AddProperties(self.INTERFACE + interface,
                                                        dbus.Dictionary(properties, signature="sv"))


class Notifications(Mock):
    """What shows notifications, on the session bus."""

    def __init__(self, machine, address):
        super().__init__(machine, "org.freedesktop.Notifications", "--template", "notification_daemon",
                         address=address)
        self.shown = self.object("/org/freedesktop/Notifications", MOCK)

    def toasts(self):
        """Text and milliseconds of each, in order."""
        calls = self.shown.GetMethodCalls("Notify")
        return [(str(arguments[3]), int(arguments[7])) for _, arguments in calls]


class Subscriber:
    """A client of the daemon's notifications, a process of its own."""

    def __init__(self, machine, behaviour):
        script = pathlib.Path(__file__).with_name("subscriber.py")
        self.process = machine.start("/usr/bin/python3", script, machine.bus.address, behaviour,
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.next_line() == "subscribed"

    def answer(self):
        self.process.stdin.write("\n")
        self.process.stdin.flush()

    def next_line(self):
        return self.process.stdout.readline().rstrip("\n")
