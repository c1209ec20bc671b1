"""Connections with TLS: peers of the package, the command, and programs of the C++ library."""

import asyncio
import contextlib
import os
import pathlib
import re
import select
import shutil
import socket
import ssl
import subprocess
from concurrent.futures import ThreadPoolExecutor
from typing import Any, Callable, Iterator, Tuple

import pytest
from conftest import LIMIT, ROOT, answer, dial, framed, message, read_all, reset, wait_until

import klvmsg
from klvmsg import aio
from klvmsg.tls import context, greeted

pytestmark = pytest.mark.skipif(shutil.which("openssl") is None, reason="openssl is missing")
Files = Callable[..., ssl.SSLContext]


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    """Certificates of a gateway and a press, and one of an authority that nobody knows."""
    made = tmp_path_factory.mktemp("certificates")
    script = ROOT / "examples" / "secure" / "certificates.sh"
    names = ["gateway", "DNS:localhost,IP:127.0.0.1", "press", "DNS:press.example"]
    subprocess.run([script, made, *names], check=True, stderr=subprocess.DEVNULL)
    subprocess.run([script, made / "other", *names], check=True, stderr=subprocess.DEVNULL)
    return made


@pytest.fixture
def files(folder: pathlib.Path) -> Files:
    def of(name: str, server: bool = False, certificates: str = "") -> ssl.SSLContext:
        own = folder / certificates / name
        return context(f"{own}.pem", f"{own}.key", str(folder / "authority.pem"), server=server)

    return of


@pytest.fixture
def carry(start: Any, folder: pathlib.Path) -> Iterator[Callable[..., Any]]:
    """Starts `klvmsg tls` for a server, for so many connections."""

    def run(side: str, port: int, connections: int = 1, host: str = "127.0.0.1") -> Any:
        name = "gateway" if side == "clients" else "press"
        return start("klvmsg", "tls", "-l", 0, "-c", f"{host}:{port}", "--side", side, "-n", connections,
                     "--certificate", folder / f"{name}.pem", "--key", folder / f"{name}.key",
                     "--authority", folder / "authority.pem")  # fmt: skip

    yield run


def test_peers_talk_in_both_directions_and_end_in_order(files: Files) -> None:
    large = os.urandom(3_000_000)
    with klvmsg.serve(0, tls=files("gateway", True)) as server, ThreadPoolExecutor() as pool:
        silent, wrong = dial(server.port), dial(server.port)
        wrong.close()  # both come before the one who is served
        silent.close()
        accepting = pool.submit(server.accept, LIMIT)
        with klvmsg.connect("localhost", server.port, tls=files("press"), timeout=LIMIT) as peer:
            accepted = accepting.result(LIMIT)
            sending = pool.submit(peer.send, "Note", large, LIMIT)
            accepted.send("Note", large[::-1], LIMIT)
            assert peer.receive(LIMIT).body == large[::-1]
            assert accepted.receive(LIMIT).body == large and sending.result(LIMIT) is None
            asking = pool.submit(peer.ask, "Price", b"bolt", LIMIT)
            accepted.answer(accepted.receive(LIMIT), "Offer", b"4")
            assert asking.result(LIMIT) == ("Offer", b"4")
            finishing = pool.submit(peer.finish, LIMIT)
            with pytest.raises(klvmsg.PeerGone) as gone:
                accepted.receive(LIMIT)
            assert gone.value.orderly
            accepted.send("Note", b"still heard")
            accepted.close()
            finishing.result(LIMIT)


