"""Messages and signals as bytes: no input, no output."""

import copy
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from typing import TypeAlias

MAX_SIZE = 1048576  # bytes of payload in a frame, and in a message
MAX_FRAMES = 1048576  # in a message
PIPE_BUF = 4096  # bytes that the kernel writes in one piece


class StreamError(Exception):
    """The bytes of a stream are no message. It stays out of step: nothing more can be received."""


@dataclass(frozen=True, slots=True)
class Signal:
    """A signal, in the place of a message: a number from 0 to 255."""

    value: int

    def __post_init__(self) -> None:
        if not 0 <= self.value <= 255:
            raise ValueError(f"a signal's value is 0 to 255, not {self.value}")


Message: TypeAlias = tuple[bytes, ...]
Frame: TypeAlias = bytes | bytearray | memoryview | str

_FRAME, _ANNOUNCE, _SIGNAL = 0x00, 0x40, 0x80
_SIGNALS = tuple(map(Signal, range(256)))


def _header(kind: int, size: int) -> bytes:
    if size < 16:
        return bytes((kind | size,))
    if size < 4112:
        return bytes((kind | 0x10 | size - 16 >> 8, size - 16 & 255))
    if size < 65536:
        return bytes((kind | 0x20,)) + size.to_bytes(2, "big")
    return bytes((kind | 0x30,)) + size.to_bytes(4, "big")


_SMALL_HEADERS = tuple(_header(_FRAME, size) for size in range(4112))


def _payload(frame: Frame) -> bytes:
    if isinstance(frame, str):
        return frame.encode()
    if isinstance(frame, (bytes, bytearray, memoryview)):
        return bytes(frame)
    raise TypeError(f"a frame is bytes, bytearray, memoryview or str, not {type(frame).__name__}")


def encode(message: Iterable[Frame] | Signal) -> bytes:
    """The bytes of a message, given as its frames, or of a signal. A `str` is sent as UTF-8.

    Raises ValueError where a message is above `MAX_SIZE`, and where the last of several
    frames is empty: it would arrive as a message of its own.
    """
    if isinstance(message, Signal):
        value = message.value
        return bytes((_SIGNAL | value,) if value < 64 else (0xC0, value))
    payloads = [_payload(frame) for frame in message]
    total = sum(map(len, payloads))
    if total > MAX_SIZE or len(payloads) > MAX_FRAMES:
        raise ValueError(f"{total} bytes in {len(payloads)} frames: a message has at most {MAX_SIZE} bytes "
                         f"and {MAX_FRAMES} frames; send several messages")
    if len(payloads) > 1 and not payloads[-1]:
        raise ValueError("the last of several frames is empty, and would arrive as a message of its own: "
                         "leave it out, or send a last frame that is never empty")
    parts = [] if len(payloads) == 1 else [_header(_ANNOUNCE, total)]
    for payload in payloads:
        parts += (_header(_FRAME, len(payload)), payload)
    return b"".join(parts)


def encode_frames(frames: tuple[Frame, ...]) -> bytes:
    """What `encode` does, faster for one small frame."""
    if len(frames) == 1 and type(frames[0]) is bytes and len(frames[0]) < len(_SMALL_HEADERS):
        return _SMALL_HEADERS[len(frames[0])] + frames[0]
    return encode(frames)


def encode_many(messages: Iterable[tuple[Frame, ...] | Signal]) -> Iterator[bytes]:
    """The bytes of messages and signals, as many together as fit into `PIPE_BUF`."""
    parts: list[bytes] = []
    size = 0
    for message in messages:
        data = encode(message) if isinstance(message, Signal) else encode_frames(message)
        size += len(data)
        if size > PIPE_BUF and parts:
            yield b"".join(parts)
            parts, size = [], len(data)
        parts.append(data)
    if parts:
        yield b"".join(parts)


def _take_small(data: bytes, at: int, found: list[Message | Signal]) -> tuple[int, int]:
    """Decodes small messages of one frame, as fast as Python can.

    Returns where the first other item begins, and how many bytes it takes at least: more
    than 1 only for a small message that is not whole.
    """
    end = len(data)
    while at < end and (lead := data[at]) < 0x20:
        if lead < 16:
            start = at + 1
            stop = start + lead
        elif at + 1 < end:
            start = at + 2
            stop = start + 16 + ((lead & 15) << 8) + data[at + 1]
        else:
            return at, 2
        if stop > end:
            return at, stop - at
        found.append((data[start:stop],))
        at = stop
    return at, 1


