"""Messages and signals as bytes, without any input or output."""

from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from typing import TypeAlias

MAX_SIZE = 1048576  # bytes of payload in a frame, and in a message
MAX_FRAMES = 1048576  # in a message
PIPE_BUF = 4096  # bytes: a write of up to this size is never split


class StreamError(Exception):
    """The bytes of a stream are not a message. Nothing more can be received: the stream stays out of step."""


@dataclass(frozen=True, slots=True)
class Signal:
    """A signal, sent instead of a message: a number from 0 to 255."""

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


# Of the frames that fit into PIPE_BUF, by their size.
SMALL_HEADERS = tuple(_header(_FRAME, size) for size in range(PIPE_BUF - 1))


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
    if len(frames) == 1 and type(frames[0]) is bytes and len(frames[0]) < len(SMALL_HEADERS):
        return SMALL_HEADERS[len(frames[0])] + frames[0]
    return encode(frames)


def encode_many(messages: Iterable[tuple[Frame, ...] | Signal]) -> Iterator[bytes]:
    """The bytes of messages and signals, gathered in pieces of up to `PIPE_BUF`."""
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


def _read_header(data: bytes, at: int) -> tuple[int, int, int]:
    """The kind of the item at `at`, its size or value, and where its header ends, which may be after `data`."""
    lead = data[at]
    kind = _SIGNAL if lead & _SIGNAL else lead & _ANNOUNCE
    more = lead >> 6 & 1 if kind == _SIGNAL else (0, 1, 2, 4)[lead >> 4 & 3]
    end = at + 1 + more
    if end > len(data):
        return kind, 0, end
    number = int.from_bytes(data[at + 1:end], "big")
    if kind == _SIGNAL:
        number += 0 if more else lead & 63
    else:
        number += (lead & 15, 16 + ((lead & 15) << 8), 0, 0, 0)[more]
    return kind, number, end


class Decoder:
    """Turns the bytes of a stream, which may arrive in any pieces, into messages.

    Put what arrives into `chunks`, call `decode`, and take messages from the end of `ready`.
    """

    def __init__(self) -> None:
        self.chunks: list[bytes] = []  # not yet decoded; they begin with a header
        self.ready: list[Message | Signal] = []  # complete messages, the next one last
        self.fault: str | None = None  # why the bytes after `ready` are not a message
        self._need = 1  # how many bytes `chunks` must hold before more can be decoded
        self._frames: list[bytes] | None = None  # of a half-read message of several frames
        self._left = 0  # bytes of payload that it still lacks

    def missing(self) -> int:
        """How many more bytes the next message needs at least."""
        return max(1, self._need - self.undecoded()) if self.chunks else 1

    def undecoded(self) -> int:
        """How many bytes there are in `chunks`."""
        return sum(map(len, self.chunks))

    def held(self) -> int:
        """How many bytes there are after what is ready."""
        return self.undecoded() + sum(map(len, self._frames or ()))

    def halfway(self) -> bool:
        """Whether a message has been read in part."""
        return self.fault is None and (self._frames is not None or self.undecoded() > 0)

    def decode(self) -> None:
        """Moves complete messages from `chunks` to `ready`, up to the first fault.

        All or nothing: an exception of a signal handler, as from Ctrl-C, changes nothing.
        """
        if not self.chunks or self.fault is not None or self.undecoded() < self._need:
            return
        data = b"".join(self.chunks)
        at, end, need, fault = 0, len(data), 1, None
        found: list[Message | Signal] = []
        frames, left = None if self._frames is None else self._frames.copy(), self._left
        while at < end and fault is None:
            lead = data[at]
            if lead < 0x10:  # the headers of small frames, without a call
                kind, number, start = _FRAME, lead, at + 1
            elif lead < 0x20 and at + 1 < end:
                kind, number, start = _FRAME, 16 + ((lead & 15) << 8) + data[at + 1], at + 2
            else:
                kind, number, start = _read_header(data, at)
            stop = start + number if kind == _FRAME and number <= MAX_SIZE else start
            if stop > end:
                need = stop - at
                break
            if number > MAX_SIZE:
                fault = f"a size of {number} bytes, above {MAX_SIZE}"
            elif frames is None:
                if kind == _FRAME:
                    found.append((data[start:stop],))
                elif kind == _SIGNAL:
                    found.append(_SIGNALS[number])
                elif number == 0:
                    found.append(())
                else:
                    frames, left = [], number
            elif kind != _FRAME:
                fault = "a signal or another message inside a message"
            elif number > left:
                fault = f"a frame of {number} bytes where only {left} were announced"
            elif len(frames) == MAX_FRAMES:
                fault = f"more than {MAX_FRAMES} frames in a message"
            else:
                frames.append(data[start:stop])
                left -= number
                if left == 0:
                    found.append(tuple(frames))
                    frames = None
            at = stop
        # One call, which no signal handler can interrupt.
        self.__dict__.update(chunks=[data[at:]] if at < end else [], ready=found[::-1] + self.ready, fault=fault,
                             _need=need, _frames=frames, _left=left)
