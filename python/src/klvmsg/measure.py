"""Round trips and rates, taken with the peer of this package."""

from __future__ import annotations

import time
from typing import Callable, List, NamedTuple, Sequence, Tuple

from .errors import TimedOut
from .peer import Connection

_AHEAD = 64  # messages that are under way before their answers come
_AHEAD_BYTES = 1 << 20


class Rate(NamedTuple):
    """So many messages with bodies of one size went one way in so many seconds."""

    size: int
    messages: int
    seconds: float

    @property
    def per_second(self) -> float:
        return self.messages / self.seconds

    @property
    def bytes_per_second(self) -> float:
        return self.messages * self.size / self.seconds


def round_trip(peer: Connection, type: str, body: bytes, limit: float) -> float:
    """Seconds from before the message is sent until something comes back."""
    began = time.perf_counter()
    peer.send(type, body, limit)
    try:
        peer.receive(limit)
    except TimedOut:
        raise TimedOut(f"no answer to {type} has come in time") from None
    return time.perf_counter() - began


def rate_one_way(
    connect: Callable[[], Connection], type: str, size: int, seconds: float, limit: float
) -> Rate:
    """Up to the moment when the peer has read everything, which it shows by closing."""
    body = bytes(size)
    peer = connect()
    began = time.perf_counter()
    messages = 0
    while time.perf_counter() < began + seconds:
        peer.send(type, body, limit)
        messages += 1
    peer.finish(limit)
    return Rate(size, messages, time.perf_counter() - began)


def rate_and_back(
    connect: Callable[[], Connection], type: str, size: int, seconds: float, limit: float
) -> Rate:
    """Messages of which each is answered, with several under way."""
    body = bytes(size)
    with connect() as peer:
        ahead = max(1, min(_AHEAD, _AHEAD_BYTES // max(1, size)))
        began = time.perf_counter()
        sent = answered = 0
        while True:
            more = time.perf_counter() < began + seconds or sent == 0
            if more and sent - answered < ahead:
                peer.send(type, body, limit)
                sent += 1
            elif answered < sent:
                peer.receive(limit)
                answered += 1
            else:
                return Rate(size, answered, time.perf_counter() - began)


def percentile(values: Sequence[float], share: float) -> float:
    """The smallest value that so large a share of the sorted values does not exceed."""
    return values[max(0, -int(-share * len(values) // 1) - 1)]


def histogram(values: Sequence[float]) -> List[Tuple[float, int]]:
    """How many values there are up to each bound, and above the one before: bounds are 1, 2, 5, 10, 20
    microseconds and so on, from the first to the last that has values."""
    bounds = [step * 10.0**power for power in range(-6, 4) for step in (1, 2, 5)]
    counts = [0] * len(bounds)
    for value in values:
        place = next((i for i, bound in enumerate(bounds) if value <= bound), len(bounds) - 1)
        counts[place] += 1
    taken = [i for i, count in enumerate(counts) if count]
    return list(zip(bounds, counts))[taken[0] : taken[-1] + 1] if taken else []
