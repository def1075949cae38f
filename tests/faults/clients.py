"""Clients that talk to a broker in which something fails: what is not answered in time is left out, and they go on."""
import socket
import struct
import time

ANSWER_S = 0.6  # for one answer; who gets none takes no further part
LEVELS = {4: b"\x04", 5: b"\x05"}


def text(value):
    return struct.pack(">H", len(value)) + value.encode()


def packet(first, body):
    length = len(body)
    head = bytes([first])
    while length > 127:
        head, length = head + bytes([length & 127 | 128]), length >> 7
    return head + bytes([length]) + body


class Client:
    """One connection. It acknowledges what it gets."""

    def __init__(self, name, level=4, clean=True, will=None, user=None, expiry_s=None):
        self.level, self.buffer, self.next_id = level, b"", 1
        self.seen = []  # each PUBLISH: its first byte and what follows the length
        self.present = None  # the session, as CONNACK says
        flags = 2 if clean else 0
        properties = b"\x11" + struct.pack(">I", expiry_s) if expiry_s else b""
        body = text(name)
        if will:
            flags |= 4
            body += (b"\0" if level == 5 else b"") + text(will) + text("gone")
        if user:
            flags |= 0xC0
            body += text(user[0]) + text(user[1])
        head = text("MQTT") + bytes([level, flags]) + struct.pack(">H", 60)
        if level == 5:
            head += bytes([len(properties)]) + properties
        try:
            self.socket = socket.create_connection(("127.0.0.1", 1883), 2)
            self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        except OSError:
            self.socket = None
        self.ask(packet(0x10, head + body), 0x20)

    def properties(self):
        return b"\0" if self.level == 5 else b""

    def send(self, data):
        try:
            if self.socket:
                self.socket.sendall(data)
        except OSError:
            self.hang_up()

    def ask(self, data, answer):
        """Sends, and takes what comes up to a packet of that type."""
        self.send(data)
        end = time.monotonic() + ANSWER_S
        while self.socket:
            while taken := self.take():
                if taken & 0xF0 == answer & 0xF0:
                    return
            left = end - time.monotonic()
            if left <= 0 or not self.socket:
                self.hang_up()
                return
            self.receive(left)

    def receive(self, limit_s):
        try:
            self.socket.settimeout(limit_s)
            data = self.socket.recv(65536)
            if not data:
                self.hang_up()
            self.buffer += data
        except TimeoutError:
            pass
        except OSError:
            self.hang_up()

    def take(self):
        """First byte of the next whole packet, which is acknowledged, or 0."""
        length = shift = 0
        for at in range(1, min(5, len(self.buffer))):
            length |= (self.buffer[at] & 127) << shift
            shift += 7
            if self.buffer[at] < 128:
                break
        else:
            return 0
        if len(self.buffer) < at + 1 + length:
            return 0
        first, body = self.buffer[0], self.buffer[at + 1:at + 1 + length]
        self.buffer = self.buffer[at + 1 + length:]
        self.acknowledge(first, body)
        return first

    def acknowledge(self, first, body):
        kind, qos = first >> 4, first >> 1 & 3
        if kind == 2:
            self.present = bool(body[0] & 1)
        elif kind == 3:
            self.seen.append((first, body))
        if kind == 3 and qos:
            at = 2 + struct.unpack(">H", body[:2])[0]
            self.send_ack(0x40 if qos == 1 else 0x50, body[at:at + 2])
        elif kind == 5:
            self.send_ack(0x62, body[:2])
        elif kind == 6:
            self.send_ack(0x70, body[:2])

    def send_ack(self, first, identifier):
        """At 5.0 with a reason code, without which the broker takes it for one of 3.1.1 (ack-level-detection)."""
        self.send(packet(first, identifier + (b"\0" if self.level == 5 else b"")))

    def identifier(self):
        self.next_id += 1
        return struct.pack(">H", self.next_id)

    def subscribe(self, topic, qos):
        self.ask(packet(0x82, self.identifier() + self.properties() + text(topic) + bytes([qos])), 0x90)

    def unsubscribe(self, topic):
        self.ask(packet(0xA2, self.identifier() + self.properties() + text(topic)), 0xB0)

    def publish(self, topic, payload, qos=0, retain=False):
        identifier = self.identifier() if qos else b""
        body = text(topic) + identifier + self.properties() + payload
        data = packet(0x30 | qos << 1 | retain, body)
        if qos:
            self.ask(data, 0x40 if qos == 1 else 0x70)
        else:
            self.send(data)

    def ping(self):
        """What was on its way to it has come when this returns."""
        self.ask(b"\xC0\0", 0xD0)

    def disconnect(self):
        self.send(b"\xE0\2\0\0" if self.level == 5 else b"\xE0\0")
        self.hang_up()

    def reset(self):
        if self.socket:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.hang_up()

    def hang_up(self):
        if self.socket:
            self.socket.close()
        self.socket = None


def live(tell, user=None):
    """A life of some clients; `tell` gives a command to the side of the host at the places where one fits."""
    plain = Client("plain", user=user)
    kept = Client("kept", clean=False, user=user)
    later = Client("later", level=5, clean=False, expiry_s=3600, user=user)
    mortal = Client("mortal", level=5, will="wills/mortal", user=user)
    plain.subscribe("wills/#", 1)
    kept.subscribe("kept/#", 1)
    later.subscribe("later/+/x", 2)
    later.subscribe("$share/some/shared/#", 1)
    for qos in 0, 1, 2:
        plain.publish("kept/a", b"message", qos)
        plain.publish("later/a/x", b"message", qos)
        plain.publish("shared/a", b"message", qos)
        plain.publish("held/a", b"held", qos, retain=True)
    tell("publish")
    for client in kept, later, mortal:
        client.ping()
    kept.disconnect()
    later.reset()
    mortal.reset()
    plain.publish("kept/b", b"for the absent", 1)
    plain.publish("later/b/x", b"for the absent", 2)
    tell("look")
    plain.ping()
    kept = Client("kept", clean=False, user=user)
    later = Client("later", level=5, clean=False, expiry_s=3600, user=user)
    later.subscribe("held/#", 1)
    kept.ping()
    later.ping()
    kept.unsubscribe("kept/#")
    tell("again")
    plain.publish("held/a", b"", 1, retain=True)
    plain.send(b"\x30\x00")  # cannot be decoded
    tell("kick later")
    later.ping()
    plain.ping()
    kept.disconnect()
    plain.disconnect()
