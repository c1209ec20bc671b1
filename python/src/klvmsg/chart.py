"""Draws a recording: the messages between the processes, and rates. Needs matplotlib.

The page is in `page`.
"""

from __future__ import annotations

import io
import time
import warnings
from array import array
from typing import Any, Callable, Dict, Iterable, List, NamedTuple, Optional, Tuple, Union

import matplotlib
from matplotlib.figure import Figure

from .events import MESSAGE, OPENED, TO_SERVER, Event
from .filters import Filter
from .text import plural, printable, size

_LANES = 40  # processes that are drawn
_SILENCE = 1.0  # seconds without a message that are worth a row
_LONGEST_NAME = 22  # characters of a type in a drawing
_BINS = (10, 120)  # fewest and most in a plot of rates
_LISTED = 100_000  # messages in the list of the page
_SAID = 20_000_000  # characters of what they say; beyond that they are short
_SHORT = 100
_COLOURED = 9  # types with a colour of their own
_COLOURS = ("#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#17becf", "#8c564b", "#e377c2",
            "#bcbd22", "#555555")  # fmt: skip


class Row:
    """Messages of one kind that follow each other, or something else that happened."""

    def __init__(self, event: Event, seconds: float) -> None:
        self.event = event
        self.first = self.last = seconds
        self.count = 1
        self.bytes = event.length

    def add(self, event: Event, seconds: float) -> bool:
        """Whether the message is of this kind."""
        if event[1:4] != self.event[1:4] or event.type != self.event.type or event.kind != MESSAGE:
            return False
        self.last = seconds
        self.count += 1
        self.bytes += event.length
        return True


class Kind:
    """All messages of one type in one direction."""

    def __init__(self) -> None:
        self.times = array("d")  # seconds from the start
        self.lengths = array("Q")


class Listed(NamedTuple):
    """A message in the list of the page."""

    seconds: float
    connection: int
    direction: str
    type: str
    length: int
    said: str


class Story:
    """What is drawn of a recording; of bodies only what the first 100,000 say is kept."""

    def __init__(
        self, events: Iterable[Event], chosen: Filter, rows: int, said: Callable[[Event], str]
    ) -> None:
        """`rows`: at most so many are drawn. `said`: what a body says, shortly."""
        self._limit = rows
        self.listed: List[Listed] = []
        self._room = _SAID
        self.rows: List[Row] = []
        self.left_out = 0  # messages and other events beyond the last row
        self.kinds: Dict[Tuple[str, str], Kind] = {}  # by type and direction
        self.start: Optional[float] = None
        self.end = 0.0  # seconds from the start
        self.names: Dict[int, str] = {}  # of clients, by connection
        self.server = "server"
        self.notices: List[Row] = []
        for event in events:
            if self.start is None:
                self.start = event.time
            seconds = event.time - self.start
            self.end = max(self.end, seconds)
            if not chosen.takes(event, self.start):
                continue
            if event.kind != MESSAGE:
                self._note(event, seconds)
            else:
                if len(self.listed) < _LISTED:
                    self._list(event, seconds, said(event))
                self._add(event._replace(body=b""), seconds)

    def colour(self, type: str) -> str:
        types = self.types()
        return _COLOURS[types.index(type) if type in types else _COLOURED]

    def counts(self) -> Dict[str, int]:
        """How many messages there are of each type."""
        counts: Dict[str, int] = {}
        for (type, _), kind in self.kinds.items():
            counts[type] = counts.get(type, 0) + len(kind.times)
        return counts

    def types(self) -> List[str]:
        """Those with a colour of their own: the most frequent ones."""
        counts = self.counts()
        return sorted(counts, key=lambda type: (-counts[type], type))[:_COLOURED]

    def _list(self, event: Event, seconds: float, said: str) -> None:
        if self._room <= 0 and len(said) > _SHORT:
            said = said[:_SHORT] + "..."
        self._room -= len(said)
        self.listed.append(Listed(round(seconds, 6), event.connection, event.direction, event.type,
                                  event.length, said))  # fmt: skip

    def _note(self, event: Event, seconds: float) -> None:
        if event.kind == OPENED:
            client, _, server = event.text.partition(" to ")
            self.names[event.connection] = client
            self.server = server or self.server
        elif event.is_notable():
            self.notices.append(Row(event, seconds))
            self._add_row(self.notices[-1])

    def _add(self, event: Event, seconds: float) -> None:
        self.names.setdefault(event.connection, "client")
        kind = self.kinds.setdefault((event.type, event.direction), Kind())
        kind.times.append(seconds)
        kind.lengths.append(event.length)
        if self.left_out or not (self.rows and self.rows[-1].add(event, seconds)):
            self._add_row(Row(event, seconds))

    def _add_row(self, row: Row) -> None:
        if len(self.rows) < self._limit:
            self.rows.append(row)
        else:
            self.left_out += 1


