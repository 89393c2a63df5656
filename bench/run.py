#!/usr/bin/env python3
"""Runs the rows of the comparison, interleaved, and prints them as a table.

Called by scripts/bench. Every repetition of a row runs each system once, in
turn, each run a process of its own; a ratio is taken within each repetition, and
the median of these ratios is what counts.
"""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
from dataclasses import dataclass, field

ACTOR_PEERS = ["jactor", "pipe", "czmq", "nng", "seqpacket"]
PROCESS_PEERS = ["jactor", "fifo", "czmq", "nng", "seqpacket"]
FRAME_PEERS = ["jactor", "pipe", "czmq"]

# What a row is about: how many messages a second, how long one thing takes, or
# how many bytes it holds.
RATE, TRIP, TIME, BYTES = "rate", "trip", "time", "bytes"


@dataclass
class Aim:
    """The ratio of this library's figure to another system's, or row's."""

    to: str  # a system, or another row's key: this library's figure there
    limit: float
    at_most: bool  # the ratio shall be at most, or at least, the limit


@dataclass
class Row:
    key: str
    title: str
    kind: str
    arguments: list
    systems: list
    aims: list = field(default_factory=list)


def at_most(to, limit):
    return Aim(to, limit, True)


def at_least(to, limit):
    return Aim(to, limit, False)


def one_cpu_rows():
    def row(key, title, kind, arguments, systems, *aims):
        return Row(key, title, kind, arguments.split() + ["--cpus", "1"], systems, list(aims))

    return [
        row("echo-8", "echo, 8 B", TRIP, "--scenario echo --size 8", ACTOR_PEERS,
            at_most("pipe", 1.6)),
        row("echo-1k", "echo, 1 KiB", TRIP, "--scenario echo --size 1024", ACTOR_PEERS),
        row("echo-64k", "echo, 64 KiB", TRIP, "--scenario echo --size 65536", ACTOR_PEERS,
            at_most("pipe", 1.15)),
        row("oneway-32", "one-way, 32 B", RATE, "--scenario streams --size 32", ACTOR_PEERS,
            at_least("pipe", 0.60), at_least("czmq", 0.60)),
        row("oneway-1k", "one-way, 1 KiB", RATE, "--scenario streams --size 1024", ACTOR_PEERS,
            at_least("pipe", 0.60), at_least("czmq", 0.75)),
        row("oneway-1m", "one-way, 1 MiB", RATE, "--scenario streams --size 1048576",
            ["jactor", "pipe", "czmq", "nng"], at_least("pipe", 0.80)),
        row("frames-8", "one-way, eight frames of 64 B", RATE,
            "--scenario streams --frames 8 --size 64", FRAME_PEERS,
            at_least("pipe", 0.40), at_least("czmq", 1.0)),
        row("process-32", "between processes, 32 B", RATE, "--scenario processes --size 32",
            PROCESS_PEERS, at_least("fifo", 0.60), at_least("czmq", 0.75)),
        row("process-1k", "between processes, 1 KiB", RATE, "--scenario processes --size 1024",
            PROCESS_PEERS, at_least("czmq", 1.3)),
        row("process-trip", "between processes, round trip of 32 B", TRIP,
            "--scenario roundtrip --size 32", PROCESS_PEERS, at_most("czmq", 0.20)),
        row("four-into-one", "four processes into one, 32 B", RATE,
            "--scenario processes --size 32 --senders 4", PROCESS_PEERS,
            at_least("fifo", 0.42), at_least("czmq", 1.2)),
        row("build-3", "build and take apart 3 frames of 32 B", TIME,
            "--scenario build --frames 3 --size 32", ["jactor", "czmq"], at_most("czmq", 1.1)),
        row("start-stop", "start and stop an actor", TIME, "--scenario start", ACTOR_PEERS,
            at_most("czmq", 0.40)),
        row("memory", "memory of an idle actor", BYTES, "--scenario memory", ACTOR_PEERS),
    ]


def all_cpu_rows():
    def row(key, title, kind, arguments, systems, *aims):
        return Row(key, title, kind, arguments.split(), systems, list(aims))

    def producers(count, *aims):
        return row(f"producers-{count}", f"{count} producer{'s' if count > 1 else ''}, "
                   "each with an actor, 32 B, all CPUs", RATE,
                   f"--scenario streams --size 32 --senders {count}", FRAME_PEERS, *aims)

    return [
        producers(1),
        producers(2, at_least("producers-1", 1.5)),
        producers(4, at_least("producers-1", 1.5)),
        row("two-cpu-echo-8", "echo, 8 B, two CPUs", TRIP, "--scenario echo --size 8 --cpus 2",
            ACTOR_PEERS),
        row("two-cpu-oneway-32", "one-way, 32 B, two CPUs", RATE,
            "--scenario streams --size 32 --cpus 2", ACTOR_PEERS),
        row("two-cpu-oneway-1k", "one-way, 1 KiB, two CPUs", RATE,
            "--scenario streams --size 1024 --cpus 2", ACTOR_PEERS),
        row("two-cpu-process-32", "between processes, 32 B, two CPUs", RATE,
            "--scenario processes --size 32 --cpus 2", PROCESS_PEERS),
        row("two-cpu-process-trip", "between processes, round trip of 32 B, two CPUs", TRIP,
            "--scenario roundtrip --size 32 --cpus 2", PROCESS_PEERS),
    ]


class RunFailed(Exception):
    pass


