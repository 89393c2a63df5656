#!/usr/bin/python3 -B
"""Sends numbered messages to an endpoint, or receives them and compares every byte, with the
Python package; and plays the far ends of a bridge that jpipe has to stand.

    traffic.py send ENDPOINT COUNT SHAPE

sends COUNT messages, or fewer when it is told to stop with SIGTERM, and a signal as their
end, and prints how many it were.

    traffic.py check ENDPOINT SHAPE

receives them up to that signal, prints a line for every 200, and in the end how many there
were, how many are missing, and how many came again.

SHAPE is "mixed" (anything that the wire can carry, each in its order, none missing) or
"numbered" (messages that name themselves and fit into PIPE_BUF).

    traffic.py dealer|push ADDRESS BYTES...

sends messages of one part, with \\xHH for a byte, on such a socket, and prints what comes
back first, if anything may.

    traffic.py endless ADDRESS

sends a message whose parts do not end, until the other side ends the connection, and prints
"ended"; its parts have one byte, where memory is used most for what is sent.
"""

import random
import signal
import socket
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))

import jactor  # noqa: E402

END = jactor.Signal(255)
random.seed(0)  # both ends make the same


def mixed(k):
    """What the wire can carry, the rare and large kinds now and then."""
    number, some_bytes = random.randrange, random.randbytes
    if k % 11 == 3:
        return jactor.Signal(number(END.value))
    if k % 4999 == 7:
        return some_bytes(70000), b"", some_bytes(jactor.MAX_SIZE - 70000)
    if k % 499 == 9:
        return (b"x",) * 511
    count = number(6)
    # The wire cannot tell an empty frame at the end from a message of its own.
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
                sys.exit(f"other bytes than were sent at message {after}")
            if k < after:
                repeated += 1
                continue
            lost += k - after
            after = k + 1
            if count % 200 == 0:
                print(count, flush=True)


def send_parts(kind, address, *words):
    import zmq  # what only endpoints need goes without

    with zmq.Context() as context, context.socket(zmq.PUSH if kind == "push" else zmq.DEALER) as sock:
        ended = sock.get_monitor_socket(zmq.EVENT_DISCONNECTED | zmq.EVENT_HANDSHAKE_FAILED_PROTOCOL)
        sock.linger = 0
        sock.connect(address)
        for word in words:
            sock.send(word.encode("latin-1").decode("unicode_escape").encode("latin-1"))
        if kind == "push":
            ended.recv_multipart()
            return
        while (answer := sock.recv())[4:5] != b"R":
            pass
        print(answer[5:].decode())


def endless(address):
    host, port = address.removeprefix("tcp://").rsplit(":", 1)
    with socket.create_connection((host, int(port))) as sock:
        # ZMTP 3.0: the greeting with no security, and the command READY of a DEALER.
        sock.sendall(b"\xff\0\0\0\0\0\0\0\1\x7f\3\0NULL".ljust(64, b"\0"))
        sock.sendall(b"\4\x1c\5READY\x0bSocket-Type\0\0\0\6DEALER")
        sock.recv(94, socket.MSG_WAITALL)  # its greeting, and most of its READY
        try:
            while True:
                sock.sendall(1000 * b"\1\1x")  # parts of one byte, and more to come
        except OSError:
            print("ended")


if sys.argv[1] in ("dealer", "push"):
    send_parts(*sys.argv[1:])
else:
    {"send": send, "check": check, "endless": endless}[sys.argv[1]](*sys.argv[2:])
