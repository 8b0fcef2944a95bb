"""Prints the medians of a Google Benchmark result, each with its ratio to the named peer in the same run."""
import json
import sys

# benchmark: its peers in the same run
PEERS = {
    "SendToHandled<TaskReceiver>/real_time":
        ("SendToHandled<AsioReceiver>/real_time", "SendToHandled<GlibReceiver>/real_time"),
    "EventsPerSecond<TaskReceiver>/real_time":
        ("EventsPerSecond<AsioReceiver>/real_time", "EventsPerSecond<GlibReceiver>/real_time"),
    "PolicyParser": ("BareExpat",),
    "PolicyCheck": ("BareExpat", "PolicyParser"),
    "PrintEmitted": ("PrintFiltered",),
    "GetInt/real_time": ("RedisGet/real_time", "GdbusGet/real_time"),
    "SetInt/durable/real_time": ("RedisSet/durable/real_time",),
    "SetInt/memory/real_time": ("RedisSet/memory/real_time",),
    "SetToNotifiedAcrossProcesses/memory/real_time": ("RedisSetToNotified/real_time",),
    "InactiveScope": ("BareLoop",),
    "ActiveScopeWithNumber": ("InactiveScope",),
}


def main():
    runs = {}
    with open(sys.argv[1], encoding="utf-8") as file:
        for run in json.load(file)["benchmarks"]:
            if run.get("aggregate_name") == "median":
                runs[run["run_name"]] = run
    for name, run in runs.items():
        time = "real_time" if name.endswith("real_time") else "cpu_time"
        line = f"{name:48} {run[time]:12.1f} {run['time_unit']}"
        if "items_per_second" in run:
            line += f"  {run['items_per_second'] / 1e6:8.2f} M/s"
        for peer in PEERS.get(name, ()):
            if peer not in runs:
                continue
            line += f"  {run[time] / runs[peer][time]:6.2f} x {peer.split('/')[0]}"
        print(line)


main()
