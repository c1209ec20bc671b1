#!/usr/bin/env python3
"""The example programs as their users run them: as processes, with each other and with peers that
misbehave. examples_test.py DIRECTORY [TEST...]: the directory in which they were built."""

import contextlib
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

PROGRAMS = pathlib.Path(sys.argv.pop(1)).resolve()
SANITIZED = re.search(rb"__[at]san_init", (PROGRAMS / "pubsub/pubsub").read_bytes())


class Program:
    """A program that runs, its standard output and error in a file. The limit is one of the
    system's resources and how much of it there is."""

    started = []

    def __init__(self, name, *arguments, stdin=None, limit=None):
        self.file = tempfile.NamedTemporaryFile()
        self.process = subprocess.Popen(
            [PROGRAMS / name / name, *map(str, arguments)], stdin=stdin, stdout=self.file,
            stderr=subprocess.STDOUT,
            preexec_fn=limit and (lambda: resource.setrlimit(limit[0], (limit[1], limit[1]))))
        self.started.append(self.process)

    def output(self):
        return pathlib.Path(self.file.name).read_bytes()

    def says(self, pattern):
        """Waits until a part of the output matches, or will not any more; returns the match."""
        limit = time.monotonic() + 30
        ended = False
        while not ended and time.monotonic() < limit:
            ended = self.process.poll() is not None  # before the last look
            if found := re.search(pattern, self.output()):
                return found
            time.sleep(0.01)
        raise AssertionError(f"{pattern} is not in {self.output()}")

    def port(self):
        """The one that its first line tells."""
        return int(self.says(rb"^(?:klvmsgcat: )?\w+ing on 127.0.0.1(?:, port |:)(\d+)\n")[1])

    def end(self):
        """Waits for its end; the exit code."""
        return self.process.wait(90)


def field(content, size=4):
    """A text behind its length, which is how a message begins: with the name of its type."""
    return len(content).to_bytes(size, sys.byteorder) + content


def number(value, size=8):
    return value.to_bytes(size, sys.byteorder)


