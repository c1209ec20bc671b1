"""Forms in which the messages of a recording are handed on: tables and JSON. MCAP is in `mcap`."""

from __future__ import annotations

import csv
import io
import json
from typing import Any, BinaryIO, Dict, List

from .decode import Decoders
from .events import Event
from .expressions import MISSING, Expression
from .fields import plain


class Form:
    """Writes messages, one after the other, and keeps none."""

    is_text = True

    def __init__(self, out: BinaryIO, decoders: Decoders, columns: List[Expression]) -> None:
        self._out = out
        self._decoders = decoders
        self._columns = columns

    def write(self, event: Event) -> None:
        raise NotImplementedError

    def close(self) -> None:
        """Writes what ends the file; whoever has opened it closes it."""

    def _values(self, event: Event) -> Dict[str, Any]:
        """Of the columns that were asked for; None where a message has no such thing."""
        names = self._decoders.names(event)
        values = {}
        for column in self._columns:
            try:
                value = column.value(names)
            except TypeError:
                value = MISSING
            values[column.text] = None if value is MISSING else plain(value)
        return values


class Csv(Form):
    """A line for each message, and one above them with the names of the columns."""

    def __init__(self, out: BinaryIO, decoders: Decoders, columns: List[Expression]) -> None:
        super().__init__(out, decoders, columns)
        self._text = io.TextIOWrapper(out, "utf-8", "backslashreplace", newline="")
        self._csv = csv.writer(self._text)
        self._csv.writerow(["time", "connection", "direction", "type", "length", "body"]
                           + ["decoded"] * bool(decoders) + [column.text for column in columns])  # fmt: skip

    def write(self, event: Event) -> None:
        row: List[Any] = [f"{event.time:.6f}", *event[1:2], event.direction, event.type, event.length,
                          event.body.hex()]  # fmt: skip
        if self._decoders:
            value = self._decoders.decode(event)
            row.append("" if value is None else _cell(plain(value)))
        self._csv.writerow(row + list(map(_cell, self._values(event).values())))

    def close(self) -> None:
        self._text.detach()  # flushes it


def _cell(value: Any) -> Any:
    return json.dumps(value) if isinstance(value, (dict, list)) else value


class Json(Form):
    """An array with an object for each message."""

    def __init__(self, out: BinaryIO, decoders: Decoders, columns: List[Expression]) -> None:
        super().__init__(out, decoders, columns)
        self._before = b"[\n"

    def write(self, event: Event) -> None:
        record = {"time": round(event.time, 6), "connection": event.connection, "direction": event.direction,
                  "type": event.type, "length": event.length, "body": event.body.hex()}  # fmt: skip
        value = self._decoders.decode(event)
        if value is not None:
            record["decoded"] = plain(value)
        record.update(self._values(event))
        self._out.write(self._before + json.dumps(record).encode("ascii"))
        self._before = b",\n"

    def close(self) -> None:
        self._out.write(b"\n]\n" if self._before == b",\n" else b"[]\n")
