"""A live table of what a relay passes on, by connection, direction and type. Needs rich."""

from __future__ import annotations

import threading
import time
from collections import deque
from typing import Any, Deque, Dict, List, Optional, Tuple

from rich.console import Console, Group
from rich.live import Live
from rich.table import Table
from rich.text import Text

from .decode import Decoders
from .events import ENDED, MESSAGE, TO_SERVER, Event, describe
from .expressions import MISSING, Expression
from .fields import show
from .text import printable, size

_SECONDS = 0.5  # between two pictures
_PICTURES = 4  # over which a rate is taken
_ROWS = 1000  # kept; those seen longest ago go first
_NOTICES = 3
# Columns of numbers, each with the width of the terminal that leaves room for the type beside it.
_NUMBERS = (("count", 0), ("a second", 46), ("bytes/s", 55), ("last seen", 66))


class _Row:
    def __init__(self) -> None:
        self.count = 0
        self.bytes = 0
        self.seen = 0.0
        self.value: Any = MISSING
        self.ended = False
        self.past: Deque[Tuple[float, int, int]] = deque([(time.monotonic(), 0, 0)], _PICTURES + 1)

    def rates(self) -> Tuple[float, float]:
        """Messages and bytes a second over the last pictures, this one included."""
        self.past.append((time.monotonic(), self.count, self.bytes))
        then, count, bytes_then = self.past[0]
        seconds = max(self.past[-1][0] - then, 0.001)
        return (self.count - count) / seconds, (self.bytes - bytes_then) / seconds


_Key = Tuple[int, str, str]


class Top:
    """Observes a relay, and draws until it is closed, when the last picture stays on the screen."""

    def __init__(self, title: str, decoders: Decoders, column: Optional[Expression] = None) -> None:
        """`column`: of each row the last value of this is shown."""
        self._title = title
        self._decoders = decoders
        self._column = column
        self._rows: Dict[_Key, _Row] = {}
        self._notices: Deque[str] = deque(maxlen=_NOTICES)
        self._lock = threading.Lock()
        self._over = threading.Event()
        self._console = Console()
        self._thread = threading.Thread(target=self._draw, daemon=True)
        self._thread.start()

    def observe(self, events: List[Event]) -> None:
        with self._lock:
            for event in events:
                if event.kind == MESSAGE:
                    self._count(event)
                elif event.kind == ENDED:
                    self._end(event)
                if event.is_notable():
                    self._notices.append(describe(event))

    def _end(self, event: Event) -> None:
        for key, row in self._rows.items():
            row.ended = row.ended or key[:2] == (event.connection, event.direction)

    def _count(self, event: Event) -> None:
        key = (event.connection, event.direction, event.type)
        row = self._rows.get(key)
        if row is None:
            if len(self._rows) >= _ROWS:
                del self._rows[min(self._rows, key=lambda k: self._rows[k].seen)]
            row = self._rows[key] = _Row()
        row.count += 1
        row.bytes += event.length
        row.seen = event.time
        if self._column is not None:
            try:
                row.value = self._column.value(self._decoders.names(event))
            except TypeError:
                row.value = MISSING

    def close(self) -> None:
        self._over.set()
        self._thread.join()
        self._console.print(self._picture(whole=True))

    def _draw(self) -> None:
        with Live(console=self._console, screen=True, auto_refresh=False) as live:
            while True:
                live.update(self._picture(), refresh=True)
                if self._over.wait(_SECONDS):
                    return

    def _picture(self, whole: bool = False) -> Group:
        with self._lock:
            lines = [(key, row, *row.rates()) for key, row in self._rows.items()]
            notices = list(self._notices)
            now = time.time()
        room = self._console.height - 3 - len(notices)
        left_out = 0
        lines.sort(key=lambda line: (line[0][0], line[0][1] != TO_SERVER, line[0][2]))
        if not whole and len(lines) > room:  # whole seconds, so that busy rows do not change places
            chosen = sorted(lines, key=lambda line: int(now - line[1].seen))[: room - 1]
            left_out = len(lines) - len(chosen)
            lines = [line for line in lines if line in chosen]
        parts: List[object] = [self._table(lines, now)]
        if left_out:
            parts.append(Text(f"and {left_out} more", style="dim"))
        parts += [_one_line(notice, "bold red") for notice in notices]
        return Group(*parts)  # type: ignore[arg-type]

    def _table(self, lines: List[Tuple[_Key, _Row, float, float]], now: float) -> Table:
        table = Table(title=_one_line(self._title, "bold"), title_justify="left", box=None, expand=True)
        table.add_column("conn.", justify="right", no_wrap=True)
        table.add_column("to", no_wrap=True)
        table.add_column("type", no_wrap=True, overflow="ellipsis", ratio=1)
        shown = [heading for heading, width in _NUMBERS if self._console.width >= width]
        for heading in shown:
            table.add_column(heading, justify="right", no_wrap=True)
        if self._column is not None:
            table.add_column(Text(self._column.text), no_wrap=True, overflow="ellipsis", ratio=1)
        for (connection, direction, type), row, rate, byte_rate in lines:
            numbers = (
                f"{row.count:,}",
                f"{rate:,.1f}" if rate < 100 else f"{rate:,.0f}",
                size(byte_rate),
                _ago(now - row.seen),
            )
            table.add_row(
                f"#{connection}",
                direction[len("to-") :],
                Text(printable(type)),
                *numbers[: len(shown)],
                *[Text("" if row.value is MISSING else show(row.value))] * (self._column is not None),
                style="dim" if row.ended else "",
            )
        return table


def _one_line(text: str, style: str) -> Text:
    return Text(text, style=style, no_wrap=True, overflow="ellipsis")


def _ago(seconds: float) -> str:
    if seconds < 1:
        return "now"
    for unit, length in (("s", 60.0), ("min", 60.0), ("h", 1e9)):
        if seconds < length:
            break
        seconds /= length
    return f"{seconds:.0f} {unit} ago"
