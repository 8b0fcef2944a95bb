"""The virtual machine's kernel and disk: a Debian 12 with the installed programs of a build.

Everything lies in build/vm and is made again when what it is made of has changed. Needs root; packages come from the
mirror that this machine uses itself.
"""
import gzip
import hashlib
import os
import pathlib
import shutil
import subprocess

TOP = pathlib.Path(__file__).resolve().parents[2]
FOLDER = TOP / "build" / "vm"
BUILD = pathlib.Path(os.environ.get("ZOL_BUILD_DIR", TOP / "build" / "release"))
HERE = pathlib.Path(__file__).resolve().parent
SUBSCRIBER = TOP / "tests" / "e2e" / "subscriber.py"
DISK_MIB = 512

RUNNING = [line for line in (TOP / "tests" / "image-packages").read_text().splitlines() if not line.startswith("#")]
PACKAGES = [*RUNNING, "e2fsprogs", "e2fsck-static", "python3", "busybox-static", "python3-dbus", "python3-gi"]
KERNEL_PACKAGE = "linux-image-cloud-amd64"

# Loaded by the initial root in this order: the ports to the agent and, last of all, the disk.
MODULES = ["virtio/virtio_ring", "virtio/virtio", "virtio/virtio_pci_legacy_dev", "virtio/virtio_pci_modern_dev",
           "virtio/virtio_pci", "char/virtio_console", "block/virtio_blk"]

# Waits before it sees the disk, so that the kernel's own start can be kept and resumed for each boot; what it is told
# then is the time, in seconds since 1970. A cut that tears the block which ends a transaction of the file system's
# journal leaves one that the kernel does not read; e2fsck drops that transaction, of which nothing was promised yet.
INIT = """#!/bin/busybox sh
for module in {modules}; do /bin/busybox insmod /modules/$module.ko; done
/bin/busybox mount -t devtmpfs dev /dev
exec 3<>/dev/vport1p5
echo ready >&3
read -r now <&3
exec 3>&-
/bin/busybox date -s "@$now" >/dev/null
/bin/busybox insmod /modules/{disk}.ko
/bin/busybox mount -t ext4 -o ro /dev/vda /root || {{
    /bin/e2fsck.static -y /dev/vda
    echo "{torn}" >/dev/kmsg
    /bin/busybox mount -t ext4 -o ro /dev/vda /root
}}
/bin/busybox mount -t devtmpfs dev /root/dev
exec /bin/busybox switch_root /root /lib/systemd/systemd
"""

# A line of the kernel's log.
TORN_JOURNAL = "the file system's journal was torn: e2fsck has run"

# What a boot does not need here, for its time: an emulated processor takes seconds for it.
MASKED = ["systemd-binfmt.service", "systemd-firstboot.service", "systemd-journal-flush.service",
          "systemd-machine-id-commit.service", "systemd-modules-load.service", "systemd-pcrphase-sysinit.service",
          "systemd-pcrphase.service", "systemd-random-seed.service", "systemd-repart.service",
          "systemd-sysusers.service", "systemd-update-utmp.service", "systemd-update-utmp-runlevel.service",
          "systemd-pstore.service", "systemd-ask-password-console.path", "systemd-ask-password-wall.path",
          "e2scrub_reap.service", "kmod-static-nodes.service", "systemd-sysctl.service", "dev-hugepages.mount",
          "dev-mqueue.mount", "proc-sys-fs-binfmt_misc.automount", "sys-fs-fuse-connections.mount",
          "sys-kernel-config.mount", "sys-kernel-debug.mount", "sys-kernel-tracing.mount", "getty.target",
          "apt-daily.timer", "apt-daily-upgrade.timer", "dpkg-db-backup.timer", "e2scrub_all.timer", "fstrim.timer",
          "systemd-tmpfiles-setup-dev.service", "systemd-user-sessions.service", "modprobe@drm.service",
          "systemd-fsckd.socket"]
GENERATORS = ["cryptsetup", "getty", "gpt-auto", "hibernate-resume", "integritysetup", "rc-local", "run",
              "system-update", "sysv", "veritysetup"]

AGENT_UNIT = """[Unit]
Description=Runs the commands of the trials
[Service]
ExecStart=/usr/bin/python3 -I -S /usr/local/lib/zol-vm/agent.py
[Install]
WantedBy=multi-user.target
"""


def run(*command, **options):
    """Runs a command; its output is shown only when it fails."""
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}: status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def stamped(stamp, content, make):
    """Calls make() unless the stamp file holds that content."""
    if not stamp.exists() or stamp.read_text() != content:
        stamp.unlink(missing_ok=True)
        make()
        stamp.write_text(content)


def mirror():
    found = run("bash", "-c", f"source {TOP}/scripts/lib.sh; debian_mirror").strip()
    if not found:
        raise RuntimeError("no Debian 12 mirror in this machine's apt sources; run scripts/setup first")
    return found


def make_root(root):
    """The minimal Debian, with nothing of this project."""
    shutil.rmtree(root, ignore_errors=True)
    without = [f"--dpkgopt=path-exclude=/usr/share/{name}/*" for name in ("doc", "locale", "man")]
    run("mmdebstrap", "--variant=minbase", f"--include={','.join(PACKAGES)}", *without, "bookworm", root,
        f"deb {mirror()} bookworm main")


