"""The words that the tests use: programs of the C++ library, the command, ports, plain sockets.

The programs come from the build folder that KLVMSG_BUILD_DIR names, build/release at first.
"""

from __future__ import annotations

import os
import pathlib
import re
import socket
import struct
import subprocess
import sys
import time
from typing import Any, Callable, Iterator, List, Tuple

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = ROOT / "python" / "src"
sys.path.insert(0, str(SOURCES))
LIMIT = 60  # seconds until a program that hangs fails its test


class Program:
    """A process whose standard output goes to a file, and whose standard error tells a port."""

    def __init__(self, folder: pathlib.Path, arguments: List[str], stdin: Any = None,
                 stdout: Any = None) -> None:  # fmt: skip
        self.output = folder / f"output-{time.monotonic_ns()}"
        path = os.pathsep.join(filter(None, (str(SOURCES), os.environ.get("PYTHONPATH"))))
        environment = {**os.environ, "PYTHONPATH": path}
        with open(self.output, "wb") as out:
            self.process = subprocess.Popen(
                arguments, stdin=stdin, stdout=stdout or out, stderr=subprocess.PIPE, env=environment
            )

    def port(self) -> int:
        """The one that it listens on."""
        assert self.process.stderr is not None
        line = self.process.stderr.readline().decode()
        found = re.search(r"listening on (?:127\.0\.0\.1:|port )(\d+)", line)
        assert found, line + self.process.stderr.read().decode()
        return int(found[1])

    def end(self) -> Tuple[int, str, str]:
        """Waits for it: exit code, output, what it has said after its first line."""
        errors = self.process.communicate(timeout=LIMIT)[1].decode()
        return self.process.returncode, self.text(), errors

    def text(self) -> str:
        return self.output.read_text()


@pytest.fixture
def start(tmp_path: pathlib.Path) -> Iterator[Callable[..., Program]]:
    """Starts `klvmsg ...`, or a program of the C++ library by its name; ends them with the test."""
    programs: List[Program] = []
    build = ROOT / os.environ.get("KLVMSG_BUILD_DIR", "build/release")

    def start(name: str, *arguments: object, **options: Any) -> Program:
        command = [sys.executable, "-m", "klvmsg"]
        if name != "klvmsg":
            command = [str(build / "examples" / name / name)]
            if not os.access(command[0], os.X_OK):
                pytest.skip(f"{command[0]} has not been built")
        programs.append(Program(tmp_path, command + list(map(str, arguments)), **options))
        return programs[-1]

    yield start
    for program in programs:
        program.process.kill()
        program.process.communicate()


@pytest.fixture
def listener() -> Iterator[socket.socket]:
    """A plain listening socket."""
    with socket.create_server(("127.0.0.1", 0)) as sock:
        sock.settimeout(LIMIT)
        yield sock


def dial(port: int) -> socket.socket:
    return socket.create_connection(("127.0.0.1", port), LIMIT)


def answer(listener: socket.socket) -> socket.socket:
    sock = listener.accept()[0]
    sock.settimeout(LIMIT)
    return sock


def read_all(sock: socket.socket, count: int = 1 << 30) -> bytes:
    """So many bytes, or those up to the end."""
    data = bytearray()
    while len(data) < count:
        piece = sock.recv(min(65536, count - len(data)))
        if not piece:
            break
        data += piece
    return bytes(data)


def reset(sock: socket.socket) -> None:
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def wait_until(condition: Callable[[], Any]) -> None:
    deadline = time.monotonic() + LIMIT
    while not condition():
        assert time.monotonic() < deadline, "nothing came of it"
        time.sleep(0.005)


def segments(sock: socket.socket) -> int:
    """How many segments with data have come."""
    count: int = struct.unpack_from("I", sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 160), 152)[0]
    return count


def message(name: bytes, body: bytes) -> bytes:
    return struct.pack("=I", len(name)) + name + body


def framed(content: bytes) -> bytes:
    return struct.pack("=I", len(content)) + content
