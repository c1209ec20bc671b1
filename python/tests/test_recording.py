"""What is recorded, and what comes out when it is played."""

import fcntl
import json
import pathlib
import re
import resource
import signal
import socket
import termios
import time
from typing import Any, List

import pytest
from conftest import LIMIT, answer, dial, framed, message, read_all, reset, segments

from klvmsg.decode import Decoders, Sources
from klvmsg.events import MESSAGE, TO_SERVER, BadRecording, Event, from_json, read_recording, to_json
from klvmsg.filters import Choice, Filter
from klvmsg.recorder import Recorder, Rotation
from klvmsg.rules import Rules

EXCHANGE = ("Hello=length(0,8,little,8); Chunk=length(8,8,little); Receipt=8; Report=32;"
            "Farewell=length(0,8,little)")  # fmt: skip


def messages(recording: pathlib.Path) -> List[Any]:
    """Direction, type and body of each message."""
    found = map(json.loads, recording.read_text().splitlines())
    return [(m["direction"], m["type"], bytes.fromhex(m["body"])) for m in found if "type" in m]


def write_recording(path: pathlib.Path, *events: Any) -> pathlib.Path:
    """A recording of framed messages: (seconds, connection, direction, type, content); the direction
    ends where the content is None."""
    lines = []
    for seconds, connection, direction, type, content in events:
        event = {"time": 1e9 + seconds, "connection": connection, "direction": direction}
        if content is None:
            event["event"] = "ended"
        else:
            body = framed(content)
            event.update(type=type, length=len(body), body=body.hex())
        lines.append(json.dumps(event) + "\n")
    path.write_text("".join(lines))
    return path


def test_a_recording_that_is_played_gives_the_same_inbox(start: Any, tmp_path: pathlib.Path) -> None:
    for name, content in (("one", b"\0\1\xff"), ("two", bytes(range(256)) * 5000), ("none", b"")):
        (tmp_path / name).write_bytes(content)
    inbox = ["klvmsgcat", "-t", LIMIT, "-l", 0, "-x", "-f", "Tick=3"]
    inbox += [word for type in ("One", "Two", "Tick", "\u00e4\n") for word in ("-r", type)]
    first = start(*inbox)
    file = tmp_path / "run.jsonl"
    recorder = start("klvmsg", "record", file, "-l", 0, "-c", f"127.0.0.1:{first.port()}", "-n", 1,
                     "-r", "Tick=3")  # fmt: skip
    sending = [f"Tick={tmp_path / 'one'}", f"One={tmp_path / 'two'}", f"Two={tmp_path / 'none'}",
               f"\u00e4\n={tmp_path / 'one'}"] * 5  # fmt: skip
    assert start("klvmsgcat", "-t", LIMIT, "-c", f"127.0.0.1:{recorder.port()}", "-f", "Tick=3",
                 *[word for one in sending for word in ("-s", one)]).end()[0] == 0  # fmt: skip
    code, wanted, _ = first.end()
    assert code == 0 and wanted.count("\n") == 20
    assert recorder.end()[2] == "klvmsg: recorded 20 messages\n"
    second = start(*inbox)
    played = start("klvmsg", "replay", file, "-c", f"127.0.0.1:{second.port()}", "--fast")
    assert played.end() == (0, "", "klvmsg: sent 20 messages\n")
    assert second.end()[:2] == (0, wanted)


