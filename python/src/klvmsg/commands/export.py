"""`klvmsg export`: hands a recording on to other tools."""

from __future__ import annotations

import argparse
import sys
from typing import TYPE_CHECKING, BinaryIO

from ..events import MESSAGE, read_recording
from ..exits import DONE, USAGE, Failure, missing
from ..export import Csv, Json
from ..files import open_for_writing, open_recording
from ..mcap import Mcap
from ..options import (
    Commands, add_command, add_decoding, add_selection, decoders, expression, selection,
)  # fmt: skip
from ..text import complain, plural

if TYPE_CHECKING:
    from ..pcap import CaptureWriter

_FORMS = {
    "csv": (Csv, "a table: time, connection, direction, type, length, body, what it says"),
    "json": (Json, "an array with an object for each message"),
    "mcap": (Mcap, "MCAP, for viewers of robotics and engineering"),
}


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "export", run, "hand a recording on to other tools",
        "Writes the messages of a recording in the form that other tools read.",
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="the recording; - is standard input")
    forms = parser.add_mutually_exclusive_group(required=True)
    for name, (form, text) in _FORMS.items():
        forms.add_argument(f"--{name}", action="store_const", dest="form", const=form, help=text)
    forms.add_argument(
        "--pcap", action="store_const", dest="form", const=None,
        help="a capture, for the dissector (needs dpkt)",
    )  # fmt: skip
    parser.add_argument(
        "-o", "--output", default="-", metavar="PATH", help="where it goes, if not to standard output",
    )  # fmt: skip
    parser.add_argument(
        "--column", action="append", default=[], dest="columns", type=expression, metavar="EXPRESSION",
        help="one more column, or member of each object, with the value of this; repeated",
    )  # fmt: skip
    add_decoding(parser)
    add_selection(parser, "")


def run(options: argparse.Namespace) -> int:
    is_text = options.form is not None and options.form.is_text
    if options.output == "-" and not is_text and sys.stdout.isatty():
        raise Failure(USAGE, "this form is no text for a terminal: --output tells where it goes")
    decode = decoders(options)
    messages = 0
    with open_recording(options.file) as file, open_for_writing(options.output) as out:
        form = options.form(out, decode, options.columns) if options.form else _capture(out)
        for event in selection(options, decode).select(read_recording(file)):
            if event.kind == MESSAGE or options.form is None:  # which shows connections too
                form.write(event)
            messages += event.kind == MESSAGE
        form.close()
        out.flush()
    complain(f"exported {plural(messages, 'message')}")
    return DONE


def _capture(out: BinaryIO) -> CaptureWriter:
    try:
        from ..pcap import CaptureWriter
    except ImportError as error:
        raise missing("--pcap", "dpkt", error) from error
    return CaptureWriter(out)
