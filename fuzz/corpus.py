#!/usr/bin/env python3
"""First inputs of the fuzzers: corpus.py <fuzzer> <directory>. One file an input, named by what it holds.

Packets are written as the tests write them: hex pairs and 'quoted text'. Whole packets and files of every kind are
enough; the fuzzer cuts and bends them itself. What long runs found beyond them is kept in <fuzzer>.hex, one input a
line; after a run that reached more, renew it:

    <fuzzer>_fuzz -merge=1 least corpus/<fuzzer>_fuzz && corpus.py --keep <fuzzer> least
"""
import os
import re
import struct
import sys


def wire(text):
    out = b""
    for quoted, pair in re.findall(r"'([^']*)'|([0-9A-Fa-f]{2})", text):
        out += quoted.encode() if quoted else bytes.fromhex(pair)
    return out


def packet(first, body):
    length, field = len(body), b""
    while True:
        length, seven = length >> 7, length & 0x7F
        field += bytes([seven | (0x80 if length else 0)])
        if not length:
            return bytes([first]) + field + body


CONNECT_4 = packet(0x10, wire("00 04 'MQTT' 04 F6 00 3C 00 02 'id' 00 03 'w/t' 00 04 'gone' 00 04 'user' 00 02 'pw'"))
CONNECT_5 = packet(0x10, wire(
    "00 04 'MQTT' 05 F6 00 3C 14 11 00 00 00 64 21 00 0A 22 00 0B 27 00 01 00 00 19 01 1A 01 00 02 'id'"
    "0A 18 00 00 00 1E 02 00 00 00 3C 00 03 'w/t' 00 04 'gone' 00 04 'user' 00 02 'pw'"))

PACKETS = {
    "connect_4": CONNECT_4,
    "connect_5": CONNECT_5,
    "connect_short": CONNECT_5[:40],
    "connect_long_id": packet(0x10, wire("00 04 'MQTT' 05 82 00 3C 00 00 64") + b"x" * 64 + wire("00 04 'user'") + b"y" * 30),
    "connect_unknown_property": packet(0x10, wire("00 04 'MQTT' 05 02 00 3C 09 26 00 01 'k' 00 01 'v' A1 21 00 01 'i'")),
    "connect_name": packet(0x10, wire("FF FF 'MQIsdpxx'")),
    "connack_4": wire("20 02 01 00"),
    "connack_5": wire("20 0E 00 86 0B 21 01 02 22 03 04 10 05 06 07 08"),
    "connack_unknown": wire("20 0A 00 00 07 1F 02 'ab' 21 00 0A"),
    "publish_0": wire("30 08 00 01 'a' 'hello'"),
    "publish_1": wire("33 09 00 03 'a/b' 00 07 'hi'"),
    "publish_5": packet(0x3D, wire("00 01 'a' 00 07 0B 02 00 00 00 3C 23 00 05 26 01 'x' 'hello'")),
    "publish_long": packet(0x30, wire("00 01 'a'") + b"\x7f" * 3000),
    "puback_4": wire("40 02 00 07"),
    "puback_5": wire("40 04 00 07 10 00"),
    "pubrec_5": wire("50 07 00 07 00 03 1F 00 00"),
    "pubrel": wire("62 02 00 07"),
    "pubcomp": wire("70 03 00 07 92"),
    "suback": wire("90 06 00 07 00 00 01 80"),
    "unsuback": wire("B0 03 00 07 00"),
    "subscribe_4": wire("82 0D 00 01 00 03 'a/b' 01 00 02 '+/' 02"),
    "subscribe_5": wire("82 10 00 01 06 0B 05 26 02 27 01 00 04 'a/#x' 02"),
    "subscribe_17": packet(0x82, wire("00 01 00") + wire("00 01 'f' 01") * 17),
    "unsubscribe_4": wire("A2 07 00 01 00 03 'a/b'"),
    "unsubscribe_5": wire("A2 0A 00 01 02 0B 05 00 03 'a/b'"),
    "unsubscribe_17": packet(0xA2, wire("00 01") + wire("00 01 'f'") * 17),
    "pingreq": wire("C0 00"),
    "pingresp": wire("D0 00"),
    "disconnect_4": wire("E0 00"),
    "disconnect_5": wire("E0 13 00 11 10 01 02 03 04 1F 00 03 'why' 26 00 03 'abc'"),
}

