"""What is in a recording: time, peers, types, counts, rates, gaps."""

from __future__ import annotations

import heapq
import time
from typing import Dict, Iterable, Iterator, List, Optional, Tuple

from .events import MESSAGE, OPENED, Event, describe
from .text import plural, printable, size

_GAPS = 5  # the longest ones
_NOTICES = 10


class _Kind:
    """The messages of one type and direction."""

    def __init__(self) -> None:
        self.messages = 0
        self.bytes = 0
        self.first = self.last = 0.0

    def add(self, event: Event) -> None:
        self.first = self.first if self.messages else event.time
        self.last = event.time
        self.messages += 1
        self.bytes += event.length

    def rate(self) -> str:
        """Of the messages behind the first one."""
        seconds = self.last - self.first
        return f"{(self.messages - 1) / seconds:,.1f}" if seconds > 0 else "-"


class Summary:
    """Takes events in order; memory grows with connections and types alone."""

    def __init__(self, events: Iterable[Event]) -> None:
        self._all = _Kind()
        self._kinds: Dict[Tuple[str, str], _Kind] = {}
        self._peers: Dict[int, str] = {}
        self._per_connection: Dict[int, int] = {}
        self._gaps: List[Tuple[float, float]] = []  # the longest: seconds, and when each began
        self._notices: List[Event] = []
        self._wrong = 0  # events that tell of something that has gone wrong
        self._start: Optional[float] = None
        self._end = 0.0
        for event in events:
            self._take(event)

    def _take(self, event: Event) -> None:
        self._start = event.time if self._start is None else self._start
        self._end = max(self._end, event.time)
        self._per_connection.setdefault(event.connection, 0)
        if event.kind == OPENED:
            self._peers[event.connection] = event.text
        if event.is_notable():
            self._wrong += 1
            self._notices += [event] * (len(self._notices) < _NOTICES)
        if event.kind != MESSAGE:
            return
        if self._all.messages:
            heapq.heappush(self._gaps, (event.time - self._all.last, self._all.last))
            if len(self._gaps) > _GAPS:
                heapq.heappop(self._gaps)
        self._per_connection[event.connection] += 1
        self._all.add(event)
        self._kinds.setdefault((event.type, event.direction), _Kind()).add(event)

    def lines(self) -> Iterator[str]:
        if self._start is None:
            yield "empty"
            return
        start = self._start
        began = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(start))
        yield f"from {began} on, {self._end - start:.3f} s"
        yield (f"{plural(self._all.messages, 'message')} with {size(self._all.bytes)} in bodies, "
               f"{self._all.rate()} a second")  # fmt: skip
        for number, messages in sorted(self._per_connection.items()):
            peers = printable(self._peers.get(number, "peers unknown"))
            yield f"connection #{number}: {peers}, {plural(messages, 'message')}"
        if self._kinds:
            yield from self._table(start)
        for seconds, at in sorted(self._gaps, reverse=True):
            if seconds > 0:
                yield f"gap of {seconds:.6f} s, from {at - start:.6f} s on"
        yield from (describe(event) for event in self._notices)
        if self._wrong > len(self._notices):
            yield f"and {self._wrong - len(self._notices):,} more like these"

    def _table(self, start: float) -> Iterator[str]:
        rows = [("type", "to", "messages", "bytes", "a second", "first at", "last at")]
        for (type, direction), kind in sorted(self._kinds.items()):
            rows.append((printable(type), direction[len("to-") :], f"{kind.messages:,}",
                         f"{kind.bytes:,}", kind.rate(), f"{kind.first - start:.6f} s",
                         f"{kind.last - start:.6f} s"))  # fmt: skip
        widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
        for row in rows:
            left = [cell.ljust(width) for cell, width in zip(row[:2], widths)]
            right = [cell.rjust(width) for cell, width in zip(row[2:], widths[2:])]
            yield "  ".join(left + right).rstrip()
