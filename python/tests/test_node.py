"""The Node example at one end, this package at the other."""

import json
import shutil
import subprocess

import pytest
from conftest import ROOT
from test_wire import page_examples

import jactor
from jactor import _endpoint

NODE = shutil.which("node")
SCRIPT = ROOT / "examples" / "node" / "messages.mjs"

pytestmark = pytest.mark.skipif(NODE is None, reason="node is not installed")


def shown(message):
    if isinstance(message, jactor.Signal):
        return {"signal": message.value}
    return {"frames": [frame.decode() for frame in message]}


def write_raw(endpoint, data):
    with open(_endpoint.fifo_path(endpoint), "wb") as fifo:
        fifo.write(data)


def test_node_receives_every_example_of_the_page(endpoint):
    decoder = jactor.Decoder()
    decoder.chunks += [data for _, _, data, told in page_examples() if "null" not in told]
    decoder.decode()
    messages = decoder.ready[::-1]
    stream = b"".join(data for _, _, data, told in page_examples() if "null" not in told)
    with jactor.Push(endpoint), subprocess.Popen(
            [NODE, SCRIPT, "pull", endpoint, str(len(messages))], stdout=subprocess.PIPE) as node:
        write_raw(endpoint, stream)
        assert [json.loads(line) for line in node.stdout] == list(map(shown, messages))
    assert node.returncode == 0


@pytest.mark.parametrize("damage", ["300010000161", "42016181", "42036162630164"])
def test_node_refuses_damage(endpoint, damage):
    with jactor.Push(endpoint), subprocess.Popen(
            [NODE, SCRIPT, "pull", endpoint], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as node:
        write_raw(endpoint, b"\x02hi" + bytes.fromhex(damage))
        assert node.stdout.read() == b'{"frames":["hi"]}\n'
        assert b"damage: " in node.stderr.read()
    assert node.returncode == 1


@pytest.mark.parametrize("arguments, message", [
    (["push", "a", "", "bc"], (b"a", b"", b"bc")), (["push"], ()), (["push", ""], (b"",)),
    (["signal", "63"], jactor.Signal(63)), (["signal", "64"], jactor.Signal(64)),
    *((["push", "x" * size], (b"x" * size,)) for size in (15, 16, 271, 272, 4111, 4112, 65535, 65536, 100000)),
])
def test_node_sends(endpoint, arguments, message):
    command = [NODE, SCRIPT, arguments[0], endpoint, *arguments[1:]]
    with jactor.Pull(endpoint) as pull, subprocess.Popen(command) as node:
        assert pull.receive() == message
    assert node.returncode == 0


@pytest.mark.parametrize("arguments, error", [
    (["push", "tcp://x", "a"], b"name it as ipc://NAME"), (["push", "ENDPOINT", "a", ""], b"last of several frames"),
    (["signal", "ENDPOINT", "256"], b"a signal is 0 to 255"),
])
def test_node_says_what_is_wrong(endpoint, arguments, error):
    arguments = [endpoint if argument == "ENDPOINT" else argument for argument in arguments]
    done = subprocess.run([NODE, SCRIPT, *arguments], capture_output=True)
    assert done.returncode == 1 and error in done.stderr
