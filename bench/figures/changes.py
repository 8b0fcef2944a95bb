"""From a key's change to the decision and to the published report, by clients that stay."""
import floor
import programs
from device import HIT, KEY, document, new_machine, running
from results import percentile, row

GROUP = "changes"
RULES = (1, 100, 1000, 20000)
ITEMS = (1, 10000)


def counted(number, what):
    return f"{number:,} {what}{'' if number == 1 else 's'}"


def decisions(effort):
    """Until the checker has told the thread that reports."""
    cases = {}
    for rules in RULES:
        cases.update(programs.sampled("bench_decision", effort, effort.rounds, rules))
    first = cases["decision/1"]
    return [row(GROUP, f"memory key set to its rule judged and the hit handed on, {counted(rules, 'rule')}", "us",
                case[0], p99=programs.p99_of(case), peers=[("1 rule", first[0])] if rules > 1 else [])
            for rules in RULES for case in [cases[f"decision/{rules}"]]]


def published(machine, client):
    """A hit whose path is published and stays."""
    client.ask("set", 1, KEY, HIT)
    machine.published()


def paths(effort):
    """Until the published path is notified; and in turn with it, the same writes alone."""
    rows = []
    for items in ITEMS:
        with new_machine() as machine, running(machine, document(items)) as (daemon, client):
            client.ask("hit", 1, KEY, HIT)  # makes the files that every other one finds
            writes = floor.record(machine, daemon, lambda machine=machine, client=client: published(machine, client))
            client.ask("take", 1)
            times, alone = [], []
            for _ in range(effort.rounds):
                times += [taken / 1000 for taken in client.times("hit", 1, KEY, HIT)]
                alone.append(floor.replay(machine, writes))
        syncs = sum(write.is_sync() for write in writes)
        rows.append(row(GROUP, f"durable key set to path published, {counted(items, 'item')}", "ms", times,
                        p99=percentile(times, 0.99),
                        peers=[(f"its {len(writes)} writes, {syncs} of them syncs, alone", alone)]))
    return rows


def changes(effort):
    return decisions(effort) + paths(effort)
