"""Connections to programs that exchange typed messages: `connect`, `serve`."""

from __future__ import annotations

import errno
import select
import socket
import time
from collections import deque
from types import TracebackType
from typing import Callable, Deque, Iterator, NamedTuple, Optional, Type, Union

from .errors import OutOfStep, PeerGone, TimedOut
from .rules import Rules, as_rules
from .text import printable
from .wire import MAX_BODY, Decoder, header

_PIECE = 65536


class Message(NamedTuple):
    """What one side says to the other: the name of the type, and the body.

    A body that begins with its length stands here without that; any other is here whole.
    """

    type: str
    body: bytes


def _remaining(timeout: Optional[float]) -> Callable[[], Optional[float]]:
    """What is left of a time limit that begins now."""
    if timeout is None:
        return lambda: None
    deadline = time.monotonic() + timeout
    return lambda: max(0.0, deadline - time.monotonic())


def _wait(sock: socket.socket, event: int, seconds: Optional[float]) -> bool:
    poll = select.poll()  # unlike select(), it takes descriptors of any number
    poll.register(sock, event)
    return bool(poll.poll(None if seconds is None else seconds * 1000))


def _gone(error: OSError) -> PeerGone:
    if error.errno == errno.EBADF:
        return PeerGone("the connection has been closed here")
    return PeerGone(f"the peer has gone: {error.strerror}")


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


class Connection(_Closing):
    """A connection with one peer; made by `connect` and `Server.accept`.

    One thread may send while another receives; otherwise a connection belongs to one thread at a
    time. Two peers that both send more than the system buffers, and do not receive meanwhile, wait for
    each other. As a context manager it closes itself.
    """

    def __init__(
        self, sock: socket.socket, rules: Union[Rules, str, None] = None, max_body: int = MAX_BODY
    ) -> None:
        """Takes over a connected stream socket. `max_body`: a larger body is out of step."""
        self._rules = as_rules(rules)
        self._socket = sock
        self._decoder = Decoder(self._rules, max_body, max_body)
        self._max_body = max_body
        self._received: Deque[Message] = deque()
        self._cut = False  # a message has gone in part
        self._reset: Optional[PeerGone] = None  # the system tells it once; then it shows an end
        sock.setblocking(False)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def send(self, type: str, body: bytes = b"", timeout: Optional[float] = None) -> None:
        """Sends a message; returns when the system has taken all of it.

        That the peer has read it is not known; it may answer. Raises ValueError, with nothing sent,
        for a name that no receiver takes or a body that is not as the rule for its type says;
        PeerGone; TimedOut. When the message has gone in part, nothing more can be sent.
        """
        wire = self._rules.of(type).wrap(body)
        if len(wire) > self._max_body:
            raise ValueError(f"a body of {len(wire)} bytes, more than the {self._max_body} allowed")
        self._send_all(header(type) + wire, timeout)

    def _send_all(self, data: bytes, timeout: Optional[float]) -> None:
        # Header and body go with one send, marked as the end of a record: the kernel then starts the
        # next message in a segment of its own. Receivers take a header with two single reads, so it
        # must not be cut by the end of a segment.
        if self._cut:
            raise PeerGone("an earlier message could not be sent whole")
        remaining = _remaining(timeout)
        rest = memoryview(data)
        try:
            while rest:
                try:
                    rest = rest[self._socket.send(rest, socket.MSG_EOR | socket.MSG_NOSIGNAL) :]
                except BlockingIOError:
                    if not _wait(self._socket, select.POLLOUT, remaining()):
                        raise TimedOut("the peer does not take the message in time") from None
        except OSError as error:
            self._cut = len(rest) < len(data)
            if isinstance(error, TimedOut):
                raise
            raise _gone(error) from error

    def receive(self, timeout: Optional[float] = None) -> Message:
        """The next message, oldest first.

        The time limit is for the whole message. Raises TimedOut, upon which one may call again: what
        has come by then is kept; PeerGone when nothing more can come; OutOfStep. Messages that came
        before the end or the error are handed out first.
        """
        remaining = _remaining(timeout)
        while not self._received:
            if self._decoder.lost is not None:
                raise OutOfStep(printable(self._decoder.lost))
            self._take_in(remaining)
        return self._received.popleft()

    def _take_in(self, remaining: Callable[[], Optional[float]]) -> None:
        if self._reset is not None:
            raise self._reset
        try:
            data = self._socket.recv(_PIECE)
        except BlockingIOError:
            if not _wait(self._socket, select.POLLIN, remaining()):
                raise TimedOut("no message has come in time") from None
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
        remaining = _remaining(timeout)
        try:
            self._socket.shutdown(socket.SHUT_WR)
            while _wait(self._socket, select.POLLIN, remaining()):
                if not self._socket.recv(_PIECE):
                    return
            raise TimedOut("the peer does not close the connection in time")
        except OSError as error:
            if isinstance(error, TimedOut):
                raise
            raise _gone(error) from error
        finally:
            self.close()

    def close(self) -> None:
        """Closes at once. May be called again."""
        self._socket.close()

    def fileno(self) -> int:
        """For select and its like. Readable means that bytes have come, not a message; messages that
        came together with an earlier one are not seen by it."""
        return self._socket.fileno()

    def __enter__(self) -> Connection:
        return self


class Server(_Closing):
    """A listening socket; made by `serve`. As a context manager it closes itself."""

    def __init__(self, sock: socket.socket, rules: Rules, max_body: int) -> None:
        self._socket = sock
        self._rules = rules
        self._max_body = max_body
        self.host: str = sock.getsockname()[0]
        self.port: int = sock.getsockname()[1]

    def accept(self, timeout: Optional[float] = None) -> Connection:
        """The next program that connects. Raises TimedOut; OSError once the server is closed."""
        remaining = _remaining(timeout)
        while True:
            if not _wait(self._socket, select.POLLIN, remaining()):
                raise TimedOut("nobody has connected in time")
            try:
                return Connection(self._socket.accept()[0], self._rules, self._max_body)
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
) -> Connection:
    """Connects to a program that listens.

    `rules` tell how long bodies are, see `Rules`. Raises OSError with the cause, TimedOut, and
    ValueError for rules that are not understood.
    """
    understood = as_rules(rules)
    try:
        sock = socket.create_connection((host, port), timeout)
    except socket.timeout as error:
        raise TimedOut(f"no connection with {host}:{port} in time") from error
    return Connection(sock, understood, max_body)


def serve(
    port: int,
    host: str = "127.0.0.1",
    *,
    rules: Union[Rules, str, None] = None,
    max_body: int = MAX_BODY,
) -> Server:
    """Listens for programs that connect; port 0 lets the system choose one, see `Server.port`.

    Raises OSError with the cause, and ValueError for rules that are not understood.
    """
    understood = as_rules(rules)
    sock = listen(host, port)
    sock.setblocking(False)
    return Server(sock, understood, max_body)


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
