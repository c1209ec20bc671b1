"""For tests of programs that exchange messages: a peer that follows a script.

    script = Script().expect("Job", b"7").answer("Result", lambda job: job.body * 2)
    with script.serve() as peer:
        run_my_program(peer.port)

At the end of the block the script has been followed to its end, and the program has said nothing more
and closed its connection; otherwise an AssertionError tells the first difference.
"""

from __future__ import annotations

import socket
import struct
import threading
from typing import Callable, List, Optional, Union

from .channel import Message
from .errors import PeerGone, TimedOut
from .peer import Connection, Server, connect, serve
from .rules import Rules, as_rules

__all__ = ["Running", "Script"]

_Step = Callable[["Running", Connection], None]


class Script:
    """What a peer expects and says, one step after the other. Each operation adds a step and returns
    the script. It may be run several times."""

    def __init__(self, rules: Union[Rules, str, None] = None, limit: float = 10.0) -> None:
        """`limit`: seconds that the program may take for each step, and to close at the end."""
        self._rules = as_rules(rules)
        self._limit = limit
        self._steps: List[_Step] = []

    def expect(
        self, type: str, body: Union[bytes, Callable[[bytes], bool], None] = None
    ) -> Script:
        """A message of this type comes next, with this body, or one of which the function is true."""

        def step(running: Running, connection: Connection) -> None:
            message = running.last = connection.receive(self._limit)
            right = body is None or (body(message.body) if callable(body) else body == message.body)
            if message.type != type or not right:
                wanted = f"{type} {body!r}" if isinstance(body, bytes) else type
                raise AssertionError(f"{message.type} {message.body!r} has come, not {wanted}")

        return self._add(step)

    def answer(self, type: str, body: Union[bytes, Callable[[Message], bytes]] = b"") -> Script:
        """Sends this, or what the function makes of the message that came last."""

        def step(running: Running, connection: Connection) -> None:
            content = body(running.last) if callable(body) else body
            connection.send(type, content, self._limit)

        return self._add(step)

    def silence(self, seconds: float) -> Script:
        """For so long nothing comes, nor is anything said."""

        def step(running: Running, connection: Connection) -> None:
            try:
                message = connection.receive(seconds)
            except TimedOut:
                return
            raise AssertionError(f"{message.type} {message.body!r} has come, where silence was expected")

        return self._add(step)

    def close(self) -> Script:
        """Closes the connection, as the last step."""
        return self._add(lambda running, connection: connection.close())

    def reset(self) -> Script:
        """Breaks the connection, as the last step."""

        def step(running: Running, connection: Connection) -> None:
            connection._socket.setsockopt(
                socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0)
            )
            connection.close()

        return self._add(step)

    def serve(self, port: int = 0, host: str = "127.0.0.1") -> Running:
        """The script with the first program that connects to `Running.port`."""
        server = serve(port, host, rules=self._rules)
        return Running(self._steps, self._limit, lambda: server.accept(self._limit), server)

    def connect(self, host: str, port: int) -> Running:
        """The script with a program that listens. Raises OSError, TimedOut."""
        connection = connect(host, port, rules=self._rules, timeout=self._limit)
        return Running(self._steps, self._limit, lambda: connection)

    def _add(self, step: _Step) -> Script:
        self._steps.append(step)
        return self


class Running:
    """A script at work, on a thread of its own, until the block ends."""

    def __init__(
        self,
        steps: List[_Step],
        limit: float,
        meet: Callable[[], Connection],
        server: Optional[Server] = None,
    ) -> None:
        self.host = server.host if server else ""
        self.port = server.port if server else 0
        self.last = Message("", b"")  # that has come
        self._steps = list(steps)
        self._limit = limit
        self._meet = meet
        self._server = server
        self._failure: Optional[AssertionError] = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def __enter__(self) -> Running:
        return self

    def __exit__(self, *_: object) -> None:
        self._thread.join()
        if self._failure is not None:
            raise self._failure

    def _run(self) -> None:
        place = "before the first step"
        try:
            with self._meet() as connection:
                for number, step in enumerate(self._steps, 1):
                    place = f"step {number} of {len(self._steps)}"
                    step(self, connection)
                place = "after the last step"
                if connection.fileno() != -1:
                    self._expect_end(connection)
        except Exception as error:  # a function of the script may raise anything
            self._failure = AssertionError(f"{place}: {str(error) or type(error).__name__}")
            self._failure.__cause__ = error
        finally:
            if self._server is not None:
                self._server.close()

    def _expect_end(self, connection: Connection) -> None:
        try:
            message = connection.receive(self._limit)
        except PeerGone as gone:
            if gone.orderly:
                return
            raise
        raise AssertionError(f"{message.type} {message.body!r} has come, where nothing was expected")