def test_the_exchange_is_recorded_and_played_to_another_hub(
    start: Any, tmp_path: pathlib.Path
) -> None:
    (tmp_path / "a").write_bytes(b"some words\nin lines\n" * 300)
    (tmp_path / "b").write_bytes(b"x")

    def through(file: pathlib.Path) -> Any:
        hub = start("exchange", "hub", stdout=-1)
        port = int(re.findall(rb"port (\d+)", hub.process.stdout.readline())[0])
        return hub, start("klvmsg", "record", file, "-l", 0, "-c", f"127.0.0.1:{port}", "-n", 1,
                          "--rules", EXCHANGE)  # fmt: skip

    hub, recorder = through(tmp_path / "first")
    client = start("exchange", "client", "--port", recorder.port(), "--chunk", 4,
                   tmp_path / "a", tmp_path / "b")  # fmt: skip
    assert client.end()[0] == 0 and hub.process.wait(LIMIT) == 0 and recorder.end()[0] == 0
    wanted = messages(tmp_path / "first")
    assert [m[1] for m in wanted] == ["Hello", "Chunk", "Receipt", "Chunk", "Report", "Chunk",
                                      "Report", "Farewell"]  # fmt: skip

    hub, recorder = through(tmp_path / "second")
    player = start("klvmsg", "replay", tmp_path / "first", "-c", f"127.0.0.1:{recorder.port()}",
                   "--fast", "--answers", "--rules", EXCHANGE)  # fmt: skip
    assert player.end()[0] == 0 and hub.process.wait(LIMIT) == 0 and recorder.end()[0] == 0
    again = messages(tmp_path / "second")
    for direction in ("to-server", "to-client"):
        assert [m for m in again if m[0] == direction] == [m for m in wanted if m[0] == direction]


def test_a_choice_is_played_in_the_recorded_time(
    start: Any, listener: socket.socket, tmp_path: pathlib.Path
) -> None:
    file = write_recording(tmp_path / "run", (-1e6, 1, "to-server", "A", b"no"),
                           (5, 1, "to-server", "A", b"1"), (5.2, 1, "to-client", "A", b"no"),
                           (7, 2, "to-server", "A", b"2"), (7.1, 3, "to-server", "A", b"no"),
                           (7.2, 1, "to-client", "", None), (8, 1, "to-server", "B", b"3"),
                           (9, 1, "to-server", "A", b"no"))  # fmt: skip
    player = start("klvmsg", "replay", file, "-c", f"127.0.0.1:{listener.getsockname()[1]}", "--speed",
                   2, "-t", "A", "-t", "B", "-n", 1, "-n", 2, "--after", 1e6, "--before", 1e6 + 8.5)  # fmt: skip
    first = answer(listener)
    assert read_all(first, 10) == message(b"A", framed(b"1"))
    began = time.monotonic()
    second = answer(listener)
    assert time.monotonic() - began > 0.5
    assert read_all(second) == message(b"A", framed(b"2"))
    assert time.monotonic() - began > 1
    assert read_all(first) == message(b"B", framed(b"3"))
    first.close()
    second.close()
    assert player.end() == (0, "", "klvmsg: sent 3 messages\n")


def test_step_by_step_each_message_waits_for_enter(
    start: Any, listener: socket.socket, tmp_path: pathlib.Path
) -> None:
    contents = (b"", b"", b"two")
    file = write_recording(tmp_path / "run", *[(n, 1, "to-server", f"T{n}", contents[n]) for n in range(3)])
    player = start("klvmsg", "replay", file, "-c", f"127.0.0.1:{listener.getsockname()[1]}", "--step",
                   "--text", "T2", stdin=-1)  # fmt: skip
    player.process.stdin.write(b"\n")
    player.process.stdin.flush()
    sock = answer(listener)
    assert read_all(sock, 10) == message(b"T0", framed(b""))
    sock.settimeout(0.3)
    with pytest.raises(socket.timeout):
        sock.recv(1)
    sock.settimeout(LIMIT)
    player.process.stdin.write(b"\nq\n")
    player.process.stdin.flush()
    assert read_all(sock) == message(b"T1", framed(b""))
    sock.close()
    code, _, errors = player.end()
    assert code == 0 and "#1 > T2 7 two   [Enter" in errors and "sent 2 messages" in errors


