"""The library and jpipe at the other end, in both directions."""

import ctypes
import re
import subprocess
import tomllib

from conftest import ROOT

import jactor

COUNT = 12000
TRAFFIC = ROOT / "tests/tools/traffic.py"


def test_messages_pass_whole_through_the_library(endpoint, library):
    """Signals, empty frames, 511 frames, a mebibyte; the receiver compares every byte."""
    there, back = endpoint + "/there", endpoint + "/back"
    pull = ctypes.c_void_p(library.j_pipe_new_pull(there.encode()))
    push = ctypes.c_void_p(library.j_pipe_new_push(back.encode()))
    with (subprocess.Popen([TRAFFIC, "check", back, "mixed"], stdout=subprocess.PIPE) as check,
          subprocess.Popen([TRAFFIC, "send", there, str(COUNT), "mixed"], stdout=subprocess.PIPE) as send):
        for _ in range(COUNT + 1):
            message = ctypes.c_void_p(library.j_msg_recv(pull))
            assert library.j_msg_send(ctypes.byref(message), push) == 0
        assert check.stdout.read().splitlines()[-1] == b"received %d lost 0 repeated 0" % COUNT
        assert send.stdout.read() == b"sent %d\n" % COUNT
    for sock in pull, push:
        library.j_sock_destroy(ctypes.byref(sock))


def test_jpipe_receives_what_python_sends(endpoint, jpipe):
    with jactor.Push(endpoint) as push:
        push.send("key", b"\xff\0")
        push.signal(200)
        push.send()
        push.send("z" * 100000, timeout=0)
        with subprocess.Popen([jpipe, "pull", "-f", "json", "-n", "4", endpoint], stdout=subprocess.PIPE) as pull:
            push.flush()
            lines = pull.stdout.read().splitlines()
    assert lines[:3] == [b'{"frames":["key",{"hex":"ff00"}]}', b'{"signal":200}', b'{"frames":[]}']
    assert len(lines[3]) > 100000


def test_python_receives_what_jpipe_sends(endpoint, jpipe, tmp_path):
    large = tmp_path / "large"
    large.write_bytes(b"0123456789abcdef" * 65536)
    with jactor.Pull(endpoint) as pull:
        subprocess.run([jpipe, "push", endpoint, "a", "", "bc"], check=True)
        subprocess.run([jpipe, "signal", endpoint, "70"], check=True)
        with subprocess.Popen([jpipe, "push", "--file", str(large), endpoint]):
            assert [pull.receive() for _ in range(3)] == [
                (b"a", b"", b"bc"), jactor.Signal(70), (large.read_bytes(),)]


def test_jpipe_continues_where_a_drained_pull_ends(endpoint, jpipe):
    with jactor.Push(endpoint) as push:
        push.send_many((str(k),) for k in range(5000))
        with jactor.Pull(endpoint) as pull:
            taken = [pull.receive(), *pull.drain()]
        done = subprocess.run([jpipe, "pull", "-n", str(5000 - len(taken)), endpoint],
                              stdout=subprocess.PIPE, check=True)
    assert [frame for frame, in taken] + done.stdout.split() == [b"%d" % k for k in range(5000)]
    assert len(taken) < 5000


def test_the_package_has_the_librarys_version():
    header = (ROOT / "libjactor/include/jactor.h").read_text(encoding="utf-8")
    version = ".".join(re.findall(r"^#define JACTOR_VERSION_\w+ (\d+)$", header, re.M))
    project = tomllib.loads((ROOT / "python/pyproject.toml").read_text(encoding="utf-8"))
    assert project["project"]["version"] == version
