"""Names, bodies, sizes and times in words that are safe to print."""

from __future__ import annotations

import functools
import sys
import time
from typing import Union


def printable(text: Union[str, bytes]) -> str:
    """Text that does nothing to a terminal: what is not printable, and the backslash, is \\xNN for each
    of its bytes. Of bytes only ASCII is taken for printable."""
    if isinstance(text, bytes):
        text = text.decode("ascii", "surrogateescape")
    if text.isprintable() and "\\" not in text:
        return text
    return "".join(
        character
        if character.isprintable() and character != "\\"
        else "".join(f"\\x{byte:02x}" for byte in character.encode("utf-8", "surrogateescape"))
        for character in text
    )


def clock(seconds: float) -> str:
    """The time of day, of a time in seconds since 1970."""
    whole, micro = divmod(round(seconds * 1_000_000), 1_000_000)
    return f"{_time_of_day(whole)}.{micro:06d}"


@functools.lru_cache(maxsize=16)
def _time_of_day(seconds: int) -> str:
    return time.strftime("%H:%M:%S", time.localtime(seconds))


def size(count: float) -> str:
    """A number of bytes, short: 999 B, 1.2 kB, 34 MB."""
    for unit in ("B", "kB", "MB", "GB"):
        if count < 999.5 or unit == "GB":
            break
        count /= 1000
    return f"{count:.0f} {unit}" if unit == "B" or count >= 9.95 else f"{count:.1f} {unit}"


def plural(count: int, what: str) -> str:
    return f"{count:,} {what}" + ("" if count == 1 else "s")


def complain(text: str) -> None:
    """Says something to the user, beside the output."""
    print(f"klvmsg: {printable(text)}", file=sys.stderr, flush=True)
