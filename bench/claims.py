#!/usr/bin/env python3
"""Checks that README.md's sentences about performance have the figures of docs/performance.md.

usage: claims.py [--update]

With --update it writes them; without, it fails if README.md says something else.
"""

import re
import sys
import textwrap
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BEGIN, END = "<!-- measured: begin -->", "<!-- measured: end -->"
WIDTH = 88

TEXT = """\
A small message costs {small} times what one `writev` and buffered reads on a bare pipe cost,
and a mebibyte {large} times. A round trip between two processes takes {trip_czmq} of CZMQ's
time and {trip_nng} of nng's; starting and stopping an actor takes {start} of CZMQ's. Inside
one process a queue that passes pointers is faster: CZMQ moves {threads} times as many small
messages between two threads, since it makes no system call for them. Between processes it
gathers small messages, where this library writes each one immediately, and moves {processes}
times as many. In return for the write you get a descriptor that `poll` understands, a bound
on what is queued, and one format for threads and processes. Measured on a {machine} with
{processors} processors; method, tables and missed aims:
[docs/performance.md](docs/performance.md)."""


def marked(path):
    """The text before the marks, between them, and after them."""
    content = path.read_text(encoding="utf-8")
    if content.count(BEGIN) != 1 or content.count(END) != 1:
        sys.exit(f"claims: {path}: the marks '{BEGIN}' and '{END}' must each occur once")
    before, rest = content.split(BEGIN)
    between, after = rest.split(END)
    return before, between, after


def figures(page):
    """The numbers in the tables, by row and column."""
    found, head = {}, []
    for line in page.splitlines():
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if line.startswith("| Row |"):
            head = cells
        elif line.startswith("| ") and "jactor" in head:
            for column, cell in zip(head[1:], cells[1:]):
                if number := re.match(r"([\d,.]+) (us|k/s|KiB)", cell):
                    found[cells[0], column] = float(number[1].replace(",", ""))
    return found


def times(ratio):
    return f"{ratio:.2f}" if ratio < 1 else f"{ratio:.1f}"


def claims(page):
    """The text for README. Fails when the words no longer fit the figures."""
    figure = figures(page)

    def ratio(row, over, under):
        return figure[row, over] / figure[row, under]

    ratios = {
        "small": ratio("one-way, 32 B", "the limit", "jactor"),
        "large": ratio("one-way, 1 MiB", "the limit", "jactor"),
        "trip_czmq": ratio("between processes, round trip of 32 B", "jactor", "CZMQ"),
        "trip_nng": ratio("between processes, round trip of 32 B", "jactor", "nng"),
        "start": ratio("start and stop an actor", "jactor", "CZMQ"),
        "threads": ratio("one-way, 32 B", "CZMQ", "jactor"),
        "processes": ratio("between processes, 32 B", "CZMQ", "jactor"),
    }
    for name, value in ratios.items():
        if (value > 1) != (name not in ("trip_czmq", "trip_nng", "start")):
            sys.exit(f"claims: the words around '{name}' do not fit {value:.2f}: rewrite them in "
                     "bench/claims.py")
    machine = re.search(r"^- (\d+) processors, .*\(hypervisor: (\S+)\)", page, re.M)
    text = TEXT.format(processors=machine[1],
                       machine="machine" if machine[2] == "none" else "virtual machine",
                       **{name: times(value) for name, value in ratios.items()})
    return textwrap.fill(" ".join(text.split()), WIDTH, break_long_words=False,
                         break_on_hyphens=False)


def update(root=ROOT):
    """Writes the text into README. Result: whether that changed it."""
    readme = root / "README.md"
    before, old, after = marked(readme)
    new = "\n" + claims(marked(root / "docs" / "performance.md")[1]) + "\n"
    if new != old:
        readme.write_text(before + BEGIN + new + END + after, encoding="utf-8")
    return new != old


def main():
    if sys.argv[1:] == ["--update"]:
        update()
    elif sys.argv[1:]:
        sys.exit(__doc__)
    else:
        said = marked(ROOT / "README.md")[1].strip()
        wanted = claims(marked(ROOT / "docs" / "performance.md")[1])
        if said != wanted:
            sys.exit("README.md does not agree with docs/performance.md; it should say:\n\n"
                     f"{wanted}\n\nbench/claims.py --update writes that")
        print("README.md agrees with docs/performance.md")


if __name__ == "__main__":
    main()
