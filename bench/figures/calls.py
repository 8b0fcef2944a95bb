"""D-Bus calls to the daemon by a client that stays, on dbus-daemon and on dbus-broker."""
import broker
from device import document, new_machine, running
from results import percentile, row

GROUP = "calls"


def measure(machine, effort):
    """Microseconds: a ping, a SetPolicy of another document while one runs, and one of that which runs."""
    running_text, other = document(10), document(11)
    with running(machine, running_text) as (_, client):
        files = []
        for name, text in (("other", other), ("same", running_text)):
            files.append(machine.folder / f"{name}.xml")
            files[-1].write_text(text)
        pings = client.times("ping", effort.rounds)
        return pings, *(client.times("set-policy", effort.rounds, file) for file in files)


def rows_on(bus, measured, peers_of):
    pings, other, same = measured
    whats = {f"GDBus Peer.Ping of the daemon, {bus}": pings,
             f"SetPolicy of 10 items while another runs: stored only, {bus}": other,
             f"SetPolicy of the 10 items that run already: stored only, {bus}": same}
    return [row(GROUP, what, "us", times, p99=percentile(times, 0.99),
                peers=[*([("Ping", pings)] if times is not pings else []), *peers_of(place)])
            for place, (what, times) in enumerate(whats.items())]


def calls(effort):
    with new_machine() as machine:
        on_daemon = measure(machine, effort)
    rows = rows_on("dbus-daemon", on_daemon, lambda place: [])
    obstacle = broker.obstacle()
    if obstacle is None:
        with new_machine() as machine:
            machine.bus = broker.Broker(machine.bus)
            obstacle = machine.bus.failure()
            on_broker = measure(machine, effort) if obstacle is None else None
    if obstacle:
        rows[0].note = obstacle
        return rows
    return rows + rows_on("dbus-broker", on_broker, lambda place: [("on dbus-daemon", on_daemon[place])])
