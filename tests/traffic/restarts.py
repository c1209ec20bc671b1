#!/usr/bin/env python3
"""A server that is restarted again and again under load, while clients keep their connections to it.
Prints what became of each message and of each question, how long clients were away, and how their connects
lie in time. Ends with exit code 1 if a message came twice, out of order or in part, if one is missing
without a cause, if a hello was not first, if a question came twice, had another one's answer or was not
accounted for, or if a client was away for too long. Half of the restarts are in order: the server
reads what has been taken, so that only a message that was cut may be missing. The others are deaths, with
which all may go that the system had taken. Of ten questions the server answers one twice, one too late, and one not
at all."""

import argparse
import collections
import contextlib
import pathlib
import random
import selectors
import signal
import socket
import struct
import sys
import threading
import time

import hostile
from hostile import require

AWAY = 6  # seconds that a client may be, from the server's return on
DONE, TOO_LATE, PEER_GONE, FAILED, FULL = range(5)
QUESTION = 1000  # milliseconds that one has
ASKERS = 2  # threads of a client
ANSWER = 1 << 63
CAME, AWAY_AGAIN, LOST = 1, 8, 9  # kinds of events


class Link:
    """One connection of the server, and the numbers of the messages that have come on it."""

    def __init__(self, size, came):
        self.size = size
        self.came = came  # seconds from the server's return on
        self.bytes = bytearray()
        self.client = None
        self.runs = []  # [first, last]
        self.is_ended = self.is_in_order = False  # by a restart, and how
        self.questions = []  # that are not yet answered

    def take(self, came):
        self.bytes += came
        start = 0
        while (message := self.next(start)) is not None:
            kind, body, start = message
            if self.client is None:
                require(kind == b"Word", "the hello was not first")
                self.client = body.decode()
                continue
            if kind == b"Quiz":
                self.questions.append(body)
                continue
            require(kind == b"Other", "the hello came twice")
            number = int(body.split(b" ", 1)[0])
            require(len(body) == self.size * (2000 if number % 500 < 2 else 1), "a message came in part")
            if self.runs and self.runs[-1][1] + 1 == number:
                self.runs[-1][1] = number
            else:
                self.runs.append([number, number])
        del self.bytes[:start]

    def next(self, at):
        """A type, a body and where the next message begins; none: it is not all there."""
        parts = []
        for _ in range(2):
            end = at + 4 + int.from_bytes(self.bytes[at:at + 4], sys.byteorder)
            if len(self.bytes) < max(end, at + 4):
                return None
            parts.append(bytes(self.bytes[at + 4:end]))
            at = end
        return (*parts, at)


