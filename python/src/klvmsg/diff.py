"""Compares two recordings: on each connection, in each direction, message by message."""

from __future__ import annotations

from collections import Counter, deque
from itertools import zip_longest
from typing import Deque, Dict, Iterable, List, NamedTuple, Optional, Tuple

from .events import MESSAGE, Event

_Key = Tuple[int, str]


class Difference(NamedTuple):
    """The first one of a connection and direction. One of the two is None where a recording has no
    further message there."""

    place: int  # of the message on its connection and direction, from 1 on
    a: Optional[Event]
    b: Optional[Event]


class _Stream:
    """What is compared of one connection and direction; one of the two queues is empty."""

    def __init__(self) -> None:
        self.a: Deque[Event] = deque()
        self.b: Deque[Event] = deque()
        self.compared = 0
        self.difference: Optional[Difference] = None

    def compare(self) -> None:
        while self.a and self.b and not self.difference:
            a, b = self.a.popleft(), self.b.popleft()
            self.compared += 1
            if (a.type, a.body) != (b.type, b.body):
                self.difference = Difference(self.compared, a, b)
        if self.difference:
            self.a.clear()
            self.b.clear()

    def end(self) -> None:
        if not self.difference and (self.a or self.b):
            a, b = (queue[0] if queue else None for queue in (self.a, self.b))
            self.difference = Difference(self.compared + 1, a, b)


class Comparison:
    """Of two recordings that are read side by side: what has no partner yet is kept, and no more.

    When messages came does not count, nor does the order of messages of different connections or
    directions, which is a matter of time.
    """

    def __init__(self, a: Iterable[Event], b: Iterable[Event]) -> None:
        self.counts: Tuple[Counter[str], Counter[str]] = (Counter(), Counter())  # by type
        streams: Dict[_Key, _Stream] = {}
        for pair in zip_longest(_messages(a), _messages(b)):
            for event, queue, counts in zip(pair, "ab", self.counts):
                if event is not None:
                    counts[event.type] += 1
                    stream = streams.setdefault((event.connection, event.direction), _Stream())
                    if stream.difference is None:
                        getattr(stream, queue).append(event)
                        stream.compare()
        for stream in streams.values():
            stream.end()
        found = [stream.difference for stream in streams.values() if stream.difference]
        self.differences: List[Difference] = sorted(found, key=_time)


def first_byte(a: bytes, b: bytes) -> int:
    """Where two bodies begin to differ."""
    return next((i for i, (x, y) in enumerate(zip(a, b)) if x != y), min(len(a), len(b)))


def _messages(events: Iterable[Event]) -> Iterable[Event]:
    return (event for event in events if event.kind == MESSAGE)


def _time(difference: Difference) -> float:
    """The recordings may be of different days: those of A go first."""
    return difference.a.time if difference.a else float("inf")
