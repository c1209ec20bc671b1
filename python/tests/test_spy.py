"""What stands between two programs passes on every byte, and says what it saw."""

import contextlib
import fcntl
import hashlib
import os
import pathlib
import pty
import random
import re
import resource
import select
import signal
import socket
import struct
import termios
import threading
import time
from typing import Any, Iterator, List, Tuple

import pytest
from conftest import LIMIT, Program, answer, dial, framed, message, read_all, reset
from conftest import segments, wait_until

import klvmsg
from klvmsg import observers, relay
from klvmsg.events import MESSAGE, TO_CLIENT, Event, describe
from klvmsg.rules import Rules
from klvmsg.wire import Decoder


def between(
    start: Any, listener: socket.socket, *options: str
) -> Tuple[Program, socket.socket, socket.socket]:
    """A spy, and the two plain sockets that it stands between."""
    port = listener.getsockname()[1]
    spy = start("klvmsg", "spy", "-l", 0, "-c", f"127.0.0.1:{port}", "-n", 1, *options)
    client = dial(spy.port())
    return spy, client, answer(listener)


def lines(output: str) -> str:
    """Without the times."""
    return re.sub(r"(?m)^\d\d:\d\d:\d\d\.\d{6} ", "", output)


def test_10000_messages_each_way_are_the_same_behind_it(start: Any, tmp_path: pathlib.Path) -> None:
    count = 10_000
    sent = [hashlib.sha256(b"%d" % i).hexdigest() * (i % 40) for i in range(count)]
    (tmp_path / "lines").write_text("\n".join(sent))
    cat = start("klvmsgcat", "-t", LIMIT, "-l", 0, "--lines", "Line", "-r", "Answer", "-n", count,
                stdin=open(tmp_path / "lines"))  # fmt: skip
    spy = start("klvmsg", "spy", "-l", 0, "-c", f"127.0.0.1:{cat.port()}", "-n", 1)
    with klvmsg.connect("127.0.0.1", spy.port(), timeout=LIMIT) as peer:
        answers = [line[::-1].encode() for line in sent]

        def send() -> None:
            for body in answers:
                peer.send("Answer", body)

        sender = threading.Thread(target=send)
        sender.start()
        received = [peer.receive(LIMIT) for _ in range(count)]
        sender.join(LIMIT)
        peer.finish(LIMIT)

    def digest(bodies: Any) -> str:
        return hashlib.sha256(b"\n".join(bodies)).hexdigest()

    assert {message.type for message in received} == {"Line"}
    assert digest(message.body for message in received) == digest(line.encode() for line in sent)
    code, output, errors = cat.end()
    assert (code, errors) == (0, "")
    assert digest(line.split(" ")[2].encode() for line in output.splitlines()) == digest(answers)
    shown = lines(spy.end()[1])
    assert (shown.count("#1 > Answer "), shown.count("#1 < Line ")) == (count, count)


@pytest.mark.parametrize("through_spy", [False, True])
def test_no_header_is_cut_by_the_end_of_a_segment(
    start: Any, listener: socket.socket, through_spy: bool
) -> None:
    """Not even when a receiver is slow and messages wait: each segment begins with a message."""
    port = listener.getsockname()[1]
    if through_spy:
        port = start("klvmsg", "spy", "-l", 0, "-c", f"127.0.0.1:{port}", "-n", 1).port()
    with klvmsg.connect("127.0.0.1", port) as peer, answer(listener) as slow:
        with pytest.raises(klvmsg.TimedOut):
            for count in range(10_000_000):
                peer.send("Note", b"1234567", timeout=0.3)
        received = len(read_all(slow, count * 19))
        average = received / segments(slow)
    assert average < 536, "on average, and a smaller one holds every header that begins in it"


def test_no_byte_changes_when_the_rule_is_wrong(start: Any, listener: socket.socket) -> None:
    spy, client, server = between(start, listener, "--rules", "Tick=4;Note=length(0,1,big)")
    noise = message(b"Tick", bytes(8)) + os.urandom(3_000_000)
    sender = threading.Thread(target=client.sendall, args=(noise,))
    sender.start()
    assert read_all(server, len(noise)) == noise
    sender.join()
    server.sendall(message(b"Note", b"\x03abc"))
    assert read_all(client, 12) == message(b"Note", b"\x03abc")
    client.close()
    server.close()
    code, output, _ = spy.end()
    assert code == 0
    shown = lines(output).splitlines()
    assert "#1 > Tick 4" in shown and "#1 < Note 4" in shown
    assert any(line.startswith("#1 > -- out of step: a type name of 0 bytes (00 00 00 00")
               and line.endswith("after Tick with 4 bytes") for line in shown)  # fmt: skip


