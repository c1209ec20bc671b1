"""Which messages are meant: by type, peer, direction, connection, time, and by what they say."""

from __future__ import annotations

from fnmatch import fnmatchcase
from functools import lru_cache
from typing import Callable, Dict, Iterable, Iterator, List, NamedTuple, Optional

from .decode import Decoders
from .events import FAILED, MESSAGE, OPENED, Event
from .expressions import Expression
from .text import complain


Moment = Callable[[float], float]  # a time, of the time when the recording began
_TYPES = 4096  # about which it is remembered whether they were asked for


class Choice(NamedTuple):
    """What was asked for; what is empty takes everything."""

    types: List[str]  # with wildcards
    direction: str = ""
    peers: List[str] = []  # addresses with wildcards, of a client or a server
    where: Optional[Expression] = None
    connections: List[int] = []
    after: Optional[Moment] = None
    before: Optional[Moment] = None


class Filter:
    """Takes the messages that were asked for, and what else concerns their connections.

    It is to be asked about every event, in order: those that tell of a connection tell its peers.
    """

    def __init__(self, choice: Choice, decoders: Decoders) -> None:
        self.choice = choice
        self._decoders = decoders
        self._takes_type = lru_cache(_TYPES)(self._matches)
        self._peers: Dict[int, bool] = {}  # connections, with whether their peers were asked for
        self._complained = False

    def __bool__(self) -> bool:
        """Whether it leaves anything out."""
        return any(self.choice)

    def select(self, events: Iterable[Event]) -> Iterator[Event]:
        """Those events that are taken, of a recording from its start."""
        start: Optional[float] = None
        for event in events:
            start = event.time if start is None else start
            if self.takes(event, start):
                yield event

    def takes(self, event: Event, start: float = 0.0) -> bool:
        """`start`: when the recording began."""
        choice = self.choice
        if choice.peers and not self._takes_peer(event):
            return False
        if choice.connections and event.connection not in choice.connections:
            return False
        if choice.direction and event.direction and event.direction != choice.direction:
            return False
        return event.kind != MESSAGE or (
            self._takes_time(event.time, start)
            and self._takes_type(event.type)
            and (choice.where is None or self._holds(choice.where, event))
        )

    def _takes_peer(self, event: Event) -> bool:
        if event.kind == OPENED:
            peers = event.text.split(" to ")
            hosts = [peer.rpartition(":")[0] for peer in peers]
            self._peers[event.connection] = any(
                fnmatchcase(name, wanted) for name in peers + hosts for wanted in self.choice.peers
            )
        taken = self._peers.get(event.connection, False)
        if event.kind == FAILED:
            self._peers.pop(event.connection, None)  # nothing of it follows
        return taken

    def _takes_time(self, time: float, start: float) -> bool:
        after, before = self.choice.after, self.choice.before
        return (after is None or time >= after(start)) and (before is None or time < before(start))

    def _matches(self, type: str) -> bool:
        types = self.choice.types
        return not types or any(type == wanted or fnmatchcase(type, wanted) for wanted in types)

    def _holds(self, where: Expression, event: Event) -> bool:
        try:
            return bool(where.value(self._decoders.names(event)))
        except TypeError:
            if not self._complained:
                self._complained = True
                complain(f"of {event.type} that cannot be asked, it is left out: {where.text}")
            return False
