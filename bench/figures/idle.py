"""What the running daemon costs while nothing happens, and what policies add to its memory."""
import pathlib
import time

from device import document, new_machine, running, service_pid
from results import row

IDLE = "idle"
MEMORY = "memory"

PAIRING = '<monitor kind="3" name="remote" method="31" duration="10" repetition="5"/>'
SETTLED = 5  # seconds after which what a start leaves to be done is done
INSTALLS = 100
ITEMS = 10000


def install(number):
    return f'<monitor kind="1" id="org.kaldo.example{number}" name="x" method="11" duration="60" repetition="3"/>'


def threads(pid):
    """By thread, its name with its id behind: times it has stopped running, and milliseconds it has run."""
    found = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        lines = (task / "status").read_text().splitlines()
        stops = sum(int(line.split()[1]) for line in lines if "ctxt_switches" in line)
        ran = int((task / "schedstat").read_text().split()[0]) / 1e6
        found[(task / "comm").read_text().strip() + " " + task.name] = (stops, ran)
    return found


def memory(pid):
    """KiB by the kernel's names, and the largest that was ever resident."""
    found = {}
    for file in ("smaps_rollup", "status"):
        for line in pathlib.Path(f"/proc/{pid}/{file}").read_text().splitlines():
            words = line.split()
            if words[0] in ("Rss:", "Pss:", "Private_Dirty:", "VmHWM:"):
                found[words[0].rstrip(":")] = int(words[1])
    return found


def passing(pids, seconds):
    """By process what its threads did meanwhile."""
    before = {pid: threads(pid) for pid in pids}
    time.sleep(seconds)
    return {pid: {name: (stops - before[pid].get(name, (0, 0))[0], ran - before[pid].get(name, (0, 0))[1])
                  for name, (stops, ran) in threads(pid).items()} for pid in pids}


def rows_of(group, who, seconds, did, holds):
    """Rows of a process: what its threads did, what it holds in memory."""
    awake = ", ".join(f"{name.rsplit(' ', 1)[0]} {stops}" for name, (stops, _) in sorted(did.items()) if stops)
    rows = [row(group, f"{who}: wake-ups in {seconds} s, {len(did)} threads", "", [sum(one[0] for one in did.values())],
                note=f"by thread: {awake}" if awake else ""),
            row(group, f"{who}: processor time in {seconds} s", "ms", [sum(one[1] for one in did.values())])]
    return rows + [row(group, f"{who}: {name}", "KiB", [holds[name]]) for name in ("Rss", "Pss", "Private_Dirty")]


def idle(effort):
    """With every task up: rules, both kinds of monitors, the recorder of debug images."""
    with new_machine() as machine:
        machine.path("/etc/debug").write_text("")
        with running(machine, document(1, PAIRING, install(0))) as (daemon, client):
            client.close()
            time.sleep(SETTLED)
            pids = {"daemon, all tasks up": daemon.pid(), "key service": service_pid(machine)}
            did = passing(pids.values(), effort.idle)
            return [one for who, pid in pids.items() for one in rows_of(IDLE, who, effort.idle, did[pid], memory(pid))]


def held_with(text):
    """Memory and number of threads of a daemon with a policy, and its peak from the start to then."""
    with new_machine() as machine, running(machine, text) as (daemon, _):
        time.sleep(SETTLED)
        return dict(memory(daemon.pid()), threads=len(threads(daemon.pid())))


def policies_in_memory(effort):
    repetitions = range(effort.repetitions)
    one = [held_with(document(1)) for _ in repetitions]
    many = [held_with(document(ITEMS)) for _ in repetitions]
    installs = [held_with(document(1, *map(install, range(INSTALLS)))) for _ in repetitions]

    def more(with_it, name, share=1):
        return [(after[name] - before[name]) / share for before, after in zip(one, with_it)]
    what = f"policy of {ITEMS:,} rules instead of 1"
    return [row(MEMORY, f"{what}: Pss more while it runs", "KiB", more(many, "Pss")),
            row(MEMORY, f"{what}: Private_Dirty more while it runs", "KiB", more(many, "Private_Dirty")),
            row(MEMORY, f"{what}: more at the peak (VmHWM)", "KiB", more(many, "VmHWM")),
            row(MEMORY, f"each of {INSTALLS} install items: Pss", "KiB", more(installs, "Pss", INSTALLS)),
            row(MEMORY, f"each of {INSTALLS} install items: threads", "", more(installs, "threads", INSTALLS))]