class Decoder:
    """Takes the bytes of a stream in any pieces, and makes messages of them.

    Put what arrives into `chunks`, call `decode`, and take messages from the end of `ready`.
    """

    def __init__(self) -> None:
        self.chunks: list[bytes] = []  # not decoded yet, from the beginning of a frame or message
        self.ready: list[Message | Signal] = []  # whole, the next one last
        self.fault: str | None = None  # why the bytes behind `ready` are no message
        self._need = 1  # how many bytes `chunks` has to hold before there is more to decode
        self._frames: list[bytes] | None = None  # of a message of several that is under way
        self._left = 0  # bytes that its frames still have to bring

    def missing(self) -> int:
        """How many bytes must come at least before the next message can be whole."""
        return max(1, self._need - self.undecoded()) if self.chunks else 1

    def undecoded(self) -> int:
        """How many bytes there are in `chunks`."""
        return sum(map(len, self.chunks))

    def held(self) -> int:
        """How many bytes there are behind what is ready."""
        return self.undecoded() + sum(map(len, self._frames or ()))

    def halfway(self) -> bool:
        """Whether what has come ends inside a message."""
        return self.fault is None and (self._frames is not None or self.undecoded() > 0)

    def decode(self) -> None:
        """Moves what is whole from `chunks` to `ready`, up to the first fault.

        All or nothing: an exception of a signal handler, as from Ctrl-C, changes nothing.
        """
        if not self.chunks or self.fault is not None or self.undecoded() < self._need:
            return
        data = b"".join(self.chunks)
        found: list[Message | Signal] = []
        at, need = _take_small(data, 0, found) if self._frames is None else (0, 1)
        if at == len(data) or need > 1:
            rest = [data[at:]] if at < len(data) else []
            self.chunks, self.ready, self._need = rest, found[::-1] + self.ready, need
            return
        after = copy.copy(self)
        after._frames = None if self._frames is None else self._frames.copy()
        after._run(data, at, found)
        self.__dict__ = after.__dict__

    def _run(self, data: bytes, at: int, found: list[Message | Signal]) -> None:
        self._need = 1
        while self.fault is None and self._need <= len(data) - at:
            at = self._step(data, at, found)
            if self._frames is None and self.fault is None and self._need == 1:
                at, self._need = _take_small(data, at, found)
        self.chunks = [data[at:]] if at < len(data) else []
        self.ready = found[::-1] + self.ready

    def _step(self, data: bytes, at: int, found: list[Message | Signal]) -> int:
        """Decodes what begins at `at`, and returns where it ends; or sets `_need` and returns `at`."""
        lead = data[at]
        more = lead >> 6 & 1 if lead & _SIGNAL else (0, 1, 2, 4)[lead >> 4 & 3]
        start = at + 1 + more
        number = int.from_bytes(data[at + 1:start], "big")
        if not lead & _SIGNAL:
            number += (lead & 15, 16 + ((lead & 15) << 8), 0, 0, 0)[more]
        is_frame = not lead & (_SIGNAL | _ANNOUNCE)
        stop = start + number if is_frame and number <= MAX_SIZE and start <= len(data) else start
        self._need = stop - at
        if stop > len(data):
            return at
        self._need = 1
        if not lead & _SIGNAL and number > MAX_SIZE:
            self.fault = f"a size of {number} bytes, above {MAX_SIZE}"
        elif is_frame:
            self._add(data[start:stop], found)
        elif self._frames is not None:
            self.fault = "a signal or another message inside a message"
        elif lead & _SIGNAL:
            found.append(_SIGNALS[number if more else lead & 0x3F])
        else:
            self._frames, self._left = [], number
            self._end_message(found)
        return stop

    def _add(self, payload: bytes, found: list[Message | Signal]) -> None:
        if self._frames is None:
            found.append((payload,))
        elif len(payload) > self._left:
            self.fault = f"a frame of {len(payload)} bytes where only {self._left} were announced"
        elif len(self._frames) == MAX_FRAMES:
            self.fault = f"more than {MAX_FRAMES} frames in a message"
        else:
            self._frames.append(payload)
            self._left -= len(payload)
            self._end_message(found)

    def _end_message(self, found: list[Message | Signal]) -> None:
        if self._frames is not None and self._left == 0:
            found.append(tuple(self._frames))
            self._frames = None
