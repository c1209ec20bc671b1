"""MCAP files, which viewers for robotics and engineering open (https://mcap.dev).

They are written without chunks and without a summary, so that one that was cut can be read up to its last
whole record. A channel is one type on one connection, in one direction. Bodies that a .proto file declares
stay as they are; what others say, or their bytes in hexadecimal, is JSON.
"""

from __future__ import annotations

import json
import struct
from typing import Any, BinaryIO, Dict, List, Tuple

from .events import Event
from .exits import FILE, Failure
from .export import Form
from .decode import Decoders
from .expressions import Expression
from .fields import plain
from .version import __version__
from .wire import from_name

_MAGIC = b"\x89MCAP0\r\n"
_HEADER, _FOOTER, _SCHEMA, _CHANNEL, _MESSAGE, _DATA_END = 1, 2, 3, 4, 5, 15
_MOST = 0xFFFF  # channels and schemas

_Kind = Tuple[int, str, str, bool]  # connection, direction, type, whether its bodies stay as they are


class Mcap(Form):
    is_text = False

    def __init__(self, out: BinaryIO, decoders: Decoders, columns: List[Expression]) -> None:
        super().__init__(out, decoders, columns)
        self._channels: Dict[_Kind, int] = {}
        self._schemas: Dict[Tuple[str, bool], int] = {}
        self._sequence: Dict[int, int] = {}  # of the next message, by channel
        out.write(_MAGIC)
        self._record(_HEADER, _string("") + _string(f"klvmsg {__version__}"))

    def write(self, event: Event) -> None:
        value = self._decoders.decode(event)
        proto = self._decoders.proto_of(event.type) if value is not None else ""
        data = self._decoders.content(event)
        if not proto:
            value = {"length": event.length, "body": event.body.hex()} if value is None else plain(value)
            value = dict(value if isinstance(value, dict) else {"body": value}, **self._values(event))
            data = json.dumps(value).encode("ascii")
        channel = self._channel(event, proto, value)
        nanoseconds = round(event.time * 1e6) * 1000
        sequence = self._sequence.get(channel, 0)
        self._sequence[channel] = (sequence + 1) & 0xFFFFFFFF
        self._record(
            _MESSAGE, struct.pack("<HIQQ", channel, sequence, nanoseconds, nanoseconds) + data
        )

    def close(self) -> None:
        self._record(_DATA_END, struct.pack("<I", 0))
        self._record(_FOOTER, struct.pack("<QQI", 0, 0, 0))
        self._out.write(_MAGIC)

    def _channel(self, event: Event, proto: str, value: Any) -> int:
        kind = (event.connection, event.direction, event.type, bool(proto))
        number = self._channels.get(kind)
        if number is None:
            schema = self._schema(event.type, proto, value)
            number = self._channels[kind] = len(self._channels) + 1
            if number > _MOST:
                raise Failure(FILE, f"more than {_MOST} types, connections and directions: choose some")
            metadata = _string("connection") + _string(str(event.connection))
            self._record(_CHANNEL, struct.pack("<HH", number, schema)
                         + _string(f"/{event.direction}/{event.type}")
                         + _string("protobuf" if proto else "json") + _bytes(metadata))  # fmt: skip
        return number

    def _schema(self, type: str, proto: str, value: Any) -> int:
        """JSON's is made from the first message of the type."""
        number = self._schemas.get((type, bool(proto)))
        if number is None:
            number = self._schemas[type, bool(proto)] = len(self._schemas) + 1
            schema = self._decoders.describe(proto) if proto else json.dumps(_shape(value)).encode()
            self._record(_SCHEMA, struct.pack("<H", number) + _string(proto or type)
                         + _string("protobuf" if proto else "jsonschema") + _bytes(schema))  # fmt: skip
        return number

    def _record(self, kind: int, content: bytes) -> None:
        self._out.write(struct.pack("<BQ", kind, len(content)) + content)


def _string(text: str) -> bytes:
    return _bytes(from_name(text).decode("utf-8", "backslashreplace").encode())


def _bytes(data: bytes) -> bytes:
    return struct.pack("<I", len(data)) + data


_SHAPES = ((bool, "boolean"), (int, "integer"), (float, "number"), (str, "string"))


def _shape(value: Any) -> Dict[str, Any]:
    """A JSON schema that the value obeys."""
    if isinstance(value, dict):
        return {"type": "object", "properties": {name: _shape(part) for name, part in value.items()}}
    if isinstance(value, list):
        return {"type": "array", "items": _shape(value[0])} if value else {"type": "array"}
    return next(({"type": name} for kind, name in _SHAPES if isinstance(value, kind)), {})
