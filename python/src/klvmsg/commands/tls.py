"""`klvmsg tls`: carries plain connections through TLS, in either direction of use."""

from __future__ import annotations

import argparse
from typing import Optional

from ..between import listen_as_told, print_what_passes
from ..calling import rules_argument
from ..events import MESSAGE, Event, describe
from ..exits import FILE, Failure
from ..options import RULES_HELP, Commands, add_command, add_ends
from ..relay import Protection
from ..rules import Rules
from ..tls import context, words
from ..wire import MAX_BODY, MAX_NAME

CLIENTS, SERVER = "clients", "server"


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "tls", run, "carry plain connections through TLS",
        "Stands between clients and their server, one side of which speaks TLS 1.3 and the other one\n"
        "does not, and passes every byte on: in front of a server that is plain (--side clients), or\n"
        "beside a client that is (--side server). Both ends of the protected side show a certificate\n"
        "and verify the other one's. Ends, resets and cuts are passed on too. Prints a line for each\n"
        "connection that comes, ends, or is turned away, with the cause.",
        RULES_HELP,
    )  # fmt: skip
    add_ends(
        parser, "the server that they mean; its certificate has to be for this very name or address",
        required=True,
    )  # fmt: skip
    parser.add_argument(
        "-s", "--side", choices=(CLIENTS, SERVER), required=True, help="which side speaks TLS",
    )  # fmt: skip
    for name, text in (
        ("certificate", "our certificate, followed by those between it and the authority"),
        ("key", "its key, without a password"),
        ("authority", "whose certificates the other side may have"),
    ):
        parser.add_argument(f"--{name}", required=True, metavar="PEM", help=text)
    parser.add_argument(
        "-r", "--rules", type=rules_argument, default=Rules(), metavar="RULES|@FILE",
        help="how long bodies are, see below: so that headers are not cut for who takes them whole",
    )  # fmt: skip
    parser.set_defaults(max_body=MAX_BODY, max_name=MAX_NAME)


def run(options: argparse.Namespace) -> int:
    of_clients = options.side == CLIENTS
    try:
        tls = context(options.certificate, options.key, options.authority, server=of_clients)
    except OSError as error:
        files = f"{options.certificate}, {options.key} and {options.authority}"
        raise Failure(FILE, f"{files} cannot be used: {words(error)}") from error

    def line(event: Event) -> Optional[str]:
        return None if event.kind == MESSAGE else describe(event)

    return print_what_passes(options, listen_as_told(options), line, 0, Protection(tls, of_clients))