def test_an_end_without_a_word_is_a_cut_and_a_stranger_hears_why(
    files: Files, folder: pathlib.Path
) -> None:
    def refused(host: str, tls: ssl.SSLContext, words: str) -> None:
        with pytest.raises(OSError, match=words):
            klvmsg.connect(host, server.port, tls=tls, timeout=LIMIT)

    nobody = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    nobody.load_verify_locations(folder / "authority.pem")
    with klvmsg.serve(0, "0.0.0.0", tls=files("gateway", True)) as server, ThreadPoolExecutor() as pool:
        accepting = pool.submit(server.accept, LIMIT)
        refused("127.0.0.1", files("press", certificates="other"), "unknown ca")
        refused("127.0.0.1", nobody, "certificate required")
        refused("127.0.0.2", files("press"), "is not accepted: IP address mismatch")
        peer = klvmsg.connect("127.0.0.1", server.port, tls=files("press"), timeout=LIMIT)
        accepted = accepting.result(LIMIT)
        with socket.socket(fileno=os.dup(accepted.fileno())) as beneath:
            beneath.shutdown(socket.SHUT_WR)
        with pytest.raises(klvmsg.PeerGone, match="cut") as gone:
            peer.receive(LIMIT)
        assert not gone.value.orderly
        peer.close()
        accepted.close()


def test_a_context_that_does_not_verify_the_other_side_is_refused(
    files: Files, listener: socket.socket
) -> None:
    careless = files("gateway", True)
    careless.verify_mode = ssl.CERT_OPTIONAL
    for wrong, words in ((files("press"), "for the other side"), (careless, "not be verified")):
        with pytest.raises(ValueError, match=words):
            klvmsg.serve(0, tls=wrong)
        with pytest.raises(ValueError, match=words):
            asyncio.run(aio.serve(0, tls=wrong))
    careless = files("press")
    careless.check_hostname = False
    for wrong in files("gateway", True), careless:
        with pytest.raises(ValueError, match="other side"):
            klvmsg.connect("127.0.0.1", listener.getsockname()[1], tls=wrong, timeout=LIMIT)


def test_who_is_not_read_ends_in_time_and_still_hears(files: Files) -> None:
    def stuck() -> Tuple[klvmsg.Connection, klvmsg.Connection]:
        server._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        accepting = pool.submit(server.accept, LIMIT)
        peer = klvmsg.connect("localhost", server.port, tls=files("press"), timeout=LIMIT)
        peer._socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4096)
        with pytest.raises(klvmsg.TimedOut):
            peer.send("Note", bytes(3_000_000), 0.1)
        return peer, accepting.result(LIMIT)

    with klvmsg.serve(0, tls=files("gateway", True)) as server, ThreadPoolExecutor() as pool:
        peer, mute = stuck()
        finishing = pool.submit(peer.finish, 0.1)
        with mute:
            with pytest.raises(klvmsg.TimedOut, match="does not take the end"):
                finishing.result(LIMIT)
        peer, mute = stuck()
        mute.send("Note", b"last words")
        mute.close()  # which resets the connection, since it has not read all
        assert peer.receive(LIMIT).body == b"last words"
        with pytest.raises(klvmsg.PeerGone):
            peer.receive(LIMIT)
        peer.close()


def test_who_goes_before_being_admitted_is_missed_by_the_reader(
    files: Files, listener: socket.socket
) -> None:
    with ThreadPoolExecutor() as pool:
        client = dial(listener.getsockname()[1])
        greeting = pool.submit(greeted, answer(listener), files("gateway", True), None, LIMIT)
        client = files("press").wrap_socket(client, server_hostname="localhost")
        near = greeting.result(LIMIT)
    reset(client)
    assert near.wait(select.POLLIN, LIMIT)
    near.admit()
    with pytest.raises(ConnectionResetError):
        near.recv(1)
    near.close()


def test_tasks_talk_while_somebody_is_silent(files: Files) -> None:
    async def serve_one(server: aio.Server) -> None:
        async with await server.accept(LIMIT) as peer:
            async for question in peer:
                await peer.answer(question, "Offer", question.body[8:][::-1])

    async def story() -> None:
        async with await aio.serve(0, tls=files("gateway", True)) as server:
            silent = dial(server.port)
            serving = [asyncio.create_task(serve_one(server)) for _ in range(2)]
            peer = await aio.connect("127.0.0.1", server.port, tls=files("press"), timeout=LIMIT)
            bodies = [bytes([number]) * 100_000 + b"end" for number in range(20)]
            answers = await asyncio.gather(*[peer.ask("Price", body, LIMIT) for body in bodies])
            assert [answer.body for answer in answers] == [body[::-1] for body in bodies]
            await peer.finish(LIMIT)
            silent.close()
            for task in serving:
                task.cancel()
            await asyncio.gather(*serving, return_exceptions=True)

    asyncio.run(asyncio.wait_for(story(), LIMIT))


