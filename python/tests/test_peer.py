"""The peer, with programs of the C++ library and with ones that misbehave."""

import hashlib
import pathlib
import socket
import threading
import time
from typing import Any, Tuple

import pytest
from conftest import LIMIT, answer, dial, framed, message, read_all, reset

import klvmsg
from klvmsg.listening import listen


@pytest.fixture
def pair(listener: socket.socket) -> Tuple[klvmsg.Connection, socket.socket]:
    """A connection, and the plain socket at its other end."""
    port = listener.getsockname()[1]
    return klvmsg.connect("127.0.0.1", port, rules="Tick=8", timeout=LIMIT), answer(listener)


def test_it_connects_to_a_cpp_program_and_answers(start: Any, tmp_path: pathlib.Path) -> None:
    large = tmp_path / "large"
    large.write_bytes(bytes(range(256)) * 100_000)
    (tmp_path / "tick").write_bytes(b"8 bytes!")
    cat = start("klvmsgcat", "-t", LIMIT, "-l", 0, "-s", f"Big={large}", "-s",
                f"Tick={tmp_path / 'tick'}", "-f", "Tick=8", "-r", "Note", "-r", "Tick", "-x")  # fmt: skip
    with klvmsg.connect("127.0.0.1", cat.port(), rules="Tick=8", timeout=LIMIT) as peer:
        assert peer.receive(LIMIT) == ("Big", large.read_bytes())
        assert peer.receive(LIMIT) == ("Tick", b"8 bytes!")
        peer.send("Note", b"\0\xff")
        peer.send("Tick", b"12345678", timeout=LIMIT)
        peer.send("Note")
        peer.finish(LIMIT)
    assert cat.end()[:2] == (0, "Note 2 00ff\nTick 8 3132333435363738\nNote 0 \n")


def test_it_serves_a_cpp_program(start: Any) -> None:
    with klvmsg.serve(0) as server:
        cat = start("klvmsgcat", "-t", LIMIT, "-c", f"127.0.0.1:{server.port}", "-s",
                    f"Source={__file__}", "-r", "Digest", "-n", 1)  # fmt: skip
        with server.accept(LIMIT) as peer:
            type, body = peer.receive(LIMIT)
            peer.send("Digest", hashlib.sha256(body).hexdigest().encode())
            assert list(peer) == []
    digest = hashlib.sha256(pathlib.Path(__file__).read_bytes()).hexdigest()
    assert type == "Source" and cat.end()[:2] == (0, f"Digest 64 {digest}\n")


def test_a_time_limit_loses_nothing(pair: Tuple[klvmsg.Connection, socket.socket]) -> None:
    peer, other = pair
    data = message(b"Tick", b"12345678") + message(b"Note", framed(b"hello"))
    other.sendall(data[:3])
    with pytest.raises(klvmsg.TimedOut):
        peer.receive(0.05)
    other.sendall(data[3:20])
    assert peer.receive(LIMIT) == ("Tick", b"12345678")
    with pytest.raises(klvmsg.TimedOut):
        peer.receive(0)
    other.sendall(data[20:])
    assert peer.receive(LIMIT) == ("Note", b"hello")


def test_a_lost_peer_is_an_exception(listener: socket.socket) -> None:
    for ending, orderly, says in (("close", True, "has closed"), ("amid", False, "Note, 6 of 8 bytes"),
                                  ("reset", False, "reset")):  # fmt: skip
        peer, other = klvmsg.connect("127.0.0.1", listener.getsockname()[1]), answer(listener)
        other.sendall(message(b"Note", framed(b"")))
        if ending == "amid":
            other.sendall(message(b"Note", framed(b"abcd"))[:-2])
        (reset if ending == "reset" else socket.socket.close)(other)
        if ending != "reset":
            assert peer.receive(LIMIT) == ("Note", b"")
        with pytest.raises(klvmsg.PeerGone, match=says) as gone:
            for _ in range(2):
                peer.receive(LIMIT)
        assert gone.value.orderly == orderly
        if not orderly:
            with pytest.raises(klvmsg.PeerGone):
                list(peer)
        with pytest.raises(klvmsg.PeerGone):
            for _ in range(100):
                peer.send("Note", bytes(1000), timeout=LIMIT)
        peer.close()


