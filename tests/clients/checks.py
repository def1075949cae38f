"""What each client is put through. A check is a function of a Bench, from which it gets its clients; it returns when
all went well and raises Failed otherwise. Ids and topics begin with the check's name, so that none disturbs another.
"""
import json
import time
import uuid
from dataclasses import dataclass
from typing import Callable

from agent import Failed, NotHere, Will

JSON_300 = json.dumps({"device": "boiler-7", "values": list(range(1000, 1037)), "unit": "K", "ok": True,
                       "note": "x" * 7})
CLOSED = ("", "142", "7", "0")  # no reason, that of a take-over, or numbers that a client has for no reason
BINARY = bytes(range(256))
BINARY_FROM_SMALL = b"\x05\x00\x01\x02\x03" + bytes(range(255, -1, -1))


@dataclass
class Check:
    name: str
    title: str
    run: Callable
    slow: bool = False  # mostly waits; not in the quick run
    level: int = 0  # of clients of this level alone


CHECKS = []


def check(title, slow=False, level=0):
    def add(function):
        CHECKS.append(Check(function.__name__, title, function, slow, level))
        return function
    return add


def expect(condition, text):
    if not condition:
        raise Failed(text)


def exchange(bench, payload, qos=1, within=4.0):
    """From one client to another, once and as it was."""
    subscriber, publisher = bench.connected("s"), bench.connected("p")
    subscriber.subscribe(bench.topic("t"), qos=qos)
    publisher.publish(bench.topic("t"), payload, qos=qos, within=within)
    message = subscriber.take(within)
    expect(message.topic == bench.topic("t"), f"the topic is {message.topic}")
    expect(message.payload == payload, f"the payload has {len(message.payload)} bytes of {len(payload)}, or is another")
    expect(message.qos == qos, f"it comes at QoS {message.qos}")
    expect(not message.retain, "it comes as a retained one")
    subscriber.stay_quiet(0.2)


# ---- connecting

@check("connect")
def connect(bench):
    client = bench.client()
    expect(not client.connect(bench.id("a")), "a session is present")
    client.subscribe(bench.topic("t"))


@check("a UUID as id")
def uuid_id(bench):
    ids = [str(uuid.uuid5(uuid.NAMESPACE_URL, f"{bench.column}/{number}")) for number in range(2)]
    subscriber, publisher = bench.client(), bench.client()
    subscriber.connect(ids[0])
    publisher.connect(ids[1])
    subscriber.subscribe(bench.topic("t"))
    publisher.publish(bench.topic("t"), b"hello")
    subscriber.take_exactly([b"hello"])


@check("an id of 100 bytes")
def long_id(bench):
    client = bench.client()
    client.connect("long-" + "x" * 95)
    client.subscribe(bench.topic("t"))


@check("no id")
def no_id(bench):
    clients = [bench.client(), bench.client()]
    for client in clients:
        client.connect("")
        client.subscribe(bench.topic("t"))
    bench.connected("p").publish(bench.topic("t"), b"hello")
    for client in clients:
        client.take_exactly([b"hello"])


@check("user name and password")
def password(bench):
    client = bench.client()
    client.connect(bench.id("a"), username="alice", password="secret")
    client.subscribe(bench.topic("t"))


# ---- messages

@check("QoS 0, both ways")
def qos_0(bench):
    exchange(bench, b"hello", 0)


@check("QoS 1, both ways")
def qos_1(bench):
    exchange(bench, b"hello", 1)


@check("QoS 2, both ways")
def qos_2(bench):
    exchange(bench, b"hello", 2)


@check("to and from the other level")
def other_level(bench):
    own, other = bench.connected("a"), bench.connected("b", other_level=True)
    for client in own, other:
        client.subscribe(bench.topic(client.level))
    for qos in 0, 1:
        other.publish(bench.topic(own.level), b"hello", qos)
        own.take_exactly([b"hello"])
        own.publish(bench.topic(other.level), b"hello", qos)
        other.take_exactly([b"hello"])


@check("300 bytes of JSON")
def json_300(bench):
    exchange(bench, JSON_300.encode())


