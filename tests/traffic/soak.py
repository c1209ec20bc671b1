#!/usr/bin/env python3
"""A hub and clients for as long as one likes, while clients are killed at random moments and others
come in their place. Ends with an account, and with exit code 1 if it does not hold: each message of a
client that was not killed is acknowledged once, and nothing of the hub's is left but the buffer that it
keeps of each header. The marked lines are those that do not hold."""

import argparse
import os
import pathlib
import random
import resource
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

KEPT = 32  # bytes, the smallest block, for a type name that was received


def field(content):
    return len(content).to_bytes(4, sys.byteorder) + content


class Talker:
    """What a client's process does: sends texts and waits for the answers, until it is killed."""

    def __init__(self, port, name, seed, left, largest):
        self.port, self.name, self.largest = port, name, largest
        self.order = random.Random(seed)
        self.end = time.monotonic() + left / 1000
        self.sent = self.acknowledged = self.twice = self.cut = 0
        self.connection = None

    def account(self):
        """Into the file that is the standard output: it survives the process."""
        os.pwrite(1, struct.pack("4q", self.sent, self.acknowledged, self.twice, self.cut), 0)

    def connect(self):
        if self.connection:
            self.connection.close()
        self.connection = socket.create_connection(("127.0.0.1", self.port))
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def text(self, largest):
        """As many lengths of two digits as of six."""
        self.sent += 1
        letters = self.order.choice("abcdefgh") * int(largest ** self.order.random())
        return f"{self.name} {self.sent} {letters}.".encode()

    def receive(self, count):
        content = self.connection.recv(count, socket.MSG_WAITALL)
        return content if len(content) == count else sys.exit("the hub has closed")

    def round(self):
        """One text, which may be large, or several small ones: behind more than a socket holds a header
        could arrive in pieces, and would be lost."""
        count = self.order.choice([1, self.order.randrange(2, 9)])
        texts = [self.text(self.largest if count == 1 else 2000) for _ in range(count)]
        self.account()
        for text in texts:
            self.connection.sendall(field(b"Text") + field(text))
        for text in texts:
            header = self.receive(12)
            answer = self.receive(int.from_bytes(header[8:], sys.byteorder))
            self.acknowledged += answer == text
            self.cut += not answer.endswith(b".")
            self.twice += answer != text and answer.endswith(b".")
            self.account()

    def run(self):
        while time.monotonic() < self.end:
            if not self.connection or self.order.randrange(30) == 0:
                self.connect()
            self.round()


class Client:
    """A process, and its account, which outlives it."""

    names = 0

    def __init__(self, options, port, end):
        Client.names += 1
        self.name = Client.names
        self.file = tempfile.TemporaryFile()
        self.file.truncate(32)
        self.killed = False
        left = int(1000 * (end - time.monotonic()))
        arguments = port, self.name, options.seed + self.name, left, options.largest
        self.process = subprocess.Popen([sys.executable, __file__, "client", *map(str, arguments)],
                                        stdout=self.file)

    def kill(self):
        self.killed = self.process.poll() is None
        self.process.kill()
        self.read(10)

    def read(self, limit):
        """Waits for its end for at most so many seconds."""
        try:
            code = self.process.wait(max(0, limit))
        except subprocess.TimeoutExpired:
            self.process.kill()
            code = self.process.wait()
        # One that was about to end by itself may have been quicker than the signal.
        self.well = code == 0 or self.killed and code == -signal.SIGKILL
        self.killed = self.killed and code != 0
        self.sent, self.acknowledged, self.twice, self.cut = struct.unpack(
            "4q", os.pread(self.file.fileno(), 32, 0))
        self.file.close()


class Hub:
    def __init__(self, program):
        # What is released goes back to the system, so that what stays is what was kept.
        leaks = pathlib.Path(__file__).resolve().parents[1] / "lsan.supp"  # what was kept is none
        command = [program, "bare", "-", "25000", "64", "Text"]
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env={
            **os.environ, "MALLOC_MMAP_THRESHOLD_": "65536",
            "LSAN_OPTIONS": f"suppressions='{leaks}':print_suppressions=0",
            "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"})
        print("serve - 127.0.0.1 0", file=self.process.stdin, flush=True)
        self.port = int(self.process.stdout.readline().split()[1])
        print("echo", file=self.process.stdin, flush=True)
        self.folder = pathlib.Path(f"/proc/{self.process.pid}")

    def descriptors(self):
        return len(os.listdir(self.folder / "fd"))

    def state(self):
        status = (self.folder / "status").read_text()
        ticks = (self.folder / "stat").read_text().rsplit(")")[1].split()[11:13]  # user's and system's
        return {
            "memory": int(status.split("VmRSS:")[1].split()[0]) * 1024,
            "descriptors": self.descriptors(),
            "processor": sum(map(int, ticks)) / os.sysconf("SC_CLK_TCK"),
        }

    def end(self):
        """Its exit code, and how many messages it has received from each client."""
        try:
            with socket.create_connection(("127.0.0.1", self.port), 10) as connection:
                connection.sendall(field(b"Text") + field(b"end."))
                connection.recv(1)  # until it is answered
        except OSError:
            self.process.kill()  # it hangs
        numbers = list(map(int, self.process.communicate()[0].split()[1:]))
        received = dict(zip(numbers[::2], numbers[1::2]))
        received.pop(0, None)  # the end's
        return self.process.returncode, received


