"""Blocking Pull and Push: order, time limits, half messages, interrupts."""

import os
import signal
import subprocess
import sys
import threading

import pytest

import jactor
from jactor import _endpoint

STREAM = (b"\x02hi" + b"\x87" + b"\xc0\xf0" + b"\x40" + b"\x43\x00\x01a\x02bc" + b"\x10\x04" + b"x" * 20
          + b"\x50\x02\x10\x00" + b"y" * 16 + b"\x02zz")
MESSAGES = [(b"hi",), jactor.Signal(7), jactor.Signal(240), (), (b"", b"a", b"bc"), (b"x" * 20,),
            (b"y" * 16, b"zz")]
LARGE = bytes(range(256)) * 4096


@pytest.fixture
def pull(endpoint):
    with jactor.Pull(endpoint) as opened:
        yield opened


@pytest.fixture
def push(endpoint):
    with jactor.Push(endpoint) as opened:
        yield opened


def receive_all(pull):
    found = []
    try:
        while True:
            found.append(pull.receive(timeout=0))
    except TimeoutError:
        return found


def test_messages_and_signals_arrive_in_order(pull, push):
    push.send(b"21.5", "Celsius")
    push.signal(3)
    push.send()
    push.send_many(MESSAGES)
    assert receive_all(pull) == [(b"21.5", b"Celsius"), jactor.Signal(3), (), *MESSAGES]


@pytest.mark.parametrize("size", [0, 15, 16, 4094, 4095, 4111, 4112, 60000])
def test_frames_of_all_sizes_arrive(pull, push, size):
    payload = LARGE[:size]
    for frame in (payload, bytearray(payload), memoryview(payload)):
        push.send(frame, timeout=0)
        assert pull.receive(timeout=0) == (payload,)


def test_iteration_waits_for_messages(pull, endpoint):
    code = "import sys, jactor\nwith jactor.Push(sys.argv[1]) as push:\n  for k in range(2000): push.send(str(k))"
    with subprocess.Popen([sys.executable, "-c", code, endpoint]):
        for k, message in enumerate(pull):
            assert message == (str(k).encode(),)
            if k == 1999:
                break


def test_a_time_limit_inside_a_message_loses_nothing(pull):
    for at in range(len(STREAM)):
        os.write(pull.fileno(), STREAM[:at])
        found = receive_all(pull)
        with pytest.raises(TimeoutError, match="time limit"):
            pull.receive(timeout=0.001)
        os.write(pull.fileno(), STREAM[at:])
        assert found + receive_all(pull) == MESSAGES


def test_drain_stops_at_the_end_of_a_message(endpoint):
    for at in range(len(STREAM) + 1):
        with jactor.Push(endpoint) as push:
            with jactor.Pull(endpoint) as pull:
                os.write(push.fileno(), STREAM + STREAM[:at])
                assert pull.receive() == MESSAGES[0]
                os.write(push.fileno(), STREAM[at:])
                taken = pull.drain()
                assert pull.drain() == []
            with jactor.Pull(endpoint) as successor:
                rest = receive_all(successor)
        assert taken[:len(MESSAGES) - 1] == MESSAGES[1:]
        assert taken + rest == MESSAGES[1:] + MESSAGES


def test_drain_keeps_everything_at_its_time_limit(pull):
    os.write(pull.fileno(), STREAM + b"\x05hal")
    assert pull.receive() == MESSAGES[0]
    with pytest.raises(TimeoutError):
        pull.drain(timeout=0)
    os.write(pull.fileno(), b"f!" + STREAM)
    assert pull.drain() == [*MESSAGES[1:], (b"half!",)]
    assert receive_all(pull) == MESSAGES


@pytest.mark.parametrize("damage, error", [
    (b"\x30\x00\x10\x00\x01", "above 1048576"),
    (b"\x70\xff\xff\xff\xff", "above 1048576"),
    (b"\x42\x01a\x81", "inside a message"),
    (b"\x42\x01a\x41", "inside a message"),
    (b"\x42\x03abc", "only 2 were announced"),
])
def test_damage_is_reported_after_the_messages_before_it(pull, damage, error):
    os.write(pull.fileno(), STREAM + damage + b"\x01z")
    for message in MESSAGES:
        assert pull.receive(timeout=0) == message
    for _ in range(2):
        with pytest.raises(jactor.StreamError, match=error):
            pull.receive(timeout=0)
    assert pull.drain() == []
    with pytest.warns(jactor.LossWarning):
        pull.close()


def test_a_large_message_goes_through_while_it_is_received(pull, endpoint):
    def send():
        with jactor.Push(endpoint) as push:
            for _ in range(3):
                push.send(LARGE[:500000], "", LARGE[500000:])
                push.send(LARGE)

    sender = threading.Thread(target=send)
    sender.start()
    for _ in range(3):
        assert pull.receive() == (LARGE[:500000], b"", LARGE[500000:])
        assert pull.receive() == (LARGE,)
    sender.join()


def fill(push):
    """Leaves no room for another byte."""
    try:
        while True:
            push.send(b"x" * 4094, timeout=0)
    except TimeoutError:
        pass


def test_a_send_without_room_sends_nothing(pull, push):
    fill(push)
    with pytest.raises(TimeoutError):
        push.send("late", timeout=0.001)
    assert push.pending == 0
    before = len(receive_all(pull))
    push.send("last")
    assert before > 0 and receive_all(pull) == [(b"last",)]


