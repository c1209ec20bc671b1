"""Captures give what a relay would have seen, whatever the network did to the segments."""

import io
import pathlib
import random
import socket
import struct
from typing import Any, Dict, List, Tuple

import pytest
from conftest import ROOT, framed, message
from test_recording import write_recording

from klvmsg.events import ENDED, LOST, MESSAGE, OPENED, TO_CLIENT, TO_SERVER, Event, read_recording
from klvmsg.rules import Rules

dpkt = pytest.importorskip("dpkt")
pcap = pytest.importorskip("klvmsg.pcap")

FIN, SYN, RST, ACK = 1, 2, 4, 16
Packet = Tuple[int, int, bytes]  # sequence number, flags, data


class Line:
    """One end of a connection, in some capture."""

    def __init__(self, link: int, version: int, ports: Tuple[int, int]) -> None:
        self.link, self.version, self.ports = link, version, ports

    def frame(self, to_server: bool, packet: Packet) -> bytes:
        family = socket.AF_INET6 if self.version == 6 else socket.AF_INET
        hosts = ("2001:db8::1", "2001:db8::2") if self.version == 6 else ("192.0.2.1", "192.0.2.2")
        ends = [(socket.inet_pton(family, host), port) for host, port in zip(hosts, self.ports)]
        (src, sport), (dst, dport) = ends if to_server else ends[::-1]
        sequence, flags, data = packet
        tcp = dpkt.tcp.TCP(sport=sport, dport=dport, seq=sequence & 0xFFFFFFFF, flags=flags, data=data)
        if self.version == 6:
            ip: Any = dpkt.ip6.IP6(src=src, dst=dst, nxt=6, p=6, plen=len(tcp), data=tcp)
        else:
            ip = dpkt.ip.IP(src=src, dst=dst, p=6, len=20 + len(tcp), data=tcp)
        raw = bytes(ip)
        if self.link == 1:
            kind = b"\x86\xdd" if self.version == 6 else b"\x08\x00"
            vlan = b"\x81\x00\x00\x07" if self.ports[0] % 2 else b""
            return (bytes(12) + vlan + kind + raw).ljust(60, b"\xee")  # as short frames are filled up
        if self.link == 0:
            return struct.pack("=I", 30 if self.version == 6 else 2) + raw
        return raw


def capture(link: int, frames: List[bytes], form: str = "pcap") -> io.BytesIO:
    file = io.BytesIO()
    writer = (dpkt.pcap.Writer if form == "pcap" else dpkt.pcapng.Writer)(file, linktype=link)
    for number, frame in enumerate(frames):
        writer.writepkt(frame, 1000.0 + number)
    file.seek(0)
    return file


def disturbed(rng: random.Random, start: int, wire: bytes) -> List[Packet]:
    """Segments that overlap, come twice and out of order, over the turn of the sequence numbers."""
    packets, at = [], 0
    while at < len(wire):
        size = rng.choice([1, 3, 50, 700])
        packets.append((start + at, ACK, wire[at : at + size]))
        if rng.random() < 0.3:
            back = rng.randrange(at + 1)
            packets.append((start + back, ACK, wire[back : back + rng.randrange(1, 900)]))
        at += size
    packets.append((start + len(wire), FIN | ACK, b""))
    order = sorted(range(len(packets)), key=lambda i: i + rng.choice([0, 0, 0, 5, -5]))
    return [packets[i] for i in order]


@pytest.mark.parametrize("link, form", [(1, "pcap"), (1, "pcapng"), (0, "pcap"), (101, "pcap")])
@pytest.mark.parametrize("version", [4, 6])
def test_messages_come_out_whole_and_in_order(link: int, form: str, version: int) -> None:
    seed = random.randrange(1 << 32)
    rng = random.Random(seed)
    wanted: Dict[Tuple[int, str], List[Tuple[str, bytes]]] = {}
    flows: List[Tuple[Line, bool, List[Packet]]] = []
    frames: List[bytes] = []
    for number in range(1, 4):
        line = Line(link, version, (40000 + number, 5000))
        for to_server in (True, False):
            bodies = [framed(rng.randbytes(rng.choice([0, 5, 3000]))) for _ in range(20)]
            wire = b"".join(message(b"Note", body) for body in bodies)
            wanted[number, TO_SERVER if to_server else TO_CLIENT] = [("Note", body) for body in bodies]
            start = rng.choice([7, 0xFFFFFFFF - 2000])
            frames.append(line.frame(to_server, (start - 1, SYN if to_server else SYN | ACK, b"")))
            flows.append((line, to_server, disturbed(rng, start, wire)))
    while flows:
        flow = rng.choice(flows)
        line, to_server, packets = flow
        frames.append(line.frame(to_server, packets.pop(0)))
        if not packets:
            flows.remove(flow)
    events = list(pcap.read_capture(capture(link, frames, form), Rules(), keep=1 << 20))
    found: Dict[Tuple[int, str], List[Tuple[str, bytes]]] = {}
    for event in events:
        if event.kind == MESSAGE:
            found.setdefault((event.connection, event.direction), []).append((event.type, event.body))
    assert found == wanted, seed
    assert [event.text for event in events if event.kind == ENDED] == [""] * 6, seed
    assert not [event for event in events if event.kind == LOST], seed
    host = "[2001:db8::{}]" if version == 6 else "192.0.2.{}"
    opened = [event.text for event in events if event.kind == OPENED]
    assert opened[0] == f"{host.format(1)}:40001 to {host.format(2)}:5000"
    assert [event.time for event in events] == sorted(event.time for event in events)