LEVELS = {"v4": 0x00, "v5": 0x10, "v0": 0x20, "v9": 0x30}
SIMPLE = 0x40


def codec_decode():
    for name, data in PACKETS.items():
        kind = data[0] >> 4
        for level, bits in LEVELS.items():
            yield f"{name}_{level}", bytes([kind | bits]) + data
        yield f"{name}_simple", bytes([kind | SIMPLE]) + data


def block(*properties):
    """A property block with its length."""
    whole = wire(" ".join(properties))
    return bytes([len(whole)]) + whole


USER = "26 00 01 'k' 00 02 'v1' 26 00 01 'k' 00 00"
ANSWER = ["1F 00 03 'why'", USER]
MESSAGE = ["01 01", "02 00 00 00 3C", "03 00 04 'text'", "08 00 03 'r/t'", "09 00 02 00 FF", USER]
LOGIN = ["11 00 00 00 64", "15 00 01 'm'", "16 00 01 'd'", "21 00 0A", "22 00 0B", "27 00 01 00 00", USER]
CONNACK_ONLY = ["12 00 02 'id'", "13 00 1E", "1A 00 01 'i'", "1C 00 01 's'", "24 01", "25 00", "28 00", "29 01", "2A 00"]

BLOCKS = {  # by packet type, 0 = will
    0: MESSAGE + ["18 00 00 00 1E"],
    1: LOGIN + ["17 00", "19 01"],
    2: LOGIN + CONNACK_ONLY + ANSWER[:1],
    3: MESSAGE + ["23 00 05", "0B 01", "0B 80 01"],
    4: ANSWER,
    5: ANSWER,
    6: ANSWER,
    7: ANSWER,
    8: ["0B FF FF FF 7F", USER],
    9: ANSWER,
    10: [USER],
    11: ANSWER,
    14: ["11 00 00 00 64", "1C 00 01 's'"] + ANSWER,
    15: LOGIN[1:3] + ANSWER,
}

STANDARD = {
    "connect_4": CONNECT_4,
    "connect_5": packet(0x10, wire("00 04 'MQTT' 05 F6 00 3C") + block(*BLOCKS[1]) + wire("00 02 'id'") + block(*BLOCKS[0]) +
                        wire("00 03 'w/t' 00 04 'gone' 00 04 'user' 00 02 'pw'")),
    "connect_password": packet(0x10, wire("00 04 'MQTT' 05 42 00 3C 00 00 00 00 02 'pw'")),
    "connect_3": packet(0x10, wire("00 06 'MQIsdp' 03 02 00 3C 00 02 'id'")),
    "connect_bridge": packet(0x10, wire("00 04 'MQTT' 84 02 00 3C 00 02 'id'")),
    "publish_0": wire("31 08 00 01 'a' 'hello'"),
    "publish_1": wire("3B 09 00 03 'a/b' 00 07 'hi'"),
    "publish_5": packet(0x34, wire("00 03 'a/b' 00 07") + block(*MESSAGE, "23 00 05") + b"hello"),
    "publish_alias": packet(0x30, wire("00 00") + block("23 00 05") + b"hello"),
    "publish_utf8": packet(0x30, wire("00 0B 'a/' C3 A9 E2 82 AC F0 9F 98 80 00")),
    **{f"ack_{kind}": packet(kind << 4 | (2 if kind == 6 else 0), wire("00 07")) for kind in (4, 5, 6, 7)},
    **{f"ack_{kind}_5": packet(kind << 4 | (2 if kind == 6 else 0), wire("00 07 00") + block(*ANSWER)) for kind in (4, 5, 6, 7)},
    "ack_reason": wire("62 03 00 07 92"),
    "subscribe_4": packet(0x82, wire("00 07 00 03 'a/b' 01 00 01 '#' 02 00 03 '+/+' 00")),
    "subscribe_5": packet(0x82, wire("00 07") + block(*BLOCKS[8]) + wire("00 03 'a/b' 2D 00 0A '$share/g/+' 1A")),
    "unsubscribe_4": packet(0xA2, wire("00 07 00 03 'a/b' 00 0A '$share/g/#'")),
    "unsubscribe_5": packet(0xA2, wire("00 07") + block(USER) + wire("00 03 'a/b'")),
    "pingreq": wire("C0 00"),
    "disconnect_4": wire("E0 00"),
    "disconnect_reason": wire("E0 01 04"),
    "disconnect_5": packet(0xE0, wire("00") + block(*BLOCKS[14])),
    "auth": packet(0xF0, wire("18") + block(*BLOCKS[15])),
}


