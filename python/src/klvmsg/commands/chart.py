"""`klvmsg chart`: draws a recording."""

from __future__ import annotations

import argparse

from ..events import read_recording
from ..exits import DONE, USAGE, Failure, missing
from ..files import open_for_writing, open_recording
from ..options import (
    Commands, add_command, add_decoding, add_selection, count, decoders, selection,
)  # fmt: skip
from ..text import complain


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "chart", run, "draw a recording",
        "Draws the messages of a recording between the processes over time as SVG, and makes a page\n"
        "(HTML, self-contained) with the same, a table by type and a plot of rates. Both are written\n"
        "beside FILE unless --svg or --html tell what is wanted. Needs matplotlib.",
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
        from .. import chart
    except ImportError as error:
        raise missing("chart", "matplotlib", error) from error
    neither = options.svg is None and options.html is None
    if neither and options.file == "-":
        raise Failure(USAGE, "a recording from standard input needs --svg or --html")
    with open_recording(options.file) as file:
        chosen = selection(options, decoders(options))
        story = chart.Story(read_recording(file), chosen, options.rows)
    base = options.file[: -len(".jsonl")] if options.file.endswith(".jsonl") else options.file
    for path, make in ((options.svg or (neither and base + ".svg"), chart.make_svg),
                       (options.html or (neither and base + ".html"), chart.make_page)):  # fmt: skip
        if path:
            with open_for_writing(path) as out:
                out.write(make(story, options.file).encode("utf-8", "backslashreplace"))
            complain(f"written: {path}")
    return DONE