def test_bytes_are_passed_on_at_once_and_pieces_of_a_header_soon(
    start: Any, listener: socket.socket
) -> None:
    spy, client, server = between(start, listener)
    wire = message(b"Note", framed(b"hello"))
    for byte in wire * 2:  # nothing may wait for the byte that comes after it
        client.sendall(bytes([byte]))
        assert read_all(server, 1) == bytes([byte])
    for byte in wire:  # what waits for the rest of a header is not lost when that comes in pieces too
        client.sendall(bytes([byte]))
        time.sleep(0.001)
    assert read_all(server, len(wire)) == wire
    server.sendall(b"\7")
    assert read_all(client, 1) == b"\7"
    client.sendall(wire[:3])  # a piece, and no rest
    client.shutdown(socket.SHUT_WR)
    assert read_all(server) == wire[:3]
    server.sendall(wire[:9])
    server.close()
    assert read_all(client) == wire[:9]
    shown = lines(spy.end()[1])
    assert shown.count("#1 > Note 9\n") == 3 and "#1 > -- ended: in the middle of a message" in shown
    assert "#1 < -- out of step" in shown


def test_a_reset_is_passed_on_after_what_came_before_it(
    start: Any, listener: socket.socket
) -> None:
    spy, client, server = between(start, listener)
    client.sendall(message(b"Note", framed(bytes(500_000))) + message(b"Note", framed(b"xyz"))[:-1])
    while fcntl.ioctl(client, termios.TIOCOUTQ, bytes(4)) != bytes(4):
        time.sleep(0.01)  # what has not left the client would be lost without spy too
    reset(client)
    received = b""
    with pytest.raises(ConnectionResetError):
        while True:
            time.sleep(0.01)
            piece = server.recv(50_000)
            assert piece
            received += piece
    assert received.endswith(b"\3\0\0\0xy")
    shown = lines(spy.end()[1])
    assert "#1 > Note 500004\n" in shown
    assert "#1 > -- ended: Connection reset by peer, in the middle of a message: Note, 6 of 7" in shown


def test_a_server_that_is_not_there_resets_the_client(start: Any) -> None:
    with socket.create_server(("127.0.0.1", 0)) as gone:
        port = gone.getsockname()[1]
    spy = start("klvmsg", "spy", "-l", 0, "-c", f"127.0.0.1:{port}", "-n", 1)
    with pytest.raises(ConnectionResetError):  # as early as while it connects
        read_all(dial(spy.port()))
    assert f"#1   -- failed: cannot connect to 127.0.0.1:{port}: Connection refused" in spy.end()[1]


def test_it_goes_on_when_nobody_reads_its_lines(start: Any, listener: socket.socket) -> None:
    reading, writing = os.pipe()
    port = listener.getsockname()[1]
    spy = start("klvmsg", "spy", "-l", 0, "-c", f"127.0.0.1:{port}", "-n", 2, stdout=writing)
    os.close(writing)
    entrance = spy.port()
    stalled, other = dial(entrance), answer(listener)
    many = message(b"Note", framed(b"")) * 20_000  # their lines are more than a pipe takes
    sender = threading.Thread(target=stalled.sendall, args=(many,))
    sender.start()
    assert read_all(other, len(many)) == many
    os.close(reading)
    sender.join()
    client, server = dial(entrance), answer(listener)
    client.sendall(many)
    assert read_all(server, len(many)) == many
    for sock in (stalled, other, client, server):
        sock.close()
    code, _, errors = spy.end()
    assert code == 0 and "no more lines are printed" in errors


