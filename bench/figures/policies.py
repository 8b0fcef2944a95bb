"""Policies by their size: parsing, checking, applying, and how that grows."""
import math
import statistics

import programs
from device import new_machine, document, running
from results import row

GROUP = "policy"
SIZES = (10, 1000, 20000)


def exponent(smaller, larger):
    """How the time grows from the second size to the third: 1 is in step with the size."""
    return math.log(statistics.median(larger) / statistics.median(smaller)) / math.log(SIZES[2] / SIZES[1])


def grown(what, by_size, peers):
    """Rows in milliseconds by size, and that of the growth. @param peers samples by size, under their names"""
    rows = [row(GROUP, f"{what}, {size:,} items", "ms", by_size[size],
                peers=[(name, theirs[size]) for name, theirs in peers.items()]) for size in SIZES]
    growth = exponent(by_size[SIZES[1]], by_size[SIZES[2]])
    return [*rows, row(GROUP, f"{what}, growth exponent from 1,000 to 20,000", "", [growth], is_compared=False,
                       peers=[(name, [exponent(theirs[SIZES[1]], theirs[SIZES[2]])])
                              for name, theirs in peers.items()])]


def applied(size):
    """Milliseconds of a SetPolicy to a daemon without a policy."""
    with new_machine() as machine, running(machine) as (_, client):
        return client.push(document(size), "running") / 1000


def policies(effort):
    samples = programs.google("bench_parse", effort)

    def by_size(name):
        return {size: [taken / 1e6 for taken in samples[f"{name}/{size}"]] for size in SIZES}
    expat = {"bare expat": by_size("BareExpat")}
    rows = grown("parsed, processor time", by_size("PolicyParser"), expat)
    rows += grown("parsed with the debug channel on, as the daemon has it, processor time",
                  by_size("PolicyParserWithDebugChannel"), expat)
    rows += grown("checked, one item in ten wrong, processor time", by_size("PolicyCheck"), expat)
    applying = {size: [applied(size) for _ in range(effort.repetitions)] for size in SIZES}
    return rows + grown("SetPolicy to running: parsed, stored, watched", applying, {})
