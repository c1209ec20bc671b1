"""The command `klvmsg`. Each of its commands is a module in `commands`."""

from __future__ import annotations

import argparse
import importlib
import os
import pkgutil
import signal
import sys
from typing import List, NoReturn, Optional

from . import commands
from .errors import OutOfStep, PeerGone, TimedOut
from .events import BadRecording
from .exits import FILE, OUT_OF_STEP, PEER_GONE, TIMEOUT, Failure
from .text import complain
from .version import __version__


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="klvmsg",
        description="Watches, records, replays, draws, compares and hands on typed messages.",
    )
    parser.add_argument("--version", action="version", version=f"klvmsg {__version__}")
    parsers = parser.add_subparsers(metavar="COMMAND", required=True)
    for module in pkgutil.iter_modules(commands.__path__):
        importlib.import_module(f"{commands.__name__}.{module.name}").add(parsers)
    return parser


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
        sys.stdout.flush()
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
    except OutOfStep as lost:
        complain(str(lost))
        return OUT_OF_STEP
    except TimedOut as late:
        complain(str(late))
        return TIMEOUT
    except BrokenPipeError:  # whoever read the output has enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # for Python's own flush
        return FILE
    except OSError as error:
        complain(": ".join(filter(None, (error.filename and str(error.filename), error.strerror))))
        return FILE
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
