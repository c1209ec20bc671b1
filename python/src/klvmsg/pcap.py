"""Captures: the events of the connections in one, as a relay would have seen them, and a capture of
recorded messages. Needs dpkt."""

from __future__ import annotations

import io
import ipaddress
import struct
from typing import Any, BinaryIO, Dict, Iterable, Iterator, List, NamedTuple, Optional, Set, Tuple

import dpkt

from .events import ENDED, LOST, MESSAGE, OPENED, TO_CLIENT, TO_SERVER, Event
from .relay import Address, events_of, show_address
from .rules import Rules
from .text import complain
from .wire import MAX_BODY, MAX_NAME, Decoder, header

_MOST_AHEAD = 16 << 20  # bytes that wait for a segment before them
_ETHERNET, _NULL, _LOOP, _RAW = 1, 0, 108, (12, 14, 101, 228, 229)  # kinds of links
_SLL, _SLL2 = 113, 276
_SEGMENT = 60_000  # bytes, for which one packet has room
_FIN, _SYN, _RST, _PSH, _ACK = 0x01, 0x02, 0x04, 0x08, 0x10


class BadCapture(Exception):
    """A file that is no capture, or of a kind of link that is not understood."""


# Reading -----------------------------------------------------------------------------------------


class _Segment(NamedTuple):
    time: float
    source: Address
    target: Address
    sequence: int
    flags: int
    data: bytes


class _Half:
    """One direction of a connection: puts its segments in order."""

    def __init__(self, direction: str, decoder: Decoder) -> None:
        self.direction = direction
        self.decoder = decoder
        self.over = False  # nothing more is taken
        self._next: Optional[int] = None  # the sequence number of the byte that comes next
        self._end: Optional[int] = None  # that of the end, once it is known
        self._ahead: Dict[int, bytes] = {}  # by the sequence number of the first byte
        self._waiting = 0  # bytes in _ahead

    def begin(self, sequence: int) -> None:
        self._next = sequence & 0xFFFFFFFF

    def take(self, segment: _Segment) -> bytes:
        """What is in order now."""
        if self._next is None:
            self._next = segment.sequence  # the capture begins in the middle
        if segment.flags & _FIN:
            self._end = (segment.sequence + len(segment.data)) & 0xFFFFFFFF
        if segment.data:
            longest = self._ahead.get(segment.sequence, b"")
            if len(segment.data) > len(longest):
                self._ahead[segment.sequence] = segment.data
                self._waiting += len(segment.data) - len(longest)
        return self._in_order()

    def _in_order(self) -> bytes:
        ready: List[bytes] = []
        assert self._next is not None
        for sequence in sorted(self._ahead, key=self._distance):
            distance = self._distance(sequence)
            if distance > 0:
                break
            data = self._ahead.pop(sequence)
            self._waiting -= len(data)
            ready.append(data[-distance:])  # without what has come before
            self._next = (self._next + len(ready[-1])) & 0xFFFFFFFF
        return b"".join(ready)

    def _distance(self, sequence: int) -> int:
        """From the next byte; negative for what has come before."""
        assert self._next is not None
        return (sequence - self._next + 0x80000000) % 0x100000000 - 0x80000000

    @property
    def at_end(self) -> bool:
        return self._end is not None and self._end == self._next

    def hole(self) -> int:
        """How many bytes are missing before those that wait."""
        return min(map(self._distance, self._ahead), default=0)

    @property
    def waits_too_long(self) -> bool:
        return self._waiting > _MOST_AHEAD


class _Connection:
    def __init__(self, number: int, client: Address, server: Address, decoders: List[Decoder]) -> None:
        self.number = number
        self.client = client
        self.server = server
        self.begun = -1  # the sequence number that its opening had
        self.halves = {
            client: _Half(TO_SERVER, decoders[0]), server: _Half(TO_CLIENT, decoders[1])
        }  # fmt: skip


