"""Checks the grammar of docs/wire-format.md against the library.

usage: wire_grammar.py READER

The page's fence "abnf" is read as ABNF and used as it is to generate and decode streams;
the fence "abnf sent" has the rules that differ for a writer. The page's rules about
numbers, called size, length, sum, limit and shortest, are implemented below under the same
names. READER receives the streams through the library. It must take a generated stream
whole, and of a damaged one what the grammar derives. What it sends on must match the
writer's grammar, and so must the page's examples of what is sent, which lie at the limits
of each form.
"""

import os
import random
import re
import subprocess
import sys

import wire_format

LIMIT = 1048576
SIZES = ("frame-size", "announce-size")


# Reading ABNF: a rule is ("or", [x...]), ("row", [x...]), ("times", least, most, x),
# ("byte", low, high) or ("rule", name).

def tokens(text):
    text = re.sub(r";.*", "", text)
    return re.findall(r"%x[0-9A-F]{2}(?:-[0-9A-F]{2})?|\d*\*\d*|\d+|[A-Za-z][A-Za-z0-9-]*|[()/]", text)


def parse_choice(words):
    choices = [parse_row(words)]
    while words and words[0] == "/":
        words.pop(0)
        choices.append(parse_row(words))
    return ("or", choices)


def parse_row(words):
    row = []
    while words and words[0] not in "/)":
        row.append(parse_element(words))
    return ("row", row)


def parse_element(words):
    word = words.pop(0)
    if word[0].isdigit() or word[0] == "*":
        least, star, most = word.partition("*")
        least = int(least or 0)
        return ("times", least, (int(most) if most else None) if star else least, parse_element(words))
    if word == "(":
        inner = parse_choice(words)
        words.pop(0)
        return inner
    if word.startswith("%x"):
        low, _, high = word[2:].partition("-")
        return ("byte", int(low, 16), int(high or low, 16))
    return ("rule", word)


def read_rules(fence):
    with open("docs/wire-format.md", encoding="utf-8") as file:
        text = re.search(rf"^```{fence}\n(.*?)^```", file.read(), re.M | re.S).group(1)
    rules = {}
    for name, definition in re.findall(r"^([a-z0-9A-Z-]+) *=((?:.*\n)(?: .*\n)*)", text, re.M):
        words = tokens(definition)
        rules[name] = parse_choice(words)
        assert not words, f"cannot read the rule {name} at {words}"
    return rules


# The numbers.

def size(header):
    """Rule "size": the number in the bytes of a frame-size or announce-size."""
    form, low = header[0] >> 4 & 3, header[0] & 15
    if form == 0:
        return low
    if form == 1:
        return 16 + 256 * low + header[1]
    return int.from_bytes(header[1:], "big")


def shortest(value):
    """Rule "shortest": how long a writer's header is."""
    return 1 if value < 16 else 2 if value < 4112 else 3 if value < 65536 else 5


class NoMatch(Exception):
    pass


class Decoder:
    """Takes what the grammar derives from the front of `data`."""

    def __init__(self, rules, data, sent=False):
        self.rules, self.data, self.at, self.sent = rules, data, 0, sent
        self.size = self.sum = self.frames = self.announced = 0
        self.payloads = []

    def take(self, node, inside):
        kind = node[0]
        if kind == "byte":
            if not (self.at < len(self.data) and node[1] <= self.data[self.at] <= node[2]):
                raise NoMatch
            self.at += 1
        elif kind == "rule":
            self.take_rule(node[1])
        elif kind == "row":
            for part in node[1]:
                self.take(part, inside)
        elif kind == "or":
            self.take_first(node[1], inside)
        else:
            self.take_times(node, inside)

    def take_first(self, choices, inside):
        for choice in choices:
            start = self.at
            try:
                return self.take(choice, inside)
            except NoMatch:
                # The first byte tells the forms apart: a fault after it is final.
                if self.at > start:
                    raise
        raise NoMatch

    def take_times(self, node, inside):
        _, least, most, part = node
        if inside == "payload":  # rule "length"
            if self.at + self.size > len(self.data):
                raise NoMatch
            self.at += self.size
            return
        count = 0
        while count < least or (most is None and self.sum < self.announced):  # rule "sum"
            self.take(part, inside)
            count += 1

    def take_rule(self, name):
        start = self.at
        self.take(self.rules[name], name)
        if name in SIZES:
            header = self.data[start:self.at]
            self.size = size(header)
            if self.size > LIMIT or (self.sent and len(header) != shortest(self.size)):
                raise NoMatch  # rules "limit" and "shortest"
        if name == "announce":
            self.announced = self.size
        elif name == "frame":
            self.frames += 1
            self.payloads.append(self.data[self.at - self.size:self.at])
            self.sum += self.size
            if self.announced is not None and self.sum > self.announced or self.frames > LIMIT:
                raise NoMatch  # rules "sum" and "limit"

    def next(self):
        """The next message as the reader prints it, or None."""
        start, self.sum, self.frames, self.announced, self.payloads = self.at, 0, 0, None, []
        for name in ("message", "signal"):
            self.at = start
            try:
                self.take_rule(name)
            except NoMatch:
                continue
            if name == "signal":
                data = self.data[start:self.at]
                return b"signal %d\n" % (data[1] if len(data) > 1 else data[0] & 63)
            return b"message" + b"".join(map(shown, self.payloads)) + b"\n"
        self.at = start
        return None

    def derives_all(self):
        self.all()
        return self.at == len(self.data)

    def all(self):
        lines = []
        while self.at < len(self.data) and (line := self.next()) is not None:
            lines.append(line)
        return lines


