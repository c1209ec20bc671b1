"""`klvmsg record`: stands between two programs and writes down what they say."""

from __future__ import annotations

import argparse

from ..between import open_entrance, pass_on
from ..exits import DONE, FILE
from ..files import open_for_writing
from ..observers import Recorder, complain
from ..options import RULES_HELP, Commands, add_command, add_relay_options
from ..text import plural


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "record", run, "stand between two programs and write down what they say",
        "Like spy, but writes each message to FILE as a line of JSON: time, connection, direction,\n"
        "type, length, and body in hexadecimal.",
        RULES_HELP,
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="overwritten; - is standard output")
    add_relay_options(parser)


def run(options: argparse.Namespace) -> int:
    entrance = open_entrance(options)
    recorder = Recorder(open_for_writing(options.file))
    pass_on(options, entrance, recorder.observe, options.max_body)
    recorder.close()
    complain(f"recorded {plural(recorder.messages, 'message')}")
    return FILE if recorder.failed else DONE
