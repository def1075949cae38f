#!/usr/bin/env python3
"""Every call that can fail fails once: memory, sockets, threads, files.

    faults.py --shim FILE (--host PROGRAM | --broker PROGRAM) [--standard] [--kind KIND]... [--every K] [--times N]

The same life of some clients, twice over, is lived with a program in which the n-th call of a kind fails (fail_nth.c),
for n = 1, 1 + K, ... to the last. Clients may miss anything. The program must not crash, nor hang, and in the end a
host has as much memory and as many descriptors as one in which nothing failed. Runs in a directory and a network of its
own (tests/support/isolated).
"""
import argparse
import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import sys
import time

from clients import Client, live

KINDS = ["memory", "map", "socket", "accept", "epoll", "thread", "open", "write", "sync", "rename"]
LIMIT_S = 20  # for anything the program must do


def call_chains(text):
    """What fail_nth.c printed, with functions and lines where addr2line knows them."""
    shown = []
    for line in text.splitlines():
        frame = re.fullmatch(r"(/\S+)\(\S*?\+(0x\w+)\)\[0x\w+\]", line)
        if not frame:
            shown += [line] if re.match(r"fail_nth:|terminate|  what", line) else []
        elif not re.search(r"/fail_nth\w*\.so|/libc\.so", frame[1]):
            shown.append("  " + place_of(line, frame[1], frame[2])[:160])
    return shown


def place_of(line, binary, offset):
    """Frames outside of any exported function have an offset into the file, which addr2line takes."""
    if not shutil.which("addr2line") or "(+" not in line:
        return line
    command = ["addr2line", "-Cfpse", binary, hex(int(offset, 16) - 1)]
    return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip() or line


class Fault(Exception):
    """What must not be."""


class Program:
    """A process with the shim. Its output is in the file `errors`."""

    def __init__(self, command, shim, fail, directory, **pipes):
        self.directory, self.errors, self.report_file = directory, directory / "errors", directory / "report"
        environment = dict(os.environ, LD_PRELOAD=shim, TARN_FAIL=fail, TARN_FAIL_REPORT=str(self.report_file))
        with open(self.errors, "wb") as errors:
            self.process = subprocess.Popen(command, cwd=directory, env=environment, stderr=errors, **pipes)

    def wait(self, limit_s=LIMIT_S):
        """The exit status, if no signal ended it."""
        try:
            status = self.process.wait(limit_s)
        except subprocess.TimeoutExpired:
            raise Fault("it does not end") from None
        if status < 0:
            raise Fault(f"ended by signal {-status}")
        if status == 99 or "AddressSanitizer" in self.errors.read_text(errors="replace"):
            raise Fault("a sanitizer has found something")
        return status

    def threads(self):
        """Where a process hangs, as far as a debugger is installed."""
        if self.process.poll() is not None or not shutil.which("gdb"):
            return ""
        command = ["gdb", "-p", str(self.process.pid), "-batch", "-ex", "thread apply all bt 12"]
        shown = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False).stdout
        return "\n".join(line for line in shown.splitlines() if re.match(r"#|Thread", line))

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for pipe in self.process.stdin, self.process.stdout:
            try:
                if pipe:
                    pipe.close()
            except BrokenPipeError:
                pass  # what it did not read

    def report(self):
        return dict((word, int(number)) for word, number in
                    (line.split() for line in self.report_file.read_text().splitlines()))


