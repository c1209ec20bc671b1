"""What the commands' options have in common: types of arguments, and groups of options."""

from __future__ import annotations

import argparse
import re
import time
from typing import Any, Callable, Optional

from .decode import Decoders, Sources
from .events import DIRECTIONS
from .exits import EXIT_CODES
from .expressions import Expression
from .filters import Choice, Filter, Moment
from .relay import Address
from .rulefile import read_rule_file
from .rules import Rules
from .wire import MAX_BODY, MAX_NAME

Commands = argparse._SubParsersAction  # its public name does not exist

RULES_HELP = """rules for the lengths of bodies, separated by semicolons, or @FILE for a file that has them,
and lines such as "decode MODULE:FUNCTION", "proto FILE", "text TYPE":
  Tick=8                      has 8 bytes
  Note=length(0,4,little)     begins with a length of 4 bytes, which counts the bytes behind it
  Frame=length(2,2,big)       has 2 bytes, then a length of 2 bytes, and what that counts
  Hello=length(0,8,little,8)  has 8 bytes more than its length counts
  Price=length(0,4,little) call   the same, with a question's or answer's number before its fields
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


def expression(text: str) -> Expression:
    try:
        return Expression(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from error


def moment(text: str) -> Moment:
    """Seconds after the start of a recording, or a time of the day of its start."""
    clock = re.fullmatch(r"(\d\d):(\d\d):(\d\d(?:\.\d+)?)", text, re.ASCII)
    if clock:
        seconds = int(clock[1]) * 3600 + int(clock[2]) * 60 + float(clock[3])
        return lambda start: _midnight(start) + seconds
    try:
        seconds = float(text)
    except ValueError as error:
        wrong = f"neither a number of seconds nor HH:MM:SS: {text!r}"
        raise argparse.ArgumentTypeError(wrong) from error
    return lambda start: start + seconds


def _midnight(moment: float) -> float:
    day = time.localtime(moment)
    return time.mktime((day.tm_year, day.tm_mon, day.tm_mday, 0, 0, 0, 0, 0, -1))


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


def add_ends(parser: argparse.ArgumentParser, server: str, *, required: bool = False) -> None:
    """Between whom a command stands, and for how long; `server` is the help on whom clients mean."""
    parser.add_argument(
        "-l", "--listen", type=listen_address, metavar="[HOST:]PORT", required=required,
        help="where clients connect, on 127.0.0.1 unless told otherwise; port 0 lets the system "
        "choose, and the port is printed",
    )  # fmt: skip
    parser.add_argument(
        "-c", "--connect", type=connect_address, metavar="HOST:PORT", required=required, help=server,
    )  # fmt: skip
    parser.add_argument(
        "-n", "--connections", type=count, metavar="N",
        help="serve N connections and end; otherwise go on until Ctrl-C",
    )  # fmt: skip


def add_relay_options(parser: argparse.ArgumentParser) -> None:
    """What stands between two programs needs to know of them."""
    add_ends(parser, "the server that they mean")
    parser.add_argument(
        "--pcap", metavar="CAPTURE",
        help="stand nowhere, and read a capture (pcap or pcapng; needs dpkt)",
    )  # fmt: skip
    parser.add_argument(
        "--port", action="append", default=[], dest="ports", type=count, metavar="PORT",
        help="of a capture only connections of servers with this port; repeated",
    )  # fmt: skip
    add_decoding(parser)
    add_filter(parser)
    parser.add_argument(
        "--max-body", type=count, default=MAX_BODY, metavar="BYTES",
        help="a larger body is taken for a sign that the stream is out of step (%(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--max-name", type=count, default=MAX_NAME, metavar="BYTES",
        help="and so is a longer name of a type (%(default)s)",
    )  # fmt: skip


class _RulesAction(argparse.Action):
    """Takes rules, or @FILE, whose decoders become those of the command."""

    def __call__(self, parser: Any, namespace: Any, value: Any, option: Any = None) -> None:
        try:
            if not value.startswith("@"):
                namespace.rules = Rules.parse(value)
                return
            namespace.rules, sources = read_rule_file(value[1:])
        except ValueError as error:
            raise argparse.ArgumentError(self, str(error)) from error
        namespace.protos = namespace.protos + sources.protos
        namespace.functions = namespace.functions + sources.functions
        namespace.texts = namespace.texts + sources.texts


def add_decoding(parser: argparse.ArgumentParser) -> None:
    """How bodies are laid out and what they say; `decoders` makes use of it."""
    parser.add_argument(
        "-r", "--rules", action=_RulesAction, default=Rules(), metavar="RULES|@FILE",
        help="how long bodies are, see below; @FILE reads it from a file, which may name decoders too",
    )  # fmt: skip
    for name, variable, metavar, text in (
        ("proto", "protos", "FILE.proto", "decode the Protocol Buffers messages of this file, by their "
         "names (needs protoc and protobuf)"),
        ("decode", "functions", "MODULE:FUNCTION", "decode bodies by FUNCTION(body), or FUNCTION(type, "
         "body), of a Python module or file; None where it knows nothing"),
        ("text", "texts", "TYPE", "the bodies of this type are text; * and ? stand for any"),
    ):  # fmt: skip
        parser.add_argument(
            f"--{name}", action="append", default=[], dest=variable, metavar=metavar,
            help=text + "; repeated",
        )  # fmt: skip


def decoders(options: argparse.Namespace) -> Decoders:
    return Decoders(options.rules, Sources(options.protos, options.functions, options.texts))


def add_filter(
    parser: argparse.ArgumentParser, directions: str = "", *, short: bool = False
) -> None:
    """Which messages are meant, in every command the same; `selection` makes use of it."""
    parser.add_argument(
        *["-t"] * short, "--type", action="append", default=[], dest="types", metavar="GLOB",
        help="only messages of this type; * and ? stand for any; repeated",
    )  # fmt: skip
    parser.add_argument(
        *["-d"] * short, "--direction", choices=DIRECTIONS, default=directions,
        help="only this direction" + (" (%(default)s)" if directions else ""),
    )  # fmt: skip
    parser.add_argument(
        "--peer", action="append", default=[], dest="peers", metavar="GLOB",
        help="only connections of which one end has this address, HOST or HOST:PORT; repeated",
    )  # fmt: skip
    parser.add_argument(
        "--where", type=expression, metavar="EXPRESSION",
        help="only messages for which this holds, such as 'cents > 100 and len(items) < 3': over the "
        "fields of decoded bodies, body, type, length, time, connection, direction",
    )  # fmt: skip


def add_selection(parser: argparse.ArgumentParser, directions: str) -> None:
    """Which messages of a recording are meant; `selection` makes use of it."""
    add_filter(parser, directions, short=True)
    parser.add_argument(
        "-n", "--connection", action="append", default=[], dest="numbers", type=count,
        metavar="N", help="only the recorded connection N; repeated",
    )  # fmt: skip
    for name, other, what in (("from", "after", "from"), ("to", "before", "up to")):
        parser.add_argument(
            f"--{name}", f"--{other}", dest=other, type=moment, metavar="WHEN",
            help=f"only messages {what} so many seconds after the recording began, or HH:MM:SS",
        )  # fmt: skip


def selection(options: argparse.Namespace, decoders: Decoders) -> Filter:
    """The filter that the options tell, of messages that pass or are recorded."""
    choice = Choice(options.types, options.direction, options.peers, options.where)
    if "numbers" in options:
        choice = choice._replace(
            connections=options.numbers, after=options.after, before=options.before
        )
    return Filter(choice, decoders)
