"""From an endpoint's name to the open FIFO, in the same steps as libjactor, and what
blocking calls and asyncio have in common when they receive and send."""

import os
import select
import stat
import warnings
import weakref
from collections.abc import Callable, Iterator
from typing import TypeAlias

from ._wire import Decoder, Message, Signal, StreamError

RUN_DIRECTORY = "/var/run/jactor"
READ_AHEAD = 16384  # bytes that a reader takes beyond what it needs


class LossWarning(UserWarning):
    """Closing a `Pull` or `Push` lost messages, or the rest of one."""


def fifo_path(endpoint: str) -> str:
    """Where the FIFO of an endpoint is. Raises ValueError for what does not name one."""
    if "," in endpoint:
        raise ValueError(f"{endpoint!r} has a comma: name one endpoint, as ipc://NAME")
    if len(os.fsencode(endpoint)) <= 4 or "\0" in endpoint:
        raise ValueError(f"{endpoint!r} is not an endpoint: name it as ipc://NAME")
    name = endpoint[1:] if endpoint[0] in "@>" else endpoint
    transport, _, path = name.partition("://")
    if not transport or not path:
        raise ValueError(f"{endpoint!r} is not an endpoint: name it as ipc://NAME")
    if transport not in ("inproc", "ipc"):
        raise ValueError(f"{endpoint!r}: the transport {transport!r} is not supported, only ipc and inproc; "
                         "jpipe export and jpipe import carry an endpoint to another machine")
    file = f"J{transport}_{path}".replace("/", "_").replace("\\", "_")
    if len(os.fsencode(file)) > 255:
        raise ValueError(f"{endpoint!r} is too long: it makes a file name of more than 255 bytes")
    return f"{RUN_DIRECTORY}/{file}"


def _ensure(path: str, is_right: Callable[[int], bool], make: Callable[[str], None]) -> bool:
    """Makes the path what it should be, replacing whatever else is there. Returns whether it is new."""
    try:
        if is_right(os.stat(path).st_mode):
            return False
        if stat.S_ISDIR(os.lstat(path).st_mode):
            os.rmdir(path)
        else:
            os.unlink(path)
    except (FileNotFoundError, NotADirectoryError):
        pass
    try:
        make(path)
    except FileExistsError:  # another process was faster, or a link dangles: opening will tell
        return False
    return True


def _make_run_directory(path: str) -> None:
    os.mkdir(path)
    os.chmod(path, 0o2777)


def _open_fifo(path: str, is_new: bool) -> int:
    fd = os.open(path, os.O_RDWR | os.O_NOFOLLOW | os.O_NOATIME | os.O_CLOEXEC | os.O_NONBLOCK)
    try:
        if not stat.S_ISFIFO(os.fstat(fd).st_mode):
            raise OSError(0, "not a FIFO any more", path)
        if is_new:
            os.fchmod(fd, 0o666)  # whatever the umask
    except BaseException:
        os.close(fd)
        raise
    return fd


def open_endpoint(endpoint: str) -> int:
    """Opens the FIFO of an endpoint, making it if it is missing, without waiting for a partner.

    Returns a descriptor for both directions, non-blocking and closed by exec. Raises
    ValueError for a bad name, and OSError, which says what to do, where the system refuses.
    """
    path = fifo_path(endpoint)
    step = "make the run directory"
    try:
        _ensure(RUN_DIRECTORY, stat.S_ISDIR, _make_run_directory)
        step = "make the FIFO"
        is_new = _ensure(path, stat.S_ISFIFO, os.mkfifo)
        step = "open the FIFO"
        return _open_fifo(path, is_new)
    except OSError as error:
        advice = _advice(error, path, step)
        raise OSError(error.errno, f"cannot {step} of {endpoint}: {error.strerror}; {advice}", path) from error


def _advice(error: OSError, path: str, step: str) -> str:
    if step == "make the run directory":
        return f"only root can make {RUN_DIRECTORY}: have systemd-tmpfiles make it when the machine starts"
    if os.path.islink(path):
        return "a symbolic link stands in the way: remove it"
    if isinstance(error, PermissionError) and step == "open the FIFO":
        return "only the user whose process has made an endpoint, and root, can open it: be that user, or remove it"
    if isinstance(error, PermissionError):
        return f"this user may not write to {RUN_DIRECTORY}"
    return "something else stands in the way, or it was exchanged at this moment: look at it, and open it again"


