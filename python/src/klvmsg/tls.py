"""TLS under a connection, as sessions with KLVMsgTls have it: 1.3 alone, and both sides verified.

The server's first record, of one byte, tells the client that it may come: with TLS 1.3 a client is done
with its own part before the server has looked at its certificate.
"""

from __future__ import annotations

import contextlib
import errno
import select
import socket
import ssl
import struct
import threading
from typing import Any, Optional

from .errors import TimedOut
from .sockets import time_limit, wait

_ADMITTED = b"\x01"
_PIECE = 65536
_RECORD = 16384  # bytes of a full one
GREETING = 10.0  # seconds that somebody who connects may take for it


def context(certificate: str, key: str, authority: str, *, server: bool = False) -> ssl.SSLContext:
    """What `connect` and `serve` take as `tls`, of three PEM files.

    The own certificate, followed by those between it and the authority; its key, without a password;
    the authority that vouches for the peers. Raises OSError for files that are not there, or of no
    use (ssl.SSLError).
    """
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER if server else ssl.PROTOCOL_TLS_CLIENT)
    made.minimum_version = ssl.TLSVersion.TLSv1_3
    made.verify_mode = ssl.CERT_REQUIRED
    made.hostname_checks_common_name = False
    if server:
        # A client that writes and closes at once would be reset by one.
        made.num_tickets = 0  # type: ignore[attr-defined]
    made.load_cert_chain(certificate, key)
    made.load_verify_locations(authority)
    return made


def check(tls: ssl.SSLContext, is_server: bool) -> None:
    """Raises ValueError for a context of the other side's, or one that would let in whom nobody vouches
    for."""
    if tls.protocol == (ssl.PROTOCOL_TLS_CLIENT if is_server else ssl.PROTOCOL_TLS_SERVER):
        raise ValueError(f"this context is for the other side: server={not is_server}")
    if tls.verify_mode != ssl.CERT_REQUIRED or not (tls.check_hostname or is_server):
        raise ValueError("with this context the other side would not be verified")


def words(error: OSError) -> str:
    """What a failure of TLS means, without where in OpenSSL it was noticed."""
    if isinstance(error, ssl.SSLCertVerificationError):
        return f"its certificate is not accepted: {error.verify_message}"
    if isinstance(error, ssl.SSLError) and error.reason:
        return error.reason.lower().replace("_", " ")
    return error.strerror or str(error)


def greeted(
    sock: socket.socket, tls: ssl.SSLContext, server_name: Optional[str], timeout: Optional[float]
) -> TlsSocket:
    """Takes the socket over, and greets. Raises what both do; the socket is closed then."""
    try:
        protected = TlsSocket(sock, tls, server_name)
        protected.greet(timeout)
        return protected
    except BaseException:
        sock.close()
        raise


