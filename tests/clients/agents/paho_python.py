#!/usr/bin/env python3
"""The stock Python client (paho-mqtt) as a test's client: orders as lines of standard input, see ../agent.py."""
import sys
import threading

import paho.mqtt
import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties
from paho.mqtt.subscribeoptions import SubscribeOptions

LIMIT_S = 10
lock = threading.Lock()


def say(line):
    with lock:
        print(line, flush=True)


class Agent:
    def __init__(self):
        self.client = None
        self.level = 4

    def connect(self, port, id, level, clean, keepalive, aliases="0", **more):
        if aliases == "1":
            return "none it assigns no topic aliases"
        self.level = int(level)
        self.changed = threading.Condition()
        self.connack, self.granted, self.unsubscribed = None, None, False
        clean = clean == "1"
        if self.level == 5:
            self.client = mqtt.Client(id, protocol=mqtt.MQTTv5)
        else:
            self.client = mqtt.Client(id, clean_session=clean, protocol=mqtt.MQTTv311)
        self.client.on_connect = self.on_connect
        self.client.on_message = self.on_message
        self.client.on_disconnect = self.on_disconnect
        self.client.on_subscribe = self.on_subscribe
        self.client.on_unsubscribe = self.on_unsubscribe
        self.client.max_inflight_messages_set(100)
        if "username" in more:
            self.client.username_pw_set(more["username"], more.get("password"))
        if "will_topic" in more:
            self.set_will(more)
        options = {}
        if self.level == 5:
            properties = Properties(PacketTypes.CONNECT)
            if "expiry" in more:
                properties.SessionExpiryInterval = int(more["expiry"])
            if "receive_maximum" in more:
                properties.ReceiveMaximum = int(more["receive_maximum"])
            if "maximum_packet_size" in more:
                properties.MaximumPacketSize = int(more["maximum_packet_size"])
            options = {"clean_start": clean, "properties": properties}
        self.client.connect("127.0.0.1", int(port), int(keepalive), **options)
        self.client.loop_start()
        with self.changed:
            if not self.changed.wait_for(lambda: self.connack is not None, 3):
                return "error no CONNACK"
        code, present = self.connack
        return f"ok present={int(present)}" if code == 0 else f"error {code} {mqtt.connack_string(code)}"

    def set_will(self, more):
        properties = None
        if self.level == 5:
            properties = Properties(PacketTypes.WILLMESSAGE)
            if "will_delay" in more:
                properties.WillDelayInterval = int(more["will_delay"])
        self.client.will_set(more["will_topic"], bytes.fromhex(more["will_payload"]), int(more["will_qos"]),
                             more["will_retain"] == "1", properties)

    def subscribe(self, filters, qos, no_local="0", retain_as_published="0", retain_handling="0", identifier=None):
        properties = None
        if self.level == 5:
            options = SubscribeOptions(int(qos), no_local == "1", retain_as_published == "1", int(retain_handling))
            asked = [(one, options) for one in filters.split(",")]
            if identifier:
                properties = Properties(PacketTypes.SUBSCRIBE)
                properties.SubscriptionIdentifier = int(identifier)
        else:
            asked = [(one, int(qos)) for one in filters.split(",")]
        self.granted = None
        self.client.subscribe(asked, properties=properties)
        with self.changed:
            if not self.changed.wait_for(lambda: self.granted is not None, LIMIT_S):
                return "error no SUBACK"
        return "ok codes=" + ",".join(str(code) for code in self.granted)

    def unsubscribe(self, filters):
        self.unsubscribed = False
        self.client.unsubscribe(filters.split(","))
        with self.changed:
            return "ok" if self.changed.wait_for(lambda: self.unsubscribed, LIMIT_S) else "error no UNSUBACK"

    def publish(self, topic, qos, retain="0", payload="", **more):
        properties = None
        if self.level == 5:
            properties = Properties(PacketTypes.PUBLISH)
            if "expiry" in more:
                properties.MessageExpiryInterval = int(more["expiry"])
            if "response" in more:
                properties.ResponseTopic = more["response"]
            if "correlation" in more:
                properties.CorrelationData = more["correlation"].encode()
            if "type" in more:
                properties.ContentType = more["type"]
            if "user" in more:
                properties.UserProperty = tuple(more["user"].split(":"))
        sent = self.client.publish(topic, bytes.fromhex(payload), int(qos), retain == "1", properties)
        sent.wait_for_publish(LIMIT_S)
        return "ok" if sent.is_published() else "error not acknowledged"

    def burst(self, topic, qos, count):
        """Messages "0", "1", ...: all on the way at once."""
        sent = [self.client.publish(topic, str(number), int(qos)) for number in range(int(count))]
        for one in sent:
            one.wait_for_publish(LIMIT_S)
        return "ok" if all(one.is_published() for one in sent) else "error not all acknowledged"

    def disconnect(self):
        self.client.disconnect()
        self.client.loop_stop()
        return "ok"

    # ---- called by the client's own thread

    def on_connect(self, client, userdata, flags, code, properties=None):
        with self.changed:
            self.connack = (getattr(code, "value", code), flags["session present"])
            self.changed.notify()

    def on_subscribe(self, client, userdata, mid, codes, properties=None):
        with self.changed:
            self.granted = [getattr(code, "value", code) for code in codes]
            self.changed.notify()

    def on_unsubscribe(self, client, userdata, mid, properties=None, codes=None):
        with self.changed:
            self.unsubscribed = True
            self.changed.notify()

    def on_message(self, client, userdata, message):
        more = ""
        given = message.properties.json() if self.level == 5 else {}
        if "ResponseTopic" in given:
            more += " response=" + given["ResponseTopic"]
        if "CorrelationData" in given:
            more += " correlation=" + bytes.fromhex(given["CorrelationData"]).decode()
        if "ContentType" in given:
            more += " type=" + given["ContentType"]
        for number in given.get("SubscriptionIdentifier", []):
            more += f" identifier={number}"
        for name, value in given.get("UserProperty", []):
            more += f" user={name}:{value}"
        say(f"message topic={message.topic} qos={message.qos} retain={int(message.retain)} dup={int(message.dup)} "
            f"payload={message.payload.hex()}{more}")

    def on_disconnect(self, client, userdata, code, properties=None):
        if client is not self.client:
            return
        say(f"closed reason={getattr(code, 'value', code)}")
        client.disconnect()  # or it would connect anew


def main():
    agent = Agent()
    say("ready version=" + paho.mqtt.__version__)
    for line in sys.stdin:
        word, *fields = line.split()
        try:
            say(getattr(agent, word)(**dict(field.split("=", 1) for field in fields)))
        except Exception as error:  # whatever the client throws is an answer
            say(f"error {type(error).__name__}: {error}".replace("\n", " "))
    if agent.client:
        agent.client.loop_stop()


main()
