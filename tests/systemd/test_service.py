"""The unit, the folders and the accounts, as an image gets them."""
import re

from conftest import wait_for

KEY = "db/menu/picture/backlight"
HANDOVER_KEY = "db/zol/send_zol_files_path"
POLICY = ('<zolitem numofzol="1"><zol_expired_time time="2592000"/>'
          f'<zols key="{KEY}" condition="IS" type="INT" intvalue="3"/></zolitem>')
FOLDERS = ["/var/lib/zol", "/var/lib/zol/vconf", "/var/log/zol", "/run/zol", "/run/zol/vconf", "/tmp/zol"]
FOLDER_MODES = ["755 root zol /var/lib/zol", "2770 root zol /var/lib/zol/vconf", "750 root zol /var/log/zol",
                "755 root zol /run/zol", "2770 root zol /run/zol/vconf", "755 root root /tmp/zol"]


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


def test_what_the_unit_names_is_there(device):
    documents = device.show("Documentation").split()

    assert documents
    for document in documents:
        device.run("test", "-s", re.sub("^file://", "", document))


def test_it_keeps_few_rights(device):
    status = device.run("cat", f"/proc/{device.daemon()}/status").stdout
    chown, dac_override, fowner, sys_nice = 0, 1, 3, 23

    bounding = int(re.search(r"CapBnd:\s*(\w+)", status).group(1), 16)

    assert bounding == 1 << chown | 1 << dac_override | 1 << fowner | 1 << sys_nice
    assert "NoNewPrivs:\t1" in status
    assert "hidepid" in device.in_the_service("grep", " /proc ", "/proc/self/mountinfo").stdout
    # Tenths of systemd's own scale, on which 4.0 is where a service begins to count as exposed.
    device.run("systemd-analyze", "security", "--threshold=40", "--no-pager", "zol.service")
