"""How long to measure."""
import dataclasses


@dataclasses.dataclass(frozen=True)
class Effort:
    """Numbers of rounds, and idle seconds."""

    repetitions: int = 5   # of a program that repeats the work itself
    seconds: float = 0.5   # of each of its benchmarks, at least
    rounds: int = 300      # of a latency on a running device
    starts: int = 20       # of a program
    events: int = 2000     # of each kind
    timers: int = 300
    idle: int = 60


QUICK = Effort(repetitions=3, seconds=0.05, rounds=50, starts=5, events=300, timers=50, idle=10)
