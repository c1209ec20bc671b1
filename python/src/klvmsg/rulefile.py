"""Files that hold all that one needs to know of a program's bodies: --rules @FILE.

    # The bodies of the thermometers.
    Reading=16
    Name=length(0,4,little)
    decode bodies.py:decode
    proto house.proto
    text Name Remark*

Each line has rules, or what --decode, --proto and --text take; files are beside this one.
"""

from __future__ import annotations

import glob
import os
import re
from typing import Iterable, List, NamedTuple, Optional

from .decode import Sources
from .exits import FILE, Failure
from .rules import Rules

_SOURCE = re.compile(r"(decode|proto|text)\s+([^=]+)")


class RuleFile(NamedTuple):
    rules: Rules
    sources: Sources


def read_rule_file(path: str) -> RuleFile:
    """Raises Failure when it cannot be read, and ValueError, which names the line."""
    try:
        with open(path, encoding="utf-8", errors="surrogateescape") as file:
            lines = file.read().splitlines()
    except OSError as error:
        raise Failure(FILE, f"cannot read {path}: {error.strerror}") from error
    rules: List[str] = []
    sources = Sources([], [], [])
    for number, line in enumerate(map(str.strip, lines), 1):
        source = _SOURCE.fullmatch(line)
        if source:
            _add_source(sources, source[1], source[2].strip(), os.path.dirname(path))
        elif not line.startswith("#"):
            try:
                Rules.parse(line)
            except ValueError as error:
                raise ValueError(f"{path}, line {number}: {error}") from error
            rules.append(line)
    return RuleFile(Rules.parse(";".join(rules)), sources)


def _add_source(sources: Sources, kind: str, value: str, folder: str) -> None:
    if kind == "text":
        sources.texts.extend(value.split())
    elif kind == "proto":
        sources.protos.append(os.path.join(folder, value))
    else:
        is_file = value.rpartition(":")[0].endswith(".py")
        sources.functions.append(os.path.join(folder, value) if is_file else value)


def find_rule_file(types: Iterable[str]) -> Optional[str]:
    """A file of an example's rules that has one for one of these types."""
    source = os.path.join(os.path.dirname(__file__), "..", "..", "..", "examples")
    installed = "/usr/share/doc/libklvmsgcommmodules-dev/examples"
    for folder in ("examples", os.path.relpath(source), installed):
        for path in sorted(glob.glob(os.path.join(folder, "*", "*.rules"))):
            try:
                known = read_rule_file(path).rules.named
            except (Failure, ValueError):
                continue
            if not set(types).isdisjoint(known):
                return path
    return None
