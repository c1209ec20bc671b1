#!/usr/bin/env python3
"""Measures what one bridge carries beside a bare client of NATS that sends the same headers, in turns in
the same run: bridge_bench.py BUILD [ROUNDS]. Prints a table; up to two minutes, on a machine that has
nothing else to do."""

import pathlib
import socket
import statistics
import struct
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/bridge"))
from engine import Bridge, Servers  # noqa: E402

BUILD = pathlib.Path(sys.argv[1])
ROUNDS = int(sys.argv[2]) if len(sys.argv) > 2 else 3
SIZE = 100
WINDOW = 8192
TAKEN = 33  # bytes of a message KLVMsgBridgeTaken, of which the last 8 tell up to which all are stored


def bare(servers, subject, count, *window):
    done = subprocess.run([BUILD / "benchmarks/natsTalker", servers.url.split(",")[0], subject, str(count),
                           str(SIZE), *map(str, window)], check=True, stdout=subprocess.PIPE, timeout=300)
    return float(done.stdout)


def start(servers, *options):
    return Bridge(BUILD / "KLVMsgBridge/klvmsg-bridge", "--nats", servers.url.split(",")[0], "--site", "berlin",
                  *options).ready()


def send(running, count, is_stored):
    """Until NATS, or the stream, has taken all."""
    message = struct.pack(f"=I4sI{SIZE}s", 4, b"Tick", SIZE, b"x" * SIZE)
    with socket.create_connection(("127.0.0.1", running.port())) as peer:
        if is_stored:
            peer.sendall(struct.pack("=I16sIQ5s", 16, b"KLVMsgBridgeFrom", 13, 1, b"bench"))
        for _ in range(count // 1000):
            peer.sendall(message * 1000)
        if is_stored:
            answers = peer.makefile("rb")
            while struct.unpack_from("=Q", answers.read(TAKEN), TAKEN - 8)[0] < count:
                pass
        else:
            # The bridge closes once it has published the last message.
            peer.shutdown(socket.SHUT_WR)
            peer.recv(1)


def bridge(servers, count, *options):
    running = start(servers, "--serve", "0", "--publish", "Tick=bench.bridge", *options)
    try:
        begun = time.monotonic()
        send(running, count, bool(options))
        return count / (time.monotonic() - begun)
    finally:
        code, counts = running.end()
        assert (code, counts["published"]) == (0, count), counts


def row(name, what, reference):
    print(f"| {name} | {statistics.median(reference):,.0f} | {statistics.median(what):,.0f} | "
          f"{statistics.median(what) / statistics.median(reference):.2f} |")


def main():
    print("| 100 bytes, messages in a second | the bare client | the bridge | ratio |\n|---|---|---|---|")
    for name, servers_count, count, replicas in (("one server, at most once", 1, 1000000, 0),
                                                 ("one server, a stream", 1, 100000, 1),
                                                 ("three servers, a stream with three copies", 3, 100000, 3)):
        servers = Servers(servers_count)
        client = servers.client()
        try:
            if replicas:
                servers.make_stream("BENCH", ["bench.>"], replicas)
            taken = {"bare": [], "bridge": []}
            for _ in range(ROUNDS):
                taken["bare"].append(bare(servers, "bench.bare", count, *([WINDOW] if replicas else [])))
                options = ["--stream", "BENCH"] if replicas else []
                taken["bridge"].append(bridge(servers, count, *options))
                if replicas:
                    servers.ask("$JS.API.STREAM.PURGE.BENCH")
                    # Numbers begin anew, and so would ids.
                    servers.ask("$JS.API.STREAM.DELETE.BENCH")
                    servers.make_stream("BENCH", ["bench.>"], replicas)
            row(name, taken["bridge"], taken["bare"])
        finally:
            client.close()
            servers.end()


if __name__ == "__main__":
    main()
