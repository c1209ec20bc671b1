"""What the bridge's tests stand on: servers of NATS, a client in a few lines, and the bridge as a process."""

import collections
import fcntl
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python/src"))

LIMIT = 60  # seconds that anything may take; what waits for something ends by what it waits for


def enter_own_network():
    """Starts the program anew in a network where nobody else has a port; False where only root may."""
    if os.geteuid() != 0:
        return False
    if "BRIDGE_TEST" not in os.environ:
        os.environ["BRIDGE_TEST"] = "1"
        os.execvp("unshare", ["unshare", "--net", "--fork", "--kill-child", sys.executable, *sys.argv])
    SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1
    with socket.socket() as any_socket:  # a bare system has no program for this
        found = fcntl.ioctl(any_socket, SIOCGIFFLAGS, struct.pack("16sh14x", b"lo", 0))
        flags, = struct.unpack_from("h", found, 16)
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", flags | IFF_UP))
    return True


Arrived = collections.namedtuple("Arrived", "subject reply headers body")


def wait_until(condition, what, limit=LIMIT):
    end = time.monotonic() + limit
    while not (found := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not in {limit} s: {what() if callable(what) else what}")
        time.sleep(0.02)
    return found


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports


class Client:
    """A client of NATS: subscriptions, messages with headers, questions to JetStream."""

    def __init__(self, port, host="127.0.0.1", tls=None):
        self.socket = socket.create_connection((host, port), timeout=LIMIT)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        while not self.socket.recv(1, socket.MSG_PEEK) or self.socket.recv(1) != b"\n":
            pass  # INFO
        if tls:
            context = ssl.create_default_context()
            context.load_cert_chain(*tls)
            context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
            self.socket = context.wrap_socket(self.socket)
        self.file = self.socket.makefile("rb")
        self.inboxes = 0
        self.write(b'CONNECT {"verbose":false,"headers":true,"no_responders":true,"protocol":1,'
                   b'"user":"test","pass":"test"}\r\nPING\r\n')
        wait_until(lambda: self.file.readline() == b"PONG\r\n", "an answer")

    def write(self, data):
        self.socket.sendall(data)

    def subscribe(self, subject):
        self.write(b"SUB %s 1\r\nPING\r\n" % subject.encode())
        wait_until(lambda: self.file.readline() == b"PONG\r\n", "an answer")

    def publish(self, subject, body=b"", reply="", headers=None):
        if headers is None:
            self.write(b"PUB %s %s %d\r\n%b\r\n" % (subject.encode(), reply.encode(), len(body), body))
            return
        lines = "NATS/1.0\r\n" + "".join(f"{k}: {v}\r\n" for k, v in headers.items()) + "\r\n"
        self.write(b"HPUB %s %s %d %d\r\n%b%b\r\n" % (subject.encode(), reply.encode(), len(lines),
                                                     len(lines) + len(body), lines.encode(), body))

    def next(self, timeout=LIMIT):
        self.socket.settimeout(timeout)
        while True:
            words = self.file.readline().split()
            if not words:
                raise AssertionError("the server has closed")
            if words[0] == b"PING":
                self.write(b"PONG\r\n")
            elif words[0] in (b"MSG", b"HMSG"):
                split = words[0] == b"HMSG" and int(words[-2])
                whole = self.file.read(int(words[-1]) + 2)[:-2]
                reply = words[3].decode() if len(words) == 5 + bool(split) else ""
                lines = whole[:split or 0].decode().split("\r\n")
                headers = dict(line.split(": ", 1) for line in lines[1:] if ": " in line)
                if lines[0][9:12] == "503":
                    headers["Status"] = "503"
                return Arrived(words[1].decode(), reply, headers, whole[split or 0:])

    def ask(self, subject, question=None, timeout=5):
        """The answer to a question in JSON, on a connection without other subscriptions."""
        self.inboxes += 1
        inbox = f"_INBOX.test{id(self)}.{self.inboxes}"
        self.subscribe(inbox)
        self.publish(subject, json.dumps(question).encode() if question is not None else b"", inbox)
        answer = self.next(timeout)
        self.write(b"UNSUB 1\r\n")
        if "Status" in answer.headers:
            raise OSError("nobody answers")
        return json.loads(answer.body)

    def close(self):
        self.file.close()
        self.socket.close()


class Servers:
    """One server, or a cluster; with JetStream unless told otherwise. `tls`: certificate and key of its clients."""

    def __init__(self, count=1, hosts=None, prefix=(), extra="", tls=None, jetstream=True):
        self.tls = tls
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="bridge-test."))
        self.hosts = hosts or ["127.0.0.1"] * count
        ports = free_ports(2 * count)
        self.ports, routes = ports[:count], ports[count:]
        self.running = {}
        self.prefix = list(prefix)
        for i in range(count):
            text = f'listen: "{self.hosts[i]}:{self.ports[i]}"\nserver_name: s{i}\nmax_payload: 1MB\n'
            text += extra + "\n"
            if jetstream:
                text += f'jetstream {{ store_dir: "{self.folder}/data{i}" }}\n'
            if count > 1:
                others = ",".join(f'"nats://{self.hosts[j]}:{routes[j]}"' for j in range(count))
                text += f'cluster {{ name: test, listen: "{self.hosts[i]}:{routes[i]}", routes: [{others}] }}\n'
            (self.folder / f"{i}.conf").write_text(text)
            self.start(i)
        if count > 1:
            wait_until(self.has_leader, "a leader of the cluster")

    @property
    def url(self):
        return ",".join(f"nats://{host}:{port}" for host, port in zip(self.hosts, self.ports))

    def start(self, i):
        log = open(self.folder / f"{i}.log", "ab")
        self.running[i] = subprocess.Popen(
            [*self.prefix, "nats-server", "-c", str(self.folder / f"{i}.conf")], stdout=log, stderr=log)
        log.close()
        wait_until(lambda: self.answers(i), lambda: (self.folder / f"{i}.log").read_text())

    def answers(self, i):
        try:
            self.client(i).close()
            return True
        except OSError:
            return False

    def client(self, i=None):
        i = min(self.running) if i is None else i
        return Client(self.ports[i], self.hosts[i], self.tls)

    def ask(self, subject, question=None):
        """Asks until there is an answer: during an election there may be none."""
        def once():
            client = self.client()
            try:
                return client.ask(subject, question)
            except OSError:
                return None
            finally:
                client.close()
        return wait_until(once, f"an answer to {subject}")

    def has_leader(self):
        answer = self.ask("$JS.API.INFO")
        return "error" not in answer

    def make_stream(self, name, subjects, replicas=1, **more):
        answer = wait_until(lambda: (found := self.ask(f"$JS.API.STREAM.CREATE.{name}", {
            "name": name, "subjects": subjects, "retention": "limits", "max_consumers": -1,
            "max_msgs": -1, "max_bytes": -1, "max_age": 0, "max_msg_size": -1, "storage": "file",
            "discard": "old", "num_replicas": replicas, "duplicate_window": 120 * 10**9, **more}))
            and "error" not in found and found, f"the stream {name}")
        return answer

    def stream(self, name):
        return self.ask(f"$JS.API.STREAM.INFO.{name}")

    def stored(self, name):
        return self.stream(name)["state"]["messages"]

    def change(self, old, new):
        """Has the first one take up a change of its configuration."""
        file = self.folder / "0.conf"
        file.write_text(file.read_text().replace(old, new))
        self.running[0].send_signal(signal.SIGHUP)

    def kill(self, i):
        server = self.running.pop(i)
        server.kill()
        server.wait()

    def leader(self, name):
        return int(wait_until(lambda: self.stream(name).get("cluster", {}).get("leader"), "a leader")[1:])

    def all_of(self, name, count):
        """The bodies of all that a stream has stored, in its order. A reader may be lost with its leader: then
        another one reads."""
        for _ in range(5):
            try:
                return self.read_all_of(name, count)
            except TimeoutError:
                pass
        raise AssertionError(f"{count} messages of {name} cannot be read")

    def read_all_of(self, name, count):
        client = self.client()
        try:
            inbox = f"_INBOX.all{id(client)}"
            client.subscribe(inbox)
            made = self.ask(f"$JS.API.CONSUMER.CREATE.{name}", {"stream_name": name, "config": {
                "deliver_subject": inbox, "deliver_policy": "all", "ack_policy": "none",
                "replay_policy": "instant", "max_deliver": -1}})
            assert "error" not in made, made
            return [client.next(20) for _ in range(count)]
        finally:
            client.close()

    def end(self):
        for server in self.running.values():
            server.kill()
            server.wait()
        shutil.rmtree(self.folder)


