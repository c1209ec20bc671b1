"""A peer for programs that exchange typed messages over TCP.

    with klvmsg.connect("127.0.0.1", 5000, timeout=5) as peer:
        peer.send("Greeting", b"Hello!")
        type, body = peer.receive(timeout=5)

A message is a type name and a body. On the wire nothing tells how long a body is, so that both sides
must agree on it: a body begins with a 4-byte length in the byte order of the machine, unless a rule
says otherwise for its type (see `Rules`).

`klvmsg.aio` has the same for asyncio, `klvmsg.testing` a peer for tests that follows a script.

Time limits are in seconds; None, the default everywhere, waits without end.
"""

from .channel import Message
from .errors import Error, OutOfStep, PeerGone, TimedOut
from .peer import Connection, Server, connect, serve
from .rules import Rule, Rules
from .version import __version__

__all__ = [
    "Connection",
    "Error",
    "Message",
    "OutOfStep",
    "PeerGone",
    "Rule",
    "Rules",
    "Server",
    "TimedOut",
    "__version__",
    "connect",
    "serve",
]
