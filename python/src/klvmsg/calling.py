"""What the commands share that connect to a program and talk to it."""

from __future__ import annotations

import argparse

from .errors import Error
from .exits import NO_CONNECTION, Failure
from .options import connect_address, positive
from .peer import Connection, connect
from .relay import Address, show_address
from .rulefile import read_rule_file
from .rules import Rules


def rules_argument(text: str) -> Rules:
    try:
        return read_rule_file(text[1:]).rules if text.startswith("@") else Rules.parse(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from error


def add_calling(parser: argparse.ArgumentParser, type: str) -> None:
    """Whom to call, with messages of which type."""
    parser.add_argument(
        "address", nargs="?", type=connect_address, metavar="HOST:PORT", help="the program",
    )  # fmt: skip
    parser.add_argument(
        "-t", "--type", default=type, metavar="TYPE", help="the type of the message (%(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--timeout", type=positive, default=10.0, metavar="SECONDS",
        help="how long the program may take to accept, to take a message, to answer and to close (10)",
    )  # fmt: skip
    parser.add_argument(
        "-r", "--rules", type=rules_argument, default=Rules(), metavar="RULES|@FILE",
        help="how long bodies are, see below; @FILE reads it from a file",
    )  # fmt: skip


def call(options: argparse.Namespace, address: Address) -> Connection:
    try:
        return connect(*address, rules=options.rules, timeout=options.timeout)
    except Error:
        raise
    except OSError as error:
        where = show_address(address)
        raise Failure(NO_CONNECTION, f"cannot connect to {where}: {error.strerror}") from error
