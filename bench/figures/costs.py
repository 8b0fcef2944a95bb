"""What one piece of work costs the daemon and the key service: allocations, system calls, syncs, bytes written. Counted
with what breaks calls in tests/faults, which here breaks none."""
import pathlib
import time

from control import ALLOCATOR, NO_FAULT, TRACER, Control
from device import HIT, KEY, document, new_machine, running, service_pid
from results import row

GROUP = "costs"
ROUNDS = 10
QUIET = 0.3  # seconds without a count after which a piece of work is over
PROGRAMS = {"daemon": "zol_daemon", "key service": "zol_vconfd"}

# A piece of work: what the client is told, and a line of the daemon's log by which it is over. Nobody takes the paths of
# the hits before the last one does.
WORKS = {
    "key change without a hit": (("set", KEY), ""),
    "key change with a hit, its path waiting in line": (("set", KEY, HIT), "add current path to list"),
    "path taken, the next one published": (("take",), ""),
}


def settled(read):
    """What read() says once it says the same for a while."""
    seen, since = read(), time.monotonic()
    while time.monotonic() - since < QUIET:
        time.sleep(QUIET / 10)
        now = read()
        if now != seen:
            seen, since = now, time.monotonic()
    return seen


def counted(read, machine, client):
    """By piece of work, by name, how much of each count one of them takes."""
    client.ask("set", 1, KEY, HIT)  # its path is published while others wait
    machine.published()
    found = {}
    for work, ((command, *words), line) in WORKS.items():
        before = settled(read)
        for number in range(ROUNDS):
            client.ask(command, 1, *words)
            if line:
                machine.wait_log(line, times=number + 1)
            after = settled(read)
        found[work] = {name: (after[name] - before[name]) / ROUNDS for name in after}
    return found


def allocations(machine, program):
    """The wrapper in which a program's allocations count, and the page they count on."""
    control = Control(machine.folder / "control", NO_FAULT, [program])
    load = f'LD_PRELOAD="{ALLOCATOR}" ZOL_FAULTS_CONTROL={control.path} exec "$0" "$@"'
    return ["sh", "-c", load], control


def system_calls(machine, program):
    """The same for its system calls."""
    control = Control(machine.folder / "control", NO_FAULT, [program])
    return [TRACER, control.path, "--every-call"], control


def on_control(wrap, program, names):
    """Counts of the page that tests/faults uses. @param names of kinds: what a row calls them"""
    with new_machine() as machine:
        wrapper, control = wrap(machine, program)
        with running(machine, document(1), wrapper) as (_, client):
            control.arm()

            def read():
                counts = control.counts()
                return {name: counts[kind] for kind, name in names.items()}
            return counted(read, machine, client)


def written(pid):
    """Bytes that a process has written to files, so far."""
    return int(pathlib.Path(f"/proc/{pid}/io").read_text().split("wchar: ")[1].split()[0])


def bytes_written():
    """By program. Messages on sockets are not among them."""
    with new_machine() as machine, running(machine, document(1)) as (daemon, client):
        pids = {PROGRAMS["daemon"]: daemon.pid(), PROGRAMS["key service"]: service_pid(machine)}
        return counted(lambda: {name: written(pid) for name, pid in pids.items()}, machine, client)


def costs(effort):
    del effort  # they are counts
    by_program = {who: {} for who in PROGRAMS}
    sizes = bytes_written()
    for who, program in PROGRAMS.items():
        parts = [on_control(allocations, program, {"allocation": "heap allocations"}),
                 on_control(system_calls, program, {"any": "system calls, waits left out", "sync": "syncs"}),
                 {work: {"bytes written": of_work[program]} for work, of_work in sizes.items()}]
        by_program[who] = {work: {name: count for part in parts for name, count in part[work].items()}
                           for work in WORKS}
    return [row(GROUP, f"{work}: {name} of the daemon", "", [count], is_compared=False,
                peers=[("the key service", [by_program["key service"][work][name]])])
            for work in WORKS for name, count in by_program["daemon"][work].items()]
