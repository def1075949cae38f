#!/usr/bin/env python3
"""tarn-broker --top, looked at in a terminal. Runs in a directory and network of its own; TARN_BROKER_PROGRAM is the
program."""
import os
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))
from terminal import Terminal

PROGRAM = os.environ["TARN_BROKER_PROGRAM"]
LIMIT_S = 60 if os.environ.get("TARN_SANITIZED") else 10
GIVEN_BACK = b"\x1b[?1049l"  # the escape sequence that shows the screen of before


def connect(client_id, subscribe_to=None):
    peer = socket.create_connection(("127.0.0.1", 1883))
    name = client_id.encode()
    body = b"\x00\x04MQTT\x04\x02\x00\x3c" + len(name).to_bytes(2, "big") + name
    peer.sendall(b"\x10" + bytes([len(body)]) + body)
    assert peer.recv(4) == b"\x20\x02\x00\x00"
    if subscribe_to:
        text = subscribe_to.encode()
        body = b"\x00\x01" + len(text).to_bytes(2, "big") + text + b"\x00"
        peer.sendall(b"\x82" + bytes([len(body)]) + body)
        assert peer.recv(5)[:2] == b"\x90\x03"
    return peer


def publish(peer, topic, payload):
    body = len(topic).to_bytes(2, "big") + topic.encode() + payload.encode()
    peer.sendall(b"\x30" + bytes([len(body)]) + body)