@check("binary payload")
def binary(bench):
    exchange(bench, BINARY)


@check("binary payload that begins with small numbers")
def binary_small(bench):
    exchange(bench, BINARY_FROM_SMALL)


@check("no payload")
def no_payload(bench):
    exchange(bench, b"")


@check("20 kB")
def kilobytes_20(bench):
    exchange(bench, BINARY * 80)


@check("1 MB")
def megabyte(bench):
    exchange(bench, BINARY * 3907, within=8.0)


@check("500 messages at once, in order")
def burst(bench):
    subscriber, publisher = bench.connected("s"), bench.connected("p")
    subscriber.subscribe(bench.topic("t"))
    publisher.burst(bench.topic("t"), 500)
    subscriber.take_exactly([str(number).encode() for number in range(500)], 5.0)


@check("message properties", level=5)
def properties(bench):
    subscriber, publisher = bench.connected("s"), bench.connected("p")
    subscriber.subscribe(bench.topic("t"))
    given = {"response": bench.topic("r"), "correlation": "c1", "type": "text/plain", "user": "name:value"}
    publisher.publish(bench.topic("t"), b"hello", **given)
    message = subscriber.take()
    if bench.shows_properties:
        expect(message.more == given, f"the properties are {message.more}")


@check("request and response")
def request(bench):
    bench.request_and_response()


@check("a bridge's topic for both ways: each message once")
def both_ways_once(bench):
    raise NotHere("no bridge")


# ---- subscriptions

@check("17 filters in one SUBSCRIBE")
def filters_17(bench):
    subscriber, publisher = bench.connected("s"), bench.connected("p")
    topics = [bench.topic(number) for number in range(17)]
    subscriber.subscribe(*topics)
    for topic in topics:
        publisher.publish(topic, topic.encode())
    subscriber.take_exactly([topic.encode() for topic in topics])


@check("wildcards")
def wildcards(bench):
    subscriber, publisher = bench.connected("s"), bench.connected("p")
    subscriber.subscribe(bench.topic("+/c"), bench.topic("x/#"))
    yes = ["a/c", "/c", "x", "x/y", "x/y/z"]
    no = ["a/b/c", "a/c/", "xy", "a"]
    for topic in yes + no:
        publisher.publish(bench.topic(topic), topic.encode())
    subscriber.take_exactly([topic.encode() for topic in yes])


@check("`#` leaves topics with `$` out")
def dollar_topics(bench):
    subscriber, publisher = bench.connected("s"), bench.connected("p")
    subscriber.subscribe("#")
    while True:  # what is retained comes first
        try:
            subscriber.take(0.3)
        except Failed:
            break
    publisher.publish("$" + bench.topic("t"), b"hidden", qos=0)
    publisher.publish(bench.topic("t"), b"hello")
    subscriber.take_exactly([b"hello"])


@check("unsubscribe")
def unsubscribe(bench):
    subscriber, publisher = bench.connected("s"), bench.connected("p")
    subscriber.subscribe(bench.topic("t"), bench.topic("u"))
    subscriber.unsubscribe(bench.topic("t"), bench.topic("u"))
    for topic in "t", "u":
        publisher.publish(bench.topic(topic), b"hello")
    subscriber.stay_quiet(0.5)


@check("own messages")
def own_messages(bench):
    bench.own_messages()


@check("No Local", level=5)
def no_local(bench):
    client = bench.connected("s")
    client.subscribe(bench.topic("t"), no_local=True)
    client.publish(bench.topic("t"), b"own")
    bench.connected("p").publish(bench.topic("t"), b"other")
    client.take_exactly([b"other"])


@check("the subscription's QoS counts, where it is lower")
def lower_qos(bench):
    publisher = bench.connected("p")
    for qos in 0, 1:
        subscriber = bench.connected(f"s{qos}")
        subscriber.subscribe(bench.topic("t"), qos=qos)
        publisher.publish(bench.topic("t"), b"hello", qos=2)
        message = subscriber.take_exactly([b"hello"])[0]
        expect(message.qos == qos, f"it comes at QoS {message.qos} to a subscription of QoS {qos}")


