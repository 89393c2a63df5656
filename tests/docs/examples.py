"""Compiles the code in a document, and runs its complete programs.

usage: examples.py DOCUMENT CC CXX DIR

DIR holds compile.rsp and link.rsp, the options of the build. In Markdown, fences
marked "c", "cpp" or "python" are code; in a manual page, every literal display is. Code
with a main(), and all Python, is a program: it must exit with status 0 and, if the text
before the next block ends in "prints:", print that block. Code below a link to a file,
as in "From [libuv.c](../examples/loops/libuv.c):", must be a part of that file, which has
its own tests, and is not compiled.
Code with asio is C++20, and skipped where asio is not installed.
Programs run with unique endpoint names, and their FIFOs are removed.
"""

import glob
import os
import re
import subprocess
import sys
import tempfile

STRICT = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", "-Wno-unused-function"]
STANDARD = {
    "c": ["-x", "c", "-std=c11", "-D_POSIX_C_SOURCE=200809L"],
    "cpp": ["-x", "c++", "-std=c++17"],
}
README_LINES = 20
ASIO = "#include <asio.hpp>\n#ifndef ASIO_HAS_CO_AWAIT\n#error no coroutines\n#endif\n"


def markdown_blocks(lines):
    """Yields (line number, language, last line of text before it, body)."""
    before, opened = "", None
    for number, line in enumerate(lines, 1):
        if opened is None and line.startswith("```"):
            opened, body = (number, line[3:].strip()), []
        elif opened is not None and line.startswith("```"):
            yield (*opened, before, body)
            opened = None
        elif opened is not None:
            body.append(line)
        elif line.strip():
            before = line.strip()


def mdoc_text(line):
    """A line of a literal display, as the reader of the manual page sees it."""
    line = re.sub(r"^\\&", "", line)
    for escape, text in (("\\(aq", "'"), ("\\-", "-"), ("\\e", "\\"), ("\\&", "")):
        line = line.replace(escape, text)
    return line


def mdoc_blocks(lines, language):
    before, body = "", None
    for number, line in enumerate(lines, 1):
        if line.startswith(".Bd -literal"):
            start, body = number, []
        elif line.startswith(".Ed") and body is not None:
            yield start, "text" if before.endswith("prints:") else language, before, body
            body = None
        elif body is not None:
            body.append(mdoc_text(line))
        else:
            before = line.strip()


def difference_from_source(document, before, text):
    """Whether `text` should be a part of a file, and what is wrong if it is not."""
    link = re.search(r"\]\((\S+)\):$", before)
    if link is None:
        return False, None
    with open(os.path.join(os.path.dirname(document), link.group(1)), encoding="utf-8") as file:
        return True, None if "\n" + text in file.read() else f"is not a part of {link.group(1)}"


def uses_asio(code):
    return "jactor_asio.hpp" in code


def asio_is_here(compiler):
    done = subprocess.run([*compiler, "-std=c++20", "-E", "-x", "c++", "-"], input=ASIO, capture_output=True, text=True)
    return done.returncode == 0


def compile_code(compiler, language, directory, code, output, program):
    source = output + "." + language
    with open(source, "w", encoding="utf-8") as file:
        file.write(code)
    standard = ["-std=c++20"] if uses_asio(code) else []
    command = [*compiler, *STANDARD[language], *standard, *STRICT, f"@{directory}/compile.rsp", source, "-o", output]
    command += ["-x", "none", f"@{directory}/link.rsp"] if program else ["-c"]
    done = subprocess.run(command, capture_output=True, text=True)
    return done.stdout + done.stderr if done.returncode else None


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, timeout=30, stdin=subprocess.DEVNULL,
                          env={**os.environ, "PYTHONPATH": "python"})
    return done.returncode, done.stdout, done.stderr


def main():
    document, cc, cxx, directory = sys.argv[1:]
    compilers = {"c": [cc], "cpp": [cxx]}
    with open(document, encoding="utf-8") as file:
        lines = file.read().splitlines()
    if document.endswith(".md"):
        blocks = markdown_blocks(lines)
    else:
        blocks = mdoc_blocks(lines, "cpp" if "_hpp" in document else "c")
    mark = f"-docs{os.getpid()}"
    failures, compiled, printed = [], 0, None
    with tempfile.TemporaryDirectory() as scratch:
        for number, language, before, body in blocks:
            where = f"{document}:{number}"
            text = "".join(line + "\n" for line in body)
            if before.endswith("prints:") and printed is not None:
                if printed != text:
                    failures.append(f"{where}: the program printed\n{printed}")
                printed = None
                continue
            code = re.sub(r'((?:ipc|inproc)://[^",]+)', rf"\g<1>{mark}", text)
            if language == "python":
                compiled += 1
                status, printed, errors = run(sys.executable, "-W", "error", "-c", code)
                if status != 0:
                    failures.append(f"{where}: exit status {status}\n{errors}")
            if language not in compilers:
                continue
            is_part, difference = difference_from_source(document, before, text)
            if is_part:
                failures += [f"{where}: {difference}"] if difference else []
                continue
            if uses_asio(text) and not asio_is_here(compilers["cpp"]):
                print(f"{where}: skipped, asio is not installed")
                continue
            if document == "README.md" and compiled == 0 and len(body) > README_LINES:
                failures.append(f"{where}: {len(body)} lines, but at most {README_LINES} are promised")
            program = re.search(r"^(int )?main\(", text, re.M) is not None
            output = f"{scratch}/example{number}"
            errors = compile_code(compilers[language], language, directory, code, output, program)
            compiled += 1
            if errors is not None:
                failures.append(f"{where}: does not compile\n{errors}")
                continue
            if program:
                status, printed, errors = run(output)
                if status != 0:
                    failures.append(f"{where}: exit status {status}\n{errors}")
    for fifo in glob.glob(f"/var/run/jactor/*{mark}"):
        os.unlink(fifo)
    print(f"{document}: {compiled} examples compiled or run")
    print("\n".join(failures))
    return 1 if failures else 0


sys.exit(main())
