"""What was measured, and how it is shown."""
import dataclasses
import json
import statistics

FEW = 10


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


@dataclasses.dataclass
class Peer:
    """The same work done by something else in the same run. Without a figure: why there is none."""

    name: str
    median: float | None
    ratio: float | None = None
    missing: str = ""

    def text(self, unit):
        if self.median is None:
            return f"{self.name}: {self.missing}"
        ratio = f"{self.ratio:.2g} x " if self.ratio is not None else ""
        return f"{ratio}{self.name} ({number(self.median)}{' ' + unit if unit else ''})"


@dataclasses.dataclass
class Row:
    """One figure: its median, how far its samples lie apart, and its peers."""

    group: str
    what: str
    unit: str
    median: float
    low: float
    high: float
    p99: float | None = None
    peers: list = dataclasses.field(default_factory=list)
    note: str = ""

    def spread(self):
        return "" if self.low == self.high else f"{number(self.low)}..{number(self.high)}"

    def beside(self):
        return ", ".join([*(peer.text(self.unit) for peer in self.peers), *([self.note] if self.note else [])])


def number(value):
    """Three digits that count, no more."""
    if value == int(value) or abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def row(group, what, unit, samples, p99=None, peers=(), note="", is_compared=True):
    """A row of samples: medians of repetitions, or single ones. Its spread is that of the middle eight tenths, or of
    all when there are few. Peers are (name, samples), or (name, why there are none)."""
    median = statistics.median(samples)
    few = len(samples) < FEW
    low, high = (min(samples), max(samples)) if few else (percentile(samples, 0.1), percentile(samples, 0.9))
    beside = []
    for name, theirs in peers:
        if isinstance(theirs, str):
            beside.append(Peer(name, None, missing=theirs))
            continue
        middle = statistics.median(theirs)
        beside.append(Peer(name, middle, median / middle if is_compared and middle else None))
    return Row(group, what, unit, median, low, high, p99, beside, note)


def table(rows):
    """Lines of a table for a terminal, a head before each group."""
    lines = []
    width = max((len(one.what) for one in rows), default=0)
    for place, one in enumerate(rows):
        if place == 0 or rows[place - 1].group != one.group:
            lines.append(f"{one.group:{width}}  {'median':>12}  {'spread':>18}  {'p99':>10}  beside")
        p99 = number(one.p99) if one.p99 is not None else ""
        median = f"{number(one.median)} {one.unit}"
        lines.append(f"{one.what:{width}}  {median:>12}  {one.spread():>18}  {p99:>10}  {one.beside()}".rstrip())
    return lines


def page(rows):
    """Lines of the tables of docs/performance.md."""
    lines = []
    for place, one in enumerate(rows):
        if place == 0 or rows[place - 1].group != one.group:
            lines += ["", f"### {one.group}", "", "| what | median | spread | p99 | beside |", "|---|---|---|---|---|"]
        p99 = f"{number(one.p99)} {one.unit}" if one.p99 is not None else ""
        lines.append(f"| {one.what} | {number(one.median)} {one.unit} | {one.spread()} | {p99} | {one.beside()} |")
    return [*lines, ""]


def write_json(file, rows, surroundings):
    document = {"machine": surroundings, "rows": [dataclasses.asdict(one) for one in rows]}
    file.write_text(json.dumps(document, indent=1) + "\n", encoding="utf-8")


def read_json(file):
    rows = json.loads(file.read_text(encoding="utf-8"))["rows"]
    return [Row(**dict(one, peers=[Peer(**peer) for peer in one["peers"]])) for one in rows]
