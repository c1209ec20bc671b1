"""`klvmsg spy`: stands between two programs and prints what they say."""

from __future__ import annotations

import argparse
import os
import sys

from ..between import open_entrance, pass_on
from ..exits import DONE, USAGE, Failure, missing
from ..observers import Printer, complain
from ..options import RULES_HELP, Commands, add_command, add_relay_options, count
from ..relay import show_address


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "spy", run, "stand between two programs and print what they say",
        "Stands between clients and their server, passes every byte on unchanged, and prints a line\n"
        "for each message: the time, the connection, > to the server or < to the client, the type,\n"
        "and the bytes of the body. Bytes are passed on whatever is made of them, also when a rule\n"
        "is wrong or the stream is out of step, which is printed.",
        RULES_HELP,
    )  # fmt: skip
    add_relay_options(parser)
    parser.add_argument(
        "-b", "--bodies", type=count, default=0, metavar="N",
        help="print up to N bytes of each body too",
    )  # fmt: skip
    parser.add_argument(
        "-t", "--top", action="store_true",
        help="show a live table by connection and type instead (needs rich)",
    )  # fmt: skip


def run(options: argparse.Namespace) -> int:
    if options.top:
        return _top(options)
    entrance = open_entrance(options)
    printer = Printer(options.bodies)
    pass_on(options, entrance, printer.observe, options.bodies)
    if not printer.close():
        complain("the last lines are not printed: the output takes none")
        os._exit(DONE)  # Python's own end would wait for the output
    return DONE


def _top(options: argparse.Namespace) -> int:
    try:
        from ..top import Top
    except ImportError as error:
        raise missing("--top", "rich", error) from error
    if not sys.stdout.isatty():
        raise Failure(USAGE, "--top needs a terminal; without it a line is printed for each message")
    entrance = open_entrance(options)
    here, there = show_address(entrance.getsockname()), show_address(options.connect)
    top = Top(f"klvmsg spy, {here} for {there}, Ctrl-C ends")
    pass_on(options, entrance, top.observe, 0)
    top.close()
    return DONE
