#!/usr/bin/env python3
"""Checks what the dissector makes of captures: of such that are written here byte by byte, and of
real processes talking on the loopback interface."""

import argparse
import json
import os
import re
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
DISSECTOR = os.path.join(HERE, "..", "..", "tools", "wireshark", "klvmsg.lua")
PORT = 5000


def message(name, body=b"", order="<"):
    name = name.encode() if isinstance(name, str) else name
    return struct.pack(order + "I", len(name)) + name + body


def write_capture(path, connections):
    """Writes raw IPv4 packets. A connection is a list of segments (from_client, bytes)."""
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 101))
        clock = 0
        for number, segments in enumerate(connections):
            ports = [PORT, 40000 + number]
            next_byte = [1000, 2000]
            opening = [(1, 0x02, b""), (0, 0x12, b""), (1, 0x10, b"")]
            for sender, flags, data in opening + [(int(c), 0x18, d) for c, d in segments]:
                acknowledged = next_byte[1 - sender] if flags & 0x10 else 0
                tcp = struct.pack(">HHIIBBHHH", ports[sender], ports[1 - sender],
                                  next_byte[sender], acknowledged, 0x50, flags, 65535, 0, 0)
                ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(data), 0, 0, 64, 6, 0,
                                 bytes([127, 0, 0, 1]), bytes([127, 0, 0, 1]))
                packet = ip + tcp + data
                out.write(struct.pack("<IIII", clock // 1000000, clock % 1000000, len(packet),
                                      len(packet)) + packet)
                next_byte[sender] += len(data) + (1 if flags & 0x02 else 0)
                clock += 1000


