"""Sends a message through an endpoint and receives it, with the package that Python finds."""

import os

import jactor

name = f"ipc://round-trip-{os.getpid()}"
with jactor.Pull(name) as pull, jactor.Push(name) as push:
    os.unlink(f"/var/run/jactor/Jipc_{name[6:]}")
    push.send("21.5", "Celsius")
    assert pull.receive(timeout=10) == (b"21.5", b"Celsius")
typed = os.path.join(os.path.dirname(jactor.__file__), "py.typed")
assert os.path.exists(typed), typed
print("the Python package in", os.path.dirname(jactor.__file__), "sends and receives")