def test_names_do_nothing_to_the_terminal(start: Any, listener: socket.socket) -> None:
    spy, client, server = between(start, listener, "--bodies", "4")
    for name in (b"\x1b[31m\r\nforged", "\u202eright\u009b2J".encode(), b"\xff\\",
                 "Gr\u00fc\u00dfe".encode()):  # fmt: skip
        client.sendall(message(name, framed(b"\x1b")))
    client.close()
    read_all(server)
    server.close()
    shown = lines(spy.end()[1])
    assert "\x1b" not in shown and "\u202e" not in shown and "\u009b" not in shown
    assert "#1 > \\x1b[31m\\x0d\\x0aforged 5 \\x01\\x00\\x00\\x00...\n" in shown
    assert "#1 > \\xe2\\x80\\xaeright\\xc2\\x9b2J 5" in shown
    assert "#1 > \\xff\\x5c 5" in shown and "#1 > Gr\u00fc\u00dfe 5" in shown


@pytest.mark.parametrize("columns", [40, 200])
def test_the_live_table_counts(start: Any, listener: socket.socket, columns: int) -> None:
    pytest.importorskip("rich")
    wide = columns > 40
    main, terminal = pty.openpty()
    fcntl.ioctl(main, termios.TIOCSWINSZ, struct.pack("4H", 24, columns, 0, 0))
    port = listener.getsockname()[1]
    spy = start("klvmsg", "spy", "--top", "-l", 0, "-c", f"127.0.0.1:{port}", "--text", "Back",
                "--type", "Back", "--type", "No*", *["--column", "body"] * wide, stdout=terminal)  # fmt: skip
    os.close(terminal)
    client, server = dial(spy.port()), answer(listener)
    wire = message(b"No\x1bte[b]", framed(bytes(96))) * 1234
    client.sendall(wire)
    server.sendall(message(b"Gone", framed(b"")) + message(b"Back", framed(b"said")))
    read_all(server, len(wire)), read_all(client, 28)
    time.sleep(1)
    spy.process.send_signal(signal.SIGTERM)
    picture = b""
    try:
        while select.select([main], [], [], LIMIT)[0]:
            picture += os.read(main, 65536)
    except OSError:
        pass  # the terminal's other end is closed
    os.close(main)
    assert spy.process.wait(LIMIT) == 0
    last = picture.decode()[picture.decode().rindex("klvmsg spy") :]
    assert re.search(r"#1 +server +No\\x1bte\[b\] +1,234\s", last), last
    assert re.search(r"#1 +client +Back +1\s" + ".*said" * wide, last) and "Gone" not in last, last


# What stands between, in this process ---------------------------------------------------------------


@contextlib.contextmanager
def relayed(listener: socket.socket) -> Iterator[Tuple[socket.socket, socket.socket, List[Event]]]:
    """The two plain sockets that a relay stands between, and what it has seen."""
    events: List[Event] = []
    entrance = socket.create_server(("127.0.0.1", 0))
    between = relay.Relay(entrance, listener.getsockname(), Rules(), events.extend)
    thread = threading.Thread(target=between.run, args=(1,), daemon=True)
    thread.start()
    with dial(entrance.getsockname()[1]) as client, answer(listener) as server:
        yield client, server, events
    thread.join(LIMIT)
    assert not thread.is_alive()


