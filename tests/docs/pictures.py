"""Checks that every picture in docs/pictures was drawn from its current source."""

import glob
import hashlib
import sys


def main():
    failures, sources = [], sorted(glob.glob("docs/pictures/*.dot"))
    for source in sources:
        with open(source, "rb") as file:
            wanted = f"<!-- scripts/pictures: {hashlib.sha256(file.read()).hexdigest()} -->"
        with open(source.removesuffix(".dot") + ".svg", encoding="utf-8") as file:
            if wanted not in file.read():
                failures.append(f"{source}: the picture is out of date: run scripts/pictures")
    print("\n".join(failures))
    return 1 if failures or not sources else 0


sys.exit(main())
