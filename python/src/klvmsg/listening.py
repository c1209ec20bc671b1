"""What servers for threads and for asyncio have in common: the listening socket, and its options."""

from __future__ import annotations

import socket
import ssl
from typing import Optional

from .channel import MAX_NAME
from .rules import Rules
from .wire import MAX_BODY


class Listening:
    """A listening socket with its options."""

    def __init__(
        self,
        sock: socket.socket,
        rules: Rules,
        max_body: int = MAX_BODY,
        max_name: int = MAX_NAME,
        tls: Optional[ssl.SSLContext] = None,
    ) -> None:
        self._socket = sock
        self._of_connections = rules, max_body, max_name
        self._tls = tls
        self.host: str = sock.getsockname()[0]
        self.port: int = sock.getsockname()[1]

    def _accepted(self) -> Optional[socket.socket]:
        """Who has connected, if anybody has. Raises OSError once the socket is closed."""
        try:
            return self._socket.accept()[0]
        except (BlockingIOError, ConnectionAbortedError):  # or it has gone again before
            return None


def listen(host: str, port: int) -> socket.socket:
    """A listening socket on a port that may have been used a moment ago. Raises OSError."""
    family, kind, protocol, _, address = socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)[0]
    sock = socket.socket(family, kind, protocol)
    try:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind(address)
        sock.listen(128)
    except OSError:
        sock.close()
        raise
    return sock