def run_once(program, row, system, seconds):
    command = [program, "--system", system, "--seconds", str(seconds), *row.arguments]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, errors="replace", timeout=180)
    if done.returncode != 0:
        raise RunFailed(f"{' '.join(command)}: status {done.returncode}\n{done.stderr[-2000:]}")
    result = json.loads(done.stdout)
    if result["checked"] is not True or result["messages"] <= 0:
        raise RunFailed(f"{' '.join(command)}: not checked: {done.stdout}")
    return result


class options:
    cpu_time = False


def figure(row, result):
    """The number that a row compares."""
    if row.kind != BYTES and options.cpu_time:
        each = result["cpu_seconds"] / result["messages"]
        return 1 / each if row.kind == RATE else each * 1e6
    if row.kind == RATE:
        return result["rate"]
    if row.kind == TRIP:
        return result["median_us"]
    if row.kind == TIME:
        return 1e6 / result["rate"]
    return result["bytes_each"]


def measure(program, rows, repetitions, seconds):
    """By row, by system: the list of results, one a repetition."""
    results = {row.key: {system: [] for system in row.systems} for row in rows}
    for repetition in range(repetitions):
        for row in rows:
            print(f"\r{repetition + 1}/{repetitions} {row.key:24}", end="", file=sys.stderr,
                  flush=True)
            for system in row.systems:
                results[row.key][system].append(run_once(program, row, system, seconds))
    print("\r" + " " * 40 + "\r", end="", file=sys.stderr)
    return results


def ratios(row, results, to, rows):
    """This library's figure to that of a system or of another row, by repetition."""
    own = [figure(row, result) for result in results[row.key]["jactor"]]
    if to in results:
        other_row = next(other for other in rows if other.key == to)
        others = [figure(other_row, result) for result in results[to]["jactor"]]
    else:
        others = [figure(row, result) for result in results[row.key].get(to, [])]
    return [mine / other for mine, other in zip(own, others)]


def number(value):
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def cell(row, runs):
    if not runs:
        return "-"
    value = statistics.median(figure(row, run) for run in runs)
    if row.kind == RATE:
        return f"{value / 1000:,.1f} k/s" if value >= 1000 else f"{value:,.0f} /s"
    if row.kind == TRIP and not options.cpu_time:
        p99 = statistics.median(run["p99_us"] for run in runs)
        return f"{number(value)} us (p99 {number(p99)})"
    if row.kind in (TRIP, TIME):
        return f"{number(value)} us"
    return f"{value / 1024:,.1f} KiB"


def judged(aim, ratio):
    return ratio <= aim.limit if aim.at_most else ratio >= aim.limit


NAMES = {"jactor": "jactor", "pipe": "limit", "fifo": "limit", "czmq": "CZMQ", "nng": "nng",
         "seqpacket": "seqpacket"}
COLUMNS = [("jactor", ["jactor"]), ("limit", ["pipe", "fifo"]), ("CZMQ", ["czmq"]),
           ("nng", ["nng"]), ("SEQPACKET", ["seqpacket"])]


def figures_table(rows, results):
    lines = ["| Row | " + " | ".join(title for title, _ in COLUMNS) + " |",
             "|---" * (len(COLUMNS) + 1) + "|"]
    for row in rows:
        cells = []
        for _, systems in COLUMNS:
            runs = [run for system in systems for run in results[row.key].get(system, [])]
            cells.append(cell(row, runs))
        lines.append(f"| {row.title} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def aims_table(rows, results):
    lines = ["| Row | jactor's figure | Measured | Lowest to highest | Aim | Met |",
             "|---|---|---|---|---|---|"]
    for row in rows:
        for aim in row.aims:
            values = ratios(row, results, aim.to, rows)
            if not values:
                continue
            ratio = statistics.median(values)
            what = {RATE: "rate", TRIP: "time", TIME: "time", BYTES: "memory"}[row.kind]
            to = "the rate of 1 producer" if aim.to == "producers-1" else (
                "the limit's" if NAMES[aim.to] == "limit" else NAMES[aim.to] + "'s")
            lines.append(
                f"| {row.title} | {what} to {to} | {ratio:.2f} | "
                f"{min(values):.2f} to {max(values):.2f} | "
                f"{'at most' if aim.at_most else 'at least'} {aim.limit:.2f} | "
                f"{'yes' if judged(aim, ratio) else 'no'} |")
    return "\n".join(lines)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", required=True, help="the built jactor_bench")
    parser.add_argument("--rows", default="", help="only rows whose key matches this pattern")
    parser.add_argument("--reps", type=int, help="repetitions (7; quick: 3)")
    parser.add_argument("--seconds", type=float, help="seconds of a run (0.5; quick: 0.08)")
    parser.add_argument("--quick", action="store_true", help="less than a minute")
    parser.add_argument("--cpu-time", action="store_true",
                        help="compare processor time instead of elapsed time, which bears a "
                        "machine that is busy with other things")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    options.cpu_time = arguments.cpu_time
    repetitions = arguments.reps or (3 if arguments.quick else 7)
    seconds = arguments.seconds or (0.08 if arguments.quick else 0.5)
    rows = [row for row in one_cpu_rows() + all_cpu_rows() if re.search(arguments.rows, row.key)]
    if not rows:
        sys.exit(f"no row matches {arguments.rows!r}")
    os.environ.pop("JLOG_LEVEL", None)
    try:
        results = measure(arguments.program, rows, repetitions, seconds)
    except (RunFailed, subprocess.TimeoutExpired) as error:
        sys.exit(f"\nbench: {error}")
    print(figures_table(rows, results))
    print()
    print(aims_table(rows, results))


if __name__ == "__main__":
    main()
