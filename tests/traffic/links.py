#!/usr/bin/env python3
"""Sessions over links of every kind, in network namespaces of their own, so it takes root:

silence  a peer whose link goes down is gone within the option `silence` and 10 s, with its cause
slow     peers that read slowly without a pause, or stop for two minutes, get everything
pairs    a session, a bare communicator and the Python peer, each with each, byte for byte, and
         many small messages from a session to a bare communicator
names    a name with several addresses is served and reached, one that does not answer among them

Prints what was measured, and ends with exit code 1 if something does not hold: the marked lines."""

import argparse
import ctypes
import fcntl
import hashlib
import itertools
import math
import os
import pathlib
import queue
import random
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python" / "src"))
import klvmsg  # noqa: E402

GONE, STALLS = 2, 3  # kinds of an event
CLOSED, DEAD = 1, 4  # causes
NEAR, FAR = "10.0.0.1", "10.0.0.2"
RTO_MAX_MS = 44  # the number of this option of TCP
INBOX = 64  # MiB
LONG = 60  # seconds for what takes next to none

NETWORK = 0x40000000  # of unshare and setns
libc = ctypes.CDLL(None, use_errno=True)
HOME = os.open("/proc/thread-self/ns/net", os.O_RDONLY)


# Places ------------------------------------------------------------------------------------------


def check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), "cannot change the network namespace")


def run(command):
    subprocess.run(command.split(), check=True)


class Place:
    """A network namespace. In its with statement the calling thread is there, as is for good what it
    starts meanwhile: threads and processes."""

    def __init__(self):
        maker = threading.Thread(target=self._make)
        maker.start()
        maker.join()

    def _make(self):
        check(libc.unshare(NETWORK))
        self.number = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        run("ip link set lo up")

    def __enter__(self):
        check(libc.setns(self.number, NETWORK))

    def __exit__(self, *_):
        check(libc.setns(HOME, NETWORK))


class Network:
    """Two places and an Ethernet between them, or with no MTU one place and its loopback."""

    def __init__(self, mtu=None):
        self.near = self.far = Place()
        self.host = "127.0.0.1"
        self.text = "loopback"
        if mtu is None:
            return
        self.far, self.host = Place(), FAR
        with self.near:
            run(f"ip link add near mtu {mtu} type veth peer name far mtu {mtu}"
                f" netns /proc/{os.getpid()}/fd/{self.far.number}")
        kept = []
        for place, device, address in ((self.near, "near", NEAR), (self.far, "far", FAR)):
            with place:
                kept += segment_by_segment(device)
                run(f"ip address add {address}/24 dev {device}")
                run(f"ip link set {device} up")
        self.text = f"MTU {mtu}, " + (f"{', '.join(kept)} still on" if kept else "no offloads")

    def limit(self, rate):
        """Segments come one after the other, as over a real wire, where the system has what it takes:
        a receiver that is faster finds each header as it was cut."""
        with self.near:
            command = f"tc qdisc add dev near root tbf rate {rate} burst 3000 latency 1s"
            limited = subprocess.run(command.split(), stderr=subprocess.DEVNULL).returncode == 0
        self.text += f", {rate}" if limited else ", no limit of the rate"
        return self


def segment_by_segment(device):
    """Turns the offloads off, so that nothing on the way is larger than the MTU; which stayed on."""
    kept = []
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        for name, command in (("tso", 0x1F), ("gso", 0x24), ("gro", 0x2C)):
            off = ctypes.create_string_buffer(struct.pack("II", command, 0))
            try:
                fcntl.ioctl(sock, 0x8946, struct.pack("16sP", device.encode(), ctypes.addressof(off)))
            except OSError:
                kept.append(name)
    return kept


# Peers -------------------------------------------------------------------------------------------


