"""The Debian packages: what is in them, and what installing, upgrading and purging them does to a machine."""
import contextlib
import os
import re
import subprocess

import pytest

from conftest import BUILD, TOP, booted_machine, wait_for
from test_service import HANDOVER_KEY, KEY, POLICY, zolctl

NAMES = ("zol", "zol-collector", "zol-tools")
NEXT = "99.0"
SPOOL = "/var/lib/zol-collector"
# What a purge leaves. The accounts stay, as Debian leaves them; the rest is the package manager's and the journal's.
LEFT = re.compile(r"/etc/((passwd|group|shadow|gshadow)-?|\.pwd\.lock) |/var/cache/(apt|debconf)/|"
                  r"/var/lib/(apt/|dpkg/[^/]+ )|/var/log/(apt/|journal/|dpkg\.log )")


@pytest.fixture(scope="session")
def packages(tmp_path_factory):
    """A folder with the packages of this version, and with those of another one in `next`."""
    folder = tmp_path_factory.mktemp("packages")
    for options in (["--output", folder], ["--output", folder / "next", "--version", NEXT]):
        subprocess.run([TOP / "scripts/package", "--no-lintian", *options], check=True, stdout=subprocess.DEVNULL)
    return folder


@pytest.fixture
def machine_with(packages):
    """Boots a machine and installs packages on it."""
    with contextlib.ExitStack() as booted:
        def boot(*names):
            device = booted.enter_context(booted_machine(lambda device: bring(device, packages)))
            device.before = paths(device)
            install(device, "/root/packages", *names)
            return device

        yield boot


@pytest.fixture(scope="module")
def machine(packages):
    """One with all packages."""
    with booted_machine(lambda device: bring(device, packages)) as device:
        install(device, "/root/packages", *NAMES)
        device.run("useradd", "--system", "--groups", "zol", "member")
        yield device


def bring(device, packages):
    for folder in (".", "next"):
        target = device.folder / "upper/root/packages" / folder
        target.mkdir(parents=True)
        for deb in (packages / folder).glob("*.deb"):
            (target / deb.name).write_bytes(deb.read_bytes())


def install(device, folder, *names):
    device.run("sh", "-c", "apt-get install -y --no-install-recommends " +
               " ".join(f"{folder}/{name}_*.deb" for name in names))


def paths(device):
    """Every path of a machine's disk, and what is there of the project in its memory."""
    disk = device.run("find", "/", "-xdev", "-printf", "%p %y\n").stdout.splitlines()
    memory = device.run("find", "/run", "-path", "*zol*", "-printf", "%p %y\n", check=False).stdout.splitlines()
    return {path for path in disk + memory if not LEFT.match(path)}


def property_of(device, unit, name):
    return device.run("systemctl", "show", unit, "--value", "-p", name).stdout.strip()


def push(device):
    device.wait_until_serving()
    zolctl(device, "policy", "push", "-", stdin=POLICY)


def hit(device):
    """Sets the key of the policy to what it must not be."""
    for value in ("1", "3"):
        zolctl(device, "vconf", "set", KEY, value, "--type", "int")


def taken(device):
    """Names of the reports in the collector's spool."""
    return device.run("find", f"{SPOOL}/reports", "-mindepth", "2", "-maxdepth", "2", check=False).stdout.split()


def contents(packages):
    """Every file of the packages, at the place where `cmake --install` has it."""
    listed = []
    for name in NAMES:
        deb, = packages.glob(f"{name}_*.deb")
        told = subprocess.run(["dpkg-deb", "--contents", deb], capture_output=True, text=True, check=True).stdout
        listed += [line.split()[5][1:] for line in told.splitlines() if not line.startswith("d")]
    own = re.compile(r"/usr/share/(doc/zol[^/]*/(copyright|changelog\.gz)|lintian/.*)")
    return [re.sub(r"^/lib/|^(/usr/share/man/.*)\.gz$", lambda match: match.group(1) or "/usr/lib/", path)
            for path in listed if not own.fullmatch(path)]


def test_each_installed_file_is_in_one_package(packages, tmp_path):
    subprocess.run(["cmake", "--install", BUILD, "--prefix", "/usr"], env={**os.environ, "DESTDIR": str(tmp_path)},
                   check=True, stdout=subprocess.DEVNULL)
    installed = [f"/{path.relative_to(tmp_path)}" for path in tmp_path.rglob("*") if not path.is_dir()]
    installed.remove("/usr/share/doc/zol/LICENSE")  # a package has its copyright file

    assert sorted(contents(packages)) == sorted(installed)


def test_lintian_finds_no_error(packages):
    told = subprocess.run(["lintian", "--allow-root", "--fail-on", "error", *packages.glob("*.changes")],
                          capture_output=True, text=True, check=False)

    assert told.returncode == 0, told.stdout + told.stderr


