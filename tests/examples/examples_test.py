#!/usr/bin/env python3
"""The example programs as their users run them: as processes, with each other and with peers that
misbehave. examples_test.py DIRECTORY [TEST...]: the directory in which they were built."""

import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAMS = pathlib.Path(sys.argv.pop(1)).resolve()


class Program:
    """A program that runs, its standard output and error in a file."""

    started = []

    def __init__(self, name, *arguments, stdin=None):
        self.file = tempfile.NamedTemporaryFile()
        self.process = subprocess.Popen([PROGRAMS / name / name, *map(str, arguments)],
                                        stdin=stdin, stdout=self.file, stderr=subprocess.STDOUT)
        self.started.append(self.process)

    def output(self):
        return pathlib.Path(self.file.name).read_bytes()

    def says(self, pattern):
        """Waits until a part of the output matches, and returns the match."""
        limit = time.monotonic() + 30
        while time.monotonic() < limit:
            if found := re.search(pattern, self.output()):
                return found
            time.sleep(0.01)
        raise AssertionError(f"{pattern} is not in {self.output()}")

    def port(self):
        """The one that a klvmsgcat listens on."""
        return int(self.says(rb"^klvmsgcat: listening on 127.0.0.1:(\d+)\n")[1])

    def end(self):
        """Waits for its end; the exit code."""
        return self.process.wait()


def field(content):
    return len(content).to_bytes(4, sys.byteorder) + content


class ProgramTest(unittest.TestCase):
    """Works in a folder that goes with the test."""

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.addCleanup(os.chdir, "/")
        os.chdir(self.folder.name)

    def tearDown(self):
        for process in Program.started:
            process.kill()  # one that a failed test has left
            process.wait()

    def ends(self, code, name, *arguments):
        program = Program(name, *arguments)
        self.assertEqual(code, program.end(), program.output())
        return program


class Exchange(ProgramTest):
    def test_hub_and_clients_agree_on_every_file(self):
        pathlib.Path("empty").write_bytes(b"")
        pathlib.Path("check").write_bytes(b"123456789")
        # More than a socket buffers.
        pathlib.Path("large").write_bytes(b"x" * (9 << 20) + b" y\nz")
        two = self.ends(0, "exchange", "--clients", 2, "empty", "check", "large")
        two.says(rb"client-1             0          0          0 00000000  agreed     empty")
        two.says(rb"client-2             9          0          1 cbf43926  agreed     check")
        two.says(rb"client-1       9437188          1          3 ")
        # More clients than files.
        idle = self.ends(0, "exchange", "--clients", 3, "check")
        idle.says(rb"client-3             9          0          1 cbf43926  agreed     check")

    def test_what_cannot_start_ends_with_a_message(self):
        pathlib.Path("file").write_text("text\n")
        missing = self.ends(1, "exchange", "file", "missing")
        missing.says(rb"missing: No such file or directory")
        with socket.create_server(("127.0.0.1", 0)) as other:
            port = other.getsockname()[1]
            taken = self.ends(1, "exchange", "--port", port, "file")
            taken.says(rb"Address already in use")
        alone = self.ends(1, "exchange", "client", "--port", port, "file")
        alone.says(rb"no hub listens there")

    def test_a_killed_process_ends_the_run(self):
        pathlib.Path("large").write_bytes(b"x" * (64 << 20))
        for victim, says in ((0, (rb"hub was killed by signal 9", rb"client-2: lost the hub")),
                             (1, (rb"client-1 was killed", rb"client-2: sent away"))):
            # In chunks so small that the files would travel for minutes.
            run = Program("exchange", "--chunk", 64, "large", "large")
            run.says(rb"0 of 2 files")
            tasks = pathlib.Path(f"/proc/{run.process.pid}/task/{run.process.pid}/children")
            os.kill(int(tasks.read_text().split()[victim]), signal.SIGKILL)
            self.assertEqual(1, run.end())
            for text in says:
                run.says(text)