class Peer:
    """Somebody who connects and says just what the test wants."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=30)
        self.stream = self.socket.makefile("rb")

    def says(self, content):
        self.socket.sendall(content)
        return self

    def hears(self, content):
        heard = self.stream.read(len(content))
        assert heard == content, (heard, content)
        return self

    def goes(self):
        self.stream.close()
        self.socket.close()


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

    def ends(self, code, name, *arguments, **options):
        return self.ended(code, Program(name, *arguments, **options))

    def ended(self, code, program):
        self.assertEqual(code, program.end(), program.output())
        return program

    def gone(self, process):
        """Waits until it is; a dead one that nobody has asked about has no command line."""
        limit = time.monotonic() + 30
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            while pathlib.Path(f"/proc/{process}/cmdline").read_bytes():
                self.assertLess(time.monotonic(), limit, f"{process} lives on")
                time.sleep(0.01)


class Exchange(ProgramTest):
    # How it uses the library.
    WAYS = ("--by", "task"), ("--by", "session")

    def endless(self):
        """A file that nobody comes to the end of, in chunks so small that they are soon answered."""
        with open("endless", "wb") as file:
            file.truncate(1 << 36)
        return "--chunk", 1, "endless"

    def test_hub_and_clients_agree_on_every_file(self):
        pathlib.Path("empty").write_bytes(b"")
        pathlib.Path("check").write_bytes(b"123456789")
        # More than a socket buffers.
        pathlib.Path("large").write_bytes(b"x" * (9 << 20) + b" y\nz")
        for by in self.WAYS:
            two = self.ends(0, "exchange", *by, "--clients", 2, "empty", "check", "large")
            two.says(rb"client-1             0          0          0 00000000  agreed     empty")
            two.says(rb"client-2             9          0          1 cbf43926  agreed     check")
            two.says(rb"client-1       9437188          1          3 ")
            # Two hellos, an empty chunk and six others; their answers, and two farewells.
            two.says(rb"moved by the \w.*: 9.0 MiB of .*, clients: 2, messages: 9 there and 9 back")
            # More clients than files.
            idle = self.ends(0, "exchange", *by, "--clients", 3, "check")
            idle.says(rb"client-3             9          0          1 cbf43926  agreed     check")

    def test_either_way_talks_to_the_other(self):
        pathlib.Path("check").write_bytes(b"123456789")
        for ours, theirs in (("task", "session"), ("session", "task")):
            hub = Program("exchange", "hub", "--by", ours)
            self.ends(0, "exchange", "client", "--by", theirs, "--port", hub.port(), "check").says(
                b"agreed")
            self.ended(0, hub)

    def test_what_cannot_start_ends_with_a_message(self):
        pathlib.Path("file").write_text("text\n")
        missing = self.ends(1, "exchange", "file", "missing")
        missing.says(rb"missing: No such file or directory")
        for by in self.WAYS:
            with socket.create_server(("127.0.0.1", 0)) as other:
                port = other.getsockname()[1]
                taken = self.ends(1, "exchange", *by, "--port", port, "file")
                taken.says(rb"Address already in use")
            alone = self.ends(1, "exchange", "client", *by, "--port", port, "file")
            alone.says(rb"cannot connect to 127.0.0.1, port \d+: Connection refused")

    def test_serves_on_the_host_that_it_is_told(self):
        file = "clear\x1b[2J\n"
        pathlib.Path(file).write_bytes(b"")
        with socket.create_server(("127.0.0.1", 0)) as other:  # which would not answer
            port = other.getsockname()[1]
            run = self.ends(0, "exchange", "--timeout", 20, "--host", "127.0.0.2", "--port", port,
                            "--clients", 10, file)
        # In the order of their numbers, and nothing that a terminal would obey.
        rows = re.findall(rb"^(client-\d+ .*)\n", run.output(), re.MULTILINE)
        row = b"client-%-3d           0          0          0 00000000  agreed     " \
              rb"clear\x1b[2J\x0a"
        self.assertEqual([row % client for client in range(1, 11)], rows)
        run.says(rb"10 of 10 files \(100 %\)")

    def test_a_killed_process_ends_the_run(self):
        large = self.endless()
        for by in self.WAYS:
            for victim, says in ((0, ()),
                                 (1, (rb"hub was killed by signal 9", rb"client-2: lost the hub")),
                                 (2, (rb"client-1 was killed", rb"client-2: sent away"))):
                run = Program("exchange", *by, *large)
                run.says(rb"0 of 2 files")
                tasks = pathlib.Path(f"/proc/{run.process.pid}/task/{run.process.pid}/children")
                processes = [run.process.pid, *map(int, tasks.read_text().split())]
                os.kill(processes[victim], signal.SIGKILL)
                self.assertEqual(1 if victim else -signal.SIGKILL, run.end())
                for text in says:
                    run.says(text)
                self.assertEqual(4, len(processes))
                for process in processes:
                    self.gone(process)

    def test_a_stopped_process_is_given_up(self):
        large = self.endless()

        def stop_one(by, hub_stops):
            hub = Program("exchange", "hub", *by, "--timeout", 60 if hub_stops else 1)
            client = Program("exchange", "client", *by, "--timeout", 1 if hub_stops else 60,
                             "--port", hub.port(), "--name", "one", *large)
            hub.says(b"of 1 files")
            (hub if hub_stops else client).process.send_signal(signal.SIGSTOP)
            return client if hub_stops else hub

        # All at once: each is waited for, or waits, for seconds.
        left = [(stop_one(by, hub_stops), hub_stops) for by in self.WAYS for hub_stops in (0, 1)]
        for waits, hub_stops in left:
            self.ended(1, waits).says(
                rb"exchange one: gave up: no answer from the hub\n" if hub_stops else
                rb"hub: (lost one: no word from it|gave up: a client has stopped amid)")

    def test_a_hub_takes_no_half_file_and_no_second_one_of_a_name(self):
        last = field(b"Chunk") + number(1) + field(b"text", 8)
        hello = field(b"Hello") + field(b"one", 8) + number(1)
        refusal = b"the name is taken or none, or there are no files"
        for by in self.WAYS:
            hub = Program("exchange", "hub", *by)
            peer = Peer(hub.port()).says(hello)
            hub.says(rb"of 1 files")
            Peer(hub.port()).says(hello).hears(field(b"Farewell") + field(refusal, 8)).goes()
            peer.says(last[:-1]).goes()
            self.ended(1, hub).says(rb"exchange hub: lost one")

    def test_a_hub_does_not_wait_for_the_rest_of_a_message(self):
        half = field(b"Hello") + field(b"one", 8)
        pathlib.Path("file").write_bytes(b"")
        hub = Program("exchange", "hub", "--by", "session", "--timeout", 1)
        peer = Peer(hub.port()).says(half)
        # A session serves the others meanwhile.
        self.ends(0, "exchange", "client", "--port", hub.port(), "file")
        # It is there all the same, and told that all is over.
        self.assertTrue(peer.stream.read().startswith(field(b"Farewell")))
        peer.goes()
        self.ended(0, hub)
        # A message task cannot.
        hub = Program("exchange", "hub", "--by", "task", "--timeout", 1)
        peer = Peer(hub.port()).says(half)
        self.ended(1, hub).says(rb"hub: gave up: a client has stopped amid a message\n$")
        peer.goes()

    def test_a_hub_tells_its_progress_when_there_is_some(self):
        hub = Program("exchange", "hub", "--total", 4 << 20)
        time.sleep(2.2)  # more than two lines' time
        peer = Peer(hub.port()).says(field(b"Hello") + field(b"\x1b[2J", 8) + number(1))
        peer.says(field(b"Chunk") + number(0) + field(bytes(2 << 20), 8))
        peer.hears(field(b"Receipt") + number(2 << 20))
        time.sleep(3.2)  # the rate falls meanwhile
        peer.goes()
        self.ended(1, hub)
        self.assertRegex(hub.output(), rb"""^listening .*
