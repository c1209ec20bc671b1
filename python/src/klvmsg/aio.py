"""The peer for asyncio: `await connect(...)`, `await serve(...)`.

What stands in `klvmsg.peer` holds here too, with tasks in place of threads: several may send, and
several receive, at once; each message goes whole, and comes to one of them. A task that is cancelled
loses nothing that has come; a message that has gone in part then is the last one.
"""

from __future__ import annotations

import asyncio
import contextlib
import select
import socket
import ssl
from typing import Any, AsyncIterator, Callable, List, Optional, Union

from .channel import MAX_NAME, Channel, Message
from .errors import PeerGone, TimedOut
from .listening import Listening, listen
from .rules import Rules, as_rules
from .sockets import time_limit
from .tls import GREETING, TlsSocket, check
from .wire import MAX_BODY

__all__ = ["Connection", "Message", "Server", "connect", "serve"]

_Left = Callable[[], Optional[float]]


class _Waiting:
    """Tasks that wait for a socket, until it is closed."""

    def __init__(self, sock: Any) -> None:
        self._socket = sock
        self._wakers: List[Callable[[], None]] = []

    async def __aexit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Closes at once, and wakes the tasks that wait. May be called again."""
        for wake in list(self._wakers):
            wake()
        self._socket.close()

    async def _readable(self, seconds: Optional[float]) -> bool:
        loop = asyncio.get_running_loop()
        return await self._ready(loop.add_reader, loop.remove_reader, seconds)

    async def _writable(self, seconds: Optional[float]) -> bool:
        loop = asyncio.get_running_loop()
        return await self._ready(loop.add_writer, loop.remove_writer, seconds)

    async def _ready(
        self, add: Callable[..., object], remove: Callable[[int], object], seconds: Optional[float]
    ) -> bool:
        """False when the time is over. One task at a time waits for each of the two."""
        number = self._socket.fileno()
        if number == -1:
            return True  # the call to come tells that it is closed
        ready: asyncio.Future[None] = asyncio.get_running_loop().create_future()

        def wake() -> None:
            remove(number)
            if not ready.done():
                ready.set_result(None)

        add(number, wake)
        self._wakers.append(wake)
        try:
            await asyncio.wait_for(ready, seconds)
        except asyncio.TimeoutError:
            return False
        finally:
            self._wakers.remove(wake)
            if ready.cancelled() and self._socket.fileno() == number:
                remove(number)  # a number that was closed meanwhile may be another's
        return True


class _Turn:
    """A lock that is waited for no longer than a time limit allows."""

    def __init__(self, lock: asyncio.Lock, left: _Left) -> None:
        self._lock = lock
        self._left = left

    async def __aenter__(self) -> None:
        if not self._lock.locked():
            await self._lock.acquire()
            return
        try:
            await asyncio.wait_for(self._lock.acquire(), self._left())
        except asyncio.TimeoutError:
            raise TimedOut("other tasks are first, and take longer") from None

    async def __aexit__(self, *_: object) -> None:
        self._lock.release()


class Connection(_Waiting, Channel):
    """A connection with one peer; made by `connect` and `Server.accept`. Its `address` is the peer's.

    `async with` closes it at the end, `async for` gives the messages up to the end of the connection.
    """

    def __init__(
        self,
        sock: Union[socket.socket, TlsSocket],
        rules: Union[Rules, str, None] = None,
        max_body: int = MAX_BODY,
        max_name: int = MAX_NAME,
    ) -> None:
        _Waiting.__init__(self, sock)
        Channel.__init__(self, sock, rules, max_body, max_name)
        self._sender = asyncio.Lock()
        self._reading: Optional[asyncio.Future[None]] = None  # while a task waits for the socket

    async def send(self, type: str, body: bytes = b"", timeout: Optional[float] = None) -> None:
        """As `klvmsg.Connection.send`."""
        left = time_limit(timeout)
        async with _Turn(self._sender, left):
            self._begin(type, body)
            try:
                while not self._push():
                    if not await self._writable(left()):
                        raise TimedOut("the peer does not take the message in time")
            finally:
                self._give_up()

    async def receive(self, timeout: Optional[float] = None) -> Message:
        """As `klvmsg.Connection.receive`."""
        return await self._take(None, time_limit(timeout), "no message has come in time")

    async def ask(self, type: str, body: bytes = b"", timeout: Optional[float] = None) -> Message:
        """As `klvmsg.Connection.ask`; any number of tasks may ask, and receive, at once."""
        left = time_limit(timeout)
        wanted, whole = self._question(body)
        is_sent = False
        try:
            await self.send(type, whole, left())
            is_sent = True
            return await self._take(wanted, left, "no answer has come in time")
        finally:
            self._forget(wanted, is_sent)

    async def answer(
        self, question: Message, type: str, body: bytes = b"", timeout: Optional[float] = None
    ) -> None:
        """As `klvmsg.Connection.answer`."""
        head = self._answer_head(question)
        if head:
            await self.send(type, head + body, timeout)

    async def _take(self, wanted: Optional[bytes], left: _Left, late: str) -> Message:
        while True:
            # While a task waits for the socket it alone reads: bytes that another one took would not
            # wake it.
            found = self._next(wanted) if self._reading is None else self._there(wanted)
            if found is not None:
                return found
            if not await self._more(left()):
                raise TimedOut(late)

    async def _more(self, seconds: Optional[float]) -> bool:
        """Until something may have come; false when the time is over."""
        if self._reading is not None:
            return bool((await asyncio.wait([self._reading], timeout=seconds))[0])
        self._reading = asyncio.get_running_loop().create_future()
        try:
            return await self._readable(seconds)
        finally:
            self._reading.set_result(None)
            self._reading = None

    def __aiter__(self) -> AsyncIterator[Message]:
        return self._messages()

    async def _messages(self) -> AsyncIterator[Message]:
        while True:
            try:
                message = await self.receive()
            except PeerGone as gone:
                if gone.orderly:
                    return
                raise
            yield message

    async def finish(self, timeout: Optional[float] = None) -> None:
        """As `klvmsg.Connection.finish`, behind a message that another task sends."""
        left = time_limit(timeout)
        try:
            async with _Turn(self._sender, left):
                while not self._end_output():
                    if not await self._writable(left()):
                        raise TimedOut("the peer does not take the end in time")
            while not self._drop_input():
                if not await self._more(left()):
                    raise TimedOut("the peer does not close the connection in time")
        finally:
            self.close()

    async def __aenter__(self) -> Connection:
        return self


class Server(Listening, _Waiting):
    """A listening socket; made by `serve`. `async with` closes it at the end."""

    def __init__(
        self,
        sock: socket.socket,
        rules: Rules,
        max_body: int = MAX_BODY,
        max_name: int = MAX_NAME,
        tls: Optional[ssl.SSLContext] = None,
    ) -> None:
        _Waiting.__init__(self, sock)
        Listening.__init__(self, sock, rules, max_body, max_name, tls)
        self._acceptor = asyncio.Lock()

    async def accept(self, timeout: Optional[float] = None) -> Connection:
        """As `klvmsg.Server.accept`; several tasks may accept, so that none waits for a greeting."""
        left = time_limit(timeout)
        while True:
            async with _Turn(self._acceptor, left):
                while (sock := self._accepted()) is None:
                    if not await self._readable(left()):
                        raise TimedOut("nobody has connected in time")
            if self._tls is None:
                return Connection(sock, *self._of_connections)
            with contextlib.suppress(OSError):
                protected = await _greeted(sock, self._tls, None, GREETING)
                protected.admit()
                return Connection(protected, *self._of_connections)

    async def __aenter__(self) -> Server:
        return self


async def connect(
    host: str,
    port: int,
    *,
    rules: Union[Rules, str, None] = None,
    timeout: Optional[float] = None,
    max_body: int = MAX_BODY,
    max_name: int = MAX_NAME,
    tls: Optional[ssl.SSLContext] = None,
) -> Connection:
    """As `klvmsg.connect`."""
    understood = as_rules(rules)
    left = time_limit(timeout)
    try:
        sock = await asyncio.wait_for(_dial(host, port), timeout)
    except asyncio.TimeoutError as error:
        raise TimedOut(f"no connection with {host}:{port} in time") from error
    if tls is None:
        return Connection(sock, understood, max_body, max_name)
    return Connection(await _greeted(sock, tls, host, left()), understood, max_body, max_name)


async def serve(
    port: int,
    host: str = "127.0.0.1",
    *,
    rules: Union[Rules, str, None] = None,
    max_body: int = MAX_BODY,
    max_name: int = MAX_NAME,
    tls: Optional[ssl.SSLContext] = None,
) -> Server:
    """As `klvmsg.serve`."""
    understood = as_rules(rules)
    if tls is not None:
        check(tls, is_server=True)
    sock = await asyncio.get_running_loop().run_in_executor(None, listen, host, port)
    sock.setblocking(False)
    return Server(sock, understood, max_body, max_name, tls)


async def _greeted(
    sock: socket.socket, tls: ssl.SSLContext, server_name: Optional[str], timeout: Optional[float]
) -> TlsSocket:
    """As `klvmsg.tls.greeted`."""
    left = time_limit(timeout)
    try:
        protected = TlsSocket(sock, tls, server_name)
        waiting = _Waiting(protected)
        while event := protected.greeting():
            wait = waiting._readable if event == select.POLLIN else waiting._writable
            if not await wait(left()):
                raise TimedOut("the greeting has taken too long")
        return protected
    except BaseException:
        sock.close()
        raise


async def _dial(host: str, port: int) -> socket.socket:
    """A connection with the first of the host's addresses that has one. Raises OSError of the last."""
    loop = asyncio.get_running_loop()
    failure: OSError = OSError(f"{host} has no address")
    for family, kind, protocol, _, address in await loop.getaddrinfo(
        host, port, type=socket.SOCK_STREAM
    ):
        sock = socket.socket(family, kind, protocol)
        sock.setblocking(False)
        try:
            await loop.sock_connect(sock, address)
            return sock
        except OSError as error:
            sock.close()
            failure = error
        except BaseException:
            sock.close()
            raise
    raise failure
