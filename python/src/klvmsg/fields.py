"""Values that decoders make of bodies: their fields, how they are printed, and what JSON has of them.

A decoder may give anything: a mapping, a named tuple, a dataclass, an object with attributes, a list,
a text, a number.
"""

from __future__ import annotations

import dataclasses
import json
import math
from typing import Any, Dict, Mapping

from .text import printable


def fields_of(value: Any) -> Mapping[Any, Any]:
    """The fields by name; none of what has no names."""
    if isinstance(value, Mapping):
        return value
    if dataclasses.is_dataclass(value) and not isinstance(value, type):
        return {field.name: getattr(value, field.name) for field in dataclasses.fields(value)}
    if isinstance(value, tuple) and hasattr(value, "_asdict"):
        named: Dict[str, Any] = value._asdict()
        return named
    if hasattr(value, "__dict__") and not isinstance(value, type) and not callable(value):
        return {name: part for name, part in vars(value).items() if not name.startswith("_")}
    return {}


def plain(value: Any) -> Any:
    """The same of what JSON knows: bytes are hexadecimal, a number that is none is its text, and what
    has neither fields nor elements is what it prints."""
    if value is None or isinstance(value, (bool, int, str)):
        return value
    if isinstance(value, float):
        return value if math.isfinite(value) else str(value)
    if isinstance(value, (bytes, bytearray, memoryview)):
        return bytes(value).hex()
    fields = fields_of(value)
    if fields or isinstance(value, Mapping):
        return {str(name): plain(part) for name, part in fields.items()}
    if isinstance(value, (list, tuple, set, frozenset)):
        return [plain(part) for part in value]
    return str(value)


def show(value: Any) -> str:
    """In one line that does nothing to a terminal: name=client-1 files=2."""
    value = plain(value)
    if isinstance(value, dict):
        return " ".join(f"{printable(name)}={_show_part(part)}" for name, part in value.items())
    return printable(value) if isinstance(value, str) else _show_part(value)


def _show_part(value: Any) -> str:
    if isinstance(value, dict):
        return "{" + show(value) + "}"
    if isinstance(value, list):
        return "[" + ", ".join(map(_show_part, value)) + "]"
    if isinstance(value, str):
        simple = value and value.isprintable() and not set(value) & set(' ,="{}[]\\')
        return value if simple else f'"{printable(value)}"'
    return json.dumps(value)
