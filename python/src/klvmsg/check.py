"""Statements about a recording, and whether they hold.

    Result answers Job within 2 s
    no more than 100 News a second       on one connection, in one direction
    no more than 3 Alarm                 in all; also: at least 1 Hello, exactly 1 Hello
    no Alarm
    every Result has square == number * number
    no unknown type                      but those of --rules, and of the next line
    known Job, Result
    nothing out of step
    every connection ends in order

A type may have wildcards, and stands in quotes where it has spaces.
"""

from __future__ import annotations

import re
from collections import Counter, deque
from fnmatch import fnmatchcase
from typing import Callable, Deque, Dict, Iterable, List, Match, Optional, Pattern, Tuple, Type

from .decode import Decoders
from .events import ENDED, FAILED, LOST, MESSAGE, Event
from .expressions import Expression

_UNITS = {"ms": 0.001, "s": 1.0, "min": 60.0, "h": 3600.0}
_PERIODS = {"second": 1.0, "minute": 60.0, "hour": 3600.0}
_KEPT = 4096  # bytes of a question that waits for its answer
_TYPE = r'("[^"]+"|[^\s",]+)'


class Statement:
    """One line. It is told of every event, in order."""

    def __init__(self, text: str) -> None:
        self.text = text
        self.looked_at = 0  # events that it is about
        self.broken = 0
        self.first: Optional[Event] = None  # where it is broken
        self.why = ""  # of the first

    def see(self, event: Event) -> None:
        raise NotImplementedError

    def end(self) -> None:
        """Nothing follows."""

    def _breaks(self, event: Optional[Event], why: str) -> None:
        if not self.broken:
            self.first, self.why = event, why
        self.broken += 1


class _Answers(Statement):
    """The n-th answer on a connection is taken for that of the n-th question without one."""

    def __init__(self, text: str, found: Match[str]) -> None:
        super().__init__(text)
        self._answer, self._question = _matcher(found[1]), _matcher(found[2])
        self._limit = float(found[3]) * _UNITS[found[4]]
        self._open: Dict[Tuple[int, str], Deque[Event]] = {}  # by connection and the answers' direction
        self._now = 0.0

    def see(self, event: Event) -> None:
        self._now = max(self._now, event.time)
        here = (event.connection, event.direction)
        if event.kind in (ENDED, LOST):
            for question in self._open.pop(here, ()):
                self._breaks(question, "has no answer")
        if event.kind != MESSAGE:
            return
        if self._open.get(here) and self._answer(event.type):
            question = self._open[here].popleft()
            if event.time - question.time > self._limit:
                self._breaks(question, f"is answered after {event.time - question.time:.3f} s")
        if self._question(event.type):
            self.looked_at += 1
            back = "to-client" if event.direction == "to-server" else "to-server"
            waiting = self._open.setdefault((event.connection, back), deque())
            waiting.append(event if event.length <= _KEPT else event._replace(body=b""))

    def end(self) -> None:
        for questions in self._open.values():
            for question in questions:
                if question.time + self._limit < self._now:
                    self._breaks(question, "has no answer")


class _Rate(Statement):
    def __init__(self, text: str, found: Match[str]) -> None:
        super().__init__(text)
        self._limit, self._type, self._period = int(found[1]), _matcher(found[2]), _PERIODS[found[3]]
        self._times: Dict[Tuple[int, str], Deque[float]] = {}  # of the last ones, as many as may come

    def see(self, event: Event) -> None:
        if event.kind != MESSAGE or not self._type(event.type):
            return
        self.looked_at += 1
        times = self._times.setdefault((event.connection, event.direction), deque())
        times.append(event.time)
        if len(times) > self._limit and event.time - times.popleft() < self._period:
            self._breaks(event, "is too soon")


class _Count(Statement):
    def __init__(self, text: str, found: Match[str]) -> None:
        super().__init__(text)
        self._kind, self._limit, self._type = found[1], int(found[2]), _matcher(found[3])

    def see(self, event: Event) -> None:
        if event.kind == MESSAGE and self._type(event.type):
            self.looked_at += 1
            if self.looked_at > self._limit and self._kind != "at least":
                self._breaks(event, f"is number {self.looked_at}")

    def end(self) -> None:
        if self.looked_at < self._limit and self._kind != "no more than":
            self._breaks(None, f"there are {self.looked_at}")


