"""The drawing and the page, and the command as a whole."""

import pathlib
import re
import xml.etree.ElementTree as xml
from typing import Any, List

import pytest
from conftest import ROOT
from test_manual import COMMANDS
from test_recording import write_recording

from klvmsg import text
from klvmsg.decode import Decoders, Sources
from klvmsg.events import MESSAGE, TO_SERVER, Event
from klvmsg.filters import Choice, Filter
from klvmsg.rules import Rules


def texts(svg: str) -> List[str]:
    return ["".join(node.itertext()) for node in xml.fromstring(svg).iter("{http://www.w3.org/2000/svg}text")]


@pytest.fixture
def recording(tmp_path: pathlib.Path) -> pathlib.Path:
    events = [(0, 1, "to-server", "Ask", b""), (0.5, 1, "to-client", "<b>&$x^2$\x1b", b"12")]
    events += [(2 + n / 1000, 2, "to-server", "Many", bytes(996)) for n in range(1000)]
    path = write_recording(tmp_path / "run.jsonl", *events, (3.5, 1, "to-server", "Last", b""))
    opened = '{"time": 1e9, "connection": 2, "event": "opened", "text": "client:2 to server:1"}\n'
    lost = ('{"time": 1000000003, "connection": 2, "direction": "to-server", "event": "out of step", '
            '"text": "why <not>"}\n')  # fmt: skip
    path.write_text(opened + path.read_text() + lost)
    return path


def test_a_recording_is_drawn(start: Any, recording: pathlib.Path) -> None:
    pytest.importorskip("matplotlib")
    assert start("klvmsg", "chart", recording).end()[0] == 0
    drawn = texts(recording.with_suffix(".svg").read_text())
    for wanted in ("server:1", "#1  client", "#2  client:2", "Ask  4 B", r"<b>&$x^2$\x1b  6 B",
                 "Many \u00d71,000  1.0 MB", "1.5 s of silence", "out of step: why <not>", "0.500000 s"):  # fmt: skip
        assert wanted in drawn, drawn

    page = recording.with_suffix(".html").read_text()
    assert "<b>&$" not in page and "\x1b" not in page
    assert re.search(r"<td>Many</td><td>server</td><td>1,000</td><td>1,000,000</td><td>1,000</td>", page)
    assert "1,003 messages" in page and "out of step: why &lt;not&gt;" in page
    assert page.count("<svg") == 2 and "messages a second" in page
    assert not re.search(r"(src|href)=.(?!#)|url\((?!#)|@import", page)


def test_what_is_not_drawn_is_said(start: Any, recording: pathlib.Path, tmp_path: pathlib.Path) -> None:
    pytest.importorskip("matplotlib")
    out = tmp_path / "out.svg"
    assert start("klvmsg", "chart", recording, "--svg", out, "--rows", 2).end()[0] == 0
    drawn = texts(out.read_text())
    assert any(text.startswith("1,002 later events not drawn") for text in drawn), drawn
    assert start("klvmsg", "chart", recording, "--svg", out, "-t", "Many").end()[0] == 0
    drawn = texts(out.read_text())
    assert "Ask  4 B" not in drawn and any(text.startswith("Many") for text in drawn)
    assert not recording.with_suffix(".html").exists()

    (tmp_path / "empty").write_text("")
    assert start("klvmsg", "chart", tmp_path / "empty", "--svg", out).end()[0] == 0
    assert "No messages." in texts(out.read_text())


def test_a_row_behind_those_left_out_is_left_out() -> None:
    chart = pytest.importorskip("klvmsg.chart")
    events = [Event(seconds, 1, MESSAGE, TO_SERVER, "", type) for seconds, type in enumerate("ABAA")]
    everything = Filter(Choice([]), Decoders(Rules(), Sources([], [], [])))
    story = chart.Story(events, everything, 1, lambda event: "")
    assert [row.count for row in story.rows] == [1] and story.left_out == 3


def test_of_bytes_only_ascii_is_printable() -> None:
    assert text.printable(b"Gr\xc3\xbc\xe4\\n") == r"Gr\xc3\xbc\xe4\x5cn" and text.printable("Gr\u00fc") == "Gr\u00fc"


def test_sizes_and_times_are_short_and_right() -> None:
    shown = [text.size(count) for count in (999, 1004, 9949, 9951, 999_600, 34e6, 2e9, 5e12)]
    assert shown == ["999 B", "1.0 kB", "9.9 kB", "10 kB", "1.0 MB", "34 MB", "2.0 GB", "5000 GB"]


def test_every_command_has_help_and_there_is_one_version(start: Any) -> None:
    for command in COMMANDS:
        code, output, _ = start("klvmsg", command, "--help").end()
        assert code == 0 and output.startswith(f"usage: klvmsg {command}")
    version = re.search(r"project\(.* VERSION ([0-9.]+)", (ROOT / "CMakeLists.txt").read_text())
    assert version and start("klvmsg", "--version").end()[1] == f"klvmsg {version[1]}\n"
