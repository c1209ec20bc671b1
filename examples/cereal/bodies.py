"""What the bodies of station and collector say. They begin with a byte for the order of the bytes;
texts and containers begin with the number of their elements."""

import struct


def decode(type, body):
    reader = _Reader(body[1:], "<" if body[0] else ">")
    if type == "Measurements":
        station = reader.text()
        return {"station": station, "samples": reader.map(reader.numbers)}
    if type == "Means":
        return reader.map(lambda: reader.take("d"))
    return None


class _Reader:
    def __init__(self, body, order):
        self._body = body
        self._order = order
        self._at = 0

    def take(self, what):
        value = struct.unpack_from(self._order + what, self._body, self._at)[0]
        self._at += struct.calcsize(self._order + what)
        return value

    def text(self):
        return self.take(f"{self.take('Q')}s").decode()

    def numbers(self):
        return [self.take("d") for _ in range(self.take("Q"))]

    def map(self, value):
        return {self.text(): value() for _ in range(self.take("Q"))}
