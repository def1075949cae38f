#!/usr/bin/env python3
"""Random operations of up to five clients, against a model of what each of them must get.

    model.py --host PROGRAM [--standard] [--first SEED] [--sequences N] [--operations N]
    model.py --host PROGRAM [--standard] --seed SEED         the same sequence again, told step by step

A sequence is one seed: clients connect with a clean or a kept session, subscribe, unsubscribe, publish at each QoS,
with and without retain, say DISCONNECT, drop or are kicked, and the broker is taken down and brought up. After each
operation what came is compared with what the model says. The model knows the rules of this broker, docs/deviations.md:
their names stand where it follows one. With --standard the broker is in the standard profile, whose model knows none.
Runs in a directory and a network of its own (tests/support/isolated).
"""
import argparse
import collections
import os
import pathlib
import random
import shutil
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "faults"))
import clients  # noqa: E402
from faults import Fault, Program  # noqa: E402

clients.ANSWER_S = 20  # nothing fails here: who gets no answer has found something
FILTERS = ["t/a", "t/b", "t/c", "t/+", "t/#", "#", "+/a", "u/a"]
TOPICS = ["t/a", "t/b", "t/c", "u/a"]
MARK = b"\xef\xbb\xbf"  # keeps a payload whole (publish-level-detection)
COMES_S = 1.5  # after so long the messages of a resumed session have normally come (offline-late) ...
LATE_S = 15  # ... and by then on a machine however busy
MOST_KEPT = 20  # messages for one absent client, so that all of them come back (files-read-in-part)


def matches(filter_text, topic):
    levels, names = filter_text.split("/"), topic.split("/")
    for at, level in enumerate(levels):
        if level == "#":
            return True
        if at >= len(names) or level not in ("+", names[at]):
            return False
    return len(levels) == len(names)


Message = collections.namedtuple("Message", "topic payload qos retain")


class Files:
    """What is saved of a session."""

    def __init__(self):
        self.filters = None  # filter: QoS, None: no such file
        self.messages = []
        self.others = False  # files without content may be there


class Device:
    """One client of the model, and the connection it has."""

    def __init__(self, number, level):
        self.name, self.level = f"device-{number:03}", level
        self.connection = None  # while it is online
        self.clean = True
        self.saved = {}  # filters of the record, which the next save writes
        self.files = Files()
        self.late = collections.Counter()  # what is still to come from a resumed session


class Model:
    """What must be. Each operation returns what each device gets at once: {device: Counter of messages}."""

    def __init__(self, devices):
        self.devices = devices
        self.table = {}  # (device, filter): QoS and clean session of the subscription, of who is away, too
        self.retained = {}  # topic: Message

    def retained_for(self, filter_text):
        """At the QoS they were published with (retained-qos)."""
        return [m for m in self.retained.values() if matches(filter_text, m.topic)]

    def connect(self, device, clean):
        device.clean, files = clean, device.files
        if clean:
            device.files, device.saved = Files(), {}
            self.drop_subscriptions(device)
            return {}
        device.saved = dict(files.filters or {})
        got = collections.Counter()
        for filter_text, qos in device.saved.items():
            self.table[device, filter_text] = qos, False
            got.update(self.retained_for(filter_text))  # retained-at-resume
        device.late = collections.Counter(m for m in files.messages if m.qos)
        files.others |= bool(files.messages)
        files.messages = []
        return {device: got}

    def is_present(self, device, clean):
        """Whether CONNACK finds a session; None: it depends on files without content."""
        files = device.files
        if files.filters or files.messages:
            return not clean
        return None if files.others or files.filters is not None else False

    def subscribe(self, device, filter_text, qos):
        self.table[device, filter_text] = qos, device.clean
        device.saved[filter_text] = qos
        if not device.clean:
            device.files.filters = dict(device.saved)
        return {device: collections.Counter(self.retained_for(filter_text))}

    def unsubscribe(self, device, filter_text):
        """The saved list keeps the filter (unsubscribe-forgotten)."""
        self.table.pop((device, filter_text), None)
        return {}

    def publish(self, publisher, topic, payload, qos, retain):
        if retain and payload:
            self.retained[topic] = Message(topic, payload, qos, True)
        elif retain:
            self.retained.pop(topic, None)
        got = collections.defaultdict(collections.Counter)
        for (device, filter_text), (granted, clean) in self.table.items():
            if device is publisher or not matches(filter_text, topic):  # never-own
                continue
            message = Message(topic, payload, min(qos, granted), False)
            if device.connection:
                got[device][message] += 1
            elif payload and not clean:  # offline-bounds
                device.files.messages.append(message)
        return got

    def disconnect(self, device):
        if device.clean:
            self.drop_subscriptions(device)
            device.files = Files()
        else:
            device.files.filters = dict(device.saved)
        self.go(device)

    def drop(self, device):
        if device.clean:
            self.drop_subscriptions(device)
        elif device.level == 4:
            device.files = Files()  # session-ends-with-connection; its subscriptions stay in the table
        else:
            device.files.others = True
        self.go(device)

    def kick(self, device):
        """As when it drops, but for its subscriptions (closed-keeps-subscriptions)."""
        table = self.table
        self.drop(device)
        self.table = table

    def restart(self):
        for device in self.devices:
            if device.connection:
                self.drop(device)
        self.table = {(device, filter_text): (qos, False) for device in self.devices
                      for filter_text, qos in (device.files.filters or {}).items()}

    def drop_subscriptions(self, device):
        self.table = {key: value for key, value in self.table.items() if key[0] is not device}

    @staticmethod
    def go(device):
        device.connection = None
        device.late.clear()  # pending-dropped