def test_a_silent_connection_stays(
    listener: socket.socket, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The time that the server has to accept is no limit for what it says later."""
    monkeypatch.setattr(relay, "_CONNECT_TIMEOUT", 0.05)
    with relayed(listener) as (client, server, _):
        client.settimeout(0.5)
        with pytest.raises(socket.timeout):
            client.recv(1)
        server.sendall(b"\7")
        assert client.recv(1) == b"\7"


def test_small_messages_do_not_wait_for_one_another(listener: socket.socket) -> None:
    """Where a receiver acknowledges late, as here, each one would otherwise wait for that."""
    wire = message(b"Note", framed(b""))
    with relayed(listener) as (client, server, _):
        for source, target in ((client, server), (server, client)):
            source.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            took = []
            for _ in range(40):
                target.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 0)
                began = time.monotonic()
                source.sendall(wire)
                assert read_all(target, len(wire)) == wire
                took.append(time.monotonic() - began)
            assert sorted(took)[20] < 0.03


def test_a_header_in_pieces_is_put_together(start: Any, listener: socket.socket) -> None:
    """Mostly: on a busy machine the rest may come after the wait for it."""
    _, client, server = between(start, listener)
    client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    wire = message(b"Note", framed(b""))
    whole = 0
    for _ in range(30):
        client.sendall(wire[:6])
        time.sleep(0.002)
        client.sendall(wire[6:])
        first = server.recv(100)
        whole += first == wire
        read_all(server, len(wire) - len(first))
    assert whole > 15


class Records:
    """A socket that keeps what each send was given."""

    def __init__(self) -> None:
        self.sent: List[bytes] = []

    def sendall(self, data: Any, flags: int = 0) -> None:
        self.sent.append(bytes(data))


def test_messages_share_a_segment_only_if_their_headers_end_in_it() -> None:
    """Of 536 bytes, the smallest that there is."""
    seed = random.randrange(1 << 32)
    rng = random.Random(seed)
    wire, starts = b"", set()
    for _ in range(3000):
        name = bytes(rng.randrange(1, 256)) if rng.random() < 0.1 else b"Tick"
        starts.add(len(wire))
        wire += message(name.replace(b"\0", b"n"), framed(bytes(rng.choice([0, 3, 100, 2000]))))
    target: Any = Records()
    decoder, held, position = Decoder(Rules(), 0), b"", 0
    while position < len(wire):
        data = memoryview(wire)[position : position + rng.choice([5, 300, 65536])]
        position += len(data)
        decoder.feed(data)
        held_next = min(decoder.header_bytes, len(held) + len(data))
        relay._send_messages(target, held, data, decoder, held_next)
        held = (held + bytes(data[-held_next:]))[-held_next:] if held_next else b""
    assert b"".join(target.sent) == wire, seed
    begin = 0
    for sent in target.sent:
        for place in starts & set(range(begin, begin + len(sent))):
            header = 4 + int.from_bytes(wire[place : place + 4], "little")
            assert place + header - begin <= 536, (seed, place, begin)
        begin += len(sent)
    assert len(target.sent) < len(starts), "some do share one"


def test_it_waits_when_descriptors_run_out(start: Any, listener: socket.socket) -> None:
    port = listener.getsockname()[1]
    spy = start("klvmsg", "spy", "-l", 0, "-c", f"127.0.0.1:{port}")
    entrance, pid = spy.port(), spy.process.pid

    def pauses() -> int:
        status = pathlib.Path(f"/proc/{pid}/task/{pid}/status").read_text()
        return int(status.split("\nvoluntary_ctxt_switches:")[1].split()[0])

    first, first_server = dial(entrance), answer(listener)
    enough = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (3, enough[1]))  # whatever it has stays open
    before = pauses()
    with contextlib.suppress(ConnectionResetError):
        dial(entrance).close()  # it is accepted all the same, or comes later
    wait_until(lambda: spy.process.poll() is not None or pauses() > before + 3)
    first.sendall(b"\7")
    assert read_all(first_server, 1) == b"\7"
    resource.prlimit(pid, resource.RLIMIT_NOFILE, enough)
    third = dial(entrance)
    third.sendall(b"\x08")
    while read_all(answer(listener), 1) != b"\x08":
        pass
    assert spy.process.poll() is None


def test_lines_that_are_left_out_are_counted(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(observers, "_WAITING_LINES", 10)
    stalled, on = threading.Event(), threading.Event()
    written: List[str] = []

    class Terminal:
        def write(self, text: str) -> None:
            stalled.set()
            assert on.wait(LIMIT)
            written.append(text)

        def flush(self) -> None:
            pass

        def fileno(self) -> int:
            return reading  # a pipe, as a file would get every line

    reading, writing = os.pipe()
    monkeypatch.setattr("sys.stdout", Terminal())
    printer = observers.Printer(describe)
    event = Event(0.0, 1, MESSAGE, TO_CLIENT, "", "Note", 4)
    printer.observe([event])
    assert stalled.wait(LIMIT)
    printer.observe([event] * 8)
    printer.observe([event] * 7)
    on.set()
    assert printer.close()
    os.close(reading)
    os.close(writing)
    shown = "".join(written).splitlines()
    assert len(shown) == 12 and shown[-1] == "-- 5 lines left out: the output was too slow"


def test_a_file_gets_every_line(start: Any, listener: socket.socket) -> None:
    """Even when more come at once than may wait."""
    count = 250_000
    wire = message(b"N", bytes(4)) * count
    spy, client, server = between(start, listener)
    sender = threading.Thread(target=client.sendall, args=(wire,))
    sender.start()
    assert len(read_all(server, len(wire))) == len(wire)
    sender.join()
    client.close()
    server.close()
    assert spy.end()[1].count("#1 > N 4\n") == count
