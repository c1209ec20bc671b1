"""What can go wrong between two peers. All of it is an `Error`.

A connection that cannot be made is reported by the system's own `OSError` instead: it names the cause
(`ConnectionRefusedError`, `socket.gaierror`, ...).
"""


class Error(Exception):
    """The root of this package's exceptions."""


class PeerGone(Error, ConnectionError):
    """The peer has closed or reset the connection, or the host cannot be reached any more.

    `orderly` is True when it closed after a whole message, so that nothing that it sent is missing.
    """

    def __init__(self, text: str, orderly: bool = False) -> None:
        super().__init__(text)
        self.orderly = orderly


class OutOfStep(Error):
    """What has come cannot be a message: the two sides disagree about the length of a body before it.

    There is no way back into step; close the connection.
    """


class TimedOut(Error, TimeoutError):
    """The time limit is over. Nothing is lost: what has come of a message is kept for the next call."""
