"""Plays the messages of a recording to a program that listens."""

from __future__ import annotations

import socket
import threading
from typing import Callable, Dict, Iterable, Optional

from .errors import OutOfStep, PeerGone, TimedOut
from .events import ENDED, MESSAGE, Event
from .filters import Filter
from .relay import Address
from .rules import Rules
from .wire import Decoder, header

Pause = Callable[[Event, float], bool]


class Player:
    """Sends the selected messages, each recorded connection on one of its own.

    A connection is made when its first message is due. What comes back is taken and dropped. The
    output of a connection ends where the recorded one did.
    """

    def __init__(
        self, server: Address, selection: Filter, patience: float, answers: Optional[Rules] = None
    ) -> None:
        """`patience`: seconds that the program may take to accept, to take a message, to answer, to
        close. With `answers`, the rules of what comes back, a message goes only when as much has come
        back as had when it was recorded."""
        self._server = server
        self._selection = selection
        self._patience = patience
        self._answers = answers
        self._playing: Dict[int, _Playing] = {}
        self.messages = 0

    def play(self, events: Iterable[Event], pause: Pause) -> None:
        """Plays all, and waits until the program has closed every connection.

        `pause` is called before each message, and each end of a connection that was played, with the
        seconds since the recording began; it returns False to end. Raises PeerGone, TimedOut, and
        OSError when a connection cannot be made.
        """
        start: Optional[float] = None
        came_back: Dict[int, int] = {}  # messages, by connection, where answers are awaited
        direction = self._selection.choice.direction
        for event in events:
            start = event.time if start is None else start
            if self._answers and event.kind == MESSAGE and event.direction != direction:
                came_back[event.connection] = came_back.get(event.connection, 0) + 1
            if not self._selection.takes(event, start):
                continue
            if event.kind == MESSAGE:
                if not pause(event, event.time - start):
                    break
                self._send(event, came_back.get(event.connection, 0))
            elif event.kind == ENDED and event.connection in self._playing:
                if not pause(event, event.time - start):
                    break
                self._playing[event.connection].await_answers(came_back.get(event.connection, 0))
                self._playing[event.connection].end()
        for playing in self._playing.values():
            playing.end()
        for playing in self._playing.values():
            playing.finish()
        self._playing.clear()

    def _send(self, event: Event, came_back: int) -> None:
        playing = self._playing.get(event.connection)
        if playing is None:
            playing = _Playing(event.connection, self._server, self._patience, self._answers)
            self._playing[event.connection] = playing
        playing.await_answers(came_back)
        playing.send(header(event.type) + event.body)
        self.messages += 1


class _Playing:
    """One connection, and a thread that takes what comes back."""

    def __init__(
        self, number: int, server: Address, patience: float, answers: Optional[Rules]
    ) -> None:
        self._name = f"connection #{number}"
        self._patience = patience
        try:
            self._socket = socket.create_connection(server, patience)
        except socket.timeout as error:
            raise TimedOut(f"{self._name}: not accepted in time") from error
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._broken: Optional[OSError] = None
        self._decoder = Decoder(answers, keep=0) if answers else None
        self._came = 0  # messages that the decoder has seen
        self._closed = False  # by the peer
        self._change = threading.Condition()
        self._thread = threading.Thread(target=self._take, daemon=True)
        self._thread.start()

    def send(self, data: bytes) -> None:
        try:
            self._socket.sendall(data, socket.MSG_EOR)
        except socket.timeout as error:
            raise TimedOut(f"{self._name}: a message was not taken in time") from error
        except OSError as error:
            raise PeerGone(f"{self._name}: the peer has gone: {error.strerror}") from error

    def await_answers(self, count: int) -> None:
        """Waits until so many messages have come back."""
        if self._decoder is None or count == 0:
            return
        decoder = self._decoder
        with self._change:
            self._change.wait_for(
                lambda: self._came >= count or self._closed or decoder.lost, self._patience
            )
        if self._came >= count:
            return
        which = f"answer {self._came + 1} of {count}"
        if decoder.lost:
            raise OutOfStep(f"{self._name}: {which} is out of step: {decoder.lost}")
        if self._closed:
            raise PeerGone(f"{self._name}: the peer has gone before {which}")
        raise TimedOut(f"{self._name}: {which} does not come in time")

    def end(self) -> None:
        try:
            self._socket.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # it is broken, which finish() tells

    def finish(self) -> None:
        """To close at once could throw away what the peer has not read: it goes first."""
        self._thread.join(self._patience)
        if self._thread.is_alive():
            raise TimedOut(f"{self._name}: the peer does not close it in time")
        self._socket.close()
        if self._broken is not None:
            cause = self._broken.strerror
            raise PeerGone(f"{self._name}: {cause}; not everything may have been read")

    def _take(self) -> None:
        while True:
            try:
                data = self._socket.recv(65536)
            except socket.timeout:
                continue
            except OSError as error:
                self._broken = error
                data = b""
            with self._change:
                if self._decoder and data:
                    self._came += len(self._decoder.feed(data))
                self._closed = not data
                self._change.notify()
            if not data:
                return
