"""A proxy before the broker that prints the packets that pass, for whoever looks into a failed check.

Standard error gets a line a packet: seconds, connection, direction, type, length and the first bytes.
"""
import itertools
import socket
import sys
import threading
import time

TRACE_PORT = 1885
SHOWN = 48  # bytes
TYPES = ["0", "CONNECT", "CONNACK", "PUBLISH", "PUBACK", "PUBREC", "PUBREL", "PUBCOMP", "SUBSCRIBE", "SUBACK",
         "UNSUBSCRIBE", "UNSUBACK", "PINGREQ", "PINGRESP", "DISCONNECT", "AUTH"]
began = time.monotonic()


def say(text):
    sys.stderr.write(f"{time.monotonic() - began:8.3f} {text}\n")
    sys.stderr.flush()


def packet_length(buffer):
    """0 when it is not known yet."""
    length = 0
    for at in range(1, min(5, len(buffer))):
        length += (buffer[at] & 127) << 7 * (at - 1)
        if not buffer[at] & 128:
            return at + 1 + length
    return 0


def pass_on(source, target, name):
    buffer = b""
    try:
        while data := source.recv(65536):
            target.sendall(data)
            buffer += data
            while (length := packet_length(buffer)) and length <= len(buffer):
                say(f"{name} {TYPES[buffer[0] >> 4]} {length} {buffer[:min(length, SHOWN)].hex(' ')}")
                buffer = buffer[length:]
        say(f"{name} end")
        target.shutdown(socket.SHUT_WR)
    except OSError as error:
        say(f"{name} {error}")
        for one in source, target:
            one.close()


def serve(listener, port):
    for number in itertools.count(1):
        client, _ = listener.accept()
        try:
            broker = socket.create_connection(("127.0.0.1", port))
        except OSError:
            client.close()
            continue
        for source, target, arrow in (client, broker, ">"), (broker, client, "<"):
            threading.Thread(target=pass_on, args=(source, target, f"{number} {arrow}"), daemon=True).start()


def start(port):
    """The port at which it listens."""
    listener = socket.create_server(("127.0.0.1", TRACE_PORT))
    threading.Thread(target=serve, args=(listener, port), daemon=True).start()
    return TRACE_PORT
