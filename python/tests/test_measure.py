"""Round trips, rates, and what is in a recording."""

import csv
import json
import pathlib
import re
import socket
import threading
import time
from typing import Any, List

import pytest
from conftest import LIMIT
from test_recording import write_recording

import klvmsg
from klvmsg.measure import histogram, percentile, rate_one_way
from klvmsg.testing import Script


def test_round_trips_are_counted_and_spread(start: Any, tmp_path: pathlib.Path) -> None:
    echo = start("klvmsg", "ping", "--answer", 0, "--rules", "Tick=8")
    at = f"127.0.0.1:{echo.port()}"
    code, output, _ = start("klvmsg", "ping", at, "-n", 20, "-i", 0.001, "-t", "Tick", "-r", "Tick=8").end()
    first, *spread = output.splitlines()
    found = re.fullmatch(r"20 round trips: minimum (.*), median (.*), 99 % (.*), maximum (.*)", first)
    assert code == 0 and found, output
    seconds = [float(text.split()[0]) * {"us": 1e-6, "ms": 1e-3, "s": 1}[text.split()[1]]
               for text in found.groups()]  # fmt: skip
    assert seconds == sorted(seconds) and 0 < seconds[0] < LIMIT
    counts = [int(line.split()[4]) for line in spread]
    assert sum(counts) == 20 and counts[0] > 0 and counts[-1] > 0
    (tmp_path / "body").write_bytes(b"ask")
    with Script(limit=LIMIT).expect("Ask", b"ask").answer("Told").serve() as program:
        ping = start("klvmsg", "ping", f"127.0.0.1:{program.port}", "-n", 1, "-t", "Ask", "-b",
                     tmp_path / "body")  # fmt: skip
        assert ping.end()[0] == 0


def test_percentiles_and_bounds_are_right() -> None:
    values = [n / 1000 for n in range(1, 201)]
    assert [percentile(values, share) for share in (0.5, 0.99, 1)] == [0.1, 0.198, 0.2]
    assert percentile([7.0], 0.5) == percentile([7.0], 0.99) == 7.0
    shown = [(round(bound, 6), count) for bound, count in histogram([2e-6, 2.1e-6, 0.00001, 0.04])]
    assert shown[:3] == [(2e-6, 1), (5e-6, 1), (1e-5, 1)] and shown[-1] == (0.05, 1)
    assert sum(count for _, count in shown) == 4


def test_what_does_not_answer_is_told(start: Any, listener: socket.socket, tmp_path: pathlib.Path) -> None:
    at = f"127.0.0.1:{listener.getsockname()[1]}"

    def outcome(*arguments: object) -> Any:
        code, _, errors = start("klvmsg", *arguments).end()
        assert "Traceback" not in errors and "Errno" not in errors, errors
        return code, errors

    code, errors = outcome("ping", at, "--timeout", 0.1)
    assert code == 6 and "no answer to Ping has come in time" in errors
    assert outcome("bench", at, "--seconds", 0.05, "--timeout", 0.1, "-w", "back")[0] == 6
    assert outcome("bench", at, "--seconds", 0.05, "--timeout", 0.1, "-w", "one-way")[0] == 6
    with Script(limit=LIMIT).expect("Ping").close().serve() as program:
        code, errors = outcome("ping", f"127.0.0.1:{program.port}")
        assert code == 4 and "the peer has closed" in errors
    assert outcome("ping", at, "-a", 0)[0] == outcome("ping")[0] == outcome("ping", "nowhere")[0] == 2
    assert outcome("ping", at, "-s", 7, "-r", "Ping=8")[0] == 2
    assert outcome("bench", at, "-s", "8,", "--json")[0] == outcome("bench", at, "--json", "--csv")[0] == 2
    code, errors = outcome("ping", at, "-b", tmp_path / "none")
    assert code == 3 and "cannot read" in errors
    listener.close()
    assert outcome("ping", at)[0] == outcome("bench", at)[0] == 1
    assert outcome("info", tmp_path / "none")[0] == 3


def test_rates_are_measured_one_way_and_back(start: Any) -> None:
    benches = [start("klvmsg", "bench", "--seconds", 0.1, "-s", "8,1000000", form)
               for form in ("--json", "--csv")]  # fmt: skip
    (code, as_json, _), (_, as_csv, _) = (bench.end() for bench in benches)
    rates = json.loads(as_json)
    assert code == 0
    assert [(rate["way"], rate["size"]) for rate in rates] == [
        ("one-way", 8), ("one-way", 1_000_000), ("back", 8), ("back", 1_000_000)]  # fmt: skip
    for rate in [*rates, *csv.DictReader(as_csv.splitlines())]:
        messages, seconds = int(rate["messages"]), float(rate["seconds"])
        assert messages > 0 and seconds >= 0.1
        assert float(rate["messages_per_second"]) == pytest.approx(messages / seconds, rel=0.01)
        assert float(rate["bytes_per_second"]) == pytest.approx(
            messages * int(rate["size"]) / seconds, rel=0.01
        )


def test_a_rate_one_way_is_up_to_the_last_message_read() -> None:
    with klvmsg.serve(0) as server:
        read: List[klvmsg.Message] = []

        def read_late() -> None:
            with server.accept(LIMIT) as peer:
                time.sleep(0.3)
                read.extend(peer)

        reader = threading.Thread(target=read_late)
        reader.start()
        rate = rate_one_way(lambda: klvmsg.connect("127.0.0.1", server.port), "Note", 8, 0.01, LIMIT)
        reader.join(LIMIT)
    assert rate.messages == len(read) and rate.seconds >= 0.3


def test_a_recording_is_summed_up(start: Any, tmp_path: pathlib.Path) -> None:
    run = write_recording(tmp_path / "run", (0, 1, "to-server", "Ask", b"1234"),
                          (0.5, 1, "to-client", "Told", b""), (3, 1, "to-server", "Ask", b"12345678"),
                          (4, 2, "to-server", "A\x1b", b""))  # fmt: skip
    lost = {"time": 1e9 + 5, "connection": 2, "direction": "to-server", "event": "out of step", "text": "why"}
    opened = {"time": 1e9, "connection": 1, "event": "opened", "text": "a:1 to b:2"}
    run.write_text(json.dumps(opened) + "\n" + run.read_text() + json.dumps(lost) + "\n")
    code, output, _ = start("klvmsg", "info", run).end()
    assert code == 0
    for wanted in ("5.000 s", "4 messages with 28 B in bodies, 0.8 a second",
                   "connection #1: a:1 to b:2, 3 messages", "connection #2: peers unknown, 1 message",
                   "gap of 2.500000 s, from 0.500000 s on", "out of step: why"):  # fmt: skip
        assert wanted in output, output
    assert output.count("gap of") == 3
    rows = {tuple(line.split()[:5]) for line in output.splitlines()}
    assert ("Ask", "server", "2", "20", "0.3") in rows and ("A\\x1b", "server", "1", "4", "-") in rows
    output = start("klvmsg", "info", run, "-t", "Told").end()[1]
    assert "1 message with" in output and "Ask" not in output
    (tmp_path / "empty").write_text("")
    assert start("klvmsg", "info", tmp_path / "empty").end()[:2] == (0, "empty\n")
