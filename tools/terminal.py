"""A program in a terminal of its own: keys in, a screen out. For tests of what --top draws, and for its picture.

The screen is pyte's (Debian: python3-pyte), a terminal emulator.
"""
import fcntl
import os
import pty
import select
import signal
import struct
import termios
import time

import pyte


class Terminal:
    def __init__(self, command, columns=80, rows=24, term="xterm-256color", **environment):
        self.screen = pyte.Screen(columns, rows)
        self.stream = pyte.ByteStream(self.screen)
        self.raw = b""  # all that the program wrote
        self.status = None
        self.master, self.slave = pty.openpty()  # the slave stays open here, so that its state can be looked at
        self.before = termios.tcgetattr(self.slave)
        self._set_size(columns, rows)
        self.pid = os.fork()
        if self.pid == 0:
            os.close(self.master)
            os.login_tty(self.slave) if hasattr(os, "login_tty") else self._login()
            os.environ.update({"TERM": term, "LC_ALL": "C.UTF-8", **environment})
            try:
                os.execvp(command[0], command)
            finally:
                os._exit(127)

    def _login(self):
        os.setsid()
        fcntl.ioctl(self.slave, termios.TIOCSCTTY, 0)
        for fd in 0, 1, 2:
            os.dup2(self.slave, fd)

    def _set_size(self, columns, rows):
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def resize(self, columns, rows):
        self.screen.resize(rows, columns)
        self._set_size(columns, rows)  # the kernel tells the program

    def type(self, keys):
        os.write(self.master, keys.encode())

    def signal(self, number):
        os.kill(self.pid, number)

    def read(self, seconds):
        """Shows what comes within that time."""
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0 and select.select([self.master], [], [], left)[0]:
            data = os.read(self.master, 65536)
            self.raw += data
            self.stream.feed(data)

    def lines(self):
        return [line.rstrip() for line in self.screen.display]

    def wait_for(self, condition, limit_s=10):
        """Reads until condition() holds; false when it does not in time."""
        end = time.monotonic() + limit_s
        while not condition():
            if time.monotonic() > end:
                return False
            self.read(0.05)
        return True

    def wait_for_text(self, text, limit_s=10):
        return self.wait_for(lambda: any(text in line for line in self.screen.display), limit_s)

    def ended(self):
        if self.status is None:
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.status = os.waitstatus_to_exitcode(status)
        return self.status is not None

    def wait(self, limit_s=10):
        """The exit status, negative for a signal; None when it still runs."""
        self.wait_for(self.ended, limit_s)
        self.read(0.05)
        return self.status

    def is_as_before(self):
        """Whether the terminal works as before the program came."""
        return termios.tcgetattr(self.slave) == self.before

    def close(self):
        if not self.ended():
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self.master)
        os.close(self.slave)
