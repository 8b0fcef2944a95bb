"""An account that takes whatever it can get keeps nobody else from working."""
import contextlib
import errno
import itertools

import dbus
import dbus.bus
import dbus.lowlevel

from accounts import FROM_NOW, GET, INT, SET, STRING, WATCH, KeyClient, acting_as
from test_access import to_daemon
from test_service import HANDOVER_KEY, KEY, POLICY, wait_for, zolctl

# What one account may have; docs/dbus.md and docs/platform-linux-store.md.
SHARES = {"subscriptions": 16, "connections": 64, "keys": 16384, "texts": 127, "watches": 16384}


def take_subscriptions():
    """On as many connections to the bus as it lets one account have."""
    taken, connections = 0, []
    while True:
        try:
            connections.append(dbus.bus.BusConnection("unix:path=dbus/system_bus_socket"))
        except dbus.DBusException:
            return taken, connections
        daemon = dbus.Interface(connections[-1].get_object("org.zol.Daemon1", "/org/zol/Daemon1", introspect=False),
                                "org.zol.Native1")
        try:
            for path in ("/a", "/b", "/c", "/d"):
                daemon.Subscribe(path, signature="o")
                taken += 1
        except dbus.DBusException as refused:
            assert "too many subscriptions" in str(refused)


def count(call):
    """How often call(number) is answered with 0; then it is refused, because that is the share."""
    done = 0
    while (error := call(done)) == 0:
        done += 1
    assert error == errno.EDQUOT
    return done


def take_connections():
    connections = []

    def connect(_):
        connections.append(KeyClient())
        try:
            error = connections[-1].call(GET, b"db/a")
            return 0 if error == errno.ENOENT else error
        except (BrokenPipeError, ConnectionResetError):  # cut off before it has sent anything
            return errno.EDQUOT

    return count(connect), connections


def take_all(pipe):
    """Takes everything and tells how much that was; at a word of the test it goes on asking, and reads no answers."""
    taken = {}
    taken["subscriptions"], kept_on_the_bus = take_subscriptions()
    client = KeyClient()
    text = b"x" * 65536
    taken["texts"] = count(lambda n: client.call(SET, b"memory/text%d" % n, STRING, text=text))
    for number in range(taken["texts"]):
        assert client.call(SET, b"memory/text%d" % number) == 0
    taken["keys"] = count(lambda n: client.call(SET, b"memory/%d" % n, INT))
    taken["watches"] = count(lambda n: client.call(WATCH, b"db/%d" % n, change=FROM_NOW))
    taken["connections"], kept = take_connections()
    taken["connections"] += 1  # the one that has watched
    pipe.send(taken)
    pipe.recv()
    kept[0].socket.setblocking(False)
    call = dbus.lowlevel.MethodCallMessage("org.zol.Daemon1", "/org/zol/Daemon1", "org.zol.Native1", "Call")
    call.append(99, dbus.ByteArray(b""), signature="iay")
    call.set_no_reply(True)
    for number in itertools.count():
        for connection in kept_on_the_bus[:16]:
            connection.send_message(call.copy())
            connection.flush()
            with contextlib.suppress(BlockingIOError):
                kept[0].send(SET, b"memory/0", INT)
        if number == 1000:
            pipe.send("asking")


def test_an_account_gets_its_share_and_the_others_go_on_working(device):
    device.run("useradd", "--system", "--groups", "zol", "other")
    zolctl(device, "policy", "push", "-", user="other", stdin=POLICY)
    before = device.daemon()

    with acting_as(device, "member", "/run", take_all) as pipe:
        assert pipe.poll(120) and pipe.recv() == SHARES

        assert zolctl(device, "vconf", "get", KEY, user="member", check=False).returncode == 2
        for user in ("other", "root"):
            device.run(*to_daemon("org.zol.Native1.Subscribe", "objectpath '/subscriber'"), user=user)

        # The bus serves those who ask it for the daemon in their order, the keys are a matter of their own.
        pipe.send("ask")
        assert pipe.poll(120) and pipe.recv() == "asking"
        for user in ("other", "root"):
            zolctl(device, "vconf", "set", f"db/{user}", "7", "--type", "int", user=user)
            assert zolctl(device, "vconf", "get", f"db/{user}", user=user).stdout == "7\n"
        zolctl(device, "vconf", "set", KEY, "3", "--type", "int", user="other")
        wait_for(lambda: zolctl(device, "vconf", "get", HANDOVER_KEY, user="other").stdout.strip(),
                 "a published path")

    # All of it is given back with the connections, but for the keys.
    wait_for(lambda: zolctl(device, "vconf", "get", KEY, user="member", check=False).stdout == "3\n",
             "a connection of the greedy account")
    zolctl(device, "vconf", "set", "memory/0", "1", user="member")
    wait_for(lambda: device.run(*to_daemon("org.zol.Native1.Subscribe", "objectpath '/subscriber'"),
                                check=False).returncode == 0, "the daemon to answer")
    assert device.daemon() == before
