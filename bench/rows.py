"""The rows of the comparison: what runs, on which systems, and the aims."""

from dataclasses import dataclass, field

ACTOR_PEERS = ["jactor", "pipe", "czmq", "nng", "seqpacket"]
PROCESS_PEERS = ["jactor", "fifo", "czmq", "nng", "seqpacket"]
FRAME_PEERS = ["jactor", "pipe", "czmq"]

# What a row measures: messages per second, how long one operation takes, or how
# many bytes one object holds.
RATE, TRIP, TIME, BYTES = "rate", "trip", "time", "bytes"


@dataclass
class Aim:
    """The ratio to reach, of this library's figure to another system's or another row's."""

    to: str  # a system, or another row's key for this library's figure in that row
    limit: float
    at_most: bool  # whether the ratio shall be at most, or at least, the limit


@dataclass
class Row:
    key: str
    title: str
    kind: str
    arguments: list
    systems: list
    aims: list = field(default_factory=list)

    @property
    def one_cpu(self):
        return self.arguments[-2:] == ["--cpus", "1"]


def at_most(to, limit):
    return Aim(to, limit, True)


def at_least(to, limit):
    return Aim(to, limit, False)


def one_cpu_rows():
    def row(key, title, kind, arguments, systems, *aims):
        return Row(key, title, kind, arguments.split() + ["--cpus", "1"], systems, list(aims))

    return [
        row("echo-8", "echo, 8 B", TRIP, "--scenario echo --size 8", ACTOR_PEERS,
            at_most("pipe", 1.45)),
        row("echo-1k", "echo, 1 KiB", TRIP, "--scenario echo --size 1024", ACTOR_PEERS),
        row("echo-64k", "echo, 64 KiB", TRIP, "--scenario echo --size 65536", ACTOR_PEERS,
            at_most("pipe", 1.15)),
        row("oneway-32", "one-way, 32 B", RATE, "--scenario streams --size 32", ACTOR_PEERS,
            at_least("pipe", 0.78), at_least("czmq", 0.60)),
        row("oneway-1k", "one-way, 1 KiB", RATE, "--scenario streams --size 1024", ACTOR_PEERS,
            at_least("pipe", 0.60), at_least("czmq", 0.75)),
        row("oneway-1m", "one-way, 1 MiB", RATE, "--scenario streams --size 1048576",
            ["jactor", "pipe", "czmq", "nng"], at_least("pipe", 0.80)),
        row("frames-8", "one-way, eight frames of 64 B", RATE,
            "--scenario streams --frames 8 --size 64", FRAME_PEERS,
            at_least("pipe", 0.60), at_least("czmq", 1.0)),
        row("process-32", "between processes, 32 B", RATE, "--scenario processes --size 32",
            PROCESS_PEERS, at_least("fifo", 0.78), at_least("czmq", 0.75)),
        row("process-1k", "between processes, 1 KiB", RATE, "--scenario processes --size 1024",
            PROCESS_PEERS, at_least("czmq", 1.3)),
        row("process-trip", "between processes, round trip of 32 B", TRIP,
            "--scenario roundtrip --size 32", PROCESS_PEERS,
            at_most("fifo", 1.35), at_most("czmq", 0.20)),
        row("four-into-one", "four processes into one, 32 B", RATE,
            "--scenario processes --size 32 --senders 4", PROCESS_PEERS,
            at_least("fifo", 0.62), at_least("czmq", 1.2)),
        row("build-3", "build and take apart 3 frames of 32 B", TIME,
            "--scenario build --frames 3 --size 32", ["jactor", "czmq"], at_most("czmq", 0.95)),
        row("start-stop", "start and stop an actor", TIME, "--scenario start", ACTOR_PEERS,
            at_most("pipe", 1.05), at_most("czmq", 0.40)),
        row("memory", "memory of an idle actor", BYTES, "--scenario memory", ACTOR_PEERS),
    ]


def all_cpu_rows():
    def row(key, title, kind, arguments, systems, *aims):
        return Row(key, title, kind, arguments.split(), systems, list(aims))

    def pairs(count, *aims):
        return row(f"pairs-{count}", f"{count} pair{'s' if count > 1 else ''} of threads, "
                   "32 B, all CPUs", RATE, f"--scenario streams --size 32 --senders {count}",
                   FRAME_PEERS, at_least("pipe", 0.60), *aims)

    def two_cpus(key, title, kind, arguments, systems, *aims):
        return row(f"two-cpu-{key}", f"{title}, two CPUs", kind, f"{arguments} --cpus 2", systems,
                   *aims)

    return [
        pairs(1),
        pairs(2, at_least("pairs-1", 1.5)),
        pairs(4, at_least("pairs-1", 1.5)),
        two_cpus("echo-8", "echo, 8 B", TRIP, "--scenario echo --size 8", ACTOR_PEERS),
        two_cpus("oneway-32", "one-way, 32 B", RATE, "--scenario streams --size 32", ACTOR_PEERS,
                 at_least("pipe", 0.68)),
        two_cpus("oneway-1k", "one-way, 1 KiB", RATE, "--scenario streams --size 1024",
                 ACTOR_PEERS, at_least("pipe", 0.65)),
        two_cpus("oneway-1m", "one-way, 1 MiB", RATE, "--scenario streams --size 1048576",
                 ["jactor", "pipe", "czmq", "nng"], at_least("pipe", 0.75)),
        two_cpus("frames-8", "one-way, eight frames of 64 B", RATE,
                 "--scenario streams --frames 8 --size 64", FRAME_PEERS, at_least("pipe", 0.30)),
        two_cpus("process-32", "between processes, 32 B", RATE, "--scenario processes --size 32",
                 PROCESS_PEERS),
        two_cpus("process-trip", "between processes, round trip of 32 B", TRIP,
                 "--scenario roundtrip --size 32", PROCESS_PEERS),
    ]


def all_rows():
    return one_cpu_rows() + all_cpu_rows()
