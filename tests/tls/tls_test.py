#!/usr/bin/env python3
"""The example `secure` as its users run it, with peers that are not ours: tls_test.py PROGRAM."""

import pathlib
import re
import shutil
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROGRAM = pathlib.Path(sys.argv.pop(1)).resolve()
CERTIFICATES = pathlib.Path(__file__).resolve().parents[2] / "examples/secure/certificates.sh"
SANITIZED = re.search(rb"__[at]san_init", PROGRAM.read_bytes())
ADMITTED = b"\1"


def field(content):
    return struct.pack("=I", len(content)) + content


def question(text):
    return field(b"Question") + field(text)


def answer(text):
    return field(b"Answer") + field(b"I have heard: " + text)


def certificates(folder, *names):
    subprocess.run([CERTIFICATES, folder, *names], check=True, stderr=subprocess.DEVNULL)


class Protected(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        certificates(self.folder, "gateway", "DNS:localhost,IP:127.0.0.1",
                     "press", "DNS:press.example")
        self.log = open(self.folder / "log", "w+b")
        self.addCleanup(self.log.close)
        self.gateway = subprocess.Popen(
            [PROGRAM, "--timeout", "60", "gateway", self.folder, "gateway", "0"],
            stdout=self.log, stderr=self.log)
        self.addCleanup(self.end)
        self.port = int(self.says(rb"serving on 127.0.0.1, port (\d+)\n")[1])

    def end(self):
        self.assertIsNone(self.gateway.poll(), self.output())
        self.gateway.terminate()
        self.gateway.wait()

    def output(self):
        return pathlib.Path(self.log.name).read_bytes()

    def memory(self):
        """Of the gateway, in KiB."""
        status = pathlib.Path(f"/proc/{self.gateway.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", status)[1])

    def says(self, pattern, times=1):
        limit = time.monotonic() + 60
        while time.monotonic() < limit and self.gateway.poll() is None:
            if len(found := list(re.finditer(pattern, self.output()))) >= times:
                return found[-1]
            time.sleep(0.01)
        raise AssertionError(f"{pattern} is not {times} times in {self.output()}")

    def ask(self, code, port=None, name="press", host="127.0.0.1"):
        asked = subprocess.run(
            [PROGRAM, "--timeout", "20", "ask", self.folder, name, host, str(port or self.port), "why"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
        self.assertEqual(code, asked.returncode, asked.stdout)
        return asked.stdout

    def context(self, shows=True):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.load_verify_locations(self.folder / "authority.pem")
        if shows:
            context.load_cert_chain(self.folder / "press.pem", self.folder / "press.key")
        return context

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=30)

    def peer(self, context=None):
        return (context or self.context()).wrap_socket(self.connect(), server_hostname="127.0.0.1",
                                                       suppress_ragged_eofs=False)

    def test_asks_and_answers_under_the_names_of_the_certificates(self):
        said = self.ask(0)
        self.assertRegex(said, rb"a connection of localhost, 127.0.0.1\nI have heard: why\n")
        self.assertIn(b"localhost", self.ask(0, host="localhost"))
        self.says(rb"a connection of press.example\n", 2)
        self.says(rb"the peer has closed\n", 2)

    def test_turns_away_who_is_not_trusted_or_speaks_something_else(self):
        with self.peer(self.context(shows=False)) as nobody, \
                self.assertRaisesRegex(ssl.SSLError, "CERTIFICATE_REQUIRED"):
            nobody.recv(1)
        self.says(rb"refused: the client: it has no certificate\n")
        old = self.context()
        old.maximum_version = ssl.TLSVersion.TLSv1_2
        with self.assertRaisesRegex(ssl.SSLError, "PROTOCOL_VERSION"):
            self.peer(old)
        self.says(rb"refused: the client: unsupported protocol\n")
        with self.connect() as plain:
            plain.sendall(question(b"in the clear"))
            self.assertLess(len(plain.recv(100)), 10)
        self.says(rb"refused: the client: it does not speak TLS\n")
        with socket.create_server(("127.0.0.1", 0)) as server:
            def close():
                server.accept()[0].close()
            thread = threading.Thread(target=close)
            thread.start()
            self.assertRegex(self.ask(1, server.getsockname()[1]),
                             rb"cannot connect to .* the server: (it has closed|Connection reset)")
            thread.join()

    def test_fills_records_once_it_has_greeted(self):
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        tls = self.context().wrap_bio(incoming, outgoing, server_hostname="127.0.0.1")
        with self.connect() as plain:
            came = b""

            def until(operation, *what):
                nonlocal came
                while True:
                    try:
                        result = operation(*what)
                        plain.sendall(outgoing.read())
                        return result
                    except ssl.SSLWantReadError:
                        plain.sendall(outgoing.read())
                        came = plain.recv(1 << 20)
                        incoming.write(came)
            until(tls.do_handshake)
            self.assertEqual(ADMITTED, until(tls.read, 1))
            until(tls.write, question(b"x" * 100000))
            until(tls.read, 1)
            self.assertGreater(int.from_bytes(came[3:5], "big"), 16384, "the length of the first record")

    def test_tells_an_end_from_a_cut_and_still_answers(self):
        peer = self.peer()
        self.assertEqual(ADMITTED, peer.recv(1))
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        half = self.context().wrap_bio(incoming, outgoing, server_hostname="127.0.0.1")
        with self.connect() as plain:
            def until_done(step):
                while True:
                    try:
                        return step()
                    except ssl.SSLWantReadError:
                        plain.sendall(outgoing.read())
                        incoming.write(plain.recv(65536))
            until_done(half.do_handshake)
            half.write(question(b"at once"))  # goes with the last words of the handshake
            self.assertEqual(ADMITTED, until_done(lambda: half.read(1)))
            self.assertEqual(answer(b"at once"), until_done(lambda: half.read(100)))
            half.write(question(b"the last one"))
            with self.assertRaises(ssl.SSLWantReadError):
                half.unwrap()  # ends our output alone
            plain.sendall(outgoing.read())
            self.says(rb"the peer has closed\n")
            got = b""
            while data := plain.recv(65536):
                got += data  # our library's reading ends with unwrap
            self.assertGreater(len(got), len(answer(b"the last one")))
        peer.sendall(question(b"and cut"))
        self.assertEqual(answer(b"and cut"), peer.recv(100))
        socket.socket(fileno=peer.detach()).close()
        self.says(rb"the connection was cut\n")

    def test_a_client_reads_what_came_with_its_admission(self):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.folder / "gateway.pem", self.folder / "gateway.key")
        context.load_verify_locations(self.folder / "authority.pem")
        context.verify_mode = ssl.CERT_REQUIRED
        context.num_tickets = 0
        with socket.create_server(("127.0.0.1", 0)) as server:
            def serve():
                incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
                tls = context.wrap_bio(incoming, outgoing, server_side=True)
                with server.accept()[0] as plain:
                    while True:
                        try:
                            tls.do_handshake()
                            break
                        except ssl.SSLWantReadError:
                            plain.sendall(outgoing.read())
                            incoming.write(plain.recv(65536))
                    tls.write(ADMITTED)
                    tls.write(answer(b"before it was asked"))
                    plain.sendall(outgoing.read())
                    while plain.recv(65536):
                        pass
            thread = threading.Thread(target=serve)
            thread.start()
            self.assertIn(b"I have heard: before", self.ask(0, server.getsockname()[1]))
            thread.join()

    def test_a_handshake_that_is_cut_anywhere_harms_nobody(self):
        context = self.context()

        def handshake(most):
            """Sends so many bytes, and then the end; whether that was all."""
            incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
            tls = context.wrap_bio(incoming, outgoing, server_hostname="127.0.0.1")
            with self.connect() as plain:
                while True:
                    try:
                        tls.do_handshake()
                        done = True
                    except ssl.SSLWantReadError:
                        done = False
                    data = outgoing.read()
                    plain.sendall(data[:most])
                    most -= len(data)
                    if most < 0 or done:
                        plain.shutdown(socket.SHUT_WR)
                        while plain.recv(65536):
                            pass
                        return most >= 0
                    incoming.write(plain.recv(65536))

        count = 0
        while not handshake(count):
            count += 1
        self.assertGreater(count, 500)
        self.says(rb"refused: |was cut", count + 1)
        self.assertIn(b"I have heard", self.ask(0))

    def test_a_client_tells_a_handshake_that_is_cut_anywhere(self):
        whole = None
        with socket.create_server(("127.0.0.1", 0)) as server:
            for most in [1 << 20, *range(0, 1 << 20, 97)]:
                if whole is not None and most >= whole:
                    break
                carried = 0

                def relay():
                    nonlocal carried
                    near, far = server.accept()[0], self.connect()

                    def up():
                        try:
                            while data := near.recv(65536):
                                far.sendall(data)
                        except OSError:
                            pass  # it was cut
                    thread = threading.Thread(target=up)
                    thread.start()
                    while carried < most and (data := far.recv(min(65536, most - carried))):
                        near.sendall(data)
                        carried += len(data)
                    for one in (near, far):
                        try:
                            one.shutdown(socket.SHUT_RDWR)
                        except OSError:
                            pass
                    thread.join()
                    near.close()
                    far.close()
                thread = threading.Thread(target=relay)
                thread.start()
                said = self.ask(0 if whole is None else 1, server.getsockname()[1])
                thread.join()
                if whole is None:
                    # Without the answer and the farewell.
                    whole = carried - len(answer(b"why")) - 2 * 22 - 2
                else:
                    self.assertRegex(said, rb"cannot connect to [^\n]* the server: |lost the gateway")

    def test_a_thousand_half_open_ones_harm_nobody(self):
        self.ask(0)
        before = self.memory()
        half_open = []
        for _ in range(1000):
            half_open.append(self.connect())
            self.addCleanup(half_open[-1].close)
        self.says(rb"others came before", 900)
        self.assertIn(b"I have heard", self.ask(0))
        if not SANITIZED:  # which keep memory of their own
            self.assertLess(self.memory() - before, 100 * 64 + 2000)
        for one in half_open:
            one.close()
        self.says(rb"refused: ", 1000)

    def test_certificates_are_renewed_while_everybody_talks(self):
        stays, over, asked = self.peer(), threading.Event(), []
        self.addCleanup(stays.close)
        self.assertEqual(ADMITTED, stays.recv(1))

        def ask_on():
            while not over.is_set():
                try:
                    with self.peer() as one:
                        one.sendall(question(b"while they change"))
                        asked.append(one.recv(1) + one.recv(100))
                except OSError as error:
                    asked.append(error)
        threads = [threading.Thread(target=ask_on) for _ in range(4)]
        for thread in threads:
            thread.start()
        for i in range(10):
            certificates(self.folder, "gateway", f"DNS:renewed{i},IP:127.0.0.1")
            stays.sendall(question(b"as before"))
            self.assertEqual(answer(b"as before"), stays.recv(100))
        over.set()
        for thread in threads:
            thread.join()
        self.assertGreater(len(asked), 10)
        self.assertEqual({ADMITTED + answer(b"while they change")}, set(asked))
        self.assertIn(b"of renewed9", self.ask(0))

    def test_half_open_ones_take_little_memory(self):
        """Those who have begun a handshake, up to the last bytes of the longest chain that may be."""
        if SANITIZED:  # which keep memory of their own
            return
        chain = self.folder / "long.pem"
        chain.write_bytes((self.folder / "press.pem").read_bytes() * 28)
        context = self.context(shows=False)
        context.load_cert_chain(chain, self.folder / "press.key")

        def open_half():
            incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
            tls = context.wrap_bio(incoming, outgoing, server_hostname="127.0.0.1")
            plain = self.connect()
            self.addCleanup(plain.close)
            while True:
                try:
                    tls.do_handshake()
                    break
                except ssl.SSLWantReadError:
                    plain.sendall(outgoing.read())
                    incoming.write(plain.recv(65536))
            plain.sendall(outgoing.read()[:-200])
        for _ in range(5):
            open_half()
        self.ask(0)
        before = self.memory()
        for _ in range(90):
            open_half()
        self.ask(0)  # so that all of it has been read
        self.assertLess(self.memory() - before, 90 * 64)

    def test_takes_new_files_and_keeps_the_old_ones_where_they_are_of_no_use(self):
        key, shown = self.folder / "gateway.key", self.folder / "gateway.pem"
        kept = key.read_bytes()
        self.assertIn(b"of localhost", self.ask(0))
        for bad, why in ((b"", b"cannot be used: "),
                         ((self.folder / "press.key").read_bytes(), b"mismatch")):
            key.write_bytes(bad)
            self.assertIn(b"of localhost", self.ask(0))
            self.assertIn(b"of localhost", self.ask(0))
            self.says(b"the key .*%b.*what was there before is still used\n" % why)
        self.assertEqual(2, self.output().count(b"still used"), "told once")
        key.write_bytes(kept)
        certificates(self.folder, "gateway", "DNS:renewed,IP:127.0.0.1")
        self.assertIn(b"of renewed", self.ask(0))
        subprocess.run(["openssl", "pkey", "-in", key, "-aes128", "-passout", "pass:x", "-out",
                        self.folder / "locked.key"], check=True)
        shutil.copy(shown, self.folder / "locked.pem")
        self.assertIn(b"it has a password", self.ask(1, name="locked"))
        self.assertIn(b"No such file", self.ask(1, name="nobody"))
        self.assertNotIn(b"PRIVATE", self.output())


if __name__ == "__main__":
    unittest.main()