@check("Retain Handling, Retain As Published", level=5)
def retain_options(bench):
    publisher, none, all_of_it = bench.connected("p"), bench.connected("n"), bench.connected("a")
    publisher.publish(bench.topic("t"), b"kept", retain=True)
    none.subscribe(bench.topic("t"), retain_handling=2)
    all_of_it.subscribe(bench.topic("t"), retain_as_published=True)
    none.stay_quiet(0.4)
    all_of_it.take_exactly([b"kept"])
    publisher.publish(bench.topic("t"), b"new", retain=True)
    expect(not none.take().retain, "it comes as a retained one")
    expect(all_of_it.take().retain, "it does not come as it was published")


@check("Subscription Identifier", level=5)
def identifier(bench):
    subscriber = bench.connected("s")
    subscriber.subscribe(bench.topic("#"), identifier=300)
    bench.connected("p").publish(bench.topic("t"), b"hello")
    message = subscriber.take()
    if bench.shows_properties:
        expect(message.more == {"identifier": "300"}, f"it comes with {message.more}")


@check("topic aliases, both ways", level=5)
def aliases(bench):
    subscriber, publisher = bench.client(), bench.client()
    subscriber.connect(bench.id("s"), aliases=True)
    publisher.connect(bench.id("p"), aliases=True)
    subscriber.subscribe(bench.topic("#"))
    for number in range(20):
        publisher.publish(bench.topic(number % 2), b"hello")
        expect(subscriber.take().topic == bench.topic(number % 2), "it comes with another topic")


@check("Receive Maximum of the client", level=5)
def receive_maximum(bench):
    subscriber, publisher = bench.client(), bench.connected("p")
    subscriber.connect(bench.id("s"), receive_maximum=2)
    subscriber.subscribe(bench.topic("t"))
    publisher.burst(bench.topic("t"), 50)
    subscriber.take_exactly([str(number).encode() for number in range(50)], 5.0)


@check("Maximum Packet Size of the client", level=5)
def maximum_packet_size(bench):
    subscriber, publisher = bench.client(), bench.connected("p")
    subscriber.connect(bench.id("s"), maximum_packet_size=500)
    subscriber.subscribe(bench.topic("t"))
    for payload in b"one", b"x" * 1000, b"three":
        publisher.publish(bench.topic("t"), payload)
    subscriber.take_exactly([b"one", b"three"])


@check("shared groups")
def shared(bench):
    members = [bench.connected("s"), bench.connected("t")]
    for member in members:
        member.subscribe(f"$share/{bench.check}/{bench.topic('t')}")
    bench.connected("p").burst(bench.topic("t"), 20)
    got = {}
    for member in members:
        got[member] = []
        try:
            while True:
                got[member].append(member.take(0.6))
        except Failed:
            pass
    payloads = sorted(int(message.payload) for messages in got.values() for message in messages)
    expect(payloads == list(range(20)), f"the group got {len(payloads)} messages of 20")
    expect(all(len(messages) >= 5 for messages in got.values()),
           "shares of " + " and ".join(str(len(messages)) for messages in got.values()))


# ---- retained messages

@check("retained")
def retained(bench):
    publisher, early = bench.connected("p"), bench.connected("e")
    early.subscribe(bench.topic("t"))
    publisher.publish(bench.topic("t"), b"kept", qos=2, retain=True)
    message = early.take()
    expect(not message.retain, "a subscriber that was there gets it as a retained one")
    late = bench.connected("l")
    late.subscribe(bench.topic("#"))
    message = late.take()
    expect(message.payload == b"kept", f"it is {message}")
    expect(message.retain, "it does not come as a retained one")
    expect(message.qos == 1, f"it comes at QoS {message.qos} to a subscription of QoS 1")
    publisher.publish(bench.topic("t"), b"", retain=True)
    last = bench.connected("m")
    last.subscribe(bench.topic("t"))
    last.stay_quiet(0.4)


