"""`klvmsg check`: whether statements about a recording hold."""

from __future__ import annotations

import argparse

from ..check import Statement, parse
from ..decode import Decoders
from ..events import describe, read_recording
from ..exits import DIFFERENT, DONE, FILE, USAGE, Failure
from ..files import open_recording
from ..options import Commands, add_command, add_decoding, add_selection, decoders, selection
from ..text import plural, printable

_STATEMENTS = """statements, one in a line; # begins a remark:
  Result answers Job within 2 s             ms, s, min, h
  no more than 100 News a second            on one connection, in one direction; a minute, an hour
  no more than 3 Alarm                      in all; also at least 1 Hello, exactly 1 Hello
  no Alarm
  every Result has square == number * number
  no unknown type                           of those with rules, and those of the next line
  known Job, Result
  nothing out of step
  every connection ends in order
"""


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "check", run, "check a recording against statements",
        "Reads statements about messages from a file, and prints for each whether it holds for a\n"
        "recording, and where it does not at first.",
        _STATEMENTS + "exit code 1: a statement is broken; ",
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="the recording; - is standard input")
    parser.add_argument("statements", metavar="STATEMENTS", help="the file with the statements")
    add_decoding(parser)
    add_selection(parser, "")


def run(options: argparse.Namespace) -> int:
    decode = decoders(options)
    try:
        with open(options.statements, encoding="utf-8", errors="surrogateescape") as lines:
            statements = parse(lines, options.rules.named, decode)
    except OSError as error:
        raise Failure(FILE, f"cannot read {options.statements}: {error.strerror}") from error
    except ValueError as error:
        raise Failure(USAGE, f"{options.statements}: {error}") from error
    if not statements:
        raise Failure(USAGE, f"{options.statements}: there is no statement")
    with open_recording(options.file) as file:
        for event in selection(options, decode).select(read_recording(file)):
            for statement in statements:
                statement.see(event)
    for statement in statements:
        statement.end()
        print(_outcome(statement, decode))
    return DIFFERENT if any(statement.broken for statement in statements) else DONE


def _outcome(statement: Statement, decode: Decoders) -> str:
    text = printable(statement.text)
    if not statement.broken:
        return f"holds   {text}" + ("" if statement.looked_at else " (there is nothing that it is about)")
    line = f"broken  {text}: {plural(statement.broken, 'time')}, first"
    if statement.first is not None:
        line += " " + describe(statement.first, said=decode.show(statement.first))
    return f"{line} {statement.why}".rstrip()
