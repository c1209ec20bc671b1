"""`klvmsg chart`: draws a recording."""

from __future__ import annotations

import argparse

from ..events import Event, read_recording
from ..exits import DONE, USAGE, Failure, missing
from ..files import open_for_writing, open_recording
from ..options import (
    Commands, add_command, add_decoding, add_selection, count, decoders, selection,
)  # fmt: skip
from ..text import complain

_SHOWN = 1000  # characters of what a body says


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "chart", run, "draw a recording",
        "Draws the messages of a recording between the processes over time as SVG, and makes a page\n"
        "(HTML, self-contained) with the same, a table by type, a plot of rates, and a list of messages,\n"
        "of which a click shows the body. Both are written beside FILE unless --svg or --html tell what\n"
        "is wanted. Needs matplotlib.",
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="the recording; - is standard input")
    parser.add_argument("--svg", metavar="PATH", help="where the drawing goes")
    parser.add_argument("--html", metavar="PATH", help="where the page goes")
    parser.add_argument(
        "--rows", type=count, default=200, metavar="N",
        help="draw at most N rows; messages of one kind that follow each other share one (200)",
    )  # fmt: skip
    add_decoding(parser)
    add_selection(parser, "")


def run(options: argparse.Namespace) -> int:
    try:
        from .. import chart, page
    except ImportError as error:
        raise missing("chart", "matplotlib", error) from error
    neither = options.svg is None and options.html is None
    if neither and options.file == "-":
        raise Failure(USAGE, "a recording from standard input needs --svg or --html")
    decode = decoders(options)
    chosen = selection(options, decode)

    def said(event: Event) -> str:
        """What a body says, or its bytes."""
        text = decode.show(event) or event.body[: _SHOWN // 2].hex()
        return text if len(text) < _SHOWN else text[:_SHOWN] + "..."

    with open_recording(options.file) as file:
        story = chart.Story(read_recording(file), chosen, options.rows, said)
    base = options.file[: -len(".jsonl")] if options.file.endswith(".jsonl") else options.file
    for path, make in ((options.svg or (neither and base + ".svg"), chart.make_svg),
                       (options.html or (neither and base + ".html"), page.make_page)):  # fmt: skip
        if path:
            with open_for_writing(path) as out:
                out.write(make(story, options.file).encode("utf-8", "backslashreplace"))
            complain(f"written: {path}")
    return DONE