def test_a_stream_out_of_step_is_an_exception_after_its_messages(
    pair: Tuple[klvmsg.Connection, socket.socket],
) -> None:
    peer, other = pair
    other.sendall(message(b"Tick", bytes(12)) + message(b"Tick", bytes(8)))
    assert peer.receive(LIMIT).type == "Tick"
    for _ in range(2):
        with pytest.raises(klvmsg.OutOfStep, match="of 0 bytes .*after Tick with 8 bytes"):
            peer.receive(LIMIT)


def test_a_peer_that_does_not_read_is_told_apart(
    pair: Tuple[klvmsg.Connection, socket.socket],
) -> None:
    peer, other = pair
    began = time.monotonic()
    with pytest.raises(klvmsg.TimedOut):
        peer.send("Note", bytes(50_000_000), timeout=0.2)
    assert 0.2 <= time.monotonic() - began < LIMIT
    with pytest.raises(klvmsg.PeerGone, match="could not be sent whole"):
        peer.send("Note")


def test_a_message_of_which_nothing_has_gone_does_not_end_the_sending(
    pair: Tuple[klvmsg.Connection, socket.socket],
) -> None:
    peer, other = pair
    sent = 0
    with pytest.raises(klvmsg.TimedOut):
        while True:
            peer.send("Tick", bytes(8), timeout=0)
            sent += 1
    assert len(read_all(other, 16 * sent)) == 16 * sent
    peer.send("Tick", b"12345678", timeout=LIMIT)
    assert read_all(other, 16) == message(b"Tick", b"12345678")


def test_what_a_receiver_would_not_understand_is_not_sent(
    pair: Tuple[klvmsg.Connection, socket.socket],
) -> None:
    peer, other = pair
    for type, body in (("", b""), ("a\0b", b""), ("Tick", bytes(7))):
        with pytest.raises(ValueError):
            peer.send(type, body)
    odd = "\udcff\x1b"
    peer.send(odd, b"x")
    peer.close()
    assert read_all(other) == message(b"\xff\x1b", framed(b"x"))


def test_names_are_as_long_as_the_library_takes_them(start: Any) -> None:
    name = "n" * 60_000
    cat = start("klvmsgcat", "-t", LIMIT, "-l", 0, "-s", f"{name}=/dev/null", "-r", name)
    with klvmsg.connect("127.0.0.1", cat.port()) as peer:
        peer.send(name, b"x")
        assert peer.receive(LIMIT) == (name, b"")
        peer.finish(LIMIT)
    assert cat.end()[:2] == (0, f"{name} 1 x\n")


def test_a_name_over_the_limit_is_out_of_step(listener: socket.socket) -> None:
    peer = klvmsg.connect("127.0.0.1", listener.getsockname()[1], max_name=10)
    with answer(listener) as other:
        other.sendall(message(b"n" * 10, framed(b"")) + message(b"n" * 11, framed(b"")))
        assert peer.receive(LIMIT).type == "n" * 10
        with pytest.raises(klvmsg.OutOfStep, match="a type name of 11 bytes"):
            peer.receive(LIMIT)


def test_a_peer_tells_its_address(listener: socket.socket) -> None:
    host, port = listener.getsockname()
    with klvmsg.connect("localhost", port) as peer, answer(listener):
        assert peer.address == (host, port)
    with klvmsg.serve(0, "::1") as server, klvmsg.connect("::1", server.port) as client:
        with server.accept(LIMIT) as accepted:
            assert accepted.address == ("::1", client._socket.getsockname()[1])
    with klvmsg.serve(0) as server:
        reset(dial(server.port))
        with server.accept(LIMIT) as accepted, pytest.raises(klvmsg.PeerGone):
            assert accepted.address == ("", 0)
            accepted.receive(LIMIT)


