"""Runs a program of examples/loops: every loop must print the same.

usage: loops_test.py COMMAND...

The test writes bytes into the endpoint's FIFO itself, so that it can stop in the middle of a
message. It waits for lines of the program, never for time to pass: if a loop misses a
message or hangs, an alarm ends the test and the program.
"""

import contextlib
import os
import signal
import subprocess
import sys

DIRECTORY = "/var/run/jactor"
LIMIT_SECONDS = 50


def message(*frames):
    """A message on the wire: an announced sum, then each frame after its size (below 16)."""
    sizes = b"".join(bytes([len(frame)]) + frame for frame in frames)
    return sizes if len(frames) == 1 else bytes([0x40 + sum(map(len, frames))]) + sizes


@contextlib.contextmanager
def run(command, name, before):
    """Starts the program with a FIFO that the test holds open and that already holds `before`."""
    endpoint = f"loops-{os.getpid()}-{name}"
    path = f"{DIRECTORY}/Jipc_{endpoint}"
    os.mkfifo(path)
    try:
        fifo = os.open(path, os.O_RDWR | os.O_CLOEXEC)
        os.write(fifo, before)
        process = subprocess.Popen(
            [*command, f"ipc://{endpoint}"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env={**os.environ, "JLOG_LEVEL": "0"})
        try:
            yield Program(process, fifo)
        finally:
            process.kill()
            process.communicate()
    finally:
        os.unlink(path)


class Program:
    def __init__(self, process, fifo):
        self.process = process
        self.fifo = fifo

    def write(self, data):
        os.write(self.fifo, data)

    def expect(self, *lines):
        """Expects these lines, with or without ticks between them."""
        for line in lines:
            while (got := self.process.stdout.readline()) == "tick\n":
                pass
            if got != line + "\n":
                raise AssertionError(f"wanted {line!r}, got {got!r}")

    def expect_ticks(self, count):
        for _ in range(count):
            if (got := self.process.stdout.readline()) != "tick\n":
                raise AssertionError(f"wanted a tick, got {got!r}")

    def expect_end(self, status, error):
        _, errors = self.process.communicate()
        if self.process.returncode != status or error not in errors or bool(error) != bool(errors):
            raise AssertionError(f"exit status {self.process.returncode}, standard error: {errors}")


def takes_everything(command):
    # The title is received before the loop starts, and what follows it is read ahead.
    read_ahead = message(b"pears") + message(b"one") + message(b"two", b"and half") + b"\x05th"
    with run(command, "all", read_ahead) as program:
        program.expect("title: pears", "answer: one done", "answer: two and half done")
        program.expect_ticks(3)
        program.write(b"ree" + b"\x04")
        program.expect("answer: three done")
        program.expect_ticks(3)
        program.write(b"four" + b"\x85")
        program.expect("answer: four done", "answer:")  # a signal has no frames
        # More than a pipe holds: the loop gets one piece at a time.
        large = b"x" * 200000
        header = b"\x30" + len(large).to_bytes(4, "big")
        program.write(header + large + message(b"last"))
        program.expect(f"answer: {large.decode()} done", "answer: last done")
        program.process.send_signal(signal.SIGTERM)
        program.expect("stopped")
        program.expect_end(0, "")


def ends_at_bytes_that_are_not_a_message(command):
    damage = b"\x7f" * 5
    with run(command, "later", message(b"apples")) as program:
        program.expect("title: apples")
        program.expect_ticks(1)
        program.write(damage)
        program.expect("stopped")
        program.expect_end(1, "Bad message")
    with run(command, "ahead", message(b"plums") + damage) as program:  # before the loop
        program.expect("title: plums", "stopped")
        program.expect_end(1, "Bad message")


def on_alarm(number, frame):
    raise TimeoutError("the program hangs")


signal.signal(signal.SIGALRM, on_alarm)
signal.alarm(LIMIT_SECONDS)
takes_everything(sys.argv[1:])
ends_at_bytes_that_are_not_a_message(sys.argv[1:])
