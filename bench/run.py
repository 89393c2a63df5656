#!/usr/bin/env python3
"""Runs the rows of the comparison, interleaved, and reports them.

Called by scripts/bench. Every repetition of a row runs each system once, in
turn, each in a separate process. A ratio is taken within each repetition, and the
median of these ratios is shown.
"""

import argparse
import datetime
import json
import os
import re
import subprocess
import sys
from pathlib import Path

import report
from quiet import wait_until_quiet
from rows import all_rows

TIME_LIMIT = 180  # seconds for one run


class RunFailed(Exception):
    pass


def run_once(program, row, system, seconds):
    command = [program, "--system", system, "--seconds", str(seconds), *row.arguments]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, errors="replace",
                          timeout=TIME_LIMIT, check=False)
    if done.returncode != 0:
        raise RunFailed(f"{' '.join(command)}: status {done.returncode}\n{done.stderr[-2000:]}")
    result = json.loads(done.stdout)
    if result["checked"] is not True or result["messages"] <= 0:
        raise RunFailed(f"{' '.join(command)}: not checked: {done.stdout}")
    return result


def show_progress(text):
    if sys.stderr.isatty():
        print(f"\r{text:40}", end="", file=sys.stderr, flush=True)


def measure(program, rows, repetitions, seconds):
    """The list of results, one per repetition, by row and by system."""
    results = {row.key: {system: [] for system in row.systems} for row in rows}
    for repetition in range(repetitions):
        for row in rows:
            show_progress(f"{repetition + 1}/{repetitions} {row.key}")
            for system in row.systems:
                results[row.key][system].append(run_once(program, row, system, seconds))
    show_progress("")
    show_progress("\r")
    return results


def output_of(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def processor():
    for line in Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return os.uname().machine


def hypervisor():
    match = re.search(r"Hypervisor vendor:\s*(\S+)", output_of("lscpu"))
    return match.group(1) if match else "none"


def package_version(name):
    return output_of("dpkg-query", "-W", "-f", "${Version}", name) or "unknown"


def describe_machine(load, repetitions, seconds):
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "processor": processor(),
        "processors": len(os.sched_getaffinity(0)),
        "hypervisor": hypervisor(),
        "kernel": os.uname().release,
        "compiler": output_of("c++", "--version").splitlines()[0],
        "commit": output_of("git", "rev-parse", "--short", "HEAD"),
        "libraries": {name: package_version(name)
                      for name in ("libc6", "libczmq4", "libzmq5", "libnng1")},
        "load_before": load,
        "repetitions": repetitions,
        "seconds_of_a_run": seconds,
    }


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="scripts/bench", description=__doc__.splitlines()[0],
        epilog="A full run refreshes docs/performance.md; one with --quick or --rows does so "
        "only with --refresh. scripts/bench --build DIR uses another build folder.")
    parser.add_argument("--program", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--output", required=True, type=Path, help=argparse.SUPPRESS)
    parser.add_argument("--docs", required=True, type=Path, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="short runs: less than a minute")
    parser.add_argument("--rows", default="", metavar="REGEX",
                        help="only the rows whose key matches; --list names them")
    parser.add_argument("--list", action="store_true", help="name the rows and end")
    parser.add_argument("--reps", type=int, metavar="N", help="repetitions (7; quick: 3)")
    parser.add_argument("--seconds", type=float, metavar="S",
                        help="seconds of one run (0.5; quick: 0.08)")
    parser.add_argument("--cpu-time", action="store_true",
                        help="show figures in processor time instead of elapsed time, for a "
                        "machine that is busy with other things")
    parser.add_argument("--refresh", action="store_true", help="refresh docs/performance.md")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    rows = [row for row in all_rows() if re.search(arguments.rows, row.key)]
    if arguments.list:
        print("\n".join(f"{row.key:22} {row.title}" for row in rows))
        return
    if not rows:
        sys.exit(f"bench: no row matches {arguments.rows!r}; --list names them")
    repetitions = arguments.reps or (3 if arguments.quick else 7)
    seconds = arguments.seconds or (0.08 if arguments.quick else 0.5)
    full = not arguments.quick and not arguments.rows and not arguments.cpu_time
    load = wait_until_quiet() if full else os.getloadavg()[0]
    machine = describe_machine(load, repetitions, seconds)
    os.environ.pop("JLOG_LEVEL", None)
    try:
        results = measure(arguments.program, rows, repetitions, seconds)
    except (RunFailed, subprocess.TimeoutExpired) as error:
        sys.exit(f"\nbench: {error}")
    text = report.text(rows, results, machine, arguments.cpu_time)
    print(text)
    arguments.output.mkdir(parents=True, exist_ok=True)
    report.write_json(arguments.output / "results.json", rows, results, machine)
    report.write_charts(arguments.output, rows, results)
    if full or arguments.refresh:
        report.refresh_docs(arguments.docs, rows, results, text)


if __name__ == "__main__":
    main()