def test_the_version_is_that_of_the_programs(packages):
    project = re.search(r"^project\(zol VERSION (\S+)", (TOP / "CMakeLists.txt").read_text(), re.M).group(1)

    assert [deb.name.split("_")[1] for deb in packages.glob("*.deb")] == [project] * len(NAMES)


def test_services_run_once_they_are_installed_but_for_the_collector(machine):
    units = ("zol.service", "zol-vconf.socket", "zol-collector.service")

    machine.wait_until_serving()
    states = [tuple(property_of(machine, unit, name) for name in ("ActiveState", "UnitFileState")) for unit in units]

    assert states == [("active", "enabled"), ("active", "enabled"), ("inactive", "disabled")]
    assert machine.run("id", "-Gn", "zol-collector").stdout.split() == ["zol-collector", "zol"]
    assert machine.run("find", "/var/lib/zol/device", "-type", "f").stdout.count("\n") == 3


def test_a_member_pushes_and_the_collector_takes_the_report(machine):
    machine.wait_until_serving()
    zolctl(machine, "policy", "push", "-", user="member", stdin=POLICY)
    machine.run("systemctl", "enable", "--now", "zol-collector")
    before = taken(machine)

    zolctl(machine, "vconf", "set", KEY, "1", "--type", "int", user="member")
    zolctl(machine, "vconf", "set", KEY, "3", user="member")

    wait_for(lambda: set(taken(machine)) - set(before), "the report in the spool")
    wait_for(lambda: zolctl(machine, "vconf", "get", HANDOVER_KEY).stdout == "\n", "an empty key")
    assert machine.modes(SPOOL) == [f"700 zol-collector zol-collector {SPOOL}"]


def test_the_policy_is_applied_again_after_a_crash(machine):
    push(machine)
    before = machine.daemon()

    machine.run("kill", "-KILL", before)

    wait_for(lambda: machine.daemon() not in (None, before), "the next daemon")
    wait_for(lambda: machine.show("StatusText") == "1 rules watched, 0 dropped", "the policy")


def test_an_upgrade_keeps_policy_and_keys_and_restarts_what_runs(machine_with):
    device = machine_with(*NAMES)
    push(device)
    device.run("systemctl", "enable", "--now", "zol-collector")
    zolctl(device, "vconf", "set", "memory/kept", "1", "--type", "int")
    services = ("zol", "zol-vconf", "zol-collector")
    before = [property_of(device, unit, "MainPID") for unit in services]
    policy = device.run("cat", "/var/lib/zol/policy.xml").stdout

    install(device, "/root/packages/next", *NAMES)

    assert device.run("dpkg-query", "-W", "-f", "${Version} ", *NAMES).stdout == f"{NEXT} " * len(NAMES)
    after = [property_of(device, unit, "MainPID") for unit in services]
    assert "0" not in after and not set(after) & set(before)
    device.wait_until_serving()
    assert device.show("StatusText") == "1 rules watched, 0 dropped"
    assert device.run("cat", "/var/lib/zol/policy.xml").stdout == policy
    assert zolctl(device, "vconf", "get", "memory/kept").stdout == "1\n"
    hit(device)
    wait_for(lambda: taken(device), "a report in the spool")


def test_a_purge_leaves_nothing(machine_with):
    device = machine_with(*NAMES)
    push(device)
    device.run("mkdir", "-p", "/etc/zol")
    device.run("tee", "/etc/zol/collector.conf", stdin="max-reports=10\n")
    device.run("systemctl", "enable", "--now", "zol-collector")
    hit(device)
    wait_for(lambda: taken(device), "a report in the spool")

    device.run("apt-get", "purge", "-y", *NAMES)

    assert sorted(paths(device) - device.before) == []
    assert device.run("pgrep", "-l", "zol", check=False).stdout == ""


def test_the_tools_alone_check_and_play_policies(machine_with):
    device = machine_with("zol-tools")
    examples = "/usr/share/doc/zol/examples"

    zolctl(device, "policy", "check", "--strict", f"{examples}/policy.xml")
    played = zolctl(device, "policy", "test", f"{examples}/scenarios/key.yaml", f"{examples}/scenarios/remote.yaml")

    assert " 0 failed" in played.stdout
    assert "zol" not in device.run("cat", "/etc/group").stdout
    assert device.run("find", "/lib/systemd", "/usr/lib/systemd", "-name", "zol*").stdout == ""


def test_a_collector_of_ones_own_needs_none_of_ours(machine_with):
    device = machine_with("zol")

    device.wait_until_serving()

    assert re.findall(r"^zol.*?(?=:)", device.run("cat", "/etc/passwd").stdout, re.M) == ["zol-vconf"]
