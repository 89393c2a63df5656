"""Checks that every link in the Markdown files leads to an existing file or heading."""

import glob
import os
import re
import sys


def anchors(path):
    with open(path, encoding="utf-8") as file:
        text = re.sub(r"^```.*?^```", "", file.read(), flags=re.M | re.S)
    names = re.findall(r"^#+ +(.*)$", text, re.M)
    return {re.sub(r"[^\w\- ]", "", name.lower()).replace(" ", "-") for name in names}


def main():
    failures, checked = [], 0
    for path in sorted(glob.glob("*.md") + glob.glob("docs/*.md") + glob.glob("python/*.md")):
        with open(path, encoding="utf-8") as file:
            text = re.sub(r"^```.*?^```", "", file.read(), flags=re.M | re.S)
        for target in re.findall(r"\]\(([^)\s]+)\)", text):
            checked += 1
            name, _, anchor = target.partition("#")
            if re.match(r"[a-z]+:", name):
                continue
            aim = os.path.normpath(os.path.join(os.path.dirname(path), name)) if name else path
            if not os.path.exists(aim):
                failures.append(f"{path}: no file {target}")
            elif anchor and anchor not in anchors(aim):
                failures.append(f"{path}: no heading {target}")
    print(f"{checked} links checked")
    print("\n".join(failures))
    return 1 if failures or checked == 0 else 0


sys.exit(main())