def test_plain_peers_meet_through_the_command(
    carry: Any, listener: socket.socket
) -> None:
    gate = carry("clients", listener.getsockname()[1], 3)
    press = carry("server", gate.port(), 3)
    port = press.port()

    def pair() -> Tuple[socket.socket, socket.socket]:
        client = dial(port)
        return client, answer(listener)

    client, server = pair()
    note = message(b"Note", framed(os.urandom(1_000_000)))
    with ThreadPoolExecutor() as pool:
        pool.submit(client.sendall, note)
        assert read_all(server, len(note)) == note
        client.shutdown(socket.SHUT_WR)
        assert server.recv(1) == b""
        pool.submit(server.sendall, note)
        assert read_all(client, len(note)) == note, "what follows a farewell of the other side"
        server.close()
        assert client.recv(1) == b""
    client, server = pair()
    reset(server)
    with pytest.raises(ConnectionResetError):
        client.recv(1)
    client, server = pair()
    client.sendall(note[:100])
    reset(client)
    with pytest.raises(ConnectionResetError):
        read_all(server)
    assert gate.end()[1].count("ended: Connection reset by peer") >= 2 and press.end()[0] == 0


def test_a_program_behind_the_command_talks_to_a_protected_one(
    start: Any, carry: Any, folder: pathlib.Path, listener: socket.socket
) -> None:
    gateway = start("secure", "--timeout", LIMIT, "gateway", folder, "gateway", 0)
    wait_until(lambda: re.search(r"port (\d+)\n", gateway.text()))
    port = int(re.search(r"port (\d+)\n", gateway.text())[1])  # type: ignore[index]
    with klvmsg.connect("127.0.0.1", carry("server", port).port(), timeout=LIMIT) as peer:
        peer.send("Question", b"who is it?")
        assert peer.receive(LIMIT) == ("Answer", b"I have heard: who is it?")
        peer.finish(LIMIT)
    wait_until(lambda: "a connection of press.example" in gateway.text())
    wait_until(lambda: "the peer has closed" in gateway.text())
    gate = carry("clients", listener.getsockname()[1])
    asking = start("secure", "ask", folder, "press", "127.0.0.1", gate.port(), "why")
    server = answer(listener)
    question = message(b"Question", framed(b"why"))
    assert read_all(server, len(question)) == question, "nothing is before it"
    server.sendall(message(b"Answer", framed(b"because")))
    code, said, _ = asking.end()
    assert code == 0 and said.endswith(": a connection of localhost, 127.0.0.1\nbecause\n")


def test_the_command_tells_who_was_turned_away(start: Any, carry: Any, files: Files) -> None:
    gate = carry("clients", 1, 2)
    port = gate.port()
    with dial(port) as plain:
        plain.sendall(message(b"Note", framed(b"in the clear")) * 10)
        with contextlib.suppress(ConnectionResetError):
            assert len(read_all(plain)) < 10  # an alert at the most
    with pytest.raises(OSError):
        klvmsg.connect("127.0.0.1", port, tls=files("press"), timeout=LIMIT)
    said = gate.end()[1]
    assert "failed: the client: " in said and "cannot connect to 127.0.0.1:1: Connection refused" in said
    code, _, words = start("klvmsg", "tls", "-l", 0, "-c", "127.0.0.1:1", "--side", "server", "--certificate",
                           "none.pem", "--key", "none", "--authority", "none").end()  # fmt: skip
    assert code == 3 and "none.pem" in words and "No such file" in words