class Top(unittest.TestCase):
    def start(self, *options, **shape):
        terminal = Terminal([PROGRAM, "--top", *options], **shape)
        self.addCleanup(terminal.close)
        return terminal

    def started(self, *options, **shape):
        terminal = self.start(*options, **shape)
        self.assertTrue(terminal.wait_for_text("q ends the broker", LIMIT_S), terminal.lines())
        return terminal

    def assert_ends_well(self, terminal):
        self.assertEqual(terminal.wait(LIMIT_S), 0, terminal.lines())
        self.assertTrue(terminal.is_as_before(), "the terminal's modes")
        self.assertEqual(terminal.raw.count(GIVEN_BACK), 1)
        self.assertIn(b"tarn-broker: ending", terminal.raw.split(GIVEN_BACK)[1])

    def test_shows_the_running_broker_at_80_by_24(self):
        terminal = self.started()
        self.addCleanup(connect("subscriber", "#").close)
        peer = connect("温度")
        self.addCleanup(peer.close)
        for _ in range(100):
            publish(peer, "home/x", "hello")
        self.assertTrue(terminal.wait_for(lambda: terminal.lines()[2].split()[-5] == "100", LIMIT_S), terminal.lines())
        lines = terminal.lines()
        self.assertRegex(lines[0], r"^ tarn-broker V2\.0\.0   up 00:00:\d\d   clients 2 of 5000, at most 2 so far$")
        self.assertRegex(lines[3], r"^packets in .* 103 +queue full +0 +0$")
        self.assertRegex(lines[5], r"^bytes in  .* [1-9]\d+ +invalid")
        self.assertRegex(lines[7], r"^pool 2/5000 .* subscriptions 1/10000$")
        self.assertRegex("".join(lines[10:13]), "[▁▂▃▄▅▆▇█]")
        self.assertRegex(lines[14], r"^subscriber +127\.0\.0\.1:\d+ +60 s +00:00:\d\d$")
        self.assertRegex("".join(lines[15].split()), r"^温度127\.0\.0\.1:\d+60s00:00:\d\d$")
        self.assertEqual(lines[18], "log")
        self.assertEqual(lines[23], "q ends the broker")
        terminal.type("q")
        self.assert_ends_well(terminal)

    def test_ends_on_signals_and_keys(self):
        for end in (lambda t: t.signal(signal.SIGTERM), lambda t: t.signal(signal.SIGINT), lambda t: t.type("\x03")):
            terminal = self.started()
            end(terminal)
            self.assert_ends_well(terminal)

    def test_survives_resizing(self):
        terminal = self.started()
        for columns, rows in (120, 40), (40, 10), (1, 1), (3, 2), (200, 5), (80, 24):
            terminal.resize(columns, rows)
            bottom = lambda: terminal.lines()[-1].startswith("q ends the broker"[:columns])
            if rows >= 10:
                self.assertTrue(terminal.wait_for(bottom, LIMIT_S), (columns, rows, terminal.lines()))
            else:
                terminal.read(0.2)
                self.assertFalse(terminal.ended())
        terminal.type("q")
        self.assert_ends_well(terminal)

    def test_shows_the_log_and_what_is_printed(self):
        terminal = self.started("--log-level", "info", rows=40)
        self.addCleanup(connect("somebody").close)
        self.assertTrue(terminal.wait_for_text("[INFO]", LIMIT_S), terminal.lines())
        terminal.signal(signal.SIGUSR1)
        self.assertTrue(terminal.wait_for_text('{"online":1,', LIMIT_S), terminal.lines())
        self.assertTrue(terminal.lines()[0].startswith(" tarn-broker"), "nothing is written across the picture")
        terminal.type("q")
        self.assert_ends_well(terminal)

    def test_shows_warnings_unless_asked_otherwise(self):
        terminal = self.started(rows=40)
        self.addCleanup(connect("").close)
        self.assertTrue(terminal.wait_for_text("empty ClientID", LIMIT_S), terminal.lines())

    def test_sighup_ends_nothing(self):
        terminal = self.started(rows=40)
        terminal.signal(signal.SIGHUP)
        self.assertTrue(terminal.wait_for_text("there is nothing to read again", LIMIT_S), terminal.lines())
        terminal.type("q")
        self.assert_ends_well(terminal)

    def test_clients_cannot_draw(self):
        terminal = self.started()
        self.addCleanup(connect("\x1b[2J\x1b[Hgone").close)
        self.assertTrue(terminal.wait_for_text("?[2J?[Hgone", LIMIT_S), terminal.lines())
        self.assertTrue(terminal.lines()[0].startswith(" tarn-broker"))

    def test_scrolls_through_the_clients(self):
        terminal = self.started()
        for i in range(12):
            self.addCleanup(connect(f"client{i:02}").close)
        first = lambda: terminal.lines()[14][:8]
        self.assertTrue(terminal.wait_for(lambda: first() == "client00", LIMIT_S))
        for keys, expected in ("j", "client01"), ("\x1b[B\x1b[B", None), (" ", None), ("k", None):
            terminal.type(keys)
            if expected:
                self.assertTrue(terminal.wait_for(lambda: first() == expected, LIMIT_S), terminal.lines())
        terminal.type(" " * 20)
        self.assertTrue(terminal.wait_for(lambda: first() == "client08", LIMIT_S), "the last page stays full")
        self.assertIn("(from 9)", terminal.lines()[23])
        terminal.type("\x1b[5~")
        self.assertTrue(terminal.wait_for(lambda: first() == "client04", LIMIT_S), terminal.lines())

    def test_gives_the_terminal_back_before_a_second_signal(self):
        for _ in range(20):  # whether the second one comes in time is the machine's choice
            terminal = self.started()
            terminal.signal(signal.SIGTERM)
            terminal.wait_for(lambda: GIVEN_BACK in terminal.raw, LIMIT_S)
            if not terminal.ended():
                terminal.signal(signal.SIGINT)
            status = terminal.wait(LIMIT_S)
            self.assertTrue(terminal.is_as_before())
            if status == -signal.SIGINT:
                return
            self.assertEqual(status, 0)
        self.fail("no second signal came in time")

    def test_gives_the_terminal_back_when_it_dies(self):
        for number in signal.SIGABRT, signal.SIGSEGV, signal.SIGQUIT:
            terminal = self.started()
            terminal.signal(number)
            self.assertNotEqual(terminal.wait(LIMIT_S), 0)
            self.assertIn(GIVEN_BACK, terminal.raw)
            self.assertTrue(terminal.is_as_before(), number)

    def test_stops_and_goes_on(self):
        terminal = self.started()
        terminal.signal(signal.SIGTSTP)
        self.assertTrue(terminal.wait_for(terminal.is_as_before, LIMIT_S))
        state = lambda: Path(f"/proc/{terminal.pid}/stat").read_text().rsplit(")", 1)[1].split()[0]
        self.assertTrue(terminal.wait_for(lambda: state() == "T", LIMIT_S))
        terminal.screen.reset()
        terminal.signal(signal.SIGCONT)
        self.assertTrue(terminal.wait_for_text("q ends the broker", LIMIT_S))
        terminal.type("q")
        self.assertEqual(terminal.wait(LIMIT_S), 0)
        self.assertTrue(terminal.is_as_before())

    def test_ends_with_its_terminal(self):
        self.end_with_terminal()

    def test_ends_with_its_terminal_also_when_sighup_is_for_files(self):
        Path("rules").write_text("read #\n")
        self.end_with_terminal("--acl-file", "rules")

    def end_with_terminal(self, *options):
        terminal = self.started(*options)
        pid = terminal.pid
        os.close(terminal.slave)
        os.close(terminal.master)
        terminal.master, terminal.slave = os.openpty()  # for close() to close
        end = time.monotonic() + LIMIT_S
        done, status = 0, 0
        while not done and time.monotonic() < end:
            done, status = os.waitpid(pid, os.WNOHANG)
            time.sleep(0.01)
        terminal.status = os.waitstatus_to_exitcode(status)
        self.assertTrue(done)
        self.assertEqual(terminal.status, 0)

    def test_a_terminal_that_takes_nothing_holds_up_nobody(self):
        terminal = self.started("--control", "ctl", columns=200, rows=60)
        for _ in range(40):  # each asks for a whole new picture, and nobody reads them
            terminal.resize(199, 60)
            terminal.resize(200, 60)
            terminal.type("x")
            time.sleep(0.02)
            answer = subprocess.run([PROGRAM, "ctl", "ctl", "stats"], timeout=LIMIT_S, capture_output=True)
            self.assertEqual(answer.returncode, 0)
        terminal.signal(signal.SIGTERM)
        end = time.monotonic() + LIMIT_S
        while not terminal.ended() and time.monotonic() < end:
            time.sleep(0.01)
        self.assertEqual(terminal.status, 0)

    def test_ends_under_load_with_everything_attached(self):
        terminal = self.started("--control", "ctl", "--events", "events")
        self.addCleanup(connect("subscriber", "#").close)
        peer = connect("publisher")
        self.addCleanup(peer.close)

        def load():
            try:
                while True:
                    publish(peer, "load", "x")
            except OSError:
                pass

        thread = threading.Thread(target=load)
        thread.start()
        console = subprocess.Popen(f"yes clients | {PROGRAM} ctl ctl", shell=True, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        busy = lambda: terminal.lines()[2].split()[2] not in ("0", "a")
        self.assertTrue(terminal.wait_for(busy, LIMIT_S), terminal.lines())
        terminal.type("q")
        self.assert_ends_well(terminal)
        self.assertEqual(console.wait(LIMIT_S), 1)
        thread.join(LIMIT_S)
        self.assertFalse(os.path.exists("ctl"))

    def test_works_where_only_ascii_is_known(self):
        terminal = self.started(LC_ALL="C", term="vt100")
        peer = connect("温")
        self.addCleanup(peer.close)
        shown = lambda: terminal.lines()[14].split()[0:1] == ["?"]
        self.assertTrue(terminal.wait_for(shown, LIMIT_S), terminal.lines())
        self.assertTrue(all(ord(c) < 128 for line in terminal.lines() for c in line))
        terminal.type("q")
        self.assertEqual(terminal.wait(LIMIT_S), 0)

    def test_refuses_what_is_no_terminal(self):
        result = subprocess.run([PROGRAM, "--top"], capture_output=True, text=True, timeout=LIMIT_S)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr, "tarn-broker: --top needs a terminal, and standard output is none\n")
        self.assertEqual(result.stdout, "")

    def test_refuses_an_unknown_terminal(self):
        terminal = self.start(term="no-such-terminal")
        self.assertEqual(terminal.wait(LIMIT_S), 1)
        self.assertIn(b"tarn-broker: --top cannot draw on a terminal of the type 'no-such-terminal' (TERM)", terminal.raw)
        self.assertTrue(terminal.is_as_before())

    def test_refuses_events_on_the_same_output(self):
        terminal = self.start("--events", "-")
        self.assertEqual(terminal.wait(LIMIT_S), 1)
        self.assertIn(b"--top and --events - both want standard output; give --events a file", terminal.raw)

    def test_a_start_that_fails_leaves_the_terminal_alone(self):
        with socket.socket() as taken:
            taken.bind(("0.0.0.0", 1883))
            taken.listen()
            terminal = self.start()
            self.assertEqual(terminal.wait(LIMIT_S), 1)
        self.assertIn(b"tarn-broker: cannot listen on port 1883: Address already in use", terminal.raw)
        self.assertNotIn(b"\x1b", terminal.raw)


if __name__ == "__main__":
    unittest.main(verbosity=2)
