"""What the bodies of the workers say: numbers, as they lie in memory."""

import struct


def decode(type, body):
    if type == "Job":
        return {"number": struct.unpack("=I", body)[0]}
    if type == "Result":
        return dict(zip(("number", "square"), struct.unpack("=2I", body)))
    return None
