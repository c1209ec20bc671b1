"""What the commands share that stand between two programs."""

from __future__ import annotations

import argparse
import socket
from typing import Callable, List

from .events import LOST, Event
from .exits import NO_CONNECTION, Failure
from .peer import listen
from .relay import Relay, show_address
from .rulefile import find_rule_file
from .text import complain


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
    hint = _Hint(options)

    def watch(events: List[Event]) -> None:
        observe(events)
        if events[-1].kind == LOST:  # nothing follows it
            hint.give(events[-1])

    relay = Relay(
        entrance, options.connect, options.rules, watch,
        keep=keep, max_body=options.max_body,
    )  # fmt: skip
    try:
        relay.run(options.connections)
    except KeyboardInterrupt:
        pass


class _Hint:
    """What to do when a stream is out of step because a type has no rule; given once."""

    def __init__(self, options: argparse.Namespace) -> None:
        self._rules = options.rules
        self._given = False

    def give(self, event: Event) -> None:
        if self._given or not event.type or event.type in self._rules.named:
            return
        self._given = True
        file = find_rule_file([event.type])
        rules = f"--rules @{file}" if file else f"--rules '{event.type}=...' or --rules @FILE"
        complain(f"there is no rule for {event.type}, so that its body was taken to begin with its "
                 f"length; give one: {rules}")  # fmt: skip