class StandardModel(Model):
    """The same in the standard profile. `files.messages` is what waits for a device, `table` has the QoS alone."""

    def retained_for(self, filter_text, granted=2):
        return [m._replace(qos=min(m.qos, granted)) for m in super().retained_for(filter_text)]

    def connect(self, device, clean):
        if clean:
            self.end_session(device)
        device.clean, device.has_session = clean, True
        waiting, device.files.messages = device.files.messages, []
        return {device: collections.Counter(waiting)}

    def is_present(self, device, clean):
        return not clean and getattr(device, "has_session", False)

    def subscribe(self, device, filter_text, qos):
        self.table[device, filter_text] = qos
        return {device: collections.Counter(self.retained_for(filter_text, qos))}

    def publish(self, publisher, topic, payload, qos, retain):
        if retain and payload:
            self.retained[topic] = Message(topic, payload, qos, True)
        elif retain:
            self.retained.pop(topic, None)
        got = collections.defaultdict(collections.Counter)
        for (device, filter_text), granted in self.table.items():
            message = Message(topic, payload, min(qos, granted), False)
            if not matches(filter_text, topic):
                continue
            if device.connection:
                got[device][message] += 1
            elif message.qos:
                device.files.messages.append(message)
        return got

    def drop(self, device):
        if device.clean:
            self.end_session(device)
        device.connection = None

    disconnect = kick = drop

    def restart(self):
        for device in self.devices:
            if device.connection:
                self.drop(device)

    def end_session(self, device):
        self.drop_subscriptions(device)
        device.has_session, device.files.messages = False, []


