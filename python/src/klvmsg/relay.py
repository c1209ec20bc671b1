"""Stands between clients and a server and passes every byte on, while it looks at the messages.

Each connection has two threads, one for each direction, so that neither waits for the other.
"""

from __future__ import annotations

import contextlib
import errno
import fcntl
import itertools
import select
import socket
import ssl
import struct
import sys
import termios
import threading
import time
from typing import Callable, List, NamedTuple, Optional, Tuple, Union

from .events import ENDED, FAILED, LOST, MESSAGE, OPENED, TO_CLIENT, TO_SERVER, Event
from .rules import Bytes, Rules
from .sockets import wait
from .tls import GREETING, TlsSocket, greeted, words
from .wire import MAX_BODY, MAX_NAME, Decoder

Address = Tuple[str, int]
Socket = Union[socket.socket, TlsSocket]

_PIECE = 65536
_HEADER_WAIT = 0.010  # seconds that a header in pieces may wait for its rest
_CONNECT_TIMEOUT = 10.0
_SEGMENT = 536  # bytes that every segment has room for
_TCP_CLOSE = 7  # the state of a connection that has been reset
_DRAIN_TIMEOUT = 10.0  # without progress


def show_address(address: Tuple[object, ...]) -> str:
    """HOST:PORT, with brackets around an IPv6 address."""
    host, port = address[0], address[1]
    return f"[{host}]:{port}" if ":" in str(host) else f"{host}:{port}"


class Protection(NamedTuple):
    """Which of the two sides of a relay is protected, and how."""

    tls: ssl.SSLContext
    of_clients: bool  # or else of the server


class Relay:
    """Accepts on a listening socket and connects each client to the server.

    Every byte is passed on as it came, whatever is made of the messages, and at once, but for one
    thing: of a header of which only a piece has come, that piece waits up to 10 ms for its rest,
    since receivers take a header with two single reads. An end or a reset of one side is passed on
    too.

    `observe` is called with what has come, on the thread that passes the bytes on, right before they go:
    an answer is seen after what it answers. It must not raise, and the bytes wait while it runs. Of a
    body the event has the first `keep` bytes.
    """

    def __init__(
        self,
        entrance: socket.socket,
        server: Address,
        rules: Rules,
        observe: Callable[[List[Event]], None],
        *,
        keep: int = 0,
        max_body: int = MAX_BODY,
        max_name: int = MAX_NAME,
        protection: Optional[Protection] = None,
    ) -> None:
        self._entrance = entrance
        self._protection = protection
        self._server = server
        self._rules = rules
        self._observe = observe
        self._keep = keep
        self._max_body = max_body
        self._max_name = max_name

    def run(self, connections: Optional[int] = None) -> None:
        """Serves so many connections to their end, or all until the caller's thread is interrupted.

        Closes the listening socket as soon as nobody else will be served.
        """
        threads = []
        for number in itertools.count(1):
            if connections is not None and number > connections:
                break
            client, address = self._accept()
            thread = threading.Thread(target=self._serve, args=(number, client, address), daemon=True)
            thread.start()
            if connections is not None:
                threads.append(thread)
        self._entrance.close()
        for thread in threads:
            thread.join()

    def _accept(self) -> Tuple[socket.socket, Tuple[object, ...]]:
        while True:
            try:
                return self._entrance.accept()
            except OSError as error:
                if error.errno not in (errno.EMFILE, errno.ENFILE, errno.ECONNABORTED):
                    raise
                time.sleep(0.05)  # until connections that end give their descriptors back

    def _serve(self, number: int, client: socket.socket, address: Tuple[object, ...]) -> None:
        def report(kind: str, text: str) -> None:
            self._observe([Event(time.time(), number, kind, text=text)])

        report(OPENED, f"{show_address(address)} to {show_address(self._server)}")
        near: Socket = client
        try:
            if self._protection and self._protection.of_clients:
                near = greeted(client, self._protection.tls, None, GREETING)
        except OSError as error:
            return report(FAILED, f"the client: {words(error)}")
        try:
            server = self._connect()
        except OSError as error:
            _reset_when_closed(near)
            near.close()
            return report(FAILED, f"cannot connect to {show_address(self._server)}: {words(error)}")
        if isinstance(near, TlsSocket):
            near.admit()
        for sock in (near, server):
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._carry(number, near, server)

    def _connect(self) -> Socket:
        server = socket.create_connection(self._server, _CONNECT_TIMEOUT)
        server.settimeout(None)
        if self._protection is None or self._protection.of_clients:
            return server
        return greeted(server, self._protection.tls, self._server[0], _CONNECT_TIMEOUT)

    def _carry(self, number: int, client: Socket, server: Socket) -> None:
        broken: List[str] = []
        back = threading.Thread(
            target=self._pass_on, args=(number, TO_CLIENT, server, client, broken), daemon=True
        )
        back.start()
        self._pass_on(number, TO_SERVER, client, server, broken)
        back.join()
        client.close()
        server.close()

    def _pass_on(
        self,
        number: int,
        direction: str,
        source: Socket,
        target: Socket,
        broken: List[str],
    ) -> None:
        """Until the source ends, or one of the two is reset, which the other one then is too.

        `broken` is shared by the two directions: how the connection broke, once it has.
        """
        decoder = Decoder(self._rules, self._keep, self._max_body, self._max_name)
        try:
            self._pass_bytes(number, direction, source, target, decoder)
            if not broken:
                _end(target, socket.SHUT_WR)
        except OSError as error:
            broken.append(error.strerror or str(error))
            _drain(target)
            for sock in (source, target):
                _reset_when_closed(sock)
                _end(sock, socket.SHUT_RD)  # the other direction's wait, without a word to the peer
        how = broken[:1]
        if decoder.lost is None and not decoder.between_messages:
            how.append(f"in the middle of a message: {decoder.where()}")
        self._observe([Event(time.time(), number, ENDED, direction, ", ".join(how))])

    def _pass_bytes(
        self,
        number: int,
        direction: str,
        source: Socket,
        target: Socket,
        decoder: Decoder,
    ) -> None:
        buffer = memoryview(bytearray(_PIECE))
        held = b""  # a piece of a header
        while True:
            if held and not _readable(source, _HEADER_WAIT):
                target.sendall(held)
                held = b""
            count = source.recv_into(buffer)
            if count == 0:
                if held:
                    target.sendall(held)
                return
            data = buffer[:count]
            events = events_of(decoder, data, time.time(), number, direction)
            if events:
                self._observe(events)
            data_held = min(decoder.header_bytes, len(held) + count)
            _send_messages(target, held, data, decoder, data_held)
            held = (held + bytes(data[-data_held:]))[-data_held:] if data_held else b""