class Tshark:
    """Reads captures with the dissector. Where root has started the test, somebody else reads: for
    root, tshark 4.4 loads no script that its command line names."""

    def __init__(self, program, folder):
        self.program = program
        self.dissector = shutil.copy(DISSECTOR, folder)
        self.reader = {}
        if os.geteuid() == 0:
            os.chmod(folder, 0o755)
            nobody = 65534
            self.reader = {"user": nobody, "group": nobody, "extra_groups": [],
                           "env": {**os.environ, "HOME": folder}}

    def read(self, capture, rules="", *options, port=PORT):
        """What a capture shows, whether it is dissected once or, as in a window, once more."""
        shown = [self.read_once(capture, rules, port, *passes, *options) for passes in ((), ("-2",))]
        expect(shown[0], shown[1], "the second pass")
        return shown[0]

    def read_once(self, capture, rules, port, *options):
        """The messages of a capture, in order: (connection, sender's port, type, body), with None
        as the type of bytes out of step and "..." of those that go on with a body."""
        os.chmod(capture, 0o644)
        result = subprocess.run(
            [self.program, "-X", "lua_script:" + self.dissector, "-r", capture, "-T", "json",
             "--no-duplicate-keys", "-o", "klvmsg.rules:" + rules,
             "-o", "klvmsg.ports:%s" % ("" if "-d" in options else port), *options,
             "-Y", "klvmsg"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=120, **self.reader)
        if result.returncode != 0 or "Lua" in result.stderr:
            raise AssertionError("tshark failed:\n" + result.stderr)
        self.packets = result.stdout
        found = []
        for packet in json.loads(result.stdout):
            layers = packet["_source"]["layers"]
            shown = layers["klvmsg"]
            for part in shown if isinstance(shown, list) else [shown]:
                tcp = layers["tcp"]
                if "klvmsg.bad_rule" in str(part):
                    continue  # which is no message
                found.append((int(tcp["tcp.stream"]), int(tcp["tcp.srcport"])) + self.part(part))
        return found

    def list_of_packets(self, capture, rules):
        """The first thing that one sees."""
        return subprocess.run(
            [self.program, "-X", "lua_script:" + self.dissector, "-r", capture, "-o",
             "klvmsg.rules:" + rules, "-o", "klvmsg.ports:%s" % PORT],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, **self.reader).stdout

    def server_port(self, capture):
        """The port that the first connection of a capture goes to."""
        result = subprocess.run(
            [self.program, "-r", capture, "-Y", "tcp.flags.syn == 1 && tcp.flags.ack == 0", "-T",
             "fields", "-e", "tcp.dstport"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        return int(result.stdout.split()[0])

    @staticmethod
    def part(fields):
        for name, kind in (("klvmsg.out_of_step", None), ("klvmsg.rest", "...")):
            if name in fields:
                return kind, bytes.fromhex(fields[name].replace(":", ""))
        length = int(fields["klvmsg.name_length"])
        name = fields["klvmsg.type"]
        assert len(name.encode()) == length, (name, length)
        return name, bytes.fromhex(fields.get("klvmsg.body", "").replace(":", ""))


def expect(wanted, got, story):
    if wanted != got:
        lines = ["%s:" % story]
        for i in range(max(len(wanted), len(got))):
            pair = [side[i] if i < len(side) else "nothing" for side in (wanted, got)]
            if pair[0] != pair[1]:
                lines.append("  message %d: wanted %r, got %r" % (i, *pair))
        raise AssertionError("\n".join(lines[:20]))


def first_connection(messages):
    """Without what others on this machine have said from the same port, once it was free again."""
    return [message for message in messages if message[0] == messages[0][0]]


def text(value):
    return struct.pack("<I", len(value)) + value


RULES = "Tick=8; Note=length(0,4,little);Frame = length(2, 2, big)"
STORY = [("Tick", bytes(range(8))), ("Note", text(b"hello")), ("Note", text(b"")),
         ("Frame", b"\xab\xcd\x00\x03xyz"), ("Tick", b"12345678")]


def test_cuts(tshark, folder):
    """Two segments, cut at every place, and one byte a segment."""
    stream = b"".join(message(*m) for m in STORY)
    connections = [[(True, stream)], [(True, stream[i:i + 1]) for i in range(len(stream))]]
    connections += [[(True, stream[:i]), (True, stream[i:])] for i in range(1, len(stream))]
    path = os.path.join(folder, "cuts.pcap")
    write_capture(path, connections)
    wanted = [(n, 40000 + n, *m) for n in range(len(connections)) for m in STORY]
    expect(wanted, tshark.read(path, RULES), "cut at every byte")


def test_directions_and_large_bodies(tshark, folder):
    """Both directions at once, each cut in the middle of a message; a body of many segments."""
    large = text(bytes(i * 7 % 251 for i in range(200000)))
    asked, answered = message("Tick", b"8 bytes!"), message("Note", large)
    pieces = [(False, answered[i:i + 1400]) for i in range(0, len(answered), 1400)]
    pieces.insert(1, (True, asked[:9]))
    pieces.insert(50, (True, asked[9:] + asked[:3]))
    pieces.append((True, asked[3:]))
    path = os.path.join(folder, "directions.pcap")
    write_capture(path, [pieces])
    expect([(0, 40000, "Tick", b"8 bytes!"), (0, PORT, "Note", large),
            (0, 40000, "Tick", b"8 bytes!")],
           tshark.read(path, RULES), "both directions")


def test_out_of_step(tshark, folder):
    """A header that cannot be one ends the messages of its direction, and of no other."""
    tick = message("Tick", bytes(8))
    bad = [b"\xff\xff\xff\x7fname", bytes(4) + b"name", message(b"Ti\x01ck", bytes(8)),
           message("Note", struct.pack("<I", 0x7FFFFFFF) + b"much"),
           message("Note", b"\x05\x00")[2:] + tick]
    connections = [[(True, tick + b), (True, tick), (False, tick)] for b in bad]
    path = os.path.join(folder, "lost.pcap")
    write_capture(path, connections)
    wanted = []
    for n, lost in enumerate(bad):
        wanted += [(n, 40000 + n, "Tick", bytes(8)), (n, 40000 + n, None, lost),
                   (n, 40000 + n, None, tick), (n, PORT, "Tick", bytes(8))]
    expect(wanted, tshark.read(path, RULES), "out of step")
    for reason in ("Out of step: a type name of 2147483647 bytes", "has the byte 0x01",
                   "Out of step: a type name of 0 bytes", "a body of Note with 2147483651 bytes"):
        assert reason in tshark.packets, reason
    for expert, times in (("name_length", 3), ("body_length", 1)):
        assert tshark.packets.count('"klvmsg.%s.impossible": ' % expert) == times, expert
    assert "out of step: a type name of 0 bytes" in tshark.list_of_packets(path, RULES)


def test_rules(tshark, folder):
    """Without a rule the rest is body; * is any type; widths and orders; a rule that is none."""
    tick = message("Tick", bytes(8))
    path = os.path.join(folder, "rules.pcap")
    write_capture(path, [[(True, tick + message("Odd", b"abc")), (True, tick), (False, tick)]])
    expect([(0, 40000, "Tick", bytes(8)), (0, 40000, "Odd", b"abc"), (0, 40000, "...", tick),
            (0, PORT, "Tick", bytes(8))],
           tshark.read(path, "Tick=8; Odd=length(0,3,little)"), "no rule")
    assert "Tick, Odd (no rule)" in tshark.list_of_packets(path, "Tick=8")
    for part in ("No rule for Odd", "Rule not understood: Odd=length(0,3,little)"):
        assert part in tshark.packets, part
    packets = tshark.list_of_packets(path, "Odd=length(0,3,little)")
    assert "Rule not understood: Odd=" in packets, packets

    bodies = [("One", b"\x02ab"), ("Eight", b"#" + struct.pack(">Q", 2) + b"ab"), ("Nil", b""),
              ("More", b"\x00\x02abmore"), ("Any", b"\x03\x00abc")]
    rules = ("One=length(0,1,little);Eight=length(1,8,big);Nil=0;More=length(0,2,big,4);"
             "*=length(0,2,little)")
    for order, name in (("<", "little endian"), (">", "big endian")):
        write_capture(path, [[(True, b"".join(message(*b, order) for b in bodies))]])
        expect([(0, 40000, *b) for b in bodies],
               tshark.read(path, rules, "-o", "klvmsg.order:" + name, "-d",
                           "tcp.port==%d,klvmsg" % PORT), "widths, " + name)


def test_calls(tshark, folder):
    """A question and its answer name each other's frame; both sides ask with the same number."""
    def call(name, number, fields):
        return message(name, text(struct.pack("<Q", number) + fields))

    answer = 1 << 63
    path = os.path.join(folder, "calls.pcap")
    write_capture(path, [[(True, call("Price", 1, b"bolt")), (True, call("Price", 2, b"nut")),
                          (False, call("Offer", answer + 2, b"7") + call("Price", 1, b"own")),
                          (False, call("Offer", answer + 1, b"8")), (True, call("Note", 0, b""))]])
    tshark.read(path, "*=length(0,4,little) call")  # the second pass knows the answers
    for field, wanted in (("call", ["1", "2", "2", "1", "1", "0"]), ("answer_in", ["7", "6"]),
                          ("question_in", ["5", "4"]),
                          ("answer_time", ["0.001000000", "0.003000000"])):
        expect(wanted, re.findall('"klvmsg.%s": "(.*?)"' % field, tshark.packets), field)
    assert "Offer, answer 2, Price, question 1" in tshark.list_of_packets(
        path, "*=length(0,4,little) call")


def test_rules_of_examples(tshark, folder):
    """Rules may stand in a file, as those of the examples do, beside what is not for the dissector."""
    path = os.path.join(folder, "examples.pcap")
    examples = os.path.join(HERE, "..", "..", "examples")
    tried = {"klvmsgcat": [("Note", text(b"hello"))], "pubsub": [("News", text(b"hello"))],
             "service": [("Price", text(bytes(8) + b"bolt")), ("Offer", text(bytes(8)))],
             "workers": [("Job", text(b"1234")), ("Result", text(b"12345678"))],
             "exchange": [("Hello", struct.pack("<Q", 1) + b"a" + struct.pack("<Q", 3)),
                          ("Chunk", struct.pack("<QQ", 0, 3) + b"abc"), ("Receipt", bytes(8)),
                          ("Report", bytes(32)), ("Farewell", struct.pack("<Q", 2) + b"by")]}
    for example, bodies in tried.items():
        write_capture(path, [[(True, b"".join(message(*b) for b in bodies))]])
        rules = shutil.copy(os.path.join(examples, example, example + ".rules"), folder)
        os.chmod(rules, 0o644)
        expect([(0, 40000, *b) for b in bodies], tshark.read(path, "@" + rules), example)
        assert "not understood" not in tshark.packets, example
    tshark.read(path, "@" + os.path.join(folder, "none"))
    assert "Rule not understood: @" in tshark.packets


def test_protocol_buffers(tshark, folder):
    """A rule that names a message has its fields shown, and what follows stays in step."""
    proto = os.path.join(HERE, "..", "..", "examples", "protobuf", "order.proto")
    types = os.path.join(folder, "types")
    os.mkdir(types)
    shutil.copy(proto, types)
    bolts = b"\x0a\x08\x0a\x04bolt\x10\x64"
    bodies = [("Order", text(bolts)), ("shop.Order", b"#\0\x0a" + bolts), ("Order", text(b"")),
              ("Nine", bolts), ("Tick", bytes(8))]
    path = os.path.join(folder, "protobuf.pcap")
    write_capture(path, [[(True, b"".join(message(*b) for b in bodies))]])
    rules = ("Order=length(0,4,little) protobuf(shop.Order);*=length(1,2,big) protobuf();Tick=8;"
             "Nine=%d  protobuf( shop.Order )" % len(bolts))
    expect([(0, 40000, *b) for b in bodies],
           tshark.read(path, rules, "-o", 'uat:protobuf_search_paths:"%s","TRUE"' % types),
           "Protocol Buffers")
    for part, times in (('"protobuf.message.name": "shop.Order"', 3),
                        ('"protobuf.field.value.string": "bolt"', 3)):
        assert tshark.packets.count(part) == times, (part, tshark.packets)


# Real processes ----------------------------------------------------------------------------------

def wait_for(condition, what):
    for _ in range(600):
        if condition():
            return
        time.sleep(0.05)
    raise AssertionError("nothing came of it: " + what)


class LoopbackCapture:
    """tshark capturing one port on the loopback interface, or all with None."""

    def __init__(self, program, path, port):
        self.path, self.program = path, program
        filters = ["-f", "tcp port %d" % port] if port else ["-f", "tcp"]
        self.process = subprocess.Popen(
            [program, "-i", "lo", "-w", path, "-a", "duration:90", *filters],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        self.works = self.started()

    def started(self):
        seen = b""
        while b"Capture started" not in seen:
            ready, _, _ = select.select([self.process.stderr], [], [], 30)
            piece = os.read(self.process.stderr.fileno(), 4096) if ready else b""
            if not piece:
                self.stop()
                return False
            seen += piece
        return True

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
        self.process.communicate(timeout=60)

    def packets(self, display_filter):
        result = subprocess.run([self.program, "-r", self.path, "-Y", display_filter],
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        return len(result.stdout.splitlines())


EXCHANGE_RULES = ("Hello=length(0,8,little,8);Chunk=length(8,8,little);Receipt=8;Report=32;"
                  "Farewell=length(0,8,little)")
FILES = {"poem": b"one two\nthree\n" * 200, "empty": b"", "bytes": bytes(range(256)) * 2}
CHUNK = 1024
KEPT = os.path.join(HERE, "exchange.pcap")


def files_in(folder):
    paths = []
    for name, content in FILES.items():
        paths.append(os.path.join(folder, name))
        with open(paths[-1], "wb") as out:
            out.write(content)
    return paths


def contents_of(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def capture_conversation(tshark, path, server, client, end):
    """Runs a server, which tells its port at the end of its first line, captures while the client
    runs, and waits until the capture has the end of the connection. False when capturing is not
    permitted."""
    output = path + ".output"
    with open(output, "w", encoding="utf-8") as out:
        process = subprocess.Popen(server, stdout=out, stderr=subprocess.STDOUT)
    try:
        wait_for(lambda: "\n" in contents_of(output), "the server's first line")
        port = int(contents_of(output).splitlines()[0].replace(":", " ").split()[-1])
        capture = LoopbackCapture(tshark.program, path, port)
        if not capture.works:
            return False
        subprocess.run(client(port), check=True, stdout=subprocess.DEVNULL, timeout=90)
        process.wait(timeout=60)
        assert process.returncode == 0, "%s: exit code %d" % (server[0], process.returncode)
        wait_for(lambda: capture.packets(end % port) >= 1,
                 "the end of the connection in the capture")
        capture.stop()
        return True
    finally:
        if process.poll() is None:
            process.kill()
        process.wait()


def check_exchange(tshark, path):
    """The client's files come back from the capture byte by byte, and the hub's answers are those
    of a count made here."""
    def by_type(messages, name):
        return [body for kind, body in messages if kind == name]

    port = tshark.server_port(path)
    found = first_connection(tshark.read(path, EXCHANGE_RULES, port=port))
    said = [m[2:] for m in found if m[1] != port]
    answered = [m[2:] for m in found if m[1] == port]
    name = b"client-1"
    expect([("Hello", struct.pack("<Q", len(name)) + name + struct.pack("<Q", len(FILES)))],
           said[:1], "the client's first message")
    contents, receipts = [b""], []
    for chunk in by_type(said, "Chunk"):
        last, length = struct.unpack("<QQ", chunk[:16])
        assert length == len(chunk) - 16
        contents[-1] += chunk[16:]
        if last:
            contents.append(b"")
        else:
            receipts.append(struct.pack("<Q", len(contents[-1])))
    expect(list(FILES.values()) + [b""], contents, "the files in the capture")
    expect([struct.pack("<QQQQ", len(f), f.count(b"\n"), len(f.split()), zlib.crc32(f))
            for f in FILES.values()],
           by_type(answered, "Report"), "the reports")
    expect(receipts, by_type(answered, "Receipt"), "the receipts")
    expect("Farewell", answered[-1][0], "the hub's last message")
    expect({"Hello", "Chunk", "Receipt", "Report", "Farewell"}, {m[2] for m in found}, "the types")


def test_exchange(tshark, folder, exchange, keep):
    """The exchange at work, captured now where that is permitted; and the kept capture."""
    path = os.path.join(folder, "exchange.pcapng")
    if exchange:
        works = capture_conversation(
            tshark, path, [exchange, "hub", "--clients", "1"],
            lambda port: [exchange, "client", "--port", str(port), "--name", "client-1", "--chunk",
                          str(CHUNK // 1024), *files_in(folder)],
            "(tcp.flags.fin == 1 || tcp.flags.reset == 1) && tcp.port == %d")
        if works:
            check_exchange(tshark, path)
        if works and keep:  # in the format that tells nothing of the machine
            subprocess.run([tshark.program, "-r", path, "-F", "pcap", "-w", keep], check=True,
                           stderr=subprocess.DEVNULL)
        print("exchange: %s" % ("captured on loopback" if works else
                                "capturing on loopback is not permitted, only the kept capture"))
    check_exchange(tshark, shutil.copy(KEPT, folder))
    print("exchange: the kept capture holds")


def test_klvmsgcat(tshark, folder, klvmsgcat):
    """What one process says to another is what the capture shows; a large body too."""
    body, tick = (os.path.join(folder, name) for name in ("body", "tick"))
    content = bytes(range(256)) * 300
    for path, data in ((body, content), (tick, b"12345678")):
        with open(path, "wb") as out:
            out.write(data)
    path = os.path.join(folder, "klvmsgcat.pcapng")
    both = ["-t", "60", "-f", "Tick=8", "-r", "Note", "-r", "Tick"]
    works = capture_conversation(
        tshark, path, [klvmsgcat, "--listen", "0", *both, "-s", "Note=" + tick],
        lambda port: [klvmsgcat, "--connect", "127.0.0.1:%d" % port, *both, "-n", "1",
                      "-s", "Tick=" + tick, "-s", "Note=" + body],
        "(tcp.flags.fin == 1 || tcp.flags.reset == 1) && tcp.srcport == %d")
    if not works:
        print("klvmsgcat: capturing on loopback is not permitted, not tried")
        return
    port = tshark.server_port(path)
    found = first_connection(tshark.read(path, RULES, port=port))
    expect([("Tick", b"12345678"), ("Note", text(content))],
           [m[2:] for m in found if m[1] != port], "from the client")
    expect([("Note", text(b"12345678"))], [m[2:] for m in found if m[1] == port], "the answer")
    print("klvmsgcat: captured on loopback")


def test_session(tshark, folder, workers):
    """Sessions put several messages into a segment; each of them is shown."""
    path = os.path.join(folder, "session.pcapng")
    three = 'for i in 1 2 3; do "$0" work "$1" all & done; wait'
    works = capture_conversation(
        tshark, path, [workers, "dispatch"],
        lambda port: ["sh", "-c", three, workers, str(port)],
        "tcp.flags.fin == 1 && tcp.port == %d")
    if not works:
        print("workers: capturing on loopback is not permitted, not tried")
        return
    found = tshark.read(path, "*=length(0,4,little)", port=tshark.server_port(path))
    said = [m[2:] for m in found]
    expect([("Job", text(struct.pack("<I", n))) for n in [0] * 3 + list(range(1, 11))],
           sorted(m for m in said if m[0] == "Job"), "the jobs")
    expect([("Result", text(struct.pack("<II", n, n * n))) for n in [0] * 3 + list(range(1, 11))],
           sorted((m for m in said if m[0] == "Result"), key=lambda m: m[1]), "the results")
    expect(26, len(said), "the number of messages")
    print("workers: captured on loopback")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tshark", default="tshark")
    parser.add_argument("--klvmsgcat", help="the program, to be captured while it talks")
    parser.add_argument("--exchange", help="the program, to be captured while it works")
    parser.add_argument("--workers", help="the program, to be captured while it works")
    parser.add_argument("--keep", help="where that capture goes, to be kept")
    arguments = parser.parse_args()
    os.umask(0o022)
    with tempfile.TemporaryDirectory() as folder:
        tshark = Tshark(arguments.tshark, folder)
        for test in (test_cuts, test_directions_and_large_bodies, test_out_of_step, test_rules, test_calls,
                     test_rules_of_examples, test_protocol_buffers):
            test(tshark, folder)
            print("%s: passed" % test.__name__)
        test_exchange(tshark, folder, arguments.exchange, arguments.keep)
        if arguments.klvmsgcat:
            test_klvmsgcat(tshark, folder, arguments.klvmsgcat)
        if arguments.workers:
            test_session(tshark, folder, arguments.workers)


if __name__ == "__main__":
    try:
        main()
    except AssertionError as failure:
        sys.exit("FAILED: %s" % failure)
