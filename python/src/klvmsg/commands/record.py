"""`klvmsg record`: stands between two programs and writes down what they say."""

from __future__ import annotations

import argparse
import re
from typing import Optional

from ..between import open_entrance, pass_on
from ..calls import Calls
from ..events import Event, to_json
from ..exits import DONE, FILE, USAGE, Failure
from ..options import (
    RULES_HELP, Commands, add_command, add_relay_options, count, decoders, positive, selection,
)  # fmt: skip
from ..recorder import Line, Recorder, Rotation
from ..text import complain

_UNITS = {"b": 1, "kb": 1e3, "mb": 1e6, "gb": 1e9, "s": 1, "min": 60, "h": 3600, "d": 86400}


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "record", run, "stand between two programs and write down what they say",
        "Like spy, but writes each message to FILE as a line of JSON: time, connection, direction,\n"
        "type, length, body in hexadecimal, and what it says where that is known.",
        RULES_HELP,
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="overwritten; - is standard output")
    add_relay_options(parser)
    parser.add_argument(
        "--rotate", type=_rotation, metavar="SIZE|TIME",
        help="begin another file after 100MB (kB, GB) or 10min (s, h, d): FILE has a number before its "
        "suffix, which goes on behind those that are there",
    )  # fmt: skip
    parser.add_argument(
        "--keep", type=count, metavar="N", help="of these files keep the N youngest ones",
    )  # fmt: skip
    parser.add_argument(
        "--flush", type=positive, default=0.0, metavar="SECONDS",
        help="write so often, and not at once",
    )  # fmt: skip


def _rotation(text: str) -> Rotation:
    found = re.fullmatch(r"(\d+)(b|kb|mb|gb|s|min|h|d)", text.lower(), re.ASCII)
    if not found or int(found[1]) == 0:
        wrong = f"neither a size, such as 100MB, nor a time, such as 10min: {text!r}"
        raise argparse.ArgumentTypeError(wrong)
    amount = int(found[1]) * _UNITS[found[2]]
    return Rotation(bytes=int(amount)) if found[2].endswith("b") else Rotation(seconds=amount)


def run(options: argparse.Namespace) -> int:
    decode = decoders(options)
    chosen = selection(options, decode)

    calls = Calls(options.rules)

    def line(event: Event) -> Optional[str]:
        call = calls.note(event)
        return to_json(event, decode.decode(event), call) if chosen.takes(event) else None

    write: Line = line
    if not chosen and not decode and not options.rules.has_calls:
        write = to_json  # at a fraction of the cost

    rotation = options.rotate
    if options.keep and not rotation:
        raise Failure(USAGE, "--keep needs --rotate")
    if options.file == "-" and rotation:
        raise Failure(USAGE, "--rotate needs a FILE that has a name")
    if options.keep:
        rotation = rotation._replace(keep=options.keep)
    entrance = open_entrance(options)
    recorder = Recorder(options.file, write, rotation, options.flush)
    pass_on(options, entrance, recorder.observe, options.max_body)
    recorder.close()
    complain(recorder.summary())
    return FILE if recorder.failed else DONE
