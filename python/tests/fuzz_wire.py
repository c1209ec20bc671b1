#!/usr/bin/env python3
"""Fuzzes what takes streams apart: rules and streams from a seed, cut anywhere, against a model.

    fuzz_wire.py [SECONDS [SEED]]

The tests run it for a second. A failure names the seed, with which it happens again.
"""

from __future__ import annotations

import pathlib
import random
import sys
import time
from typing import List, Optional, Tuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "src"))

from klvmsg.rules import Rules  # noqa: E402
from klvmsg.wire import Decoder  # noqa: E402

MAX_BODY, MAX_NAME = 2000, 40
NAMES = [b"A", b"Tick", b"a=b", b"\xff\xfe", b"n" * MAX_NAME, b"Note"]
Found = List[Tuple[str, int, bytes]]


def some_rules(rng: random.Random) -> str:
    rules = []
    for name in ("A", "Tick", "a=b", "*"):
        kind = rng.randrange(3)
        if kind == 0:
            rules.append(f"{name}={rng.choice([0, 1, 8, MAX_BODY, MAX_BODY + 1])}")
        elif kind == 1:
            order, more = rng.choice(["little", "big"]), rng.choice(["", ",3"])
            offset, width = rng.choice([0, 1, 5]), rng.choice([1, 2, 4, 8])
            rules.append(f"{name}=length({offset},{width},{order}{more})")
    return ";".join(rules)


def some_stream(rng: random.Random, rules: Rules) -> bytes:
    """Mostly messages that hold to the rules; then something of them is changed."""
    wire = bytearray()
    for _ in range(rng.randrange(12)):
        name = rng.choice(NAMES)
        rule = rules.of(name.decode("utf-8", "surrogateescape"))
        if rule.fixed is not None:
            body = bytes(rule.fixed)
        else:
            length = rng.choice([0, 1, 5, 200])
            body = rng.randbytes(rule.offset) + length.to_bytes(rule.width, rule.order)
            body += rng.randbytes(length + rule.more)
        wire += len(name).to_bytes(4, sys.byteorder) + name + body
    for _ in range(rng.choice([0, 0, 1, 3])):
        if wire:
            place = rng.randrange(len(wire))
            change = rng.randrange(3)
            if change == 0:
                wire[place] = rng.choice([0, 1, 0x7F, 0xFF, rng.randrange(256)])
            elif change == 1:
                del wire[place : place + rng.randrange(1, 9)]
            else:
                wire[place:place] = rng.randbytes(rng.randrange(1, 9))
    return bytes(wire)


def model(wire: bytes, rules: Rules, keep: int) -> Tuple[Found, bool, int]:
    """The messages, whether what follows cannot be one, and where that begins."""
    found: Found = []
    at = 0
    while len(wire) - at >= 4:
        length = int.from_bytes(wire[at : at + 4], sys.byteorder)
        if not 0 < length <= MAX_NAME:
            return found, True, at
        name = wire[at + 4 : at + 4 + length]
        if len(name) < length:
            break
        if 0 in name:
            return found, True, at
        type = name.decode("utf-8", "surrogateescape")
        rule = rules.of(type)
        body = at + 4 + length
        if len(wire) - body < rule.prefix:
            break
        size = rule.size(wire[body : body + rule.prefix])
        if size > MAX_BODY:
            return found, True, at
        if len(wire) - body < size:
            break
        found.append((type, size, wire[body : body + min(size, keep)]))
        at = body + size
    return found, False, at


def one(seed: int) -> None:
    rng = random.Random(seed)
    rules = Rules.parse(some_rules(rng))
    wire = some_stream(rng, rules)
    keep = rng.choice([0, 3, MAX_BODY])
    wanted, lost, end = model(wire, rules, keep)
    decoder = Decoder(rules, keep, MAX_BODY, MAX_NAME)
    found: Found = []
    starts: List[int] = []
    position = 0
    sizes = rng.choice([[1], [1, 2, 3, 7], [50, 500], [5000]])
    while position < len(wire):
        piece = wire[position : position + rng.choice(sizes)]
        found += decoder.feed(rng.choice([bytes, bytearray, memoryview])(piece))
        starts += [position + start for start in decoder.starts]
        position += len(piece)
    assert found == wanted, "messages"
    assert (decoder.lost is not None) == lost, decoder.lost
    assert starts == sorted(set(starts)) and len(starts) == len(found) + (end < len(wire)), "starts"
    assert decoder.between_messages == (end == len(wire)) or lost, "the end"
    if lost:
        assert decoder.feed(b"\1\0\0\0A") == [] and decoder.header_bytes == 0, "after the loss"
    else:
        decoder.where()
        assert decoder.header_bytes <= min(len(wire) - end, 4 + MAX_NAME), "pieces of a header"


def fuzz(seconds: float, seed: Optional[int] = None) -> int:
    """How many streams have passed. Raises AssertionError with the seed."""
    if seed is not None:
        one(seed)
        return 1
    first = random.randrange(1 << 48)
    end, count = time.monotonic() + seconds, 0
    while time.monotonic() < end:
        try:
            one(first + count)
        except Exception as error:
            raise AssertionError(f"seed {first + count}: {error!r}") from error
        count += 1
    return count


if __name__ == "__main__":
    arguments = sys.argv[1:]
    passed = fuzz(float(arguments[0]) if arguments else 10, int(arguments[1]) if arguments[1:] else None)
    print(f"{passed:,} streams passed")
