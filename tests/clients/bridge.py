"""Mosquitto as a bridge to the broker under test: the checks of checks.py as far as they mean something for a bridge.

A local mosquitto at port 1884 hands on in/# from the broker, out/# to it and both/# both ways. What the broker sends to
the bridge is read off the local mosquitto's log, which tells each packet, or taken by a subscriber there.
"""
import pathlib
import re
import signal
import subprocess
import time
import uuid

import checks
from agent import Failed, NotHere, pause
from broker import PORT, wait_for_port
from mosquitto_tools import MosquittoTools, known_filters, version_in

LOCAL_PORT = 1884
TOPICS = ["topic in/# in 2", "topic out/# out 2", "topic both/# both 2"]
BRIDGE_CHECKS = {}


def for_bridge(function):
    BRIDGE_CHECKS[function.__name__] = function
    return function


class LocalMosquitto:
    def __init__(self, directory, number, lines):
        self.config = pathlib.Path(directory) / f"bridge{number}.conf"
        self.log = pathlib.Path(directory) / f"bridge{number}.log"
        self.config.write_text("\n".join(["user root", f"listener {LOCAL_PORT} 127.0.0.1", "allow_anonymous true",
                                          "connection tarn", f"address 127.0.0.1:{PORT}", *lines]) + "\n")
        self.process = subprocess.Popen(["mosquitto", "-v", "-c", str(self.config)], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=open(self.log, "wb"))
        wait_for_port(LOCAL_PORT, self.process)

    def lines(self, pattern):
        return re.findall(pattern, self.log.read_text(errors="replace"))

    def wait_for(self, pattern, count, within, what):
        until = time.monotonic() + within
        while len(self.lines(pattern)) < count:
            if time.monotonic() > until:
                raise Failed(f"{what}: {len(self.lines(pattern))} of {count} within {within:g} s")
            time.sleep(0.05)

    def received(self):
        """The topics of what the broker sent to the bridge, but for the bridge's own state."""
        return self.lines(r"Received PUBLISH from local\.\S+ \(\S+ \S+ \S+ \S+ '(in/[^']*)'")

    def end(self, how=signal.SIGTERM):
        self.process.send_signal(signal.SIGCONT)
        self.process.send_signal(how)
        try:
            return self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise Failed("mosquitto does not end") from None


class BridgeBench:
    def __init__(self, settings, directory, column, level, broker, port):
        self.as_it_comes = settings == ["default"]
        self.directory, self.column, self.level, self.broker = directory, column, level, broker
        # As it comes it tries the level with the highest bit set first, and pauses 5 to 30 s after each failure.
        self.patience = 36 if self.as_it_comes else 20
        self.started = 0
        self.local, self.extra = None, None
        self.check = ""
        self.used = []

    # ---- the bridge

    def settings(self):
        if self.as_it_comes:
            return []
        version = "mqttv50" if self.level == 5 else "mqttv311"
        return [f"bridge_protocol_version {version}", "try_private false", "restart_timeout 1", "keepalive_interval 5",
                "remote_clientid bridge-" + str(self.level)]

    def start(self, *extra, topics=TOPICS):
        """Starts the local mosquitto, unless it runs with the same settings; connected when this returns."""
        if self.local and self.local.process.poll() is None:
            if self.extra == (extra, topics) and self.is_connected(topics):
                return
            self.stop()
        self.extra = (extra, topics)
        self.started += 1
        own = [line for line in self.settings() if not any(line.split()[0] == one.split()[0] for one in extra)]
        self.local = LocalMosquitto(self.directory, self.started, own + list(extra) + list(topics))
        incoming = sum(line.split()[2] != "out" for line in topics)
        self.local.wait_for(r"Received SUBACK from local\.", incoming, self.patience, "SUBACKs")

    def is_connected(self, topics):
        incoming = sum(line.split()[2] != "out" for line in topics)
        return len(self.local.lines(r"Received SUBACK from local\.")) >= incoming

    def stop(self, how=signal.SIGTERM):
        status = self.local.end(how)
        self.local = None
        return status

    def drop(self):
        self.stop(signal.SIGKILL)

    # ---- who is around it

    def topic(self, way, rest):
        return f"{way}/{self.check}/{rest}"

    def client(self, port, level=4):
        client = MosquittoTools(level, port)
        self.used.append(client)
        return client

    def connected(self, port, name, level=4):
        client = self.client(port, level)
        client.connect(f"{self.check.replace('_', '')}-{name}")
        return client

    def version(self):
        return version_in(["mosquitto", "-h"])

    def begin(self, name):
        self.check = name

    def run(self, one):
        if one.name not in BRIDGE_CHECKS:
            raise NotHere("not for a bridge")
        BRIDGE_CHECKS[one.name](self)

    def end(self):
        for client in self.used:
            if client.process and client.process.poll() is None:
                client.kill()
        self.used = []
        known_filters.clear()

    def close(self):
        if self.local:
            self.drop()


