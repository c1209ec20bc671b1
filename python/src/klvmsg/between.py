"""What the commands share that stand between two programs."""

from __future__ import annotations

import argparse
import socket
from typing import Callable, List

from .events import Event
from .exits import NO_CONNECTION, Failure
from .observers import complain
from .peer import listen
from .relay import Relay, show_address


def open_entrance(options: argparse.Namespace) -> socket.socket:
    """The socket to which clients connect; says where it is."""
    try:
        entrance = listen(*options.listen)
    except OSError as error:
        where = show_address(options.listen)
        raise Failure(NO_CONNECTION, f"cannot listen on {where}: {error.strerror}") from error
    complain(f"listening on {show_address(entrance.getsockname())} for {show_address(options.connect)}")
    return entrance


def pass_on(
    options: argparse.Namespace, entrance: socket.socket, observe: Callable[[List[Event]], None],
    keep: int,
) -> None:  # fmt: skip
    """Passes everything on until the connections asked for have ended, or Ctrl-C."""
    relay = Relay(
        entrance, options.connect, options.rules, observe,
        keep=keep, max_body=options.max_body,
    )  # fmt: skip
    try:
        relay.run(options.connections)
    except KeyboardInterrupt:
        pass
