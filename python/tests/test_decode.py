"""Bodies that are decoded, and messages that are chosen by what they say."""

import json
import pathlib
import re
import shutil
import struct
import time
from typing import Any, List

import pytest
from conftest import LIMIT, ROOT, answer, dial, message
from test_recording import write_recording

from klvmsg.decode import Decoders, Sources
from klvmsg.events import MESSAGE, TO_SERVER, Event
from klvmsg.expressions import MISSING, Expression, part_of
from klvmsg.rules import Rules

DECODER = """
import collections
Pair = collections.namedtuple("Pair", "number name")
def decode(type, body):
    return Pair(body[0], body[1:].decode()) if type != "Other" else None
def number(body):
    return body[0]
"""


def value(text: str, **names: Any) -> Any:
    return Expression(text).value(lambda name: names.get(name, MISSING))


@pytest.mark.parametrize(
    "text, wanted",
    [
        ("n > 2 and 'b' in s", True),
        ("n + 1 == 4 or gone", True),
        ("not gone", True),
        ("gone != 1 or gone == 1 or gone + 1 > 0", False),
        ("1 < n < 3", False),
        ("items[0].count * 2 == 4 and items[-1]['count'] == 5", True),
        ("items[2].count == 0 or items[0].gone", False),
        ("n in [1, -3, 3] and len(items) == 2", True),
        ("matches(lower(s), 'a*c') and abs(-n) == 3", True),
        ("n / 0 == 0 or s * 2 == 'AbcAbc'", False),
        ("len(gone) == 0 or matches(gone, 'm*')", False),
    ],
)
def test_expressions_ask_about_fields(text: str, wanted: Any) -> None:
    names = {"n": 3, "s": "Abc", "items": [{"count": 2}, {"count": 5}]}
    assert bool(value(text, **names)) is wanted


@pytest.mark.parametrize(
    "text", ["n =", "__import__('os')", "n.__class__()", "lambda: 1", "[i for i in n]", "n ** 9", "(" * 500,
             "len(1, 2)", "f'{n}'", "n := 1", "1 if n else 2", "n & 1", "print(n)", "", "{}"],
)  # fmt: skip
def test_what_is_not_an_expression_is_refused_with_words(text: str) -> None:
    with pytest.raises(ValueError, match="expression|takes"):
        Expression(text)


def test_an_expression_reaches_nothing_but_fields() -> None:
    assert part_of("text", "__class__") is MISSING
    assert part_of([1], "append") is MISSING
    assert part_of({"a": 1}, "keys") is MISSING
    assert part_of(Expression("1"), "_value") is MISSING


def test_a_body_that_breaks_its_rule_is_decoded_whole() -> None:
    decoders = Decoders(Rules.parse("A=length(0,1,big)"), Sources([], [], ["A"]))
    event = Event(0, 1, MESSAGE, TO_SERVER, "", "A", 3, b"\2ab")
    assert decoders.decode(event) == "ab"
    assert decoders.decode(event._replace(body=b"\3ab")) == "\3ab"


@pytest.fixture
def spied(start: Any, tmp_path: pathlib.Path) -> Any:
    """Chooses and decodes messages of a recording by `record -`, from one that is played to it."""
    (tmp_path / "decoder.py").write_text(DECODER)
    file = write_recording(
        tmp_path / "run", (0, 1, "to-server", "Pair", b"\7seven"), (1, 1, "to-server", "Pair", b"\3three"),
        (2, 1, "to-server", "Other", b"\1x"), (3, 2, "to-server", "Pair", b"\7\xff"), (4, 2, "to-server", "Pair", b""),
    )  # fmt: skip

    def spied(command: str, *options: object) -> Any:
        cat = start("klvmsgcat", "-t", LIMIT, "-l", 0, "-r", "Pair", "-r", "Other")
        spy = start("klvmsg", *command.split(), "-l", 0, "-c", f"127.0.0.1:{cat.port()}", "-n", 1,
                    *options)  # fmt: skip
        player = start("klvmsg", "replay", file, "-c", f"127.0.0.1:{spy.port()}", "--fast", "-n", 1)
        assert player.end()[0] == 0
        code, output, errors = spy.end()
        assert code == 0 and cat.end()[0] == 0
        return output, errors

    spied.file = file  # type: ignore[attr-defined]
    spied.decoder = f"{tmp_path / 'decoder.py'}:decode"  # type: ignore[attr-defined]
    return spied


