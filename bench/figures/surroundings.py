"""The machine that measures."""
import os
import pathlib
import platform
import re
import subprocess

# Running programs beside the bench, as a share of the processors, from which figures are worth little.
LOADED = 0.25


def processor():
    text = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    found = re.search(r"^(?:model name|Hardware|Processor)\s*: (.*)$", text, re.MULTILINE)
    return found[1] if found else platform.machine()


def file_system(folder):
    found = subprocess.run(["stat", "--file-system", "--format=%T", folder], capture_output=True, text=True, check=True)
    return found.stdout.strip()


def describe():
    """What a reader of the figures wants to know."""
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    return {"processor": processor(), "cores": os.cpu_count(), "memory GiB": round(memory, 1),
            "kernel": platform.release(), "file system of /tmp": file_system("/tmp"),
            "load at the start": round(os.getloadavg()[0], 2)}


def warning(machine):
    """A sentence when the machine is too busy to measure on it; else None."""
    load = machine["load at the start"]
    if load <= LOADED * machine["cores"]:
        return None
    return f"other programs run (load {load} on {machine['cores']} cores): these figures are not to be quoted"
