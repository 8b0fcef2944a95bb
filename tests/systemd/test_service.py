"""The unit, the folders and the accounts, as an image gets them."""
import json
import os
import re
import shutil
import sqlite3
import time

from conftest import wait_for

KEY = "db/menu/picture/backlight"
HANDOVER_KEY = "db/zol/send_zol_files_path"
POLICY = ('<zolitem numofzol="1"><zol_expired_time time="2592000"/>'
          f'<zols key="{KEY}" condition="IS" type="INT" intvalue="3"/></zolitem>')
FOLDERS = ["/var/lib/zol", "/var/lib/zol/vconfd", "/var/log/zol", "/run/zol", "/run/zol/vconfd", "/tmp/zol",
           "/run/zol/vconf.sock"]
FOLDER_MODES = ["755 root zol /var/lib/zol", "700 zol-vconf zol-vconf /var/lib/zol/vconfd",
                "750 root zol /var/log/zol", "755 root zol /run/zol", "700 zol-vconf zol-vconf /run/zol/vconfd",
                "755 root root /tmp/zol", "660 root zol /run/zol/vconf.sock"]


def zolctl(device, *arguments, **options):
    return device.run("zolctl", *arguments, **options)


def test_owners_and_access_are_kept_over_boots(device):
    zolctl(device, "policy", "push", "-", user="member", stdin=POLICY)
    zolctl(device, "vconf", "set", KEY, "1", "--type", "int", user="member")
    first = device.modes(*FOLDERS), device.modes("/var/lib/zol/policy.xml")

    device.shut_down()
    device.boot()
    device.run("systemctl", "start", "zol")
    device.wait_until_serving()

    assert (device.modes(*FOLDERS), device.modes("/var/lib/zol/policy.xml")) == first
    assert first == (FOLDER_MODES, ["640 UNKNOWN UNKNOWN /var/lib/zol/policy.xml"])
    assert device.run("stat", "--format=%u:%g", "/var/lib/zol/policy.xml").stdout == "951:951\n"
    assert zolctl(device, "vconf", "get", KEY, user="member").stdout == "1\n"
    zolctl(device, "vconf", "set", KEY, "2", user="member")


def test_the_service_is_started_when_it_serves_and_tells_what_runs(device):
    zolctl(device, "policy", "push", "-", user="member", stdin=POLICY)
    device.run("systemctl", "restart", "zol")

    assert device.show("StatusText") == "1 rules watched, 0 dropped"
    zolctl(device, "status", user="member")

    device.run("systemctl", "stop", "dbus.socket", "dbus.service")
    device.run("systemctl", "restart", "zol")
    assert (device.show("ActiveState"), device.show("StatusText")) == ("active", "1 rules watched, 0 dropped")


def test_reports_carry_ids_of_the_machine(device):
    unique = device.run("cat", "/var/lib/zol/device/unique_id").stdout
    assert re.fullmatch(r"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", unique)
    assert unique.replace("-", "") != device.run("cat", "/etc/machine-id").stdout.strip()
    assert device.modes("/var/lib/zol/device") == ["755 root root /var/lib/zol/device"]

    zolctl(device, "vconf", "set", KEY, "3", "--type", "int", user="member")
    zolctl(device, "policy", "push", "-", user="member", stdin=POLICY)
    path = wait_for(lambda: zolctl(device, "vconf", "get", HANDOVER_KEY, user="member").stdout.strip(), "a path")
    header = json.loads(device.run("cat", f"{path}/header.json").stdout)

    assert header["tgid"] == unique and path.startswith(f"/tmp/zol/{unique}_")
    assert header["lcid"] == device.run("cat", "/var/lib/zol/device/life_cycle_id").stdout
    device.shut_down()
    device.boot()
    assert device.run("cat", "/var/lib/zol/device/unique_id").stdout == unique


def key_service(device):
    return device.run("systemctl", "show", "zol-vconf", "--value", "-p", "MainPID").stdout.strip()


def test_the_key_store_belongs_to_an_account_of_its_own(device):
    zolctl(device, "vconf", "set", KEY, "1", "--type", "int", user="member")
    zolctl(device, "vconf", "set", "memory/k", "1", user="member")

    status = device.run("cat", f"/proc/{key_service(device)}/status").stdout
    account = device.run("id", "-u", "zol-vconf").stdout.strip()
    files = device.modes("/var/lib/zol/vconfd/vconf.db", "/run/zol/vconfd/vconf.db")

    assert re.search(rf"Uid:\t{account}\t{account}\t{account}\t{account}\n", status)
    assert re.search(r"CapBnd:\t0+\n", status) and "NoNewPrivs:\t1" in status
    assert [line.rsplit(" ", 1)[0] for line in files] == ["600 zol-vconf zol-vconf"] * 2
    assert device.run("pgrep", "-c", "zol_vconfd").stdout == "1\n"
    device.run("systemd-analyze", "security", "--threshold=20", "--no-pager", "zol-vconf.service")
    for user in ("member", "stranger"):
        assert device.run("ls", "/var/lib/zol/vconfd", user=user, check=False).returncode == 2
    refused = zolctl(device, "vconf", "set", KEY, "2", user="stranger", check=False)
    assert refused.returncode == 2 and "Permission denied" in refused.stderr
    assert zolctl(device, "vconf", "get", KEY, user="member").stdout == "1\n"


def test_the_key_service_comes_back_and_the_daemon_misses_nothing(device):
    zolctl(device, "policy", "push", "-", user="member", stdin=POLICY)
    before = key_service(device)
    device.run("kill", "-KILL", before)

    zolctl(device, "vconf", "set", KEY, "3", "--type", "int", user="member")

    wait_for(lambda: zolctl(device, "vconf", "get", HANDOVER_KEY, user="member").stdout.strip(), "a published path")
    assert key_service(device) not in ("0", before)