@check("retained, 20 kB")
def retained_large(bench):
    publisher, late = bench.connected("p"), bench.connected("l")
    publisher.publish(bench.topic("t"), BINARY * 80, retain=True)
    late.subscribe(bench.topic("t"))
    late.take_exactly([BINARY * 80])


@check("retained over a restart of the broker")
def retained_restart(bench):
    publisher = bench.connected("p")
    publisher.publish(bench.topic("t"), b"kept", retain=True)
    publisher.disconnect()
    bench.broker.restart()
    late = bench.connected("l")
    late.subscribe(bench.topic("t"))
    late.take_exactly([b"kept"])


# ---- wills

@check("will after a drop")
def will(bench):
    watcher, client = bench.connected("w"), bench.client()
    watcher.subscribe(bench.topic("t"))
    client.connect(bench.id("a"), will=Will(bench.topic("t"), qos=1))
    client.drop()
    watcher.take_exactly([b"gone"])


@check("will of 300 bytes, retained")
def will_retained(bench):
    watcher, client = bench.connected("w"), bench.client()
    watcher.subscribe(bench.topic("t"))
    client.connect(bench.id("a"), will=Will(bench.topic("t"), JSON_300.encode(), qos=1, retain=True))
    client.drop()
    watcher.take_exactly([JSON_300.encode()])
    late = bench.connected("l")
    late.subscribe(bench.topic("t"))
    late.take_exactly([JSON_300.encode()])


@check("will delay, called off by a return", slow=True, level=5)
def will_delay(bench):
    watcher, client, again = bench.connected("w"), bench.client(), bench.client()
    watcher.subscribe(bench.topic("t"))
    testament = Will(bench.topic("t"), delay=3)
    client.connect(bench.id("a"), keep=True, will=testament)
    client.drop()
    watcher.stay_quiet(0.7)
    again.connect(bench.id("a"), keep=True, will=testament)
    watcher.stay_quiet(3.5)
    again.drop()
    watcher.stay_quiet(2.0)
    watcher.take_exactly([b"gone"], 2.5)


@check("clean exit, no will")
def clean_exit(bench):
    watcher, client = bench.connected("w"), bench.client()
    watcher.subscribe(bench.topic("t"))
    client.connect(bench.id("a"), will=Will(bench.topic("t")))
    client.disconnect()
    status = client.leave()
    expect(status == 0, f"it ends with status {status}")
    watcher.stay_quiet(0.8)


# ---- sessions

def come_back(bench, name, expected, within=4.0):
    """The client of this name gets these of its session, exactly and in order, without subscribing again."""
    again = bench.client()
    present = again.connect(bench.id(name), keep=True)
    again.take_exactly(expected, within)
    expect(present is not False, "it got all, although no session was present")


def leave_session(bench, how):
    client = bench.client()
    client.connect(bench.id("s"), keep=True)
    client.subscribe(bench.topic("t"))
    how(client)
    time.sleep(0.2)


def publish_three(bench):
    publisher = bench.connected("p")
    expected = [b"one", b"two", b"three"]
    for payload in expected:
        publisher.publish(bench.topic("t"), payload)
    publisher.disconnect()
    return expected


@check("session over a disconnect")
def session_disconnect(bench):
    leave_session(bench, lambda client: client.disconnect())
    come_back(bench, "s", publish_three(bench))


@check("session over a drop")
def session_drop(bench):
    leave_session(bench, lambda client: client.drop())
    come_back(bench, "s", publish_three(bench))


@check("session at QoS 2")
def session_qos_2(bench):
    client, publisher = bench.client(), bench.connected("p")
    client.connect(bench.id("s"), keep=True)
    client.subscribe(bench.topic("t"), qos=2)
    client.disconnect()
    expected = [b"one", b"two", b"three"]
    for payload in expected:
        publisher.publish(bench.topic("t"), payload, qos=2)
    come_back(bench, "s", expected)


