"""What happens on connections: what spy shows, record writes, and replay and chart read."""

from __future__ import annotations

import json
from functools import lru_cache
from typing import Any, Dict, Iterator, NamedTuple, TextIO

from .fields import plain
from .text import clock, complain, plural, printable
from .wire import header

TO_SERVER = "to-server"
TO_CLIENT = "to-client"
DIRECTIONS = (TO_SERVER, TO_CLIENT)

MESSAGE = "message"
OPENED = "opened"  # text: the client's address and the server's
LOST = "out of step"  # text: why
ENDED = "ended"  # one direction; text: how, when that is not in order
FAILED = "failed"  # the server could not be reached; text: why


class Event(NamedTuple):
    """Something that happened. A message happens when its last byte has come."""

    time: float  # seconds since 1970
    connection: int  # counted from 1
    kind: str
    direction: str = ""
    text: str = ""
    type: str = ""  # out of step: the one whose rule was followed last
    length: int = 0  # of the body on the wire
    body: bytes = b""  # what is kept of it

    def is_notable(self) -> bool:
        """Whether something has gone wrong."""
        return self.kind in (LOST, FAILED) or (self.kind == ENDED and self.text != "")


class BadRecording(Exception):
    """A line that is no event."""


def describe(event: Event, body_bytes: int = 0, said: str = "", call: str = "") -> str:
    """One line, safe to print, with what the body says or up to so many bytes of it if it was kept, and
    before that which question or answer it is."""
    arrow = {TO_SERVER: ">", TO_CLIENT: "<"}.get(event.direction, " ")
    head = f"{clock(event.time)} #{event.connection} {arrow} "
    if event.kind != MESSAGE:
        return head + f"-- {event.kind}" + (f": {printable(event.text)}" if event.text else "")
    line = head + f"{printable(event.type)} {event.length}" + (f" ({call})" if call else "")
    if said:
        line += " " + said
    elif body_bytes and event.length:
        line += " " + printable(event.body[:body_bytes]) + ("..." if event.length > body_bytes else "")
    return line


def to_json(event: Event, said: Any = None, call: str = "") -> str:
    """The event as a line of a recording, without the line's end, with what its body says if that is
    known, and which question or answer it is."""
    if event.kind == MESSAGE:  # by hand, as there are many, in the form of the others
        decoded = "" if said is None else f', "decoded": {json.dumps(plain(said))}'
        if call:
            decoded += f', "call": {_quoted(call)}'
        return (f'{{"time": {round(event.time, 6)}, "connection": {event.connection}, "direction": '
                f'"{event.direction}", "type": {_quoted(event.type)}, "length": {event.length}, "body": '
                f'"{event.body.hex()}"{decoded}}}')  # fmt: skip
    record: Dict[str, Any] = {"time": round(event.time, 6), "connection": event.connection}
    if event.direction:
        record["direction"] = event.direction
    record["event"] = event.kind
    if event.text:
        record["text"] = event.text
    return json.dumps(record)


_quoted = lru_cache(4096)(json.dumps)


def from_json(line: str) -> Event:
    """The event of a line. Raises BadRecording when it is none."""
    try:
        record = json.loads(line)
        event = Event(
            float(record["time"]),
            int(record["connection"]),
            str(record.get("event", MESSAGE)),
            str(record.get("direction", "")),
            str(record.get("text", "")),
        )
        if event.kind != MESSAGE:
            return event
        body = bytes.fromhex(record["body"])
        if event.direction not in DIRECTIONS:
            raise BadRecording(f"no direction: {event.direction[:20]!r}")
        if len(body) != record["length"]:
            raise BadRecording(f"a body of {len(body)} bytes and a length that says something else")
        header(record["type"])  # that it can be sent
        return event._replace(type=record["type"], length=len(body), body=body)
    except KeyError as error:
        raise BadRecording(f"there is no {error.args[0]}") from error
    except (ValueError, TypeError, AttributeError, OverflowError) as error:
        raise BadRecording("not a line of a recording") from error


def read_recording(file: TextIO) -> Iterator[Event]:
    """The events of a recording. Raises BadRecording, which names the line.

    A last line that is cut off, as when the recorder was killed or the disk full, is told of and passed
    over.
    """
    messages = 0
    for number, line in enumerate(file, 1):
        try:
            event = from_json(line)
        except BadRecording as bad:
            if not line.endswith("\n"):
                return complain(f"{plural(messages, 'message')}; the last line is cut off")
            raise BadRecording(f"line {number}: {bad}") from bad
        messages += event.kind == MESSAGE
        yield event
