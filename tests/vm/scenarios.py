"""Named trials on the whole machine: what a mocked service or a namespace cannot show.

Each is a function that gets a machine freshly booted and fails by an exception. What its docstring says is what it
proves.
"""
import sys
import time

from machine import wait_for

HANDOVER_KEY = "db/zol/send_zol_files_path"
KEY = "db/menu/picture/backlight"
# In memory: it can be set, and its rule hit, where the flash has no room.
VOLATILE_KEY = "memory/vm/hit"

POLICY_PASS = 30  # seconds between two looks at policy time (docs/policy-reference.md)


def policy(expires=2592000, padding=0):
    return (f'<zolitem numofzol="2"><zol_expired_time time="{expires}"/><zols key="{KEY}" condition="IS" type="INT" '
            f'intvalue="3"/><zols key="{VOLATILE_KEY}" condition="GREATER" type="INT" intvalue="0"/>'
            f'<!-- {"x" * padding} --></zolitem>')


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


def events(machine):
    """The KPI events, one line each."""
    return machine.run("zolctl", "kpi", "list").stdout


def expect_report(machine):
    """A hit now makes a report now, with its KPI event, and it is collected."""
    machine.run("zolctl", "vconf", "set", HANDOVER_KEY, "", "--type", "string", user="member")
    set_key(machine, KEY, 1)
    set_key(machine, KEY, 3)
    path = wait_for(lambda: get(machine, HANDOVER_KEY), "a published path")
    assert '"category" : "ZOL"' in machine.run("cat", f"{path}/header.json", user="member").stdout
    assert f"evid={path.rsplit('_', 1)[1]};key={KEY};value=3;" in events(machine), f"no KPI event for {path}"
    set_key(machine, KEY, 1)  # a rule that holds when a policy is applied is not watched
    machine.run("zolctl", "vconf", "set", HANDOVER_KEY, "", "--type", "string", user="member")


def uptime(machine):
    """Seconds since the boot, whatever the wall clock says."""
    return float(machine.run("cat", "/proc/uptime").stdout.split()[0])


def logged(machine, text, *where):
    """When lines of the application, or of whom journalctl shows with `where`, said this: seconds since the boot."""
    lines = machine.run("journalctl", "-b", *(where or ("-t", "ZOL")), "-o", "short-monotonic",
                        "--no-pager").stdout.splitlines()
    return [float(line[1:].split("]")[0]) for line in lines if text in line]


def processor_time(machine, service):
    """Seconds of it that the main process of a service has used."""
    pid = machine.run("systemctl", "show", service, "--value", "-p", "MainPID").stdout.strip()
    fields = machine.run("cat", f"/proc/{pid}/stat").stdout.rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / 100


def load_at_rest(machine, seconds):
    """The part of the processor that each of the two services uses with nothing to do."""
    services = ("zol", "zol-vconf")
    began, before = uptime(machine), [processor_time(machine, service) for service in services]
    wait_for(lambda: time.sleep(1) or uptime(machine) > began + seconds, "time to pass")
    passed = uptime(machine) - began
    return [(processor_time(machine, service) - start) / passed for service, start in zip(services, before)]


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
    """The wall clock is set by years, both ways, while an expiry waits. It comes no earlier than the policy says, and
    later only by the passes that the jumps fell into. After each jump the daemon answers, rests and reports."""
    jumps = ("3 years", "-5 years", "2000-01-01", f"@{int(time.time())}")
    expires = 90
    usual = load_at_rest(machine, 10)
    running, pushed = daemon(machine), uptime(machine)
    assert push(machine, policy(expires)) == 0
    for number, jump in enumerate(jumps):
        machine.run("date", "-s", jump)
        machine.wait_until_serving()
        expect_report(machine)
        load = load_at_rest(machine, POLICY_PASS + 5)  # so that each jump falls into another pass
        assert max(now - before for now, before in zip(load, usual)) < 0.1, f"{load} at rest, before {usual}"
        earliest = expires + number * POLICY_PASS  # each jump before this one took a pass out of policy time
        assert all(moment - pushed >= earliest for moment in logged(machine, "Removing policy")), f"expired at {jump}"
    expired = wait_for(lambda: time.sleep(1) or logged(machine, "Removing policy"), "the expiry")
    passed = expired[0] - pushed
    assert earliest <= passed <= earliest + 3 * POLICY_PASS, f"expired after {passed:.0f} s"
    expect_report(machine)
    assert daemon(machine) == running and len(expired) == 1
    print(f"clock: {expires} s of policy time took {passed:.0f} s, at rest {usual}, then {load}", file=sys.stderr)


def timers(machine):
    """A task's timer sleeps through the time before it, and fires when the clock is really set past it; set back, it
    waits until the clock is there again."""
    told = machine.run("/usr/local/lib/zol-vm/clock_probe", check=False)
    print("timers: " + "; ".join(told.stdout.splitlines()), file=sys.stderr)
    assert told.returncode == 0, told
    machine.wait_until_serving()


def fill_disk(machine):
    """Not a block is left, those kept for root included."""
    machine.run("sh", "-c", "dd if=/dev/zero of=/var/fill bs=1M; sync; dd if=/dev/zero of=/var/fill2 bs=512; sync",
                check=False)
    assert machine.run("dd", "if=/dev/zero", "of=/var/fill3", "bs=512", "count=1", "conv=fsync", check=False).returncode


