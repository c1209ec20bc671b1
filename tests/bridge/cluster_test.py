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

from engine import Bridge, Sender, Servers, enter_own_network, free_ports, wait_until

import klvmsg

# All of it in a network of its own, where that may be made.
HAS_NETWORK = enter_own_network()
PROGRAM = sys.argv.pop(1)
COUNT = int(os.environ.get("MESSAGES", "100000"))


class Cluster(unittest.TestCase):
    def setUp(self):
        self.servers = Servers(3)
        self.addCleanup(lambda servers=self.servers: servers.end())
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
        sender.run(limit=300)
        killer.join()
        self.servers.start(leader)
        self.expect_each_once()

    def test_the_leader_steps_down(self):
        bridge = self.bridge("--serve", "0", "--publish", "*=all.*")
        sender = self.sender(bridge.port())
        for part in (4, 3, 2):
            sender.run(until=lambda: sender.stored > COUNT // part)
            before = self.servers.leader("ALL")
            self.servers.ask("$JS.API.STREAM.LEADER.STEPDOWN.ALL")
        sender.run(limit=300)
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
        sender.run(limit=300)
        hub.join(120)
        self.expect_each_once()
        self.assertEqual(3, sender.connects)
        once = sorted(set(came))
        self.assertEqual(list(range(COUNT)), once, "none is missing")
        print(f"{len(came) - COUNT} came twice to the hub")
        self.assertLess(len(came) - COUNT, 2 * 600, "what was handed on and not yet acknowledged")
        first = list(dict.fromkeys(came))
        self.assertEqual(once, first, "in order, but for what comes again")

    @unittest.skipUnless(HAS_NETWORK, "only root makes a network")
    def test_the_network_between_is_cut(self):
        far = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        self.addCleanup(lambda: (far.kill(), far.wait()))
        wait_until(lambda: os.readlink(f"/proc/{far.pid}/ns/net") != os.readlink("/proc/self/ns/net"), "a network")
        there = ("nsenter", "--target", str(far.pid), "--net")

        def run(*words):
            subprocess.run(words, check=True)
        run("ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns", str(far.pid))
        run("ip", "addr", "add", "10.1.0.1/24", "dev", "near")
        run(*there, "ip", "addr", "add", "10.1.0.2/24", "dev", "far")
        run("ip", "link", "set", "near", "up")
        for device in ("lo", "far"):
            run(*there, "ip", "link", "set", device, "up")
        self.servers = Servers(1, ["10.1.0.2"], there)
        self.addCleanup(self.servers.end)
        hub_port, = free_ports(1)
        bridge = self.bridge("--serve", "0", "--publish", "*=all.*", "--site", "berlin")
        self.bridge("--connect", f"hub=127.0.0.1:{hub_port}", "--subscribe", "all.>=hub", "--site", "paris")
        sender = self.sender(bridge.port())
        came = []

        def listen():
            with klvmsg.serve(port=hub_port) as hub, hub.accept(timeout=120) as peer:
                while came[-1:] != [COUNT - 1]:
                    came.append(int(peer.receive(120).body))
        hub = threading.Thread(target=listen)
        hub.start()
        sender.run(until=lambda: sender.stored > COUNT // 4)

        def cut():
            run("ip", "link", "set", "near", "down")
            time.sleep(20)
            run("ip", "link", "set", "near", "up")
        cutting = threading.Timer(0.2, cut)
        cutting.start()
        sender.run(limit=300)
        cutting.join()
        hub.join(120)
        self.expect_each_once()
        self.assertEqual(list(range(COUNT)), came, "to the hub each once and in order as well")


if __name__ == "__main__":
    unittest.main()