def read_capture(
    file: BinaryIO,
    rules: Rules,
    *,
    ports: Iterable[int] = (),
    keep: int = 0,
    max_body: int = MAX_BODY,
    max_name: int = MAX_NAME,
) -> Iterator[Event]:
    """The events of all TCP connections, or of those with one of these server's ports.

    Who sent the first packet of a connection is its client; where that is not in the capture, the side
    with the greater port. Raises BadCapture.
    """
    wanted = set(ports)
    connections: Dict[Tuple[Address, ...], _Connection] = {}
    count = 0
    last = 0.0
    for segment in _segments(file):
        last = segment.time
        if wanted and not wanted & {segment.source[1], segment.target[1]}:
            continue
        key = tuple(sorted((segment.source, segment.target)))
        connection = connections.get(key)
        opens = segment.flags & (_SYN | _ACK) == _SYN
        if connection is None or (opens and connection.begun != segment.sequence):
            client, server = _ends(segment, wanted)
            count += 1
            decoders = [Decoder(rules, keep, max_body, max_name) for _ in range(2)]
            connections[key] = connection = _Connection(count, client, server, decoders)
            yield Event(segment.time, count, OPENED,
                        text=f"{show_address(client)} to {show_address(server)}")  # fmt: skip
        if opens:
            connection.begun = segment.sequence
        yield from _follow(connection, segment)
    for connection in connections.values():
        for half in connection.halves.values():
            if not half.over and half.hole():
                yield _missing(connection, half, last)


def _ends(segment: _Segment, ports: Set[int]) -> Tuple[Address, Address]:
    """Client and server, as far as a connection's first segment tells."""
    source, target = segment.source, segment.target
    if segment.flags & _SYN:
        from_client = not segment.flags & _ACK
    elif (source[1] in ports) != (target[1] in ports):
        from_client = target[1] in ports
    else:
        from_client = source[1] >= target[1]
    return (source, target) if from_client else (target, source)


def _follow(connection: _Connection, segment: _Segment) -> Iterator[Event]:
    half = connection.halves[segment.source]
    if segment.flags & _RST:
        for one in connection.halves.values():
            if not one.over:
                yield _end(connection, one, segment.time, "reset")
        return
    if segment.flags & _SYN:
        half.begin(segment.sequence + 1)
        return
    if half.over:
        return
    data = half.take(segment)
    if data:
        yield from events_of(half.decoder, data, segment.time, connection.number, half.direction)
    if half.at_end:
        yield _end(connection, half, segment.time, "")
    elif half.waits_too_long:
        yield _missing(connection, half, segment.time)


def _end(connection: _Connection, half: _Half, time: float, how: str) -> Event:
    half.over = True
    words = [how] if how else []
    if half.decoder.lost is None and not half.decoder.between_messages:
        words.append(f"in the middle of a message: {half.decoder.where()}")
    return Event(time, connection.number, ENDED, half.direction, ", ".join(words))


def _missing(connection: _Connection, half: _Half, time: float) -> Event:
    half.over = True
    return Event(time, connection.number, LOST, half.direction,
                 f"{half.hole()} bytes are missing in the capture")  # fmt: skip


def _segments(file: BinaryIO) -> Iterator[_Segment]:
    """The TCP segments of a capture; whatever else is in it is passed over."""
    try:
        packets = dpkt.pcap.UniversalReader(io.BytesIO(file.read()) if not file.seekable() else file)
    except (ValueError, dpkt.Error) as error:
        raise BadCapture("neither pcap nor pcapng") from error
    link = packets.datalink()
    if link not in (_ETHERNET, _NULL, _LOOP, _SLL, _SLL2, *_RAW):
        raise BadCapture(f"captured on a kind of link that is not understood: {link}")
    reading = iter(packets)
    while True:
        try:
            time, data = next(reading)
        except StopIteration:
            return
        except (dpkt.Error, struct.error):
            complain("the capture is cut off; read to its last whole packet")
            return
        try:
            packet = _network_packet(link, data)
            segment = packet.data if packet is not None else None
            if isinstance(segment, dpkt.tcp.TCP):
                source = str(ipaddress.ip_address(packet.src)), segment.sport
                target = str(ipaddress.ip_address(packet.dst)), segment.dport
                yield _Segment(float(time), source, target, segment.seq, segment.flags,
                               bytes(segment.data))  # fmt: skip
        except (dpkt.Error, struct.error, ValueError):
            pass  # cut by the capture, or broken: it shows as bytes that are missing