def pass_both_ways(bench, payload, qos=1, within=4.0, level=4):
    bench.start()
    for way, source, target in ("in", PORT, LOCAL_PORT), ("out", LOCAL_PORT, PORT):
        source_level, target_level = (level, 4) if source == PORT else (4, level)
        subscriber = bench.connected(target, "s" + way, target_level)
        publisher = bench.connected(source, "p" + way, source_level)
        subscriber.subscribe(bench.topic(way, "t"), qos=qos)
        publisher.publish(bench.topic(way, "t"), payload, qos=qos, within=within)
        try:
            message = subscriber.take(within)
        except Failed as failure:
            raise Failed(f"{way}: {failure}") from None
        checks.expect(message.payload == payload,
                      f"{way}: the payload has {len(message.payload)} bytes of {len(payload)}, or is another")
        checks.expect(message.qos == qos, f"{way}: it comes at QoS {message.qos}")
        subscriber.stay_quiet(0.2)


@for_bridge
def connect(bench):
    bench.start()
    limit = 2 if bench.as_it_comes else 1
    attempts = len(bench.local.lines("sending CONNECT"))
    checks.expect(attempts <= limit, f"it took {attempts} attempts")


@for_bridge
def uuid_id(bench):
    bench.start("remote_clientid " + str(uuid.uuid5(uuid.NAMESPACE_URL, bench.column)))
    pass_in(bench)


@for_bridge
def long_id(bench):
    bench.start("remote_clientid long-" + "x" * 95)
    pass_in(bench)


@for_bridge
def password(bench):
    bench.start("remote_username alice", "remote_password secret")
    pass_in(bench)


def pass_in(bench):
    bench.connected(PORT, "p").publish(bench.topic("in", "t"), b"hello")
    bench.local.wait_for(f"Received PUBLISH from local.*'{bench.topic('in', 't')}'", 1, 3, "messages")


@for_bridge
def qos_0(bench):
    pass_both_ways(bench, b"hello", 0)


@for_bridge
def qos_1(bench):
    pass_both_ways(bench, b"hello", 1)


@for_bridge
def qos_2(bench):
    pass_both_ways(bench, b"hello", 2)


@for_bridge
def other_level(bench):
    pass_both_ways(bench, b"hello", level=9 - bench.level)


@for_bridge
def json_300(bench):
    pass_both_ways(bench, checks.JSON_300.encode())


@for_bridge
def binary(bench):
    pass_both_ways(bench, checks.BINARY)


@for_bridge
def binary_small(bench):
    pass_both_ways(bench, checks.BINARY_FROM_SMALL)


@for_bridge
def no_payload(bench):
    pass_both_ways(bench, b"")


@for_bridge
def kilobytes_20(bench):
    pass_both_ways(bench, checks.BINARY * 80)


@for_bridge
def megabyte(bench):
    pass_both_ways(bench, checks.BINARY * 3907, within=8.0)


@for_bridge
def burst(bench):
    bench.start()
    subscriber = bench.connected(LOCAL_PORT, "s")
    subscriber.subscribe(bench.topic("in", "t"))
    bench.connected(PORT, "p").burst(bench.topic("in", "t"), 500)
    subscriber.take_exactly([str(number).encode() for number in range(500)], 5.0)


@for_bridge
def both_ways_once(bench):
    bench.start()
    for source, target in (PORT, LOCAL_PORT), (LOCAL_PORT, PORT):
        subscribers = [bench.connected(port, f"s{port}-{source}") for port in (source, target)]
        for subscriber in subscribers:
            subscriber.subscribe(bench.topic("both", source))
        bench.connected(source, f"p{source}").publish(bench.topic("both", source), b"hello")
        for subscriber, port in zip(subscribers, (source, target)):
            try:
                subscriber.take_exactly([b"hello"], then_quiet=1.0)
            except Failed as failure:
                where = {PORT: "the broker", LOCAL_PORT: "the local mosquitto"}
                raise Failed(f"from {where[source]}, at {where[port]}: {failure}") from None


@for_bridge
def filters_17(bench):
    bench.start("remote_clientid filters", topics=[f"topic in/{bench.check}/{number} in 1" for number in range(17)])
    publisher = bench.connected(PORT, "p")
    for number in range(17):
        publisher.publish(bench.topic("in", number), b"hello")
    bench.local.wait_for("Received PUBLISH from local", 17, 4, "messages")


@for_bridge
def wildcards(bench):
    bench.start("remote_clientid wild", topics=[f"topic in/{bench.check}/+/c in 1", f"topic in/{bench.check}/x/# in 1"])
    publisher = bench.connected(PORT, "p")
    yes = ["a/c", "/c", "x", "x/y", "x/y/z"]
    for topic in yes + ["a/b/c", "a/c/", "xy", "a"]:
        publisher.publish(bench.topic("in", topic), b"hello")
    expect_received(bench, yes)


@for_bridge
def unsubscribe(bench):
    """At its start it takes back what it may have subscribed to under another configuration."""
    bench.start()
    bench.local.wait_for("Received UNSUBACK from local", 1, 3, "UNSUBACKs")