@check("messages on their way when the connection drops")
def session_on_the_way(bench):
    client, publisher = bench.client(), bench.connected("p")
    client.connect(bench.id("s"), keep=True)
    client.subscribe(bench.topic("t"))
    client.pause()
    expected = [b"one", b"two", b"three"]
    for payload in expected:
        publisher.publish(bench.topic("t"), payload)
    client.drop()
    come_back(bench, "s", expected)


@check("session over a restart of the broker")
def session_restart(bench):
    leave_session(bench, lambda client: client.disconnect())
    expected = publish_three(bench)
    bench.broker.restart()
    bench.connected("q").publish(bench.topic("t"), b"four")
    come_back(bench, "s", expected + [b"four"])


@check("session over `kill -9` of the broker")
def session_kill(bench):
    leave_session(bench, lambda client: client.disconnect())
    expected = publish_three(bench)
    bench.broker.restart(9)
    come_back(bench, "s", expected)


@check("a connected client over a restart of the broker")
def connected_restart(bench):
    client = bench.client()
    client.connect(bench.id("s"), keep=True)
    client.subscribe(bench.topic("t"))
    bench.broker.restart()
    client.drop()
    come_back(bench, "s", publish_three(bench))


@check("a session ends on time", slow=True, level=5)
def session_expiry(bench):
    client, again = bench.client(), bench.client()
    client.connect(bench.id("s"), keep=True, expiry=1)
    client.subscribe(bench.topic("t"))
    client.disconnect()
    time.sleep(2.5)
    publish_three(bench)
    present = again.connect(bench.id("s"), keep=True, expiry=1)
    expect(not present, "the session is present")
    again.stay_quiet(0.5)


@check("a message expires", slow=True, level=5)
def message_expiry(bench):
    leave_session(bench, lambda client: client.disconnect())
    publisher = bench.connected("p")
    publisher.publish(bench.topic("t"), b"short", expiry=1)
    publisher.publish(bench.topic("t"), b"long", expiry=100)
    time.sleep(2.2)
    come_back(bench, "s", [b"long"])


# ---- time

@check("slow acknowledgement: each message once", slow=True)
def slow_acknowledgement(bench):
    publisher = bench.connected("p")
    expected = [b"one", b"two", b"three"]
    for qos in 1, 2:
        subscriber = bench.connected(f"s{qos}")
        subscriber.subscribe(bench.topic(qos), qos=qos)
        subscriber.pause()
        for payload in expected:
            publisher.publish(bench.topic(qos), payload, qos=qos)
        time.sleep(4)
        subscriber.go_on()
        subscriber.take_exactly(expected, then_quiet=1.0)


@check("a second connection of an id takes over")
def take_over(bench):
    first, second = bench.client(), bench.client()
    first.connect(bench.id("a"))
    first.subscribe(bench.topic("t"))
    second.connect(bench.id("a"))
    second.subscribe(bench.topic("t"))
    first.wait_until_closed()
    reason = first.close_reason
    first.drop()
    time.sleep(bench.reconnect_s)
    bench.connected("p").publish(bench.topic("t"), b"hello")
    second.take_exactly([b"hello"])
    expect(bench.level == 4 or reason in CLOSED, f"the first is closed with {reason}")


@check("keep-alive: idle and still connected", slow=True)
def keepalive_idle(bench):
    client = bench.client()
    seconds = bench.shortest_keepalive
    client.connect(bench.id("a"), keepalive=seconds)
    client.subscribe(bench.topic("t"))
    time.sleep(2.2 * seconds)
    expect(not client.closed.is_set(), "it was closed")
    bench.connected("p").publish(bench.topic("t"), b"hello")
    client.take_exactly([b"hello"])


@check("keep-alive: a silent client is found", slow=True)
def keepalive_silent(bench):
    watcher, client = bench.connected("w"), bench.client()
    seconds = bench.shortest_keepalive
    watcher.subscribe(bench.topic("t"))
    client.connect(bench.id("a"), keepalive=seconds, will=Will(bench.topic("t")))
    client.pause()
    try:
        watcher.stay_quiet(0.9 * seconds)
        watcher.take_exactly([b"gone"], 0.6 * seconds + 1.5)
    finally:
        client.kill()