class Endpoint:
    """An open endpoint. After a fork the child's copy is closed: each process opens its own."""

    _fd = -1
    _why_closed = "it is closed"

    def __init__(self, endpoint: str) -> None:
        self.endpoint = endpoint
        self._fd = open_endpoint(endpoint)
        _open.add(self)

    def __del__(self) -> None:
        self._close()

    def fileno(self) -> int:
        """The descriptor, for an event loop of your own.

        It is non-blocking, except while a call without a time limit waits: do not pass it to
        code or to a process that wants to block. When it is readable, call
        `receive(timeout=0)` until it raises TimeoutError: `Pull` reads ahead, and the
        descriptor does not show what it holds. Raises ValueError when closed.
        """
        if self._fd < 0:
            raise ValueError(f"{self.endpoint}: {self._why_closed}")
        return self._fd

    @property
    def closed(self) -> bool:
        return self._fd < 0

    def _close(self) -> None:
        """Closes, with a warning if that loses anything."""
        fd, self._fd = self._fd, -1
        if fd >= 0:
            os.close(fd)
            loss = self._discard()
            if loss:
                warnings.warn(f"{self.endpoint}: closed with {loss}", LossWarning, stacklevel=4)

    def _discard(self) -> str:
        """Drops what is held, and says what it was."""
        return ""

    def _forget(self) -> None:
        """In the child of a fork: what was read ahead or half sent belongs to the parent."""
        self._discard()
        self._close()
        self._why_closed = "opened before a fork, by the parent process: open the endpoint in this one"


_open: weakref.WeakSet[Endpoint] = weakref.WeakSet()


def _after_fork() -> None:
    for endpoint in list(_open):
        endpoint._forget()


os.register_at_fork(after_in_child=_after_fork)

# An operation that may have to wait is a generator of the poll(2) events to wait for;
# blocking calls and asyncio run it in their own ways.
Steps: TypeAlias = Iterator[int]


class Reader(Endpoint):
    """Takes messages from an endpoint, without waiting."""

    def __init__(self, endpoint: str) -> None:
        self._decoder = Decoder()
        super().__init__(endpoint)

    def _read(self, ahead: int) -> bool:
        """Reads from the FIFO once, and decodes. Returns whether there was anything."""
        decoder = self._decoder
        try:
            # One call: between two, an exception, as from Ctrl-C, would lose the bytes.
            decoder.chunks.extend(map(os.read, (self.fileno(),), (decoder.missing() + ahead,)))
        except BlockingIOError:
            return False
        decoder.decode()
        return True

    def _fetch(self) -> Steps:
        """Reads until something is ready. Raises StreamError where the next bytes are not a message."""
        self._decoder.decode()  # in case an exception came before it
        while not self._decoder.ready:
            if self._decoder.fault is not None:
                raise StreamError(f"{self.endpoint}: {self._decoder.fault}; the stream is out of step: close "
                                  "everything that has the endpoint open, or run jpipe drain, and open it again")
            if not self._read(READ_AHEAD):
                yield select.POLLIN

    def _complete(self) -> Steps:
        """Reads the rest of a half-read message, and no more."""
        self._decoder.decode()
        while self._decoder.halfway():
            if not self._read(0):
                yield select.POLLIN

    def _take_all(self) -> list[Message | Signal]:
        ready, self._decoder.ready = self._decoder.ready[::-1], []
        return ready

    def _discard(self) -> str:
        whole, rest = len(self._decoder.ready), self._decoder.held()
        self._decoder = Decoder()
        return (f"{whole} messages read ahead and not received, and {rest} bytes behind them; "
                "they are lost. Call drain() before" if whole or rest else "")


class Writer(Endpoint):
    """Puts messages into an endpoint, without waiting."""

    def __init__(self, endpoint: str) -> None:
        self._under_way = b""
        self._written: list[int] = []  # how many bytes each write took
        super().__init__(endpoint)

    @property
    def pending(self) -> int:
        """How many bytes of a message that has begun are still to be written."""
        return len(self._under_way) - sum(self._written) if self._written else 0

    def _write(self) -> bool:
        """Writes more of the message under way. Returns whether there was room for any of it."""
        rest = memoryview(self._under_way)[sum(self._written):]
        try:
            # One call, as in _read: what was written is recorded, whatever comes next.
            self._written.extend(map(os.write, (self.fileno(),), (rest,)))
        except BlockingIOError:
            return False
        return True

    def _begin(self, data: bytes) -> Steps:
        """Finishes the message under way, and writes at least the beginning of the next."""
        yield from self._finish()
        self._under_way = data
        while not self._write():
            yield select.POLLOUT

    def _finish(self) -> Steps:
        """Writes the rest of a message that has begun."""
        while self.pending:
            if not self._write():
                yield select.POLLOUT
        self._written = []

    def _discard(self) -> str:
        pending, self._written = self.pending, []
        return (f"{pending} bytes of a message not sent, since nobody made room for them; "
                "its reader is out of step. Run jpipe drain" if pending else "")
