"""Waiting for sockets, and time limits."""

from __future__ import annotations

import select
import time
from typing import Any, Callable, Optional


def time_limit(timeout: Optional[float]) -> Callable[[], Optional[float]]:
    """What is left of a time limit that begins now."""
    if timeout is None:
        return lambda: None
    deadline = time.monotonic() + timeout
    return lambda: max(0.0, deadline - time.monotonic())


def wait(sock: Any, event: int, seconds: Optional[float] = None) -> bool:
    """Until it is ready for select.POLLIN or POLLOUT; False when the time is over."""
    poll = select.poll()  # unlike select(), it takes descriptors of any number
    poll.register(sock, event)
    return bool(poll.poll(None if seconds is None else seconds * 1000))
