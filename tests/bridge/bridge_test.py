#!/usr/bin/env python3
"""The bridge as its users run it, with real servers: bridge_test.py PROGRAM [NAME...]."""

import json
import pathlib
import re
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import unittest

from engine import Bridge, Sender, Servers, free_ports, wait_until

import klvmsg

PROGRAM = sys.argv.pop(1)
CERTIFICATES = pathlib.Path(__file__).resolve().parents[2] / "examples/secure/certificates.sh"


class OneServer(unittest.TestCase):
    def setUp(self):
        self.servers = Servers()
        self.addCleanup(self.servers.end)
        self.client = self.servers.client()
        self.addCleanup(self.client.close)

    def start(self, *options):
        bridge = Bridge(PROGRAM, *options)
        self.addCleanup(lambda: bridge.process.poll() is None and bridge.kill())
        return bridge

    def bridge(self, *options):
        return self.start("--nats", self.servers.url, *options).ready()

    def test_carries_both_ways_and_drops_what_comes_back(self):
        bridge = self.bridge("--serve", "hub=0", "--publish", "Press=press.new", "--publish", "*=all.*",
                             "--prefix", "berlin.", "--site", "berlin", "--name", "one",
                             "--subscribe", "paris.>=hub", "--subscribe", "berlin.>=hub",
                             "--rules", "Tick=8; Odd=length(1,2,big)")
        self.client.subscribe("berlin.>")
        with klvmsg.connect("127.0.0.1", bridge.port(), rules="Tick=8; Odd=length(1,2,big)") as peer:
            for type, body, subject in (("Press", b"hello", "press.new"), ("A.b", b"", "all.A_b"),
                                        ("Tick", b"12345678", "all.Tick"), ("Odd", b"x\0\2yz", "all.Odd"),
                                        ("Press", bytes(range(256)) * 300, "press.new")):
                peer.send(type, body)
                came = self.client.next()
                self.assertEqual(("berlin." + subject, body), (came.subject, came.body))
                self.assertEqual({"KLVMsg-Type": type, "KLVMsg-Site": "berlin", "KLVMsg-Bridge": "berlin/one"},
                                 came.headers)
            self.client.publish("berlin.back", b"1", headers={"KLVMsg-Type": "Back", "KLVMsg-Site": "berlin"})
            self.client.publish("paris.Tick", b"too long for it")
            self.client.publish("paris.Tick", b"87654321")
            self.client.publish("paris.x", b"hi", headers={"KLVMsg-Type": "A.b", "KLVMsg-Site": "paris"})
            self.client.publish("paris.Odd", b"x\0\2yz")
            for type, body in (("Tick", b"87654321"), ("A.b", b"hi"), ("Odd", b"x\0\2yz")):
                self.assertEqual((type, body), tuple(peer.receive(60)))
            peer.send("Press", b"x" * 1048577)
            bridge.says("dropped: it is too long")
        code, counts = bridge.end()
        self.assertEqual((0, 6, 5, 1), (code, counts["from sessions"], counts["published"], counts["dropped"]))
        self.assertEqual((5, 3, 1, 1), tuple(counts[name] for name in (
            "from NATS", "handed on", "undelivered", "came back")))

    def test_with_a_stream_what_is_sent_twice_is_stored_once_and_is_handed_on_in_order(self):
        port, = free_ports(1)
        options = ("--publish", "Tick=ticks.*", "--stream", "TICKS", "--site", "berlin")
        first = self.bridge("--serve", "0", *options)
        other = self.bridge("--serve", "0", "--name", "two", *options)
        reader = self.bridge("--connect", f"hub=127.0.0.1:{port}", "--subscribe", "ticks.>=hub",
                             "--stream", "TICKS", "--site", "paris", "--log", "json")
        self.assertEqual(["ticks.>"], self.servers.stream("TICKS")["config"]["subjects"])
        bodies = [b"%d" % i for i in range(20000)]
        sender = Sender("press", first.port())
        sender.add(*bodies)
        sender.run(until=lambda: sender.stored > 5000)
        sender.address = ("127.0.0.1", other.port())  # sends again what is not known to be stored
        sender.run()
        self.assertEqual(bodies, [each.body for each in self.servers.all_of("TICKS", 20000)])
        # Nobody is there for the reader until now.
        with klvmsg.serve(port=port) as hub, hub.accept(timeout=60) as peer:
            self.assertEqual(bodies, [peer.receive(60).body for _ in bodies])
            wait_until(lambda: self.servers.ask("$JS.API.CONSUMER.INFO.TICKS.paris-bridge-ticks_Z-hub")[
                "num_ack_pending"] == 0, "that all are acknowledged")
        self.assertEqual(20000, reader.end()[1]["handed on"])
        events = [json.loads(line) for line in reader.said]
        self.assertIn("waiting", [event["event"] for event in events])

    def test_names_that_nats_cannot_take_harm_nobody(self):
        def frame(text):
            return struct.pack("=I", len(text)) + text
        bridge = self.bridge("--serve", "0", "--publish", "*=all.*", "--publish", "m" * 65400 + "=all.m",
                             "--stream", "ALL")
        for odd in (frame(b"n" * 5000) + frame(b"lost"), frame(b"m" * 65400) + frame(b"lost"),
                    *(frame(b"KLVMsgBridgeFrom") + frame(struct.pack("=Q", 1) + name)
                      for name in (b"a\0b", b"a" * 1100000, b"a b"))):
            with socket.create_connection(("127.0.0.1", bridge.port())) as peer:
                peer.sendall(odd + b"".join(frame(b"Tick") + frame(b"%d" % i) for i in range(3)))
        wait_until(lambda: self.servers.stored("ALL") == 15, lambda: self.servers.stream("ALL"), 20)
        self.assertEqual((15, 2), tuple(bridge.end()[1][name] for name in ("published", "dropped")))

    def test_a_hundred_thousand_are_stored_once_and_in_order(self):
        bridge = self.bridge("--serve", "0", "--publish", "*=all.*", "--stream", "ALL", "--window", "500")
        with klvmsg.connect("127.0.0.1", bridge.port()) as peer:
            for i in range(100000):
                peer.send("Tick", b"%d" % i)
        wait_until(lambda: self.servers.stored("ALL") == 100000, lambda: self.servers.stream("ALL"))
        self.assertEqual(list(range(100000)), [int(each.body) for each in self.servers.all_of("ALL", 100000)])
        self.assertEqual((0, 100000), (bridge.end()[0], bridge.end()[1]["published"]))

    def test_what_is_received_when_it_ends_is_stored_all_the_same(self):
        bridge = self.bridge("--serve", "0", "--publish", "*=all.*", "--stream", "ALL")
        with klvmsg.connect("127.0.0.1", bridge.port()) as peer:
            for i in range(20000):
                peer.send("Tick", b"%d" % i)
            wait_until(lambda: self.servers.stored("ALL") > 1000, "the first ones")
            bridge.process.terminate()
        _, counts = bridge.end()
        self.assertEqual((counts["from sessions"], 0), (counts["published"], counts["dropped"]))
        self.assertEqual(counts["published"], self.servers.stored("ALL"))

    def test_connects_anew_when_nats_has_refused_it_and_knows_it_again(self):
        servers = Servers(extra="authorization { users = [{ user: test, password: test },"
                                " { user: bridge, password: first }] }")
        self.addCleanup(servers.end)
        port, = free_ports(1)
        bridge = self.start("--nats", servers.url.replace("//", "//bridge:first@"), "--serve", port,
                            "--publish", "*=all.*").ready()
        servers.change("first", "second")
        bridge.says("it connects anew")
        bridge.says("cannot connect")
        servers.change("second", "first")
        bridge.says("anew(.|\n)*carrying messages")
        client = servers.client()
        self.addCleanup(client.close)
        client.subscribe("all.>")
        with klvmsg.connect("127.0.0.1", port) as peer:
            peer.send("Tick", b"hi")
            self.assertEqual(b"hi", client.next().body)
        self.assertEqual(0, bridge.end()[0])
        self.assertNotIn("first", "".join(bridge.said), "a password")

    def test_an_answer_without_a_place_stores_nothing_and_who_is_alone_asks_for_another_leader(self):
        servers = Servers(jetstream=False)  # the stream is the test
        self.addCleanup(servers.end)
        stream = servers.client()
        self.addCleanup(stream.close)
        stream.subscribe(">")
        passed = []

        def answer(subject, text):
            while (asked := stream.next()).subject != subject:
                passed.append(asked.subject)
            stream.publish(asked.reply, text)
        step_down, unknown = "$JS.API.STREAM.LEADER.STEPDOWN.ALL", b'{"stream":"ALL", "seq":0,"duplicate": true}'
        bridge = self.start("--nats", servers.url, "--serve", "0", "--publish", "*=all.*", "--stream", "ALL")
        answer("$JS.API.STREAM.INFO.ALL", json.dumps({"config": {
            "name": "ALL", "subjects": ["all.*"], "duplicate_window": 120 * 10**9}, "state": {}}).encode())
        with klvmsg.connect("127.0.0.1", bridge.ready().port()) as peer:
            peer.send("Tick", b"hi")
            for _ in range(5):
                answer("all.Tick", unknown)
            answer(step_down, b'{"success": true}')
            answer("all.Tick", b'{"stream":"ALL", "seq":1}')
            peer.send("Tick", b"ho")
            answer("all.Tick", b'{"error":{"err_code":10070,"description":"wrong last msg ID: another:7"},"seq":0}')
            for _ in range(5):
                answer("all.Tick", unknown)
            answer("all.Tick", b'{"stream":"ALL", "seq":2}')
        code, counts = bridge.end()
        self.assertEqual((0, 2, 11), (code, counts["published"], counts["sent again"]))
        self.assertNotIn(step_down, passed, "others publish as well")

    def test_ends_when_told_to_while_a_stream_does_not_answer(self):
        servers = Servers(jetstream=False)
        self.addCleanup(servers.end)
        bridge = self.start("--nats", servers.url, "--serve", "hub=0", "--subscribe", "all.>=hub",
                            "--stream", "ALL")
        bridge.says("does not answer yet")
        self.assertEqual(0, bridge.end()[0])

    def test_a_reader_that_somebody_has_deleted_is_told(self):
        reader = self.bridge("--connect", "hub=127.0.0.1:1", "--subscribe", "ticks.>=hub", "--stream", "TICKS")
        name, = self.servers.ask("$JS.API.CONSUMER.NAMES.TICKS")["consumers"]
        self.assertTrue(self.servers.ask(f"$JS.API.CONSUMER.DELETE.TICKS.{name}")["success"])
        reader.says(f"nobody answers for the reader {name} of the stream TICKS")

    def test_two_of_a_group_take_turns_over_tls(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        subprocess.run([CERTIFICATES, folder.name, "hub", "IP:127.0.0.1", "bridge", "IP:127.0.0.1"],
                       check=True, stderr=subprocess.DEVNULL)
        file = pathlib.Path(folder.name).joinpath
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(file("hub.pem"), file("hub.key"))
        tls.load_verify_locations(file("authority.pem"))
        tls.verify_mode = ssl.CERT_REQUIRED
        tls.num_tickets = 0
        own = file("bridge.pem"), file("bridge.key")
        secured = Servers(extra=f'tls {{ cert_file: "{file("hub.pem")}", key_file: "{file("hub.key")}",'
                                f' ca_file: "{file("authority.pem")}", verify: true }}', tls=own)
        self.addCleanup(secured.end)
        nameless = self.start("--nats", secured.url, "--nats-tls", file("authority.pem"), "--serve", "0",
                              "--publish", "*=all.*")
        nameless.says("cannot connect")
        self.assertEqual((0, False), (nameless.end()[0], any("connected to" in line for line in nameless.said)))
        with socket.create_server(("127.0.0.1", 0)) as hub:
            hub.settimeout(60)
            options = ("--connect", f"hub=127.0.0.1:{hub.getsockname()[1]}", "--publish", "*=all.*",
                       "--subscribe", "news.>=hub", "--group", "pair", "--site", "berlin",
                       "--tls", f"{own[0]},{own[1]},{file('authority.pem')}",
                       "--nats-tls", f"{file('authority.pem')},{own[0]},{own[1]}")
            bridges = []
            for name, words in (("a", "carrying"), ("b", "connected to")):  # or both may begin at a time
                bridges.append(self.start("--nats", secured.url, *options, "--name", name))
                bridges[-1].says(words)
            for left in (2, 1):
                peer = tls.wrap_socket(hub.accept()[0], server_side=True)
                peer.sendall(b"\1")  # it is admitted
                first, = wait_until(lambda: [one for one in bridges if "carrying" in "".join(one.said)], "a turn")
                client = secured.client()
                client.subscribe("all.>")
                peer.sendall(struct.pack("=I4sI2s", 4, b"Tick", 2, b"hi"))
                self.assertEqual(b"hi", client.next().body)
                client.publish("news.Tick", b"ho")
                got = b""
                while len(got) < 14:
                    got += peer.recv(100)
                self.assertEqual(struct.pack("=I4sI2s", 4, b"Tick", 2, b"ho"), got)
                client.close()
                first.kill()
                bridges.remove(first)
                socket.socket(fileno=peer.detach()).close()

    def test_refuses_what_makes_no_sense_and_tells_what_would_go_where(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        file = pathlib.Path(folder.name, "bridge.conf")
        file.write_text("# a bridge\nserve hub=4711\npublish *=all.*\nprefix berlin.\nrules Tick=8\n\nstream ALL\n")

        def run(*options):
            done = subprocess.run([PROGRAM, *options], capture_output=True, text=True, timeout=60)
            return done.returncode, done.stdout + done.stderr
        code, text = run("--config", str(file), "--subscribe", "paris.>=hub", "--check", "--site", "here")
        self.assertEqual((0, """messages of every other type go to the subject berlin.all.*
what comes on paris.> goes to the label hub
the label hub is who connects to 127.0.0.1, port 4711
bodies of Tick have 8 bytes
what comes from the site here is not taken
at least once, with the stream ALL
"""), (code, text))
        named = set(re.findall(r"--([a-z-]+)", run("--help")[1])) - {"value"}
        manual = pathlib.Path(__file__).resolve().parents[2] / "KLVMsgBridge/klvmsg-bridge.1"
        self.assertEqual(named, set(re.findall(r"^\.It Fl -([a-z-]+)", manual.read_text(), re.M)) | {"help", "version"})
        base = ("--serve", "0", "--publish", "A=a")
        for options, words in (((), "neither --connect nor --serve"), (("--serve", "0"), "nothing to do"),
                               ((*base, "--publish", "B=b..c"), "b..c"), ((*base, "--publish", "A=b"), "A have"),
                               ((*base, "--answer", "0"), "from 1"),
                               ((*base, "--rules", "Odd=many"), "Odd: neither"), ((*base, "--serv", "1"), "serv"),
                               ((*base, "--rules", "*=8"), "are framed"), ((*base, "--subscribe"), "needs a value"),
                               ((*base, "--config", "/nowhere/at/all"), "No such file"),
                               (("--connect", "x:70000", "--publish", "A=a"), "70000")):
            self.assertEqual(2, run(*options)[0], options)
            self.assertIn(words, run(*options)[1])
        with socket.create_server(("127.0.0.1", 0)) as taken:
            code, text = run("--nats", self.servers.url, "--serve", str(taken.getsockname()[1]), "--publish", "A=a")
        self.assertEqual(1, code)
        self.assertIn("cannot serve port", text)


if __name__ == "__main__":
    unittest.main()
