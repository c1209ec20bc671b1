"""Each command, started wrong: a sentence and a code, and nothing of Python's."""

import pathlib
import re
import shutil
import socket
from typing import List

import pytest
from test_recording import write_recording

from klvmsg.cli import main

DECODING = """--rules @none|--rules @.|--rules Tick=x|--proto none.proto|--proto run.jsonl|--decode json
--decode json:none|--decode no.such.module:x|--decode none.py:x|--decode broken.py:x|--rules @bad.rules"""
FILTER = "--where a=|--where f(x)|--direction up|--where __import__('os')|--type"
SELECTION = FILTER + "|--connection 0|--connection x|--from noon|--to 99:99"
RELAY = """|-l 0|-c 127.0.0.1:1|-l 0 -c nowhere|-l x -c 127.0.0.1:1|-l 70000 -c 127.0.0.1:1
-l 0 -c 127.0.0.1:x|-l 10.255.255.1:0 -c 127.0.0.1:1|-l 0 -c 127.0.0.1:1 -n 0|-l BUSY -c 127.0.0.1:1
-l 0 -c 127.0.0.1:1 --max-body -5|-l 0 -c 127.0.0.1:1 --unknown"""
RECORDING = "|none.jsonl|.|bad.jsonl|text.txt|run.jsonl run.jsonl run.jsonl|zeros"
WRONG = {  # what is right up to then, and what is wrong
    "spy": [("", RELAY), ("-l 0 -c 127.0.0.1:1", DECODING), ("-l 0 -c 127.0.0.1:1", FILTER),
            ("-l 0 -c 127.0.0.1:1", "--bodies x|--column a|--top|--top --column (")],
    "record": [("out.jsonl", RELAY), ("out.jsonl -l 0 -c 127.0.0.1:1", DECODING),
               ("out.jsonl -l 0 -c 127.0.0.1:1", FILTER + "|--rotate 5|--rotate x|--rotate 0MB|--keep 3|--flush 0"),
               ("-l 0 -c 127.0.0.1:1", "|none/out.jsonl|.|- --rotate 5MB")],
    "replay": [("-c 127.0.0.1:1", RECORDING + "|run.jsonl|- --step|- --loop|run.jsonl --speed 0"),
               ("run.jsonl", "|-c x|-c 127.0.0.1:99999|-c 127.0.0.1:1 --fast --step|-c no.such.host.invalid:1"),
               ("run.jsonl -c 127.0.0.1:1", DECODING), ("run.jsonl -c 127.0.0.1:1", SELECTION)],
    "chart": [("--svg out.svg", RECORDING), ("run.jsonl", "--svg none/x|--html none/x|--rows 0|--svg"), ("", "-"),
              ("run.jsonl --svg out.svg", DECODING), ("run.jsonl --svg out.svg", SELECTION)],
    "export": [("--json", RECORDING), ("run.jsonl", "|--csv --json|--csv -o none/x|--csv -o .|--csv --column ("),
               ("run.jsonl --json", DECODING), ("run.jsonl --json", SELECTION)],
    "diff": [("run.jsonl", RECORDING), ("", "|none run.jsonl|- -"), ("run.jsonl run.jsonl", DECODING),
             ("run.jsonl run.jsonl", SELECTION)],
    "check": [("run.jsonl", "|none.txt|.|text.txt|empty|bad.rules"), ("", "none run.txt|bad.jsonl good.txt"),
              ("run.jsonl good.txt", DECODING), ("run.jsonl good.txt", SELECTION)],
}  # fmt: skip


def wrong_starts(command: str) -> List[str]:
    starts = []
    for right, wrong in WRONG[command]:
        starts += [f"{right} {words}".strip() for words in re.split(r"\||\n", wrong)]
    return starts


@pytest.fixture
def folder(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> pathlib.Path:
    write_recording(tmp_path / "run.jsonl", (0, 1, "to-server", "A", b"x"))
    for name, text in (("bad.jsonl", '{"time": "x"}\n'), ("text.txt", "some words\nin lines\n"), ("empty", ""),
                       ("zeros", "\0" * 100 + "\n"), ("bad.rules", "A=8\nB=what\n"), ("good.txt", "no B\n"),
                       ("broken.py", "def x(:\n")):  # fmt: skip
        (tmp_path / name).write_text(text)
    monkeypatch.chdir(tmp_path)
    return tmp_path


@pytest.mark.parametrize("command", WRONG)
def test_a_wrong_start_gives_a_sentence_and_a_code(
    command: str, folder: pathlib.Path, capfd: pytest.CaptureFixture[str]
) -> None:
    starts = wrong_starts(command)
    assert len(starts) >= 10
    with socket.create_server(("127.0.0.1", 0)) as busy:
        for start in starts:
            if "out.svg" in start or command == "chart":
                pytest.importorskip("matplotlib")
            if "--proto" in start and not shutil.which("protoc"):
                continue
            words = start.replace("BUSY", str(busy.getsockname()[1])).split()
            try:
                code = main([command, *words])
            except SystemExit as end:
                code = int(end.code or 0)
            errors = capfd.readouterr().err
            said = f"klvmsg {command} {start}: {code}\n{errors}"
            assert 1 <= code <= 6, said
            assert re.search(r"^klvmsg( \w+)?: .*\w{2,}", errors, re.MULTILINE), said
            assert not re.search(r"Traceback|Errno|[a-z]Error\b|Exception|<class", errors), said
