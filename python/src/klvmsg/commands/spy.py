"""`klvmsg spy`: stands between two programs and prints what they say."""

from __future__ import annotations

import argparse
import os
import sys
from typing import Callable, List, Optional

from ..between import open_entrance, pass_on, print_what_passes
from ..calls import CALL_BYTES, Calls
from ..decode import Decoders
from ..events import Event, describe
from ..exits import DONE, USAGE, Failure, missing
from ..filters import Filter
from ..options import (
    RULES_HELP, Commands, add_command, add_relay_options, count, decoders, expression, selection,
)  # fmt: skip
from ..relay import show_address

_SHOWN = 200  # characters of what a body says


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "spy", run, "stand between two programs and print what they say",
        "Stands between clients and their server, passes every byte on unchanged, and prints a line\n"
        "for each message: the time, the connection, > to the server or < to the client, the type,\n"
        "the bytes of the body, and what it says where that is known. Bytes are passed on whatever is\n"
        "made of them, also when a rule is wrong or the stream is out of step, which is printed.",
        RULES_HELP,
    )  # fmt: skip
    add_relay_options(parser)
    parser.add_argument(
        "-b", "--bodies", type=count, default=0, metavar="N",
        help="print up to N bytes of each body, or N characters of what it says (200)",
    )  # fmt: skip
    parser.add_argument(
        "-t", "--top", action="store_true",
        help="show a live table by connection and type instead (needs rich)",
    )  # fmt: skip
    parser.add_argument(
        "--column", type=expression, metavar="EXPRESSION",
        help="a column of the table with the last value of this, such as a field of decoded bodies",
    )  # fmt: skip


def run(options: argparse.Namespace) -> int:
    if options.column and not options.top:
        raise Failure(USAGE, "--column needs --top")
    decode = decoders(options)
    chosen = selection(options, decode)
    keep = options.max_body if decode else max(options.bodies, CALL_BYTES)
    if options.top:
        return _top(options, decode, chosen, keep)

    calls = Calls(options.rules)

    def line(event: Event) -> Optional[str]:
        call = calls.note(event)
        if not chosen.takes(event):
            return None
        said = _short(decode.show(event), options.bodies or _SHOWN)
        return describe(event, options.bodies, said, call)

    entrance = open_entrance(options)
    if entrance is None:
        return _print_capture(options, line, keep)
    return print_what_passes(options, entrance, line, keep)


def _print_capture(
    options: argparse.Namespace, line: Callable[[Event], Optional[str]], keep: int
) -> int:
    """Here the output may take its time: no line is left out."""

    def observe(events: List[Event]) -> None:
        for text in filter(None, map(line, events)):
            sys.stdout.write(text + "\n")

    try:
        pass_on(options, None, observe, keep)
        sys.stdout.flush()
    except BrokenPipeError:  # nobody reads any more
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # for Python's own flush
    return DONE


def _short(text: str, length: int) -> str:
    return text if len(text) <= length else text[:length] + "..."


def _top(options: argparse.Namespace, decode: Decoders, chosen: Filter, keep: int) -> int:
    try:
        from ..top import Top
    except ImportError as error:
        raise missing("--top", "rich", error) from error
    if not sys.stdout.isatty():
        raise Failure(USAGE, "--top needs a terminal; without it a line is printed for each message")
    entrance = open_entrance(options)
    if entrance is None:
        raise Failure(USAGE, "--top shows what passes now, and not a capture")
    here, there = show_address(entrance.getsockname()), show_address(options.connect)
    top = Top(f"klvmsg spy, {here} for {there}, Ctrl-C ends", decode, options.column)

    def observe(events: List[Event]) -> None:
        top.observe([event for event in events if chosen.takes(event)])

    pass_on(options, entrance, observe, keep)
    top.close()
    return DONE