def events_of(
    decoder: Decoder, data: Bytes, now: float, number: int, direction: str
) -> List[Event]:
    """What these bytes bring to their end, on the connection of this number."""
    was_lost = decoder.lost
    events = [
        Event(now, number, MESSAGE, direction, "", type, length, body)
        for type, length, body in decoder.feed(data)
    ]
    if decoder.lost is not None and was_lost is None:
        events.append(Event(now, number, LOST, direction, decoder.lost, decoder.type))
    return events


def _send_messages(
    target: Socket, held: bytes, data: memoryview, decoder: Decoder, held_next: int
) -> None:
    """Sends what was held and the data but for its last bytes, and cuts no header.

    The kernel may send a segment as soon as it is full, and a receiver may look at it before the next
    one comes. So a send begins with a message and is marked as the end of a record, which makes the
    next one begin a segment; further messages share it only if their headers end within that.
    """
    whole: Bytes = held + bytes(data) if held else data
    shift = len(held)
    end = len(whole) - held_next
    begin = 0
    for start in decoder.starts:
        place = start + shift
        if place < end and (begin == 0 or _header_end(whole, place) - begin > _SEGMENT):
            begin = _send_record(target, whole, begin, place)
    marked = held_next or decoder.between_messages
    _send_record(target, whole, begin, end, socket.MSG_EOR if marked else 0)


def _header_end(data: Bytes, start: int) -> int:
    return start + 4 + int.from_bytes(data[start : start + 4], sys.byteorder)


def _send_record(
    target: Socket, data: Bytes, begin: int, end: int, flags: int = socket.MSG_EOR
) -> int:
    if begin < end:
        target.sendall(data[begin:end], flags)
    return end


def _readable(sock: Socket, seconds: float) -> bool:
    if isinstance(sock, TlsSocket):
        return sock.wait(select.POLLIN, seconds)
    return wait(sock, select.POLLIN, seconds)


def _reset_when_closed(sock: Socket) -> None:
    if isinstance(sock, TlsSocket):
        return sock.reset_when_closed()
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def _end(sock: Socket, direction: int) -> None:
    with contextlib.suppress(OSError):  # that side has gone already
        while True:
            try:
                return sock.shutdown(direction)
            except BlockingIOError:
                wait(sock, select.POLLOUT)


def _drain(sock: Socket) -> None:
    """Waits until the peer's host has taken what was sent: a reset would throw the rest away."""
    waiting, deadline = -1, 0.0
    while True:
        state = sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)[0]
        left = struct.unpack("i", fcntl.ioctl(sock, termios.TIOCOUTQ, b"\0\0\0\0"))[0]
        if state == _TCP_CLOSE or left == 0 or (left == waiting and time.monotonic() > deadline):
            return
        if left != waiting:
            waiting, deadline = left, time.monotonic() + _DRAIN_TIMEOUT
        time.sleep(0.001)