def hit_in_memory(machine, value):
    """Sets the key that needs no flash, and waits until the daemon has taken the hit."""
    assert set_key(machine, VOLATILE_KEY, value) == 0
    wait_for(lambda: logged(machine, f"key[{VOLATILE_KEY}], intValue[{value}]"), f"the hit {value}")


def expect_keys_as_answered(machine):
    """@return how many of eight keys, half a megabyte together, were refused; each is as its set was answered"""
    refused = 0
    for number in range(8):
        value = f"{number}:{'z' * 60000}"
        status = machine.run("zolctl", "vconf", "set", f"db/vm/{number}", value, check=False).returncode
        assert get(machine, f"db/vm/{number}") == ("" if status else value), f"key {number}, answered {status}"
        refused += status != 0
    return refused


def expect_sound_stores(machine):
    """The databases of keys and events, looked at in copies."""
    machine.run("sh", "-c", "mkdir -p /run/copy && cp /var/lib/zol/vconfd/vconf.db* /var/lib/zol/kpi.db* /run/copy")
    for name in ("vconf", "kpi"):
        check = f"import sqlite3; print(*sqlite3.connect('/run/copy/{name}.db').execute('pragma integrity_check'))"
        assert machine.run("python3", "-c", check).stdout == "('ok',)\n", name
    assert not machine.run("find", "/var/lib/zol", "-name", "*.damaged*").stdout
    machine.run("rm", "-r", "/run/copy")


def full_disk(machine):
    """Without a free block policies and keys are refused and the old ones stay, and every answer is true. With room
    again all of it works in the same processes, no hit is without its event; the device boots from a full disk, too."""
    first, running = policy(padding=5000), daemon(machine)
    assert push(machine, first) == 0 and set_key(machine, "db/vm/old", 1) == 0
    fill_disk(machine)
    for padding in (0, 300000):
        assert push(machine, policy(padding=padding)) == 1
        assert machine.run("cat", "/var/lib/zol/policy.xml").stdout == first
    assert expect_keys_as_answered(machine) > 0, "a disk without room takes half a megabyte of keys"
    hit_in_memory(machine, 7)
    machine.wait_until_serving()
    machine.run("sh", "-c", "rm /var/fill*")
    hit_in_memory(machine, 8)
    expect_report(machine)
    assert all(f"key={VOLATILE_KEY};value={value};" in events(machine) for value in (7, 8)), events(machine)
    second = policy(padding=300000)
    assert push(machine, second) == 0 and set_key(machine, "db/vm/old", 2) == 0 and get(machine, "db/vm/old") == "2"
    assert daemon(machine) == running
    expect_sound_stores(machine)
    fill_disk(machine)
    machine.cut()
    machine.disconnect()
    machine.disk.power_on("nothing", None)
    machine.boot()
    machine.wait_until_serving()
    assert machine.run("cat", "/var/lib/zol/policy.xml").stdout == second and get(machine, "db/vm/old") == "2"
    machine.run("sh", "-c", "rm /var/fill*")
    assert push(machine, first) == 0
    expect_report(machine)
    expect_sound_stores(machine)


def subscribe(machine):
    """A client that answers each notification and prints it into the journal."""
    machine.run("systemd-run", "--unit=subscriber", "--uid=member", "python3", "/usr/local/lib/zol-vm/subscriber.py",
                "unix:path=/run/dbus/system_bus_socket", "answer")
    wait_for(lambda: logged(machine, "subscribed", "-u", "subscriber"), "the subscription")


def sleep_and_wake_up(machine, number):
    """Suspends to idle for the `number`-th time in this boot, and presses a key once the machine is asleep."""
    machine.run("sh", "-c", "(sleep 1; systemctl suspend) >/dev/null 2>&1 &")
    wait_for(lambda: machine.console().count("PM: suspend entry (s2idle)") == number, "the standby")
    wait_for(lambda: machine.processor_use(2) < 0.02, "the machine to be asleep")
    assert machine.console().count("PM: suspend exit") == number - 1, "it did not stay asleep"
    machine.qmp.execute("send-key", keys=[{"type": "qcode", "data": "spc"}])


def standby(machine):
    """systemctl suspend with the real logind, twice. A subscriber is told before the kernel suspends and the machine
    waits for its answer; awake again the daemon knows it, holds the next standby, answers, and reports."""
    prepared = "db/private/tvs-cv/power_on_prepared"
    machine.run("sh", "-c", "echo s2idle >/sys/power/mem_sleep; dmesg --console-level debug; "
                "echo enabled >/sys/devices/platform/i8042/serio0/power/wakeup")
    running = daemon(machine)
    assert push(machine, policy()) == 0
    subscribe(machine)
    for number in (1, 2):
        machine.run("zolctl", "vconf", "set", prepared, "false", "--type", "bool")
        wait_for(lambda: "Power-off work is done first" in machine.run("systemd-inhibit", "--list").stdout, "the lock")
        sleep_and_wake_up(machine, number)
        wait_for(lambda: get(machine, prepared) in ("1", "true"), "the wake-up")
        told = logged(machine, "code 5", "-u", "subscriber")
        asleep = logged(machine, "PM: suspend entry", "-k")
        assert len(told) == len(asleep) == number and told[-1] < asleep[-1], (told, asleep)
        machine.wait_until_serving()
        expect_report(machine)
    assert not logged(machine, "power-off work is not done", "-t", "ZOLPLATFORM") and daemon(machine) == running


SCENARIOS = {function.__name__.replace("_", "-"): function
             for function in (lifecycle, accounts, clock, timers, full_disk, standby)}