def test_no_connection_tells_its_cause(listener: socket.socket) -> None:
    with klvmsg.serve(0) as server:
        with pytest.raises(OSError, match="in use"):
            klvmsg.serve(server.port)
        with pytest.raises(klvmsg.TimedOut):
            server.accept(0.05)
    with pytest.raises(OSError, match="Bad file descriptor"):
        server.accept(LIMIT)
    with pytest.raises(ConnectionRefusedError):
        klvmsg.connect("127.0.0.1", server.port)
    with pytest.raises(ValueError):
        klvmsg.connect("127.0.0.1", server.port, rules="Tick")


def test_finish_waits_until_the_peer_has_read(listener: socket.socket) -> None:
    peer, other = klvmsg.connect("127.0.0.1", listener.getsockname()[1]), answer(listener)
    body = bytes(20_000_000)
    other.sendall(message(b"Note", framed(b"not received by anybody")))

    def send() -> None:
        peer.send("Big", body)
        peer.finish(LIMIT)

    sender = threading.Thread(target=send)
    sender.start()
    time.sleep(0.1)
    assert read_all(other) == message(b"Big", framed(body))
    assert sender.is_alive()
    other.close()
    sender.join(LIMIT)
    assert not sender.is_alive() and peer.fileno() == -1

    peer, other = klvmsg.connect("127.0.0.1", listener.getsockname()[1]), answer(listener)
    with pytest.raises(klvmsg.TimedOut):
        peer.finish(0.05)
    assert peer.fileno() == -1


@pytest.mark.parametrize("by_server", [False, True])
def test_the_largest_body_holds_both_ways(by_server: bool) -> None:
    with klvmsg.serve(0, max_body=100 if by_server else 1000) as server, klvmsg.connect(
        "127.0.0.1", server.port, max_body=1000 if by_server else 100
    ) as client, server.accept(LIMIT) as accepted:
        limited, other = (accepted, client) if by_server else (client, accepted)
        with pytest.raises(ValueError, match="101 bytes, more than the 100 allowed"):
            limited.send("Note", bytes(97))
        limited.send("Note", bytes(96))
        assert other.receive(LIMIT) == ("Note", bytes(96))
        other.send("Note", bytes(96))
        other.send("Note", bytes(97))
        assert limited.receive(LIMIT) == ("Note", bytes(96))
        with pytest.raises(klvmsg.OutOfStep, match="a body of Note with 101 bytes"):
            limited.receive(LIMIT)


def test_a_port_can_be_had_again_at_once() -> None:
    with klvmsg.serve(0) as server:
        client = klvmsg.connect("127.0.0.1", server.port)
        server.accept(LIMIT).close()
        with pytest.raises(klvmsg.PeerGone):
            client.receive(LIMIT)
        client.close()
    klvmsg.serve(server.port).close()


def test_a_client_that_has_gone_again_is_not_accepted() -> None:
    class Entrance(socket.socket):
        """Tells of two clients that have gone when it is asked for them."""

        gone = [BlockingIOError(), ConnectionAbortedError()]

        def accept(self) -> Any:
            if self.gone:
                raise self.gone.pop()
            return super().accept()

    listener = listen("127.0.0.1", 0)
    listener.setblocking(False)
    with klvmsg.Server(Entrance(fileno=listener.detach()), klvmsg.Rules(), 1000) as server:
        with klvmsg.connect("127.0.0.1", server.port) as client, server.accept(LIMIT) as accepted:
            accepted.send("Note")
            assert client.receive(LIMIT).type == "Note" and not Entrance.gone


def test_small_messages_do_not_wait_for_one_another(
    pair: Tuple[klvmsg.Connection, socket.socket],
) -> None:
    """Where a receiver acknowledges late, as here, each one would otherwise wait for that."""
    peer, other = pair
    took = []
    for _ in range(40):
        other.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 0)
        began = time.monotonic()
        peer.send("Tick", bytes(8))
        assert len(read_all(other, 16)) == 16
        took.append(time.monotonic() - began)
    assert sorted(took)[20] < 0.03
