"""What the bodies of the exchange say, field by field as Messages.h has them."""

import struct


def decode(type, body):
    if type == "Hello":
        name, rest = _text(body)
        return {"name": name.decode(), "files": _number(rest)}
    if type == "Chunk":
        return {"last": _number(body[:8]), "data": _text(body[8:])[0]}
    if type == "Receipt":
        return {"bytes": _number(body)}
    if type == "Report":
        return dict(zip(("bytes", "lines", "words", "crc"), struct.unpack("=4Q", body)))
    if type == "Farewell":
        return {"reason": _text(body)[0].decode()}
    return None


def _number(body):
    return struct.unpack("=Q", body)[0]


def _text(body):
    """A text behind its length, and what follows it."""
    end = 8 + _number(body[:8])
    return body[8:end], body[end:]