def _network_packet(link: int, data: bytes) -> Any:
    """The packet of IPv4 or IPv6; None for another protocol."""
    if link in _RAW:
        packet = (dpkt.ip6.IP6 if data[:1] and data[0] >> 4 == 6 else dpkt.ip.IP)(data)
    elif link in (_NULL, _LOOP):
        packet = dpkt.loopback.Loopback(data).data
    else:
        frame = {_ETHERNET: dpkt.ethernet.Ethernet, _SLL: dpkt.sll.SLL, _SLL2: dpkt.sll2.SLL2}[link]
        packet = frame(data).data
    return packet if isinstance(packet, (dpkt.ip.IP, dpkt.ip6.IP6)) else None


# Writing -----------------------------------------------------------------------------------------


class CaptureWriter:
    """Writes messages as packets of the connections that they came on, in the form pcap.

    A connection whose addresses are not known as numbers gets some that are kept for examples.
    """

    def __init__(self, file: BinaryIO) -> None:
        self._writer = dpkt.pcap.Writer(file, linktype=101)
        self._connections: Dict[int, _Written] = {}

    def write(self, event: Event) -> None:
        if event.kind == OPENED:
            self._open(event, event.text)
        elif event.kind == MESSAGE:
            if event.connection not in self._connections:
                self._open(event, "")
            connection = self._connections[event.connection]
            data = header(event.type) + event.body
            for at in range(0, len(data), _SEGMENT):
                self._put(event, connection, event.direction, _PSH | _ACK, data[at : at + _SEGMENT])
        elif event.kind == ENDED and event.connection in self._connections:
            self._put(event, self._connections[event.connection], event.direction, _FIN | _ACK)

    def close(self) -> None:
        """Everything has been written; whoever has opened the file closes it."""

    def _open(self, event: Event, text: str) -> None:
        connection = _Written(*_addresses(text, event.connection))
        self._connections[event.connection] = connection
        for direction, flags in ((TO_SERVER, _SYN), (TO_CLIENT, _SYN | _ACK), (TO_SERVER, _ACK)):
            self._put(event, connection, direction, flags)

    def _put(
        self, event: Event, connection: _Written, direction: str, flags: int, data: bytes = b""
    ) -> None:
        packet = connection.packet(direction, flags, data)
        self._writer.writepkt(packet, event.time)


def write_capture(events: Iterable[Event], file: BinaryIO) -> None:
    """Writes the messages of a recording as a capture."""
    writer = CaptureWriter(file)
    for event in events:
        writer.write(event)


_IP = Tuple[Any, int]


class _Written:
    """A connection that is written."""

    def __init__(self, client: _IP, server: _IP) -> None:
        self._ends = {TO_SERVER: client, TO_CLIENT: server}
        self._next = {TO_SERVER: 1000, TO_CLIENT: 2000}  # sequence numbers

    def packet(self, direction: str, flags: int, data: bytes) -> Any:
        other = TO_CLIENT if direction == TO_SERVER else TO_SERVER
        (source, sport), (target, dport) = self._ends[direction], self._ends[other]
        segment = dpkt.tcp.TCP(
            sport=sport, dport=dport, seq=self._next[direction], flags=flags, data=data,
            ack=self._next[other] if flags & _ACK else 0, win=65535,
        )  # fmt: skip
        count = len(data) + bool(flags & (_SYN | _FIN))
        self._next[direction] = (self._next[direction] + count) & 0xFFFFFFFF
        if source.version == 6:
            return dpkt.ip6.IP6(src=source.packed, dst=target.packed, nxt=6, hlim=64, p=6,
                                plen=len(segment), data=segment)  # fmt: skip
        return dpkt.ip.IP(src=source.packed, dst=target.packed, p=6, len=20 + len(segment),
                          data=segment)  # fmt: skip


def _addresses(text: str, number: int) -> Tuple[_IP, _IP]:
    """Of the client and the server, from what was noted when a connection was opened."""
    try:
        client, server = [_address(name) for name in text.split(" to ")]
        if client[0].version == server[0].version:
            return client, server
    except ValueError:
        pass  # names, or nothing was noted
    client_port = 40000 + number % 20000
    return (ipaddress.ip_address("192.0.2.1"), client_port), (ipaddress.ip_address("192.0.2.2"), 5000)


def _address(text: str) -> _IP:
    host, _, port = text.rpartition(":")
    if not 0 < int(port) < 65536:
        raise ValueError(text)
    return ipaddress.ip_address(host.strip("[]")), int(port)
