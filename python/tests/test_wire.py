"""Rules, and the taking apart of streams."""

import random
import tracemalloc

import fuzz_wire
import pytest
from conftest import framed, message

from klvmsg.rules import Rule, Rules
from klvmsg.wire import Decoder

RULES = "Tick=8; Frame = length(2, 2, big);Hello=length(0,8,little,8); Nothing=0; a=b=length(1,1,little,)"


def test_rules_say_what_they_say_to_the_dissector() -> None:
    rules = Rules.parse(RULES)
    assert rules.of("Tick").size(b"") == 8
    assert rules.of("Frame").size(b"\xab\xcd\x01\x02") == 4 + 0x102
    assert rules.of("Hello").size(bytes([3, 1, 0, 0, 0, 0, 0, 0])) == 8 + 0x103 + 8
    assert rules.of("a=b").size(b"\xff\x05") == 2 + 5
    assert rules.of("Note") == Rules.DEFAULT and rules.of("Note").wrap(b"xyz") == framed(b"xyz")
    assert Rules.parse("*=3").of("Note").size(b"") == 3
    for bad in ("Tick", "Tick=-8", "=8", "Tick=length(0,3,little)", "Tick=length(0,4,native)",
                "Tick=8 bytes", "Tick=\u0663"):  # fmt: skip
        with pytest.raises(ValueError):
            Rules.parse("Note=4;" + bad)


def test_bodies_that_break_their_rule_are_refused() -> None:
    assert Rule.parse("length(2,2,big)").wrap(b"ab\0\1x") == b"ab\0\1x"
    assert Rule.parse("length(0,2,big)").unwrap(b"\0\1x") == b"x"
    for rule, body in (("8", b"1234567"), ("length(2,2,big)", b"ab\0"), ("length(2,2,big)", b"ab\0\1xy"),
                       ("length(0,1,big)", bytes(256))):  # fmt: skip
        with pytest.raises(ValueError):
            Rule.parse(rule).wrap(body)
    with pytest.raises(ValueError, match="too few to hold the length"):
        Rule.parse("length(2,2,big)").wrap(b"ab\0")


def test_a_stream_may_be_cut_anywhere() -> None:
    seed = random.randrange(1 << 32)
    rng = random.Random(seed)
    rules = Rules.parse(RULES)
    for _ in range(200):
        wanted, wire, starts = [], b"", []
        for _ in range(rng.randrange(1, 12)):
            name, body = rng.choice([
                (b"Tick", b"12345678"), (b"Nothing", b""), (b"Frame", b"ab\0\x03xyz"),
                (b"Note", framed(rng.randbytes(rng.randrange(300)))), (b"\xff\x1b" * 100, framed(b"")),
                (b"Hello", (5).to_bytes(8, "little") + bytes(13)), (b"a=b", b"\0\x04abcd")])  # fmt: skip
            starts.append(len(wire))
            wire += message(name, body)
            wanted.append((name.decode("utf-8", "surrogateescape"), len(body), body))
        decoder, silent, found, begun, position = Decoder(rules, 1000), Decoder(rules, 0), [], [], 0
        while position < len(wire):
            piece = wire[position : position + rng.choice([1, 2, 3, 7, 50, 5000])]
            found += decoder.feed(piece)
            silent.feed(memoryview(piece))
            begun += [position + start for start in decoder.starts]
            position += len(piece)
            header = wire[max(start for start in starts if start < position) : position]
            whole = len(header) >= 4 and len(header) >= 4 + int.from_bytes(header[:4], "little")
            assert decoder.header_bytes == (0 if whole else len(header)), f"seed {seed}"
        assert (found, begun) == (wanted, starts), f"seed {seed}"
        assert silent.between_messages and silent.lost is None


@pytest.mark.parametrize(
    "lost, why",
    [(bytes(4) + b"name", "name of 0 bytes"), (b"\0\1\0\0" + b"n" * 256, "name of 256 bytes"),
     (message(b"Ti\0ck", b""), "the byte 0x00"), (b"\xff\xff\xff\xffx", "name of 4294967295 bytes"),
     (message(b"Note", b"\xff\xff\xff\xff"), "a body of Note with 4294967299 bytes"),
     (message(b"Vast", b""), "a body of Vast with more than")],
)  # fmt: skip
def test_a_header_that_cannot_be_one_ends_the_messages(lost: bytes, why: str) -> None:
    decoder = Decoder(Rules.parse("Tick=8;Vast=length(4000000000,4,little)"), 1000)
    tick = message(b"Tick", bytes(8))
    assert [found.type for found in decoder.feed(tick + tick[:5])] == ["Tick"]
    assert [found.type for found in decoder.feed(tick[5:] + lost)] == ["Tick"]
    assert decoder.lost is not None and why in decoder.lost and "after Tick with 8" in decoder.lost
    assert decoder.feed(tick) == [] and decoder.header_bytes == 0


def test_bodies_that_are_not_kept_take_no_memory() -> None:
    decoder = Decoder(Rules(), 6)
    piece, size = bytes(65536), 48 << 20
    tracemalloc.start()
    for _ in range(3):
        decoder.feed(message(b"Big", size.to_bytes(4, "little")))
        for _ in range(size // len(piece)):
            found = decoder.feed(piece)
        assert found == [("Big", 4 + size, size.to_bytes(4, "little") + bytes(2))]
    peak = tracemalloc.get_traced_memory()[1]
    tracemalloc.stop()
    assert peak < 1 << 20
    decoder = Decoder(Rules(), 2)  # less than tells the length of a body
    assert decoder.feed(message(b"Note", framed(b"abc"))) == [("Note", 7, b"\3\0")]


@pytest.mark.parametrize("seed", range(20))
def test_pieces_of_any_size_give_the_same_messages(seed: int) -> None:
    """Whole messages in a piece take another way than those in pieces."""
    chance = random.Random(seed)
    rules = Rules.parse("Fixed=5;None=0;Late=length(2,2,big,3)")
    wanted, wire = [], b""
    for _ in range(200):
        content = chance.randbytes(chance.choice((0, 1, 7, 300)))
        name, body = chance.choice((
            ("Fixed", bytes(5)), ("None", b""), ("Note", framed(content)), ("Notes", framed(content)),
            ("Late", b"ab" + len(content).to_bytes(2, "big") + content + b"xyz"),
        ))  # fmt: skip
        wanted.append((name, len(body), body[:9]))
        wire += message(name.encode(), body)
    wire += message(b"Note", framed(bytes(1000)))
    decoder, found, starts, at = Decoder(rules, keep=9, max_body=999), [], [], 0
    while at < len(wire):
        size = chance.choice((1, 3, 40, 5000))
        found += decoder.feed(memoryview(wire)[at : at + size])
        starts += [at + start for start in decoder.starts]
        at += size
    assert found == wanted and len(starts) == 201
    assert all(wire[start + 4 :].startswith(name.encode()) for start, (name, _, _) in zip(starts, wanted))
    name, length, _ = wanted[-1]
    assert decoder.lost and "Note with 1004 bytes" in decoder.lost
    assert decoder.lost.endswith(f"after {name} with {length} bytes")


def test_streams_from_a_seed_give_what_a_model_of_them_gives() -> None:
    assert fuzz_wire.fuzz(1) > 0