class Bridge:
    """The program, with what it says."""

    def __init__(self, program, *options, prefix=()):
        self.command = [*prefix, program, *map(str, options)]
        self.said = []
        self.process = subprocess.Popen(self.command, stderr=subprocess.PIPE, text=True)
        self.reader = threading.Thread(target=self.read)
        self.reader.start()

    def read(self):
        for line in self.process.stderr:
            self.said.append(line)

    def says(self, pattern, limit=LIMIT):
        def found():
            text = "".join(self.said)
            return re.search(pattern, text) or (self.process.poll() is not None and not self.reader.is_alive())
        match = wait_until(found, lambda: f"{pattern} in {self.said}", limit)
        assert match is not True, f"{pattern} is not in {self.said}"
        return match

    def port(self):
        return int(self.says(r"serving on [^ ]+, port (\d+)")[1])

    def ready(self):
        self.says("carrying messages")
        return self

    def kill(self):
        self.process.kill()
        self.end()

    def end(self):
        """Its exit code, and its last counts by their names."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        code = self.process.wait(LIMIT)
        self.reader.join()
        self.process.stderr.close()
        counts = [line for line in self.said if "from sessions " in line]
        return code, dict((name.strip(" ;"), int(number)) for name, number in
                          re.findall(r"([a-zA-Z ]+?) (\d+)[,;\n\"]", counts[-1][counts[-1].index("from sessions"):])
                          ) if counts else {}


class Sender:
    """Says who it is, numbers what it sends, keeps it until it is stored, and sends it again."""

    def __init__(self, name, port, host="127.0.0.1"):
        self.name, self.address = name, (host, port)
        self.bodies = []   # all of them; number 1 is the first
        self.stored = 0
        self.connects = 0

    def add(self, *bodies):
        self.bodies.extend(bodies)

    def run(self, until=None, type="Tick", limit=LIMIT):
        """Sends until all are stored, or until `until` says true."""
        end = time.monotonic() + limit
        while self.stored < len(self.bodies) and not (until and until()):
            assert time.monotonic() < end, f"{self.stored} of {len(self.bodies)} are stored"
            try:
                self.once(type, until, end)
            except OSError:
                time.sleep(0.05)

    def once(self, type, until, end):
        frame = lambda text: struct.pack("=I", len(text)) + text
        with socket.create_connection(self.address, timeout=5) as peer:
            self.connects += 1
            name = frame(type.encode())
            peer.sendall(frame(b"KLVMsgBridgeFrom") +
                         frame(struct.pack("=Q", self.stored + 1) + self.name.encode()))
            sent, answer, rest = self.stored, b"", b""
            size = 4 + 17 + 4 + 8
            peer.setblocking(False)
            while self.stored < len(self.bodies) and not (until and until()):
                assert time.monotonic() < end, f"{self.stored} of {len(self.bodies)} are stored"
                if not rest and sent < len(self.bodies):
                    rest = b"".join(name + frame(body) for body in self.bodies[sent:sent + 500])
                    sent = min(sent + 500, len(self.bodies))
                try:
                    rest = rest[peer.send(rest):] if rest else rest
                except BlockingIOError:
                    pass
                try:
                    data = peer.recv(65536)
                    if not data:
                        raise OSError("closed")
                    answer += data
                except BlockingIOError:
                    time.sleep(0 if rest else 0.002)
                while len(answer) >= size:
                    assert answer[:21] == frame(b"KLVMsgBridgeTaken"), answer[:40]
                    (self.stored,) = struct.unpack("=Q", answer[25:33])
                    answer = answer[size:]
