#!/usr/bin/env python3
"""Compares the Python package with pyzmq, between two processes.

Called by scripts/bench --python. Every repetition of a row runs each way of sending once, in
turn, each time with two new processes. The receiver compares every message, and its clock
runs from the first message to the last. A ratio is taken within each repetition, and the
median is shown. After each figure comes the processor time of both processes per message, all
threads included, which other work on the machine affects less.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "python"))

import jactor  # noqa: E402
import zmq  # noqa: E402
from quiet import wait_until_quiet  # noqa: E402

WAYS = {"send": "`send`", "send_many": "`send_many`", "zmq": "pyzmq"}
ROWS = (("one-way, 32 B", 32, False), ("one-way, 1 KiB", 1024, False), ("round trip of 32 B", 32, True))
ANSWERS = 10000  # of a run


class Jactor:
    """One end: sends to one endpoint and receives from another."""

    def __init__(self, place, end, many):
        names = [f"ipc://bench-{Path(place).name}-{k}" for k in (0, 1)]
        self.push, self.pull = jactor.Push(names[end]), jactor.Pull(names[1 - end])
        self.many = many
        self.send, self.receive = self.push.send, self.pull.receive

    def send_all(self, payload, count):
        if self.many:
            self.push.send_many((payload,) for _ in range(count))
            return
        send = self.push.send
        for _ in range(count):
            send(payload)

    def receive_all(self, payload, count):
        expected = (payload,)
        for message in self.pull:
            if message != expected:
                raise ValueError("a message is damaged")
            count -= 1
            if count == 0:
                break


class Zmq:
    """One end of a PAIR over ipc, with ZeroMQ's defaults."""

    def __init__(self, place, end, _):
        self.socket = zmq.Context.instance().socket(zmq.PAIR)
        (self.socket.connect if end else self.socket.bind)(f"ipc://{place}/pair")
        self.send, self.receive = self.socket.send, self.socket.recv

    def send_all(self, payload, count):
        send = self.socket.send
        for _ in range(count):
            send(payload)

    def receive_all(self, payload, count):
        receive = self.socket.recv
        for _ in range(count):
            if receive() != payload:
                raise ValueError("a message is damaged")


def trips(peer, payload, count):
    """The median time of `count` round trips."""
    times = []
    for _ in range(count):
        start = time.perf_counter()
        peer.send(payload)
        peer.receive()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def answer(peer, payload, count):
    for _ in range(count):
        peer.receive()
        peer.send(payload)


def receive(peer, payload, count):
    """Messages a second."""
    peer.send(b"begin")
    peer.receive_all(payload, 1)
    start = time.perf_counter()
    peer.receive_all(payload, count - 1)
    return (count - 1) / (time.perf_counter() - start)


def send(peer, payload, count):
    peer.receive()
    peer.send_all(payload, count)


def work(way, size, is_trip, end, place, count):
    """One process of a run. End 0 measures; both print their processor time."""
    peer = (Zmq if way == "zmq" else Jactor)(place, end, way == "send_many")
    start = time.process_time()
    figure = ((trips, answer), (receive, send))[not is_trip][end](peer, b"x" * size, count)
    if end == 1:
        sys.stdin.read()  # keeps the endpoint open until the other end has received everything
    print(figure, time.process_time() - start)


def measure(way, size, is_trip, count):
    """Returns the rate or the time of a round trip, and the processor time per message."""
    with tempfile.TemporaryDirectory() as place:
        command = [sys.executable, "-B", __file__, "--work", way, str(size), str(int(is_trip))]
        try:
            with subprocess.Popen([*command, "0", place, str(count)], stdout=subprocess.PIPE, text=True) as one, \
                    subprocess.Popen([*command, "1", place, str(count)], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, text=True) as other:
                printed = [one.communicate(timeout=120)[0].split(), other.communicate(timeout=120)[0].split()]
        finally:
            for fifo in Path("/var/run/jactor").glob(f"Jipc_bench-{Path(place).name}-*"):
                fifo.unlink()
    if one.returncode or other.returncode:
        sys.exit(f"bench: {way}, {size} B: a process failed")
    return float(printed[0][0]), (float(printed[0][1]) + float(printed[1][1])) / count


def shown(runs, is_trip):
    figure, processor = (statistics.median(column) for column in zip(*runs))
    told = f"{figure * 1e6:.1f} us" if is_trip else f"{figure / 1000:,.0f} k/s"
    return f"{told} ({processor * 1e6:.2f} us)"


def ratio(runs, others):
    """The medians of the ratios of figures, and of processor times."""
    return "{:.2f} ({:.2f})".format(
        *(statistics.median(mine / other for mine, other in zip(*columns))
          for columns in zip(zip(*runs), zip(*others))))


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench --python", description=__doc__.splitlines()[0])
    parser.add_argument("--reps", type=int, default=7, metavar="N", help="repetitions (7)")
    parser.add_argument("--count", type=int, default=300000, metavar="N", help="messages of a one-way run (300000)")
    parser.add_argument("--work", nargs="*", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.work:
        way, size, is_trip, end, place, count = arguments.work
        return work(way, int(size), is_trip == "1", int(end), place, int(count))
    load = wait_until_quiet()
    print(f"Python {sys.version.split()[0]}, pyzmq {zmq.__version__}, ZeroMQ {zmq.zmq_version()}, "
          f"{len(os.sched_getaffinity(0))} processors, {arguments.reps} repetitions, load {load:.1f}\n")
    print("| Row | " + " | ".join(WAYS.values()) + " | `send` to pyzmq | `send_many` to pyzmq |")
    print("|---|---|---|---|---|---|")
    for title, size, is_trip in ROWS:
        ways = [way for way in WAYS if not is_trip or way != "send_many"]
        runs = {way: [] for way in ways}
        for _ in range(arguments.reps):
            for way in ways:
                runs[way].append(measure(way, size, is_trip, ANSWERS if is_trip else arguments.count))
        cells = [shown(runs[way], is_trip) if way in runs else "-" for way in WAYS]
        cells += [ratio(runs[way], runs["zmq"]) if way in runs else "-" for way in ("send", "send_many")]
        print(f"| {title} | " + " | ".join(cells) + " |", flush=True)


if __name__ == "__main__":
    main()
