"""The command `klvmsg`: spy, record, replay, chart."""

from __future__ import annotations

import argparse
import os
import signal
import socket
import sys
import time
from typing import BinaryIO, Callable, List, NoReturn, Optional, TextIO

from .errors import OutOfStep, PeerGone, TimedOut
from .events import DIRECTIONS, MESSAGE, TO_SERVER, BadRecording, Event, Selection, describe
from .events import read_recording
from .observers import Printer, Recorder, complain
from .peer import listen
from .relay import Address, Relay, show_address
from .replay import Player
from .rules import Rules
from .text import plural
from .version import __version__
from .wire import MAX_BODY

# As of klvmsgcat.
DONE, NO_CONNECTION, USAGE, FILE, PEER_GONE, OUT_OF_STEP, TIMEOUT = range(7)

RULES_HELP = """rules for the lengths of bodies, separated by semicolons:
  Tick=8                      has 8 bytes
  Note=length(0,4,little)     begins with a length of 4 bytes, which counts the bytes behind it
  Frame=length(2,2,big)       has 2 bytes, then a length of 2 bytes, and what that counts
  Hello=length(0,8,little,8)  has 8 bytes more than its length counts
  *=length(0,4,little)        all types without a rule of their own; this one holds unless another
                              is given
"""
EXIT_CODES = "exit codes: 0 done, 1 no connection, 2 usage, 3 a file, 4 the peer has gone, 6 timeout"


class Failure(Exception):
    """Ends the command with a word and a code."""

    def __init__(self, code: int, text: str) -> None:
        super().__init__(text)
        self.code = code


# The command line -----------------------------------------------------------------------------


def _address(text: str, host: Optional[str]) -> Address:
    name, colon, port = text.rpartition(":")
    if not colon:
        if host is None:
            raise argparse.ArgumentTypeError(f"not of the form HOST:PORT: {text!r}")
        name = host
    if name.startswith("[") and name.endswith("]"):
        name = name[1:-1]
    if not port.isascii() or not port.isdigit() or int(port) > 65535:
        raise argparse.ArgumentTypeError(f"not a port: {port!r}")
    return name, int(port)


def _listen_address(text: str) -> Address:
    return _address(text, "127.0.0.1")


def _connect_address(text: str) -> Address:
    return _address(text, None)


def _rules(text: str) -> Rules:
    try:
        return Rules.parse(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from error


def _positive(text: str) -> float:
    try:
        number = float(text)
    except ValueError:
        number = 0
    if not 0 < number < float("inf"):
        raise argparse.ArgumentTypeError(f"not a number above 0: {text!r}")
    return number


def _count(text: str) -> int:
    if not text.isascii() or not text.isdigit() or int(text) == 0:
        raise argparse.ArgumentTypeError(f"not a number from 1 on: {text!r}")
    return int(text)


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="klvmsg", description="Watches, records and replays typed messages between programs."
    )
    parser.add_argument("--version", action="version", version=f"klvmsg {__version__}")
    commands = parser.add_subparsers(metavar="COMMAND", required=True)
    _add_spy(commands)
    _add_record(commands)
    _add_replay(commands)
    _add_chart(commands)
    return parser


_Commands = argparse._SubParsersAction  # its public name does not exist


