"""Named trials on the whole machine: what a mocked service or a namespace cannot show.

Each is a function that gets a machine freshly booted and fails by an exception. What its docstring says is what it
proves.
"""
from machine import wait_for

HANDOVER_KEY = "db/zol/send_zol_files_path"
KEY = "db/menu/picture/backlight"


def policy(expires=2592000, padding=0):
    return (f'<zolitem numofzol="1"><zol_expired_time time="{expires}"/><zols key="{KEY}" condition="IS" type="INT" '
            f'intvalue="3"/><!-- {"x" * padding} --></zolitem>')


# --- vocabulary -----------------------------------------------------------------------------------------------------
def push(machine, document, user="member"):
    """@return the exit status: 0 accepted, 1 refused"""
    return machine.run("zolctl", "policy", "push", "-", user=user, stdin=document, check=False).returncode


def get(machine, key, user="member"):
    return machine.run("zolctl", "vconf", "get", key, user=user, check=False).stdout.rstrip("\n")


def set_key(machine, key, value, user="member"):
    return machine.run("zolctl", "vconf", "set", key, "--type", "int", "--", value, user=user, check=False).returncode


def daemon(machine):
    return machine.run("systemctl", "show", "zol", "--value", "-p", "MainPID").stdout.strip()


def expect_another_daemon(machine, before):
    wait_for(lambda: daemon(machine) not in ("0", before), "another daemon")
    machine.wait_until_serving()


def expect_report(machine):
    """A hit now makes a report now, which is collected."""
    machine.run("zolctl", "vconf", "set", HANDOVER_KEY, "", "--type", "string", user="member")
    set_key(machine, KEY, 1)
    set_key(machine, KEY, 3)
    path = wait_for(lambda: get(machine, HANDOVER_KEY), "a published path")
    assert '"category" : "ZOL"' in machine.run("cat", f"{path}/header.json", user="member").stdout
    machine.run("zolctl", "vconf", "set", HANDOVER_KEY, "", "--type", "string", user="member")


# --- scenarios ------------------------------------------------------------------------------------------------------
def lifecycle(machine):
    """Stopped, started, restarted, killed, hanging, and over two orderly boots, the policy is watched again."""
    assert push(machine, policy()) == 0
    machine.run("systemctl", "stop", "zol")
    assert daemon(machine) == "0" and push(machine, policy()) == 2
    machine.run("systemctl", "start", "zol")
    machine.wait_until_serving()
    before = daemon(machine)
    machine.run("systemctl", "restart", "zol")
    expect_another_daemon(machine, before)
    before = daemon(machine)
    machine.run("kill", "-KILL", before)
    expect_another_daemon(machine, before)
    machine.run("mkdir", "-p", "/run/systemd/system/zol.service.d")
    machine.run("tee", "/run/systemd/system/zol.service.d/quick.conf", stdin="[Service]\nWatchdogSec=10\n")
    machine.run("systemctl", "daemon-reload")
    before = daemon(machine)
    machine.run("systemctl", "restart", "zol")
    expect_another_daemon(machine, before)
    before = daemon(machine)
    machine.run("kill", "-STOP", before)
    expect_another_daemon(machine, before)
    for _ in range(2):
        machine.shut_down()
        machine.boot()
        machine.wait_until_serving()
    expect_report(machine)


def accounts(machine):
    """A member of `zol` pushes, sets, collects; a stranger does none of it, reads no store and no key, and owns no
    name."""
    assert push(machine, policy()) == 0
    expect_report(machine)
    assert set_key(machine, KEY, 1) == 0
    for refused in (push(machine, policy(), user="stranger"), set_key(machine, KEY, 2, user="stranger")):
        assert refused == 2, refused
    assert get(machine, KEY, user="stranger") == "" and get(machine, KEY) == "1"
    for user in ("member", "stranger"):
        assert machine.run("cat", "/var/lib/zol/vconfd/vconf.db", user=user, check=False).returncode == 1
        assert machine.run("zolctl", "kpi", "list", user=user, check=False).returncode == 2
    machine.run("systemctl", "stop", "zol")
    taken = machine.run("gdbus", "call", "--system", "--dest", "org.freedesktop.DBus", "--object-path",
                        "/org/freedesktop/DBus", "--method", "org.freedesktop.DBus.RequestName", "org.zol.Daemon1",
                        "0", user="member", check=False)
    assert "AccessDenied" in taken.stderr, taken
    machine.run("systemctl", "start", "zol")
    machine.wait_until_serving()


SCENARIOS = {function.__name__.replace("_", "-"): function for function in (lifecycle, accounts)}
