"""`klvmsg ping`: round trips to a program that answers, or a program that answers them."""

from __future__ import annotations

import argparse
import time
from typing import List

from ..calling import add_calling, call
from ..exits import DONE, FILE, NO_CONNECTION, USAGE, Failure
from ..measure import histogram, percentile, round_trip
from ..options import RULES_HELP, Commands, add_command, count, listen_address, positive
from ..partner import attend
from ..peer import serve
from ..relay import show_address
from ..text import complain, plural

_BAR = 40  # characters


def add(commands: Commands[argparse.ArgumentParser]) -> None:
    parser = add_command(
        commands, "ping", run, "measure round trips to a program that answers",
        "Sends a message, waits for what comes back, whatever it is, and so on. Tells the least, the\n"
        "median and the 99th percentile of the times, and how they are spread. With --answer it is\n"
        "the other end: it sends back each message that comes, and goes on until Ctrl-C.",
        RULES_HELP,
    )  # fmt: skip
    add_calling(parser, "Ping")
    parser.add_argument(
        "-a", "--answer", type=listen_address, metavar="[HOST:]PORT",
        help="listen there and answer; port 0 lets the system choose, and the port is printed",
    )  # fmt: skip
    parser.add_argument(
        "-n", "--count", type=count, default=100, metavar="N", help="so many round trips (100)",
    )  # fmt: skip
    parser.add_argument(
        "-i", "--interval", type=positive, default=0.01, metavar="SECONDS",
        help="the pause between them (0.01)",
    )  # fmt: skip
    body = parser.add_mutually_exclusive_group()
    body.add_argument(
        "-s", "--size", type=count, default=8, metavar="BYTES", help="zero bytes in its body (8)",
    )  # fmt: skip
    body.add_argument("-b", "--body", metavar="FILE", help="its body, without the length before it")


def run(options: argparse.Namespace) -> int:
    if (options.address is None) == (options.answer is None):
        raise Failure(USAGE, "either HOST:PORT or --answer is needed")
    return _answer(options) if options.answer else _ping(options)


def _ping(options: argparse.Namespace) -> int:
    body = bytes(options.size)
    if options.body is not None:
        try:
            with open(options.body, "rb") as file:
                body = file.read()
        except OSError as error:
            raise Failure(FILE, f"cannot read {options.body}: {error.strerror}") from error
    times: List[float] = []
    with call(options, options.address) as peer:
        try:
            while len(times) < options.count:
                if times:
                    time.sleep(options.interval)
                times.append(round_trip(peer, options.type, body, options.timeout))
        except ValueError as error:
            raise Failure(USAGE, f"{options.type} cannot be sent: {error}") from error
        except KeyboardInterrupt:
            pass
        finally:
            _report(sorted(times))
    return DONE


def _report(times: List[float]) -> None:
    if not times:
        return
    least, median, late = times[0], percentile(times, 0.5), percentile(times, 0.99)
    print(f"{plural(len(times), 'round trip')}: minimum {_short(least)}, median {_short(median)}, "
          f"99 % {_short(late)}, maximum {_short(times[-1])}")  # fmt: skip
    spread = histogram(times)
    largest = max(number for _, number in spread)
    for bound, number in spread:
        print(f"  up to {_short(bound):>8} {number:7,} {'#' * -(-_BAR * number // largest)}")


def _short(seconds: float) -> str:
    for unit, factor in (("us", 1e6), ("ms", 1e3)):
        if seconds * factor < 1000:
            return f"{seconds * factor:.3g} {unit}"
    return f"{seconds:.3g} s"


def _answer(options: argparse.Namespace) -> int:
    try:
        server = serve(options.answer[1], options.answer[0], rules=options.rules)
    except OSError as error:
        where = show_address(options.answer)
        raise Failure(NO_CONNECTION, f"cannot listen on {where}: {error.strerror}") from error
    complain(f"listening on {show_address((server.host, server.port))}")
    try:
        attend(server, back=True)
    except KeyboardInterrupt:
        pass
    return DONE
