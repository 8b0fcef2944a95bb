"""Subscribes for the daemon's notifications and prints a line "code N" for each, answering at once, never, or when a
line comes in.

usage: subscriber.py ADDRESS answer|hang|ask
"""
import sys

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib


class Client(dbus.service.Object):
    def __init__(self, connection, behaviour):
        super().__init__(connection, "/client")
        self.behaviour = behaviour

    @dbus.service.method("org.zol.NotificationClient1", in_signature="i", out_signature="",
                         async_callbacks=("done", "failed"))
    def Notify(self, code, done, failed):
        print(f"code {code}", flush=True)
        if self.behaviour == "answer":
            done()
        elif self.behaviour == "ask":
            GLib.io_add_watch(sys.stdin, GLib.IO_IN, lambda *_: done())


def main():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    connection = dbus.bus.BusConnection(sys.argv[1])
    client = Client(connection, sys.argv[2])
    daemon = dbus.Interface(connection.get_object("org.zol.Daemon1", "/org/zol/Daemon1"), "org.zol.Native1")
    daemon.Subscribe(dbus.ObjectPath("/client"))
    print("subscribed", flush=True)
    GLib.MainLoop().run()
    del client


main()
