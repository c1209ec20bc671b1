"""Messages to bytes and back.

    message = length name body
    length  = 4 bytes in the byte order of this machine: the number of bytes in name
    name    = the type
    body    = as long as the rule for the type says

Names are text here. Bytes that are no UTF-8 stand in them as lone surrogates ("surrogateescape"), so
that every name comes out again as it went in.
"""

from __future__ import annotations

import struct
import sys
from typing import Dict, List, NamedTuple, Optional, Tuple

from .rules import Bytes, Rule, Rules

LONGEST_NAME = 2**31 - 2  # receivers keep it with a zero behind it, and count both in 31 bits
MAX_NAME = 255  # of programs that look on: longer names are rare, and streams out of step are not
MAX_BODY = 64 * 1024 * 1024
_SHOWN = 16  # bytes of what cannot be a header
_KNOWN = 4096  # types whose names are remembered
_read_length = struct.Struct("=I").unpack_from


def to_name(name: Bytes) -> str:
    return bytes(name).decode("utf-8", "surrogateescape")


def from_name(type: str) -> bytes:
    return type.encode("utf-8", "surrogateescape")


def header(type: str) -> bytes:
    """The header of a message. Raises ValueError for a name that a receiver refuses or cuts: an empty
    one, one of more than 2^31 - 2 bytes, one with a zero byte."""
    name = from_name(type)
    if not 0 < len(name) <= LONGEST_NAME or 0 in name:
        raise ValueError(f"no name for a type: {type[:40]!r}")
    return len(name).to_bytes(4, sys.byteorder) + name


class Found(NamedTuple):
    """A message that has come. `body` is what is kept of the body on the wire."""

    type: str
    length: int  # of the body
    body: bytes


class Decoder:
    """Takes one direction of a connection apart, in pieces of any size.

    It holds a header, the start of a body up to its length, and of bodies no more than `keep` bytes. A
    body over `max_body` or a name over `max_name` is a sign that the stream is out of step, as is a
    name with a zero byte, which no receiver sees whole. From there on nothing is decoded.
    """

    def __init__(
        self, rules: Rules, keep: int, max_body: int = MAX_BODY, max_name: int = MAX_NAME
    ) -> None:
        self.lost: Optional[str] = None  # why the stream is out of step, and the bytes there
        self.starts: List[int] = []  # where in the last piece messages began
        self._why = ""  # the short form of `lost`
        self._rules = rules
        self._keep = keep
        self._max_body = max_body
        self._max_name = max_name
        self._head = bytearray()  # of the message that is coming: header and start of the body
        self._needed = 4  # bytes of _head to go on
        self._body_at = 0  # where in _head the body starts; 0 while that is not known
        self._type = ""
        self._rule = Rule()
        self._length = 0  # of the body
        self._missing = 0  # bytes of the body behind _head
        self._body = bytearray()
        self._last = ("", 0)  # type and length of the last whole message
        self._known: Dict[bytes, Tuple[str, Rule]] = {}  # types that have come, by their names

    def feed(self, data: Bytes) -> List[Found]:
        """The messages that come to their end in this piece."""
        found: List[Found] = []
        self.starts = []
        position = 0
        data = bytes(data)
        while position < len(data) and not self._why:
            if not self._head:
                position = self._take_whole(data, position, found)
                if position == len(data):
                    break
                self.starts.append(position)
            count = min(self._missing or self._needed - len(self._head), len(data) - position)
            piece = data[position : position + count]
            position += count
            if self._missing:
                self._missing -= count
                if len(self._body) < self._keep:
                    self._body += piece[: self._keep - len(self._body)]
            else:
                self._head += piece
                if len(self._head) < self._needed or not self._understand_head():
                    continue
            if not self._missing:
                found.append(self._finish())
        if self.lost is None and self._why:
            shown = bytes(self._head[:_SHOWN]) + bytes(data[position : position + _SHOWN])
            type, length = self._last
            after = f"after {type} with {length} bytes" if type else "at the start"
            self.lost = f"{self._why} ({shown[:_SHOWN].hex(' ')}), {after}"
        return found

    @property
    def header_bytes(self) -> int:
        """How many bytes of a header have come, when it is not whole; otherwise 0."""
        return 0 if self.lost or self._body_at or self._missing else len(self._head)

    @property
    def type(self) -> str:
        """Of the last message whose header was whole: the rule that was followed last is for this type."""
        return self._type

    @property
    def between_messages(self) -> bool:
        return not self._head

    def where(self) -> str:
        """What the stream is in the middle of, in words."""
        if self._body_at == 0:
            return f"a header, {len(self._head)} bytes"
        come = len(self._head) - self._body_at if self._missing == 0 else self._length - self._missing
        known = f" of {self._length}" if self._missing else ""
        return f"{self._type}, {come}{known} bytes"

    def _take_whole(self, data: bytes, position: int, found: List[Found]) -> int:
        """Takes messages of types that have come before, as long as they are whole in this piece: most
        are, and need not be gathered. Returns where the next one begins."""
        end, keep, max_body, known = len(data), self._keep, self._max_body, self._known
        starts = self.starts
        while position + 4 <= end:
            body_at = position + 4 + _read_length(data, position)[0]
            if body_at > end:
                break
            type_and_rule = known.get(data[position + 4 : body_at])
            if type_and_rule is None:
                break
            type, rule = type_and_rule
            length = rule.fixed
            if length is None:
                content_at = body_at + rule.offset + rule.width
                count = int.from_bytes(data[body_at + rule.offset : content_at], rule.order)
                length = content_at - body_at + count + rule.more
            if body_at + length > end or length > max_body:  # also when its length is cut off
                break
            starts.append(position)
            position = body_at + length
            found.append(Found(type, length, data[body_at : min(position, body_at + keep)]))
        if found:
            self._type, self._last = found[-1].type, found[-1][:2]
        return position

    def _understand_head(self) -> bool:
        """Looks at the head, of which all needed bytes are there. True when it is complete."""
        if self._body_at == 0:
            name_length = int.from_bytes(self._head[:4], sys.byteorder)
            if not 0 < name_length <= self._max_name:
                return self._lose(f"a type name of {name_length} bytes")
            if len(self._head) < 4 + name_length:
                self._needed = 4 + name_length
                return False
            name = self._head[4:]
            if 0 in name:
                return self._lose("the type name has the byte 0x00")
            self._type = to_name(name)
            self._body_at = len(self._head)
            self._rule = self._rules.of(self._type)
            if len(self._known) < _KNOWN:
                self._known[bytes(name)] = (self._type, self._rule)
            if self._rule.prefix > self._max_body:
                return self._lose(f"a body of {self._type} with more than {self._max_body} bytes")
            self._needed = self._body_at + self._rule.prefix
            if len(self._head) < self._needed:
                return False
        start = self._head[self._body_at :]
        self._length = self._rule.size(start)
        if self._length > self._max_body:
            return self._lose(f"a body of {self._type} with {self._length} bytes")
        self._missing = self._length - len(start)
        self._body = start[: self._keep]
        return True

    def _lose(self, why: str) -> bool:
        self._why = why
        return False

    def _finish(self) -> Found:
        message = Found(self._type, self._length, bytes(self._body))
        self._last = (self._type, self._length)
        self._head.clear()
        self._body = bytearray()
        self._needed = 4
        self._body_at = 0
        return message
