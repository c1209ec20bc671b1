"""The other end of `klvmsg bench` and `klvmsg ping`: drops each message, or sends it back."""

from __future__ import annotations

import sys
import threading

from .errors import Error
from .peer import Connection, Server, serve
from .relay import show_address
from .text import complain


def drop(peer: Connection) -> None:
    for _ in peer:
        pass


def send_back(peer: Connection) -> None:
    for type, body in peer:
        peer.send(type, body)


def attend(server: Server, back: bool) -> None:
    """Accepts, each connection on a thread of its own, until this thread is interrupted."""
    while True:
        threading.Thread(target=_attend_one, args=(server.accept(), back), daemon=True).start()


def _attend_one(peer: Connection, back: bool) -> None:
    with peer:
        try:
            (send_back if back else drop)(peer)
        except Error as error:
            complain(f"{show_address(peer.address)}: {error}")


def _main() -> None:
    """In a process of its own: prints its port, and ends when its input does."""
    server = serve(0)
    print(server.port, flush=True)
    threading.Thread(target=attend, args=(server, sys.argv[1] == "echo"), daemon=True).start()
    sys.stdin.read()


if __name__ == "__main__":
    _main()
