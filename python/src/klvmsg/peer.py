"""Connections to programs that exchange typed messages: `connect`, `serve`."""

from __future__ import annotations

import select
import socket
import sys
import time
from types import TracebackType
from typing import Callable, Iterator, List, Optional, Type, Union

from .calls import ANSWER, SIZE, number_of
from .channel import MAX_NAME, Channel, Message
from .errors import PeerGone, TimedOut
from .rules import Rules, as_rules
from .wire import MAX_BODY


def time_limit(timeout: Optional[float]) -> Callable[[], Optional[float]]:
    """What is left of a time limit that begins now."""
    if timeout is None:
        return lambda: None
    deadline = time.monotonic() + timeout
    return lambda: max(0.0, deadline - time.monotonic())


def _wait(sock: socket.socket, event: int, seconds: Optional[float]) -> bool:
    poll = select.poll()  # unlike select(), it takes descriptors of any number
    poll.register(sock, event)
    return bool(poll.poll(None if seconds is None else seconds * 1000))


class _Closing:
    """Ends with the block of a with statement."""

    def close(self) -> None:
        raise NotImplementedError

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()


class Connection(Channel, _Closing):
    """A connection with one peer; made by `connect` and `Server.accept`. Its `address` is the peer's.

    One thread may send while another receives; otherwise a connection belongs to one thread at a
    time. Two peers that both send more than the system buffers, and do not receive meanwhile, wait for
    each other. As a context manager it closes itself.
    """

    _asked = 0  # the last question's number

    def send(self, type: str, body: bytes = b"", timeout: Optional[float] = None) -> None:
        """Sends a message; returns when the system has taken all of it.

        That the peer has read it is not known; it may answer. Raises ValueError, with nothing sent,
        for a name that no receiver takes or a body that is not as the rule for its type says;
        PeerGone; TimedOut. When the message has gone in part, nothing more can be sent.

        Receivers of the library take a name with a single read, so one that is longer than a segment
        of the connection may be lost on them.
        """
        remaining = time_limit(timeout)
        self._begin(type, body)
        try:
            while not self._push():
                if not _wait(self._socket, select.POLLOUT, remaining()):
                    raise TimedOut("the peer does not take the message in time")
        finally:
            self._give_up()

    def receive(self, timeout: Optional[float] = None) -> Message:
        """The next message, oldest first.

        The time limit is for the whole message. Raises TimedOut, upon which one may call again: what
        has come by then is kept; PeerGone when nothing more can come; OutOfStep. Messages that came
        before the end or the error are handed out first.
        """
        remaining = time_limit(timeout)
        while True:
            message = self._next()
            if message is not None:
                return message
            if not _wait(self._socket, select.POLLIN, remaining()):
                raise TimedOut("no message has come in time")

    def ask(self, type: str, body: bytes = b"", timeout: Optional[float] = None) -> Message:
        """Sends a question, and returns its answer, whatever type it has.

        Its body is sent, and comes, behind a number by which the two belong together (what a class
        derived from KLVMsgCallMessage does). What comes before the answer is kept for `receive`. Raises
        what `send` and `receive` do; an answer that comes after TimedOut is dropped, and counted in
        `late_answers`. Belongs to the thread that receives.
        """
        remaining = time_limit(timeout)
        self._asked += 1
        number = self._asked.to_bytes(SIZE, sys.byteorder)
        wanted = (self._asked | ANSWER).to_bytes(SIZE, sys.byteorder)
        self.send(type, number + body, remaining())
        others: List[Message] = []
        try:
            while True:
                message = self.receive(remaining())
                if message.body[:SIZE] == wanted:
                    return Message(message.type, message.body[SIZE:])
                others.append(message)
        except TimedOut:
            self._given_up.add(wanted)
            raise
        finally:
            self._received.extendleft(reversed(others))

    def answer(
        self, question: Message, type: str, body: bytes = b"", timeout: Optional[float] = None
    ) -> None:
        """Sends the answer to a question that was received; nothing where no answer is wanted.

        Raises what `send` does, and ValueError for what is no question.
        """
        number = number_of(question.body, sys.byteorder)
        if number is None or number >= ANSWER:
            raise ValueError(f"no question: {question.type}")
        if number:
            self.send(type, (number | ANSWER).to_bytes(SIZE, sys.byteorder) + body, timeout)

    def __iter__(self) -> Iterator[Message]:
        """The messages up to the end of the connection; an end amid a message raises PeerGone."""
        while True:
            try:
                message = self.receive()
            except PeerGone as gone:
                if gone.orderly:
                    return
                raise
            yield message

    def finish(self, timeout: Optional[float] = None) -> None:
        """Tells the peer that nothing follows, waits until it has closed too, and closes.

        To close at once could throw away what the peer has not read yet. Messages that still come are
        dropped. Raises PeerGone when the peer resets the connection, TimedOut; it is closed then too.
        """
        remaining = time_limit(timeout)
        try:
            self._end_output()
            while not self._drop_input():
                if not _wait(self._socket, select.POLLIN, remaining()):
                    raise TimedOut("the peer does not close the connection in time")
        finally:
            self.close()

    def close(self) -> None:
        """Closes at once. May be called again."""
        self._socket.close()

    def __enter__(self) -> Connection:
        return self


