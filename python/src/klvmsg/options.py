"""What the commands' options have in common: types of arguments, and groups of options."""

from __future__ import annotations

import argparse
from typing import Callable, Optional

from .events import DIRECTIONS, Selection
from .exits import EXIT_CODES
from .relay import Address
from .rules import Rules
from .wire import MAX_BODY

Commands = argparse._SubParsersAction  # its public name does not exist

RULES_HELP = """rules for the lengths of bodies, separated by semicolons:
  Tick=8                      has 8 bytes
  Note=length(0,4,little)     begins with a length of 4 bytes, which counts the bytes behind it
  Frame=length(2,2,big)       has 2 bytes, then a length of 2 bytes, and what that counts
  Hello=length(0,8,little,8)  has 8 bytes more than its length counts
  *=length(0,4,little)        all types without a rule of their own; this one holds unless another
                              is given
"""


def add_command(
    commands: Commands[argparse.ArgumentParser],
    name: str,
    run: Callable[[argparse.Namespace], int],
    summary: str,
    description: str,
    epilog: str = "",
) -> argparse.ArgumentParser:
    """A command of this name; `run` returns its exit code."""
    parser = commands.add_parser(
        name,
        help=summary,
        description=description,
        epilog=epilog + EXIT_CODES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.set_defaults(run=run)
    return parser


# Types of arguments ---------------------------------------------------------------------------


def _address(text: str, host: Optional[str]) -> Address:
    name, colon, port = text.rpartition(":")
    if not colon:
        if host is None:
            raise argparse.ArgumentTypeError(f"not of the form HOST:PORT: {text!r}")
        name = host
    if name.startswith("[") and name.endswith("]"):
        name = name[1:-1]
    if not port.isascii() or not port.isdigit() or int(port) > 65535:
        raise argparse.ArgumentTypeError(f"not a port: {port!r}")
    return name, int(port)


def listen_address(text: str) -> Address:
    return _address(text, "127.0.0.1")


def connect_address(text: str) -> Address:
    return _address(text, None)


def rules(text: str) -> Rules:
    try:
        return Rules.parse(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from error


def positive(text: str) -> float:
    try:
        number = float(text)
    except ValueError:
        number = 0
    if not 0 < number < float("inf"):
        raise argparse.ArgumentTypeError(f"not a number above 0: {text!r}")
    return number


def count(text: str) -> int:
    if not text.isascii() or not text.isdigit() or int(text) == 0:
        raise argparse.ArgumentTypeError(f"not a number from 1 on: {text!r}")
    return int(text)


# Groups of options ----------------------------------------------------------------------------


def add_relay_options(parser: argparse.ArgumentParser) -> None:
    """What stands between two programs needs to know of them."""
    parser.add_argument(
        "-l", "--listen", required=True, type=listen_address, metavar="[HOST:]PORT",
        help="where clients connect, on 127.0.0.1 unless told otherwise; port 0 lets the system "
        "choose, and the port is printed",
    )  # fmt: skip
    parser.add_argument(
        "-c", "--connect", required=True, type=connect_address, metavar="HOST:PORT",
        help="the server that they mean",
    )  # fmt: skip
    parser.add_argument(
        "-r", "--rules", type=rules, default=Rules(), metavar="RULES",
        help="how long bodies are, see below",
    )  # fmt: skip
    parser.add_argument(
        "--max-body", type=count, default=MAX_BODY, metavar="BYTES",
        help="a larger body is taken for a sign that the stream is out of step (%(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "-n", "--connections", type=count, metavar="N",
        help="serve N connections and end; otherwise go on until Ctrl-C",
    )  # fmt: skip


def add_selection(parser: argparse.ArgumentParser, directions: str) -> None:
    """Which messages of a recording are meant; `selection` makes one of what was given."""
    parser.add_argument(
        "-t", "--type", action="append", default=[], dest="types", metavar="TYPE",
        help="only messages of this type; repeated",
    )  # fmt: skip
    parser.add_argument(
        "-d", "--direction", choices=DIRECTIONS, default=directions,
        help="only this direction" + (" (%(default)s)" if directions else ""),
    )  # fmt: skip
    parser.add_argument(
        "-n", "--connection", action="append", default=[], dest="connections", type=count,
        metavar="N", help="only the recorded connection N; repeated",
    )  # fmt: skip
    for name, what in (("after", "from"), ("before", "up to")):
        parser.add_argument(
            f"--{name}", type=float, metavar="SECONDS",
            help=f"only messages {what} so many seconds after the recording began",
        )  # fmt: skip


def selection(options: argparse.Namespace) -> Selection:
    return Selection(
        options.types, options.direction, options.connections, options.after, options.before
    )
