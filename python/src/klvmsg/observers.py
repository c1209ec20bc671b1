"""Prints the events of a relay as lines. The live table is in `top`, the recording in `recorder`."""

from __future__ import annotations

import os
import sys
import threading
from typing import Callable, List, Optional, Tuple

from .events import Event
from .text import complain as complain

_WAITING_LINES = 100_000
_WAITING_BYTES = 64_000_000  # of bodies

Line = Callable[[Event], Optional[str]]  # what is written about an event, if anything


class Printer:
    """Prints a line for each event on a thread of its own.

    The bytes never wait for the output: when 100,000 lines wait to be printed, or 64 MB of bodies, as at
    a terminal that is stopped, further ones are left out, and their number is printed later.
    """

    def __init__(self, line: Line) -> None:
        self._line = line
        self._waiting: List[Event] = []
        self._waiting_bytes = 0
        self._left_out = 0
        self._printed = 0
        self._over = False
        self._change = threading.Condition()
        self._thread = threading.Thread(target=self._print, daemon=True)
        self._thread.start()

    def observe(self, events: List[Event]) -> None:
        with self._change:
            room = _WAITING_LINES - len(self._waiting)
            if self._waiting_bytes > _WAITING_BYTES:
                room = 0
            self._waiting += events[:room]
            self._waiting_bytes += sum(len(event.body) for event in events[:room])
            self._left_out += max(0, len(events) - room)
            self._change.notify()

    def close(self) -> bool:
        """Prints what waits; False when the output has taken nothing for two seconds."""
        with self._change:
            self._over = True
            self._change.notify()
        before = -1
        while self._thread.is_alive() and self._printed != before:
            before = self._printed
            self._thread.join(2)
        return not self._thread.is_alive()

    def _print(self) -> None:
        try:
            while True:
                events, left_out, over = self._next()
                for event in events:
                    line = self._line(event)
                    if line is not None:
                        sys.stdout.write(line + "\n")
                    self._printed += 1
                if left_out:
                    sys.stdout.write(f"-- {left_out} lines left out: the output was too slow\n")
                sys.stdout.flush()
                if over:
                    return
        except OSError as error:  # nobody reads any more
            complain(f"no more lines are printed, bytes are passed on: {error.strerror}")
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # for Python's own flush
            while not self._next()[2]:
                pass

    def _next(self) -> Tuple[List[Event], int, bool]:
        """Waits for something to print; True when nothing follows."""
        with self._change:
            self._change.wait_for(lambda: self._waiting or self._over)
            events, left_out = self._waiting, self._left_out
            self._waiting, self._waiting_bytes, self._left_out = [], 0, 0
            return events, left_out, self._over
