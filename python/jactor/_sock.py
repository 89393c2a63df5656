"""Receiving and sending that wait in the calling thread."""

import contextlib
import math
import os
import select
import time
from collections.abc import Iterable, Iterator
from os import write
from typing import Self

from ._endpoint import Endpoint, Reader, Steps, Writer
from ._wire import PIPE_BUF, SMALL_HEADERS, Frame, Message, Signal, encode, encode_many

FAST = 0.0001  # seconds: about what it takes to fall asleep and wake up
YIELDS = 10  # attempts with a fast partner, before falling asleep
LAST_WAIT = 1.0  # seconds that closing gives to the rest of a message

_NONE = memoryview(b"")  # stands for the first frame of a message without frames


class _Blocking(Endpoint):
    """Waits for the FIFO. Ctrl-C and other exceptions from signal handlers end a wait."""

    _partner_is_fast = False  # the last wait was short
    _is_blocking = False

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self._close()

    def _run(self, steps: Steps, deadline: float | None) -> None:
        """Runs the steps to their end. Raises TimeoutError at the deadline, of time.monotonic."""
        self._set_blocking(False)  # in case an exception came before it
        began = time.monotonic()
        yields = 0 if deadline is not None and deadline <= began else YIELDS if self._partner_is_fast else 1
        try:
            for event in steps:
                if yields > 0:
                    yields -= 1
                    os.sched_yield()  # lets the partner run, if it shares our processor
                elif deadline is None:
                    self._set_blocking(True)
                else:
                    self._poll(event, deadline)
        finally:
            self._set_blocking(False)
        self._partner_is_fast = time.monotonic() - began < FAST

    def _set_blocking(self, blocking: bool) -> None:
        """Lets reads and writes wait, or not. With poll(2) every later write to the FIFO would take longer."""
        if blocking != self._is_blocking and not self.closed:
            self._is_blocking = True
            os.set_blocking(self._fd, blocking)
            self._is_blocking = blocking

    def _poll(self, event: int, deadline: float) -> None:
        poll = select.poll()
        poll.register(self.fileno(), event)
        if not poll.poll(math.ceil(1000 * max(0.0, deadline - time.monotonic()))):
            raise TimeoutError(f"{self.endpoint}: the time limit has passed")


def _deadline(timeout: float | None) -> float | None:
    return None if timeout is None else time.monotonic() + timeout


class Pull(_Blocking, Reader):
    """Receives from an endpoint: `Pull("ipc://NAME")`, best in a `with` statement.

    It reads ahead: what it holds when it is closed is lost, with a `LossWarning`; `drain`
    returns that. One process reads an endpoint, with one `Pull` that lives as long as the
    endpoint is in use. One thread at a time uses it.

    Raises ValueError for a bad name, OSError where the system refuses.
    """

    def receive(self, timeout: float | None = None) -> Message | Signal:
        """Waits for the next message or signal, `timeout` seconds at most; 0 waits for nothing.

        Raises TimeoutError, also inside a message; whatever has come is kept for the next
        call. Ctrl-C ends it in the same way. Raises StreamError for bytes that are not a message.
        """
        if not self._decoder.ready:
            self._run(self._fetch(), _deadline(timeout))
        # No call from here on: nowhere for an exception from a signal handler to come between.
        message = self._decoder.ready[-1]
        del self._decoder.ready[-1]
        return message

    def __iter__(self) -> Iterator[Message | Signal]:
        """Receives forever."""
        while True:  # as receive does, without the call
            if not self._decoder.ready:
                self._run(self._fetch(), None)
            message = self._decoder.ready[-1]
            del self._decoder.ready[-1]
            yield message

    def drain(self, timeout: float | None = None) -> list[Message | Signal]:
        """Returns what has been read ahead, so that closing loses nothing.

        Takes no more from the FIFO than the rest of a half-read message, so that the next
        reader begins at a message. Waits `timeout` seconds for that rest; then it raises
        TimeoutError, and nothing is lost.
        """
        self._run(self._complete(), _deadline(timeout))
        return self._take_all()

    def close(self) -> None:
        """Closes the endpoint, with a `LossWarning` when that loses what has been read ahead."""
        self._close()


class Push(_Blocking, Writer):
    """Sends to an endpoint: `Push("ipc://NAME")`, best in a `with` statement.

    A message of at most `PIPE_BUF` (4,096) bytes on the wire, headers included, is written
    at once. A larger one goes in parts: whole and in order, but only for one writer. Where
    several write to an endpoint, all their messages have to be small, or they get mixed and
    the reader is out of step. What nobody has received when the last process closes the
    endpoint is lost. One thread at a time uses it.

    Raises ValueError for a bad name, OSError where the system refuses.
    """

    def send(self, frame: Frame = _NONE, /, *more: Frame, timeout: float | None = None) -> None:
        """Sends a message of these frames, and waits for room, `timeout` seconds at most.

        Raises TimeoutError when there was no room; nothing of the message is sent then. When
        it has begun by then, it returns: the rest, `pending` bytes, goes out before the next
        message or with `flush`. A send that Ctrl-C ends has sent all or nothing, or the rest
        follows in the same way. Raises ValueError for what no message can carry; see `encode`.
        """
        # The usual case: each name and call saved here shows in the rate.
        if type(frame) is bytes and timeout is None and not more and not self._written:
            try:
                write(self._fd, SMALL_HEADERS[len(frame)] + frame)
                return
            except (IndexError, OSError):  # it is larger, there is no room, or the endpoint is closed
                pass
        self._send(encode(() if frame is _NONE else (frame, *more)), timeout)

    def signal(self, value: int, timeout: float | None = None) -> None:
        """Sends a signal, 0 to 255, as `send` does a message."""
        self._send(encode(Signal(value)), timeout)

    def send_many(self, messages: Iterable[tuple[Frame, ...] | Signal]) -> None:
        """Sends messages and signals in their order, several times as fast as one by one.

        As many small ones as fit into `PIPE_BUF` bytes go out with one write, so that several
        writers stay safe with it. An exception leaves some of them sent.
        """
        for data in encode_many(messages):
            self._send(data, None)

    def flush(self, timeout: float | None = None) -> None:
        """Finishes a message that has begun. If it raises TimeoutError, the rest is kept."""
        self._run(self._finish(), _deadline(timeout))

    def close(self) -> None:
        """Closes the endpoint. The rest of a message that has begun gets a second; its loss is a `LossWarning`."""
        try:
            if self.pending and not self.closed:
                self.flush(LAST_WAIT)
        except TimeoutError:
            pass
        finally:
            self._close()

    def _send(self, data: bytes, timeout: float | None) -> None:
        if len(data) <= PIPE_BUF and not self._written:
            self._set_blocking(False)  # as in _run
            try:
                write(self.fileno(), data)
                return
            except BlockingIOError:
                pass
        deadline = _deadline(timeout)
        self._run(self._begin(data), deadline)
        with contextlib.suppress(TimeoutError):
            self._run(self._finish(), deadline)
