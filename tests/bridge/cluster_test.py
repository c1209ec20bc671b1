#!/usr/bin/env python3
"""The bridge and a cluster of three servers, of which something is killed or cut off in the middle:
cluster_test.py PROGRAM [NAME...]. Minutes in all; as root for the one with a network of its own."""

import collections
import os
import subprocess
import sys
import threading
import time
import unittest

from engine import Bridge, Sender, Servers, free_ports, wait_until

import klvmsg

PROGRAM = sys.argv.pop(1)
COUNT = int(os.environ.get("MESSAGES", "100000"))


class Cluster(unittest.TestCase):
    def setUp(self):
        self.servers = Servers(3)
        self.addCleanup(self.servers.end)
        self.servers.make_stream("ALL", ["all.>"], replicas=3)

    def bridge(self, *options):
        bridge = Bridge(PROGRAM, "--nats", self.servers.url, "--stream", "ALL", *options)
        self.addCleanup(lambda: bridge.process.poll() is None and bridge.kill())
        return bridge.ready()

    def sender(self, port):
        sender = Sender("press", port)
        sender.add(*(b"%d" % i for i in range(COUNT)))
        return sender

    def expect_each_once(self):
        bodies = [int(each.body) for each in self.servers.all_of("ALL", self.servers.stored("ALL"))]
        twice = [body for body, times in collections.Counter(bodies).items() if times > 1]
        self.assertEqual([], twice, "none is there twice")
        self.assertEqual([], sorted(set(range(COUNT)) - set(bodies)), "none is missing")
        self.assertEqual(list(range(COUNT)), bodies, "in order")

    def test_the_leader_is_killed(self):
        bridge = self.bridge("--serve", "0", "--publish", "*=all.*")
        sender = self.sender(bridge.port())
        sender.run(until=lambda: sender.stored > COUNT // 3)
        leader = self.servers.leader("ALL")
        killer = threading.Timer(0.3, self.servers.kill, [leader])
        killer.start()
        sender.run(limit=120)
        killer.join()
        print("".join(bridge.said), sender.connects)
        self.servers.start(leader)
        self.expect_each_once()

    def test_the_leader_steps_down(self):
        bridge = self.bridge("--serve", "0", "--publish", "*=all.*")
        sender = self.sender(bridge.port())
        for part in (4, 3, 2):
            sender.run(until=lambda: sender.stored > COUNT // part)
            before = self.servers.leader("ALL")
            self.servers.ask("$JS.API.STREAM.LEADER.STEPDOWN.ALL")
        sender.run(limit=120)
        print("".join(bridge.said), sender.connects)
        self.expect_each_once()

    def test_the_bridges_are_killed(self):
        port, hub_port = free_ports(2)
        options = ("--serve", f"hub={port}", "--publish", "*=all.*", "--site", "berlin")
        bridge = self.bridge(*options)
        read = ("--connect", f"hub=127.0.0.1:{hub_port}", "--subscribe", "all.>=hub", "--site", "paris")
        reader = self.bridge(*read)
        sender = self.sender(port)
        came = []

        def listen():
            with klvmsg.serve(port=hub_port) as hub:
                while len(set(came)) < COUNT:
                    with hub.accept(timeout=120) as peer:
                        try:
                            while len(came) < COUNT or len(set(came)) < COUNT:
                                came.append(int(peer.receive(60).body))
                        except klvmsg.PeerGone:
                            pass
        hub = threading.Thread(target=listen)
        hub.start()
        for part in (3, 2):
            sender.run(until=lambda: sender.stored > COUNT // part)
            reader.kill()
            bridge.kill()
            bridge = self.bridge(*options)
            reader = self.bridge(*read)
        sender.run(limit=120)
        hub.join(120)
        self.expect_each_once()
        self.assertEqual(3, sender.connects)
        once = sorted(set(came))
        self.assertEqual(list(range(COUNT)), once, "none is missing")
        print(f"{len(came) - COUNT} came twice to the hub")
        self.assertLess(len(came) - COUNT, 2 * 600, "what was handed on and not yet acknowledged")
        first = list(dict.fromkeys(came))
        self.assertEqual(once, first, "in order, but for what comes again")


if __name__ == "__main__":
    unittest.main()
