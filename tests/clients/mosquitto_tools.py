"""mosquitto_pub and mosquitto_sub as a test's client, with the methods of agent.Agent.

A subscriber is one mosquitto_sub, which connects and subscribes at once. What is published goes through mosquitto_pub,
which has an id of its own and connects each time.
"""
import itertools
import queue
import re
import signal
import subprocess
import threading

from agent import Failed, Inbox, Message, NotHere, pause

numbers = itertools.count(1)
# The filters of each id: a program that comes back to its session has to name them again.
known_filters = {}


def version_in(command):
    """What its help calls its version."""
    found = re.search(r"version (\S+)", subprocess.run(command, capture_output=True, text=True).stdout)
    return found[1] if found else "?"


class MosquittoTools(Inbox):
    shortest_keepalive = 5
    knows_present = False

    def __init__(self, level, port):
        super().__init__()
        self.level, self.port = level, port
        self.options = ["-h", "127.0.0.1", "-p", str(port), "-V", "mqttv5" if level == 5 else "mqttv311"]
        self.process = None
        self.id, self.own, self.key = None, [], None
        self.connected = False

    def connect(self, id, keep=False, keepalive=30, expiry=300, will=None, username=None, password=None,
                aliases=False, **properties):
        self.empty()
        self.id = id
        self.own = ["-k", str(max(keepalive, self.shortest_keepalive))]
        self.own += ["-i", id] if id else []
        self.own += ["-u", username, "-P", password] if username else []
        if keep:
            self.own += ["-c"] + (["-x", str(expiry)] if self.level == 5 else [])
        if will:
            if will.delay:
                raise NotHere("mosquitto_sub has no will delay")
            self.own += ["--will-topic", will.topic, "--will-payload", will.payload.decode("latin1"), "--will-qos",
                         str(will.qos)] + ["--will-retain"] * will.retain
        if aliases:
            raise NotHere("mosquitto_sub has no topic aliases")
        for name, value in properties.items():
            self.own += ["-D", "connect", name.replace("_", "-"), str(value)]
        self.connected = True
        self.key = (self.port, id)
        if keep and self.key in known_filters:
            self.run(*known_filters[self.key])
        elif will or keep or username or not id or len(id) > 30:
            self.run(("unused/" + (id or "none"),), 0)

    def subscribe(self, *filters, qos=1, retain_as_published=False, identifier=0, **options):
        if options:
            raise NotHere("mosquitto_sub has no " + " ".join(options))
        self.own += ["--retain-as-published"] * retain_as_published
        self.own += ["-D", "subscribe", "subscription-identifier", str(identifier)] if identifier else []
        if self.process:
            self.end(signal.SIGTERM)
        known_filters[self.key] = (filters, qos)
        self.run(filters, qos)

    def run(self, filters, qos):
        command = ["stdbuf", "-oL", "mosquitto_sub", "-d", "-F", "message %t %q %r %x", "-q", str(qos)]
        for one in filters:
            command += ["-t", one]
        subscribed = queue.Queue()
        self.process = subprocess.Popen(command + self.options + self.own, stdout=subprocess.PIPE, text=True,
                                        stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        threading.Thread(target=self.read, args=(self.process, subscribed), daemon=True).start()
        try:
            codes = subscribed.get(timeout=4)
        except queue.Empty:
            self.end(signal.SIGKILL)
            raise Failed("connect and subscribe: nothing within 4 s") from None
        if codes != [qos] * len(filters):
            raise Failed(f"mosquitto_sub says {codes}")

    def read(self, process, subscribed):
        connects = 0
        last = "nothing"
        for line in process.stdout:
            words = line.split()
            if line.startswith("message "):
                payload = bytes.fromhex(words[4]) if len(words) > 4 else b""
                self.messages.put(Message(words[1], payload, int(words[2]), words[3] == "1"))
            elif line.startswith("Subscribed"):
                subscribed.put([int(code) for code in line.split(":")[2].split(",")])
            elif "sending CONNECT" in line:
                connects += 1
                if connects > 1:
                    self.closed.set()  # it connects anew
            elif "received DISCONNECT" in line or "Connection error" in line:
                self.close_reason = "".join(re.findall(r"\((\d+)\)", line))
                self.closed.set()
            elif words:
                last = line.strip()
        if process is self.process:
            self.closed.set()
        subscribed.put("it ended: " + last)

    def unsubscribe(self, *filters):
        raise NotHere("mosquitto_sub cannot")

    def publish(self, topic, payload, qos=1, retain=False, within=4.0, **properties):
        command = ["mosquitto_pub", "-t", topic, "-q", str(qos), "-i", f"pub{next(numbers)}"] + ["-r"] * retain
        command += ["-s"] if payload else ["-n"]
        names = {"expiry": "message-expiry-interval", "response": "response-topic", "correlation": "correlation-data",
                 "type": "content-type", "user": "user-property"}
        for name, value in properties.items():
            command += ["-D", "publish", names[name]] + str(value).split(":")
        self.run_to_its_end(command + self.options, payload, within)

    def burst(self, topic, count, qos=1):
        lines = "".join(f"{number}\n" for number in range(count)).encode()
        self.run_to_its_end(["mosquitto_pub", "-t", topic, "-q", str(qos), "-l", "-i", f"pub{next(numbers)}"] +
                            self.options, lines, 8.0)

    @staticmethod
    def run_to_its_end(command, standard_input, within):
        try:
            done = subprocess.run(command, input=standard_input, capture_output=True, timeout=within)
        except subprocess.TimeoutExpired:
            raise Failed(f"{command[0]} does not end within {within:g} s") from None
        if done.returncode:
            text = (done.stderr or done.stdout).decode(errors="replace").strip().replace("\n", " ")
            raise Failed(f"{command[0]} ends with {done.returncode}: {text}")
        return done.stdout.decode()

    def disconnect(self):
        if self.process:
            self.end(signal.SIGTERM)
        self.connected = False

    def wait_until_closed(self, within=3.0):
        if not self.closed.wait(within):
            raise Failed(f"it was not closed within {within:g} s")

    def pause(self):
        pause(self.process)

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)

    def drop(self):
        self.end(signal.SIGKILL)

    kill = drop

    def end(self, how):
        if not self.process:
            return None
        self.process.send_signal(how)
        try:
            return self.process.wait(3)
        except subprocess.TimeoutExpired:
            self.process.kill()
            raise Failed("mosquitto_sub does not end") from None

    def leave(self):
        return self.end(signal.SIGTERM) or 0
