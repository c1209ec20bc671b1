"""`klvmsg replay`: plays a recording to a program that listens."""

from __future__ import annotations

import argparse
import sys
import time
from functools import partial
from typing import Callable, Optional

from ..decode import Decoders
from ..errors import PeerGone, TimedOut
from ..events import MESSAGE, TO_SERVER, Event, describe, read_recording
from ..exits import DONE, NO_CONNECTION, USAGE, Failure
from ..files import open_recording
from ..options import (
    Commands, add_command, add_decoding, add_selection, connect_address, decoders, positive, selection,
)  # fmt: skip
from ..relay import show_address
from ..replay import Player
from ..text import complain, plural


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "replay", run, "play a recording to a program that listens",
        "Sends the messages of a recording again, at the recorded times unless told otherwise. Each\n"
        "recorded connection becomes one; answers are taken and dropped.",
    )  # fmt: skip
    parser.add_argument("file", metavar="FILE", help="the recording; - is standard input")
    parser.add_argument(
        "-c", "--connect", required=True, type=connect_address, metavar="HOST:PORT",
        help="the program",
    )  # fmt: skip
    pace = parser.add_mutually_exclusive_group()
    pace.add_argument(
        "--speed", type=positive, default=1.0, metavar="FACTOR",
        help="so many times as fast as recorded (1)",
    )  # fmt: skip
    pace.add_argument("--fast", action="store_true", help="without pauses")
    pace.add_argument("--step", action="store_true", help="wait for Enter before each message")
    parser.add_argument(
        "--answers", action="store_true",
        help="send a message only when as many messages have come back on its connection as had when it "
        "was recorded; --rules tells how long they are",
    )  # fmt: skip
    parser.add_argument(
        "--loop", action="store_true", help="begin again after the end, until Ctrl-C",
    )  # fmt: skip
    parser.add_argument(
        "--timeout", type=positive, default=10.0, metavar="SECONDS",
        help="how long the program may take to accept, to take a message, to answer and, when all has "
        "been sent, to close (10)",
    )  # fmt: skip
    add_decoding(parser)
    add_selection(parser, TO_SERVER)


def run(options: argparse.Namespace) -> int:
    if options.file == "-" and (options.step or options.loop):
        what = "--step reads Enter from it" if options.step else "--loop reads it again"
        raise Failure(USAGE, f"FILE cannot be standard input: {what}")
    answers = options.rules if options.answers else None
    decode = decoders(options)
    chosen = selection(options, decode)
    player = Player(options.connect, chosen, options.timeout, answers)
    try:
        _play(player, options, decode)
        before = 0
        while options.loop and player.messages > before:
            before = player.messages
            _play(player, options, decode)
    except KeyboardInterrupt:
        if not options.loop:
            raise
    except (PeerGone, TimedOut):
        raise
    except OSError as error:
        where = show_address(options.connect)
        raise Failure(NO_CONNECTION, f"cannot connect to {where}: {error.strerror}") from error
    finally:
        complain(f"sent {plural(player.messages, 'message')}")
    return DONE


def _play(player: Player, options: argparse.Namespace, decode: Decoders) -> None:
    pause: Callable[[Event, float], bool] = _Timed(options.speed)
    if options.fast:
        pause = _no_pause
    if options.step:
        pause = partial(_step, decode)
    with open_recording(options.file) as file:
        player.play(read_recording(file), pause)


# Pauses before a message ------------------------------------------------------------------------


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


def _step(decode: Decoders, event: Event, seconds: float) -> bool:
    if event.kind != MESSAGE:
        return True
    line = describe(event, 32, decode.show(event))
    print(f"{line}   [Enter sends, q ends] ", end="", file=sys.stderr, flush=True)
    answer = sys.stdin.readline()
    return answer != "" and answer.strip() != "q"