def standard_codec():
    for name, data in STANDARD.items():
        for level in (0, 1):
            yield f"{name}_{level}", bytes([level]) + data
    for kind, properties in BLOCKS.items():
        yield f"block_{kind}", bytes([kind << 4 | 2]) + wire(" ".join(properties))


KINDS = ["Key", "Counters", "Session", "SessionState", "SessionGone", "Subscribed", "Unsubscribed", "Message",
         "Publication", "Sent", "Received", "Done", "Released", "Retained", "RetainedGone"]


def record(kind, layout, *values):
    """One of src/standard/records/records.h; "t" in the layout is a text that stands as it is."""
    data = b"".join(value if field == "t" else struct.pack("<" + field, value) for field, value in zip(layout, values))
    return struct.pack("<BH", 1 + KINDS.index(kind), len(data)) + data


def message_fields(number, topic, payload=b"load"):
    return "QQQBBIIItt", (number, 0, 1, 1, 0, len(topic), 0, len(payload), topic, payload)


def session_record(kind, number, text, layout="", *values):
    return record(kind, "QIQBIIIt" + layout, number, 60, 0, 0, 0, 0, len(text), text, *values)


def publication(number, topic, effects, packet_id, *sessions):
    layout, values = message_fields(number, topic)
    deliveries = [field for session in sessions for field in (session, number, 2, 0, 1, 7)]
    return record("Publication", "BQH" + layout + "QQBHII" * len(sessions), effects, 1, packet_id, *values, *deliveries)


def standard_restore():
    layout, values = message_fields(3, b"a/b/c")
    session = session_record("Session", 1, b"id")
    will = record("Session", "QIQBIIIt" + layout, 3, 60, 5, 3, 1, 2, 4, b"will", *values)
    gone = record("SessionGone", "Q", 3)
    filters = (b"a/#", b"+/b", b"$share/g/a/b")
    subscribed = b"".join(record("Subscribed", "QIBBt", 1, 5, 2, 0x13, text) for text in filters)
    published = publication(1, b"a/b", 1, 9, 1) + publication(2, b"a", 0, 0, 1)
    steps = b"".join(record(kind, "QQH", 1, 1, 1) for kind in ("Sent", "Received", "Done"))
    state = session_record("SessionState", 2, b"other", "QIHHI" + "QQBHI" * 2,
                           8, 2, 1, 65535, 2, 0, 7, 0x0A, 4, 0, 3, 8, 5, 0, 0)
    stored = record("Message", layout, *values) + state + record("Retained", "Q", 3)
    counters = record("Counters", "QQ", 5, 6)
    yield "key", record("Key", "QQQQ", 1, 2, 3, 4)
    yield "counters", counters + session
    yield "session", session + will + gone
    yield "subscribed", session + subscribed + record("Unsubscribed", "Qt", 1, b"a/#")
    yield "publications", session + subscribed + published
    yield "steps", session + published + steps
    yield "released", session + published + record("Released", "QH", 1, 9)
    yield "checkpoint", stored + record("RetainedGone", "t", b"a/b/c")
    yield "all", counters + stored + session + subscribed + published + steps


