"""The same for asyncio: `async with`, `async for`, and an `await` before each call that waits.

    async with jactor.aio.Pull("ipc://sensors/temp") as pull:
        async for message in pull:
            print(message)

Time limits are asyncio's: `asyncio.timeout`. A task that is cancelled in a receive loses
nothing. Several tasks of one loop may use a `Pull` or `Push`; they take turns.
"""

import asyncio
import select
from collections.abc import Callable, Iterable
from typing import Self

from ._endpoint import Endpoint, Reader, Steps, Writer
from ._sock import LAST_WAIT
from ._wire import Frame, Message, Signal, encode, encode_many

__all__ = ["Pull", "Push"]

RUNS_IN_A_ROW = 16  # before other tasks get a turn


class _Asynchronous(Endpoint):
    """Waits for the FIFO in asyncio's loop, which has the descriptor only during a wait."""

    def __init__(self, endpoint: str) -> None:
        self._turn = asyncio.Lock()
        self._stop_waiting: Callable[[], None] | None = None
        self._until_pause = RUNS_IN_A_ROW
        super().__init__(endpoint)

    async def aclose(self) -> None:
        """Closes the endpoint, with a `LossWarning` when that loses what has been read ahead."""
        self._close()

    async def __aenter__(self) -> Self:
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.aclose()

    async def _run(self, steps: Steps) -> None:
        """Runs the steps to their end. Lets other tasks run now and then even if there is no wait."""
        self._until_pause -= 1
        if self._until_pause < 0:
            self._until_pause = RUNS_IN_A_ROW
            await asyncio.sleep(0)
        for event in steps:
            await self._wait(event)

    async def _wait(self, event: int) -> None:
        """Returns when the FIFO is ready, or another task has closed it."""
        loop, fd = asyncio.get_running_loop(), self.fileno()
        add, remove = ((loop.add_reader, loop.remove_reader) if event == select.POLLIN else
                       (loop.add_writer, loop.remove_writer))
        ready = loop.create_future()

        def stop() -> None:
            self._stop_waiting = None
            remove(fd)
            if not ready.done():
                ready.set_result(None)

        add(fd, stop)
        self._stop_waiting = stop
        try:
            await ready
        finally:
            if self._stop_waiting is stop:
                stop()

    def _close(self) -> None:
        if self._stop_waiting is not None and not self.closed:
            self._stop_waiting()
        super()._close()

    def _forget(self) -> None:
        self._stop_waiting = None  # the child shares what its parent's loop waits with
        super()._forget()


class Pull(_Asynchronous, Reader):
    """Receives from an endpoint as `jactor.Pull` does, in `async with` and `async for`."""

    async def receive(self) -> Message | Signal:
        """Waits for the next message or signal. Cancelling it loses nothing, even inside a message.

        Raises StreamError for bytes that are not a message.
        """
        while not self._decoder.ready:
            async with self._turn:
                await self._run(self._fetch())
        message = self._decoder.ready[-1]
        del self._decoder.ready[-1]
        return message

    def __aiter__(self) -> Self:
        return self

    __anext__ = receive

    async def drain(self) -> list[Message | Signal]:
        """Returns what has been read ahead, as `jactor.Pull.drain` does."""
        async with self._turn:
            await self._run(self._complete())
            return self._take_all()


class Push(_Asynchronous, Writer):
    """Sends to an endpoint as `jactor.Push` does, in `async with`."""

    async def send(self, *frames: Frame) -> None:
        """Sends a message of these frames, and waits for room.

        When it is cancelled, nothing of the message is sent, or it has begun: then its rest,
        `pending` bytes, goes out before the next message, or with `flush`. Raises ValueError
        for what no message can carry; see `jactor.encode`.
        """
        await self._send(encode(frames))

    async def signal(self, value: int) -> None:
        """Sends a signal, 0 to 255, as `send` does a message."""
        await self._send(encode(Signal(value)))

    async def send_many(self, messages: Iterable[tuple[Frame, ...] | Signal]) -> None:
        """Sends messages and signals as `jactor.Push.send_many` does."""
        for data in encode_many(messages):
            await self._send(data)

    async def flush(self) -> None:
        """Finishes a message that has begun."""
        async with self._turn:
            await self._run(self._finish())

    async def aclose(self) -> None:
        """Closes the endpoint. The rest of a message that has begun gets a second; its loss is a `LossWarning`."""
        try:
            if self.pending and not self.closed:
                await asyncio.wait_for(self.flush(), LAST_WAIT)
        except TimeoutError:
            pass
        finally:
            self._close()

    async def _send(self, data: bytes) -> None:
        async with self._turn:
            await self._run(self._begin(data))
            await self._run(self._finish())
