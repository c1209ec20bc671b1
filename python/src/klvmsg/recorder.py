"""Writes a recording: each event as a line, in one file or in files that follow each other."""

from __future__ import annotations

import glob
import os
import re
import threading
import time
from typing import Callable, Dict, List, NamedTuple, Optional, Tuple

from .events import ENDED, FAILED, MESSAGE, OPENED, Event, describe, to_json
from .files import open_unbuffered
from .text import complain, plural

Line = Callable[[Event], Optional[str]]  # what is written about an event, if anything
_GATHERED = 1 << 20  # bytes of lines that wait for the next time to write


class Rotation(NamedTuple):
    """When the next file begins; one of the two is 0."""

    bytes: int = 0
    seconds: float = 0.0
    keep: int = 0  # so many files, the youngest ones; 0 keeps all


class Recorder:
    """Writes each event at once, or every `interval` seconds.

    When that fails, as on a full disk, it says so and stops; the bytes are passed on all the same.
    """

    def __init__(
        self, path: str, line: Line, rotation: Optional[Rotation] = None, interval: float = 0.0
    ) -> None:
        """Raises Failure when there can be no such file."""
        self.messages = 0  # written whole
        self.failed = False
        self._files = _Files(path, rotation) if rotation else _OneFile(path)
        self._line = line
        self._interval = interval
        self._gathered: List[Tuple[str, Event]] = []  # lines, and what they are about
        self._gathered_bytes = 0
        self._lock = threading.Lock()
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._write_regularly, daemon=True)
        if interval:
            self._thread.start()

    def observe(self, events: List[Event]) -> None:
        with self._lock:
            if not self._over.is_set() and not self.failed:
                self._gather(events)
                if not self._interval or self._gathered_bytes > _GATHERED:
                    self._write()
        for event in events:
            if event.is_notable():
                complain(describe(event))

    def close(self) -> None:
        """Writes what is left and closes the file; what happens from now on is not written."""
        self._over.set()
        if self._interval:
            self._thread.join()
        with self._lock:
            self._write()
            self._files.close()

    def summary(self) -> str:
        return f"recorded {plural(self.messages, 'message')}{self._files.names()}"

    def _gather(self, events: List[Event]) -> None:
        for event in events:
            line = self._line(event)
            if line is not None:
                self._gathered.append((line + "\n", event))
                self._gathered_bytes += len(line)

    def _write_regularly(self) -> None:
        while not self._over.wait(self._interval):
            with self._lock:
                self._write()

    def _write(self) -> None:
        lines, self._gathered, self._gathered_bytes = self._gathered, [], 0
        if not lines or self.failed:
            return
        data = "".join([line for line, _ in lines]).encode("ascii")
        try:
            self._files.begin_write(len(data))
            written = self._files.write(data)
        except OSError as error:
            return self._fail(error)
        for line, event in lines:
            written -= len(line)
            if written < 0:
                return self._fail(self._files.error)
            if event.kind == MESSAGE:
                self.messages += 1
            else:
                self._files.note(event)

    def _fail(self, error: OSError) -> None:
        self.failed = True
        complain(f"recording has ended: {error.strerror}")


class _OneFile:
    error = OSError()

    def __init__(self, path: str) -> None:
        self._file = open_unbuffered(path)

    def begin_write(self, size: int) -> None:
        """To be called before so many bytes are written that belong together."""

    def note(self, event: Event) -> None:
        """To be told of what becomes of connections."""

    def write(self, data: bytes) -> int:
        """Returns how many bytes were written; when not all, `error` is the cause."""
        done = 0
        try:
            while done < len(data):
                done += self._file.write(memoryview(data)[done:]) or 0
        except OSError as error:
            self.error = error
        return done

    def close(self) -> None:
        self._file.close()

    def names(self) -> str:
        return ""


class _Files(_OneFile):
    """run.0001.jsonl, run.0002.jsonl and so on in place of run.jsonl, behind those that are there.

    Each is a recording of its own: it begins with the connections that are open.
    """

    def __init__(self, path: str, rotation: Rotation) -> None:
        self._base, self._suffix = os.path.splitext(path)
        self._rotation = rotation
        self._open: Dict[int, Tuple[Event, int]] = {}  # connections, with the directions left
        self._number = self._first = max(self._numbers(), default=0) + 1
        self._begin()

    def begin_write(self, size: int) -> None:
        limit, seconds = self._rotation.bytes, self._rotation.seconds
        is_full = limit and self._size and self._size + size > limit
        if is_full or (seconds and time.monotonic() - self._began >= seconds):
            self._file.close()
            self._number += 1
            self._begin()
            now = time.time()
            for event, _ in self._open.values():
                super().write(to_json(event._replace(time=now)).encode("ascii") + b"\n")

    def note(self, event: Event) -> None:
        if event.kind == OPENED:
            self._open[event.connection] = (event, 2)
        elif event.kind in (ENDED, FAILED) and event.connection in self._open:
            opened, left = self._open.pop(event.connection)
            if event.kind == ENDED and left > 1:
                self._open[event.connection] = (opened, left - 1)

    def write(self, data: bytes) -> int:
        done = super().write(data)
        self._size += done
        return done

    def names(self) -> str:
        first, last = self._name(self._first), self._name(self._number)
        return f" in {first}" if first == last else f" in {first} to {last}"

    def _begin(self) -> None:
        self._file = open_unbuffered(self._name(self._number))
        self._size = 0
        self._began = time.monotonic()
        keep = self._rotation.keep
        for number in sorted(self._numbers())[:-keep] if keep else []:
            os.unlink(self._name(number))

    def _name(self, number: int) -> str:
        return f"{self._base}.{number:04}{self._suffix}"

    def _numbers(self) -> List[int]:
        known = re.compile(rf"{re.escape(self._base)}\.(\d{{4,}}){re.escape(self._suffix)}")
        paths = glob.glob(f"{glob.escape(self._base)}.*{glob.escape(self._suffix)}")
        return [int(found[1]) for found in map(known.fullmatch, paths) if found]