class Server(_Closing):
    """A listening socket; made by `serve`. As a context manager it closes itself."""

    def __init__(
        self, sock: socket.socket, rules: Rules, max_body: int, max_name: int = MAX_NAME
    ) -> None:
        self._socket = sock
        self._rules = rules
        self._limits = max_body, max_name
        self.host: str = sock.getsockname()[0]
        self.port: int = sock.getsockname()[1]

    def accept(self, timeout: Optional[float] = None) -> Connection:
        """The next program that connects. Raises TimedOut; OSError once the server is closed."""
        remaining = time_limit(timeout)
        while True:
            if not _wait(self._socket, select.POLLIN, remaining()):
                raise TimedOut("nobody has connected in time")
            try:
                return Connection(self._socket.accept()[0], self._rules, *self._limits)
            except (BlockingIOError, ConnectionAbortedError):
                pass  # it has gone again before it was accepted

    def close(self) -> None:
        """Ends listening; accepted connections go on. May be called again."""
        self._socket.close()

    def fileno(self) -> int:
        """For select and its like: readable means that somebody has connected."""
        return self._socket.fileno()

    def __enter__(self) -> Server:
        return self


def connect(
    host: str,
    port: int,
    *,
    rules: Union[Rules, str, None] = None,
    timeout: Optional[float] = None,
    max_body: int = MAX_BODY,
    max_name: int = MAX_NAME,
) -> Connection:
    """Connects to a program that listens.

    `rules` tell how long bodies are, see `Rules`. A body over `max_body` bytes, or a name over
    `max_name`, is taken for a sign that the stream is out of step; the library's own receivers take
    names of up to 2^31 - 2 bytes. Raises OSError with the cause, TimedOut, and ValueError for rules
    that are not understood.
    """
    understood = as_rules(rules)
    try:
        sock = socket.create_connection((host, port), timeout)
    except socket.timeout as error:
        raise TimedOut(f"no connection with {host}:{port} in time") from error
    return Connection(sock, understood, max_body, max_name)


def serve(
    port: int,
    host: str = "127.0.0.1",
    *,
    rules: Union[Rules, str, None] = None,
    max_body: int = MAX_BODY,
    max_name: int = MAX_NAME,
) -> Server:
    """Listens for programs that connect; port 0 lets the system choose one, see `Server.port`.

    Raises OSError with the cause, and ValueError for rules that are not understood.
    """
    understood = as_rules(rules)
    sock = listen(host, port)
    sock.setblocking(False)
    return Server(sock, understood, max_body, max_name)


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