def test_bodies_are_decoded_and_chosen_on_their_way(spied: Any, tmp_path: pathlib.Path) -> None:
    output, _ = spied("spy", "--decode", spied.decoder)
    assert "Pair 10 number=7 name=seven\n" in output and "Other 6 0200000001" in output
    output, _ = spied("spy", "--decode", spied.decoder, "--where", "number < 5 or type == 'Other'")
    assert "three" in output and "Other" in output and "seven" not in output
    output, _ = spied("spy", "--type", "O*r", "--text", "Oth??")
    assert "Other 6 \\x01x" in output and "Pair" not in output
    output, _ = spied("spy", "--peer", "10.*", "--peer", "*:1")
    assert output == ""
    output, errors = spied("record -", "--decode", spied.decoder, "--peer", "127.0.0.1", "--where",
                           "name == 'three'")  # fmt: skip
    [kept] = [line for line in map(json.loads, output.splitlines()) if "type" in line]
    assert kept["decoded"] == {"number": 3, "name": "three"} and "recorded 1 message" in errors


def test_a_decoder_that_fails_shows_bytes_and_is_told_of_once(start: Any, spied: Any) -> None:
    rules = spied.file.with_name("rules")
    rules.write_text("# what is sent\n\nPair=length(0,4,little)\ndecode decoder.py:decode\n")
    player = start("klvmsg", "replay", spied.file, "-c", "127.0.0.1:1", "--rules", f"@{rules}",
                   "--where", "number == 9 or length < 0")  # fmt: skip
    code, _, errors = player.end()
    assert code == 0 and errors.count("cannot decode Pair") == 1, errors
    assert "UnicodeDecodeError in decoder.py, line 5" in errors and "invalid start byte" not in errors
    player = start("klvmsg", "replay", spied.file, "-c", "127.0.0.1:1", "--decode",
                   spied.decoder.replace(":decode", ":number"), "--where", "body < 'x'")  # fmt: skip
    assert "cannot be asked, it is left out: body < 'x'" in player.end()[2]


def test_times_of_the_day_choose(start: Any, spied: Any) -> None:
    def played(*options: object) -> str:
        errors = start("klvmsg", "replay", spied.file, "-c", "127.0.0.1:1", *options).end()[2]
        return str(errors)

    def clock(seconds: float) -> str:
        return time.strftime("%H:%M:%S", time.localtime(1e9 + seconds))

    assert "cannot connect" not in played("--from", clock(4) + ".5")
    assert "cannot connect" not in played("--to", clock(0))
    assert "cannot connect" in played("--from", clock(3), "--to", clock(5))


EXAMPLES = [
    ("pubsub", ["publish"], ["subscribe", "PORT", "weather"], 4, "News 17 weather: rain"),
    ("workers", ["dispatch"], ["work", "PORT", "all"], 3, "Result 12 number=7 square=49"),
    ("protobuf", ["shop"], ["buy", "PORT"], 1, "shop.Order 27 items=[{name=bolt count=100}, {name=washer count=200}]"),
    ("cereal", ["collect"], ["measure", "PORT"], 1, 'station="the roof" samples={humidity=[0.5, 0.25] '),
    ("exchange", ["hub"], ["client", __file__, "--port", "PORT"], 1, f"lines={len(open(__file__).readlines())}"),
]  # fmt: skip


@pytest.mark.parametrize("name, server, client, connections, wanted", EXAMPLES)
def test_each_example_has_its_rules_and_its_decoder(
    start: Any, name: str, server: List[str], client: List[str], connections: int, wanted: str
) -> None:
    if name == "protobuf" and not shutil.which("protoc"):
        pytest.skip("protoc is missing")
    serving = start(name, *server, stdout=-1)
    port = int(re.findall(r"(\d{4,5})", serving.process.stdout.readline().decode())[0])
    spy = start("klvmsg", "spy", "-l", 0, "-c", f"127.0.0.1:{port}", "-n", connections, "--rules",
                f"@{ROOT / 'examples' / name / name}.rules")  # fmt: skip
    entrance = spy.port()
    words = [str(entrance) if word == "PORT" else word for word in client]
    clients = [start(name, *words) for _ in range(connections)]
    assert [one.end()[0] for one in clients] == [0] * connections
    code, output, errors = spy.end()
    assert code == 0 and wanted in output and "out of step" not in output + errors, output + errors


def test_out_of_step_without_rules_names_the_file_that_has_them(
    start: Any, listener: Any
) -> None:
    def recorded(*options: str) -> str:
        recorder = start("klvmsg", "record", "-", "-l", 0, "-n", 1, "-c",
                         f"127.0.0.1:{listener.getsockname()[1]}", *options)  # fmt: skip
        with dial(recorder.port()) as client, answer(listener):
            client.sendall(message(b"Hello", struct.pack("=Q", 8) + b"client-1" + struct.pack("=Q", 2)))
        code, _, errors = recorder.end()
        assert code == 0 and "out of step" in errors
        return str(errors)

    assert "no rule" not in recorded("--rules", "Hello=9")
    errors = recorded()
    assert "no rule for Hello" in errors
    file = re.search(r"--rules @(\S+exchange\.rules)", errors)
    assert file and pathlib.Path(file[1]).exists()