def codec_encode():
    sizes = {1: 2556, 2: 16, 3: 2332, 4: 72, 5: 72, 6: 72, 7: 72, 8: 4192, 9: 72, 10: 4124, 11: 72, 14: 144}
    for kind, size in sizes.items():
        for fill in (0x00, 0x01, 0x41, 0xFF):
            for level in (0x00, 0x10):
                yield f"{kind}_{fill:02x}_{level:02x}", bytes([kind | level, 0x0F, 0xFF]) + bytes([fill]) * size
        # A counted text or filter list: small numbers, short texts.
        yield f"{kind}_short", bytes([kind | 0x10, 0x07, 0xFF]) + (b"ab\0" + b"\1\0\0") * (size // 6)
    for kind in (12, 13, 14, 15):
        for level in (0x00, 0x10, 0x20):
            yield f"simple_{kind}_{level:02x}", bytes([kind | level | SIMPLE, 0x00, 0x7F, 0])


# The session file's keys, in its order, with a value each.
SESSION = (
    b'{"client_id":"id","clean_session":false,"clean_start":true,"session_expiry_interval":60,'
    b'"session_expiry_deadline":1763200000,"last_online":1763100000,"will_flag":true,"will_topic":"w/t","will_qos":1,'
    b'"will_len":4,"will_payload":"676f6e65","will_delay_interval":5,"will_msg_expiry_interval":6,'
    b'"will_payload_format":1,"will_content_type":"text","will_response_topic":"r","will_correlation_len":3}')


def subscription(topic, qos=b"1"):
    return b'{"topic":"%s","qos":%s}' % (topic, qos)


def message(topic, payload=b"6869", msgid=b"7", qos=b"1"):
    return b'{"msgid":%s,"qos":%s,"topic":"%s","payload":"%s"}' % (msgid, qos, topic, payload)


def listed(name, entries):
    return b'{"%s":[%s]}' % (name, b",".join(entries))


TOPICS = {
    "plain": b"a/b",
    "empty": b"",
    "escapes": rb'\"\\\/\b\f\n\r\t\u0001\u001F\u007f',
    "no_escapes": rb"\u0000\u0080\x\u00",
    "open": b"a\\",
    "key_inside": rb'\",\"qos\":1},{\"topic\":\"#',
    "braces": rb"\u007b\u007d",
    "bare_braces": b"a}b{c",
    "high_bytes": b"\xff\xc3\xa9\x7f",
    "long": b"t" * 256,
}


def persist_load():
    session, subscriptions, messages = b"\0", b"\1", b"\2"
    yield "session", session + SESSION
    yield "session_cut", session + SESSION[:227]
    yield "session_spread", session + SESSION.replace(b'"will', b" " * 120 + b'"will')
    yield "session_last_key", session + b'"session_expiry_deadline":'
    yield "session_big", session + b'"session_expiry_interval":99999999999999999999999,"will_flag":true,"will_len":-1'
    for name, topic in TOPICS.items():
        yield "subscription_" + name, subscriptions + listed(b"subs", [subscription(topic), subscription(b"x", b"2")])
        yield "message_" + name, messages + listed(b"msgs", [message(topic), message(b"x")])
    yield "subscriptions_65", subscriptions + listed(b"subs", [subscription(b"t")] * 65)
    yield "messages_101", messages + listed(b"msgs", [b'{"topic":"","qos":,"msgid":,"payload":"}'] * 101)
    yield "message_long", messages + listed(b"msgs", [message(b"t", b"61" * 600), message(b"u")])
    yield "message_odd_hex", messages + listed(b"msgs", [message(b"t", hexed) for hexed in (b"616", b"6x", b"AF")])
    yield "message_big", messages + listed(b"msgs", [message(b"t", b"61", b"65536", b"256"), message(b"t", b"", b"-1")])
    yield "message_keyless", messages + listed(b"msgs", [b'{"msgid":1}', b'{"qos":1,"topic":"', message(b"t")])
    for which, start in ((session, b'"will_flag":'), (subscriptions, b'"subs":[{"topic":"'), (messages, b'"msgs":[{')):
        yield f"empty_{which[0]}", which
        yield f"start_{which[0]}", which + start


def persist_retain():
    def record(topic, payload_len=5, qos=1, store_time=1763200000, expiry=0):
        return topic[:257].ljust(257, b"\0") + struct.pack("<IIqI", payload_len, qos, store_time, expiry)

    one, two = record(b"a/b"), record(b"c", 2048, 2, 0, 10)
    wild = record(b"\xff" * 257, 0xFFFFFFFF, 0xFFFFFFFF, -(2 ** 63), 0xFFFFFFFF)
    for name, count, records in (
            ("none", 0, []), ("one", 1, [one]), ("two", 2, [one, two]), ("short", 3, [one, two]),
            ("fewer", 1, [one, two]), ("wild", 2, [wild, one]), ("late", 1, [record(b"z", 0, 0, 2 ** 63 - 1, 1)]),
            ("same", 2, [one, one]), ("too_many", 1001, [one]), ("most", 1000, [one]), ("huge", 0xFFFFFFFF, [one]),
            ("nameless", 1, [record(b"")])):
        yield name, struct.pack("<I", count) + b"".join(records)
    yield "cut", struct.pack("<I", 2) + one + two[:-1]
    yield "no_count", b"\1\0\0"


# Steps of a conversation: (client, packet), or (client, what happens, how many bytes of anything).
HANG_UP, WAIT, HOST = 5, 6, 7


def steps(*conversation):
    out = b""
    for client, *what in conversation:
        if isinstance(what[0], bytes):
            out += bytes([client, len(what[0])]) + what[0]
        else:
            out += bytes([client | what[0] << 1, what[1]]) + b"a/b" * (what[1] // 3) + b"c" * (what[1] % 3)
    return out


def connect(client_id, clean=True, level=4, will=False):
    flags = (0x02 if clean else 0) | (0x0C if will else 0)
    properties = wire("05 11 00 00 00 64") if level == 5 else b""
    last = wire("00" if level == 5 and will else "") + (wire("00 03 'a/w' 00 04 'gone'") if will else b"")
    return packet(0x10, wire("00 04 'MQTT'") + bytes([level, flags, 0, 60]) + properties +
                  bytes([0, len(client_id)]) + client_id + last)


def conversation():
    subscribe, shared = wire("82 08 00 01 00 03 'a/#' 01"), wire("82 11 00 02 00 0C '$share/g/a/#' 01")
    for level in (4, 5):
        of_level = b"" if level == 4 else b"\0"
        sub = packet(0x82, wire("00 01") + of_level + wire("00 03 'a/#' 02"))
        hello = [(0, connect(b"one", True, level)), (1, connect(b"two", False, level)), (1, sub)]

        def publish(first, identifier=b""):
            return packet(first, wire("00 03 'a/b'") + identifier + of_level + b"hi")
        yield f"qos_{level}", steps(*hello, (0, publish(0x30)), (0, publish(0x32, b"\0\7")), (0, publish(0x34, b"\0\7")),
                                    (0, wire("62 02 00 07")), (1, wire("40 02 00 01")), (1, wire("50 02 00 01")),
                                    (0, WAIT, 2), (0, wire("E0 00")), (1, wire("C0 00")))
        yield f"retained_{level}", steps((0, connect(b"one", True, level)), (0, publish(0x31)), (0, publish(0x33, b"\0\7")),
                                         (1, connect(b"two", True, level)), (1, sub), (1, wire("A2 07 00 01 00 03 'a/#'")))
        yield f"away_{level}", steps(*hello, (1, wire("E0 00")), (0, publish(0x32, b"\0\7")), (1, HANG_UP, 0),
                                     (1, connect(b"two", False, level)), (0, WAIT, 2), (1, HANG_UP, 0))
        yield f"will_{level}", steps(*hello, (0, connect(b"one", False, level, True)), (0, HANG_UP, 0), (0, WAIT, 40),
                                     (0, connect(b"one", False, level, True)), (1, HANG_UP, 0))
        yield f"same_id_{level}", steps(*hello, (0, connect(b"two", False, level)), (1, HANG_UP, 0), (0, publish(0x30)))
    yield "shared", steps((0, connect(b"one")), (1, connect(b"two")), (0, shared), (1, shared), (0, HOST, 9), (1, HOST, 10))
    yield "host", steps((0, connect(b"one")), (0, subscribe), (0, HOST, 9), (0, HOST, 10), (0, HOST, 11), (0, WAIT, 90))
    for name, data in PACKETS.items():
        if len(data) < 256:
            yield "packet_" + name, steps((0, CONNECT_5), (0, subscribe), (1, connect(b"two")), (0, data), (1, data))


# Steps of standard_conversation.cpp: (client, what happens, what it asks for).
SAY = {"connect": 0, "subscribe": 2, "unsubscribe": 3, "publish": 4, "answer": 6, "wrong": 7, "release": 8,
       "disconnect": 9, "drop": 10, "raw": 11, "wait": 12, "host": 13, "stop_reading": 14, "read": 14, "restart": 15,
       "kill": 15, "full": 15, "checkpoint": 15}
HIGH = {"wait": 1, "read": 1, "kill": 1, "full": 2, "checkpoint": 3}


def said(limits, *conversation):
    return bytes([limits]) + b"".join(bytes([client | SAY[what] << 2 | HIGH.get(what, 0) << 6, *more])
                                      for client, what, *more in conversation)


def said_at(level):
    numbers = [2] if level else []  # a minute of session

    def come(client, choices=0, *will, as_id=None):
        return client, "connect", choices | level, *will, client if as_id is None else as_id, *numbers
    hello = [come(0), come(1), (1, "subscribe", 0, 3, 2)]  # t/#, QoS 2
    for qos in (0, 1, 2):
        publish, answers = (0, "publish", qos, 1, 2), [(1, "answer")] * 2
        flow = [publish, (1, "answer"), (0, "release"), (1, "answer")]
        yield f"qos_{qos}", said(0, *hello, *flow, *flow)
        yield f"retained_{qos}", said(0, *hello, (0, "publish", qos | 4, 1, 2), (0, "release"), come(2, 2),
                                      (2, "subscribe", 2, 4, 2), (2, "answer"), (1, "restart"))
        for end in ("restart", "kill", "checkpoint", "drop"):
            yield f"{end}_{qos}", said(1, *hello, publish, (1, "answer"), publish, (1, end), come(1), *answers,
                                       (1, "kill"), come(1), (1, "answer"))
        yield f"full_{qos}", said(0, *hello, (1, "full"), *flow, come(2), (1, "full"), *answers)
        yield f"slow_{qos}", said(1, *hello, (1, "stop_reading"), *[(0, "publish", qos, 1, 5)] * 12, (1, "read"),
                                  (1, "answer"))
    yield "will", said(0, *hello, come(2, 8 | 128, 1), (2, "drop"), (0, "wait", 6), (1, "answer"), (0, "wait", 60))
    yield "same_id", said(2, *hello, come(2, as_id=1), (0, "publish", 1, 1, 2), (2, "answer"))
    publish = (2, "host", 12, 1)
    yield "shared", said(0, come(0), come(1), (0, "subscribe", 0, 11, 1), (1, "subscribe", 0, 11, 2), publish, publish,
                         (0, "drop"), publish, (1, "wrong", 0, 1, 0))
    yield "ends", said(0, *hello, (0, "disconnect", 4 | 8), (1, "disconnect", 1), (0, "wait", 70), come(0), come(1))


def standard_conversation():
    for level in (0, 1):
        for name, data in said_at(level):
            yield f"{name}_{level + 4}", data
    both = [(0, "publish", 1, 1, 3), (0, "publish", 1, 1, 1)]
    yield "sizes", said(0, (0, "connect", 1, 0, 2 | 4 | 16 | 64), (0, "subscribe", 0, 3, 2), *both * 3)
    aliases = [(0, "publish", 128, 1, 2), (0, "publish", 192, 1, 2)]
    yield "aliases", said(0, (0, "connect", 1, 0, 128), (0, "subscribe", 0, 3, 2), *aliases * 2)
    for name, data in PACKETS.items():
        if len(data) < 256:
            yield "packet_" + name, said(0, (0, "connect", 1, 0, 2), (0, "subscribe", 0, 3, 2),
                                         (0, "raw", len(data), *data))


def found_file(fuzzer):
    return os.path.join(os.path.dirname(os.path.abspath(__file__)), fuzzer + ".hex")


def found(fuzzer):
    if not os.path.exists(found_file(fuzzer)):
        return
    with open(found_file(fuzzer), encoding="ascii") as lines:
        for number, line in enumerate(lines, 1):
            yield f"found_{number}", bytes.fromhex(line)


def keep(fuzzer, directory):
    inputs = set()
    for name in os.listdir(directory):
        with open(os.path.join(directory, name), "rb") as data:
            inputs.add(data.read())
    with open(found_file(fuzzer), "w", encoding="ascii") as lines:
        for data in sorted(inputs, key=lambda data: (len(data), data)):
            lines.write(data.hex() + "\n")


def write(fuzzer, directory):
    os.makedirs(directory, exist_ok=True)
    for name, data in [*globals()[fuzzer](), *found(fuzzer)]:
        with open(os.path.join(directory, "seed_" + name), "wb") as seed:
            seed.write(data)


def main():
    *option, fuzzer, directory = sys.argv[1:]
    if option == ["--keep"]:
        keep(fuzzer, directory)
    else:
        write(fuzzer, directory)


main()