class Agent:
    """A process with a session or a bare communicator."""

    counter = itertools.count()

    def __init__(self, place, kind, options, silence=25):
        self.kind = kind
        self.out = options.folder / f"out{next(Agent.counter)}"
        command = options.program, kind, self.out, int(1000 * silence), INBOX, *options.types
        with place:
            self.process = subprocess.Popen(list(map(str, command)), stdin=subprocess.PIPE,
                                            stdout=subprocess.PIPE, text=True)
        self.events = []  # when, kind, cause, label, words
        self.changed = threading.Condition()
        self.answers = queue.Queue()
        threading.Thread(target=self._listen, daemon=True).start()

    def _listen(self):
        for line in self.process.stdout:
            if line.startswith("event "):
                kind, cause, label, text = line.split(" ", 4)[1:]
                with self.changed:
                    event = time.monotonic(), int(kind), int(cause), label, text.strip()
                    self.events.append(event)
                    self.changed.notify_all()
            else:
                self.answers.put(line.split())
        self.answers.put(["failed", "it has ended"])

    def order(self, text, limit=LONG):
        """Has it do something; the number that it answers."""
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()
        word, *rest = self.answers.get(timeout=limit)
        if word != "done":
            raise RuntimeError(f"{self.kind}: {text}: {' '.join(rest)}")
        return rest

    def serve(self, host):
        return int(self.order(f"serve - {host} 0")[0])

    def connect(self, host, port, label="-"):
        self.order(f"connect {label} {host} {port}")

    def send(self, file, how="post", label="-"):
        self.order(f"{how} {label} {file}", 10 * LONG)

    def of(self, kind, label=""):
        """The events of a kind, and of a label."""
        with self.changed:
            return [event for event in self.events if event[1] == kind and event[3] == label]

    def await_event(self, kind, label="", limit=LONG):
        with self.changed:
            self.changed.wait_for(lambda: self.of(kind, label), limit)
        found = self.of(kind, label)
        return found[0] if found else None

    def size(self):
        return os.path.getsize(self.out) if self.out.exists() else 0

    def come(self):
        return self.out.read_bytes()

    def end(self):
        self.process.stdin.close()
        try:
            self.process.wait(LONG)
        except subprocess.TimeoutExpired:
            self.process.kill()


class Partner:
    """The Python peer, with the operations of an agent."""

    kind = "python"

    def __init__(self, place, _options):
        self.place = place
        self.bytes = bytearray()
        self.connection = None

    def serve(self, host):
        with self.place:
            self.server = klvmsg.serve(0, host)
            threading.Thread(target=self._receive, daemon=True).start()
        return self.server.port

    def connect(self, host, port):
        with self.place:
            self.connection = klvmsg.connect(host, port, timeout=LONG)
        threading.Thread(target=self._receive, daemon=True).start()

    def _receive(self):
        if self.connection is None:
            self.connection = self.server.accept(LONG)
        try:
            for type, body in self.connection:
                self.bytes += message(type, body)
        except (klvmsg.PeerGone, OSError):
            pass

    def send(self, file, _how):
        for type, body in messages(file.read_bytes()):
            self.connection.send(type, body, LONG)

    def size(self):
        return len(self.bytes)

    def come(self):
        return bytes(self.bytes)

    def end(self):
        self.connection.close()


# Messages ----------------------------------------------------------------------------------------


def message(type, body):
    """Its bytes on the wire."""
    return (len(type).to_bytes(4, sys.byteorder) + type.encode() +
            len(body).to_bytes(4, sys.byteorder) + body)


def messages(data):
    """Type and body of each; the last one may be cut."""
    def field(at):
        end = at + 4 + int.from_bytes(data[at:at + 4], sys.byteorder)
        return data[at + 4:end], end
    at = 0
    while at < len(data):
        type, at = field(at)
        body, at = field(at)
        yield type.decode(errors="replace"), body


def by_type(data):
    result = {}
    for type, body in messages(data):
        result.setdefault(type, []).append(body)
    return result


def difference(kind, sent, come):
    """Empty if all of it has come. A session hands over what comes type by type."""
    if kind == "session" and by_type(sent) == by_type(come) or kind != "session" and sent == come:
        return ""
    expected, found = list(messages(sent)), list(messages(come))
    first = next((place for place, (one, other) in enumerate(zip(expected, found)) if one != other),
                 min(len(expected), len(found)))
    return f"{len(found)} of {len(expected)} have come, message {first} is the first that differs"


class Line(NamedTuple):
    """Of the table that is printed; one that does not hold is marked."""

    name: str
    holds: bool
    text: str


def table(title, lines):
    print(title)
    width = max(len(line.name) for line in lines) + 2
    for line in lines:
        print(f"{' ' if line.holds else '!'} {line.name:{width}}{line.text}")


# The parts ---------------------------------------------------------------------------------------


def listen(network, near, label, behave):
    """A peer at the far end to which a session connects under a label, and which does something."""
    with network.far:
        server = socket.create_server((network.host, 0))
    near.connect(network.host, server.getsockname()[1], label)
    threading.Thread(target=behave, args=[server.accept()[0]], daemon=True).start()