def test_failures_have_codes_and_words(
    start: Any, listener: socket.socket, tmp_path: pathlib.Path
) -> None:
    good = write_recording(tmp_path / "good", (0, 1, "to-server", "A", bytes(5_000_000)))
    bad = write_recording(tmp_path / "bad", (0, 1, "to-client", "A", b""))
    at = f"127.0.0.1:{listener.getsockname()[1]}"

    def outcome(*arguments: object) -> Any:
        code, _, errors = start("klvmsg", *arguments).end()
        return code, errors

    player = start("klvmsg", "replay", good, "-c", at)
    with answer(listener) as sock:
        read_all(sock, 100)  # and closes with the rest unread
    code, _, errors = player.end()
    assert code == 4 and ("not everything may have been read" in errors or "has gone" in errors)
    small = write_recording(tmp_path / "small", (0, 1, "to-server", "A", b""))
    player = start("klvmsg", "replay", small, "-c", at)
    sock = answer(listener)
    read_all(sock)
    reset(sock)
    code, _, errors = player.end()
    assert code == 4 and "not everything may have been read" in errors
    bad.write_text(bad.read_text() + '{"time": 1}\n')
    code, errors = outcome("replay", bad, "-c", at)
    assert code == 3 and "line 2: there is no connection" in errors
    assert outcome("replay", good, "-c", at, "--timeout", 0.2)[0] == 6  # nobody reads it
    answer(listener).close()
    slow = write_recording(tmp_path / "slow", *[(n, 1, "to-server", "A", b"") for n in (0, 0.5)])
    player = start("klvmsg", "replay", slow, "-c", at, "--timeout", 0.2)
    with answer(listener) as sock:  # who reads it, and says and does nothing
        assert read_all(sock) != b""
        assert player.end()[0] == 6
    listener.close()
    assert outcome("replay", good, "-c", at)[0] == 1
    assert outcome("replay", tmp_path / "none", "-c", at)[0] == 3
    assert outcome("record", tmp_path / "none" / "x", "-l", 0, "-c", at)[0] == 3
    assert outcome("spy", "-l", "80a", "-c", at)[0] == 2
    assert outcome("spy", "-l", 0, "-c", at, "-r", "Tick=x")[0] == 2
    with socket.create_server(("127.0.0.1", 0)) as other:
        assert outcome("spy", "-l", other.getsockname()[1], "-c", at)[0] == 1
    assert outcome("spy", "--top", "-l", 0, "-c", at)[0] == 2
    assert outcome("chart", "-")[0] == 2  # there is no name to write beside


def test_recording_ends_with_a_word_when_the_disk_is_full(
    start: Any, listener: socket.socket
) -> None:
    recorder = start("klvmsg", "record", "/dev/full", "-l", 0, "-n", 1, "-c",
                     f"127.0.0.1:{listener.getsockname()[1]}")  # fmt: skip
    client = dial(recorder.port())
    server = answer(listener)
    wire = message(b"Note", framed(bytes(1000))) * 500
    client.sendall(wire)
    assert read_all(server, len(wire)) == wire
    client.close()
    server.close()
    code, _, errors = recorder.end()
    assert code == 3 and "No space left" in errors


def test_what_is_recorded_is_in_the_file_when_the_recorder_is_killed(
    start: Any, listener: socket.socket, tmp_path: pathlib.Path
) -> None:
    recorder = start("klvmsg", "record", tmp_path / "run", "-l", 0, "-c",
                     f"127.0.0.1:{listener.getsockname()[1]}")  # fmt: skip
    with dial(recorder.port()) as client, answer(listener) as server:
        client.sendall(message(b"Note", framed(b"abc")))
        read_all(server, 15)
        recorder.process.kill()
        recorder.process.wait()
    assert messages(tmp_path / "run") == [("to-server", "Note", framed(b"abc"))]


def test_a_recording_that_lies_is_none() -> None:
    event = Event(1.5, 2, MESSAGE, TO_SERVER, "", "Note", 3, b"abc")
    line = json.loads(to_json(event))
    assert from_json(json.dumps(line)) == event
    for name, value in (("length", 4), ("length", None), ("direction", "to-nobody"), ("direction", ""),
                        ("body", "6162"), ("body", "xy"), ("type", ""), ("type", "a\0b"), ("type", 7),
                        ("time", "then"), ("connection", None)):  # fmt: skip
        with pytest.raises(BadRecording):
            from_json(json.dumps({**line, name: value}))
    with pytest.raises(BadRecording):
        from_json("[]")


