"""Named trials on the whole machine: what a mocked service or a namespace cannot show.

Each is a function that gets a machine freshly booted and fails by an exception. What its docstring says is what it
proves.
"""
import calendar
import time

from machine import wait_for

HANDOVER_KEY = "db/zol/send_zol_files_path"
KEY = "db/menu/picture/backlight"
YEAR = 365 * 24 * 3600


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


def logged(machine, text):
    """How often a line of the application says this in this boot."""
    return machine.run("journalctl", "-b", "-t", "ZOL", "-o", "cat", "--no-pager").stdout.count(text)


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


def clock(machine):
    """The wall clock goes ten years ahead and twenty back while an expiry waits: it comes neither at once nor late."""
    def set_clock(years):
        now = calendar.timegm(time.strptime(machine.run("date", "-u", "+%Y%m%d%H%M%S").stdout.strip(), "%Y%m%d%H%M%S"))
        machine.run("date", "-s", f"@{now + years * YEAR}")

    def uptime():
        return float(machine.run("cat", "/proc/uptime").stdout.split()[0])

    assert push(machine, policy(expires=180)) == 0
    begun = uptime()
    set_clock(10)
    wait_for(lambda: uptime() > begun + 75, "two looks at the clock")
    assert logged(machine, "Removing policy") == 0, "expired with the jump ahead"
    expect_report(machine)
    set_clock(-20)
    # Each jump costs policy time the pass of thirty seconds that it fell into.
    ended = wait_for(lambda: logged(machine, "Removing policy") and uptime(), "the expiry", 400)
    assert 180 <= ended - begun <= 180 + 5 * 30, f"expired after {ended - begun:.0f} s instead of 180"
    expect_report(machine)


def standby(machine):
    """systemctl suspend with the real logind: announced to subscribers, the daemon wakes up, knows it, and reports."""
    assert push(machine, policy()) == 0
    assert get(machine, "db/private/tvs-cv/power_on_prepared") in ("0", "false")
    machine.run("systemctl", "suspend")
    wait_for(lambda: machine.qmp.execute("query-status")["status"] == "suspended", "the standby")
    machine.qmp.execute("system_wakeup")
    wait_for(lambda: get(machine, "db/private/tvs-cv/power_on_prepared") in ("1", "true"), "the wake-up")
    machine.wait_until_serving()
    expect_report(machine)


def full_disk(machine):
    """On a disk without a free block a policy and a key are refused and the old ones stay, also over a power cut; with
    room again everything works, and no report of the time between is without its KPI event."""
    first = policy(padding=5000)
    assert push(machine, first) == 0 and set_key(machine, "db/vm/old", 1) == 0
    machine.run("sh", "-c", "dd if=/dev/zero of=/var/fill bs=1M; dd if=/dev/zero of=/var/fill2 bs=512; sync",
                check=False)
    assert push(machine, policy(padding=300000)) == 1
    assert machine.run("cat", "/var/lib/zol/policy.xml").stdout == first
    value = "z" * 60000
    refused = machine.run("sh", "-c", f"for key in 1 2 3 4 5 6 7 8; do zolctl vconf set db/vm/$key {value} || exit; "
                          "done", check=False)
    assert refused.returncode == 2, "a disk without room takes half a megabyte of keys"
    machine.cut()
    machine.disconnect()
    machine.disk.power_on("nothing", None)
    machine.boot()
    machine.wait_until_serving()
    assert machine.run("cat", "/var/lib/zol/policy.xml").stdout == first and get(machine, "db/vm/old") == "1"
    machine.run("rm", "-f", "/var/fill", "/var/fill2")
    assert push(machine, policy(padding=300000)) == 0 and set_key(machine, "db/vm/old", 2) == 0
    expect_report(machine)
    machine.run("sh", "-c", "zolctl kpi list | grep -q EV007")


SCENARIOS = {function.__name__.replace("_", "-"): function
             for function in (lifecycle, accounts, clock, standby, full_disk)}
