"""The peer for asyncio, with one for threads and with plain sockets."""

import asyncio
import socket
from typing import Any, Awaitable, Callable, Iterator

import pytest
from conftest import LIMIT, answer, framed, message, read_all, reset

import klvmsg
from klvmsg import aio

Story = Callable[[], Awaitable[None]]


@pytest.fixture(autouse=True)
def complaints(caplog: pytest.LogCaptureFixture) -> Iterator[None]:
    """The loop logs what went wrong where nobody awaits it."""
    yield
    assert not caplog.records, caplog.text


def played(story: Story) -> None:
    asyncio.run(asyncio.wait_for(story(), LIMIT))


def test_many_talk_at_once_in_one_loop() -> None:
    async def serve_one(peer: aio.Connection) -> None:
        async with peer:
            async for type, body in peer:
                await peer.send(type, body[::-1])

    async def ask(port: int, number: int) -> None:
        async with await aio.connect("127.0.0.1", port, rules="Tick=8", timeout=LIMIT) as peer:
            large = bytes([number]) * 12_000_000 + b"end"
            sending = asyncio.gather(*[peer.send("Note", large), peer.send("Tick", b"12345678")])
            assert await peer.receive(LIMIT) == ("Note", large[::-1])
            assert await peer.receive(LIMIT) == ("Tick", b"87654321")
            await sending
            await peer.finish(LIMIT)
            assert peer.fileno() == -1

    async def story() -> None:
        async with await aio.serve(0, rules="Tick=8") as server:
            asking = [asyncio.create_task(ask(server.port, number)) for number in range(3)]
            serving = [asyncio.create_task(serve_one(await server.accept(LIMIT))) for _ in asking]
            await asyncio.gather(*asking, *serving)

    played(story)


def test_time_limits_and_cancelled_tasks_lose_nothing(listener: socket.socket) -> None:
    async def story() -> None:
        port = listener.getsockname()[1]
        peer, other = await aio.connect("127.0.0.1", port, timeout=LIMIT), answer(listener)
        assert peer.address == ("127.0.0.1", port)
        wire = message(b"Note", framed(b"hello"))
        other.sendall(wire[:9])
        with pytest.raises(klvmsg.TimedOut):
            await peer.receive(0.05)
        waiting = asyncio.create_task(peer.receive())
        with pytest.raises(klvmsg.TimedOut):  # another task is before it
            await asyncio.gather(asyncio.sleep(0), peer.receive(0.05))
        waiting.cancel()
        other.sendall(wire[9:] + wire)
        other.sendall(wire)
        with pytest.raises(asyncio.CancelledError):
            await waiting
        assert await peer.receive(LIMIT) == ("Note", b"hello")

        assert await peer.receive(LIMIT) == ("Note", b"hello")
        assert await peer.receive(LIMIT) == ("Note", b"hello")
        both = [asyncio.create_task(peer.receive(LIMIT)) for _ in range(2)]
        await asyncio.sleep(0)
        await asyncio.sleep(0)
        other.sendall(message(b"Note", framed(b"1")))
        assert await both[0] == ("Note", b"1")
        other.sendall(message(b"Note", framed(b"2")))
        assert await both[1] == ("Note", b"2")

        with pytest.raises(klvmsg.TimedOut):
            await peer.send("Big", bytes(50_000_000), timeout=0.1)
        with pytest.raises(klvmsg.PeerGone, match="could not be sent whole"):
            await peer.send("Note")
        peer.close()

    played(story)


def test_a_lost_peer_and_a_closed_connection_are_exceptions(listener: socket.socket) -> None:
    async def story() -> None:
        port = listener.getsockname()[1]
        peer, other = await aio.connect("127.0.0.1", port), answer(listener)
        other.sendall(message(b"Note", framed(b"")) + b"\7")
        reset_soon = asyncio.get_running_loop().run_in_executor(None, reset, other)
        with pytest.raises(klvmsg.PeerGone):
            while True:
                await peer.receive(LIMIT)
        await reset_soon
        with pytest.raises(klvmsg.PeerGone):
            async for _ in peer:
                pass

        peer, other = await aio.connect("127.0.0.1", port), answer(listener)
        waiting = asyncio.create_task(peer.receive())
        await asyncio.sleep(0)
        await asyncio.sleep(0)
        peer.close()
        after = await aio.connect("127.0.0.1", port)  # has the same number
        with pytest.raises(klvmsg.PeerGone, match="closed here"):
            await waiting
        third = answer(listener)
        hearing = asyncio.create_task(after.receive(LIMIT))
        await asyncio.sleep(0)
        third.sendall(message(b"Note", framed(b"x")))
        assert await hearing == ("Note", b"x")
        third.close()
        with pytest.raises(klvmsg.PeerGone) as gone:
            await after.receive(LIMIT)
        assert gone.value.orderly

    played(story)


def test_no_connection_tells_its_cause(listener: socket.socket) -> None:
    async def story() -> None:
        async with await aio.serve(0) as server:
            with pytest.raises(OSError, match="in use"):
                await aio.serve(server.port)
            with pytest.raises(klvmsg.TimedOut):
                await server.accept(0.05)
            port = server.port
        with pytest.raises(ConnectionRefusedError):
            await aio.connect("127.0.0.1", port)
        with pytest.raises(ValueError):
            await aio.connect("127.0.0.1", port, rules="Tick")
        peer, other = await aio.connect("127.0.0.1", listener.getsockname()[1]), answer(listener)
        with pytest.raises(klvmsg.TimedOut):
            await peer.finish(0.05)
        assert peer.fileno() == -1 and read_all(other) == b""

    played(story)


def test_finish_follows_a_message_that_is_on_its_way(listener: socket.socket) -> None:
    async def story() -> None:
        peer, other = await aio.connect("127.0.0.1", listener.getsockname()[1]), answer(listener)
        note = message(b"Note", framed(bytes(10_000_000)))
        sending = asyncio.create_task(peer.send("Note", bytes(10_000_000), LIMIT))
        await asyncio.sleep(0)
        finishing = asyncio.create_task(peer.finish(LIMIT))
        await asyncio.sleep(0)
        assert await asyncio.to_thread(read_all, other) == note
        await sending
        other.close()
        await finishing

    played(story)


def test_it_talks_to_a_cpp_program(start: Any) -> None:
    async def story() -> None:
        async with await aio.serve(0) as server:
            cat = start("klvmsgcat", "-t", LIMIT, "-c", f"127.0.0.1:{server.port}", "-s",
                        "Ask=/dev/null", "-r", "Told", "-n", 1)  # fmt: skip
            async with await server.accept(LIMIT) as peer:
                assert await peer.receive(LIMIT) == ("Ask", b"")
                await peer.send("Told", b"it")
                assert [message async for message in peer] == []
            assert cat.end()[:2] == (0, "Told 2 it\n")

    played(story)