class Server:
    def __init__(self, options):
        self.options = options
        self.order = random.Random(options.seed)
        self.links = []
        self.backs = []  # for each opening, when each client was back
        self.asked = collections.defaultdict(collections.Counter)  # of each client, how often each question came
        self.answers = collections.defaultdict(collections.Counter)  # and was answered
        self.owed = []  # answers that are late on purpose
        self.port = self.choose()
        self.open()

    def choose(self):
        """A port out of which the system does not connect: no one else gets it while we are away."""
        lowest = int(pathlib.Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split()[0])
        while True:
            port = self.order.randrange(lowest // 2, lowest)
            with contextlib.suppress(OSError), socket.create_server(("127.0.0.1", port)):
                return port

    def open(self):
        self.selector = selectors.DefaultSelector()
        self.listener = socket.create_server(("127.0.0.1", self.port), backlog=1000)
        # Little room, so that some messages are cut.
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
        self.opened = time.monotonic()
        self.backs.append({})
        self.came = collections.deque()
        self.acceptor = threading.Thread(target=self.accept, args=(self.listener, self.came), daemon=True)
        self.acceptor.start()

    @staticmethod
    def accept(listener, came):
        """In a thread of its own, so that each has its time."""
        with contextlib.suppress(OSError):  # shut down
            while True:
                came.append((listener.accept()[0], time.monotonic()))

    def serve(self, is_over, limit):
        """Until it is over; false if the time was."""
        limit += time.monotonic()
        while not is_over():
            if time.monotonic() > limit:
                return False
            self.register()
            self.pay()
            for key, _ in self.selector.select(0.05):
                self.read(key.fileobj, key.data)
        return True

    def register(self):
        while self.came:
            connection, moment = self.came.popleft()
            connection.setblocking(False)
            self.links.append(Link(self.options.size, moment - self.opened))
            self.selector.register(connection, selectors.EVENT_READ, self.links[-1])

    def read(self, connection, link):
        try:
            came = connection.recv(1 << 18)
        except ConnectionError:
            came = b""
        if not came:
            self.selector.unregister(connection)
            connection.close()
        link.take(came)
        for question in link.questions if came else []:
            self.hear(connection, link.client, question)
        link.questions.clear()
        if link.client is not None:
            self.backs[-1].setdefault(link.client, link.came)

    def hear(self, connection, client, question):
        number = int.from_bytes(question[:8], sys.byteorder)
        answer = hostile.message("Quiz", (number | ANSWER).to_bytes(8, sys.byteorder) + question[8:])
        text = question[8:].decode()
        self.asked[client][text] += 1
        way = number % 10
        if way == 0:
            self.owed.append((time.monotonic() + 1.5 * QUESTION / 1000, connection, client, text, answer))
        elif way != 1:
            for _ in range(2 if way == 2 else 1):
                self.answer(connection, client, text, answer)

    def answer(self, connection, client, text, answer):
        with contextlib.suppress(OSError):  # it has gone
            require(connection.send(answer) == len(answer), "an answer is not taken")
            self.answers[client][text] += 1

    def pay(self):
        while self.owed and self.owed[0][0] < time.monotonic():
            self.answer(*self.owed.pop(0)[1:])

    def connections(self):
        return list(self.selector.get_map().values())

    def close(self, is_in_order):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.acceptor.join()
        self.listener.close()
        self.register()
        backs = self.backs[-1]
        for key in self.connections():
            key.data.is_ended, key.data.is_in_order = True, is_in_order
            if is_in_order:
                key.fileobj.shutdown(socket.SHUT_WR)
            else:
                if self.order.random() < 0.5:  # as a machine that is switched off
                    key.fileobj.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                key.fileobj.close()
        if is_in_order:
            require(self.serve(lambda: not self.connections(), 30), "a client does not close")
        self.backs[-1] = backs
        self.selector.close()

    def restart(self):
        count = self.options.clients
        are_back = self.serve(lambda: len(self.backs[-1]) == count, AWAY + 5)
        require(are_back, f"of {count} clients {len(self.backs[-1])} have come back")
        self.serve(lambda: False, self.order.uniform(0.2, self.options.up))
        time.sleep(self.order.uniform(0, self.options.stop))
        self.close(self.order.random() < 0.5)
        time.sleep(self.order.expovariate(1 / self.options.down))
        self.open()


class Client(hostile.Process):
    """It sends in a thread of its own until it is to stop, and then drains."""

    def __init__(self, options, name, port):
        super().__init__(name, options.program, "session", "/dev/null", 25000, 64, "Word", "Other")
        self.options = options
        self.events = collections.Counter()
        self.ask("keep", name, "localhost", port)
        self.ask("quizzes", name, "-", ASKERS, QUESTION)
        self.questions = None  # counts, and a word of outcomes for each asker
        self.is_to_stop = threading.Event()
        self.sent, self.failed = 0, {}
        self.drained = False
        self.thread = threading.Thread(target=self.work)

    def hear(self, limit=hostile.EVER):
        """Events come before what it answers."""
        while (line := self.process.stdout.readline()).startswith("event"):
            self.events[int(line.split()[1])] += 1
        require(line.startswith("done"), f"the client {self.name} has ended, or {line.strip()}")
        return line.split()[1:]

    def work(self):
        with contextlib.suppress(hostile.Fault):  # one that has failed is not drained
            self.send()

    def send(self):
        while not self.is_to_stop.is_set():
            self.sent, *failed = map(int, self.ask("load", self.name, "-", 1000, self.options.size, 500))
            self.failed.update(zip(failed[::2], failed[1::2]))
        *counts, first, second = self.ask("asked", self.name, "-")
        self.questions = list(map(int, counts)), [first[1:], second[1:]]
        time.sleep(0.2)  # for the last events
        self.drained = self.ask("drain", "-", "-", 30000)[0] == str(DONE)


class Account:
    def __init__(self):
        self.holds = True
        self.counts = collections.Counter()

    def line(self, name, text, holds=True):
        self.holds = self.holds and holds
        print(f"{' ' if holds else '!'} {name:13}{text}")

    def add(self, client, links):
        """Every number in its place: what is missing stands where a connection has ended."""
        wrong = []
        expected = 0
        ends = [Link(0, 0)]  # connections that have ended since the last message that came
        for link in [*links, None]:
            for first, last in link.runs if link else [[client.sent, client.sent]]:
                if first < expected:
                    wrong.append(f"{first} came twice or late")
                gap = [number for number in range(expected, first) if client.failed.get(number) is None]
                if gap and not ends:
                    wrong.append(f"{gap[:3]} of {client.sent} are missing and no connection ended there")
                elif gap and all(end.is_in_order for end in ends):
                    self.counts["cut"] += len(gap)
                    if len(gap) > sum(bool(end.bytes) for end in ends):
                        wrong.append(f"{gap[:3]} were not cut and are missing behind an end in order")
                else:
                    self.counts["died"] += len(gap)
                wrong += [f"{number} was not sent and came" for number, status in client.failed.items()
                          if first <= number <= last and status != TOO_LATE]
                expected = last + 1
                self.counts["came"] += last - first + 1
                ends = []
            if link is not None and (link.is_ended or link is not links[-1]):
                ends.append(link)
        self.counts["came"] -= 1  # the end's
        for status in client.failed.values():
            self.counts[status] += 1
        self.counts["sent"] += client.sent
        self.counts["events"] += client.events[LOST]
        return [f"client {client.name}: {text}" for text in wrong]

    def add_questions(self, client, came, answers):
        """Each has one outcome; one that was answered had its own answer, which the server has sent."""
        if client.questions is None:
            return [f"client {client.name} has failed before it told of its questions"]
        wrong = []
        (asked, answered, late, failed, dropped), words = client.questions
        outcomes = collections.Counter("".join(words))
        self.counts.update({f"asked {letter}": count for letter, count in outcomes.items()})
        self.counts.update({"asked": asked, "dropped": dropped, "came too": sum(came.values())})
        if (answered, late) != (outcomes["a"] + outcomes["w"], outcomes["l"]) or answered + late + failed != asked:
            wrong.append(f"of {asked} {answered} answered, {late} too late and {failed} failed; it saw {outcomes}")
        if outcomes["w"] or outcomes["x"] or outcomes["?"]:
            wrong.append("an answer was that of another question")
        for asker, word in enumerate(words):
            for number, outcome in enumerate(word):
                text = f" {asker} {number}"
                if came[text] > 1:
                    wrong.append(f"question{text} came {came[text]} times")
                if outcome == "a" and not answers[text]:
                    wrong.append(f"question{text} was answered by nobody")
        if dropped > sum(answers.values()) - answered:
            wrong.append(f"{dropped} answers were dropped, more than were too many")
        return [f"client {client.name}: {text}" for text in wrong]

    def tell(self, options, server, clients):
        wrong = []
        for client in clients:
            wrong += self.add(client, [link for link in server.links if link.client == client.name])
            wrong += self.add_questions(client, server.asked[client.name], server.answers[client.name])
        c = self.counts
        print(f"restarts: {options.restarts}, {len(clients)} clients, seed {options.seed}")
        self.line("sent", f"{c['sent']}, of which {c['came']} came")
        self.line("not sent", f"{c[TOO_LATE]} too late, {c[FULL]} full, {c[PEER_GONE]} cut while sent")
        self.line("died", f"{c['died']}, with the server that had not read them")
        self.line("cut", f"{c['cut']} posted ones behind an end in order; {c['events']} lost by events",
                  c["cut"] + c[PEER_GONE] <= c["events"] and c[FAILED] == 0)
        self.line("questions", f"{c['asked']} sent, of which {c['came too']} came; {c['asked a']} answered, {c['asked l']} "
                  f"too late, {c['asked g']} failed with the connection or were away, {c['asked f']} full")
        self.line("answers", f"{c['dropped']} dropped: second ones, and those that were too late",
                  c["dropped"] > 0 or c["asked a"] < 1000)  # it may be none of a few
        self.line("wrong", f"{len(wrong)}" + "".join("\n    " + text for text in wrong[:10]), not wrong)
        self.line("drained", f"{sum(one.drained for one in clients)}", all(one.drained for one in clients))
        came, away = (sum(one.events[kind] for one in clients) for kind in (CAME, AWAY_AGAIN))
        self.line("events", f"{came} connections, {away} times a new cause why there is none",
                  len(server.links) >= came > 0 and away <= 2 * came)
        backs = sorted(back for one in server.backs[1:] for back in one.values())
        self.line("back", f"median {backs[len(backs) // 2]:.2f} s, 99 % {backs[len(backs) * 99 // 100]:.2f} s, "
                  f"last {backs[-1]:.2f} s", backs[-1] <= AWAY)
        bins = collections.Counter(int(back * 2) for back in backs)
        print("  connects, so many of all in each half second from the server's return on: "
              + " ".join(f"{100 * bins[n] / len(backs):.1f}%" for n in range(max(bins) + 1)))
        most = sorted(max(collections.Counter(int(back * 100) for back in one.values()).values())
                      for one in server.backs[1:] if one)
        print(f"  in the hundredth of a second with the most of a restart: {most[len(most) // 2]} of {len(clients)}, "
              f"nine in ten at most {most[len(most) * 9 // 10]}, at most {most[-1]}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", help="what Puppet.cpp was built to")
    parser.add_argument("--restarts", type=int, default=2)
    parser.add_argument("--clients", type=int, default=5)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1, 1000000))
    parser.add_argument("--size", type=int, default=4000, help="bytes; one in 250 is 2000 times that")
    parser.add_argument("--up", type=float, default=1, help="seconds from when all are back, at most")
    parser.add_argument("--down", type=float, default=0.5, help="seconds, on average")
    parser.add_argument("--stop", type=float, default=0.5, help="seconds at the end without reading, at most")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))

    server, clients = Server(options), []
    try:
        clients = [Client(options, f"c{n}", server.port) for n in range(options.clients)]
        for client in clients:
            client.thread.start()
        for _ in range(options.restarts):
            server.restart()
        for client in clients:
            client.is_to_stop.set()
        are_over = lambda: not any(one.thread.is_alive() for one in clients)  # noqa: E731
        require(server.serve(are_over, 60), "it does not drain")
        require(server.serve(lambda: not server.connections(), 10), "a client has not closed")
        account = Account()
        account.tell(options, server, clients)
        return 0 if account.holds else 1
    except hostile.Fault as fault:
        print(f"! {fault} (seed {options.seed})")
        return 1
    finally:
        for client in clients:
            client.is_to_stop.set()
            client.process.kill()  # nothing is left after a failure


if __name__ == "__main__":
    sys.exit(main())
