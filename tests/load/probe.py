"""Asks the daemon ten times a second whether it is in health, as docs/dbus.md says; prints the milliseconds of
each answer, "silent" when one takes longer than ten seconds, and nothing while there is no daemon or no bus.

usage: probe.py ADDRESS
"""
import sys
import time

import dbus
import dbus.lowlevel

PERIOD = 0.1
LIMIT = 10
NO_REPLY = "org.freedesktop.DBus.Error.NoReply"


def ask(connection):
    message = dbus.lowlevel.MethodCallMessage("org.zol.Daemon1", "/org/zol/Daemon1", "org.zol.Native1", "Call")
    message.append(99, dbus.ByteArray(b""), signature="iay")
    before = time.monotonic()
    try:
        connection.send_message_with_reply_and_block(message, LIMIT)
    except dbus.DBusException as error:
        # One whose daemon or bus goes away is answered with this too, but at once.
        is_silent = error.get_dbus_name() == NO_REPLY and time.monotonic() - before >= LIMIT
        return "silent" if is_silent else None
    return f"{(time.monotonic() - before) * 1000:.2f}"


def main():
    connection = None
    while True:
        try:
            connection = connection or dbus.bus.BusConnection(sys.argv[1])
            result = ask(connection)
            if result:
                print(result, flush=True)
            if not connection.get_is_connected():
                connection = None
        except dbus.DBusException:
            connection = None
        time.sleep(PERIOD)


main()
