"""Questions and answers: who asks, who answers, and what looks on."""

import asyncio
import json
import pathlib
import re
import socket
import struct
from concurrent.futures import ThreadPoolExecutor
from typing import Any, List

import pytest
from conftest import LIMIT, answer, dial, framed, message, read_all
from test_recording import write_recording

import klvmsg
from klvmsg import aio
from klvmsg.calls import ANSWER
from klvmsg.rules import Rule

RULES = "*=length(0,4,little) call"


def call(type: bytes, number: int, fields: bytes) -> bytes:
    return message(type, framed(struct.pack("=Q", number) + fields))


def test_an_answer_finds_its_question_past_what_else_comes(listener: socket.socket) -> None:
    peer = klvmsg.connect("127.0.0.1", listener.getsockname()[1], timeout=LIMIT)
    other = answer(listener)
    with ThreadPoolExecutor() as pool:
        asking = pool.submit(peer.ask, "Price", b"bolt", LIMIT)
        assert read_all(other, 25) == call(b"Price", 1, b"bolt")
        other.sendall(call(b"Price", 1, b"its own") + call(b"Offer", 9 | ANSWER, b"never asked"))
        other.sendall(call(b"Offer", 1 | ANSWER, b"42"))
        assert asking.result(LIMIT) == ("Offer", b"42")
    assert peer.receive(0).type == "Price" and peer.receive(0).type == "Offer"
    with pytest.raises(klvmsg.TimedOut):
        peer.ask("Price", timeout=0.01)
    other.sendall(call(b"Offer", 2 | ANSWER, b"too late") + call(b"Note", 0, b"later"))
    assert peer.receive(LIMIT).type == "Note" and peer.late_answers == 1
    other.close()
    with pytest.raises(klvmsg.PeerGone):
        peer.ask("Price")


def test_tasks_ask_and_receive_at_once(listener: socket.socket) -> None:
    async def story() -> None:
        peer = await aio.connect("127.0.0.1", listener.getsockname()[1], timeout=LIMIT)
        other = answer(listener)
        receiving = asyncio.create_task(peer.receive(LIMIT))
        asking = [asyncio.create_task(peer.ask("Price", b"", LIMIT)) for _ in range(3)]
        late = asyncio.create_task(peer.ask("Price", b"", 0.01))
        with pytest.raises(klvmsg.TimedOut):
            await late
        assert len(await asyncio.to_thread(read_all, other, 84)) == 84
        other.sendall(call(b"Offer", 4 | ANSWER, b"late") + call(b"Offer", 3 | ANSWER, b"3"))
        assert (await asking[2]).body == b"3" and peer.late_answers == 1
        asking[1].cancel()
        other.sendall(call(b"Offer", 1 | ANSWER, b"1") + call(b"Price", 7, b"nut"))
        question = await receiving
        assert question.body[8:] == b"nut" and (await asking[0]).body == b"1"
        await peer.answer(question, "Offer", b"5")
        assert await asyncio.to_thread(read_all, other, 22) == call(b"Offer", 7 | ANSWER, b"5")
        gone = asyncio.create_task(peer.ask("Price"))
        receiving = asyncio.create_task(peer.receive())
        await asyncio.to_thread(read_all, other, 21)
        other.close()
        for task in (gone, receiving):
            with pytest.raises(klvmsg.PeerGone):
                await task
        peer.close()

    asyncio.run(asyncio.wait_for(story(), LIMIT))


def test_a_question_is_answered_with_its_number(listener: socket.socket) -> None:
    peer = klvmsg.connect("127.0.0.1", listener.getsockname()[1], timeout=LIMIT)
    other = answer(listener)
    other.sendall(call(b"Note", 0, b"") + call(b"Price", 7, b"nut") + call(b"Offer", 7 | ANSWER, b""))
    peer.answer(peer.receive(LIMIT), "Offer", b"no answer is wanted")
    question = peer.receive(LIMIT)
    assert question.body[8:] == b"nut"
    peer.answer(question, "Offer", b"5")
    assert read_all(other, 22) == call(b"Offer", 7 | ANSWER, b"5")
    with pytest.raises(ValueError, match="no question: Offer"):
        peer.answer(peer.receive(LIMIT), "Offer")


def test_a_rule_says_that_a_type_is_a_call() -> None:
    assert Rule.parse("length(0,4,little) call protobuf(a.B)") == Rule(width=4, protobuf="a.B", call=True)
    for wrong in ("8 call", "length(2,4,little) call", "length(0,4,little,8) call", "call"):
        with pytest.raises(ValueError):
            Rule.parse(wrong)


def pairs(output: str) -> List[str]:
    """What stands in brackets, without the times."""
    return [re.sub(r"[\d.]+ ms", "T", found) for found in re.findall(r"\((.*?)\)", output)]


WANTED = ["question 1", "question 2", "question 1", "answer 2 to Price after T", "answer 1 to Price after T",
          "answer 1 to Price after T", "answer 3 to no question that was seen", "no answer wanted"]  # fmt: skip


def test_question_and_answer_are_shown_as_a_pair(start: Any, listener: socket.socket) -> None:
    port = listener.getsockname()[1]
    spy = start("klvmsg", "spy", "-l", 0, "-c", f"127.0.0.1:{port}", "-n", 1, "--rules", RULES, "--text",
                "*")  # fmt: skip
    client = dial(spy.port())
    server = answer(listener)

    def say(sender: socket.socket, data: bytes) -> None:
        sender.sendall(data)
        read_all(server if sender is client else client, len(data))

    say(client, call(b"Price", 1, b"bolt") + call(b"Price", 2, b"nut"))
    say(server, call(b"Price", 1, b"") + call(b"Offer", 2 | ANSWER, b"2"))
    say(server, call(b"Offer", 1 | ANSWER, b"1"))
    say(client, call(b"Offer", 1 | ANSWER, b"") + call(b"Offer", 3 | ANSWER, b"") + call(b"Note", 0, b""))
    client.close()
    server.close()
    code, output, _ = spy.end()
    assert code == 0 and pairs(output) == WANTED
    assert "Price 16 (question 1) bolt" in output, "what it says is told without the number"


def test_a_recording_names_them(start: Any, tmp_path: pathlib.Path) -> None:
    body = struct.pack("=Q", 1) + b"x"
    played = write_recording(tmp_path / "run", (0, 1, "to-server", "Price", body))
    cat = start("klvmsgcat", "-t", LIMIT, "-l", 0, "-r", "Price", "-n", 1)
    record = start("klvmsg", "record", "-", "-l", 0, "-c", f"127.0.0.1:{cat.port()}", "-n", 1, "--rules",
                   RULES)  # fmt: skip
    replay = start("klvmsg", "replay", played, "-c", f"127.0.0.1:{record.port()}")
    assert replay.end()[0] == 0
    lines = [json.loads(line) for line in record.end()[1].splitlines()]
    assert [line["call"] for line in lines if "type" in line] == ["question 1"]