def test_a_choice_begins_with_after_and_ends_before_before() -> None:
    choice = Choice([], after=lambda start: start, before=lambda start: start + 2)
    chosen = Filter(choice, Decoders(Rules(), Sources([], [], [])))
    events = [Event(10 + seconds, 1, MESSAGE, TO_SERVER) for seconds in (0, 1.5, 2)]
    assert [chosen.takes(event, 10) for event in events] == [True, True, False]


def test_no_header_that_is_played_is_cut_by_the_end_of_a_segment(
    start: Any, listener: socket.socket, tmp_path: pathlib.Path
) -> None:
    """Not even when the receiver is slow and messages wait: each segment begins with one."""
    count = 10_000
    file = write_recording(tmp_path / "run", *[(0, 1, "to-server", "Note", b"1234567")] * count)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    player = start("klvmsg", "replay", file, "-c", f"127.0.0.1:{listener.getsockname()[1]}", "--fast")
    slow = answer(listener)
    waiting, before = b"", b"?"
    while waiting != before:  # until nothing more comes
        time.sleep(0.3)
        waiting, before = fcntl.ioctl(slow, termios.FIONREAD, bytes(4)), waiting
    before_that = segments(slow)
    rest = len(read_all(slow)) - int.from_bytes(waiting, "little")
    average = rest / (segments(slow) - before_that)
    slow.close()
    assert player.end()[0] == 0
    assert average < 536


def test_what_is_written_whole_is_counted_and_read(
    tmp_path: pathlib.Path, capsys: pytest.CaptureFixture[str]
) -> None:
    """Even when the disk takes a part of a batch alone."""
    event = Event(1e9, 1, MESSAGE, TO_SERVER, "", "Note", 4, framed(b""))
    soft, hard = resource.getrlimit(resource.RLIMIT_FSIZE)
    recorder = Recorder(str(tmp_path / "run"), to_json)
    recorder.observe([event._replace(kind="opened")])
    resource.setrlimit(resource.RLIMIT_FSIZE, (10_000, hard))
    try:
        recorder.observe([event] * 500)
        recorder.observe([event])
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, (soft, hard))
    recorder.close()
    text = (tmp_path / "run").read_text()
    assert recorder.failed and 10 < recorder.messages == text.count("\n") - 1 < 500
    assert not text.endswith("\n")
    with open(tmp_path / "run") as file:
        assert sum(event.kind == MESSAGE for event in read_recording(file)) == recorder.messages
    assert f"{recorder.messages} messages; the last line is cut off" in capsys.readouterr().err


def test_files_follow_each_other_and_each_is_a_recording(tmp_path: pathlib.Path) -> None:
    opened = Event(1e9, 1, "opened", text="a:1 to b:2")
    note = Event(1e9, 1, MESSAGE, TO_SERVER, "", "Note", 104, framed(bytes(100)))
    (tmp_path / "run.0007.jsonl").touch()
    recorder = Recorder(str(tmp_path / "run.jsonl"), to_json, Rotation(bytes=2000, keep=3))
    recorder.observe([opened, opened._replace(connection=2)])
    recorder.observe([Event(1e9, 2, "ended", d, "gone") for d in ("to-server", "to-client")])
    for _ in range(40):
        recorder.observe([note])
    recorder.close()
    files = sorted(tmp_path.iterdir())
    assert len(files) == 3 and files[-1].name > "run.0012.jsonl"
    assert f"recorded 40 messages in {tmp_path / 'run.0008.jsonl'} to {files[-1]}" == recorder.summary()
    for path in files:
        with open(path) as file:
            events = list(read_recording(file))
        assert [(e.kind, e.connection) for e in events[:2]] == [("opened", 1), (MESSAGE, 1)]
        assert path.stat().st_size <= 2000
    small = Recorder(str(tmp_path / "s"), to_json, Rotation(bytes=10))
    small.observe([note])
    small.close()
    assert [path.name for path in tmp_path.glob("s.*")] == ["s.0001"], "and no empty one before it"
    timed = Recorder(str(tmp_path / "t"), to_json, Rotation(seconds=1e-9))
    timed.observe([note])
    timed.observe([note])
    timed.close()
    assert len(list(tmp_path.glob("t.*"))) == 3