class Broker(Program):
    """The host of tests/faults, which is told what to do."""

    def __init__(self, command, directory):
        super().__init__(command, "", "", directory, stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def tell(self, word):
        try:
            self.process.stdin.write(word.encode() + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            pass
        answer = self.process.stdout.readline().decode().strip()
        if not answer:
            self.wait()
            raise Fault("the broker ended")
        return answer

    def give_up(self):
        """Ends, so that the last lines of its log are written."""
        try:
            self.process.stdin.close()
            self.process.wait(LATE_S)
        except (BrokenPipeError, subprocess.TimeoutExpired):
            pass

    def lost_identifiers(self):
        """Deliveries that are lost because their identifier was drawn as 0 (delivery-identifier)."""
        return self.errors.read_text(errors="replace").count("requires non-zero Packet ID")


class Sequence:
    """One seed."""

    def __init__(self, broker, seed, arguments):
        self.random, self.broker, self.operations = random.Random(seed), broker, arguments.operations
        self.told, self.is_standard = arguments.seed is not None, arguments.standard
        self.devices = [Device(i, self.random.choice([4, 5])) for i in range(self.random.randint(2, 5))]
        self.model = StandardModel(self.devices) if self.is_standard else Model(self.devices)
        self.number = 0
        self.quiet_at_s = 0.0  # by then all messages of resumed sessions have come
        self.steps = []

    def run(self):
        for _ in range(self.operations):
            self.operate()
        self.await_late()

    def note(self, step):
        self.steps.append(step)
        if self.told:
            print(step, flush=True)

    # ---- operations

    def operate(self):
        if self.random.random() < 0.03:
            return self.restart()
        device = self.random.choice(self.devices)
        if not device.connection:
            return self.connect(device)
        kinds = {"publish": 18, "subscribe": 10, "unsubscribe": 3, "disconnect": 4, "drop": 2, "kick": 1}
        kind = self.random.choices(list(kinds), kinds.values())[0]
        if kind == "kick" and device.clean:
            kind = "drop"  # what is kept for subscriptions that a clean session left depends on files without content
        if kind == "publish" and any(len(d.files.messages) > MOST_KEPT for d in self.devices):
            kind = "subscribe"
        return getattr(self, kind)(device)

    def connect(self, device):
        clean = self.random.random() < 0.25
        self.note(f"{device.name} ({device.level}) connects {'clean' if clean else 'kept'}")
        present = self.model.is_present(device, clean)
        if device.files.messages and not self.is_standard:
            self.quiet_at_s = time.monotonic() + COMES_S
        expiry_s = 3600 if device.level == 5 and not clean else None
        device.connection = clients.Client(device.name, level=device.level, clean=clean, expiry_s=expiry_s)
        if device.connection.present is None:
            raise Fault("no CONNACK")
        if not clean and present is not None and device.connection.present != present:
            raise Fault(f"session present: {device.connection.present}, the model says {present}")
        self.compare(self.model.connect(device, clean))
        if device.late and self.random.random() < 0.6:  # else it may be gone before they come
            self.await_late()

    def subscribe(self, device):
        filter_text, qos = self.random.choice(FILTERS), self.random.choice([0, 1, 1, 2, 2])
        self.note(f"{device.name} subscribes {filter_text} at {qos}")
        device.connection.subscribe(filter_text, qos)
        self.compare(self.model.subscribe(device, filter_text, qos))

    def unsubscribe(self, device):
        own = [filter_text for owner, filter_text in self.model.table if owner is device]
        filter_text = self.random.choice(own or FILTERS)
        self.note(f"{device.name} unsubscribes {filter_text}")
        device.connection.unsubscribe(filter_text)
        self.compare(self.model.unsubscribe(device, filter_text))

    def publish(self, device):
        self.number += 1
        topic, qos = self.random.choice(TOPICS), self.random.choice([0, 1, 1, 2, 2])
        retain = self.random.random() < 0.2
        payload = b"" if retain and self.random.random() < 0.3 else MARK + str(self.number).encode()
        self.note(f"{device.name} publishes {self.number if payload else 'nothing'} to {topic} at {qos}"
                  f"{', retained' if retain else ''}")
        device.connection.publish(topic, payload, qos, retain)
        device.connection.ping()
        self.compare(self.model.publish(device, topic, payload, qos, retain))

    def disconnect(self, device):
        self.note(f"{device.name} disconnects")
        device.connection.disconnect()
        self.model.disconnect(device)
        self.await_online()

    def drop(self, device):
        self.note(f"{device.name} drops")
        self.settle(device)
        device.connection.reset()
        self.model.drop(device)
        self.await_online()

    def kick(self, device):
        self.note(f"{device.name} is kicked")
        self.settle(device)
        self.broker.tell(f"kick {device.name}")
        device.connection.hang_up()
        self.model.kick(device)
        self.await_online()

    def restart(self):
        self.note("the broker goes down and comes up")
        self.await_late()
        for device in self.devices:
            if device.connection:
                self.settle(device)
        self.broker.tell("down")
        for device in self.devices:
            if device.connection:
                device.connection.hang_up()
        self.model.restart()
        if self.broker.tell("up") != "up":
            raise Fault("it does not come up")

    def settle(self, device):
        """The broker has its acknowledgements, the second of QoS 2 too, and sends nothing again (standard profile)."""
        for _ in range(2 if self.is_standard else 0):
            device.connection.ping()

    # ---- comparing

    def await_online(self):
        """The end of a connection has come to the broker (no-take-over: else it would harm the next one)."""
        wanted, end = str(sum(1 for d in self.devices if d.connection)), time.monotonic() + LATE_S
        while self.broker.tell("online") != wanted:
            if time.monotonic() > end:
                raise Fault("a connection has ended, and the broker does not know")
            time.sleep(0.002)

    def compare(self, expected):
        for device in self.devices:
            if not device.connection:
                continue
            device.connection.ping()
            if not device.connection.socket:
                raise Fault(f"{device.name} is cut off")
            got = self.take(device) - self.take_late(device, expected.get(device, collections.Counter()))
            wanted = expected.get(device, collections.Counter())
            if got != wanted:
                raise Fault(f"{device.name} got {list(got.elements())}, the model says {list(wanted.elements())}")

    def take(self, device):
        """All messages that have come since it was last asked."""
        device.came = collections.Counter()
        for first, body in device.connection.seen:
            at = 2 + struct.unpack(">H", body[:2])[0]
            qos, topic = first >> 1 & 3, body[2:at].decode()
            at += 2 if qos else 0
            at += 1 + body[at] if device.level == 5 else 0
            device.came[Message(topic, body[at:], qos, bool(first & 1))] += 1
        device.connection.seen = []
        return device.came

    @staticmethod
    def take_late(device, expected):
        """Of what came beyond what was expected now, the part that was to come late."""
        late = (device.came - expected) & device.late
        device.late -= late
        return late

    def await_late(self):
        """What resumed sessions are to get comes, and no more than that."""
        end = time.monotonic() + LATE_S
        while any(d.late for d in self.devices if d.connection) or time.monotonic() < self.quiet_at_s:
            if time.monotonic() > end:
                missing = {d.name: list(d.late.elements()) for d in self.devices if d.late}
                raise Fault(f"messages of resumed sessions do not come: {missing}")
            time.sleep(0.1)
            self.compare({})


def run_one(arguments, seed):
    directory = pathlib.Path("run").resolve()
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir()
    broker = Broker([arguments.host] + (["standard"] if arguments.standard else []), directory)
    sequence = Sequence(broker, seed, arguments)
    try:
        if broker.tell("up") != "up":
            raise Fault("it does not come up")
        sequence.run()
        broker.process.stdin.close()
        if broker.wait() != 0:
            raise Fault("exit status is not 0")
        return True
    except Fault as fault:
        broker.give_up()
        if broker.lost_identifiers():
            print(f"seed {seed}: a delivery drew the identifier 0, so nothing can be said")
            return True
        print(f"seed {seed}: {fault}, after", *sequence.steps[-40:], sep="\n    ", flush=True)
        return False
    finally:
        broker.end()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--host", required=True)
    parser.add_argument("--standard", action="store_true")
    parser.add_argument("--seed", type=int)
    parser.add_argument("--first", type=int, default=1)
    parser.add_argument("--sequences", type=int, default=40)
    parser.add_argument("--operations", type=int, default=100)
    arguments = parser.parse_args()
    arguments.first += int(os.environ.get("TARN_MODEL_SEED", 0))
    arguments.sequences = int(os.environ.get("TARN_MODEL_SEQUENCES", arguments.sequences))
    seeds = [arguments.seed] if arguments.seed is not None else \
        range(arguments.first, arguments.first + arguments.sequences)
    failed = [seed for seed in seeds if not run_one(arguments, seed)]
    print(f"{len(seeds) - len(failed)} of {len(seeds)} sequences as the model says"
          + (f"; not so: {failed}" if failed else ""))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
