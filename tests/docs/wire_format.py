"""Decodes the examples of docs/wire-format.md with the library.

usage: wire_format.py READER

Each line of a fence marked "wire" has bytes in hex (78*16 stands for 16 bytes of 78), "=>"
and what READER prints for them, without the last line if no bytes are left over. In a
fence marked "wire sent" the library must also send the same bytes.
"""

import os
import re
import subprocess
import sys


def decode_hex(text):
    data = b""
    for part in text.split():
        byte, _, count = part.partition("*")
        data += bytes.fromhex(byte) * int(count or 1)
    return data


def examples():
    with open("docs/wire-format.md", encoding="utf-8") as file:
        lines = file.read().splitlines()
    fence = None
    for number, line in enumerate(lines, 1):
        if line.startswith("```"):
            fence = line[3:].strip() if fence is None else None
        elif fence in ("wire", "wire sent"):
            left, _, right = line.partition("=>")
            yield number, fence, decode_hex(left), right.strip()


def main():
    failures, count = [], 0
    for number, fence, data, told in examples():
        count += 1
        done = subprocess.run(sys.argv[1], input=data, capture_output=True, timeout=30,
                              env={**os.environ, "JLOG_LEVEL": "0"})
        got = "; ".join(done.stdout.decode().splitlines())
        got = re.sub(r"; null, 0 bytes behind$", "", got)
        if done.returncode != 0 or got != told:
            failures.append(f"line {number}: the library says {got}")
        elif fence == "wire sent" and done.stderr != data:
            failures.append(f"line {number}: the library sends {done.stderr[:64].hex(' ')}")
    print(f"{count} examples decoded")
    print("\n".join(failures))
    return 1 if failures or count == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