def shown(payload):
    return b' "%s"*%d' % (payload[:1], len(payload)) if len(payload) > 16 else b' "%s"' % payload


class Generator:
    """Derives streams from the grammar, with the numbers that they need."""

    def __init__(self, rules, seed):
        self.rules, self.random = rules, random.Random(seed)
        self.size = 0

    def make(self, node, inside, most_bytes):
        kind = node[0]
        if kind == "byte":
            low, high = node[1:]
            return bytes([self.random.choice((low, low, low, high, self.random.randint(low, high)))])
        if kind == "rule":
            return self.make_rule(node[1], most_bytes)
        if kind == "row":
            return b"".join(self.make(part, inside, most_bytes) for part in node[1])
        if kind == "or":
            return self.make(self.random.choice(node[1]), inside, most_bytes)
        return self.make_times(node, inside, most_bytes)

    def make_times(self, node, inside, most_bytes):
        _, least, most, part = node
        if most is not None:
            return b"".join(self.make(part, inside, most_bytes) for _ in range(least))
        if inside == "payload":
            return bytes([self.random.choice(b'x"\n\0\xff')]) * self.size
        if inside == "message":
            made, left = b"", self.size
            while left > 0:
                made += self.make(part, inside, left)
                left -= self.size
            return made
        return b"".join(self.make(part, inside, most_bytes) for _ in range(self.random.randint(1, 4)))

    def make_rule(self, name, most_bytes):
        if name == "announce-size":
            most_bytes = min(most_bytes, 40)
        while True:
            made = self.make(self.rules[name], name, most_bytes)
            if name not in SIZES or size(made) <= most_bytes:
                break
        if name in SIZES:
            self.size = size(made)
        return made


def damaged(data, chance):
    data = bytearray(data)
    at = chance.randrange(len(data) + 1)
    kind = chance.randrange(4)
    if kind == 0:
        return bytes(data[:at])
    if kind == 1:
        data.insert(at, chance.randrange(256))
    elif at < len(data) and kind == 2:
        data[at] ^= 1 << chance.randrange(8)
    elif at < len(data):
        del data[at]
    return bytes(data)


def library_differs(reader, rules, sent_rules, data):
    """How the library's decoding of `data` differs from the grammar's, or None."""
    lines = Decoder(rules, data).all()
    done = subprocess.run(reader, input=data, capture_output=True, timeout=60,
                          env={**os.environ, "JLOG_LEVEL": "0"})
    if done.returncode != 0 or not re.fullmatch(re.escape(b"".join(lines)) + rb"null, \d+ bytes behind\n",
                                                done.stdout):
        return f"the grammar says {lines}\nthe library says {done.stdout!r}"
    again = Decoder(sent_rules, done.stderr, sent=True)
    if again.all() != lines or again.at < len(done.stderr):
        return f"it sends {done.stderr[:80].hex(' ')}, not as a writer should"
    return None


def main():
    rules = read_rules("abnf")
    sent_rules = {**rules, **read_rules("abnf sent")}
    chance = random.Random(1)
    # The last lead byte of every form, followed by bytes that suit each of them.
    behind = bytes(4) + b"\x0f" + b"x" * 15 + b"\x1e\xf1" + b"x" * 3841
    streams = [bytes([lead]) + behind for lead in range(15, 256, 16)]
    together, taken = b"", 0
    for seed in range(240):
        data = Generator(rules, seed).make_rule("stream", LIMIT if seed % 40 == 0 else 5000)
        taken += len(Decoder(rules, data).all())
        assert Decoder(rules, data).derives_all(), f"the grammar does not derive what it generates: {data.hex(' ')}"
        together += data
        streams += [damaged(data, chance)] if seed % 2 else [together] if seed % 40 == 38 else []
    failures = [f"line {number}: the writer's grammar does not derive it"
                for number, fence, data, _ in wire_format.examples()
                if fence == "wire sent" and not Decoder(sent_rules, data, sent=True).derives_all()]
    for stream in streams + [together]:
        if (difference := library_differs(sys.argv[1], rules, sent_rules, stream)) is not None:
            failures.append(f"{stream[:80].hex(' ')} ({len(stream)} bytes):\n{difference[:600]}")
    print(f"{taken} messages and signals generated, {len(streams)} streams compared")
    print("\n".join(failures[:10]))
    return 1 if failures or taken == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
