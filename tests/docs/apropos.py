"""Checks that `man -k WORD` finds the pages by the words that users search for.

Exit status 77: mandoc is not installed.
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

# The pages that a word must find, at least; "jactor" must find them all.
WANTED = {
    "actor": {"jactor.7", "j_actor_new.3", "j_actor_destroy.3", "jactor_hpp.3"},
    "message": {"jactor.7", "j_msg_new.3", "j_msg_recv.3", "j_frame_data.3", "j_sock_fd.3",
                "j_pipe_new_pull.3", "hybrid_zloop_reader.3", "jactor_hpp.3", "jpipe.1"},
    "endpoint": {"jactor.7", "j_pipe_new_pull.3", "j_pipe_new_push.3", "jactor_hpp.3", "jpipe.1"},
    "log": {"jlog.3", "jlog_set_sink.3"},
}


def install(tree):
    """Lays the pages out as an installation does. Returns all names."""
    with open("man/aliases.txt", encoding="utf-8") as file:
        linked = dict(line.split() for line in file if line.strip())
    names = {os.path.basename(page): None for page in glob.glob("man/*.[1-9]")} | linked
    for name, page in names.items():
        folder = f"{tree}/man{name[-1]}"
        os.makedirs(folder, exist_ok=True)
        if page is None:
            shutil.copy(f"man/{name}", folder)
        else:
            os.symlink(page, f"{folder}/{name}")
    return set(names)


def found(tree, word):
    """The names that `man -k` finds, as name.section."""
    done = subprocess.run(["mapropos", "-M", tree, word], capture_output=True, text=True)
    names = set()
    for line in done.stdout.splitlines():
        listed, section = re.match(r"(.*)\((\d)\) - ", line).groups()
        names |= {f"{name}.{section}" for name in listed.split(", ")}
    return names


def main():
    if shutil.which("mapropos") is None:
        print("skipped: mandoc is not installed")
        return 77
    with tempfile.TemporaryDirectory() as tree:
        names = install(tree)
        path = os.environ["PATH"] + ":/usr/sbin:/sbin"
        subprocess.run(["makewhatis", tree], check=True, env={**os.environ, "PATH": path})
        missing = {word: wanted - found(tree, word) for word, wanted in {"jactor": names, **WANTED}.items()}
    for word, pages in missing.items():
        if pages:
            print(f"man -k {word} does not find: {' '.join(sorted(pages))}")
    return 1 if any(missing.values()) else 0


sys.exit(main())