class Host(Program):
    """host.c, which is told what to do."""

    def __init__(self, command, shim, fail, directory):
        super().__init__(command, shim, fail, directory, stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def tell(self, word):
        try:
            self.process.stdin.write(word.encode() + b"\n")
            self.process.stdin.flush()
        except OSError:
            pass
        if not select.select([self.process.stdout], [], [], LIMIT_S)[0]:
            raise Fault(f"'{word}' does not come to an end")
        answer = self.process.stdout.readline().decode().strip()
        if not answer:
            self.wait()
            raise Fault(f"it ended at '{word}'")
        return answer

    def live(self):
        for _ in range(2):
            if self.tell("up") == "up":
                live(self.tell)
            self.tell("down")
        self.process.stdin.close()
        if self.wait() != 0:
            raise Fault("exit status is not 0")


class Broker(Program):
    """tarn-broker with users, rules, events and a console. It may refuse to start, but ends no sooner than told."""

    USER = ("alice", "secret")

    def __init__(self, program, options, shim, fail, directory):
        subprocess.run([program, "passwd", "users", self.USER[0]], input=b"secret\n", cwd=directory, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        (directory / "rules").write_text("readwrite #\n")
        self.program = program
        command = [program, "--user-file", "users", "--acl-file", "rules", "--events", "events", "--control", "ctl"]
        command += options
        super().__init__(command, shim, fail, directory, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def serves(self):
        """It says so, unless that line is what there was no memory for."""
        end = time.monotonic() + LIMIT_S
        while "serving MQTT" not in self.errors.read_text(errors="replace"):
            if self.process.poll() is not None:
                return False
            if time.monotonic() > end:
                return self.answers()
            time.sleep(0.01)
        return True

    def answers(self):
        client = Client("first", user=self.USER)
        client.disconnect()
        if client.present is None:
            raise Fault("it neither serves nor ends")
        return True

    def console(self, *words):
        command = [self.program, "ctl", "ctl", *words]
        try:
            subprocess.run(command, cwd=self.directory, timeout=5, check=False, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
        except subprocess.TimeoutExpired:
            pass

    def tell(self, word):
        if word == "publish":
            self.console("publish", "kept/host", "hello", "1", "retain")
        elif word == "look":
            for command in ["clients"], ["info", "plain"], ["retained"], ["stats"]:
                self.console(*command)
            self.process.send_signal(signal.SIGUSR1)
        elif word == "again":
            self.process.send_signal(signal.SIGHUP)
            time.sleep(0.05)
        else:
            self.console(*word.split())

    def live(self):
        if not self.serves():
            if self.wait() not in (0, 1):
                raise Fault("exit status is neither 0 nor 1")
            return
        live(self.tell, self.USER)
        live(self.tell, ("alice", "wrong"))
        if self.process.poll() is not None:
            self.wait()
            raise Fault("it ended while it served")
        self.process.send_signal(signal.SIGTERM)
        if self.wait() != 0:
            raise Fault("exit status is not 0")


class Runs:
    """All runs of one program; what they found is printed as it comes."""

    def __init__(self, arguments):
        self.arguments, self.found = arguments, 0
        first, second = self.clean(), self.clean()
        self.calls = {kind: max(first[kind], second[kind]) for kind in KINDS}
        self.most = {what: max(first[what], second[what]) for what in ("live", "descriptors")}

    def program(self, fail, directory):
        if self.arguments.host:
            profile = ["standard"] if self.arguments.standard else []
            return Host([self.arguments.host, *profile], self.arguments.shim, fail, directory)
        options = ["--standard"] if self.arguments.standard else []
        return Broker(self.arguments.broker, options, self.arguments.shim, fail, directory)

    def run(self, fail):
        directory = pathlib.Path("run").resolve()
        shutil.rmtree(directory, ignore_errors=True)
        directory.mkdir()
        program = self.program(fail, directory)
        try:
            program.live()
            report = program.report() if program.report_file.exists() else {}
            self.compare(report)
            return report
        except Fault as fault:
            self.found += 1
            chains = call_chains(program.errors.read_text(errors="replace"))
            print(f"TARN_FAIL={fail}: {fault}", *chains, program.threads(), sep="\n    ", flush=True)
            return {}
        finally:
            program.end()

    def clean(self):
        self.most = {}
        report = self.run("none:0")
        if not report:
            sys.exit("faults.py: the life fails although no call does")
        return report

    def compare(self, report):
        if self.arguments.broker:
            return
        for what, most in self.most.items():
            if report[what] > most:
                raise Fault(f"{what}: {report[what]}, without a failure {most}")

    def all(self):
        for kind in self.arguments.kind or KINDS:
            numbers = range(1, self.calls[kind] + 1, self.arguments.every)
            before, start_s = self.found, time.monotonic()
            for number in numbers:
                self.run(f"{kind}:{number}:{self.arguments.times}")
            print(f"{kind}: {len(numbers)} of {self.calls[kind]} calls failed in turn, {self.found - before} faults, "
                  f"{time.monotonic() - start_s:.0f} s", flush=True)
        return self.found


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--shim", required=True)
    parser.add_argument("--host")
    parser.add_argument("--broker")
    parser.add_argument("--standard", action="store_true", help="in the standard profile")
    parser.add_argument("--kind", action="append", choices=KINDS)
    parser.add_argument("--every", type=int, default=1)
    parser.add_argument("--times", type=int, default=1, help="how many calls fail, from the n-th on")
    arguments = parser.parse_args()
    arguments.every = 1 if os.environ.get("TARN_FAULTS") == "all" else arguments.every
    return 1 if Runs(arguments).all() else 0


if __name__ == "__main__":
    sys.exit(main())
