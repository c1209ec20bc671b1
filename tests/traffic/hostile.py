#!/usr/bin/env python3
"""Shows that nobody waits for another one's peer: a session is asked by a good peer and answers, while
others do to it what a peer can do. Prints how long the good one waits for its answers, how much memory
the session takes, and by how much operations outlast their limits; what is beyond its bound is marked,
but depends on the machine. Then messages are counted where much is in the way of them. Ends with exit
code 1 if one is lost, a peer falsely gone, a limit of memory exceeded, or somebody waits for ever."""

import argparse
import contextlib
import itertools
import os
import pathlib
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "python" / "src"))
from klvmsg import wire  # noqa: E402

BAR = 20  # milliseconds, of waits beyond those alone, and beyond limits
EVER = 120  # seconds: what takes longer waits for ever
DONE, TOO_LATE, PEER_GONE, FAILED, FULL = range(5)
DEAF = 8  # MB that are queued for the peer that operations wait for
NOBODY = "-"  # in place of a label


class Fault(Exception):
    pass


def require(holds, text):
    if not holds:
        raise Fault(text)


def message(type, body):
    return wire.header(type) + len(body).to_bytes(4, sys.byteorder) + body


CERTIFICATES = "KLVMSG_CERTIFICATES"  # names the folder of those of all who talk; without it all is plain
ADMITTED = b"\1"


def protected(plain, is_server=False):
    """The connection as its two sides are to talk over it, once they have greeted each other."""
    if CERTIFICATES not in os.environ:
        return plain
    folder = pathlib.Path(os.environ[CERTIFICATES])
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER if is_server else ssl.PROTOCOL_TLS_CLIENT)
    context.load_cert_chain(folder / "peer.pem", folder / "peer.key")
    context.load_verify_locations(folder / "authority.pem")
    context.verify_mode = ssl.CERT_REQUIRED
    if is_server:
        context.num_tickets = 0
    peer = context.wrap_socket(plain, is_server, server_hostname=None if is_server else "127.0.0.1")
    if is_server:
        peer.sendall(ADMITTED)
    elif not peer.recv(1):  # ADMITTED, or the session has ended
        raise ConnectionResetError("a session has turned somebody away")
    return peer


def dial(port):
    return protected(socket.create_connection(("127.0.0.1", port)))


