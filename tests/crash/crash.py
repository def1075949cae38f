#!/usr/bin/env python3
"""tarn-broker --standard, killed again and again while clients publish: nothing that it acknowledged is lost, and what
is published at QoS 2 comes exactly once.

    crash.py --broker PROGRAM [--kills N] [--seed SEED] [--payload BYTES]

Publishers and subscribers have sessions, and keep what MQTT wants clients to keep when their connections break: what is
not acknowledged, and which identifiers at QoS 2 they hold. Half of them speak 3.1.1, the others 5.0. Runs in a
directory and a network of its own (tests/support/isolated).
"""
import argparse
import collections
import random
import selectors
import signal
import socket
import struct
import subprocess
import sys
import time

CONNECT, CONNACK, PUBLISH, PUBACK, PUBREC, PUBREL, PUBCOMP, SUBSCRIBE, SUBACK = range(1, 10)
LIMIT_S = 60  # for anything to happen, on a machine however busy
WINDOW = 20  # publications of one publisher that are not acknowledged
FOR_EVER = b"\x05\x11\xff\xff\xff\xff"  # properties of CONNECT: the session expiry


class Fault(Exception):
    """What must not be."""


def text(value):
    return struct.pack(">H", len(value)) + value.encode()


def packet(first, body):
    head, length = bytes([first]), len(body)
    while length > 127:
        head, length = head + bytes([length & 127 | 128]), length >> 7
    return head + bytes([length]) + body


class Client:
    """A client with a session, and the connection that it has at the moment."""

    def __init__(self, name, level):
        self.name, self.level, self.socket = name, level, None
        self.properties = b"\0" if level == 5 else b""
        self.has_session = False  # it was told so once
        self.is_answered = False

    def connect(self):
        try:
            self.socket = socket.create_connection(("127.0.0.1", 1883), 5)
        except OSError:
            return False
        self.socket.setblocking(False)
        self.to_send, self.received, self.is_answered = bytearray(), bytearray(), False
        head = text("MQTT") + bytes([self.level, 0]) + b"\0\0"
        self.put(packet(CONNECT << 4, head + (FOR_EVER if self.level == 5 else b"") + text(self.name)))
        return True

    def hang_up(self):
        if self.socket:
            self.socket.close()
        self.socket = None
        self.is_answered = False

    def put(self, data):
        self.to_send += data

    def put_ack(self, kind, identifier):
        self.put(packet(kind << 4 | (2 if kind == PUBREL else 0), struct.pack(">H", identifier)))

    def write(self):
        if self.to_send:
            del self.to_send[:self.socket.send(self.to_send)]

    def read(self):
        """False: the connection has ended."""
        data = self.socket.recv(1 << 18)
        self.received += data
        at = 0
        while True:
            end = self.end_of_packet(at)
            if not end:
                break
            first, begin, end = end
            self.take(first, bytes(self.received[begin:end]))
            at = end
        del self.received[:at]
        return bool(data)

    def end_of_packet(self, at):
        length = shift = 0
        for here in range(at + 1, min(at + 5, len(self.received))):
            length |= (self.received[here] & 127) << shift
            shift += 7
            if self.received[here] < 128:
                end = here + 1 + length
                return (self.received[at], here + 1, end) if end <= len(self.received) else None
        return None

    def take(self, first, body):
        if first >> 4 == CONNACK:
            if body[1]:
                raise Fault(f"{self.name} is refused: {body[1]}")
            if self.has_session and not body[0] & 1:
                raise Fault(f"the session of {self.name} is lost")
            self.has_session = self.is_answered = True
            self.begin()
        elif first >> 4 == 14:
            raise Fault(f"{self.name} is told to go: {body.hex()}")
        else:
            self.take_other(first, body)

    @staticmethod
    def expect_success(body):
        if len(body) > 2 and body[2] >= 0x80:
            raise Fault(f"refused: {body.hex()}")