def make_old_store(folder, group):
    folder.mkdir(parents=True)
    store = sqlite3.connect(folder / "vconf.db", isolation_level=None)
    store.executescript("PRAGMA journal_mode=WAL;"
                        "CREATE TABLE keys(name TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value,"
                        " change INTEGER NOT NULL) WITHOUT ROWID;"
                        "CREATE UNIQUE INDEX keys_by_change ON keys(change);"
                        "INSERT INTO keys VALUES('db/old', 1, 7, 9223372036854775807);")
    store.close()
    for path in (folder, *folder.iterdir()):
        os.chown(path, 0, group)
        path.chmod(0o2770 if path == folder else 0o660)


def test_the_store_of_an_earlier_version_is_taken_over(device):
    device.shut_down()
    shutil.rmtree(device.folder / "upper/var/lib/zol/vconfd")
    groups = (device.folder / "upper/etc/group").read_text()
    make_old_store(device.folder / "upper/var/lib/zol/vconf",
                   int(re.search(r"^zol:[^:]*:(\d+):", groups, re.M).group(1)))
    device.boot()
    device.run("systemctl", "start", "zol-vconf.socket")

    assert zolctl(device, "vconf", "get", "db/old", user="member").stdout == "7\n"
    assert device.run("ls", "/var/lib/zol/vconf").stdout.split()[0] == "vconf.db.old"


def test_a_member_gets_a_report_and_a_stranger_nothing(device):
    zolctl(device, "policy", "push", "-", user="member", stdin=POLICY)
    zolctl(device, "vconf", "set", KEY, "3", "--type", "int", user="member")

    path = wait_for(lambda: zolctl(device, "vconf", "get", HANDOVER_KEY, user="member").stdout.strip(),
                    "a published path")

    assert '"category" : "ZOL"' in device.run("cat", f"{path}/header.json", user="member").stdout
    assert zolctl(device, "policy", "push", "-", user="stranger", stdin=POLICY, check=False).returncode == 2
    assert zolctl(device, "vconf", "get", KEY, user="stranger", check=False).returncode == 2


def test_it_comes_back_however_often_it_ends(device):
    device.run("mkdir", "-p", "/run/systemd/system/zol.service.d")
    device.run("tee", "/run/systemd/system/zol.service.d/quick.conf", stdin="[Service]\nRestartSec=10ms\n")
    device.run("systemctl", "daemon-reload")

    for _ in range(8):
        before = wait_for(device.daemon, "the daemon")
        device.run("kill", "-KILL", before)
        wait_for(lambda before=before: device.daemon() not in (None, before), "the next daemon")

    device.wait_until_serving()


def test_it_is_started_again_when_it_hangs(device):
    device.run("mkdir", "-p", "/run/systemd/system/zol.service.d")
    device.run("tee", "/run/systemd/system/zol.service.d/quick.conf",
               stdin="[Service]\nWatchdogSec=2\nRestartSec=10ms\n")
    device.run("systemctl", "daemon-reload")
    device.run("systemctl", "restart", "zol")
    device.wait_until_serving()
    before = device.daemon()
    time.sleep(5)
    assert device.daemon() == before, "one that lives is left alone"

    device.run("kill", "-STOP", before)

    wait_for(lambda: device.daemon() not in (None, before), "the next daemon")
    device.wait_until_serving()


def test_the_documented_probe_is_answered_by_a_daemon_that_lives_only(device):
    def probe():
        return device.run("gdbus", "call", "--system", "--timeout", "2", "--dest", "org.zol.Daemon1", "--object-path",
                          "/org/zol/Daemon1", "--method", "org.zol.Native1.Call", "99", "@ay []", check=False)

    assert (probe().returncode, probe().stdout) == (0, "(false, @ay [])\n")

    device.run("kill", "-STOP", device.daemon())

    assert probe().returncode != 0


def test_it_writes_only_what_is_its_own(device):
    device.shut_down()
    (device.folder / "upper/etc/release").write_text("")
    device.boot()
    device.run("systemctl", "start", "zol")
    device.wait_until_serving()

    def can_write(path):
        return device.in_the_service("sh", "-c", f"exec 3<>{path}", check=False).returncode == 0

    # Where this file can be opened for update a failed assertion is survived.
    assert can_write("/etc/release")
    assert can_write("/var/lib/zol/x") and can_write("/tmp/zol/x") and can_write("/run/zol/x")
    assert not can_write("/etc/passwd") and not can_write("/usr/x") and not can_write("/var/lib/x")


def test_the_pages_that_the_units_name_are_there(device):
    for unit in ("zol", "zol-vconf", "zol-device-id", "zol-collector"):
        named = device.run("systemctl", "show", unit, "--value", "-p", "Documentation").stdout
        (page, part), = re.findall(r"man:([\w-]+)\((\d)\)", named)
        device.run("test", "-s", f"/usr/share/man/man{part}/{page}.{part}")


def test_it_keeps_few_rights(device):
    status = device.run("cat", f"/proc/{device.daemon()}/status").stdout
    chown, dac_override, fowner, sys_nice = 0, 1, 3, 23

    bounding = int(re.search(r"CapBnd:\s*(\w+)", status).group(1), 16)

    assert bounding == 1 << chown | 1 << dac_override | 1 << fowner | 1 << sys_nice
    assert "NoNewPrivs:\t1" in status
    assert "hidepid" in device.in_the_service("grep", " /proc ", "/proc/self/mountinfo").stdout
    # Tenths of systemd's own scale, on which 4.0 is where a service begins to count as exposed.
    device.run("systemd-analyze", "security", "--threshold=40", "--no-pager", "zol.service")
