#!/usr/bin/env python3
"""Measures what each step of growth costs: processor time of bridge and servers for a message, and memory of a
connection, a bridge and a server: bridge_costs.py BUILD. Prints a table; less than a minute. Processor time
depends little on what else the machine does."""

import contextlib
import os
import signal
import socket
import sys

from bridge_bench import bare, send, start

from engine import Servers, wait_until

COUNT = 100000
CONNECTIONS = 1000
READERS = 10
TICK = os.sysconf("SC_CLK_TCK")


def spent(processes):
    """Microseconds of the processor, so far."""
    total = 0
    for process in processes:
        with open(f"/proc/{process.pid}/stat") as file:
            total += sum(map(int, file.read().rpartition(")")[2].split()[11:13]))
    return total * 1e6 / TICK


def kib(process):
    with open(f"/proc/{process.pid}/smaps_rollup") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("Pss:"))


def tell(what, *figures):
    print(f"| {what} | " + " | ".join(f"{figure:,.1f}" if isinstance(figure, float) else figure
                                      for figure in figures) + " |", flush=True)


def sending(name, copies):
    with contextlib.closing(Site(copies)) as site:
        options = ["--stream", "BENCH"] if copies else []
        bridge = site.start("--serve", "0", "--publish", "Tick=bench.bridge", *options)
        before = spent([bridge.process]), spent(site.servers.running.values())
        send(bridge, COUNT, bool(copies))
        tell(name, (spent([bridge.process]) - before[0]) / COUNT,
             (spent(site.servers.running.values()) - before[1]) / COUNT)


def reading(name, readers):
    with contextlib.closing(Site(1)) as site, contextlib.ExitStack() as stack:
        bridge = site.start("--serve", "hub=0", "--subscribe", "bench.>=hub", "--stream", "BENCH", "--site", "paris")
        peers = [stack.enter_context(socket.create_connection(("127.0.0.1", bridge.port())))
                 for _ in range(readers)]
        bridge.process.send_signal(signal.SIGSTOP)  # all is stored before it reads
        bare(site.servers, "bench.bare", COUNT, 8192)
        before = spent([bridge.process]), spent(site.servers.running.values())
        bridge.process.send_signal(signal.SIGCONT)
        left = [COUNT * (4 + 4 + 4 + 100)] * readers
        while any(left):
            for i, peer in enumerate(peers):
                left[i] -= len(peer.recv(min(1 << 20, left[i]))) if left[i] else 0
        tell(name, (spent([bridge.process]) - before[0]) / COUNT,
             (spent(site.servers.running.values()) - before[1]) / COUNT)


class Site:
    def __init__(self, copies):
        self.servers = Servers(max(copies, 1))
        self.bridges = []
        if copies:
            self.servers.make_stream("BENCH", ["bench.>"], copies)

    def start(self, *options):
        self.bridges.append(start(self.servers, *options))
        return self.bridges[-1]

    def close(self):
        for bridge in self.bridges:
            bridge.kill()
        self.servers.end()


def memory():
    with contextlib.closing(Site(0)) as site, contextlib.ExitStack() as stack:
        bridge = site.start("--serve", "0", "--publish", "*=bench.*", "--counts", "1")
        idle, server = kib(bridge.process), kib(site.servers.running[0])
        for _ in range(CONNECTIONS):
            stack.enter_context(socket.create_connection(("127.0.0.1", bridge.port())))
        wait_until(lambda: any(f"connections {CONNECTIONS}," in line for line in bridge.said), "all")
        tell("a bridge, a server", f"{idle / 1024:.1f} MiB", f"{server / 1024:.1f} MiB")
        tell("a connection to the bridge", f"{(kib(bridge.process) - idle) / CONNECTIONS:.1f} KiB", "")


def main():
    print("| 100 bytes, processor time of a message in µs | the bridge | the servers together |\n|---|---|---|")
    sending("published, one server, at most once", 0)
    sending("published, one server, a stream", 1)
    sending("published, three servers, a stream with three copies", 3)
    reading("handed on from a stream to one connection", 1)
    reading(f"the same to each of {READERS} connections", READERS)
    print("\n| memory, idle | | |\n|---|---|---|")
    memory()


if __name__ == "__main__":
    main()