class Publisher(Client):
    """Publishes numbers, from 0 on, at one QoS."""

    def __init__(self, name, level, qos, payload):
        super().__init__(name, level)
        self.qos, self.payload = qos, payload
        self.next_number = self.next_id = 0
        self.open = collections.OrderedDict()  # identifier: number, or None where PUBREL is next
        self.acknowledged = 0
        self.stops = False

    def begin(self):
        for identifier, number in self.open.items():
            if number is None:
                self.put_ack(PUBREL, identifier)
            else:
                self.put_publish(identifier, number, 8)
        self.fill()

    def put_publish(self, identifier, number, dup):
        payload = struct.pack(">I", number) + self.payload
        body = text(f"qos{self.qos}/{self.name}") + struct.pack(">H", identifier) + self.properties + payload
        self.put(packet(PUBLISH << 4 | self.qos << 1 | dup, body))

    def fill(self):
        while self.is_answered and not self.stops and len(self.open) < WINDOW:
            self.next_id = self.next_id % 60000 + 1
            self.open[self.next_id] = self.next_number
            self.put_publish(self.next_id, self.next_number, 0)
            self.next_number += 1

    def take_other(self, first, body):
        kind, identifier = first >> 4, struct.unpack(">H", body[:2])[0]
        if kind == PUBREC:
            self.expect_success(body)
            if identifier in self.open:
                self.open[identifier] = None
            self.put_ack(PUBREL, identifier)
        elif kind in (PUBACK, PUBCOMP):
            if kind == PUBACK:
                self.expect_success(body)
            if self.open.pop(identifier, -1) != -1:
                self.acknowledged += 1
        self.fill()


class Subscriber(Client):
    """Has all that is published, at the QoS it is published with. It acknowledges late now and then."""

    def __init__(self, name, level):
        super().__init__(name, level)
        self.got = collections.defaultdict(list)  # topic: numbers in the order they came, each repetition, too
        self.held = set()  # identifiers at QoS 2, from PUBLISH to PUBREL
        self.is_subscribed = False
        self.late = collections.deque()

    def begin(self):
        self.late.clear()
        if not self.is_subscribed:
            self.put(packet(SUBSCRIBE << 4 | 2, b"\0\1" + self.properties + text("#") + b"\2"))

    def take_other(self, first, body):
        kind = first >> 4
        if kind == SUBACK:
            self.is_subscribed = True
        elif kind == PUBLISH:
            self.take_publish(first >> 1 & 3, body)
        elif kind == PUBREL:
            identifier = struct.unpack(">H", body[:2])[0]
            self.held.discard(identifier)
            self.late.append((PUBCOMP, identifier))
        self.acknowledge(random.randrange(30))

    def take_publish(self, qos, body):
        end = 2 + struct.unpack(">H", body[:2])[0]
        topic, identifier = body[2:end].decode(), struct.unpack(">H", body[end:end + 2])[0]
        number = struct.unpack(">I", body[end + 2 + len(self.properties):][:4])[0]
        if qos == 1 or identifier not in self.held:
            self.got[topic].append(number)
        if qos == 2:
            self.held.add(identifier)
        self.late.append((PUBACK if qos == 1 else PUBREC, identifier))

    def acknowledge(self, but):
        while len(self.late) > but:
            self.put_ack(*self.late.popleft())


class Broker:
    """The program, which is killed and started again."""

    def __init__(self, command):
        self.command, self.process = command, None

    def start(self):
        with open("broker.err", "ab") as errors:
            self.process = subprocess.Popen(self.command, stderr=errors, stdout=errors)
        end = time.monotonic() + LIMIT_S
        while time.monotonic() < end:
            if self.process.poll() is not None:
                raise Fault(f"the broker does not start: {self.process.returncode}")
            try:
                socket.create_connection(("127.0.0.1", 1883), 1).close()
                return
            except OSError:
                time.sleep(0.01)
        raise Fault("the broker does not serve")

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        if self.process.wait(LIMIT_S) != 0:
            raise Fault(f"the broker ends with {self.process.returncode}")


