"""Messages over the named endpoints of libjactor, in pure Python.

    with jactor.Push("ipc://sensors/temp") as push:
        push.send(b"21.5", "Celsius")

    with jactor.Pull("ipc://sensors/temp") as pull:
        for message in pull:
            print(message)

A message is a tuple of `bytes`, one for each frame; a signal is a `Signal`. `jactor.aio`
has the same for asyncio.
"""

from ._endpoint import LossWarning
from ._sock import Pull, Push
from ._wire import MAX_FRAMES, MAX_SIZE, PIPE_BUF, Decoder, Message, Signal, StreamError, encode

__all__ = ["MAX_FRAMES", "MAX_SIZE", "PIPE_BUF", "Decoder", "LossWarning", "Message", "Pull", "Push",
           "Signal", "StreamError", "encode"]
