"""The files that commands read and write, with words for what goes wrong."""

from __future__ import annotations

import sys
from typing import BinaryIO, TextIO

from .exits import FILE, Failure


def open_for_writing(path: str) -> BinaryIO:
    """The file, emptied; - is standard output."""
    try:
        return sys.stdout.buffer if path == "-" else open(path, "wb")
    except OSError as error:
        raise Failure(FILE, f"cannot write {path}: {error.strerror}") from error


def open_recording(path: str) -> TextIO:
    """The lines of a recording; - is standard input."""
    try:
        return sys.stdin if path == "-" else open(path, encoding="ascii", errors="replace")
    except OSError as error:
        raise Failure(FILE, f"cannot read {path}: {error.strerror}") from error
