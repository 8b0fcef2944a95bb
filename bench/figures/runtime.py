"""The task runtime: log lines, events, timers, containers, traced places."""
import programs
from results import row

LOG = "log"
EVENTS = "events"
TIMERS = "timers"
CONTAINERS = "containers"
TRACE = "trace"

OTHERS = ("boost::asio::post", "g_main_context_invoke", "GAsyncQueue")
# Case of bench_events: what it is.
CASES = {
    "asleep 1": "event to a task that sleeps, one sender",
    "asleep 4": "the same, four senders at once, one event each",
    "awake 1": "event to a task that is awake, one sender",
    "awake 4": "the same, four senders at once, one event each",
}


def peer(samples, name, benchmark):
    return (name, samples.get(benchmark, programs.SETUP))


def log(effort):
    samples = programs.google("bench_log", effort)
    return [row(LOG, "log line, filtered out, processor time", "ns", samples["PrintFiltered"],
                peers=[peer(samples, "spdlog", "SpdlogFiltered")]),
            row(LOG, "log line to a file, flushed, processor time", "ns", samples["PrintEmitted"],
                peers=[peer(samples, "spdlog", "SpdlogEmitted"),
                       peer(samples, "GLib structured logging", "GlibEmitted")])]


def events(effort):
    cases = programs.sampled("bench_events", effort, effort.events)
    rows = [row(EVENTS, what, "us", cases[f"{case}/task"][0], p99=programs.p99_of(cases[f"{case}/task"]),
                peers=[(other, cases[f"{case}/{other}"][0]) for other in OTHERS]) for case, what in CASES.items()]
    back = {name: [1 / took for took in cases[f"back to back/{name}"][0]] for name in ("task", *OTHERS)}
    return [*rows, row(EVENTS, "events back to back, one sender", "million/s", back["task"],
                       peers=[(other, back[other]) for other in OTHERS])]


def timers(effort):
    cases = programs.sampled("bench_timers", effort, effort.timers)
    task = cases["late/task"]
    return [row(TIMERS, "timer of 10 ms, how late, every core busy", "us", task[0], p99=programs.p99_of(task),
                peers=[(other, cases[f"late/{other}"][0]) for other in ("g_timeout_add", "boost::asio::steady_timer")])]


def containers(effort):
    samples = programs.google("bench_containers", effort)
    pairs = {"List": ("list, 1,000 added, walked, removed", "std::list"),
             "Queue": ("event queue, one event in and out", "std::queue, mutex and condition variable"),
             "IntegerHash": ("hash of 1,000 numbers, each found", "std::unordered_map"),
             "StringHash": ("hash of 1,000 texts, each found", "std::unordered_map"),
             "Array": ("pointer array, 1,000 added, read, and told of when removed", "std::vector")}
    return [row(CONTAINERS, f"{what}, processor time", "ns", samples[f"{name}Core"],
                peers=[(standard, samples[f"{name}Standard"])]) for name, (what, standard) in pairs.items()]


def trace(effort):
    samples = programs.google("bench_trace", effort)
    return [row(TRACE, "inactive trace scope", "ns", samples["InactiveScope"],
                peers=[("the bare loop", samples["BareLoop"])]),
            row(TRACE, "active trace scope with a number", "ns", samples["ActiveScopeWithNumber"]),
            row(TRACE, "active trace scope with a text", "ns", samples["ActiveScopeWithText"]),
            row(TRACE, "active trace scope with a trap condition", "ns", samples["ActiveScopeWithTrap"])]