class Run:
    """All clients, served in one thread."""

    def __init__(self, arguments):
        self.broker = Broker([arguments.broker, "--standard", "--no-quotas", "--log-level", "warn"])
        payload = bytes(arguments.payload)
        self.publishers = [Publisher(f"p{qos}{level}", level, qos, payload) for qos in (1, 2) for level in (4, 5)]
        self.subscribers = [Subscriber(f"s{level}", level) for level in (4, 5)]
        self.clients = self.subscribers + self.publishers

    def serve(self, until, limit_s):
        """Until that is true, or so long."""
        end = time.monotonic() + limit_s
        while time.monotonic() < end and not until():
            with selectors.DefaultSelector() as selector:
                for client in self.clients:
                    if client.socket or client.connect():
                        events = selectors.EVENT_READ | (selectors.EVENT_WRITE if client.to_send else 0)
                        selector.register(client.socket, events, client)
                for key, events in selector.select(0.05):
                    self.serve_one(key.data, events)
            for subscriber in self.subscribers:
                if subscriber.socket:
                    subscriber.acknowledge(random.randrange(30) if not until.__name__ == "is_done" else 0)

    @staticmethod
    def serve_one(client, events):
        try:
            if events & selectors.EVENT_READ and not client.read():
                client.hang_up()
            elif events & selectors.EVENT_WRITE:
                client.write()
        except BlockingIOError:
            pass
        except OSError:
            client.hang_up()

    def kill(self):
        self.broker.kill()
        for client in self.clients:
            client.hang_up()
        self.broker.start()

    def is_ready(self):
        return all(client.is_answered for client in self.clients) and \
            all(subscriber.is_subscribed for subscriber in self.subscribers)

    def is_done(self):
        return all(not publisher.open for publisher in self.publishers) and \
            all(len(set(subscriber.got[f"qos{publisher.qos}/{publisher.name}"])) >= publisher.next_number
                for publisher in self.publishers for subscriber in self.subscribers) and \
            not any(subscriber.held or subscriber.to_send for subscriber in self.subscribers if subscriber.socket)

    def check(self):
        for subscriber in self.subscribers:
            for publisher in self.publishers:
                self.check_topic(subscriber, publisher)

    @staticmethod
    def check_topic(subscriber, publisher):
        got = subscriber.got[f"qos{publisher.qos}/{publisher.name}"]
        what = f"{subscriber.name} from {publisher.name}"
        missing = set(range(publisher.next_number)) - set(got)
        if missing:
            raise Fault(f"{what}: {len(missing)} are lost, such as {sorted(missing)[:5]}")
        if publisher.qos == 2 and len(got) != publisher.next_number:
            twice = [number for number, times in collections.Counter(got).items() if times > 1]
            raise Fault(f"{what}: {len(twice)} came more than once, such as {twice[:5]}")
        first = list(dict.fromkeys(got))
        if first != sorted(first):
            raise Fault(f"{what}: not in the order they were published")

    def live(self, kills):
        self.broker.start()
        for publisher in self.publishers:
            publisher.stops = True
        self.serve(self.is_ready, LIMIT_S)
        for publisher in self.publishers:
            publisher.stops = False
            publisher.fill()
        for _ in range(kills):
            self.serve(lambda: False, random.uniform(0.02, 0.6))
            self.kill()
        for publisher in self.publishers:
            publisher.stops = True
        self.serve(self.is_done, LIMIT_S)
        self.check()
        self.broker.end()
        published = sum(publisher.next_number for publisher in self.publishers)
        print(f"{kills} kills, {published} messages to {len(self.subscribers)} subscribers each")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--broker", required=True)
    parser.add_argument("--kills", type=int, default=8)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    parser.add_argument("--payload", type=int, default=2000, help="bytes: long ones bring about checkpoints")
    arguments = parser.parse_args()
    random.seed(arguments.seed)
    run = Run(arguments)
    try:
        run.live(arguments.kills)
    except Fault as fault:
        print(f"seed {arguments.seed}: {fault}")
        with open("broker.err", encoding="utf-8", errors="replace") as errors:
            print(errors.read()[-2000:])
        return 1
    finally:
        if run.broker.process and run.broker.process.poll() is None:
            run.broker.process.kill()
            run.broker.process.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