class _Never(Statement):
    def __init__(self, text: str, found: Match[str]) -> None:
        super().__init__(text)
        self._type = _matcher(found[1])

    def see(self, event: Event) -> None:
        if event.kind == MESSAGE:
            self.looked_at += 1
            if self._type(event.type):
                self._breaks(event, "is there")


class _Every(Statement):
    def __init__(self, text: str, found: Match[str]) -> None:
        super().__init__(text)
        self._type, self._holds = _matcher(found[1]), Expression(found[2])
        self._decoders = Decoders.none()

    def decode_with(self, decoders: Decoders) -> None:
        self._decoders = decoders

    def see(self, event: Event) -> None:
        if event.kind != MESSAGE or not self._type(event.type):
            return
        self.looked_at += 1
        try:
            holds = bool(self._holds.value(self._decoders.names(event)))
        except TypeError:
            return self._breaks(event, "cannot be asked that")
        if not holds:
            self._breaks(event, "has not")


class _Known(Statement):
    def __init__(self, text: str, found: Match[str]) -> None:
        super().__init__(text)
        self.types: List[Callable[[str], bool]] = []

    def see(self, event: Event) -> None:
        if event.kind == MESSAGE:
            self.looked_at += 1
            if not any(known(event.type) for known in self.types):
                self._breaks(event, "is unknown")


class _InStep(Statement):
    def __init__(self, text: str, found: Match[str]) -> None:
        super().__init__(text)

    def see(self, event: Event) -> None:
        self.looked_at += 1
        if event.kind == LOST:
            self._breaks(event, "")


class _Orderly(Statement):
    def __init__(self, text: str, found: Match[str]) -> None:
        super().__init__(text)
        self._left: Counter[int] = Counter()  # directions that have not ended, by connection

    def see(self, event: Event) -> None:
        if event.kind == FAILED or (event.kind == ENDED and event.text):
            self._breaks(event, "")
        if event.kind in (FAILED, ENDED):
            self._left[event.connection] -= 2 if event.kind == FAILED else 1
            if self._left[event.connection] <= 0:
                del self._left[event.connection]
        elif event.connection not in self._left:
            self.looked_at += 1
            self._left[event.connection] = 2

    def end(self) -> None:
        for number in self._left:
            self._breaks(None, f"#{number} has not ended")


_FORMS: List[Tuple[Pattern[str], Type[Statement]]] = [
    (re.compile(pattern, re.ASCII), statement)
    for pattern, statement in (
        (rf"{_TYPE} answers {_TYPE} within (\d+(?:\.\d+)?) (ms|s|min|h)", _Answers),
        (rf"no more than (\d+) {_TYPE} an? (second|minute|hour)", _Rate),
        (rf"(no more than|at least|exactly) (\d+) {_TYPE}", _Count),
        (rf"every {_TYPE} has (.+)", _Every),
        (r"no unknown type", _Known),
        (r"nothing out of step", _InStep),
        (r"every connection ends in order", _Orderly),
        (rf"no {_TYPE}", _Never),
    )
]
_KNOWN = re.compile(rf"known {_TYPE}(?:, *{_TYPE})*", re.ASCII)


def parse(lines: Iterable[str], named: List[str], decoders: Decoders) -> List[Statement]:
    """The statements of these lines. `named`: the types that have rules. Raises ValueError, which names
    the line."""
    statements: List[Statement] = []
    known = list(map(_matcher, named))
    for number, line in enumerate(map(str.strip, lines), 1):
        if _KNOWN.fullmatch(line):
            known += map(_matcher, re.findall(_TYPE, line[len("known ") :]))
        elif line and not line.startswith("#"):
            try:
                statements.append(_statement(line))
            except ValueError as error:
                raise ValueError(f"line {number}: {error}") from error
    for statement in statements:
        if isinstance(statement, _Known):
            statement.types = known
            if not known:
                raise ValueError("no unknown type: which are known? 'known Job, Result', or --rules")
        elif isinstance(statement, _Every):
            statement.decode_with(decoders)
    return statements


def _statement(line: str) -> Statement:
    for form, statement in _FORMS:
        found = form.fullmatch(line)
        if found:
            return statement(line, found)  # type: ignore[call-arg]
    raise ValueError(f"not a statement: {line}")


def _matcher(type: str) -> Callable[[str], bool]:
    wanted = type.strip('"')
    return lambda other: other == wanted or fnmatchcase(other, wanted)
