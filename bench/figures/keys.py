"""The key store beside other stores: a get, sets, and from a set to another process's notification."""
import shutil

import programs
from results import row

GROUP = "keys"

# What is measured: our benchmark, and theirs by name.
ROWS = {
    "get": ("GetInt", {"Redis": "RedisGet", "dconf (maps the file)": "DconfGet",
                       "a GDBus call, peer to peer, no store": "GdbusGet"}),
    "set, durable key": ("SetInt/durable", {"Redis, appendfsync always": "RedisSet/durable", "dconf": "DconfSet"}),
    "set, memory key": ("SetInt/memory", {"Redis, no file": "RedisSet/memory"}),
    "set to notified, memory key, 1 watched": (
        "SetToNotified/memory", {"Redis, keyspace notification": "RedisSetToNotified/memory"}),
    "set to notified, memory key, 1,000 watched": (
        "SetToNotified/memory_of_1000", {"Redis, keyspace notification": "RedisSetToNotified/memory_of_1000"}),
    "set to notified, durable key, 1 watched": (
        "SetToNotified/durable", {"Redis, appendfsync always": "RedisSetToNotified/durable",
                                  "dconf": "DconfSetToNotified/one"}),
    "set to notified, durable key, 1,000 watched": (
        "SetToNotified/durable_of_1000", {"Redis, appendfsync always": "RedisSetToNotified/durable_of_1000",
                                          "dconf": "DconfSetToNotified/of_1000"}),
}


def keys(effort):
    # dconf's writer is started by a session bus.
    wrapper = ["dbus-run-session", "--"] if shutil.which("dbus-run-session") else []
    samples = {name: [taken / 1000 for taken in taken_ns]
               for name, taken_ns in programs.google("bench_keys", effort, wrapper).items()}
    return [row(GROUP, what, "us", samples[ours],
                peers=[(name, samples.get(theirs, programs.SETUP)) for name, theirs in others.items()])
            for what, (ours, others) in ROWS.items()]