class TlsSocket:
    """A connected socket with TLS on it: the part of a socket's words that connections use.

    It never waits, as a socket that does not block: who is to wait is told by BlockingIOError. One
    thread may send while another receives. A connection that ends without a word of farewell has been
    cut, and counts as reset.
    """

    def __init__(
        self, sock: socket.socket, tls: ssl.SSLContext, server_name: Optional[str] = None
    ) -> None:
        """Takes the socket over, of a client that expects this name or address, or of a server.

        Raises ValueError, as `check` does.
        """
        self._socket = sock
        self._is_server = server_name is None
        check(tls, self._is_server)
        self._incoming, self._outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self._tls = tls.wrap_bio(
            self._incoming, self._outgoing, self._is_server, server_hostname=server_name
        )
        self._lock = threading.Lock()
        self._unsent = memoryview(b"")  # records that the system has not taken
        self._came = b""  # what was in records, and not yet asked for
        self._is_greeted = False
        self._is_silent = False
        self._is_over = False  # by the peer's farewell
        self._has_ended = False  # what the system tells, without a word of the peer's
        sock.setblocking(False)

    def greet(self, timeout: Optional[float]) -> None:
        """Shakes hands, and as a client waits to be admitted. Raises OSError with the cause, TimedOut."""
        left = time_limit(timeout)
        while event := self.greeting():
            if not wait(self._socket, event, left()):
                raise TimedOut("the greeting has taken too long")

    def greeting(self) -> int:
        """Goes on with it; what to wait for before the next time (select.POLLIN, POLLOUT), 0: done."""
        with self._lock:
            try:
                while True:
                    try:
                        if not self._is_greeted:
                            self._tls.do_handshake()
                            self._is_greeted = True
                        if not self._is_server and self._tls.read(1) != _ADMITTED:
                            raise ConnectionError(errno.EPROTO, "it does not say that we may come")
                        return 0 if self._push() else select.POLLOUT
                    except ssl.SSLWantReadError:
                        if not self._push():
                            return select.POLLOUT
                        if not self._pull():
                            return select.POLLIN
            except ssl.SSLError as error:
                self._try_to_push()  # the alert that tells the peer
                raise ConnectionError(errno.EPROTO, words(error)) from error

    def admit(self) -> None:
        """As a server that has greeted: tells the client that it may come. That it has gone meanwhile
        is noticed by who reads."""
        with contextlib.suppress(OSError):
            self.send(_ADMITTED)

    def wait(self, event: int, seconds: Optional[float] = None) -> bool:
        """False when the time is over."""
        return (event == select.POLLIN and self.has_come()) or wait(self._socket, event, seconds)

    def has_come(self) -> bool:
        """Whether something can be received though nothing may come any more."""
        with self._lock:
            try:
                return self._open()
            except OSError:
                return True

    def send(self, data: Any, flags: int = 0) -> int:
        """Puts a part into a record, and sends what the system takes. Raises BlockingIOError, OSError."""
        with self._lock:
            if not self._push():
                raise BlockingIOError
            count = self._tls.write(data[:_RECORD]) if len(data) else 0
            self._push()
            return count

    def flush(self) -> None:
        """Raises BlockingIOError as long as the system has not taken all records; OSError."""
        with self._lock:
            if not self._push():
                raise BlockingIOError

    def sendall(self, data: Any, flags: int = 0) -> None:
        """Waits until the system has taken all of it."""
        data = memoryview(data)
        while True:
            try:
                while data:
                    data = data[self.send(data) :]
                return self.flush()
            except BlockingIOError:
                self.wait(select.POLLOUT)

    def recv(self, count: int) -> bytes:
        """What has come; b"" when the peer has ended its output. Raises BlockingIOError, OSError."""
        with self._lock:
            try:
                while not self._open():
                    if not self._pull():
                        raise BlockingIOError
            finally:
                self._try_to_push()  # reading may have made records, such as new keys
            data, self._came = self._came[:count], self._came[count:]
            return data

    def recv_into(self, buffer: memoryview) -> int:
        """Waits until something has come."""
        while True:
            try:
                data = self.recv(len(buffer))
                buffer[: len(data)] = data
                return len(data)
            except BlockingIOError:
                self.wait(select.POLLIN)

    def shutdown(self, how: int) -> None:
        """SHUT_WR says farewell, and what the peer still says can be received. Raises OSError, and
        BlockingIOError as long as the system has not taken all records: call it again then."""
        if how != socket.SHUT_WR:
            self._socket.shutdown(how)
            return
        with self._lock:
            while self._read():
                pass  # unwrap takes what is there for an answer
            self._say_farewell()
            if not self._push():
                raise BlockingIOError
        self._socket.shutdown(how)

    def fileno(self) -> int:
        return self._socket.fileno()

    def reset_when_closed(self) -> None:
        """A peer that is to be reset gets no farewell, and no alert that this one was cut."""
        self._is_silent = True
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def close(self) -> None:
        """Says farewell, if that has not been done."""
        with self._lock:
            if self._is_greeted:
                self._say_farewell()
                self._try_to_push()
        self._socket.close()

    def getpeername(self) -> Any:
        return self._socket.getpeername()

    def getsockname(self) -> Any:
        return self._socket.getsockname()

    def getsockopt(self, *what: Any) -> Any:
        return self._socket.getsockopt(*what)

    def setsockopt(self, *what: Any) -> None:
        self._socket.setsockopt(*what)

    def setblocking(self, flag: bool) -> None:
        """Stays as it is."""

    def _say_farewell(self) -> None:
        with contextlib.suppress(ssl.SSLError):  # the peer's own one has not come yet
            self._tls.unwrap()

    def _push(self) -> bool:
        """Whether the system has taken all records."""
        while not self._is_silent and (self._unsent or self._outgoing.pending):
            self._unsent = self._unsent or memoryview(self._outgoing.read())
            try:
                self._unsent = self._unsent[self._socket.send(self._unsent, socket.MSG_NOSIGNAL) :]
            except BlockingIOError:
                return False
        return True

    def _try_to_push(self) -> None:
        """Where it fails, who sends next is told: what has come can still be received."""
        with contextlib.suppress(OSError):
            self._push()

    def _pull(self) -> bool:
        """Whether something has come from the system, an end included."""
        try:
            data = self._socket.recv(_PIECE)
        except BlockingIOError:
            return False
        if data:
            self._incoming.write(data)
        else:
            self._incoming.write_eof()
            self._has_ended = True
        return True

    def _open(self) -> bool:
        """Whether there is something to receive: b"" is the peer's end."""
        return bool(self._came) or self._read() is not None

    def _read(self) -> Optional[bytes]:
        """Opens one more record; None when there is none, b"" at the peer's end."""
        try:
            data = self._tls.read(_PIECE)
        except ssl.SSLWantReadError:
            return None
        except (ssl.SSLZeroReturnError, ssl.SSLEOFError):
            data = b""
        except ssl.SSLError as error:
            raise ConnectionError(errno.EPROTO, words(error)) from error
        if not data and self._has_ended and not self._is_over:
            raise ConnectionResetError(errno.ECONNRESET, "the connection was cut")
        self._is_over = not data
        self._came += data
        return data
