"""The manual page says what the command's own help says."""

from __future__ import annotations

import re
import subprocess
import sys
from typing import Set

import pytest

from conftest import ROOT, SOURCES

PAGE = (ROOT / "python" / "klvmsg.1").read_text()
COMMANDS = {"spy": "of spy and record", "record": "of spy and record", "replay": "of replay",
            "chart": "of chart", "diff": "", "check": "",
            "export": "of export", "info": "", "ping": "of ping", "bench": "of bench",
            "tls": "of tls"}  # fmt: skip


def options_of_help(*command: str) -> Set[str]:
    text = subprocess.run(
        [sys.executable, "-m", "klvmsg", *command, "--help"],
        env={"PYTHONPATH": str(SOURCES)}, stdout=subprocess.PIPE, check=True,
    ).stdout.decode()  # fmt: skip
    return set(re.findall(r"^ +(?:-\w(?: \S+)?, )?--([a-z-]+)", text, re.MULTILINE))


def options_of_page(part: str) -> Set[str]:
    section = re.search(rf"^\.Ss Options {part}.*?^\.El", PAGE, re.MULTILINE | re.DOTALL)
    assert section, part
    return set(re.findall(r"^\.It Fl (?:\w , Fl )?-([a-z-]+)", section[0], re.MULTILINE))


@pytest.mark.parametrize("command", COMMANDS)
def test_page_and_help_tell_of_the_same_options(command: str) -> None:
    told = {"help"} | (options_of_page(COMMANDS[command]) if COMMANDS[command] else set())
    if command in ("ping", "bench"):
        told |= options_of_page("that call")
    elif command != "tls":  # which looks at no message
        told |= options_of_page("that decode") | options_of_page("that select")
    if command in ("spy", "record"):
        told -= {"connection", "from", "to"}  # of recordings alone
    if command == "record":
        told -= {"bodies", "top", "column"}  # of spy alone
    if command == "spy":
        told -= {"rotate", "keep", "flush"}  # of record alone
    assert options_of_help(command) == told
