"""A connection without waiting: what the peer for threads and the one for asyncio share."""

from __future__ import annotations

import errno
import socket
from collections import deque
from typing import Deque, NamedTuple, Optional, Set, Tuple, Union

from .calls import SIZE
from .errors import OutOfStep, PeerGone
from .rules import Rules, as_rules
from .text import printable
from .wire import MAX_BODY, Decoder, header

_PIECE = 65536
MAX_NAME = 1024 * 1024


class Message(NamedTuple):
    """What one side says to the other: the name of the type, and the body.

    A body that begins with its length stands here without that; any other is here whole.
    """

    type: str
    body: bytes


def _gone(error: OSError) -> PeerGone:
    if error.errno == errno.EBADF:
        return PeerGone("the connection has been closed here")
    return PeerGone(f"the peer has gone: {error.strerror}")


def _peer_of(sock: socket.socket) -> Tuple[str, int]:
    try:
        host, port = sock.getpeername()[:2]
    except OSError:
        return "", 0  # it has gone already
    return host, port


class Channel:
    """One message at a time is on its way out; those that have come wait to be taken."""

    def __init__(
        self,
        sock: socket.socket,
        rules: Union[Rules, str, None] = None,
        max_body: int = MAX_BODY,
        max_name: int = MAX_NAME,
    ) -> None:
        """Takes over a connected stream socket. A larger body or a longer name is out of step."""
        self._rules = as_rules(rules)
        self._socket = sock
        self._decoder = Decoder(self._rules, max_body, max_body, max_name)
        self._max_body = max_body
        self._received: Deque[Message] = deque()
        self._given_up: Set[bytes] = set()  # how answers begin for which nobody waits any more
        self.late_answers = 0
        """Answers that came after their question's time was up."""
        self._unsent = memoryview(b"")
        self._sending = 0  # bytes of the message of which these are the rest
        self._reset: Optional[PeerGone] = None  # the system tells it once; then it shows an end
        self.address: Tuple[str, int] = _peer_of(sock)
        """Host and port of the peer; empty and 0 when it had gone before they could be asked for."""
        sock.setblocking(False)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def fileno(self) -> int:
        """For select and its like. Readable means that bytes have come, not a message; messages that
        came together with an earlier one are not seen by it."""
        return self._socket.fileno()

    def _begin(self, type: str, body: bytes) -> None:
        """The message goes next. Raises ValueError, PeerGone."""
        wire = self._rules.of(type).wrap(body)
        if len(wire) > self._max_body:
            raise ValueError(f"a body of {len(wire)} bytes, more than the {self._max_body} allowed")
        data = header(type) + wire
        if self._unsent:
            raise PeerGone("an earlier message could not be sent whole")
        self._unsent, self._sending = memoryview(data), len(data)

    def _push(self) -> bool:
        """Whether the system has taken the message; otherwise it takes no more now."""
        # Header and body go with one send, marked as the end of a record: the kernel then starts the
        # next message in a segment of its own. Receivers take a header with two single reads, so it
        # must not be cut by the end of a segment.
        try:
            while self._unsent:
                count = self._socket.send(self._unsent, socket.MSG_EOR | socket.MSG_NOSIGNAL)
                self._unsent = self._unsent[count:]
        except BlockingIOError:
            return False
        except OSError as error:
            raise _gone(error) from error
        return True

    def _give_up(self) -> None:
        """Forgets a message of which nothing has gone. Behind a part nothing more can be sent."""
        if len(self._unsent) == self._sending:
            self._unsent = memoryview(b"")

    def _next(self) -> Optional[Message]:
        """The next message; None when it is worth waiting for more bytes. Raises OutOfStep, PeerGone."""
        if not self._received:
            if self._decoder.lost is not None:
                raise OutOfStep(printable(self._decoder.lost))
            self._pull()
        while self._received:
            message = self._received.popleft()
            if message.body[:SIZE] not in self._given_up:
                return message
            self._given_up.remove(message.body[:SIZE])
            self.late_answers += 1
        return None

    def _pull(self) -> None:
        if self._reset is not None:
            raise self._reset
        try:
            data = self._socket.recv(_PIECE)
        except BlockingIOError:
            return
        except OSError as error:
            self._reset = _gone(error)
            raise self._reset from error
        if not data:
            if self._decoder.between_messages:
                raise PeerGone("the peer has closed the connection", orderly=True)
            where = printable(self._decoder.where())
            raise PeerGone(f"the peer has gone in the middle of a message: {where}")
        for type, _, body in self._decoder.feed(data):
            self._received.append(Message(type, self._rules.of(type).unwrap(body)))

    def _end_output(self) -> None:
        try:
            self._socket.shutdown(socket.SHUT_WR)
        except OSError as error:
            raise _gone(error) from error

    def _drop_input(self) -> bool:
        """Drops what has come; whether the peer has closed."""
        try:
            return not self._socket.recv(_PIECE)
        except BlockingIOError:
            return False
        except OSError as error:
            raise _gone(error) from error