def _command(
    commands: _Commands[argparse.ArgumentParser],
    name: str,
    run: Callable[[argparse.Namespace], int],
    summary: str,
    description: str,
) -> argparse.ArgumentParser:
    parser = commands.add_parser(
        name,
        help=summary,
        description=description,
        epilog=(RULES_HELP if name in ("spy", "record") else "") + EXIT_CODES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.set_defaults(run=run)
    return parser


def _add_relay_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument(
        "-l", "--listen", required=True, type=_listen_address, metavar="[HOST:]PORT",
        help="where clients connect, on 127.0.0.1 unless told otherwise; port 0 lets the system "
        "choose, and the port is printed",
    )  # fmt: skip
    parser.add_argument(
        "-c", "--connect", required=True, type=_connect_address, metavar="HOST:PORT",
        help="the server that they mean",
    )  # fmt: skip
    parser.add_argument(
        "-r", "--rules", type=_rules, default=Rules(), metavar="RULES",
        help="how long bodies are, see below",
    )  # fmt: skip
    parser.add_argument(
        "--max-body", type=_count, default=MAX_BODY, metavar="BYTES",
        help="a larger body is taken for a sign that the stream is out of step (%(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "-n", "--connections", type=_count, metavar="N",
        help="serve N connections and end; otherwise go on until Ctrl-C",
    )  # fmt: skip


def _add_spy(commands: _Commands[argparse.ArgumentParser]) -> None:
    parser = _command(
        commands, "spy", _spy, "stand between two programs and print what they say",
        "Stands between clients and their server, passes every byte on unchanged, and prints a line\n"
        "for each message: the time, the connection, > to the server or < to the client, the type,\n"
        "and the bytes of the body. Bytes are passed on whatever is made of them, also when a rule\n"
        "is wrong or the stream is out of step, which is printed.",
    )  # fmt: skip
    _add_relay_options(parser)
    parser.add_argument(
        "-b", "--bodies", type=_count, default=0, metavar="N",
        help="print up to N bytes of each body too",
    )  # fmt: skip
    parser.add_argument(
        "-t", "--top", action="store_true",
        help="show a live table by connection and type instead (needs rich)",
    )  # fmt: skip


def _add_record(commands: _Commands[argparse.ArgumentParser]) -> None:
    parser = _command(
        commands, "record", _record, "stand between two programs and write down what they say",
        "Like spy, but writes each message to FILE as a line of JSON: time, connection, direction,\n"
        "type, length, and body in hexadecimal.",
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="overwritten; - is standard output")
    _add_relay_options(parser)


def _add_selection(parser: argparse.ArgumentParser, directions: str) -> None:
    parser.add_argument(
        "-t", "--type", action="append", default=[], dest="types", metavar="TYPE",
        help="only messages of this type; repeated",
    )  # fmt: skip
    parser.add_argument(
        "-d", "--direction", choices=DIRECTIONS, default=directions,
        help="only this direction" + (" (%(default)s)" if directions else ""),
    )  # fmt: skip
    parser.add_argument(
        "-n", "--connection", action="append", default=[], dest="connections", type=_count,
        metavar="N", help="only the recorded connection N; repeated",
    )  # fmt: skip
    for name, what in (("after", "from"), ("before", "up to")):
        parser.add_argument(
            f"--{name}", type=float, metavar="SECONDS",
            help=f"only messages {what} so many seconds after the recording began",
        )  # fmt: skip


def _add_replay(commands: _Commands[argparse.ArgumentParser]) -> None:
    parser = _command(
        commands, "replay", _replay, "play a recording to a program that listens",
        "Sends the messages of a recording again, at the recorded times unless told otherwise. Each\n"
        "recorded connection becomes one; answers are taken and dropped.",
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="the recording; - is standard input")
    parser.add_argument(
        "-c", "--connect", required=True, type=_connect_address, metavar="HOST:PORT",
        help="the program",
    )  # fmt: skip
    pace = parser.add_mutually_exclusive_group()
    pace.add_argument(
        "--speed", type=_positive, default=1.0, metavar="FACTOR",
        help="so many times as fast as recorded (1)",
    )  # fmt: skip
    pace.add_argument("--fast", action="store_true", help="without pauses")
    pace.add_argument("--step", action="store_true", help="wait for Enter before each message")
    parser.add_argument(
        "--timeout", type=_positive, default=10.0, metavar="SECONDS",
        help="how long the program may take to accept, to take a message and, when all has been "
        "sent, to close (10)",
    )  # fmt: skip
    _add_selection(parser, TO_SERVER)


def _add_chart(commands: _Commands[argparse.ArgumentParser]) -> None:
    parser = _command(
        commands, "chart", _chart, "draw a recording",
        "Draws the messages of a recording between the processes over time as SVG, and makes a page\n"
        "(HTML, self-contained) with the same, a table by type and a plot of rates. Both are written\n"
        "beside FILE unless --svg or --html tell what is wanted. Needs matplotlib.",
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="the recording; - is standard input")
    parser.add_argument("--svg", metavar="PATH", help="where the drawing goes")
    parser.add_argument("--html", metavar="PATH", help="where the page goes")
    parser.add_argument(
        "--rows", type=_count, default=200, metavar="N",
        help="draw at most N rows; messages of one kind that follow each other share one (200)",
    )  # fmt: skip
    _add_selection(parser, "")


# The commands -----------------------------------------------------------------------------------


def _relay(
    options: argparse.Namespace, entrance: socket.socket, observe: Callable[[List[Event]], None],
    keep: int,
) -> None:  # fmt: skip
    relay = Relay(
        entrance, options.connect, options.rules, observe,
        keep=keep, max_body=options.max_body,
    )  # fmt: skip
    try:
        relay.run(options.connections)
    except KeyboardInterrupt:
        pass


def _listen(options: argparse.Namespace) -> socket.socket:
    try:
        entrance = listen(*options.listen)
    except OSError as error:
        where = show_address(options.listen)
        raise Failure(NO_CONNECTION, f"cannot listen on {where}: {error.strerror}") from error
    complain(f"listening on {show_address(entrance.getsockname())} for {show_address(options.connect)}")
    return entrance


def _spy(options: argparse.Namespace) -> int:
    if options.top:
        return _top(options)
    entrance = _listen(options)
    printer = Printer(options.bodies)
    _relay(options, entrance, printer.observe, options.bodies)
    if not printer.close():
        complain("the last lines are not printed: the output takes none")
        os._exit(DONE)  # Python's own end would wait for the output
    return DONE


def _top(options: argparse.Namespace) -> int:
    try:
        from .top import Top
    except ImportError as error:
        raise _missing("--top", "rich", error) from error
    if not sys.stdout.isatty():
        raise Failure(USAGE, "--top needs a terminal; without it a line is printed for each message")
    entrance = _listen(options)
    here, there = show_address(entrance.getsockname()), show_address(options.connect)
    top = Top(f"klvmsg spy, {here} for {there}, Ctrl-C ends")
    _relay(options, entrance, top.observe, 0)
    top.close()
    return DONE


def _record(options: argparse.Namespace) -> int:
    entrance = _listen(options)
    recorder = Recorder(_open_for_writing(options.file))
    _relay(options, entrance, recorder.observe, options.max_body)
    recorder.close()
    complain(f"recorded {plural(recorder.messages, 'message')}")
    return FILE if recorder.failed else DONE


def _replay(options: argparse.Namespace) -> int:
    pause: Callable[[Event, float], bool] = _Timed(options.speed)
    if options.fast:
        pause = _no_pause
    if options.step:
        if options.file == "-":
            raise Failure(USAGE, "--step reads Enter from standard input, so FILE cannot be -")
        pause = _step
    player = Player(options.connect, _selection(options), options.timeout)
    with _open_recording(options.file) as file:
        try:
            player.play(read_recording(file), pause)
        except (PeerGone, TimedOut):
            raise
        except OSError as error:
            where = show_address(options.connect)
            raise Failure(NO_CONNECTION, f"cannot connect to {where}: {error.strerror}") from error
        finally:
            complain(f"sent {plural(player.messages, 'message')}")
    return DONE


def _chart(options: argparse.Namespace) -> int:
    try:
        from . import chart
    except ImportError as error:
        raise _missing("chart", "matplotlib", error) from error
    neither = options.svg is None and options.html is None
    if neither and options.file == "-":
        raise Failure(USAGE, "a recording from standard input needs --svg or --html")
    with _open_recording(options.file) as file:
        story = chart.Story(read_recording(file), _selection(options), options.rows)
    base = options.file[: -len(".jsonl")] if options.file.endswith(".jsonl") else options.file
    for path, make in ((options.svg or (neither and base + ".svg"), chart.make_svg),
                       (options.html or (neither and base + ".html"), chart.make_page)):  # fmt: skip
        if path:
            with _open_for_writing(path) as out:
                out.write(make(story, options.file).encode("utf-8", "backslashreplace"))
            complain(f"written: {path}")
    return DONE


# Pauses before a message that is replayed ------------------------------------------------------


class _Timed:
    """At the recorded times, from the first message that is played on."""

    def __init__(self, speed: float) -> None:
        self._speed = speed
        self._start: Optional[float] = None  # when the recording would have begun

    def __call__(self, event: Event, seconds: float) -> bool:
        now = time.monotonic()
        if self._start is None:
            self._start = now - seconds / self._speed
        time.sleep(max(0.0, self._start + seconds / self._speed - now))
        return True


def _no_pause(event: Event, seconds: float) -> bool:
    return True


def _step(event: Event, seconds: float) -> bool:
    if event.kind != MESSAGE:
        return True
    print(f"{describe(event, 32)}   [Enter sends, q ends] ", end="", file=sys.stderr, flush=True)
    answer = sys.stdin.readline()
    return answer != "" and answer.strip() != "q"


# Helpers ---------------------------------------------------------------------------------------


def _selection(options: argparse.Namespace) -> Selection:
    return Selection(
        options.types, options.direction, options.connections, options.after, options.before
    )


def _open_for_writing(path: str) -> BinaryIO:
    try:
        return sys.stdout.buffer if path == "-" else open(path, "wb")
    except OSError as error:
        raise Failure(FILE, f"cannot write {path}: {error.strerror}") from error


def _open_recording(path: str) -> TextIO:
    try:
        return sys.stdin if path == "-" else open(path, encoding="ascii", errors="replace")
    except OSError as error:
        raise Failure(FILE, f"cannot read {path}: {error.strerror}") from error


def _missing(what: str, module: str, error: ImportError) -> Failure:
    return Failure(USAGE, f"{what} needs {module} (apt-get install python3-{module}): {error}")


def _interrupt(signal_number: int, frame: object) -> NoReturn:
    raise KeyboardInterrupt


def main(arguments: Optional[List[str]] = None) -> int:
    """Runs the command and returns its exit code."""
    for stream in (sys.stdout, sys.stderr):
        if hasattr(stream, "reconfigure"):
            stream.reconfigure(errors="backslashreplace")
    signal.signal(signal.SIGTERM, _interrupt)
    try:
        options = _parser().parse_args(arguments)
        code: int = options.run(options)
        return code
    except Failure as failure:
        complain(str(failure))
        return failure.code
    except BadRecording as bad:
        complain(f"not a recording: {bad}")
        return FILE
    except PeerGone as gone:
        complain(str(gone))
        return PEER_GONE
    except TimedOut as late:
        complain(str(late))
        return TIMEOUT
    except OSError as error:
        complain(str(error))
        return FILE
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