def be_good(port):
    """What the good peer's process does: asks and waits for the answer, for as many seconds as each line
    of its input says, and prints its waits."""
    peer, word = dial(port), message("Word", b"ping")
    print("done", flush=True)
    for line in sys.stdin:
        waits, end = [], time.monotonic() + float(line)
        while time.monotonic() < end:
            asked = time.monotonic()
            peer.sendall(word)
            got = b""
            while len(got) < len(word):
                got += peer.recv(len(word) - len(got)) or b"nothing more"
            if got != word:
                return
            waits.append(1000 * (time.monotonic() - asked))
            time.sleep(0.0002)  # without it this would be much of the load
        waits.sort()
        count = len(waits)
        print("done", count, waits[count // 2], waits[count - 1 - count // 1000], waits[-1], flush=True)


class Process:
    """It answers lines with lines."""

    def __init__(self, name, *arguments):
        self.name = name
        self.process = subprocess.Popen(list(map(str, arguments)), stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)

    def tell(self, *words):
        print(*words, file=self.process.stdin, flush=True)

    def hear(self, limit=EVER):
        timer = threading.Timer(limit, self.process.kill)
        timer.start()
        line = self.process.stdout.readline()
        timer.cancel()
        require(line, f"the {self.name} has ended, or would wait for ever")
        require(line.startswith("done"), f"the {self.name} has {line.strip()}")
        return line.split()[1:]

    def ask(self, *words):
        self.tell(*words)
        return self.hear()

    def end(self):
        """It ends by itself."""
        self.process.stdin.close()
        timer = threading.Timer(EVER, self.process.kill)
        timer.start()
        code = self.process.wait()
        timer.cancel()
        require(code == 0, f"the {self.name} has ended with {code}")


class Good(Process):
    def __init__(self, _program, port):
        super().__init__("good peer", sys.executable, __file__, "good", port)
        self.hear()


class Session(Process):
    def __init__(self, program, inbox=64):
        super().__init__("session", program, "session", "-", 25000, inbox, "Word", "Other")
        self.port = int(self.ask("serve")[0])

    def tell(self, command, label=NOBODY, *numbers):
        super().tell(command, label, "127.0.0.1", *numbers)

    def peak(self):
        """Of its memory, in MB."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(status.split("VmHWM:")[1].split()[0]) / 1000

    def starved(self):
        """Of its threads the one that had to wait longest for a processor: how many seconds."""
        folder = pathlib.Path(f"/proc/{self.process.pid}/task")
        return max(int(file.read_text().split()[1]) for file in folder.glob("*/schedstat")) / 1e9

    def pour(self, label, count, size, limit=0):
        return int(self.ask("pour", label, count, size, limit)[0])

    def operate(self, *words):
        """What has become of it, and by how many milliseconds it was later than its limit."""
        status, late = self.ask(*words)
        return int(status), float(late)

    def label(self, label, count):
        """All who are there, once they are so many."""
        while int(self.ask("label", label)[0]) < count:
            time.sleep(0.01)

    def await_taken(self, count):
        limit = time.monotonic() + EVER
        while (taken := self.ask("taken", NOBODY)) != [str(count), "0"]:
            require(time.monotonic() < limit, f"of {count} messages {taken[0]} came, {taken[1]} not in order")
            time.sleep(0.01)


class Scene:
    """A session and its peers, some of them in threads of ours."""

    def __init__(self, program, is_measured=False, inbox=64):
        self.program = program
        self.is_measured = is_measured
        self.processes = []
        self.session = self.start(Session, inbox)
        self.good = None
        self.over = threading.Event()
        self.sockets = []
        self.threads = []

    def start(self, kind, *arguments):
        self.processes.append(kind(self.program, *arguments))
        return self.processes[-1]

    def connect(self):
        self.sockets.append(dial(self.session.port))
        return self.sockets[-1]

    def listen(self, label, room=65536):
        """The session connects to us."""
        with socket.socket() as server:
            server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
            server.bind(("127.0.0.1", 0))
            server.listen()
            self.session.tell("connect", label, server.getsockname()[1])
            self.sockets.append(protected(server.accept()[0], True))
            self.session.hear()
            return self.sockets[-1]

    def run(self, work, *arguments):
        """Until the session has ended, which the work sees as an error of its sockets."""
        def body():
            with contextlib.suppress(OSError):
                work(self, *arguments)
        self.threads.append(threading.Thread(target=body))
        self.threads[-1].start()

    def start_good(self, label=NOBODY):
        """With a label all who are there by then have it, and each gets all answers."""
        if self.is_measured and self.good is None:
            self.session.ask("answer", label)
            self.good = self.start(Good, self.session.port)
            if label != NOBODY:
                self.session.label(label, len(self.sockets) + 1)
            self.good.ask(0.1)  # it warms up

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.over.set()
        for one in self.sockets:
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join()
        for one in self.sockets:
            one.close()
        for one in self.processes:
            one.process.kill()
            one.process.wait()


# What peers do -----------------------------------------------------------------------------------


def drip(scene, whole):
    peer = scene.connect()
    peer.sendall(whole[:50000])
    for byte in whole[50000:]:
        if scene.over.wait(0.5):
            return
        peer.sendall(bytes([byte]))


def come_back(scene, whole):
    peer = scene.connect()
    while not scene.over.is_set():
        peer.sendall(whole[:50000])
        scene.over.wait(0.3)
        peer.sendall(whole[50000:])


def bodies(scene):
    for type, _ in itertools.product(("Other", "Bare"), range(4)):
        whole = message(type, bytes(100000))
        scene.connect().sendall(whole[:50000])
        scene.run(drip, whole)
        scene.run(come_back, whole)


def mute(scene):
    scene.listen("mute")
    scene.listen("another")
    require(scene.session.pour("mute", 64, 1000000) == 64, "a queue has no room")
    require(scene.session.pour("another", 60000, 1000) == 60000, "a queue has no room")


def send_flood(scene):
    peer = scene.connect()
    flood = message("Other", bytes(16)) * 3000
    while not scene.over.is_set():
        peer.sendall(flood)


def flood(scene):
    # The good one first: a `Receive` is told that the inbox is full where nobody else is there.
    scene.start_good()
    scene.run(send_flood)


def flood_asked_for(scene):
    scene.start_good()
    if scene.is_measured:
        scene.session.ask("take", NOBODY)
    scene.run(send_flood)


def stopped(scene):
    peer = scene.start(Good, scene.session.port)
    peer.tell(1000)
    scene.session.label("stopped", 1)
    os.kill(peer.process.pid, signal.SIGSTOP)
    require(scene.session.pour("stopped", 60, 1000000) == 60, "a queue has no room")


def keep_connecting(scene):
    begin = time.monotonic()
    for number in itertools.count():
        if scene.over.wait(max(0, begin + number / 2000 - time.monotonic())):
            return
        with socket.create_connection(("127.0.0.1", scene.session.port)) as peer:
            if number % 2 == 0:
                peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def connects(scene):
    scene.run(keep_connecting)


def send_unknown(scene, digits):
    peer = scene.connect()
    for number in itertools.count():
        if scene.over.is_set():
            return
        types = (f"Unknown{'0' * digits}{(1000 * number + i) % 10**(digits + 1)}" for i in range(1000))
        peer.sendall(b"".join(message(type, bytes(40)) for type in types))


def unknown_types(scene):
    for digits in (0, 9, 200):
        scene.run(send_unknown, digits)


def send_absurd(scene, start):
    while not scene.over.wait(0.01):
        with dial(scene.session.port) as peer:
            with contextlib.suppress(OSError):
                peer.sendall(start + bytes(1000))
                peer.settimeout(0.1)
                peer.recv(1)  # until the session closes


def absurd_lengths(scene):
    def length(number):
        return number.to_bytes(4, sys.byteorder)
    for number in (0, 2**31, 2**32 - 1):
        scene.run(send_absurd, length(number))
    for type in ("Other", "Bare", "Unknown"):
        scene.run(send_absurd, wire.header(type) + length(2**32 - 1))
    for type, promised in (("Other", 60000000), ("Bare", 4000000), ("Unknown", 60000000)):
        for _ in range(30):
            scene.connect().sendall(wire.header(type) + length(promised) + bytes(10000))


def label(scene):
    scene.listen("mute")
    for size in (1000000, 10):  # until it is full
        scene.session.pour("mute", 100000, size)
    scene.start_good("both")


# What is measured beside it ----------------------------------------------------------------------


def listen_to_nobody(stack, backlog):
    """A port where connections are refused, or not taken."""
    server = stack.enter_context(socket.socket())
    server.bind(("127.0.0.1", 0))
    if backlog is not None:
        server.listen(backlog)
        for _ in range(backlog + 1):
            stack.enter_context(socket.create_connection(server.getsockname()))
    return server.getsockname()[1]


def try_limits(session, end, refusing, full):
    """By how much each of them was away from its limit, at most."""
    operations = {
        "Send": (("try", "deaf", 100), (TOO_LATE, FULL)),
        "Receive": (("receive", "deaf", 100), (TOO_LATE,)),
        "ConnectAgain": (("again", "nobody", refusing, 100), (FAILED, TOO_LATE)),
        "to full": (("again", "nobody", full, 100), (FAILED, TOO_LATE)),
    }
    worst = dict.fromkeys(operations, 0)
    while time.monotonic() < end:
        for name, (words, possible) in operations.items():
            status, late = session.operate(*words)
            require(status in possible, f"{name} has said {status} of a peer that does nothing")
            worst[name] = max(worst[name], late, key=abs)
    worst["ConnectAgain"] = max(worst["ConnectAgain"], worst.pop("to full"), key=abs)
    return worst


def make_deaf(scene):
    scene.listen("deaf", 4096)
    scene.session.pour("deaf", DEAF, 1000000)


def measure(options, hostility):
    """Of the good peer and of one who is alone its waits, of its session the memory, and the operations'
    limits. Both at the same time, since a busy machine lets both wait."""
    with contextlib.ExitStack() as stack:
        alone = stack.enter_context(Scene(options.program, True))
        alone.start_good()
        scene = stack.enter_context(Scene(options.program, True))
        hostility(scene)
        scene.start_good()
        make_deaf(scene)
        time.sleep(0.2)
        pair = scene, alone
        begin, starved = time.monotonic(), scene.session.starved()
        for one in pair:
            one.good.tell(options.seconds)
        ports = listen_to_nobody(stack, None), listen_to_nobody(stack, 0)
        late = try_limits(scene.session, time.monotonic() + options.seconds, *ports)
        waits = [list(map(float, one.good.hear())) for one in pair]
        starved = (scene.session.starved() - starved) / (time.monotonic() - begin)
        peaks = [one.session.peak() for one in pair]
        late["End"] = scene.session.operate("end", NOBODY, 300)[1]
        scene.session.end()
    return waits, starved, peaks, late


def measure_destructor(options, hostility):
    with Scene(options.program) as scene:
        hostility(scene)
        make_deaf(scene)
        time.sleep(0.2)
        late = scene.session.operate("destroy", NOBODY)[1]
        scene.session.end()
    return late


# The scenes, and how many MB the session's limits allow in each: 64 MiB for a peer's queue or inbox,
# and four times that while somebody waits for what the inbox does not hold. An application that asks for
# all of it has as much again.
MEBI = 1024 * 1024 / 1e6
SCENES = {
    "bodies": (bodies, 24 * 0.2 + 30),
    "mute": (mute, 128 * MEBI),
    "flood": (flood, 256 * MEBI),
    "flood asked for": (flood_asked_for, 2 * 256 * MEBI),
    "stopped": (stopped, 64 * MEBI),
    "connects": (connects, 0),
    "unknown types": (unknown_types, 0),
    "absurd lengths": (absurd_lengths, 90 * 0.02),
    "label": (label, 64 * MEBI),
}


def mark(value, holds, width, digits):
    return f"{value:{width}.{digits}f}{' ' if holds else '!'}"


def print_row(name, waits, starved, peaks, late, allowed):
    """True if the limits of memory hold."""
    (rounds, median, most, longest), (_, median_alone, _, longest_alone) = waits
    text = f"  {name:16}{rounds:7.0f}{median:8.3f}{median_alone:7.3f}{most:8.2f}"
    text += mark(longest, longest <= longest_alone + BAR, 9, 2) + f"{longest_alone:6.2f}{100 * starved:7.0f}"
    text += mark(peaks[0], peaks[0] <= peaks[1] + allowed, 8, 1) + f"{peaks[1] + allowed:6.1f}"
    for operation in ("Send", "Receive", "ConnectAgain", "End", "destructor"):
        # A destructor need not wait for its limit.
        holds = late[operation] <= BAR and (late[operation] >= 0 or operation == "destructor")
        text += mark(late[operation], holds, len(operation) + 2, 1)
    print(text, flush=True)
    return peaks[0] <= peaks[1] + allowed


def measure_scenes(options, chosen):
    print(f"hostile: {options.seconds:g} s each. `starved`: how much of the time a thread of the session "
          "waited for a processor, in %.\n"
          "                     the good peer's waits, in ms, and alone            memory, MB"
          "       operations beyond their limits, ms\n"
          "                   rounds  median alone  99.9 %  longest alone starved    peak limit"
          "  Send  Receive  ConnectAgain  End  destructor", flush=True)
    well = True
    for name, (hostility, allowed) in SCENES.items():
        if name in chosen:
            waits, starved, peaks, late = measure(options, hostility)
            late["destructor"] = measure_destructor(options, hostility)
            well = print_row(name, waits, starved, peaks, late, allowed + DEAF + options.memory) and well
    require(well, "more memory than the limits allow")


# Messages that are counted ------------------------------------------------------------------------


def exchange(options):
    """Two sessions with small inboxes flood each other, and ask for it later."""
    count = 300000
    with Scene(options.program, inbox=1) as scene:
        pair = scene.session, scene.start(Session, 1)
        pair[0].ask("connect", "other", pair[1].port)
        pair[1].label("other", 1)
        for session in pair:
            session.ask("take", NOBODY, 1000)
            session.tell("pour", "other", count, 300, EVER * 1000)
        for session in pair:
            require(session.hear() == [str(count)], "not all were sent")
        for session in pair:
            session.await_taken(count)
        return f"two sessions have sent {count} messages to each other"


def rest(options):
    """An application asks for nothing for a while."""
    count, size = 3500, 65536
    with Scene(options.program) as scene:
        feeder = scene.start(Session)
        before = scene.session.peak()
        feeder.ask("connect", "resting", scene.session.port)
        feeder.tell("pour", "resting", count, size, (options.rest + EVER) * 1000)
        time.sleep(options.rest)
        more = scene.session.peak() - before
        require(more <= 64 * MEBI + options.memory, f"{more:.1f} MB for what nobody asks for")
        scene.session.ask("take", NOBODY)
        require(feeder.hear() == [str(count)], "not all were sent")
        scene.session.await_taken(count)
        return f"{count} messages came after {options.rest} s without asking"


def numbered(first, count, size):
    return b"".join(message("Other", f"{number} ".encode().ljust(size, b"x"))
                    for number in range(first, first + count))


def behind(options):
    """What is asked for stands behind a full inbox, and then behind one that may grow no more."""
    with Scene(options.program, inbox=4) as scene:
        session = scene.session
        peer = scene.listen("peer")
        last = message("Bare", b"")

        def receive():
            return session.operate("receive", "peer", EVER * 1000)[0]

        scene.run(lambda _: peer.sendall(numbered(0, 10000, 1000) + last))
        require(receive() == DONE, "behind a full inbox nothing is found")
        scene.run(lambda _: peer.sendall(numbered(10000, 40000, 1000) + last))
        require(receive() == FULL, "an inbox grows beyond measure, or nobody says so")
        session.ask("take", NOBODY)
        session.await_taken(50000)
        require(receive() == DONE, "what stood behind a full inbox has not come")
        return "messages behind a full inbox came"


def read_slowly(scene, peer, rate, pause, expected, faults):
    """At so many bytes a second for a while, and then what is left."""
    begin, got = time.monotonic(), b""
    peer.settimeout(EVER)
    with contextlib.suppress(OSError):
        while time.monotonic() < begin + pause and len(got) < len(expected):
            time.sleep(0.05)
            if rate:
                got += peer.recv(rate // 20)
        while len(got) < len(expected) and (data := peer.recv(1 << 20)):
            got += data
    if got != expected:
        faults.append(rate)


def slow(options):
    """Peers that read slowly, or stop and go on, get everything."""
    count, size, faults = 12000, 1000, []
    expected = numbered(0, count, size)
    with Scene(options.program) as scene:
        for rate in (0, 20000, 100000, 300000):
            peer = scene.listen(f"slow{rate}")
            scene.run(read_slowly, peer, rate, options.rest, expected, faults)
        for rate in (0, 20000, 100000, 300000):
            require(scene.session.pour(f"slow{rate}", count, size) == count, "a queue has no room")
        for thread in scene.threads:
            thread.join()
        require(not faults, f"those who read {faults} bytes a second did not get everything")
        return f"4 slow peers got {len(expected) / 1e6:.1f} MB each"


COUNTED = {
    "exchange": exchange,
    "rest": rest,
    "behind": behind,
    "slow": slow,
}


def count_scenes(options, chosen):
    for name in COUNTED:
        if name in chosen:
            begin = time.monotonic()
            text = COUNTED[name](options)
            print(f"  {name:16}{text}, in {time.monotonic() - begin:.1f} s", flush=True)


def main():
    if sys.argv[1:2] == ["good"]:
        return be_good(int(sys.argv[2]))
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", help="what Puppet.cpp was built to")
    parser.add_argument("--scene", action="append", choices=[*SCENES, *COUNTED], help="all without")
    parser.add_argument("--seconds", type=float, default=3, help="of each scene that is measured")
    parser.add_argument("--rest", type=int, default=5, help="seconds without asking, or reading")
    parser.add_argument("--memory", type=float, default=16, help="megabytes beyond the limits")
    parser.add_argument("--tls", action="store_true", help="all of it over TLS")
    options = parser.parse_args()
    chosen = options.scene or [*SCENES, *COUNTED]
    try:
        with tempfile.TemporaryDirectory() as folder:
            if options.tls:
                subprocess.run([ROOT / "examples/secure/certificates.sh", folder, "peer", "IP:127.0.0.1"],
                               check=True, stderr=subprocess.DEVNULL)
                os.environ[CERTIFICATES] = folder
            if any(name in SCENES for name in chosen):
                measure_scenes(options, chosen)
            count_scenes(options, chosen)
    except Fault as fault:
        print(f"! {fault}")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