def test_what_a_capture_does_not_have_is_told() -> None:
    line, other = Line(101, 4, (40000, 5000)), Line(101, 4, (41000, 80))
    note = message(b"Note", framed(b"abc"))
    frames = [other.frame(True, (1, ACK, b"GET / HTTP/1.1\r\n")), line.frame(True, (100, ACK, note)),
              line.frame(True, (100 + 2 * len(note), ACK, note)),  # one before it is missing
              line.frame(False, (1, ACK, note[:9])), line.frame(False, (10, RST, b"")),
              line.frame(True, (900, SYN, b"")), line.frame(True, (901, ACK, note))]  # fmt: skip
    file = capture(101, frames)
    events = list(pcap.read_capture(file, Rules(), ports=[5000]))
    assert [(event.connection, event.kind, event.direction, event.type) for event in events] == [
        (1, OPENED, "", ""), (1, MESSAGE, TO_SERVER, "Note"), (1, ENDED, TO_SERVER, ""),
        (1, ENDED, TO_CLIENT, ""), (2, OPENED, "", ""), (2, MESSAGE, TO_SERVER, "Note")]  # fmt: skip
    assert events[0].text == "192.0.2.1:40000 to 192.0.2.2:5000"
    assert events[3].text == "reset, in the middle of a message: Note, 1 bytes"
    file.seek(0)
    assert [event.kind for event in pcap.read_capture(file, Rules())].count(LOST) == 1

    hole = capture(101, frames[1:3])
    last = list(pcap.read_capture(hole, Rules()))[-1]
    assert (last.kind, last.direction) == (LOST, TO_SERVER)
    assert last.text == f"{len(note)} bytes are missing in the capture"

    again = [frames[1], line.frame(True, (100 + len(note) + 3, ACK, note[3:5])),
             line.frame(True, (100 + len(note) + 3, ACK, note[3:])),
             line.frame(True, (100 + len(note), ACK, note[:3]))]  # fmt: skip
    kinds = [event.kind for event in pcap.read_capture(capture(101, again), Rules())]
    assert kinds == [OPENED, MESSAGE, MESSAGE], "sent again, and longer"

    whole = capture(101, frames).getvalue()
    cut = list(pcap.read_capture(io.BytesIO(whole[:-5]), Rules(), ports=[5000]))
    assert cut == events[:-1]
    for bad in (b"", b"no capture at all, but long enough for a header", capture(147, frames).getvalue()):
        with pytest.raises(pcap.BadCapture):
            list(pcap.read_capture(io.BytesIO(bad), Rules()))


def test_the_commands_read_captures_and_write_them(start: Any, tmp_path: pathlib.Path) -> None:
    exchange, kept = ROOT / "examples" / "exchange" / "exchange.rules", ROOT / "tests" / "wireshark"
    first, again, file = tmp_path / "first", tmp_path / "again", tmp_path / "again.pcap"
    reading = ("--rules", f"@{exchange}", "--pcap")
    assert start("klvmsg", "record", first, *reading, kept / "exchange.pcap").end()[0] == 0
    assert start("klvmsg", "export", first, "--pcap", "-o", file).end()[0] == 0
    assert start("klvmsg", "record", again, *reading, file).end()[0] == 0

    def told(path: pathlib.Path) -> List[Event]:
        with open(path) as lines:
            return [event for event in read_recording(lines) if event.kind in (MESSAGE, OPENED)]

    assert len(told(first)) == 13 and told(first) == told(again)
    code, output, _ = start("klvmsg", "spy", *reading, file, "--type", "Rep*").end()
    assert code == 0 and output.count(" Report 32 bytes=") == 3 and "Chunk" not in output

    large = write_recording(tmp_path / "large", (0, 1, "to-server", "Big", bytes(200_000)))
    assert start("klvmsg", "export", large, "--pcap", "-o", file).end()[0] == 0
    assert start("klvmsg", "record", again, "--pcap", file).end()[0] == 0
    assert [event.length for event in told(again) if event.kind == MESSAGE] == [200_004]

    for arguments, code in ((("--pcap", tmp_path / "none"), 3), (("--pcap", large), 3), ((), 2),
                            (("--pcap", file, "--listen", 0), 2), (("--pcap", file, "--top"), 2)):  # fmt: skip
        found, _, errors = start("klvmsg", "spy", *arguments).end()
        assert found == code and "Traceback" not in errors and "Errno" not in errors