# The messages between the processes ---------------------------------------------------------------

# In inches, from the upper left corner.
_LEFT, _LANE, _TOP, _ROW = 1.9, 2.7, 0.95, 0.3


def make_svg(story: Story, name: str) -> str:
    """The messages between the processes, one row below the other, as a drawing of its own."""
    shown = sorted({row.event.connection for row in story.rows})[: _LANES - 1]
    lanes = {number: _LEFT + _LANE * i for i, number in enumerate(shown, 1)}
    lines = _with_silences(story.rows)
    remarks = _remarks(story, lanes)
    height = _TOP + _ROW * (len(lines) + len(remarks) + 1)
    width = _LEFT + _LANE * max(len(lanes), 1) + 1.2
    figure = Figure(figsize=(width, height))
    axes = figure.add_axes((0, 0, 1, 1))
    axes.set(xlim=(0, width), ylim=(height, 0))
    axes.axis("off")
    _draw_lanes(axes, story, lanes, height - _ROW * (len(remarks) + 0.7))
    _write(axes, 0.15, 0.25, title(story, name), weight="bold", ha="left")
    for i, row in enumerate(lines):
        y = _TOP + _ROW * (i + 0.6)
        if isinstance(row, float):
            axes.axhspan(y - 0.09, y + 0.09, color="#f2f2f2", linewidth=0)
            _write(axes, 0.15, y, f"{row:.1f} s of silence", style="italic", color="#666666", ha="left")
        elif row.event.connection in lanes:
            _draw_row(axes, story, row, lanes[row.event.connection], y)
    for i, remark in enumerate(remarks):
        _write(axes, 0.15, height - _ROW * (len(remarks) - i), remark, color="#666666", ha="left")
    return _to_svg(figure, "messages")


def _with_silences(rows: List[Row]) -> List[Union[Row, float]]:
    lines: List[Union[Row, float]] = []
    for before, row in zip([None, *rows], rows):
        if before is not None and row.first - before.last >= _SILENCE:
            lines.append(row.first - before.last)
        lines.append(row)
    return lines


def _remarks(story: Story, lanes: Dict[int, float]) -> List[str]:
    remarks = []
    if story.left_out:
        remarks.append(f"{plural(story.left_out, 'later event')} not drawn: choose with --rows, "
                       "--type, --direction, --connection, --after, --before")  # fmt: skip
    others = {row.event.connection for row in story.rows} - set(lanes)
    if others:
        remarks.append(f"{plural(len(others), 'connection')} not drawn: choose with --connection")
    if not story.rows:
        remarks.append("No messages.")
    return remarks


def _draw_lanes(axes: Any, story: Story, lanes: Dict[int, float], bottom: float) -> None:
    names = {number: f"#{number}  {story.names.get(number, 'client')}" for number in lanes}
    for x, text in [(_LEFT, story.server), *((lanes[n], names[n]) for n in lanes)]:
        axes.plot([x, x], [_TOP, bottom], color="#999999", linewidth=1, zorder=1)
        _write(axes, x, _TOP - 0.25, text, weight="bold",
               bbox={"boxstyle": "round,pad=0.4", "facecolor": "#eef3f8", "edgecolor": "#999999"})  # fmt: skip


