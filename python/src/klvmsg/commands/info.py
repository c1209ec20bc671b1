"""`klvmsg info`: what is in a recording."""

from __future__ import annotations

import argparse

from ..events import read_recording
from ..exits import DONE
from ..files import open_recording
from ..info import Summary
from ..options import Commands, add_command, add_decoding, add_selection, decoders, selection


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "info", run, "tell what is in a recording",
        "Tells when a recording was made, who spoke, which types there are, how many messages of\n"
        "each and how many a second, the longest gaps between messages, and what went wrong.",
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="the recording; - is standard input")
    add_decoding(parser)
    add_selection(parser, "")


def run(options: argparse.Namespace) -> int:
    chosen = selection(options, decoders(options))
    with open_recording(options.file) as file:
        for line in Summary(chosen.select(read_recording(file))).lines():
            print(line)
    return DONE
