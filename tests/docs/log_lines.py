"""Checks that the library writes the log lines that docs/errors.md names, and that only
files whose names users know from the log write to it.
"""

import glob
import re
import sys

FROM_THE_SYSTEM = ("std::bad_alloc", "Resource temporarily unavailable", "filesystem error: status: ...")


def loggers_without_a_name():
    """A log line carries its file's name, so code that moves to a new file must not log."""
    known = re.compile(r"libjactor/src/(jcxx\w+\.cpp|jactor\.cpp|log\.h)")
    return [f"{path}: logs, but users do not know this file from the log" for path in glob.glob("libjactor/src/*")
            if not known.fullmatch(path) and '"log.h"' in open(path, encoding="utf-8").read()]


def main():
    sources = "".join(open(path, encoding="utf-8").read() for path in glob.glob("libjactor/src/*"))
    with open("docs/errors.md", encoding="utf-8") as file:
        text = file.read()
    named = []
    for header, body in re.findall(r"^\|( .*in the log.*)\n\|[-|]+\n((?:\|.*\n)+)", text, re.M):
        column = [cell.strip() for cell in header.split("|")].index("in the log")
        for row in body.splitlines():
            named += re.findall(r"`([^`]+)`", row.strip("|").split("|")[column])
    failures = loggers_without_a_name()
    for line in named:
        written = re.sub(r"=(-?\d+|N)$", "=%d", line.removesuffix(", ..."))
        # Each call's lines about its handles are made from the call's name.
        written = re.sub(r"^(NULL|invalid) (pointer passed to )\w+$", r'"\1 \2" #call', written)
        if line not in FROM_THE_SYSTEM and written not in sources:
            failures.append(f"docs/errors.md: the library does not write {line}")
    print(f"{len(named)} log lines checked")
    print("\n".join(failures))
    return 1 if failures or not named else 0


sys.exit(main())