def run(options, hub, clients, done):
    """Kills all but the first two clients, again and again, and lets the others end."""
    end = time.monotonic() + options.seconds
    order = random.Random(options.seed)
    clients += [Client(options, hub.port, end) for _ in range(options.clients)]
    while (now := time.monotonic()) < end and hub.process.poll() is None:
        time.sleep(min(order.expovariate(1 / options.pause), end - now))
        place = order.randrange(2, options.clients)
        clients[place].kill()
        done.append(clients[place])
        clients[place] = Client(options, hub.port, end)
    for client in clients:
        client.read(end + 60 - time.monotonic())
    done += clients


def megabytes(count):
    return f"{count / 1e6:.1f} MB"


def account(options, hub, done, before):
    """Prints it; true if it holds."""
    if hub.process.poll() is not None:
        print(f"! the hub has ended, with {hub.process.returncode} (seed {options.seed})")
        return False
    limit = time.monotonic() + 10  # for the hub to see that the last one has gone
    while hub.descriptors() != before["descriptors"] and time.monotonic() < limit:
        time.sleep(0.01)
    after = hub.state()
    code, received = hub.end()
    processor_clients = sum(resource.getrusage(resource.RUSAGE_CHILDREN)[:2]) - after["processor"]
    cut = received.pop(-1, 0)
    came = sum(received.values())
    killed = [client for client in done if client.killed]
    living = [client for client in done if not client.killed]
    result = True

    def total(field, clients=done):
        return sum(getattr(client, field) for client in clients)

    def line(name, holds, text):
        nonlocal result
        result = result and holds
        print(f"{' ' if holds else '!'} {name:13}{text}")

    print(f"soak: {options.seconds:g} s, seed {options.seed}, {len(done)} clients, {len(killed)} killed")
    line("sent", True, f"{total('sent')}, of which {came} came")
    line("acknowledged", total("acknowledged", living) > 0, total("acknowledged"))
    missing = total("sent", living) - total("acknowledged", living)
    line("missing", missing == 0,
         f"{missing}, and {total('sent', killed) - total('acknowledged', killed)} of the killed")
    twice = total("twice")
    # What is acknowledged has come, and what has come was sent.
    differ = [client.name for client in done
              if not client.acknowledged <= received.get(client.name, 0) <= client.sent]
    line("twice", twice == 0 and not differ,
         f"{twice}, or out of order" + (f"; the hub counts otherwise than clients {differ}" if differ else ""))
    line("cut", total("cut") == 0 and cut <= len(killed), f"{cut} of the killed, {total('cut')} others")
    kept = KEPT * (came + cut)
    excess = after["memory"] - before["memory"] - kept
    line("memory", excess <= options.memory * 1e6,
         f"{megabytes(before['memory'])}, then {megabytes(after['memory'])}: "
         f"{megabytes(kept)} for headers and {megabytes(excess)} more")
    line("descriptors", before["descriptors"] == after["descriptors"],
         f"{before['descriptors']}, then {after['descriptors']}")
    line("processor", True,
         f"{after['processor']:.1f} s the hub, {processor_clients:.1f} s the clients")
    ill = [client.name for client in done if not client.well]
    line("ended", code == 0 and not ill,
         f"the hub with {code}" + (f", badly the clients {ill}" if ill else ""))
    return result


def main():
    if sys.argv[1:2] == ["client"]:
        return Talker(*map(int, sys.argv[2:])).run()
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", help="what Puppet.cpp was built to")
    parser.add_argument("--seconds", type=float, default=1)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1, 1000000))
    parser.add_argument("--clients", type=int, default=6, help="at a time; two are never killed")
    parser.add_argument("--pause", type=float, default=0.15, help="seconds between kills, on average")
    parser.add_argument("--largest", type=int, default=12000000, help="bytes of a text")
    parser.add_argument("--memory", type=float, default=16, help="megabytes that the hub may grow")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))

    hub, done, clients = Hub(options.program), [], []
    try:
        before = hub.state()
        run(options, hub, clients, done)
        return 0 if account(options, hub, done, before) else 1
    finally:
        for process in [hub.process] + [client.process for client in clients]:
            process.kill()  # nothing is left after a failure


if __name__ == "__main__":
    sys.exit(main())
