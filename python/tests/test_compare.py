"""Recordings that are compared with each other, and with statements."""

import pathlib
from typing import Any

import pytest
from test_recording import write_recording

TO, BACK = "to-server", "to-client"


@pytest.fixture
def klvmsg(start: Any) -> Any:
    return lambda *arguments: start("klvmsg", *arguments).end()


def test_recordings_are_the_same_whatever_the_time(klvmsg: Any, tmp_path: pathlib.Path) -> None:
    a = write_recording(tmp_path / "a", (0, 1, TO, "A", b"1"), (1, 1, BACK, "B", b"2"), (2, 2, TO, "A", b"3"))
    b = write_recording(tmp_path / "b", (5, 2, TO, "A", b"3"), (6, 1, BACK, "B", b"2"), (7, 1, TO, "A", b"1"))
    assert klvmsg("diff", a, b) == (0, "the same: 3 messages\n", "")


def test_the_first_difference_is_shown_with_both_bodies(klvmsg: Any, tmp_path: pathlib.Path) -> None:
    a = write_recording(tmp_path / "a", (0, 1, TO, "A", b"one"), (1, 1, TO, "A", b"two"), (2, 1, TO, "C", b""),
                        (3, 1, BACK, "B", b""), (4, 2, TO, "A", b"x"))  # fmt: skip
    b = write_recording(tmp_path / "b", (0, 1, TO, "A", b"one"), (1, 1, TO, "A", b"tvo"), (3, 1, BACK, "B", b""),
                        (3, 1, BACK, "B", b"more"))  # fmt: skip
    code, output, _ = klvmsg("diff", a, b, "--text", "A")
    assert code == 1
    lines = output.splitlines()
    assert lines[0] == "different: message 2 of connection #1 to-server"
    assert lines[1].startswith("  A  ") and lines[1].endswith("A 7 two") and lines[2].endswith("A 7 tvo")
    assert lines[3] == "different: message 1 of connection #2 to-server" and lines[5] == "  B  none"
    assert lines[6] == "different: message 2 of connection #1 to-client" and lines[7] == "  A  none"
    assert lines[9:] == ["A: 3 in A, 2 in B", "B: 1 in A, 2 in B", "C: 1 in A, 0 in B"]
    code, output, _ = klvmsg("diff", a, b, "-n", 1, "-d", TO, "-t", "A")
    assert code == 1 and "from byte 5 on: 77 6f" in output and "to-client" not in output


RUN = [
    (0, 1, TO, "Job", b"3"), (0.5, 1, TO, "Job", b"4"), (1, 1, BACK, "Result", b"\x09"),
    (3, 1, BACK, "Result", b"\x11"), (3.5, 1, TO, "Job", b"5"), (4, 2, BACK, "Result", b""),
    (4, 1, BACK, "", None), *((5 + n / 10, 1, TO, "News", b"") for n in range(4)),
]  # fmt: skip


@pytest.mark.parametrize(
    "statement, outcome",
    [
        ("Result answers Job within 2.4 s", "broken 2 Job 5 4 is answered after 2.500 s"),
        ("Result answers Job within 2500 ms", "broken 1 Job 5 5 has no answer"),
        ("Job answers R*t within 1 s", "broken 3"),
        ("None answers Never within 1 s", "nothing"),
        ("no more than 3 News a second", "broken 1 is too soon"),
        ("no more than 4 News a second", "holds"),
        ("no more than 3 Job a second", "holds"),
        ("no more than 2 Job a minute", "broken 1"),
        ("exactly 3 Job", "holds"),
        ("exactly 4 Job", "broken 1 there are 3"),
        ("no more than 4 Job", "holds"),
        ("no more than 2 Job", "broken 1 is number 3"),
        ("at least 4 Job", "broken 1 there are 3"),
        ("at least 2 Job", "holds"),
        ("no New?", "broken 4 is there"),
        ("no new?", "holds"),
        ('every Job has body in ["3", "4", "5"]', "holds"),
        ("every Job has length < 5 or body < 3", "broken 3 cannot be asked that"),
        ('every Job has body == "3"', "broken 2 has not"),
        ("no unknown type", "broken 3 Result"),
        ("nothing out of step", "holds"),
        ("every connection ends in order", "broken 2 #1 has not ended"),
    ],
)
def test_a_statement_holds_or_is_broken(
    klvmsg: Any, tmp_path: pathlib.Path, statement: str, outcome: str
) -> None:
    file = write_recording(tmp_path / "run", *RUN)
    (tmp_path / "statements").write_text(f'# these\n\nknown News, "Job"\n{statement}\n')
    code, output, errors = klvmsg("check", file, tmp_path / "statements", "--text", "Job")
    verdict, _, words = outcome.partition(" ")
    assert output.count("\n") == 1 and errors == "", errors
    if verdict == "broken":
        times, _, why = words.partition(" ")
        assert code == 1 and output.startswith(f"broken  {statement}: {times} time"), output
        assert why in output, output
    else:
        assert code == 0 and output.startswith(f"holds   {statement}"), output
        assert ("nothing that it is about" in output) == (verdict == "nothing")


@pytest.mark.parametrize("statements, words", [
    ("Job answers", "line 1: not a statement"), ("every Job has a =", "line 1: not an expression"),
    ("# none", "there is no statement"), ("no unknown type", "which are known?"),
])  # fmt: skip
def test_what_is_no_statement_is_refused(
    klvmsg: Any, tmp_path: pathlib.Path, statements: str, words: str
) -> None:
    (tmp_path / "run").write_text("")
    (tmp_path / "statements").write_text(statements)
    code, _, errors = klvmsg("check", tmp_path / "run", tmp_path / "statements")
    assert code == 2 and words in errors and "Traceback" not in errors
    assert klvmsg("check", tmp_path / "none", tmp_path / "statements")[0] in (2, 3)
    assert klvmsg("diff", tmp_path / "run", tmp_path / "none")[0] == 3
