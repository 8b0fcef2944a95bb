"""What each account may do to the installed service: who may, the others may not."""
import pytest

from test_service import HANDOVER_KEY, KEY, POLICY, wait_for, zolctl

NATIVE = "org.zol.Native1"
ACCOUNTS = ("stranger", "member", "zol-vconf", "policy", "root")

CORE_DUMPS = "db/private/corvel/corvel_policy_info"


def to_daemon(method, *arguments):
    return ["gdbus", "call", "--system", "--timeout", "5", "--dest", "org.zol.Daemon1", "--object-path",
            "/org/zol/Daemon1", "--method", method, *arguments]


def shell(line):
    return ["sh", "-c", line, "{}"]


# How something is tried on an object. Nothing is changed by it, and status 0 means that it may be done.
ATTEMPTS = {
    "list": ["ls", "{}"],
    "create": shell('mkdir "$0/.try" && rmdir "$0/.try"'),
    "read": shell('exec 3<"$0"'),
    "write": shell('exec 3>>"$0"'),
    "get": ["zolctl", "vconf", "get", "{}"],
    "set": ["zolctl", "vconf", "set", "{}", "0", "--type", "int"],
    "watch": shell('words=$(mktemp); zolctl vconf watch "$0" 2>"$words" & watcher=$!\n'
                   'until [ -s "$words" ]; do sleep 0.05; done; kill $watcher; grep -q ^watching "$words"; '
                   'watched=$?; rm "$words"; exit $watched'),
    "own": ["gdbus", "call", "--system", "--dest", "org.freedesktop.DBus", "--object-path",
            "/org/freedesktop/DBus", "--method", "org.freedesktop.DBus.RequestName", "{}", "4"],
    "call": to_daemon(NATIVE + ".Call", "99", "@ay []"),
    "push": shell('printf %s "<zolitem/>" | zolctl policy push --force -; [ $? != 2 ]'),
    "subscribe": to_daemon(NATIVE + ".Subscribe", "objectpath '/subscriber'"),
    "unsubscribe": to_daemon(NATIVE + ".Unsubscribe"),
    "introspect": to_daemon("org.freedesktop.DBus.Introspectable.Introspect"),
    "ping": to_daemon("org.freedesktop.DBus.Peer.Ping"),
    "read property": to_daemon("org.freedesktop.DBus.Properties.Get", "{}", "Version"),
    "write property": to_daemon("org.freedesktop.DBus.Properties.Set", "{}", "Version", "<'1'>"),
    "set policy": to_daemon("{}.SetPolicy", "<zolitem/>"),
    "check": to_daemon("{}.Check", "<zolitem/>"),
    "explain": to_daemon("{}.Explain", ""),
    # What the daemon itself answers was let through.
    "notify": shell(" ".join(to_daemon("org.zol.NotificationClient1.Notify", "5")) + " 2>&1 | grep -v AccessDenied"),
    "events": ["zolctl", "kpi", "list"],
    "journal": ["journalctl", "-q", "-n", "1", "-t", "{}"],
    "log as": shell('echo try | systemd-cat -t "$0"'),
    "signal": shell('kill -0 "$(systemctl show "$0" --value -p MainPID)"'),
    "inspect": shell('exec 3<"/proc/$(systemctl show "$0" --value -p MainPID)/environ"'),
    "restart": ["systemctl", "--no-ask-password", "start", "{}"],
}

ALL, NOBODY, ROOT = set(ACCOUNTS), set(), {"root"}
MEMBERS, OWNER = {"member", "root"}, {"zol-vconf", "root"}

