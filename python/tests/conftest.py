"""What the tests share. Environment variables name the programs of the build; a test that needs
one is skipped without it."""

import glob
import itertools
import os
import pathlib
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
RUN_DIRECTORY = pathlib.Path("/var/run/jactor")

sys.path[:0] = [str(ROOT / "python"), str(ROOT / "tests" / "docs")]
os.environ["PYTHONPATH"] = str(ROOT / "python")  # for the processes that tests start
os.environ["JLOG_LEVEL"] = "0"

_numbers = itertools.count()


def pytest_sessionstart():
    try:
        RUN_DIRECTORY.mkdir(exist_ok=True)
    except OSError:
        pass
    if not os.access(RUN_DIRECTORY, os.W_OK):
        pytest.exit(f"skipped: {RUN_DIRECTORY} cannot be written", returncode=77)


@pytest.fixture
def endpoint():
    """The name of an endpoint that no other test uses. Its FIFO is removed after the test."""
    name = f"python-test-{os.getpid()}-{next(_numbers)}"
    yield f"ipc://{name}"
    for fifo in glob.glob(f"{RUN_DIRECTORY}/Jipc_{name}*"):
        os.unlink(fifo)


def program(variable):
    path = os.environ.get(variable)
    if not path:
        pytest.skip(f"{variable} does not name a program of the build")
    return path


@pytest.fixture
def jpipe():
    return program("JPIPE")


@pytest.fixture(scope="session")
def wire_reader():
    return program("WIRE_READER")


@pytest.fixture
def library():
    import ctypes
    loaded = ctypes.CDLL(program("LIBJACTOR"))
    for name in ("j_pipe_new_pull", "j_pipe_new_push"):
        getattr(loaded, name).restype = ctypes.c_void_p
        getattr(loaded, name).argtypes = (ctypes.c_char_p,)
    loaded.j_sock_destroy.argtypes = (ctypes.POINTER(ctypes.c_void_p),)
    loaded.j_msg_recv.restype = ctypes.c_void_p
    loaded.j_msg_recv.argtypes = (ctypes.c_void_p,)
    loaded.j_msg_send.argtypes = (ctypes.POINTER(ctypes.c_void_p), ctypes.c_void_p)
    return loaded
