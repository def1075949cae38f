#!/usr/bin/env python3
"""Does what "Embedding it" in README.md says, word for word: readme_test.py README COPY LIBDIR c|cpp

Each file the text shows is written as it stands, each sh block is run as it stands, and while the host runs, the
mosquitto commands from the top of the text have to reach each other through it. Changed is one thing: /usr/local is
read as COPY, which is made as well known as /usr/local is. A stand-in for ./dev sees that it is told to install there,
where the fixture of this test has installed already.
"""
import os
import pty
import re
import select
import shutil
import socket
import subprocess
import sys
import time
from pathlib import Path

LIMIT_S = 60
README, COPY, LIBDIR, LANGUAGE = Path(sys.argv[1]), sys.argv[2], sys.argv[3], sys.argv[4]


def blocks(text):
    """The text before each fenced block, its language and its content."""
    return [(m[1], m[2], m[3]) for m in re.finditer(r"(.*?)```(\w+)\n(.*?)```\n", text, re.S)]


def parts(readme):
    """Shell blocks to run before the host, the block that runs it, files by name, and the two mosquitto commands."""
    top, embedding = readme.split("\n## Embedding it\n")
    mosquitto = [body for _, language, body in blocks(top) if language == "sh" and "mosquitto" in body]
    assert len(mosquitto) == 1, mosquitto
    install, in_c = embedding.split("\n## ")[0].split("\nIn C, ")
    in_c, in_cpp = in_c.split("\nIn C++, ")
    section = in_c if LANGUAGE == "c" else in_cpp
    files, shell = {}, []
    for before, language, body in blocks(section):
        if language == "sh":
            shell.append(body)
        else:
            files[re.findall(r"`([\w.]+)`", before)[-1]] = body
    assert len(files) == (1 if LANGUAGE == "c" else 2) and len(shell) == 1, (files, shell)
    return [body for _, _, body in blocks(install)], shell[0], files, mosquitto[0].splitlines()


def environment():
    lib = f"{COPY}/{LIBDIR}"
    return dict(os.environ, CMAKE_PREFIX_PATH=COPY, PKG_CONFIG_PATH=f"{lib}/pkgconfig", LD_LIBRARY_PATH=lib)


def in_sh(script, **more):
    return subprocess.Popen(["sh", "-eu", "-c", script.replace("/usr/local", COPY)], env=environment(), **more)


def wait_until(condition, what):
    end = time.monotonic() + LIMIT_S
    while not condition():
        assert time.monotonic() < end, f"waited in vain: {what}"
        time.sleep(0.01)


def is_served():
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", 1883)) == 0


def localhost(command):
    """As it stands where "localhost" has an address, which it lacks on the barest machines."""
    try:
        socket.getaddrinfo("localhost", 1883)
        return command
    except OSError:
        return command + " -h 127.0.0.1"


def expect_a_message(subscribe, publish):
    """What the second command says appears in the terminal of the first."""
    sent = re.fullmatch(r"mosquitto_pub -i \S+ -t (\S+) -m (\S+) .*", publish)
    terminal, inside = pty.openpty()
    os.set_blocking(terminal, False)
    subscriber = in_sh("exec " + localhost(subscribe), stdout=inside)
    shown = []
    try:
        def arrived():  # not by the first attempt, perhaps: nobody tells when the other one has subscribed
            assert in_sh(localhost(publish)).wait(LIMIT_S) == 0
            if select.select([terminal], [], [], 0.1)[0]:
                shown.append(os.read(terminal, 1000).decode())
            return f"{sent[1]} {sent[2]}\r\n" in "".join(shown)
        wait_until(arrived, shown)
    finally:
        subscriber.terminate()
        subscriber.wait()


def main():
    for tool in ("cc", "pkg-config", "cmake", "ninja", "mosquitto_sub", "mosquitto_pub"):
        if not shutil.which(tool):
            print("readme: needs", tool)
            return
    before, run, files, mosquitto = parts(README.read_text(encoding="utf-8"))
    Path("dev").write_text(f'#!/bin/sh\n[ "$*" = "install {COPY}" ]\n')
    Path("dev").chmod(0o755)
    for name, text in files.items():
        Path(name).write_text(text, encoding="utf-8")
    for block in before:
        assert in_sh(block).wait(LIMIT_S) == 0, block

    host = in_sh(run, stdin=subprocess.PIPE, stdout=open("host.log", "wb"))
    try:
        wait_until(lambda: is_served() or host.poll() is not None, "host")
        assert host.poll() is None, Path("host.log").read_text()
        expect_a_message(*mosquitto)
        host.communicate(b"\n", LIMIT_S)
        assert host.returncode == 0, host.returncode
        assert "Serving, press Enter to end\n" in Path("host.log").read_text()
    finally:
        host.kill()


main()
