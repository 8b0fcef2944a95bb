"""The collector's unit: takes a hit under an account of its own, and may little else."""
import re
import subprocess

import pytest

from test_service import HANDOVER_KEY, KEY, POLICY, wait_for, zolctl

SPOOL = "/var/lib/zol-collector"


@pytest.fixture(scope="module")
def machine(shared_device):
    """One whose collector has taken the report of a hit; the attribute `report` is the report's path."""
    shared_device.run("systemctl", "start", "zol-collector")
    zolctl(shared_device, "policy", "push", "-", user="member", stdin=POLICY)
    zolctl(shared_device, "vconf", "set", KEY, "3", "--type", "int", user="member")
    shared_device.report = wait_for(
        lambda: re.search(r"taken: (\S+)", shared_device.run("journalctl", "-q", "-o", "cat", "-u",
                                                             "zol-collector").stdout), "a report").group(1)
    return shared_device


def collector(machine):
    return machine.run("systemctl", "show", "zol-collector", "--value", "-p", "MainPID").stdout.strip()


def test_a_hit_is_collected_by_an_account_of_its_own(machine):
    wait_for(lambda: zolctl(machine, "vconf", "get", HANDOVER_KEY).stdout == "\n", "an empty key")

    found = machine.run("find", f"{SPOOL}/reports", "-name", "header.json").stdout.splitlines()
    status = machine.run("cat", f"/proc/{collector(machine)}/status").stdout
    account = machine.run("id", "-u", "zol-collector").stdout.strip()

    assert len(found) == 1 and machine.report.rsplit("_", 1)[1] in found[0]
    assert re.search(rf"Uid:\t{account}\t{account}\t{account}\t{account}\n", status)
    assert re.search(r"CapBnd:\t0+\n", status) and "NoNewPrivs:\t1" in status
    # The report itself stays: it belongs to root.
    machine.run("test", "-e", f"/tmp/zol/{found[0].rsplit('/', 2)[1]}/header.json")


def test_the_spool_is_nobody_elses(machine):
    assert machine.modes(SPOOL) == [f"700 zol-collector zol-collector {SPOOL}"]
    for user in ("member", "stranger"):
        assert machine.run("ls", SPOOL, user=user, check=False).returncode == 2
    machine.run("/usr/libexec/zol/zol_collector", "--status", "--json")


def test_it_may_write_nothing_else(machine):
    def can_write(path):
        return machine.run("nsenter", "--mount", "--target", collector(machine), "--setuid",
                           machine.run("id", "-u", "zol-collector").stdout.strip(), "--", "sh", "-c",
                           f"exec 3<>{path}", check=False).returncode == 0

    assert can_write(f"{SPOOL}/x")
    for path in ("/tmp/x", "/tmp/zol/x", "/var/lib/zol/x", "/run/zol/x", "/etc/x", "/var/tmp/x"):
        assert not can_write(path), path
    machine.run("rm", f"{SPOOL}/x")
    # Tenths of systemd's own scale: it needs a network, and little else.
    machine.run("systemd-analyze", "security", "--threshold=25", "--no-pager", "zol-collector.service")


def test_the_doctor_looks_at_the_units_that_are_wanted(machine):
    def units():
        lines = zolctl(machine, "doctor", check=False).stdout.splitlines()
        return [line for line in lines if line.split("\t")[1].startswith("zol")]

    served = ["ok\tzol.service\tis active", "ok\tzol-vconf.socket\tis active"]
    assert units() == served
    machine.run("systemctl", "enable", "zol-collector")
    assert units() == [*served, "ok\tzol-collector.service\tis active"]
    machine.run("systemctl", "stop", "zol-collector")
    assert units() == [*served, "wrong\tzol-collector.service\tis not active; systemctl enable --now "
                       "zol-collector.service"]
    machine.run("systemctl", "disable", "zol-collector")
    machine.run("systemctl", "start", "zol-collector")


def test_it_comes_back_and_takes_nothing_twice(machine):
    before = collector(machine)
    machine.run("mkdir", "-p", "/run/systemd/system/zol-collector.service.d")
    machine.run("tee", "/run/systemd/system/zol-collector.service.d/quick.conf", stdin="[Service]\nRestartSec=10ms\n")
    machine.run("systemctl", "daemon-reload")
    machine.run("kill", "-KILL", before)
    wait_for(lambda: collector(machine) not in ("0", before), "the next collector")

    zolctl(machine, "vconf", "set", HANDOVER_KEY, machine.report, "--type", "string")
    wait_for(lambda: zolctl(machine, "vconf", "get", HANDOVER_KEY).stdout == "\n", "an empty key")

    assert len(machine.run("ls", f"{SPOOL}/reports").stdout.split()) == 1


# Takes one POST and prints its address and whether it brought a header.
SERVER = """
import http.server
class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.send_response(200)
        self.end_headers()
        print(self.path, b'"category" : "ZOL"' in body, flush=True)
    def log_message(self, *words):
        pass
http.server.HTTPServer(("127.0.0.1", 8080), Handler).handle_request()
"""


def test_it_uploads_with_the_rights_that_it_has(machine):
    server = subprocess.Popen(["nsenter", "--net", "--target", machine.init, "--", "/usr/bin/python3", "-c", SERVER],
                              stdout=subprocess.PIPE, text=True)
    try:
        machine.run("mkdir", "-p", "/etc/zol")
        machine.run("tee", "/etc/zol/collector.conf", stdin="upload=http://127.0.0.1:8080/reports\n")
        machine.run("systemctl", "restart", "zol-collector")

        assert server.stdout.readline() == "/reports True\n"
    finally:
        server.kill()
        server.wait()
    wait_for(lambda: not machine.run("ls", f"{SPOOL}/reports").stdout, "an empty spool")
