"""Prints the events of a relay as lines. The live table is in `top`, the recording in `recorder`."""

from __future__ import annotations

import os
import stat
import sys
import threading
from typing import Callable, List, Optional, Tuple

from .events import Event
from .text import complain as complain

_WAITING_LINES = 100_000
_WAITING_BYTES = 64_000_000  # of bodies
_AT_ONCE = 100  # lines that are written together

Line = Callable[[Event], Optional[str]]  # what is written about an event, if anything


class Printer:
    """Prints a line for each event on a thread of its own.

    When 100,000 lines wait to be printed, or 64 MB of bodies, a file is waited for, which always moves.
    For any other output, such as a terminal that is stopped, the bytes never wait: further lines are
    left out, and their number is printed later.
    """

    def __init__(self, line: Line) -> None:
        self._line = line
        self._waiting: List[Event] = []
        self._waiting_bytes = 0
        self._left_out = 0
        self._to_file = stat.S_ISREG(os.fstat(sys.stdout.fileno()).st_mode)
        self._printed = 0
        self._over = False
        self._change = threading.Condition()
        self._thread = threading.Thread(target=self._print, daemon=True)
        self._thread.start()

    def observe(self, events: List[Event]) -> None:
        with self._change:
            room = self._room()
            if self._to_file:
                self._change.wait_for(lambda: self._room() > 0 or self._over)
                room = len(events)
            self._waiting += events[:room]
            self._waiting_bytes += sum(len(event.body) for event in events[:room])
            self._left_out += max(0, len(events) - room)
            self._change.notify_all()

    def _room(self) -> int:
        if self._waiting_bytes > _WAITING_BYTES:
            return 0
        return _WAITING_LINES - len(self._waiting)

    def close(self) -> bool:
        """Prints what waits; False when the output has taken nothing for two seconds."""
        with self._change:
            self._over = True
            self._change.notify_all()
        before = -1
        while self._thread.is_alive() and self._printed != before:
            before = self._printed
            self._thread.join(2)
        return not self._thread.is_alive()

    def _print(self) -> None:
        try:
            while True:
                events, left_out, over = self._next()
                for at in range(0, len(events), _AT_ONCE):
                    lines = map(self._line, events[at : at + _AT_ONCE])
                    sys.stdout.write("".join([line + "\n" for line in lines if line is not None]))
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
            self._change.notify_all()
            return events, left_out, self._over