class Klvmsgcat(ProgramTest):
    def listen(self, *arguments, **options):
        return Program("klvmsgcat", "-t", 60, "--listen", 0, *arguments, **options)

    def connect(self, code, port, *arguments, **options):
        program = Program("klvmsgcat", "-t", 60, "--connect", f"127.0.0.1:{port}", *arguments,
                          **options)
        self.assertEqual(code, program.end(), program.output())
        return program.output()

    def test_prints_what_another_one_sends(self):
        pathlib.Path("note").write_bytes(b"a\0\n")
        pathlib.Path("tick").write_bytes(b"xyz")
        pathlib.Path("large").write_bytes(b"w" * 8000000)
        listener = self.listen("-r", "Note", "-r", "Tick", "--fixed", "Tick=3", "--hex")
        self.connect(0, listener.port(), "-f", "Tick=3", "-s", "Note=note", "-s", "Tick=tick",
                     "-s", "Note=/dev/null", "-s", "Note=large")
        self.assertEqual(0, listener.end())
        shown = listener.output().split(b"\n", 1)[1]
        expected = b"Note 3 61000a\nTick 3 78797a\nNote 0 \nNote 8000000 " + b"77" * 8000000 + b"\n"
        self.assertTrue(shown == expected, shown[:200])

    def test_answers_the_one_that_connects(self):
        pathlib.Path("note").write_bytes(b"\0a\n\xff")
        pathlib.Path("lines").write_bytes(b"one\n\n\\three")
        listener = self.listen("-r", "Line", "-s", "Note=note")
        with open("lines", "rb") as lines:
            shown = self.connect(0, listener.port(), "-r", "Note", "-n", 1, "--raw", "--lines",
                                 "Line", stdin=lines)
        self.assertTrue(shown.endswith(b"\0a\n\xff"), shown)
        self.assertEqual(0, listener.end())
        listener.says(rb"\nLine 3 one\nLine 0 \nLine 6 \\x5cthree\n$")

    def test_says_by_its_exit_code_what_is_wrong(self):
        pathlib.Path("three").write_bytes(b"xyz")
        with socket.create_server(("127.0.0.1", 0)) as refused:
            free = refused.getsockname()[1]
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            self.connect(1, free, "-r", "Note")
            self.ends(1, "klvmsgcat", "-r", "Note", "-l", port)
            self.connect(2, port)
            self.connect(3, port, "-s", "Note=/no/such/file")
            self.connect(3, port, "-s", "Note=/")
            self.connect(3, port, "-f", "Tick=4", "-s", "Tick=three")
            self.ends(6, "klvmsgcat", "-l", 0, "-r", "Note", "-t", 1)

    def test_survives_peers_that_misbehave(self):
        whole = field(b"Note") + field(b"text")
        for sent, code in ((whole[:10], 4), (whole, 4), (bytes(8), 5), (field(b"Odd"), 5),
                           (field(b"Note") + b"\xff\xff\xff\xff", 5)):
            listener = self.listen("-r", "Note", "--count", 2)
            with socket.create_connection(("127.0.0.1", listener.port())) as peer:
                peer.sendall(sent)
            self.assertEqual(code, listener.end(), (sent, listener.output()))


class Others(ProgramTest):
    def test_pubsub_and_workers_come_to_their_end(self):
        self.ends(0, "pubsub")
        self.ends(0, "workers")

    def test_bodies_of_other_libraries_come_back(self):
        for name, says in (("protobuf", rb"100 x bolt: 2000 cents\n(?s:.)*to pay: 8000 cents"),
                           ("cereal", rb"humidity: 0.375\ntemperature: 20.5\n")):
            with self.subTest(name):
                if not (PROGRAMS / name / name).exists():
                    self.skipTest(f"{name} is not built: its library is not installed")
                self.ends(0, name).says(says)


if __name__ == "__main__":
    unittest.main()
