"""`klvmsg diff`: compares two recordings."""

from __future__ import annotations

import argparse
from typing import Optional

from ..decode import Decoders
from ..diff import Comparison, Difference, first_byte
from ..events import Event, describe, read_recording
from ..exits import DIFFERENT, DONE, USAGE, Failure
from ..files import open_recording
from ..options import Commands, add_command, add_decoding, add_selection, decoders, selection
from ..text import plural, printable

_SHOWN = 16  # bytes from the first one that differs


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "diff", run, "compare two recordings",
        "Compares the messages of two recordings on each connection and in each direction, by type, order\n"
        "and body, and prints the first difference of each, and how many messages of each type there are\n"
        "where that differs. When messages came does not count.",
        "exit code 1: they differ; ",
    )  # fmt: skip
    parser.add_argument("a", metavar="A", help="a recording; - is standard input")
    parser.add_argument("b", metavar="B", help="another one")
    add_decoding(parser)
    add_selection(parser, "")


def run(options: argparse.Namespace) -> int:
    if options.a == "-" and options.b == "-":
        raise Failure(USAGE, "only one of the two can be standard input")
    decode = decoders(options)
    with open_recording(options.a) as a, open_recording(options.b) as b:
        chosen = [selection(options, decode).select(read_recording(file)) for file in (a, b)]
        compared = Comparison(*chosen)
    if not compared.differences:
        print(f"the same: {plural(sum(compared.counts[0].values()), 'message')}")
        return DONE
    for difference in compared.differences:
        _show(difference, decode)
    for type in sorted(set(compared.counts[0]) | set(compared.counts[1])):
        count_a, count_b = (counts[type] for counts in compared.counts)
        if count_a != count_b:
            print(f"{printable(type)}: {count_a} in A, {count_b} in B")
    return DIFFERENT


def _show(difference: Difference, decode: Decoders) -> None:
    either = difference.a or difference.b
    assert either is not None
    print(f"different: message {difference.place} of connection #{either.connection} {either.direction}")
    byte = 0
    if difference.a and difference.b:
        byte = first_byte(difference.a.body, difference.b.body)
    for name, event in (("A", difference.a), ("B", difference.b)):
        print(f"  {name}  {_line(event, decode, byte)}")


def _line(event: Optional[Event], decode: Decoders, byte: int) -> str:
    if event is None:
        return "none"
    said = decode.show(event)
    if said:
        return describe(event, said=said)
    more = "..." if byte + _SHOWN < event.length else ""
    return f"{describe(event)}, from byte {byte} on: {event.body[byte:byte + _SHOWN].hex(' ')}{more}"
