#!/usr/bin/env python3
"""One column of the table: a broker and the checks of one kind of client at one level. For driver.py, which starts it
in a network of its own. Each check is a line of JSON: {"check": NAME, "result": "ok|failed|none", "text": WHY}.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import tempfile
import time

import bridge
import checks
from agent import Agent, Failed, NotHere
from broker import PORT, Broker
from mosquitto_tools import MosquittoTools, known_filters, version_in

KEEPALIVE_S = 2


class Bench:
    """Where the checks of a column get their clients."""

    shortest_keepalive = KEEPALIVE_S
    shows_properties = True
    reconnect_s = 0  # after which a client that was closed is back by itself

    def __init__(self, column, level, broker, port):
        self.column, self.level, self.broker, self.port = column, level, broker, port
        self.check = ""
        self.used = []

    def begin(self, name):
        self.check = name

    def run(self, one):
        one.run(self)

    def id(self, name):
        return f"{self.check.replace('_', '')}-{name}"

    def topic(self, rest):
        return f"{self.check}/{rest}"

    def client(self, other_level=False):
        client = self.make(9 - self.level if other_level else self.level)
        self.used.append(client)
        return client

    def connected(self, name, other_level=False):
        client = self.client(other_level)
        client.connect(self.id(name))
        return client

    def request_and_response(self):
        asker, other = self.connected("a"), self.connected("b")
        asker.subscribe(self.topic("answers"))
        other.subscribe(self.topic("questions"))
        more = {"response": self.topic("answers"), "correlation": "7"} if self.level == 5 else {}
        asker.publish(self.topic("questions"), b"how", **more)
        question = other.take()
        to = question.more["response"] if self.level == 5 and "response" in question.more else self.topic("answers")
        other.publish(to, b"so")
        asker.take_exactly([b"so"])
        if self.level == 5 and question.more.get("response") != self.topic("answers"):
            raise Failed("the question has no Response Topic")

    def own_messages(self):
        client = self.connected("s")
        client.subscribe(self.topic("t"))
        client.publish(self.topic("t"), b"own")
        client.take_exactly([b"own"])


class AgentBench(Bench):
    """Clients that obey lines. One that disconnected in order is used again."""

    def __init__(self, command, *others):
        super().__init__(*others)
        self.command = command
        self.idle = [Agent(command, self.level, self.port) for _ in range(2)]

    def make(self, level):
        while self.idle:
            client = self.idle.pop(0)
            if client.process.poll() is None:
                break
        else:
            client = Agent(self.command, level, self.port)
        client.level = level
        client.wait_until_ready()
        return client

    def version(self):
        self.idle[0].wait_until_ready()
        return self.idle[0].version

    def end(self):
        for client in self.used:
            if client.process.poll() is not None:
                continue
            try:
                if client.connected and not client.closed.is_set():
                    client.disconnect()
                    self.idle.append(client)
                elif client.closed.is_set() or client.answers.qsize():
                    client.kill()
                else:
                    self.idle.append(client)
            except Failed:
                client.kill()
        self.used = []
        while len(self.idle) < 2:
            self.idle.append(Agent(self.command, self.level, self.port))

    def close(self):
        for client in self.idle:
            client.kill()


class ToolsBench(Bench):
    """mosquitto_pub, mosquitto_sub and mosquitto_rr."""

    shortest_keepalive = MosquittoTools.shortest_keepalive
    shows_properties = False
    reconnect_s = 2

    def make(self, level):
        return MosquittoTools(level, self.port)

    def version(self):
        return version_in(["mosquitto_sub", "--help"])

    def end(self):
        for client in self.used:
            if client.process and client.process.poll() is None:
                client.kill()
        self.used = []
        known_filters.clear()

    def ask(self, question, answer, payload):
        """mosquitto_rr: what it prints."""
        level = "mqttv5" if self.level == 5 else "mqttv311"
        return MosquittoTools.run_to_its_end(
            ["mosquitto_rr", "-h", "127.0.0.1", "-p", str(self.port), "-V", level, "-i", self.id("rr"), "-q", "1",
             "-t", question, "-e", answer, "-m", payload, "-W", "4"], b"", 6.0).strip()

    def request_and_response(self):
        """Who answers is a mosquitto_sub whose lines mosquitto_pub sends on."""
        answerer = subprocess.Popen(
            ["sh", "-c", 'mosquitto_sub -p "$0" -V mqttv311 -t "$1" -C 1 -q 1 -i "$3" >/dev/null && '
             'mosquitto_pub -p "$0" -V mqttv311 -t "$2" -m so -q 1', str(self.port), self.topic("questions"),
             self.topic("answers"), self.id("sub")])
        try:
            time.sleep(0.4)
            got = self.ask(self.topic("questions"), self.topic("answers"), "how")
        finally:
            answerer.kill()
        if got != "so":
            raise Failed(f"mosquitto_rr prints '{got}'")

    def own_messages(self):
        """mosquitto_rr subscribes to the answer; here that is its own question."""
        got = self.ask(self.topic("t"), self.topic("t"), "own")
        if got != "own":
            raise Failed(f"mosquitto_rr prints '{got}'")

    def close(self):
        pass


def run_check(bench, one):
    bench.begin(one.name)
    try:
        bench.run(one)
        return "ok", ""
    except Failed as failure:
        return "failed", str(failure)
    except NotHere as reason:
        return "none", str(reason)
    except RuntimeError as failure:
        return "failed", str(failure)
    finally:
        try:
            bench.end()
        except (OSError, Failed):
            pass


def wanted(arguments, level):
    for one in checks.CHECKS:
        if one.level not in (0, level) or arguments.quick and one.slow:
            continue
        if re.fullmatch(arguments.only, one.name) and one.name not in arguments.skip:
            yield one


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--broker", required=True)
    parser.add_argument("--broker-option", action="append", default=[])
    parser.add_argument("--name", required=True)
    parser.add_argument("--kind", required=True, choices=["agent", "tools", "bridge"])
    parser.add_argument("--level", type=int, required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", default=".*")
    parser.add_argument("--skip", action="append", default=[])
    parser.add_argument("--trace", action="store_true")
    parser.add_argument("command", nargs="*")
    arguments = parser.parse_args()

    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with tempfile.TemporaryDirectory(prefix="tarn-clients-") as directory:
        broker = Broker(arguments.broker, arguments.broker_option, directory)
        port = PORT
        if arguments.trace:
            import trace_packets
            port = trace_packets.start(PORT)
        common = (arguments.name, arguments.level, broker, port)
        if arguments.kind == "agent":
            bench = AgentBench(arguments.command, *common)
        elif arguments.kind == "tools":
            bench = ToolsBench(*common)
        else:
            bench = bridge.BridgeBench(arguments.command, directory, *common)
        print(json.dumps({"version": bench.version()}), flush=True)
        connects = True
        for one in wanted(arguments, arguments.level):
            if arguments.trace:
                print(f"---- {one.name}", file=sys.stderr, flush=True)
            began = time.monotonic()
            result, text = run_check(bench, one) if connects else ("failed", "it does not connect")
            if one.name == "connect":
                connects = result == "ok"
            print(json.dumps({"check": one.name, "result": result, "text": text,
                              "seconds": round(time.monotonic() - began, 2)}), flush=True)
            if not broker.is_running():
                text = f"the broker ended with {broker.process.returncode}"
                print(json.dumps({"check": "broker", "result": "failed", "text": text}), flush=True)
                broker.start()
        bench.close()
        status = broker.stop()
        if status:
            print(json.dumps({"check": "broker", "result": "failed", "text": f"the broker ends with {status}"}))
        sys.stderr.write((broker.directory / "broker.log").read_text(errors="replace")[-4000:])


if __name__ == "__main__":
    os.environ.setdefault("PATH", "")
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    main()
