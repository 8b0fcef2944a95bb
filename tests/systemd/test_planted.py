"""What a stranger can put in the way of the daemon, which is root: it is not followed, and holds nothing up."""
import os
import socket

import pytest

from accounts import act_as
from test_access import to_daemon
from test_service import HANDOVER_KEY, wait_for, zolctl

KEYS = [f"db/plant/{number}" for number in range(8)]
POLICY = (f'<zolitem numofzol="{len(KEYS)}"><zol_expired_time time="2592000"/>'
          + "".join(f'<zols key="{key}" condition="IS" type="INT" intvalue="3"/>' for key in KEYS) + "</zolitem>")
REFUSED = 'refusing folder /tmp/zol/'
PRECIOUS = "/var/lib/zol"


def foreign_folder():
    os.umask(0)
    os.mkdir("zol", 0o777)


def link_to_own_folder():
    os.mkdir("mine")
    os.symlink("/tmp/mine", "zol")


def unix_socket():
    socket.socket(socket.AF_UNIX).bind("zol")


PLANTS = {
    "a link to a folder of its own": link_to_own_folder,
    "a link to a folder of the daemon": lambda: os.symlink(PRECIOUS, "zol"),
    "a link to nothing": lambda: os.symlink("/var/lib/zol/reports", "zol"),
    "a pipe": lambda: os.mkfifo("zol"),
    "a socket": unix_socket,
    "a file": lambda: os.close(os.open("zol", os.O_CREAT)),
    "a folder of its own": foreign_folder,
}


@pytest.fixture(scope="module")
def machine(shared_device):
    zolctl(shared_device, "policy", "push", "-", stdin=POLICY)
    return shared_device


def refusals(machine):
    return machine.run("journalctl", "-q", "-o", "cat", "-t", "ZOLMAKER").stdout.count(REFUSED)


def hit(machine, number):
    zolctl(machine, "vconf", "set", KEYS[number], "3", "--type", "int")


@pytest.mark.parametrize("what", PLANTS)
def test_in_place_of_the_report_root(machine, what):
    before = refusals(machine), machine.run("find", PRECIOUS, "-type", "d").stdout
    machine.run("rm", "-rf", "/tmp/zol", "/tmp/mine")
    act_as(machine, "stranger", "/tmp", PLANTS[what])
    planted = machine.run("stat", "--format=%F %U", "/tmp/zol").stdout

    hit(machine, list(PLANTS).index(what))

    wait_for(lambda: refusals(machine) > before[0], "the line that says so")
    machine.run(*to_daemon("org.zol.Native1.Call", "99", "@ay []"))
    assert machine.run("stat", "--format=%F %U", "/tmp/zol").stdout == planted
    assert machine.run("find", "/tmp/zol", "/tmp/mine", "-mindepth", "1", check=False).stdout == ""
    assert machine.run("find", PRECIOUS, "-type", "d").stdout == before[1]


def test_removed_again_lets_the_next_report_out(machine):
    machine.run("rm", "-rf", "/tmp/zol", "/tmp/mine")
    machine.run("systemd-tmpfiles", "--create", "zol.conf")
    zolctl(machine, "vconf", "set", HANDOVER_KEY, "", "--type", "string")

    hit(machine, len(PLANTS))

    report = wait_for(lambda: zolctl(machine, "vconf", "get", HANDOVER_KEY).stdout.strip(), "a published path")
    assert machine.run("stat", "--format=%U", report).stdout == "root\n"
