"""What the commands share that stand between two programs, or look at a capture of what they said."""

from __future__ import annotations

import argparse
import os
import socket
from typing import Callable, List, Optional

from .events import LOST, Event
from .exits import DONE, FILE, NO_CONNECTION, USAGE, Failure, missing
from .listening import listen
from .observers import Line, Printer
from .relay import Protection, Relay, show_address
from .rulefile import find_rule_file
from .text import complain


def listen_as_told(options: argparse.Namespace) -> socket.socket:
    """The socket to which clients connect; says where it is."""
    try:
        entrance = listen(*options.listen)
    except OSError as error:
        where = show_address(options.listen)
        raise Failure(NO_CONNECTION, f"cannot listen on {where}: {error.strerror}") from error
    complain(f"listening on {show_address(entrance.getsockname())} for {show_address(options.connect)}")
    return entrance


def open_entrance(options: argparse.Namespace) -> Optional[socket.socket]:
    """The same, or None where a capture is read instead."""
    if options.pcap:
        if options.listen or options.connect:
            raise Failure(USAGE, "--pcap reads what was captured; --listen and --connect do not go with it")
        return None
    if not options.listen or not options.connect:
        raise Failure(USAGE, "--listen and --connect are needed, or --pcap")
    return listen_as_told(options)


def pass_on(
    options: argparse.Namespace, entrance: Optional[socket.socket], observe: Callable[[List[Event]], None],
    keep: int, protection: Optional[Protection] = None,
) -> None:  # fmt: skip
    """Passes everything on until the connections asked for have ended, or Ctrl-C; or reads a capture."""
    hint = _Hint(options)

    def watch(events: List[Event]) -> None:
        observe(events)
        if events[-1].kind == LOST:  # nothing follows it
            hint.give(events[-1])

    try:
        if entrance is None:
            return _read_capture(options, watch, keep)
        relay = Relay(
            entrance, options.connect, options.rules, watch,
            keep=keep, max_body=options.max_body, max_name=options.max_name, protection=protection,
        )  # fmt: skip
        relay.run(options.connections)
    except KeyboardInterrupt:
        pass


def print_what_passes(
    options: argparse.Namespace, entrance: socket.socket, line: Line, keep: int,
    protection: Optional[Protection] = None,
) -> int:  # fmt: skip
    """Passes everything on, prints a line for each event, and returns the exit code."""
    printer = Printer(line)
    pass_on(options, entrance, printer.observe, keep, protection)
    if not printer.close():
        complain("the last lines are not printed: the output takes none")
        os._exit(DONE)  # Python's own end would wait for the output
    return DONE


def _read_capture(
    options: argparse.Namespace, observe: Callable[[List[Event]], None], keep: int
) -> None:
    try:
        from .pcap import BadCapture, read_capture
    except ImportError as error:
        raise missing("--pcap", "dpkt", error) from error
    try:
        with open(options.pcap, "rb") as file:
            for event in read_capture(
                file, options.rules, ports=options.ports,
                keep=keep, max_body=options.max_body, max_name=options.max_name,
            ):  # fmt: skip
                if options.connections is None or event.connection <= options.connections:
                    observe([event])
    except OSError as error:
        if error.filename != options.pcap:
            raise
        raise Failure(FILE, f"cannot read {options.pcap}: {error.strerror}") from error
    except BadCapture as bad:
        raise Failure(FILE, f"{options.pcap} is no capture: {bad}") from bad


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
