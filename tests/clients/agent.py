"""A stock client in a process of its own that does what lines of its standard input say.

Orders, each answered by one line, "ok ...", "error WHY" or, if the client has no such thing, "none WHY":

    connect port= id= level= clean= keepalive= [expiry=] [username= password=]
            [will_topic= will_payload= will_qos= will_retain= [will_delay=]]
            [receive_maximum=] [maximum_packet_size=] [aliases=1]                 ok present=0
    subscribe filters=a,b/# qos= [no_local=] [retain_as_published=] [retain_handling=] [identifier=]
                                                                                  ok codes=1,1
    unsubscribe filters=a,b/#                                                     ok
    publish topic= payload= qos= [retain=] [expiry=] [response=] [correlation=] [type=] [user=name:value]
    burst topic= qos= count=          the messages "0", "1", ...: all on the way at once
    disconnect

Before the first order it says "ready version=1.2.3". What happens by itself is told by lines "message topic= qos= retain=
dup= payload= ..." and "closed [reason=]". Payloads are hexadecimal. At the end of its input the process ends with
status 0.
"""
import pathlib
import queue
import signal
import subprocess
import threading
import time
from dataclasses import dataclass, field


READY_S = 30  # to start, on a machine that has much to do


class Failed(Exception):
    """What a check expected did not come."""


class NotHere(Exception):
    """The client cannot do what the check asks of it."""


@dataclass
class Message:
    topic: str
    payload: bytes
    qos: int
    retain: bool
    dup: bool = False
    more: dict = field(default_factory=dict)

    def __str__(self):
        shown = self.payload if len(self.payload) <= 24 else f"{self.payload[:16]!r}... ({len(self.payload)} bytes)"
        return f"{self.topic} {shown} QoS {self.qos}{' retained' * self.retain}{' DUP' * self.dup}"


@dataclass
class Will:
    topic: str
    payload: bytes = b"gone"
    qos: int = 1
    retain: bool = False
    delay: int = 0


def pause(process):
    """All its threads have stopped when this returns; its connections stay."""
    process.send_signal(signal.SIGSTOP)
    threads = pathlib.Path(f"/proc/{process.pid}/task")
    until = time.monotonic() + READY_S
    while not all(one.read_text().rpartition(")")[2].split()[0] in "Tt" for one in threads.glob("*/stat")):
        if time.monotonic() > until:
            raise RuntimeError("the client does not stop")
        time.sleep(0.01)


class Inbox:
    """What a client was sent, in order, and whether it was closed."""

    def __init__(self):
        self.messages = queue.Queue()
        self.closed = threading.Event()
        self.close_reason = ""

    def empty(self):
        while not self.messages.empty():
            self.messages.get()
        self.closed.clear()

    def take(self, within=3.0):
        try:
            return self.messages.get(timeout=within)
        except queue.Empty:
            raise Failed(f"no message within {within:.1f} s" + " (closed)" * self.closed.is_set()) from None

    def take_exactly(self, payloads, within=3.0, then_quiet=0.3):
        """These, each once and in this order."""
        got = []
        until = time.monotonic() + within
        while len(got) < len(payloads):
            try:
                got.append(self.take(max(0.05, until - time.monotonic())))
            except Failed:
                raise Failed(f"{len(got)} of {len(payloads)} messages within {within:g} s: " + shown(got)) from None
        if [one.payload for one in got] != list(payloads):
            raise Failed("other messages, or in another order: " + shown(got))
        self.stay_quiet(then_quiet)
        return got

    def stay_quiet(self, seconds):
        try:
            message = self.messages.get(timeout=seconds)
        except queue.Empty:
            return
        raise Failed(f"a message too many: {message}")


def shown(messages):
    return "; ".join(str(one) for one in messages[:8]) or "none"


class Agent(Inbox):
    """One client. `command` is what runs it."""

    def __init__(self, command, level, port):
        super().__init__()
        self.level, self.port = level, port
        self.answers = queue.Queue()
        self.version = ""
        self.ready = threading.Event()
        self.connected = False
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        stderr=subprocess.DEVNULL)
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            word, *fields = line.split()
            if word == "message":
                values = dict(one.split("=", 1) for one in fields)
                self.messages.put(Message(values.pop("topic"), bytes.fromhex(values.pop("payload")),
                                          int(values.pop("qos")), values.pop("retain") == "1",
                                          values.pop("dup") == "1", values))
            elif word == "ready":
                self.version = fields[0].partition("=")[2]
                self.ready.set()
            elif word == "closed":
                self.close_reason = fields[0].partition("=")[2] if fields else ""
                self.closed.set()
            else:
                self.answers.put((word, " ".join(fields)))
        self.answers.put(("error", "the client ended"))

    def wait_until_ready(self):
        if not self.ready.wait(READY_S):
            raise RuntimeError("the client does not start")

    def ask(self, word, within=4.0, **fields):
        given = " ".join(f"{name}={int(value) if isinstance(value, bool) else value}"
                         for name, value in fields.items() if value is not None)
        try:
            self.process.stdin.write(f"{word} {given}\n")
            self.process.stdin.flush()
            result, text = self.answers.get(timeout=within)
        except (OSError, queue.Empty):
            self.kill()
            raise Failed(f"{word}: nothing within {within:g} s") from None
        if result == "none":
            raise NotHere(text)
        if result != "ok":
            raise Failed(f"{word}: {text}" + " (closed)" * self.closed.is_set())
        return dict(one.split("=", 1) for one in text.split())

    def connect(self, id, keep=False, keepalive=30, expiry=300, will=None, **more):
        """Whether a session was present, None if the client does not tell. `keep` asks for it to be kept."""
        self.empty()
        fields = more
        if will:
            fields.update(will_topic=will.topic, will_payload=will.payload.hex(), will_qos=will.qos,
                          will_retain=will.retain, will_delay=will.delay if will.delay else None)
        if keep and self.level == 5:
            fields.update(expiry=expiry)
        answer = self.ask("connect", port=self.port, id=id, level=self.level, clean=not keep, keepalive=keepalive,
                          **fields)
        self.connected = True
        return answer["present"] == "1" if "present" in answer else None

    def subscribe(self, *filters, qos=1, **options):
        codes = self.ask("subscribe", filters=",".join(filters), qos=qos, **options)["codes"]
        codes = [int(code) for code in codes.split(",")]
        if codes != [qos] * len(filters):
            raise Failed(f"SUBACK has the codes {codes}")

    def unsubscribe(self, *filters):
        self.ask("unsubscribe", filters=",".join(filters))

    def publish(self, topic, payload, qos=1, retain=False, within=4.0, **properties):
        self.ask("publish", within, topic=topic, payload=payload.hex(), qos=qos, retain=retain, **properties)

    def burst(self, topic, count, qos=1):
        self.ask("burst", 8.0, topic=topic, qos=qos, count=count)

    def disconnect(self):
        self.ask("disconnect")
        self.connected = False

    def wait_until_closed(self, within=3.0):
        if not self.closed.wait(within):
            raise Failed(f"it was not closed within {within:g} s")

    def pause(self):
        pause(self.process)

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)

    def drop(self):
        """The connection ends without a DISCONNECT."""
        self.kill()

    def kill(self):
        self.connected = False
        self.process.kill()
        self.process.wait()

    def leave(self):
        """Ends the process in order; its exit status."""
        self.process.stdin.close()
        try:
            return self.process.wait(3)
        except subprocess.TimeoutExpired:
            raise Failed("the process does not end") from None