def make_kernel(folder):
    """Leaves folder/vmlinux, which needs no unpacking at each boot, and folder/initrd."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    depends = run("apt-cache", "depends", KERNEL_PACKAGE)
    package = next(line.split()[1] for line in depends.splitlines() if "Depends: linux-image-" in line)
    run("apt-get", "download", package, cwd=folder)
    run("dpkg-deb", "-x", next(folder.glob("*.deb")), folder / "package")
    packed = next((folder / "package/boot").glob("vmlinuz-*")).read_bytes()
    # The image carries the kernel as an LZ4 stream of the older format behind its own code.
    unpacked = subprocess.run(["lz4", "-dc"], input=packed[packed.index(b"\x02\x21\x4c\x18"):], capture_output=True,
                              check=False)
    if not unpacked.stdout.startswith(b"\x7fELF"):
        raise RuntimeError(f"cannot unpack the kernel of {package}: {unpacked.stderr.decode()}")
    (folder / "vmlinux").write_bytes(unpacked.stdout)
    make_initrd(folder)


def make_initrd(folder):
    tree = folder / "initrd.tree"
    for name in ("bin", "dev", "modules", "root"):
        (tree / name).mkdir(parents=True)
    for program in ("bin/busybox", "sbin/e2fsck.static"):
        shutil.copy(FOLDER / "root" / program, tree / "bin")
    drivers = next((folder / "package/lib/modules").iterdir()) / "kernel/drivers"
    for module in MODULES:
        shutil.copy(drivers / f"{module}.ko", tree / "modules")
    init = tree / "init"
    names = [os.path.basename(module) for module in MODULES]
    init.write_text(INIT.format(modules=" ".join(names[:-1]), disk=names[-1], torn=TORN_JOURNAL))
    init.chmod(0o755)
    names = "\n".join(str(path.relative_to(tree)) for path in sorted(tree.rglob("*")))
    archive = subprocess.run(["cpio", "-o", "-H", "newc", "--quiet"], input=names.encode(), cwd=tree,
                             capture_output=True, check=True).stdout
    (folder / "initrd").write_bytes(gzip.compress(archive, 1))


def install(tree):
    """The programs of the build, the accounts of the trials and their agent."""
    run("cmake", "--install", BUILD, env=dict(os.environ, DESTDIR=str(tree)))
    run("chroot", tree, "systemd-sysusers")
    run("chroot", tree, "useradd", "--system", "--user-group", "--groups", "zol", "member")
    run("chroot", tree, "useradd", "--system", "--user-group", "stranger")
    agent = tree / "usr/local/lib/zol-vm"
    agent.mkdir(parents=True)
    for helper in (HERE / "agent.py", SUBSCRIBER, BUILD / "bin/clock_probe"):
        shutil.copy(helper, agent)
    run("cc", "-shared", "-fPIC", "-o", agent / "no_sync.so", HERE / "no_sync.c")
    etc = tree / "etc"
    (etc / "systemd/system/zol-vm-agent.service").write_text(AGENT_UNIT)
    (etc / "fstab").write_text("/dev/vda / ext4 errors=remount-ro 0 1\n")
    (etc / "hostname").write_text("television\n")
    (etc / "machine-id").write_text(hashlib.md5(b"television").hexdigest() + "\n")
    (etc / "systemd/journald.conf").write_text("[Journal]\nStorage=volatile\n")
    # Debian empties /tmp at each boot. Here the reports lie on the disk, so that a cut is seen there, too.
    (etc / "tmpfiles.d/tmp.conf").write_text("d /tmp 1777 root root -\n")
    run("chroot", tree, "systemctl", "mask", *MASKED)
    (etc / "systemd/system-generators").mkdir()
    for name in GENERATORS:
        (etc / f"systemd/system-generators/systemd-{name}-generator").symlink_to("/dev/null")
    run("chroot", tree, "systemctl", "enable", "zol", "zol-vconf.socket", "zol-vm-agent")


def make_disk(disk):
    tree = FOLDER / "tree"
    shutil.rmtree(tree, ignore_errors=True)
    run("cp", "-a", "--reflink=auto", FOLDER / "root", tree)
    install(tree)
    disk.unlink(missing_ok=True)
    run("mke2fs", "-q", "-t", "ext4", "-d", tree, disk, f"{DISK_MIB}M")
    shutil.rmtree(tree)


def built():
    """A digest of what a disk is made of: the installed programs, the packaging and these scripts."""
    digest = hashlib.sha256()
    programs = [BUILD / "bin" / name for name in ("zol_daemon", "zol_vconfd", "zolctl", "clock_probe")]
    packaging = sorted(path for path in (TOP / "packaging").rglob("*") if path.is_file())
    for path in [*programs, *packaging, HERE / "agent.py", HERE / "no_sync.c", HERE / "image.py", SUBSCRIBER]:
        digest.update(path.read_bytes())
    return digest.hexdigest()


def prepare(anew=False):
    """Makes what is missing or out of date. @return the disk, the kernel, the initial root"""
    if anew:
        shutil.rmtree(FOLDER, ignore_errors=True)
    FOLDER.mkdir(parents=True, exist_ok=True)
    root, kernel, disk = FOLDER / "root", FOLDER / "kernel", FOLDER / "disk"
    stamped(FOLDER / "root.stamp", " ".join(PACKAGES), lambda: make_root(root))
    stamped(FOLDER / "kernel.stamp", " ".join([KERNEL_PACKAGE, *MODULES, INIT]), lambda: make_kernel(kernel))
    stamped(FOLDER / "disk.stamp", built(), lambda: make_disk(disk))
    return disk, kernel / "vmlinux", kernel / "initrd"


def started():
    """Where the started kernel is kept (Machine.boot_kept). Whoever changes how it is started changes the name."""
    digest = hashlib.sha256((HERE / "machine.py").read_bytes() + (FOLDER / "kernel/initrd").read_bytes()).hexdigest()
    return FOLDER / "kernel" / f"started-{digest[:16]}"
