"""The decoder and the encoder, against docs/wire-format.md and the library."""

import os
import re
import subprocess

import hypothesis
import pytest
import wire_format
from conftest import ROOT
from hypothesis import strategies

import jactor
from jactor._wire import encode_many


def decode(*pieces):
    """The messages that a decoder finds in the pieces, and the decoder."""
    decoder, found = jactor.Decoder(), []
    for piece in pieces:
        decoder.chunks.append(piece)
        decoder.decode()
        found += reversed(decoder.ready)
        decoder.ready.clear()
    return found, decoder


def shown(message):
    """As wire_reader and the page write it."""
    if isinstance(message, jactor.Signal):
        return f"signal {message.value}"
    return "message" + "".join(
        f' "{frame[:1].decode()}"*{len(frame)}' if len(frame) > 16 else f' "{frame.decode()}"'
        for frame in message)


def page_examples():
    before = os.getcwd()
    os.chdir(ROOT)
    try:
        return list(wire_format.examples())
    finally:
        os.chdir(before)


@pytest.mark.parametrize("line, fence, data, told", page_examples())
def test_every_example_of_the_page(line, fence, data, told):
    *messages, last = told.split("; ")
    behind = re.fullmatch(r"null, (\d+) bytes behind", last)
    if behind is None:
        messages.append(last)
    found, decoder = decode(data)
    assert list(map(shown, found)) == messages
    if behind is None:
        assert decoder.fault is None and not decoder.halfway()
    else:
        assert decoder.fault or decoder.halfway()
        assert int(behind[1]) == (decoder.undecoded() if decoder.fault else 0)
    if fence == "wire sent":
        assert b"".join(map(jactor.encode, found)) == data
        assert b"".join(encode_many(found)) == data


def test_a_stream_may_arrive_in_any_pieces():
    stream = b"".join(data for _, _, data, told in page_examples() if len(data) < 9000 and "null" not in told)
    whole, _ = decode(stream)
    for cut in range(len(stream)):
        assert decode(stream[:cut], stream[cut:])[0] == whole
    found, decoder = decode(*(stream[at:at + 1] for at in range(len(stream))))
    assert found == whole and not decoder.halfway()


SIZES = strategies.sampled_from((0, 1, 2, 15, 16, 17, 271, 272, 4111, 4112, 65535, 65536)) | strategies.integers(0, 40)


@strategies.composite
def items(draw):
    """A frame, an announce or a signal, in any form, correct or not."""
    lead = draw(strategies.integers(0, 255))
    if lead & 0x80:
        return bytes((lead,)) + (draw(strategies.binary(min_size=1, max_size=1)) if lead & 0x40 else b"")
    size, form = draw(SIZES), lead >> 4 & 3
    if form == 0:
        size &= 15
        header = bytes((lead & 0x70 | size,))
    elif form == 1:
        size = 16 + size % 4096
        header = bytes((lead & 0x70 | size - 16 >> 8, size - 16 & 255))
    else:
        size %= 65536 if form == 2 else 1 << 20
        header = bytes((lead,)) + size.to_bytes(2 if form == 2 else 4, "big")
    return header if lead & 0x40 else header + draw(strategies.sampled_from((b"x", b"y"))) * size


@hypothesis.settings(max_examples=150, deadline=None, database=None, derandomize=True)
@hypothesis.given(strategies.lists(items() | strategies.binary(max_size=8), max_size=12).map(b"".join),
                  strategies.lists(strategies.integers(0, 200), max_size=3))
def test_the_decoder_agrees_with_the_library(wire_reader, stream, cuts):
    pieces, at = [], 0
    for cut in cuts:
        pieces.append(stream[at:at + cut])
        at += cut
    found, decoder = decode(*pieces, stream[at:])
    behind = decoder.undecoded() if decoder.fault else 0
    done = subprocess.run([wire_reader], input=stream, capture_output=True, timeout=60, check=True)
    mine = [f"signal {m.value}".encode() if isinstance(m, jactor.Signal) else
            b"message" + b"".join(b' "%s"*%d' % (f[:1], len(f)) if len(f) > 16 else b' "%s"' % f for f in m)
            for m in found]
    assert done.stdout == b"".join(line + b"\n" for line in [*mine, b"null, %d bytes behind" % behind])
    assert done.stderr == b"".join(map(jactor.encode, found))


def test_more_frames_than_a_message_may_have_are_a_fault():
    found, decoder = decode(b"\x41" + b"\0" * jactor.MAX_FRAMES + b"\x01ab")
    assert found == [] and "more than 1048576 frames" in decoder.fault
    assert decoder.undecoded() == 1
    found, decoder = decode(b"\x41" + b"\0" * (jactor.MAX_FRAMES - 1) + b"\x01a")
    assert len(found) == 1 and len(found[0]) == jactor.MAX_FRAMES


@pytest.mark.parametrize("frames, wire", [
    ((), "40"), (("",), "00"), (("é",), "02c3a9"), ((bytearray(b"a"), memoryview(b"b")), "4201610162"),
])
def test_what_a_frame_may_be(frames, wire):
    assert jactor.encode(frames).hex() == wire


@pytest.mark.parametrize("message, error", [
    ((b"x" * 1048577,), "at most 1048576 bytes"),
    ((b"x" * 1048576, b"y"), "at most 1048576 bytes"),
    ((b"",) * 1048577, "frames"),
    ((b"a", b""), "last of several frames is empty"),
])
def test_what_no_message_can_carry_is_refused(message, error):
    with pytest.raises(ValueError, match=error):
        jactor.encode(message)


@pytest.mark.parametrize("frame", [3, None, ["a"]])
def test_other_types_of_frames_are_refused(frame):
    with pytest.raises(TypeError, match="a frame is bytes"):
        jactor.encode((frame,))


@pytest.mark.parametrize("value", [-1, 256])
def test_signals_end_at_255(value):
    with pytest.raises(ValueError, match="0 to 255"):
        jactor.Signal(value)


def test_many_messages_go_out_in_pieces_that_the_kernel_keeps_whole():
    messages = [(b"x" * size,) for size in range(0, 3000, 7)] + [jactor.Signal(200), (b"y" * 9000,), ()]
    pieces = list(encode_many(messages))
    assert decode(*pieces)[0] == messages
    assert [len(piece) > jactor.PIPE_BUF for piece in pieces].count(True) == 1
    assert len(pieces) < len(messages)
    for piece in pieces:
        assert not decode(piece)[1].halfway()
