#!/usr/bin/env python3
"""Draws docs/top.svg: tarn-broker --top as it looks under load, from a real run in a terminal emulator.

    tools/top_picture.py PROGRAM [SECONDS]       needs python3-pyte, and port 1883
"""
import random
import socket
import sys
import tempfile
import threading
import time
from html import escape
from os import chdir
from pathlib import Path

from terminal import Terminal

ROOT = Path(__file__).resolve().parent.parent
COLUMNS, ROWS = 100, 32
CELL_X, CELL_Y, MARGIN = 8.4, 18, 12  # pixels, at 14 pixels a character
COLOURS = {"default": "#d8d8d8", "cyan": "#4fc3d7", "red": "#f2777a"}
BACK = "#1c1f24"


def packet(first, body):
    length, size = b"", len(body)
    while True:
        size, digit = divmod(size, 128)
        length += bytes([digit | 0x80 if size else digit])
        if not size:
            return bytes([first]) + length + body


def text(value):
    return len(value).to_bytes(2, "big") + value.encode()


def client(name, topic=None):
    peer = socket.create_connection(("127.0.0.1", 1883))
    peer.sendall(packet(0x10, text("MQTT") + b"\x04\x02\x00\x3c" + text(name)))
    if topic:
        peer.sendall(packet(0x82, b"\x00\x01" + text(topic) + b"\x00"))
    threading.Thread(target=drain, args=(peer,), daemon=True).start()
    return peer


def drain(peer):
    while peer.recv(65536):
        pass


def load(seconds):
    """Sensors that report at random, one of them retained, and a few that listen."""
    for name in "dashboard", "archive", "alarm":
        client(name, "house/#")
    sensors = [client(f"sensor-{place}") for place in ("attic", "cellar", "garage", "garden", "hall", "kitchen")]
    for number, sensor in enumerate(sensors):
        sensor.sendall(packet(0x31, text(f"house/{number}/name") + b"sensor"))
    end = time.monotonic() + seconds
    while (left := end - time.monotonic()) > 0:
        for _ in range(int(random.uniform(5, 60) * (1.2 - left / seconds))):
            number = random.randrange(len(sensors) - 1)  # one is silent
            sensors[number].sendall(packet(0x30, text(f"house/{number}/temperature") + b"21.5"))
        time.sleep(0.05)
    return sensors


def svg(screen):
    width, height = COLUMNS * CELL_X + 2 * MARGIN, ROWS * CELL_Y + 2 * MARGIN
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{height:.0f}"'
             ' font-family="DejaVu Sans Mono, monospace" font-size="14">',
             f'<rect width="100%" height="100%" rx="6" fill="{BACK}"/>']
    for y in range(ROWS):
        x = 0
        while x < COLUMNS:
            first = screen.buffer[y][x]
            style = (first.fg, first.bold, first.reverse)
            end = x
            run = ""
            while end < COLUMNS and (cell := screen.buffer[y][end], (cell.fg, cell.bold, cell.reverse) == style)[1]:
                run += cell.data
                end += 1
            lines += draw(run, x, y, end - x, *style)
            x = end
    return "\n".join(lines + ["</svg>", ""])


def draw(run, x, y, cells, colour, bold, reverse):
    if not run.strip() and not reverse:
        return []
    left, top, width = MARGIN + x * CELL_X, MARGIN + y * CELL_Y, cells * CELL_X
    ink, shapes = COLOURS.get(colour, COLOURS["default"]), []
    if reverse:
        shapes.append(f'<rect x="{left:.1f}" y="{top}" width="{width:.1f}" height="{CELL_Y}" fill="{ink}"/>')
        ink = BACK
    weight = ' font-weight="bold"' if bold else ""
    shapes.append(f'<text x="{left:.1f}" y="{top + 14}" fill="{ink}"{weight} textLength="{width:.1f}"'
                  f' lengthAdjust="spacingAndGlyphs" xml:space="preserve">{escape(run)}</text>')
    return shapes


def main():
    program = str(Path(sys.argv[1]).resolve())
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 50
    with tempfile.TemporaryDirectory() as directory:
        chdir(directory)
        terminal = Terminal([program, "--top", "--log-level", "info"], COLUMNS, ROWS)
        terminal.wait_for_text("q ends the broker")
        loading = threading.Thread(target=load, args=(seconds,), daemon=True)
        loading.start()
        terminal.wait_for(lambda: not loading.is_alive(), seconds + 10)
        terminal.read(0.3)
        picture = svg(terminal.screen)
        terminal.type("q")
        terminal.wait()
        chdir("/")
    (ROOT / "docs/top.svg").write_text(picture, encoding="utf-8")


if __name__ == "__main__":
    main()
