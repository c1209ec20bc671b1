"""Connections to programs that exchange typed messages: `connect`, `serve`."""

from __future__ import annotations

import contextlib
import select
import socket
import ssl
from typing import Iterator, Optional, Union

from .channel import MAX_NAME, Channel, Message
from .errors import PeerGone, TimedOut
from .listening import Listening, listen
from .rules import Rules, as_rules
from .sockets import time_limit, wait
from .tls import GREETING, check, greeted
from .wire import MAX_BODY


class _Closing:
    """Ends with the block of a with statement."""

    def close(self) -> None:
        raise NotImplementedError

    def __exit__(self, *_: object) -> None:
        self.close()


class Connection(Channel, _Closing):
    """A connection with one peer; made by `connect` and `Server.accept`. Its `address` is the peer's.

    One thread may send while another receives; otherwise a connection belongs to one thread at a
    time. Two peers that both send more than the system buffers, and do not receive meanwhile, wait for
    each other. As a context manager it closes itself.
    """

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
                if not wait(self._socket, select.POLLOUT, remaining()):
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
            if not wait(self._socket, select.POLLIN, remaining()):
                raise TimedOut("no message has come in time")

    def ask(self, type: str, body: bytes = b"", timeout: Optional[float] = None) -> Message:
        """Sends a question, and returns its answer, whatever type it has.

        Its body is sent, and comes, behind a number by which the two belong together (what a class
        derived from KLVMsgCallMessage does). What comes before the answer is kept for `receive`. Raises
        what `send` and `receive` do; an answer that comes after TimedOut is dropped, and counted in
        `late_answers`. Belongs to the thread that receives.
        """
        remaining = time_limit(timeout)
        wanted, whole = self._question(body)
        is_sent = False
        try:
            self.send(type, whole, remaining())
            is_sent = True
            while True:
                answer = self._next(wanted)
                if answer is not None:
                    return answer
                if not wait(self._socket, select.POLLIN, remaining()):
                    raise TimedOut("no answer has come in time")
        finally:
            self._forget(wanted, is_sent)

    def answer(
        self, question: Message, type: str, body: bytes = b"", timeout: Optional[float] = None
    ) -> None:
        """Sends the answer to a question that was received; nothing where no answer is wanted.

        Raises what `send` does, and ValueError for what is no question.
        """
        head = self._answer_head(question)
        if head:
            self.send(type, head + body, timeout)

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
            while not self._end_output():
                if not wait(self._socket, select.POLLOUT, remaining()):
                    raise TimedOut("the peer does not take the end in time")
            while not self._drop_input():
                if not wait(self._socket, select.POLLIN, remaining()):
                    raise TimedOut("the peer does not close the connection in time")
        finally:
            self.close()

    def close(self) -> None:
        """Closes at once. May be called again."""
        self._socket.close()

    def __enter__(self) -> Connection:
        return self


class Server(Listening, _Closing):
    """A listening socket; made by `serve`. As a context manager it closes itself."""

    def accept(self, timeout: Optional[float] = None) -> Connection:
        """The next program that connects. Raises TimedOut; OSError once the server is closed.

        With TLS one who fails in its greeting, or takes longer than ten seconds, is turned away, and
        the next one waited for. A greeting that has begun has its ten seconds, whatever is left of
        the time limit.
        """
        remaining = time_limit(timeout)
        while True:
            while (sock := self._accepted()) is None:
                if not wait(self._socket, select.POLLIN, remaining()):
                    raise TimedOut("nobody has connected in time")
            if self._tls is None:
                return Connection(sock, *self._of_connections)
            with contextlib.suppress(OSError):
                protected = greeted(sock, self._tls, None, GREETING)
                protected.admit()
                return Connection(protected, *self._of_connections)

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
    tls: Optional[ssl.SSLContext] = None,
) -> Connection:
    """Connects to a program that listens.

    `rules` tell how long bodies are, see `Rules`. A body over `max_body` bytes, or a name over
    `max_name`, is taken for a sign that the stream is out of step; the library's own receivers take
    names of up to 2^31 - 2 bytes. With `tls` (see `klvmsg.tls.context`) the connection is protected,
    and the server has admitted us. Raises OSError with the cause, TimedOut, and ValueError for rules
    that are not understood or a context that does not verify the server.
    """
    understood = as_rules(rules)
    remaining = time_limit(timeout)
    try:
        sock = socket.create_connection((host, port), timeout)
    except socket.timeout as error:
        raise TimedOut(f"no connection with {host}:{port} in time") from error
    if tls is None:
        return Connection(sock, understood, max_body, max_name)
    return Connection(greeted(sock, tls, host, remaining()), understood, max_body, max_name)


def serve(
    port: int,
    host: str = "127.0.0.1",
    *,
    rules: Union[Rules, str, None] = None,
    max_body: int = MAX_BODY,
    max_name: int = MAX_NAME,
    tls: Optional[ssl.SSLContext] = None,
) -> Server:
    """Listens for programs that connect; port 0 lets the system choose one, see `Server.port`.

    With `tls` (see `klvmsg.tls.context`, with `server=True`) they are protected and verified. Raises
    OSError with the cause, and ValueError for rules that are not understood or a context that does not
    verify clients.
    """
    understood = as_rules(rules)
    if tls is not None:
        check(tls, is_server=True)
    sock = listen(host, port)
    sock.setblocking(False)
    return Server(sock, understood, max_body, max_name, tls)
