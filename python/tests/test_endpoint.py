"""Names, the run directory, obstacles at the path, fork and closing."""

import ctypes
import os
import stat
import subprocess
import sys
import warnings

import pytest
from conftest import RUN_DIRECTORY

import jactor
from jactor import _endpoint

MARK = f"python-names-{os.getpid()}"


def fifo(endpoint):
    return _endpoint.fifo_path(endpoint)


@pytest.mark.parametrize("name", [
    f"ipc://{MARK}", f"@ipc://{MARK}/a", f">ipc://{MARK}/b", f"inproc://{MARK}", f"ipc://{MARK}/a\\b://c",
    f"ipc:///{MARK}", f"ipc://{MARK}-é", f"ipc://..{MARK}",
])
def test_the_library_opens_the_same_fifo(library, name):
    path = fifo(name)
    with jactor.Push(name) as push:
        sock = ctypes.c_void_p(library.j_pipe_new_pull(name.encode()))
        try:
            assert sock.value
            assert library_has_open(path) == 2
            push.send("x")
        finally:
            library.j_sock_destroy(ctypes.byref(sock))
            os.unlink(path)


def library_has_open(path):
    """How many descriptors this process has open on the file."""
    there = os.stat(path)
    count = 0
    for fd in os.listdir("/proc/self/fd"):
        try:
            here = os.stat(f"/proc/self/fd/{fd}")
        except FileNotFoundError:
            continue
        count += (here.st_dev, here.st_ino) == (there.st_dev, there.st_ino)
    return count


@pytest.mark.parametrize("name", [
    "", "ipc:", "ipc://", "://x", "@ipc", "@@ipc://x", "ipc//x", "tcp://127.0.0.1:1", "foo://x", "ipc://a,ipc://b",
    "IPC://x", " ipc://x",
])
def test_names_that_the_library_refuses_raise_value_error(library, name):
    assert not library.j_pipe_new_push(name.encode())
    for kind in (jactor.Pull, jactor.Push):
        with pytest.raises(ValueError, match="ipc"):
            kind(name)


@pytest.mark.parametrize("name", ["ipc://a\0b", "ipc://" + "x" * 251])
def test_names_that_no_file_can_have(name):
    with pytest.raises(ValueError):
        jactor.Pull(name)


def test_modes_do_not_depend_on_the_umask(endpoint):
    before = os.umask(0o077)
    try:
        with jactor.Pull(endpoint) as pull:
            assert stat.filemode(os.stat(fifo(endpoint)).st_mode) == "prw-rw-rw-"
            assert not os.get_inheritable(pull.fileno())
    finally:
        os.umask(before)


@pytest.mark.parametrize("missing", [True, False])
def test_the_run_directory_is_made(tmp_path, monkeypatch, missing):
    directory = tmp_path / "run"
    if not missing:
        directory.write_text("in the way")
    monkeypatch.setattr(_endpoint, "RUN_DIRECTORY", str(directory))
    jactor.Pull("ipc://x").close()
    assert stat.S_IMODE(directory.stat().st_mode) == 0o2777
    assert stat.S_ISFIFO((directory / "Jipc_x").stat().st_mode)


def make_file(path):
    path.write_text("x")


def make_link_to_file(path):
    make_file(path.with_name("target"))
    path.symlink_to(path.with_name("target"))


def make_link_to_fifo(path):
    os.mkfifo(path.with_name("target"))
    path.symlink_to(path.with_name("target"))


def make_link_to_nowhere(path):
    path.symlink_to(path.with_name("nowhere"))


def make_full_directory(path):
    path.mkdir()
    make_file(path / "file")


@pytest.mark.parametrize("make", [make_file, make_link_to_file, os.mkdir])
def test_what_stands_in_the_way_is_replaced(tmp_path, monkeypatch, make):
    monkeypatch.setattr(_endpoint, "RUN_DIRECTORY", str(tmp_path))
    make(tmp_path / "Jipc_x")
    jactor.Push("ipc://x").close()
    assert stat.S_ISFIFO(os.lstat(tmp_path / "Jipc_x").st_mode)
    assert make is not make_link_to_file or (tmp_path / "target").exists()