def read(peer, rate=None, until=math.inf, most=math.inf):
    """What comes, up to so many bytes a second, until a time or a size."""
    result = bytearray()
    try:
        while time.monotonic() < until and len(result) < most:
            data = peer.recv(1 << 20 if rate is None else rate // 20)
            if not data:
                break
            result += data
            time.sleep(0 if rate is None else 0.05)
    except OSError:
        pass  # the connection is broken
    return result


def cut_link(options, place, command):
    """Peers of every kind, and then the link goes down."""
    network = Network(options.mtu)
    near, far = (Agent(one, "session", options, options.silence)
                 for one in (network.near, network.far))
    never = threading.Event()
    listen(network, near, "reads", lambda peer: read(peer, 1000000))
    listen(network, near, "later", read)
    listen(network, near, "closed", lambda peer: never.wait() and peer)
    listen(network, near, "idle", read)
    near.connect(FAR, far.serve(FAR), "session")
    for label in ("later", "closed", "idle", "session"):
        near.send(options.large if label == "closed" else options.little, label=label)
    time.sleep(options.before)
    near.send(options.large, label="reads")
    with network.far if place == "far" else network.near:
        run(command)
    cut = time.monotonic()
    near.send(options.little, label="later")
    lines = [death(near, label, f"{command}: {text}", cut, options)
             for label, text in (("reads", "reads, bytes queued"),
                                 ("later", "reads, sent to after that"),
                                 ("closed", "closed window, bytes queued"),
                                 ("idle", "idle"),
                                 ("session", "idle, a session"))]
    lines.append(death(far, "", f"{command}: idle, as that session sees it", cut, options))
    near.end()
    far.end()
    return lines


def death(agent, label, name, cut, options):
    """When an agent has seen that a peer is gone, and whether that was in time, but not before: behind
    its last answer, which an idle one gave within two fifths of the silence, others within one."""
    earliest, limit = (0.6 if "idle" in name else 0.8) * options.silence - 2, options.silence + 10
    if label == "closed" and not options.rto:
        limit = 300  # the probes are up to two minutes apart
    event = agent.await_event(GONE, label, cut + limit + 30 - time.monotonic())
    if event is None:
        return Line(name, False, f"not gone after {limit + 30:g} s")
    when, _, cause, _, words = event
    return Line(name, cause == DEAD and earliest <= when - cut <= limit,
                f"{when - cut:5.1f} s: {words}")


def silence(options):
    cuts = (("far", "ip link set far down"), ("near", "ip link set near down"),
            ("far", f"ip address del {FAR}/24 dev far"))
    return (f"silence: gone after about {options.silence:g} s? Kernel {os.uname().release}, "
            f"{'with' if options.rto else 'WITHOUT'} TCP_RTO_MAX_MS",
            share(cut_link, [(options, *cut) for cut in cuts]))


def share(part, arguments):
    """All at once. Their results, one after the other; the first failure is raised."""
    with ThreadPoolExecutor() as threads:
        calls = [threads.submit(part, *words) for words in arguments]
        return [line for call in calls for line in call.result()]


def slow_peers(options, network, silence):
    data = options.large.read_bytes()
    near = Agent(network.near, "session", options, silence)
    come = {}

    def behave(rate):
        def reader(peer):
            begin = read(peer, rate, time.monotonic() + options.seconds) if rate else peer.recv(1 << 20)
            time.sleep(0 if rate else options.stop)
            rest = read(peer, most=len(data) - len(begin))
            come[rate] = begin + rest, time.monotonic()
        return reader

    rates = {"20 kB/s": 20000, "300 kB/s": 300000, f"stops for {options.stop:g} s": 0}
    begin = time.monotonic()
    for label, rate in rates.items():
        label = label.replace(" ", "_")
        listen(network, near, label, behave(rate))
        near.send(options.large, label=label)
    limit = begin + max(options.seconds, options.stop) + LONG
    while len(come) < len(rates) and time.monotonic() < limit:
        time.sleep(0.1)
    lines = []
    for label, rate in rates.items():
        got, when = come.get(rate, (b"", limit))
        gone = near.await_event(GONE, label.replace(" ", "_"), 10)
        stalls = len(near.of(STALLS, label.replace(" ", "_")))
        well = gone is not None and gone[2] == CLOSED and gone[0] >= when - 0.1
        lines.append(Line(
            f"{network.text}, silence {silence:g} s: {label}",
            got == data and well and (rate != 0 or stalls == 1),
            f"{len(got)} of {len(data)} bytes{'' if got == data else ', NOT the same'} after "
            f"{when - begin:.1f} s; stalls told: {stalls}; {gone[4] if gone else 'not gone'}"))
    near.end()
    return lines


def slow(options):
    return (f"slow: each reads at its rate for {options.seconds:g} s and then all the rest",
            share(slow_peers, [(options, Network(), 25), (options, Network(options.mtu), 5)]))


def transfer(sender, receiver, file, how):
    """Sends a file's messages; what is wrong then, and the seconds that it took."""
    data, begin = file.read_bytes(), time.monotonic()
    before = receiver.size()
    sender.send(file, how)
    size, last = before, time.monotonic()
    while size < before + len(data) and time.monotonic() < last + 10:
        time.sleep(0.005)
        if receiver.size() != size:
            size, last = receiver.size(), time.monotonic()
    return difference(receiver.kind, data, receiver.come()[before:]), last - begin


def pairing(options, network, server_kind, client_kind):
    server, client = (Partner(place, options) if kind == "python" else Agent(place, kind, options)
                      for place, kind in ((network.far, server_kind), (network.near, client_kind)))
    client.connect(network.host, server.serve(network.host))
    wrong, texts = [], []
    for sender, receiver, file, usual in ((client, server, options.sizes[0], "post"),
                                          (server, client, options.sizes[1], "send")):
        paced = sender.kind == receiver.kind == "bare"
        fault, seconds = transfer(sender, receiver, file, "pace" if paced else usual)
        wrong += [fault] if fault else []
        texts.append(fault or f"{seconds:.2f} s")
    client.end()
    server.end()
    return Line(f"{network.text}: {client_kind} and {server_kind}", not wrong,
                f"there {texts[0]}, back {texts[1]}")


def flood(options, network, how, file):
    server, client = Agent(network.far, "bare", options), Agent(network.near, "session", options)
    client.connect(network.host, server.serve(network.host))
    wrong, seconds = transfer(client, server, file, how)
    client.end()
    server.end()
    count = len(list(messages(file.read_bytes())))
    return Line(f"{network.text}: session to bare, {how}", not wrong,
                wrong or f"{count} small ones in {seconds:.1f} s, all there")


def pairs(options):
    title = ", ".join(f"{len(list(messages(data)))} messages of {len(data)} bytes, sha256 "
                      + hashlib.sha256(data).hexdigest()[:12]
                      for data in (file.read_bytes() for file in options.sizes))
    kinds = "session", "bare", "python"
    lines = []
    for network in (Network(), Network(options.mtu)):
        lines += [pairing(options, network, *both) for both in itertools.product(kinds, kinds)]
        lines += [flood(options, network, *way)
                  for way in (("post", options.small), ("send", options.fewer))]
    lines.append(flood(options, Network(options.mtu).limit("10mbit"), "post", options.fewer))
    return f"pairs: there and back {title}", lines


def reach(options, network, title, served, name, first=None):
    """A message comes from who connects to a name, of which one address is known to be the first;
    or, where none is, from the same place."""
    server = Agent(network.far, "session", options)
    client = Agent(network.near if first else network.far, "session", options)
    port = server.serve(served)
    begin = time.monotonic()
    try:
        if first:
            with network.near:
                found = [one[4][0] for one in socket.getaddrinfo(name, port, 0, socket.SOCK_STREAM)]
            if found[0] != first:
                raise RuntimeError(f"the resolver has another address first: {found}")
        client.connect(name, port)
        seconds = time.monotonic() - begin
        wrong, _ = transfer(client, server, options.little, "post")
        line = Line(title, not wrong, wrong or f"reached after {seconds:.2f} s")
    except (RuntimeError, queue.Empty) as error:
        line = Line(title, False, str(error))
    client.end()
    server.end()
    return line


def names(options):
    network = Network(options.mtu)
    with network.far:
        for address in ("10.8.8.7", "10.8.8.8"):
            run(f"ip address add {address}/32 dev lo")
        run("ip route add blackhole 10.9.9.0/24")
    with network.near:
        for address in ("10.8.8.0/24", "10.9.9.0/24"):
            run(f"ip route add {address} via {FAR}")
    cases = [("Connect: the first address does not answer", "10.8.8.8", "silent.test", "10.9.9.9"),
             ("Connect: the first address refuses", "10.8.8.8", "refuses.test", "10.8.8.7")]
    cases += [(f"Serve: a name, reached at {address}", "here.test", address)
              for address in ("127.0.0.1", "127.0.0.2", "::1")]
    cases += [("both: ::1", "::1", "::1")]
    return ("names: with several addresses each",
            [reach(options, network, *case) for case in cases])


HOSTS = """127.0.0.1 localhost
10.9.9.9 silent.test
10.8.8.8 silent.test
10.8.8.7 refuses.test
10.8.8.8 refuses.test
10.7.7.7 here.test
127.0.0.1 here.test
127.0.0.2 here.test
::1 here.test
"""


# Set-up ------------------------------------------------------------------------------------------


def prepare(options):
    """The types, and the files of messages that are sent."""
    order = random.Random(options.seed)
    longest = options.mtu - 52 - 4  # what a session takes: a segment less four bytes
    lengths = list(range(1, 31)) + [31 + (longest - 31) * step // 9 for step in range(10)]
    options.types = ["".join(order.choices("abcdefghijklmnopqrstuvwxyz", k=length)) for length in lengths]

    def write(name, sizes, chosen=options.types):
        path = options.folder / name
        with open(path, "wb") as file:
            for size in sizes:
                file.write(message(order.choice(chosen), order.randbytes(size)))
        return path

    segments = options.mtu - 52, 65483
    around = [segment - less for segment in segments for less in range(-4, 60)]
    large = [4095, 4096, 4097, 65535, 65536, 65537, 262144, (1 << 20) - 1, 1 << 20]
    options.sizes = []
    for name in ("there", "back"):
        sizes = 2 * (list(range(17)) + around + large) + [order.randrange(2000) for _ in range(300)]
        order.shuffle(sizes)
        options.sizes.append(write(name, sizes))
    mostly_short = 9 * options.types[:30] + options.types
    options.small, options.fewer = (
        write(f"small{count}", [order.randrange(100) for _ in range(count)], mostly_short)
        for count in (options.small, options.small // 10))
    options.little = write("little", [100])
    options.large = write("large", [order.randrange(60000) for _ in range(1600)])
    with socket.socket() as sock:
        try:
            sock.setsockopt(socket.IPPROTO_TCP, RTO_MAX_MS, 5000)
            options.rto = True
        except OSError:
            options.rto = False
    hosts = options.folder / "hosts"
    hosts.write_text(HOSTS)
    run(f"mount --bind {hosts} /etc/hosts")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program", help="what Puppet.cpp was built to")
    parser.add_argument("parts", nargs="*", help="all of them unless told otherwise")
    parser.add_argument("--mtu", type=int, default=1500)
    parser.add_argument("--silence", type=float, default=25, help="seconds, of the part of this name")
    parser.add_argument("--before", type=float, default=12, help="seconds before the link goes down")
    parser.add_argument("--seconds", type=float, default=150, help="how long peers read slowly")
    parser.add_argument("--stop", type=float, default=120, help="seconds for which one stops")
    parser.add_argument("--small", type=int, default=200000, help="messages to a bare communicator")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1, 1000000))
    options = parser.parse_args()
    parts = {part.__name__: part for part in (silence, slow, pairs, names)}
    if set(options.parts) - set(parts):
        parser.error(f"the parts are {', '.join(parts)}")
    if os.geteuid() != 0:
        print("links.py: it takes root, for the network namespaces")
        return 1
    if "LINKS_INSIDE" not in os.environ:
        # All that is made here goes with it, however it ends.
        os.execvpe("unshare", ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child",
                               "--mount-proc", sys.executable, *sys.argv],
                   {**os.environ, "LINKS_INSIDE": "1"})
    print(f"links: seed {options.seed}", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        options.folder = pathlib.Path(folder)
        prepare(options)
        chosen = [part for name, part in parts.items() if name in options.parts or not options.parts]
        # The first two wait most of the time, each in networks of its own.
        with ThreadPoolExecutor() as threads:
            waiting = [threads.submit(part, options) for part in chosen if part in (silence, slow)]
            tables = [part(options) for part in chosen if part in (pairs, names)]
            tables = [call.result() for call in waiting] + tables
    for title, lines in tables:
        table(title, lines)
    return 0 if all(line.holds for _, lines in tables for line in lines) else 1


if __name__ == "__main__":
    sys.exit(main())