def test_the_rest_of_a_message_follows_before_the_next(pull, push):
    push.send(LARGE, timeout=0)
    assert push.pending > 0
    with pytest.raises(TimeoutError):
        push.send("next", timeout=0)
    while push.pending:
        with pytest.raises(TimeoutError):
            pull.receive(timeout=0)
        try:
            push.flush(timeout=0)
        except TimeoutError:
            pass
    push.send("next")
    assert receive_all(pull) == [(LARGE,), (b"next",)]


def test_closing_with_half_a_message_warns(pull, endpoint, monkeypatch):
    monkeypatch.setattr("jactor._sock.LAST_WAIT", 0.001)
    push = jactor.Push(endpoint)
    push.send(LARGE, timeout=0)
    with pytest.warns(jactor.LossWarning, match="its reader is out of step"):
        push.close()
    with pytest.raises(TimeoutError):
        pull.receive(timeout=0)
    with pytest.warns(jactor.LossWarning, match="bytes behind"):
        pull.close()


class Interrupt(Exception):
    pass


@pytest.fixture
def interrupts():
    """Every 300 microseconds raises an exception, as Ctrl-C does, if the package is running."""
    package = os.path.dirname(_endpoint.__file__)
    count = [0]

    def handler(_, frame):
        if frame.f_code.co_filename.startswith(package) and frame.f_code.co_name != "__del__":
            count[0] += 1
            raise Interrupt

    before = signal.signal(signal.SIGALRM, handler)
    signal.setitimer(signal.ITIMER_REAL, 0.0003, 0.0003)
    yield count
    signal.setitimer(signal.ITIMER_REAL, 0)
    signal.signal(signal.SIGALRM, before)


def test_interrupts_at_any_moment_lose_and_repeat_nothing(pull, endpoint, interrupts):
    code = ("import sys, jactor\n"
            "with jactor.Push(sys.argv[1]) as push:\n"
            "  for k in range(30000): push.send(str(k), b'x' * (20000 if k % 100 == 0 else 20))\n")
    with subprocess.Popen([sys.executable, "-c", code, endpoint]):
        k = 0
        while k < 30000:
            try:
                number, payload = pull.receive()
            except Interrupt:
                continue
            assert int(number) == k and len(payload) == (20000 if k % 100 == 0 else 20)
            k += 1
    assert interrupts[0] > 10


def test_interrupted_sends_are_completed_or_never_begin(push, endpoint, interrupts):
    code = ("import sys, jactor\n"
            "with jactor.Pull(sys.argv[1]) as pull:\n"
            "  print('ready', flush=True)\n"
            "  last = -1\n"
            "  for message in pull:\n"
            "    if message == (b'end',): break\n"
            "    assert len(message[1]) == 150000, len(message[1])\n"
            "    assert int(message[0]) > last, (last, message[0])\n"
            "    last = int(message[0])\n"
            "  print(last)\n")
    with subprocess.Popen([sys.executable, "-c", code, endpoint], stdout=subprocess.PIPE, text=True) as receiver:
        assert receiver.stdout.readline() == "ready\n"
        k = 0
        payload = b"y" * 150000
        while interrupts[0] < 100 or k < 200:
            try:
                push.send(str(k), payload)
            except Interrupt:
                pass
            k += 1
        signal.setitimer(signal.ITIMER_REAL, 0)
        push.send(str(k), payload)
        push.send("end")
        assert receiver.stdout.read() == f"{k}\n"


def test_an_interrupted_wait_leaves_time_limits_alone(pull, push, monkeypatch):
    """Even if the interrupt is what prevents the descriptor from becoming non-blocking again."""
    def interrupted(fd, blocking, set_blocking=os.set_blocking):
        if not blocking:
            raise Interrupt
        set_blocking(fd, blocking)

    def interrupt(*_):
        raise Interrupt

    def waits_and_is_interrupted(call):
        before = signal.signal(signal.SIGALRM, interrupt)
        with monkeypatch.context() as patch, pytest.raises(Interrupt):
            patch.setattr(os, "set_blocking", interrupted)
            signal.setitimer(signal.ITIMER_REAL, 0.02)
            call()
        signal.signal(signal.SIGALRM, before)

    waits_and_is_interrupted(pull.receive)
    with pytest.raises(TimeoutError):
        pull.receive(timeout=0)
    fill(push)
    for message in ("text", b"bytes"):
        waits_and_is_interrupted(lambda: push.send("more"))
        with pytest.raises(TimeoutError):
            push.send(message, timeout=0)
    assert not os.get_blocking(push.fileno())


def test_ctrl_c_ends_a_receive(endpoint):
    code = ("import sys, jactor\n"
            "with jactor.Pull(sys.argv[1]) as pull:\n"
            "  try:\n"
            "    print(pull.receive(), flush=True)\n"
            "    pull.receive()\n"
            "  except KeyboardInterrupt: print('interrupted', flush=True)\n"
            "  print(pull.receive())\n")
    with jactor.Push(endpoint) as push, subprocess.Popen(
            [sys.executable, "-c", code, endpoint], stdout=subprocess.PIPE, text=True) as receiver:
        os.write(push.fileno(), b"\x01a\x04ha")
        assert receiver.stdout.readline() == "(b'a',)\n"
        receiver.send_signal(signal.SIGINT)
        assert receiver.stdout.readline() == "interrupted\n"
        os.write(push.fileno(), b"lf")
        assert receiver.stdout.read() == "(b'half',)\n"
