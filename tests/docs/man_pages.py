"""Checks the manual pages: clean mdoc, synopses that agree with jactor.h, and a page and a
row in README.md for every call.

Each line of man/aliases.txt names a page and the page that it links to.
Exit status 77: mandoc is not installed.
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

HEADERS = "libjactor/include"
LOG_HEADERS = "jlog/include"


def lint(pages):
    # What mandoc says about other pages depends on the machine: see dead_references().
    done = subprocess.run(["mandoc", "-Tlint", *pages], capture_output=True, text=True)
    return [line for line in done.stdout.splitlines() if "referenced manual not found" not in line]


def synopsis(page):
    done = subprocess.run(["mandoc", "-Tascii", "-Owidth=200", page], capture_output=True, text=True)
    text = re.sub(".\b", "", done.stdout)
    match = re.search(r"^SYNOPSIS\n(.*?)^\S", text, re.M | re.S)
    return match.group(1) if match else ""


def disagreement(page, code):
    """The compiler reports a declaration that differs from the header's."""
    with tempfile.NamedTemporaryFile("w", suffix=".c") as file:
        file.write(code)
        file.flush()
        done = subprocess.run(["cc", "-std=c11", "-fsyntax-only", "-Werror", "-I", HEADERS, "-I", LOG_HEADERS,
                               file.name], capture_output=True, text=True)
    return [f"{page}: SYNOPSIS: {done.stderr}"] if done.returncode else []


def aliases():
    with open("man/aliases.txt", encoding="utf-8") as file:
        return dict(line.split() for line in file if line.strip())


def missing_names(linked):
    failures = []
    for alias, page in linked.items():
        call = alias.rpartition(".")[0]
        if not os.path.exists(f"man/{page}"):
            failures.append(f"man/aliases.txt: {alias}: no page {page}")
        elif not re.search(rf"^\.Nm {call}( ,)?$", open(f"man/{page}", encoding="utf-8").read(), re.M):
            failures.append(f"man/{page}: {call} is not in NAME")
    header = re.sub(r"/\*.*?\*/", "", open(f"{HEADERS}/jactor.h", encoding="utf-8").read(), flags=re.S)
    calls = re.findall(r"^JACTOR_API [^(]*?(\w+)\(", header, re.M)
    log_calls = re.findall(r"^JLOG_API [^(]*?(\w+)\(", open(f"{LOG_HEADERS}/jlog.h", encoding="utf-8").read(), re.M)
    failures += [f"{call}: no manual page" for call in calls + log_calls
                 if f"{call}.3" not in linked and not os.path.exists(f"man/{call}.3")]
    readme = open("README.md", encoding="utf-8").read()
    failures += [f"README.md: {call} is not in the table" for call in calls if f"`{call}(" not in readme]
    return failures if calls and log_calls else ["jactor.h or jlog.h: no calls found"]


def dead_references(pages, linked):
    ours = {os.path.basename(page) for page in pages} | linked.keys()
    failures = []
    for page in pages:
        for name, section in re.findall(r"^\.Xr (\S+) (\d)", open(page, encoding="utf-8").read(), re.M):
            if re.match(r"j_|jactor|jlog|jpipe|hybrid", name) and f"{name}.{section}" not in ours:
                failures.append(f"{page}: refers to {name}({section})")
    return failures


def main():
    if shutil.which("mandoc") is None:
        print("skipped: mandoc is not installed")
        return 77
    pages = sorted(glob.glob("man/*.[1-9]"))
    linked = aliases()
    failures = lint(pages) + missing_names(linked) + dead_references(pages, linked)
    for page in glob.glob("man/*.3"):
        code = synopsis(page)
        if re.search(r"(jactor|jlog)\.h>", code):
            failures += disagreement(page, code)
    print(f"{len(pages)} pages, {len(linked)} aliases")
    print("\n".join(failures))
    return 1 if failures or not pages else 0


sys.exit(main())
