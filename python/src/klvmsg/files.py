"""The files that commands read and write, with words for what goes wrong."""

from __future__ import annotations

import sys
from io import FileIO
from typing import BinaryIO, TextIO

from .exits import FILE, Failure


def open_for_writing(path: str) -> BinaryIO:
    """The file, emptied; - is standard output."""
    try:
        return open(sys.stdout.fileno() if path == "-" else path, "wb", closefd=path != "-")
    except OSError as error:
        raise Failure(FILE, f"cannot write {path}: {error.strerror}") from error


def open_unbuffered(path: str) -> FileIO:
    """The same for whoever needs to know how much of what he writes has been written."""
    try:
        return FileIO(sys.stdout.fileno() if path == "-" else path, "w", closefd=path != "-")
    except OSError as error:
        raise Failure(FILE, f"cannot write {path}: {error.strerror}") from error


def open_recording(path: str) -> TextIO:
    """The lines of a recording; - is standard input."""
    try:
        return sys.stdin if path == "-" else open(path, encoding="ascii", errors="replace")
    except OSError as error:
        raise Failure(FILE, f"cannot read {path}: {error.strerror}") from error