@for_bridge
def retained(bench):
    publisher = bench.connected(PORT, "p")
    publisher.publish(bench.topic("in", "t"), b"kept", retain=True)
    bench.start(topics=[f"topic in/{bench.check}/# in 1", f"topic out/{bench.check}/# out 1"])
    bench.local.wait_for(rf"Received PUBLISH from local\.\S+ \(d0, q1, r1, \S+ '{bench.topic('in', 't')}'", 1, 3,
                         "retained messages, in")
    bench.connected(LOCAL_PORT, "q").publish(bench.topic("out", "t"), b"kept", retain=True)
    time.sleep(0.5)
    late = bench.connected(PORT, "l")
    late.subscribe(bench.topic("out", "t"))
    checks.expect(late.take_exactly([b"kept"])[0].retain, "out: it is not retained")
    publisher.publish(bench.topic("in", "t"), b"", retain=True)


def state_watcher(bench):
    watcher = bench.connected(PORT, "w")
    watcher.subscribe("$SYS/broker/connection/#")
    return watcher


def wait_for_state(watcher, payload, within):
    until = time.monotonic() + within
    while time.monotonic() < until:
        if watcher.take(max(0.05, until - time.monotonic())).payload == payload:
            return
    raise Failed(f"no state {payload} within {within:g} s")


@for_bridge
def will(bench):
    """A bridge tells its state by a retained message and a will."""
    bench.start()
    watcher = state_watcher(bench)
    wait_for_state(watcher, b"1", 3)
    bench.drop()
    wait_for_state(watcher, b"0", 3)


@for_bridge
def clean_exit(bench):
    bench.start()
    status = bench.stop()
    checks.expect(status == 0, f"it ends with status {status}")


# ---- sessions: what the broker sends when the bridge is back

def expect_received(bench, names, within=4.0):
    expected = [bench.topic("in", name) for name in names]
    bench.local.wait_for("Received PUBLISH from local.*'in/", len(expected), within, "messages")
    time.sleep(0.3)
    got = bench.local.received()
    checks.expect(got == expected, "other messages, or in another order: " + " ".join(got[:8]))


def publish_three(bench, qos=1):
    publisher = bench.connected(PORT, "p")
    for name in "one", "two", "three":
        publisher.publish(bench.topic("in", name), b"hello", qos=qos)
    return ["one", "two", "three"]


@for_bridge
def session_disconnect(bench, qos=1):
    bench.start()
    bench.stop()
    names = publish_three(bench, qos)
    bench.start()
    expect_received(bench, names)


@for_bridge
def session_qos_2(bench):
    session_disconnect(bench, 2)


@for_bridge
def session_drop(bench):
    bench.start()
    bench.drop()
    names = publish_three(bench)
    bench.start()
    expect_received(bench, names)


@for_bridge
def session_on_the_way(bench):
    bench.start()
    pause(bench.local.process)
    names = publish_three(bench)
    bench.local.process.kill()
    bench.local.process.wait()
    bench.start()
    expect_received(bench, names)


@for_bridge
def session_restart(bench, how=signal.SIGTERM):
    bench.start()
    bench.stop()
    names = publish_three(bench)
    bench.broker.restart(how)
    bench.start()
    expect_received(bench, names)


@for_bridge
def session_kill(bench):
    session_restart(bench, signal.SIGKILL)


@for_bridge
def connected_restart(bench):
    """The bridge waits for the broker, hands on what it kept and is sent what comes."""
    bench.start()
    bench.broker.stop()
    bench.connected(LOCAL_PORT, "q").publish(bench.topic("out", "t"), b"kept", retain=True)
    suback_count = len(bench.local.lines("Received SUBACK from local"))
    bench.broker.start()
    bench.local.wait_for("Received SUBACK from local", suback_count + 1, bench.patience, "SUBACKs again")
    time.sleep(0.5)
    late = bench.connected(PORT, "l")
    late.subscribe(bench.topic("out", "t"))
    late.take_exactly([b"kept"])
    pass_in(bench)


# ---- time

@for_bridge
def slow_acknowledgement(bench):
    bench.start()
    subscriber = bench.connected(LOCAL_PORT, "s")
    subscriber.subscribe(bench.topic("in", "#"), qos=2)
    publisher = bench.connected(PORT, "p")
    for qos in 1, 2:
        pause(bench.local.process)
        for payload in b"one", b"two", b"three":
            publisher.publish(bench.topic("in", qos), payload, qos=qos)
        time.sleep(4)
        bench.local.process.send_signal(signal.SIGCONT)
        subscriber.take_exactly([b"one", b"two", b"three"], then_quiet=1.0)


@for_bridge
def keepalive_idle(bench):
    bench.start()
    attempts = len(bench.local.lines("sending CONNECT"))
    time.sleep(11)
    checks.expect(len(bench.local.lines("sending CONNECT")) == attempts, "it was closed")
    pass_in(bench)


@for_bridge
def keepalive_silent(bench):
    if bench.as_it_comes:
        raise NotHere("its keep-alive is 60 s")
    bench.start()
    watcher = state_watcher(bench)
    wait_for_state(watcher, b"1", 3)
    pause(bench.local.process)
    try:
        wait_for_state(watcher, b"0", 9.0)
    finally:
        bench.drop()
