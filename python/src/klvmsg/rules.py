"""How long bodies are, by type: the words that the dissector for Wireshark uses as well.

    Tick=8                      a body of 8 bytes
    Note=length(0,4,little)     a length of 4 bytes, least significant first, and what it counts
    Frame=length(2,2,big)       2 bytes, a length of 2 bytes, most significant first, what it counts
    Hello=length(0,8,little,8)  8 bytes more than the length counts
    *=length(0,4,little)        every type without a rule of its own

Behind a length at the very start may stand `call`: 8 bytes with the number of a question or an answer
follow the length, and the fields stand behind them.

Behind any of these may stand of which Protocol Buffers message the content is, as in
protobuf(shop.Order); protobuf() takes the type's name for it. Rules are separated by semicolons; the
last one for a type holds. Without a rule for * bodies begin with a 4-byte length in the byte order of
this machine.
"""

from __future__ import annotations

import re
import sys
from dataclasses import dataclass
from typing import List, Literal, Mapping, Optional, Union

Order = Literal["little", "big"]
Bytes = Union[bytes, bytearray, memoryview]

_LENGTH = re.compile(
    r"length\(\s*(\d+)\s*,\s*([1248])\s*,\s*(little|big)\s*,?\s*(\d*)\s*\)", re.ASCII
)
_CALL = re.compile(r"\s+call$")
_CONTENT = re.compile(r"\s+protobuf\(\s*([\w.]*)\s*\)$", re.ASCII)


@dataclass(frozen=True)
class Rule:
    """How long the bodies of one type are: always `fixed` bytes, or what a length in them tells."""

    fixed: Optional[int] = None
    offset: int = 0  # of the length
    width: int = 0  # of the length: 1, 2, 4 or 8
    order: Order = "little"
    more: int = 0  # bytes that the length does not count
    protobuf: str = ""  # the name of the content's message, where that is not the type's
    call: bool = False  # the content begins with the number of a question or an answer

    @staticmethod
    def parse(text: str) -> Rule:
        """The rule that the text behind the equals sign states. Raises ValueError."""
        content = _CONTENT.search(text)
        name = content[1] if content else ""
        text = _CONTENT.sub("", text)
        call = bool(_CALL.search(text))
        text = _CALL.sub("", text)
        if re.fullmatch(r"\d+", text, re.ASCII):
            if call:
                raise ValueError("call stands behind a length, and not behind a size")
            return Rule(fixed=int(text), protobuf=name)
        found = _LENGTH.fullmatch(text)
        if found is None:
            raise ValueError(f"neither a size nor length(OFFSET,WIDTH,little|big[,MORE]): {text!r}")
        order: Order = "big" if found[3] == "big" else "little"
        rule = Rule(None, int(found[1]), int(found[2]), order, int(found[4] or 0), name, call)
        if call and not rule.framed:
            raise ValueError("call stands behind a length that is all that stands before the number")
        return rule

    @property
    def prefix(self) -> int:
        """How many bytes of a body tell its size."""
        return 0 if self.fixed is not None else self.offset + self.width

    @property
    def framed(self) -> bool:
        """Whether a body is a length and what it counts, and nothing else."""
        return self.fixed is None and self.offset == 0 and self.more == 0

    def size(self, start: Bytes) -> int:
        """The size of the whole body that starts with these `prefix` bytes or more."""
        if self.fixed is not None:
            return self.fixed
        length = int.from_bytes(start[self.offset : self.prefix], self.order)
        return self.prefix + length + self.more

    def wrap(self, content: Bytes) -> bytes:
        """The body on the wire. A framed one gets its length; any other is taken as it is.

        Raises ValueError when a receiver that goes by this rule would take another size for it.
        """
        if self.framed:
            if len(content) >= 1 << 8 * self.width:
                raise ValueError(f"{len(content)} bytes are more than the length before them can tell")
            return len(content).to_bytes(self.width, self.order) + content
        if len(content) < self.prefix:
            raise ValueError(f"{len(content)} bytes, too few to hold the length")
        if len(content) != self.size(content):
            raise ValueError(f"{len(content)} bytes, where {self.size(content)} are expected")
        return bytes(content)

    def unwrap(self, body: bytes) -> bytes:
        """The content of a body from the wire: the opposite of `wrap`."""
        return body[self.prefix :] if self.framed else body


class Rules:
    """The rules for all types."""

    DEFAULT = Rule(width=4, order=sys.byteorder)

    def __init__(self, rules: Optional[Mapping[str, Rule]] = None) -> None:
        """Rules by type; "*" is for the types that are not named."""
        self._rules = dict(rules or {})
        self._rest = self._rules.get("*", self.DEFAULT)

    @staticmethod
    def parse(text: str) -> Rules:
        """Rules as they are written above. Raises ValueError, which names the first bad one."""
        rules = {}
        for item in filter(None, map(str.strip, text.split(";"))):
            name, sign, value = item.rpartition("=")
            if not sign or not name.strip():
                raise ValueError(f"not of the form TYPE=RULE: {item!r}")
            rules[name.rstrip()] = Rule.parse(value.strip())
        return Rules(rules)

    @property
    def named(self) -> List[str]:
        """The types that have a rule of their own."""
        return [type for type in self._rules if type != "*"]

    @property
    def has_calls(self) -> bool:
        """Whether some types are questions or answers."""
        return any(rule.call for rule in (*self._rules.values(), self._rest))

    def of(self, type: str) -> Rule:
        """The rule for a type; there is always one."""
        return self._rules.get(type, self._rest)


def as_rules(rules: Union[Rules, str, None]) -> Rules:
    """Rules from whatever form a caller has them in. Raises ValueError."""
    if isinstance(rules, Rules):
        return rules
    return Rules.parse(rules or "")
