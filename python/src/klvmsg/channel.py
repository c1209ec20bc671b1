"""A connection without waiting: what the peer for threads and the one for asyncio share."""

from __future__ import annotations

import errno
import socket
import sys
from collections import deque
from typing import Deque, Dict, NamedTuple, Optional, Set, Tuple, Union

from .calls import ANSWER, SIZE, number_of
from .errors import OutOfStep, PeerGone
from .rules import Rules, as_rules
from .text import printable
from .tls import TlsSocket
from .wire import MAX_BODY, Decoder, header

_PIECE = 65536
MAX_NAME = 1024 * 1024  # bytes of a type's name


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


def _peer_of(sock: Union[socket.socket, TlsSocket]) -> Tuple[str, int]:
    try:
        host, port = sock.getpeername()[:2]
    except OSError:
        return "", 0  # it has gone already
    return host, port


class Channel:
    """One message at a time is on its way out; those that have come wait to be taken."""

    def __init__(
        self,
        sock: Union[socket.socket, TlsSocket],
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
        self._asked = 0  # the last question's number
        self._answers: Dict[bytes, Optional[Message]] = {}  # by how they begin; None: still to come
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
            if isinstance(self._socket, TlsSocket):
                self._socket.flush()
        except BlockingIOError:
            return False
        except OSError as error:
            raise _gone(error) from error
        return True

    def _give_up(self) -> None:
        """Forgets a message of which nothing has gone. Behind a part nothing more can be sent."""
        if len(self._unsent) == self._sending:
            self._unsent = memoryview(b"")

    def _question(self, body: bytes) -> Tuple[bytes, bytes]:
        """How the answer to the next question begins, and the question's whole body."""
        self._asked += 1
        wanted = (self._asked | ANSWER).to_bytes(SIZE, sys.byteorder)
        self._answers[wanted] = None
        return wanted, self._asked.to_bytes(SIZE, sys.byteorder) + body

    def _answer_head(self, question: Message) -> Optional[bytes]:
        """How the answer to a received question begins; None where none is wanted. Raises ValueError."""
        number = number_of(question.body, sys.byteorder)
        if number is None or number >= ANSWER:
            raise ValueError(f"no question: {question.type}")
        return (number | ANSWER).to_bytes(SIZE, sys.byteorder) if number else None

    def _forget(self, wanted: bytes, comes: bool) -> None:
        """Nobody waits for the answer any more; it may still come."""
        if self._answers.pop(wanted, None) is None and comes:
            self._given_up.add(wanted)

    def _there(self, wanted: Optional[bytes] = None) -> Optional[Message]:
        """The oldest message that has come, or the answer that begins so; None when there is none."""
        if wanted is None:
            return self._received.popleft() if self._received else None
        answer = self._answers[wanted]
        return answer and Message(answer.type, answer.body[SIZE:])

    def _next(self, wanted: Optional[bytes] = None) -> Optional[Message]:
        """The same, of what comes by now too. Raises OutOfStep, PeerGone."""
        may_come = True
        while True:
            message = self._there(wanted)
            if message is not None or not may_come:
                return message
            if self._decoder.lost is not None:
                raise OutOfStep(printable(self._decoder.lost))
            may_come = self._pull()

    def _pull(self) -> bool:
        """Whether more may be there of which no waiting for the socket would tell."""
        if self._reset is not None:
            raise self._reset
        try:
            data = self._socket.recv(_PIECE)
        except BlockingIOError:
            return False
        except OSError as error:
            self._reset = _gone(error)
            raise self._reset from error
        if not data:
            if self._decoder.between_messages:
                raise PeerGone("the peer has closed the connection", orderly=True)
            where = printable(self._decoder.where())
            raise PeerGone(f"the peer has gone in the middle of a message: {where}")
        for type, _, body in self._decoder.feed(data):
            self._sort(Message(type, self._rules.of(type).unwrap(body)))
        return isinstance(self._socket, TlsSocket)

    def _sort(self, message: Message) -> None:
        head = message.body[:SIZE]
        if head in self._given_up:
            self._given_up.remove(head)
            self.late_answers += 1
        elif self._answers.get(head, message) is None:
            self._answers[head] = message
        else:
            self._received.append(message)

    def _end_output(self) -> bool:
        """Whether the system has taken the end; otherwise what is before it waits there."""
        try:
            self._socket.shutdown(socket.SHUT_WR)
            return True
        except BlockingIOError:
            return False
        except OSError as error:
            raise _gone(error) from error

    def _drop_input(self) -> bool:
        """Drops what has come; whether the peer has closed."""
        try:
            while self._socket.recv(_PIECE):
                pass
            return True
        except BlockingIOError:
            return False
        except OSError as error:
            raise _gone(error) from error
