"""`klvmsg bench`: how many messages a second go to a program, and come back, by size."""

from __future__ import annotations

import argparse
import csv
import json
import subprocess
import sys
from typing import Any, Dict, List, Tuple

from ..calling import add_calling, call
from ..exits import DONE, USAGE, Failure
from ..measure import Rate, rate_and_back, rate_one_way
from ..options import RULES_HELP, Commands, add_command, positive
from ..peer import Connection
from ..relay import Address
from ..text import size

_SIZES = "8,100,1000,10000,100000"
_FIELDS = ("way", "size", "messages", "seconds", "messages_per_second", "bytes_per_second")


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "bench", run, "measure how many messages a second go through, by size",
        "Sends messages as fast as they are taken, for each size of body: one way, up to the moment\n"
        "when the program has read them all and closed its connection, and back, where each is\n"
        "answered. HOST:PORT is a program that accepts one connection after the other. Without one,\n"
        "another process of klvmsg answers; then the figures are of Python at both ends.",
        RULES_HELP,
    )  # fmt: skip
    add_calling(parser, "Bench")
    parser.add_argument(
        "-s", "--sizes", type=_sizes, default=_sizes(_SIZES), metavar="BYTES,...",
        help=f"sizes of bodies, without the length before them ({_SIZES})",
    )  # fmt: skip
    parser.add_argument(
        "--seconds", type=positive, default=1.0, metavar="SECONDS", help="for each size and way (1)",
    )  # fmt: skip
    parser.add_argument(
        "-w", "--way", choices=("one-way", "back"), help="only this; answers to one-way are not read",
    )  # fmt: skip
    form = parser.add_mutually_exclusive_group()
    form.add_argument("--json", action="store_true", help="print an array of objects")
    form.add_argument("--csv", action="store_true", help="print a table with commas")


def _sizes(text: str) -> List[int]:
    if not all(word.isascii() and word.isdigit() for word in text.split(",")):
        raise argparse.ArgumentTypeError(f"not sizes separated by commas: {text!r}")
    return [int(word) for word in text.split(",")]


def run(options: argparse.Namespace) -> int:
    if options.address is not None:
        return _measure(options, options.address, options.address)
    with _Partner("sink") as sink, _Partner("echo") as echo:
        return _measure(options, sink.address, echo.address)


def _measure(options: argparse.Namespace, one_way: Address, back: Address) -> int:
    rates: List[Tuple[str, Rate]] = []
    for way, address, measure in (("one-way", one_way, rate_one_way), ("back", back, rate_and_back)):
        if options.way not in (None, way):
            continue

        def dial(to: Address = address) -> Connection:
            return call(options, to)

        for length in options.sizes:
            try:
                rate = measure(dial, options.type, length, options.seconds, options.timeout)
            except ValueError as error:
                raise Failure(USAGE, f"{options.type} cannot be sent: {error}") from error
            rates.append((way, rate))
            if not options.json and not options.csv:
                _print(way, rate)
    if options.json:
        print(json.dumps([_values(*rate) for rate in rates], indent=2))
    if options.csv:
        table = csv.DictWriter(sys.stdout, _FIELDS, lineterminator="\n")
        table.writeheader()
        table.writerows(_values(*rate) for rate in rates)
    return DONE


def _values(way: str, rate: Rate) -> Dict[str, Any]:
    return dict(zip(_FIELDS, (way, rate.size, rate.messages, round(rate.seconds, 6),
                              round(rate.per_second, 1), round(rate.bytes_per_second))))  # fmt: skip


def _print(way: str, rate: Rate) -> None:
    print(f"{way:8} {rate.size:9,} bytes {rate.per_second:12,.0f} messages a second "
          f"{size(rate.bytes_per_second):>8}/s", flush=True)  # fmt: skip


class _Partner:
    """A process that drops each message, or sends it back; it ends with this one."""

    def __init__(self, what: str) -> None:
        self._process = subprocess.Popen(
            [sys.executable, "-m", f"{__package__.rpartition('.')[0]}.partner", what],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
        )  # fmt: skip
        assert self._process.stdout is not None
        self.address: Address = ("127.0.0.1", int(self._process.stdout.readline()))

    def __enter__(self) -> _Partner:
        return self

    def __exit__(self, *_: object) -> None:
        self._process.communicate()  # it ends when its input does