(hub: 0.0 of 4.0 MiB \(0 %\), 0.0 MiB/s, 0 of 1 files
)?hub: 2.0 of 4.0 MiB \(50 %\), [0-9.]+ MiB/s, 0 of 1 files
exchange hub: lost \\x1b\[2J.*
moved by the message task: 2.0 MiB of files .*
$""")


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

    def test_listens_for_one_peer_only(self):
        listener = self.listen("-r", "Note")
        peer = Peer(listener.port()).says(field(b"Note") + field(b"text"))
        listener.says(rb"\nNote 4 text\n")
        self.assertRaises(ConnectionRefusedError, Peer, listener.port())
        peer.goes()
        self.ended(0, listener)

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
    def test_each_tells_its_help_and_version(self):
        for name in ("exchange", "gateway", "klvmsgcat", "ownloop", "pubsub", "service", "slow",
                     "workers"):
            usage = self.ends(0, name, "--help").output()
            self.assertTrue(usage.startswith(b"usage: %b " % name.encode()), usage)
            version = self.ends(0, name, "--version").output()
            self.assertRegex(version, rb"^%b \d+\.\d+\.\d+\n$" % name.encode())

    def test_pubsub_and_workers_come_to_their_end(self):
        self.ends(0, "pubsub")
        self.assertEqual(10, self.ends(0, "workers").output().count(b"the square of"))

    def test_each_says_that_its_host_is_unknown(self):
        pathlib.Path("file").write_bytes(b"")
        for line in ("exchange hub --host", "exchange client --port 1 file --host",
                     "exchange hub --by session --host",
                     "exchange client --by session --port 1 file --host",
                     "klvmsgcat -r Note -t 60 -l", "klvmsgcat -r Note -t 60 -c"):
            host = "no host:1" if line.startswith("klvmsgcat") else "no host"  # never looked up
            self.ends(1, *line.split(), host).says(
                rb": cannot (listen on|connect to) no host, port [01]: "
                rb"(the host is unknown|Name or service not known)")

    @unittest.skipIf(SANITIZED, "the sanitizers need descriptors of their own")
    def test_each_says_that_descriptors_run_out(self):
        pathlib.Path("file").write_bytes(b"")
        for line in ("exchange --timeout 2 file", "exchange --by session --timeout 2 file",
                     "pubsub --timeout 2", "workers --timeout 2"):
            # The fewer, the earlier it goes wrong: in the launcher, the server, a client.
            starved = [Program(*line.split(), limit=(resource.RLIMIT_NOFILE, most))
                       for most in range(4, 12)]
            self.assertTrue({program.end() for program in starved} <= {0, 1})
            said = [program.output() for program in starved]
            self.assertTrue(all(said), said)
            self.assertRegex(said[0], b"cannot (make a pipe|start a process)")
            if not line.startswith("exchange"):  # whose hub does not inherit the pipe
                self.assertIn(b": Too many open files", said[1])
            self.assertTrue(any(b"gave up" in words for words in said), said)

    @unittest.skipIf(SANITIZED, "the sanitizers need stacks of their own")
    def test_each_says_that_there_is_no_thread(self):
        for line in ("exchange hub", "exchange hub --by session", "pubsub", "workers"):
            # No room for the stack of one.
            self.ends(1, *line.split(), limit=(resource.RLIMIT_STACK, 10 ** 14)).says(
                b"cannot start a thread")

    def test_nobody_is_waited_for_without_end(self):
        pathlib.Path("file").write_bytes(b"")
        with socket.create_server(("127.0.0.1", 0)) as silent, \
                socket.create_server(("127.0.0.1", 0), backlog=0) as full:
            port, full_port = silent.getsockname()[1], full.getsockname()[1]
            first = Peer(full_port)
            started = [(Program(*line.split()), code, says) for line, code, says in (
                *((f"exchange client --by {by} --timeout 1 --port {to} file", 1, says)
                  for by in ("task", "session")
                  for to, says in ((port, b"no answer from the hub"),
                                   (full_port, b"the hub does not accept"))),
                (f"pubsub --timeout 1 subscribe {port} x", 1, b"no news from the publisher"),
                (f"pubsub --timeout 1 subscribe {full_port} x", 1, b"does not accept"),
                ("pubsub --timeout 1 publish", 1, b"not all subscribers have come"),
                (f"workers --timeout 1 work {port} all", 1, b"no job from the dispatcher"),
                (f"workers --timeout 1 work {full_port} all", 1, b"no job from the dispatcher"),
                ("workers --timeout 1 dispatch", 1, b"not all workers have come"),
                (f"klvmsgcat -t 1 -r Note -c 127.0.0.1:{full_port}", 6, b"within the time limit"))]
            for program, code, says in started:
                self.ended(code, program).says(says)
            first.goes()

    def meets(self, line, content, goes):
        """What a client says whose server says something and no more."""
        with socket.create_server(("127.0.0.1", 0)) as server:
            client = Program(*line.replace("PORT", str(server.getsockname()[1])).split())
            with server.accept()[0] as peer:
                peer.sendall(content)
                if goes:
                    peer.shutdown(socket.SHUT_WR)  # a close would throw away what is on its way
                return self.ended(1, client).output()

    def test_a_client_takes_no_half_message(self):
        line, half = "pubsub --timeout 2 subscribe PORT x", field(b"News") + b"xyz"
        self.assertIn(b": lost the ", self.meets(line, half, True))
        self.assertRegex(self.meets(line, half, False), b": (gave up: no|lost the) ")
        line, half = "workers --timeout 2 work PORT all", field(b"Job") + b"xyz"
        self.assertIn(b": gave up: no job", self.meets(line, half, False))

    def test_what_others_have_written_is_printed_safely(self):
        news = field(b"News") + field(b"\x1b[2J and so on")
        said = self.meets("pubsub --timeout 2 subscribe PORT x", news, False)
        self.assertEqual(rb"a subscriber of x has read: \x1b[2J and so on; " + b"\n", said)

    def test_a_server_takes_no_half_message(self):
        publisher = Program("pubsub", "--timeout", 2, "publish")
        subscribe = field(b"Subscribe") + field(b"xyz")
        Peer(publisher.port()).says(subscribe[:-1]).goes()
        rest = [Peer(publisher.port()).says(subscribe) for _ in range(3)]
        self.ended(1, publisher).says(rb"\npubsub: gave up: not all subscribers have come\n$")
        for peer in rest:
            peer.goes()

    def test_jobs_of_workers_that_go_are_done_by_those_who_come(self):
        dispatcher = Program("workers", "--timeout", 20, "dispatch")
        here = field(b"Result") + field(bytes(8))
        goes = [Peer(dispatcher.port()).says(here) for _ in range(3)]
        for peer in goes:
            peer.stream.read(len(field(b"Job") + field(number(1, 4))))
            peer.says(field(b"Result") + b"\1").goes()  # half an answer
        dispatcher.says(rb"(worker \d has gone\n){3}$")
        self.ends(0, "workers", "work", dispatcher.port(), "all")
        self.ended(0, dispatcher)
        self.assertEqual(10, dispatcher.output().count(b"worker 5: the square of "))

    def test_a_worker_finds_the_dispatcher_that_is_started_anew(self):
        here = field(b"Result") + field(bytes(8))
        with socket.create_server(("127.0.0.1", 0)) as server:
            worker = Program("workers", "work", server.getsockname()[1], "all")
            for end in (b"", field(b"Job") + field(number(0, 4))):
                with server.accept()[0] as peer:
                    self.assertEqual(here, peer.recv(len(here), socket.MSG_WAITALL))
                    peer.sendall(end)
        self.ended(0, worker)

    def test_a_gateway_serves_its_customers_and_no_one_else(self):
        self.ends(0, "gateway").says(rb"order 3: a bolt\n")
        gateway = Program("gateway", "--timeout", 2, "serve")
        with socket.create_connection(("127.0.0.1", gateway.port()), 30, ("127.1.0.1", 0)) as stranger:
            self.assertEqual(b"", stranger.recv(1))
        gateway.says(rb"refused: it was not admitted\n")
        self.ended(1, gateway).says(rb"gave up: nobody comes\n")

    def test_a_watcher_carries_on_with_the_next_thermometer(self):
        watched = self.ends(0, "reconnect")
        said = watched.says(rb"reading 1: (?s:.)*reading 6: 20.6 degrees\n")[0]
        self.assertEqual([b"123456"], [b"".join(re.findall(rb"reading (\d)", said))])

    def built(self, name):
        if not (PROGRAMS / name / name).exists():
            self.skipTest(f"{name} is not built: its library is not installed")
        return name

    def test_a_loop_of_ones_own_answers_while_its_timer_runs(self):
        for name in ("ownloop", "gloop"):
            with self.subTest(name):
                counted = self.ends(0, self.built(name))
                counted.says(rb": a connection\n(?s:.)*: the peer has closed\n")
                counts = re.findall(rb"(one|two): it has come to (\d+)\n", counted.output())
                self.assertEqual(6, len(counts))
                last = Program(name, "--timeout", 1, "count")
                self.ended(1, last).says(b"gave up: not all have come and gone")

    def test_a_service_is_asked_again_when_no_answer_comes_in_time(self):
        asked = self.ends(0, "service")
        self.assertEqual(1, asked.output().count(b"no answer in time\n"))
        asked.says(rb"bolt: 4 cents\n")
        with socket.create_server(("127.0.0.1", 0)) as silent:
            client = Program("service", "ask", silent.getsockname()[1], "bolt")
            with silent.accept()[0] as peer:
                self.ended(1, client).says(rb"service: gave up: no answer(?s:.)*(no answer in time\n){3}")
                asked = [field(b"Price") + field(number(n) + b"bolt") for n in (1, 2, 3)]
                self.assertEqual(b"".join(asked), peer.recv(1000))

    def test_counts_are_served_to_those_who_scrape(self):
        service = Program(self.built("scrape"), "serve")
        port = service.port()
        web = int(service.says(rb"metrics on 127.0.0.1, port (\d+)\n")[1])
        asker = Peer(port)
        question = number(1) + b"hello"
        asker.says(field(b"Echo") + field(question))
        asker.hears(field(b"Echo") + field(number(1 + (1 << 63)) + b"hello"))
        lines = []
        while not any(line.startswith("klvmsg_bytes_sent_total") and line.endswith(" 25") for line in lines):
            # What was sent counts when the sending thread is back, which may be after it was heard.
            with urllib.request.urlopen(f"http://127.0.0.1:{web}/metrics", timeout=30) as page:
                self.assertEqual("text/plain; version=0.0.4", page.headers["Content-Type"])
                lines = page.read().decode().splitlines()
        kinds = {line.split()[2]: line.split()[3] for line in lines if line.startswith("# TYPE")}
        helped = [line.split()[2] for line in lines if line.startswith("# HELP")]
        values = dict(re.fullmatch(r'(\w+)\{session="the \\"echo\\""\} (\d+)', line).groups()
                      for line in lines if not line.startswith("#"))
        self.assertEqual(list(kinds), helped)
        self.assertEqual(list(kinds), list(values))
        for name, kind in kinds.items():
            self.assertEqual("counter" if name.endswith("_total") else "gauge", kind, name)
        for name, value in (("connections", 1), ("messages_received_total", 1), ("messages_in_inbox", 0), ("questions_total", 0)):
            self.assertEqual(str(value), values["klvmsg_" + name], name)
        asker.goes()
        self.ended(0, service).says(rb"scrape: .*: a connection\n(?s:.)*: the peer has closed\n")

    def test_a_slow_subscriber_is_dropped_and_the_brisk_one_misses_nothing(self):
        slow = self.ends(0, "slow")
        behind = int(slow.says(rb"the slow subscriber is dropped, (\d+) messages behind\n")[1])
        self.assertIn(behind, range(1, 17))  # as far as its queue goes
        had = int(slow.says(rb"the brisk subscriber has had (\d+) items\n")[1])
        slow.says(rb"published %d items\n" % had)
        self.assertLess(int(slow.says(rb"dropped after (\d+) items\n")[1]), had)

    def test_bodies_of_other_libraries_come_back(self):
        for name, says in (("protobuf", rb"100 x bolt: 2000 cents\n(?s:.)*to pay: 8000 cents"),
                           ("cereal", rb"humidity: 0.375\ntemperature: 20.5\n")):
            with self.subTest(name):
                self.ends(0, self.built(name)).says(says)


if __name__ == "__main__":
    unittest.main()