# Object, attempt, who may. The object "report" is the newest report folder.
ACCESS = [
    ("/var/lib/zol", "list", ALL),
    ("/var/lib/zol", "create", ROOT),
    ("/var/lib/zol/device", "list", ALL),
    ("/var/lib/zol/device", "create", ROOT),
    *((f"/var/lib/zol/device/{name}", how, who) for name in ("unique_id", "life_cycle_id", "chip_id")
      for how, who in (("read", ALL), ("write", ROOT))),
    ("/var/lib/zol/policy.xml", "read", {"policy", "root"}),
    ("/var/lib/zol/policy.xml", "write", {"policy", "root"}),
    *((path, how, ROOT) for path in ("/var/lib/zol/kpi.db", "/var/lib/zol/kpi.db-wal", "/var/lib/zol/kpi.db-shm")
      for how in ("read", "write")),
    *((path, how, OWNER) for path in ("/var/lib/zol/vconfd", "/run/zol/vconfd") for how in ("list", "create")),
    *((path, how, OWNER) for path in ("/var/lib/zol/vconfd/vconf.db", "/var/lib/zol/vconfd/vconf.db-wal",
                                      "/var/lib/zol/vconfd/service.lock", "/run/zol/vconfd/vconf.db",
                                      "/run/zol/vconfd/vconf.db-wal")
      for how in ("read", "write")),
    ("/run/zol", "list", ALL),
    ("/run/zol", "create", ROOT),
    ("/run/zol/daemon.lock", "read", ROOT),
    ("/run/zol/daemon.lock", "write", ROOT),
    ("/var/log/zol", "list", MEMBERS),
    ("/var/log/zol", "create", ROOT),
    ("/var/log/zol/debug.log", "read", ROOT),
    ("/var/log/zol/debug.log", "write", ROOT),
    ("/tmp/zol", "list", ALL),
    ("/tmp/zol", "create", ROOT),
    ("report", "list", ALL),
    ("report", "create", ROOT),
    ("report/header.json", "read", ALL),
    ("report/header.json", "write", ROOT),
    # Markers and tables: the debug image, traps, key combinations, the run-time log, surviving an assertion.
    *((folder, "create", ROOT) for folder in ("/etc", "/usr/bin", "/usr/libexec/zol", "/usr/lib/systemd/system",
                                              "/usr/share/dbus-1/system.d")),
    ("/usr/bin/zolctl", "write", ROOT),

    ("org.zol.Daemon1", "own", ROOT),
    *(("org.zol.Daemon1", how, MEMBERS)
      for how in ("call", "push", "subscribe", "unsubscribe", "introspect", "ping")),
    *(("org.zol.Policy1", how, MEMBERS) for how in ("read property", "set policy", "check", "explain")),
    ("org.zol.Policy1", "write property", NOBODY),
    ("org.zol.Daemon1", "notify", ROOT),

    # The service's own account is no user of it: outside its unit it is not in the group.
    *((KEY, how, MEMBERS) for how in ("get", "set", "watch")),
    (CORE_DUMPS, "set", MEMBERS),
    ("db/zol/corvel_policy", "set", MEMBERS),
    ("memory/access", "set", MEMBERS),

    ("the event log", "events", ROOT),
    ("ZOL", "journal", ROOT),
    # Anybody may; the journal says who it was.
    ("ZOL", "log as", ALL),
    ("zol", "signal", ROOT),
    ("zol-vconf", "signal", OWNER),
    ("zol", "inspect", ROOT),
    ("zol-vconf", "inspect", OWNER),
    *((unit, "restart", ROOT) for unit in ("zol", "zol-vconf")),
]


@pytest.fixture(scope="module")
def machine(shared_device):
    """One with a policy, keys, an event and a report; the attribute `report` is the report's folder."""
    # The platform's account, which the policy is stored for.
    shared_device.run("groupadd", "--gid", "951", "policy")
    shared_device.run("useradd", "--uid", "951", "--gid", "951", "policy")
    zolctl(shared_device, "policy", "push", "-", user="member", stdin=POLICY)
    zolctl(shared_device, "vconf", "set", "memory/access", "0", "--type", "int", user="member")
    zolctl(shared_device, "vconf", "set", KEY, "3", "--type", "int", user="member")
    shared_device.report = wait_for(
        lambda: zolctl(shared_device, "vconf", "get", HANDOVER_KEY, user="member", check=False).stdout.strip(),
        "a published path")
    return shared_device


@pytest.mark.parametrize("account", ACCOUNTS)
def test_an_account_may_do_what_the_table_says_and_nothing_else(machine, account):
    wrong = []
    for target, how, allowed in ACCESS:
        command = [word.replace("{}", target.replace("report", machine.report, 1)) for word in ATTEMPTS[how]]
        result = machine.run(*command, user=account, check=False)
        if (result.returncode == 0) != (account in allowed):
            wrong.append((target, how, result.returncode, result.stderr))
    assert not wrong


def test_every_file_is_in_the_table(machine):
    found = machine.run("find", "/var/lib/zol", "/run/zol", "/var/log/zol", "-not", "-type", "s").stdout.splitlines()

    assert set(found) - {target for target, _, _ in ACCESS} == set()