def _draw_row(axes: Any, story: Story, row: Row, lane: float, y: float) -> None:
    event = row.event
    _write(axes, 0.15, y, f"{row.first:.6f} s", color="#666666", ha="left")
    if event.kind != MESSAGE:
        text = short(f"{event.kind}: {event.text}", 60)
        x = lane if not event.direction else lane - _LANE / 2
        return _write(axes, x, y, text, color="#c00000", weight="bold", bbox=_BACKGROUND)
    x_from, x_to = (lane, _LEFT) if event.direction == TO_SERVER else (_LEFT, lane)
    colour = story.colour(event.type)
    axes.annotate("", (x_to, y), (x_from, y), zorder=2,
                  arrowprops={"arrowstyle": "-|>", "color": colour, "shrinkA": 0, "shrinkB": 0})  # fmt: skip
    times = f" \u00d7{row.count:,}" if row.count > 1 else ""
    text = f"{short(event.type, _LONGEST_NAME)}{times}  {size(row.bytes)}"
    _write(axes, lane - _LANE / 2, y, text, color=colour, bbox=_BACKGROUND)


_BACKGROUND = {"boxstyle": "square,pad=0.15", "facecolor": "white", "edgecolor": "none"}


def _write(axes: Any, x: float, y: float, text: str, **style: Any) -> None:
    axes.text(x, y, text, **{"ha": "center", "va": "center", "fontsize": 9, "parse_math": False,
                             "zorder": 3, **style})  # fmt: skip


def short(text: str, length: int) -> str:
    text = printable(text)
    return text if len(text) <= length else text[: length - 3] + "..."


def title(story: Story, name: str) -> str:
    if story.start is None:
        return f"{short(name, 60)}: nothing has been recorded"
    began = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(story.start))
    return f"{short(name, 60)}, from {began} on"


# Rates --------------------------------------------------------------------------------------------


def make_rates(story: Story) -> str:
    """Messages and bytes a second over time, a line for each type, as SVG."""
    figure = Figure(figsize=(10, 5))
    bins = min(max(sum(story.counts().values()) // 4, _BINS[0]), _BINS[1])
    width = max(story.end, 0.001) / bins
    edges = [i * width for i in range(bins + 1)]
    upper, lower = figure.subplots(2, 1, sharex=True)
    shown = story.types()
    for type in [*shown, *([""] if len(story.counts()) > len(shown) else [])]:
        counts, sizes = [0.0] * bins, [0.0] * bins
        for (other, _), kind in story.kinds.items():
            if other == type or (type == "" and other not in shown):
                for seconds, length in zip(kind.times, kind.lengths):
                    place = min(int(seconds / width), bins - 1)
                    counts[place] += 1 / width
                    sizes[place] += length / width
        label = short(type, _LONGEST_NAME) if type else "all other types"
        for axes, values in ((upper, counts), (lower, sizes)):
            axes.stairs(values, edges, label=label, color=story.colour(type), linewidth=1.3)
    upper.set(ylabel="messages a second")
    lower.set(ylabel="bytes a second", xlabel="seconds from the start")
    for axes in (upper, lower):
        axes.set_ylim(bottom=0)
        axes.grid(alpha=0.3)
    lower.yaxis.set_major_formatter(lambda value, position: size(value))
    if shown:
        legend = figure.legend(*upper.get_legend_handles_labels(), loc="upper center", ncol=4,
                               fontsize=8, frameon=False)  # fmt: skip
        for text in legend.get_texts():
            text.set_parse_math(False)
    figure.subplots_adjust(left=0.1, right=0.98, bottom=0.1, top=0.86, hspace=0.12)
    return _to_svg(figure, "rates")


def _to_svg(figure: Figure, salt: str) -> str:
    """Text stays text, and the same recording gives the same drawing."""
    out = io.StringIO()
    with matplotlib.rc_context({"svg.fonttype": "none", "svg.hashsalt": salt}):
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")  # characters that the font does not have
            figure.savefig(out, format="svg", metadata={"Date": None})
    return out.getvalue()