def test_what_is_gathered_is_written_in_time_and_at_the_end(tmp_path: pathlib.Path) -> None:
    note = Event(1e9, 1, MESSAGE, TO_SERVER, "", "Note", 4, framed(b""))
    rarely, soon = (Recorder(str(tmp_path / name), to_json, None, seconds)
                    for name, seconds in (("rarely", 1e6), ("soon", 0.01)))  # fmt: skip
    for recorder in (rarely, soon):
        recorder.observe([note])
    deadline = time.monotonic() + LIMIT
    while not (tmp_path / "soon").read_text() and time.monotonic() < deadline:
        time.sleep(0.01)
    assert (tmp_path / "soon").read_text().count("\n") == 1
    assert (tmp_path / "rarely").read_text() == ""
    rarely.observe([note] * 20_000)  # more than is gathered
    assert (tmp_path / "rarely").read_text().count("\n") == 20_001
    rarely.observe([note])
    rarely.close()
    assert (tmp_path / "rarely").read_text().count("\n") == rarely.messages == 20_002
    soon.close()


def test_a_player_waits_for_answers(
    start: Any, listener: socket.socket, tmp_path: pathlib.Path
) -> None:
    file = write_recording(tmp_path / "run", (0, 1, "to-server", "A", b""), (1, 1, "to-client", "B", b"1"),
                           (1, 1, "to-client", "B", b"2"), (2, 1, "to-server", "C", b""))  # fmt: skip
    command = ["replay", file, "-c", f"127.0.0.1:{listener.getsockname()[1]}", "--fast", "--answers",
               "--rules", "B=1"]  # fmt: skip
    player = start("klvmsg", *command)
    with answer(listener) as sock:
        assert read_all(sock, 9) == message(b"A", framed(b""))
        sock.sendall(message(b"B", b"1") + message(b"B", b"2")[:-1])
        sock.settimeout(0.2)
        with pytest.raises(socket.timeout):
            sock.recv(1)
        sock.settimeout(LIMIT)
        sock.sendall(b"2")
        assert read_all(sock) == message(b"C", framed(b""))
    assert player.end()[0] == 0
    for reply, code, words in ((b"", 4, "has gone before answer 1 of 2"), (b"\0" * 4, 5, "out of step"),
                               (None, 6, "answer 1 of 2 does not come")):  # fmt: skip
        player = start("klvmsg", *command, "--timeout", 0.2 if reply is None else LIMIT)
        with answer(listener) as sock:
            read_all(sock, 9)
            if reply is not None:
                sock.sendall(reply)
                sock.shutdown(socket.SHUT_WR)
            ended = player.end()
        assert ended[0] == code and words in ended[2]


def test_a_loop_goes_on_until_it_is_interrupted(
    start: Any, listener: socket.socket, tmp_path: pathlib.Path
) -> None:
    file = write_recording(tmp_path / "run", (0, 1, "to-server", "A", b""))
    file.write_text(file.read_text() + '{"time": 1, "connection": 1, "direc')  # and it was cut
    player = start("klvmsg", "replay", file, "-c", f"127.0.0.1:{listener.getsockname()[1]}", "--loop")
    for _ in range(3):
        with answer(listener) as sock:
            assert read_all(sock) == message(b"A", framed(b""))
    with answer(listener) as sock:
        read_all(sock)
        player.process.send_signal(signal.SIGTERM)
        code, _, errors = player.end()
    assert code == 0 and "sent 4 messages" in errors and "1 message; the last line is cut off" in errors


def test_a_played_connection_ends_where_the_recorded_one_did(
    start: Any, listener: socket.socket, tmp_path: pathlib.Path
) -> None:
    file = write_recording(tmp_path / "run", (0, 1, "to-server", "A", b""), (0, 1, "to-server", "", None),
                           (LIMIT, 2, "to-server", "B", b""))  # fmt: skip
    start("klvmsg", "replay", file, "-c", f"127.0.0.1:{listener.getsockname()[1]}")
    with answer(listener) as first:
        assert read_all(first) == message(b"A", framed(b""))
    listener.setblocking(False)
    with pytest.raises(BlockingIOError):
        listener.accept()