@pytest.mark.parametrize("make, advice", [
    (make_link_to_fifo, "a symbolic link stands in the way: remove it"),
    (make_link_to_nowhere, "a symbolic link stands in the way: remove it"),
    (make_full_directory, "something else stands in the way"),
])
def test_what_cannot_be_replaced_raises_os_error(tmp_path, monkeypatch, make, advice):
    monkeypatch.setattr(_endpoint, "RUN_DIRECTORY", str(tmp_path))
    make(tmp_path / "Jipc_x")
    with pytest.raises(OSError, match=advice) as caught:
        jactor.Push("ipc://x")
    assert caught.value.errno and caught.value.filename == str(tmp_path / "Jipc_x")


AS_NOBODY = """
import os, sys, jactor
os.setresuid(65534, 65534, 65534)
try:
    jactor.Pull(sys.argv[1])
except PermissionError as error:
    print(error)
"""


@pytest.mark.skipif(os.getuid() != 0, reason="only root can become another user")
def test_another_users_endpoint_raises_permission_error(endpoint):
    with jactor.Pull(endpoint):
        done = subprocess.run([sys.executable, "-c", AS_NOBODY, endpoint], capture_output=True, text=True, check=True)
    assert "only the user whose process has made an endpoint, and root, can open it" in done.stdout


def test_after_a_fork_the_child_must_open_its_own(endpoint):
    with jactor.Pull(endpoint) as pull, jactor.Push(endpoint) as push:
        push.send("one")
        push.send("two")
        assert pull.receive() == (b"one",)  # and reads "two" ahead
        pid = os.fork()
        if pid == 0:
            status = 1
            try:
                with warnings.catch_warnings(record=True) as caught:
                    warnings.simplefilter("always")
                    refused = 0
                    for call in (pull.receive, lambda: push.send("three")):
                        try:
                            call()
                        except ValueError as error:
                            refused += "before a fork" in str(error)
                    push.close()
                    pull.close()
                    with jactor.Push(endpoint) as own:
                        own.send("four")
                status = 0 if refused == 2 and not caught else 2
            finally:
                os._exit(status)
        assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0
        assert [pull.receive(), pull.receive()] == [(b"two",), (b"four",)]


def test_closing_warns_about_what_is_lost(endpoint):
    with jactor.Push(endpoint) as push:
        pull = jactor.Pull(endpoint)
        push.send_many([("one",), ("two",), jactor.Signal(3)])
        os.write(push.fileno(), b"\x05hal")
        assert pull.receive() == (b"one",)
        with pytest.warns(jactor.LossWarning, match=r"2 messages read ahead .* 4 bytes behind"):
            pull.close()
        pull.close()
        assert pull.closed
        for call in (pull.receive, pull.fileno, lambda: next(iter(pull))):
            with pytest.raises(ValueError, match="it is closed"):
                call()


def test_no_descriptor_is_left_behind(endpoint):
    before = len(os.listdir("/proc/self/fd"))
    for _ in range(3):
        jactor.Pull(endpoint).close()
        jactor.Push(endpoint)  # never closed
    with pytest.raises(OSError):
        (RUN_DIRECTORY / f"Jipc_{endpoint[6:]}-dir").mkdir()
        try:
            (RUN_DIRECTORY / f"Jipc_{endpoint[6:]}-dir" / "file").touch()
            jactor.Push(endpoint + "-dir")
        finally:
            (RUN_DIRECTORY / f"Jipc_{endpoint[6:]}-dir" / "file").unlink()
            (RUN_DIRECTORY / f"Jipc_{endpoint[6:]}-dir").rmdir()
    assert len(os.listdir("/proc/self/fd")) == before
