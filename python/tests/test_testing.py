"""The peer for tests: what it says when the program does otherwise."""

from typing import Callable, List

import pytest
from conftest import LIMIT, dial

import klvmsg
from klvmsg.testing import Script

Program = Callable[[klvmsg.Connection], object]


def test_a_script_is_followed_from_either_side() -> None:
    script = Script(rules="Tick=8", limit=LIMIT).expect("Ask", b"4").answer("Tick", b"12345678")
    script.expect("Ask", lambda body: len(body) == 2).answer("Told", lambda ask: ask.body * 2)
    for _ in range(2):
        with script.serve() as peer:
            with klvmsg.connect("127.0.0.1", peer.port, rules="Tick=8") as program:
                program.send("Ask", b"4")
                assert program.receive(LIMIT) == ("Tick", b"12345678")
                program.send("Ask", b"ab")
                assert program.receive(LIMIT) == ("Told", b"abab")
    with klvmsg.serve(0) as server:
        with Script(limit=LIMIT).answer("Hello").silence(0.01).reset().connect("127.0.0.1", server.port):
            with server.accept(LIMIT) as program:
                assert program.receive(LIMIT) == ("Hello", b"")
                with pytest.raises(klvmsg.PeerGone, match="reset"):
                    program.receive(LIMIT)


@pytest.mark.parametrize(
    "script, said, words",
    [(Script().expect("Ask", b"4"), ["Ask 5"], "step 1 of 1: Ask b'5' has come, not Ask b'4'"),
     (Script().expect("Ask", lambda body: body == b"4"), ["Ask 5"], "Ask b'5' has come, not Ask"),
     (Script().expect("Ask").expect("More"), ["Ask 4", "Less 3"], "step 2 of 2: Less b'3' has come, not More"),
     (Script().expect("Ask"), [], "step 1 of 1: the peer has closed"),
     (Script(), ["Ask 4"], "after the last step: Ask b'4' has come, where nothing was expected"),
     (Script().silence(LIMIT), ["Ask 4"], "step 1 of 1: Ask b'4' has come, where silence"),
     (Script().answer("Told", lambda last: bytes([int(last.body)])), [], "step 1 of 1: invalid literal")],
)  # fmt: skip
def test_a_difference_is_told(script: Script, said: List[str], words: str) -> None:
    with pytest.raises(AssertionError) as told, script.serve() as peer:
        with klvmsg.connect("127.0.0.1", peer.port) as program:
            for line in said:
                program.send(line.split()[0], line.split()[1].encode())
    assert words in str(told.value)


def test_a_program_that_breaks_off_is_told() -> None:
    with pytest.raises(AssertionError, match="after the last step: the peer has gone in the middle"):
        with Script(limit=LIMIT).serve() as peer, dial(peer.port) as program:
            program.sendall(b"\7\0")


def test_a_program_that_never_comes_is_told() -> None:
    with pytest.raises(AssertionError, match="before the first step: nobody has connected"):
        with Script(limit=0.05).expect("Ask").serve():
            pass
    with pytest.raises(AssertionError, match="step 1 of 1: no message has come in time"):
        with Script(limit=0.05).expect("Ask").serve() as peer:
            with klvmsg.connect("127.0.0.1", peer.port) as silent, pytest.raises(klvmsg.PeerGone):
                silent.receive(LIMIT)
