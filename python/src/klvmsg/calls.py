"""Questions and their answers: the 8-byte number that stands before a body's fields.

A question's number has its highest bit unset, its answer's is the same with that bit set, and 0 stands
where no answer is wanted. It is in the byte order of the lengths.
"""

from __future__ import annotations

from typing import Dict, Optional, Tuple

from .events import MESSAGE, TO_CLIENT, TO_SERVER, Event
from .rules import Order, Rules
from .text import printable

SIZE = 8
CALL_BYTES = 16  # of a body, in which its number is
ANSWER = 1 << 63
_OPEN = 100_000  # questions that are remembered until they are answered


def number_of(content: bytes, order: Order) -> Optional[int]:
    """The number at the head of a body without its length; None when it is too short to have one."""
    return int.from_bytes(content[:SIZE], order) if len(content) >= SIZE else None


class Calls:
    """Finds the question of each answer, among the messages of types whose rules end with `call`."""

    def __init__(self, rules: Rules) -> None:
        self._rules = rules
        self._open: Dict[Tuple[int, str, int], Tuple[str, float]] = {}

    def note(self, event: Event) -> str:
        """What an event is in words: "question 7", "answer 7 to Price after 0.8 ms", or nothing.

        To be told of all events, in order.
        """
        rule = self._rules.of(event.type)
        if event.kind != MESSAGE or not rule.call:
            return ""
        number = number_of(event.body[rule.prefix :], rule.order)
        if not number:
            return "" if number is None else "no answer wanted"
        if number < ANSWER:
            if len(self._open) >= _OPEN:
                del self._open[next(iter(self._open))]
            self._open[event.connection, event.direction, number] = event.type, event.time
            return f"question {number}"
        asker = TO_CLIENT if event.direction == TO_SERVER else TO_SERVER
        number -= ANSWER
        question = self._open.pop((event.connection, asker, number), None)
        if question is None:
            return f"answer {number} to no question that was seen"
        took = (event.time - question[1]) * 1000
        return f"answer {number} to {printable(question[0])} after {took:.1f} ms"
