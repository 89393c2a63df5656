#!/usr/bin/python3 -B
"""Sends numbered messages to an endpoint, or receives them and compares every byte, using
the Python package. Also plays the peers that a bridge has to withstand.

    traffic.py send ENDPOINT COUNT SHAPE

sends COUNT messages, or fewer if SIGTERM stops it, then a signal that marks the end, and
prints how many it has sent.

    traffic.py check ENDPOINT SHAPE

receives them up to that signal, prints a line every 200 messages, and at the end how many
different ones arrived, how many are missing and how many were repeated.

SHAPE is "mixed" (anything that the wire can carry; all must arrive, in order) or "numbered"
(messages that carry their number and fit into PIPE_BUF).

    traffic.py dealer|push ADDRESS BYTES...

sends one-part messages, with \\xHH for a byte, on a ZeroMQ socket of that type. A dealer
prints the reason for which it is refused, and tries again if that gets lost with its
connection; a push connects again and again until it is killed.

    traffic.py endless ADDRESS

sends a message of endless parts until the other side closes the connection, then prints
"ended". Each part has one byte: that costs the receiver the most memory for each byte sent.
"""

import random
import signal
import socket
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))

import jactor  # noqa: E402

END = jactor.Signal(255)
random.seed(0)  # both ends make the same messages


def mixed(k):
    """Message k: anything that the wire can carry, the rare and large kinds now and then."""
    number, some_bytes = random.randrange, random.randbytes
    if k % 11 == 3:
        return jactor.Signal(number(END.value))
    if k % 4999 == 7:
        return some_bytes(70000), b"", some_bytes(jactor.MAX_SIZE - 70000)
    if k % 499 == 9:
        return (b"x",) * 511
    count = number(6)
    # The wire cannot tell an empty frame at the end from a separate message.
    sizes = [number(40) if f < count else number(200) + (count > 1) for f in range(1, count + 1)]
    return tuple(map(some_bytes, sizes))


def make(k, shape):
    if shape == "mixed":
        return mixed(k)
    random.seed(k)
    return b"%d" % k, random.randbytes(1 + random.randrange(3000))


def send(endpoint, count, shape):
    stopped = []
    signal.signal(signal.SIGTERM, lambda *_: stopped.append(True))
    sent = 0

    def messages():
        nonlocal sent
        while sent < int(count) and not stopped:
            sent += 1
            yield make(sent - 1, shape)
        yield END

    with jactor.Push(endpoint) as push:
        push.send_many(messages())
    print("sent", sent)


def check(endpoint, shape):
    after = lost = repeated = 0
    with jactor.Pull(endpoint) as pull:
        for count, message in enumerate(pull, 1):
            if message == END:
                print("received", after - lost, "lost", lost, "repeated", repeated)
                break
            k = int(message[0]) if shape == "numbered" else after
            if message != make(k, shape):
                sys.exit(f"message {after} is not the one that was sent")
            if k < after:
                repeated += 1
                continue
            lost += k - after
            after = k + 1
            if count % 200 == 0:
                print(count, flush=True)


def send_parts(kind, address, *words):
    import zmq  # not needed for endpoints

    parts = [word.encode("latin-1").decode("unicode_escape").encode("latin-1") for word in words]
    answer = b""
    while answer[4:5] != b"R":
        with zmq.Context() as context, context.socket(zmq.PUSH if kind == "push" else zmq.DEALER) as sock:
            sock.linger = 0
            sock.connect(address)
            for part in parts:
                sock.send(part)
            if kind == "push":
                signal.pause()  # while ZeroMQ connects again and again
            # An answer may be lost with its connection: then this peer connects again.
            while answer[4:5] != b"R" and sock.poll(10000):
                answer = sock.recv()
    print(answer[5:].decode())


def endless(address):
    host, port = address.removeprefix("tcp://").rsplit(":", 1)
    with socket.create_connection((host, int(port))) as sock:
        # ZMTP 3.0: the greeting without security, and a DEALER's READY command.
        sock.sendall(b"\xff\0\0\0\0\0\0\0\1\x7f\3\0NULL".ljust(64, b"\0"))
        sock.sendall(b"\4\x1c\5READY\x0bSocket-Type\0\0\0\6DEALER")
        sock.recv(94, socket.MSG_WAITALL)  # its greeting, and most of its READY
        try:
            while True:
                sock.sendall(1000 * b"\1\1x")  # one-byte parts, with more to come
        except OSError:
            print("ended")


if sys.argv[1] in ("dealer", "push"):
    send_parts(*sys.argv[1:])
else:
    {"send": send, "check": check, "endless": endless}[sys.argv[1]](*sys.argv[2:])
