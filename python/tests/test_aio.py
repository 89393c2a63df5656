"""asyncio: waiting alongside other tasks, cancellation at every wait, closing."""

import asyncio
import os
import subprocess
import sys

import pytest

import jactor
from jactor import aio

LARGE = b"0123456789abcdef" * 65536
MESSAGES = [(b"hi",), jactor.Signal(7), (), (b"", b"a", b"bc"), (b"x" * 5000,)]
STREAM = b"".join(map(jactor.encode, MESSAGES))


def run(test):
    """Runs a coroutine function with the endpoint's name, within a time limit."""
    def runner(endpoint):
        async def limited():
            async with asyncio.timeout(60):
                await test(endpoint)
        asyncio.run(limited())
    runner.__name__, runner.__doc__ = test.__name__, test.__doc__
    return runner


async def settle():
    """Lets every task run up to its next wait for the FIFO."""
    for _ in range(5):
        await asyncio.sleep(0)


async def ends_in(kind, task):
    with pytest.raises(kind):
        await task


@run
async def test_messages_arrive_in_order(endpoint):
    async with aio.Pull(endpoint) as pull, aio.Push(endpoint) as push:
        async def send():
            for k in range(300):
                await push.send(str(k), LARGE[:k * 50 + 1])
            await push.signal(9)
            await push.send_many(MESSAGES)

        sending, k = asyncio.create_task(send()), 0
        async for message in pull:
            if message == jactor.Signal(9):
                break
            assert message == (str(k).encode(), LARGE[:k * 50 + 1])
            k += 1
        assert k == 300 and [await pull.receive() for _ in MESSAGES] == MESSAGES
        await sending


@run
async def test_a_cancelled_receive_loses_nothing(endpoint):
    async with aio.Pull(endpoint) as pull:
        for at in range(0, len(STREAM), 7):
            os.write(pull.fileno(), STREAM[:at])
            found = []

            async def receive():
                async for message in pull:
                    found.append(message)

            task = asyncio.create_task(receive())
            await settle()
            task.cancel()
            await ends_in(asyncio.CancelledError, task)
            os.write(pull.fileno(), STREAM[at:])
            found += [await pull.receive() for _ in range(len(MESSAGES) - len(found))]
            assert found == MESSAGES


@run
async def test_half_a_message_does_not_block_the_loop(endpoint):
    async with aio.Pull(endpoint) as pull:
        os.write(pull.fileno(), b"\x04ha")
        with pytest.raises(TimeoutError):
            async with asyncio.timeout(0.001):
                await pull.receive()
        waiting = asyncio.create_task(pull.receive())
        await settle()
        os.write(pull.fileno(), b"lf")
        assert await waiting == (b"half",)


@run
async def test_an_endless_stream_does_not_starve_other_tasks(endpoint):
    code = "import sys, jactor\nwith jactor.Push(sys.argv[1]) as push:\n  while True: push.send('x' * 100)"
    async with aio.Pull(endpoint) as pull, aio.Push(endpoint + "-2") as push, aio.Pull(endpoint + "-2") as other:
        sender = subprocess.Popen([sys.executable, "-c", code, endpoint])
        counts = {"received": 0, "sent": 0, "other": 0}

        async def receive():
            async for _ in pull:
                counts["received"] += 1

        async def send():
            while True:
                await push.send("y")
                counts["sent"] += 1

        async def receive_other():
            async for _ in other:
                counts["other"] += 1

        tasks = [asyncio.create_task(one()) for one in (receive, send, receive_other)]
        while min(counts.values()) < 2000:
            await asyncio.sleep(0)
        for task in tasks:
            task.cancel()
            await ends_in(asyncio.CancelledError, task)
        sender.kill()
        sender.wait()
        for end in (pull, other):
            end._discard()


@run
async def test_a_cancelled_send_sends_nothing_or_is_completed_later(endpoint):
    async with aio.Push(endpoint) as push, aio.Pull(endpoint) as pull:
        task = asyncio.create_task(push.send(LARGE))
        await settle()
        task.cancel()
        await ends_in(asyncio.CancelledError, task)
        assert push.pending > 0
        waiting = asyncio.create_task(push.send("small"))  # must wait until the rest is sent
        await settle()
        waiting.cancel()
        await ends_in(asyncio.CancelledError, waiting)
        last = asyncio.create_task(push.send("last"))
        assert [await pull.receive(), await pull.receive()] == [(LARGE,), (b"last",)]
        await last
        assert push.pending == 0


@run
async def test_tasks_take_turns(endpoint):
    """What several tasks send arrives whole, and each message reaches one task."""
    async with aio.Push(endpoint) as push, aio.Pull(endpoint) as pull:
        found = []

        async def receive(count):
            for _ in range(count):
                found.append(await pull.receive())

        async with asyncio.TaskGroup() as group:
            for letter in "abcd":
                group.create_task(receive(5))
                for _ in range(5):
                    group.create_task(push.send(letter * 300000))
        assert sorted(found) == [((letter * 300000).encode(),) for letter in "abcd" for _ in range(5)]


@run
async def test_drain_waits_for_the_rest_of_a_message(endpoint):
    async with jactor_pair(endpoint) as (push, pull):
        os.write(push.fileno(), STREAM + b"\x04ha")
        assert await pull.receive() == MESSAGES[0]
        draining = asyncio.create_task(pull.drain())
        await settle()
        os.write(push.fileno(), b"lf" + STREAM)
        assert await draining == [*MESSAGES[1:], (b"half",)]
        async with aio.Pull(endpoint) as successor:
            assert [await successor.receive() for _ in MESSAGES] == MESSAGES


class jactor_pair:
    def __init__(self, endpoint):
        self.push, self.pull = aio.Push(endpoint), aio.Pull(endpoint)

    async def __aenter__(self):
        return self.push, self.pull

    async def __aexit__(self, *_):
        await self.push.aclose()
        await self.pull.aclose()


@run
async def test_closing_ends_a_wait_and_leaves_nothing_in_the_loop(endpoint):
    before = len(os.listdir("/proc/self/fd"))
    pull = aio.Pull(endpoint)
    waiting = asyncio.create_task(pull.receive())
    await settle()
    await pull.aclose()
    await ends_in(ValueError, waiting)
    assert len(os.listdir("/proc/self/fd")) == before
    async with aio.Pull(endpoint) as again:
        os.write(again.fileno(), b"\x01a\x05ha")
        assert await again.receive() == (b"a",)
        with pytest.warns(jactor.LossWarning, match="3 bytes behind"):
            await again.aclose()


@run
async def test_closing_gives_a_started_message_time_to_be_completed(endpoint):
    async with aio.Pull(endpoint) as pull:
        push = aio.Push(endpoint)
        task = asyncio.create_task(push.send(LARGE))
        await settle()
        task.cancel()
        await ends_in(asyncio.CancelledError, task)
        closing = asyncio.create_task(push.aclose())
        assert await pull.receive() == (LARGE,)
        await closing


@run
async def test_a_fork_does_not_disturb_the_parents_wait(endpoint):
    async with aio.Pull(endpoint) as pull, aio.Push(endpoint) as push:
        waiting = asyncio.create_task(pull.receive())
        await settle()
        pid = os.fork()
        if pid == 0:
            try:
                waiting.get_coro().close()
            finally:
                os._exit(not pull.closed)
        assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0
        await push.send("after")
        async with asyncio.timeout(10):
            assert await waiting == (b"after",)
