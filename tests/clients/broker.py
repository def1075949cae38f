"""The broker under test: a process that can be stopped, killed and started again in the same directory."""
import pathlib
import signal
import socket
import subprocess
import time

PORT = 1883


def wait_for_port(port, process, within=15.0):
    until = time.monotonic() + within
    while time.monotonic() < until:
        if process.poll() is not None:
            raise RuntimeError(f"{process.args[0]} ended with {process.returncode}")
        try:
            socket.create_connection(("127.0.0.1", port), 0.5).close()
            return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError(f"{process.args[0]} does not serve port {port}")


class Broker:
    def __init__(self, program, options, directory):
        self.command = [program, *options]
        self.directory = pathlib.Path(directory)
        self.log = open(self.directory / "broker.log", "ab")
        self.process = None
        self.start()

    def start(self):
        self.process = subprocess.Popen(self.command, cwd=self.directory, stdin=subprocess.DEVNULL, stdout=self.log,
                                        stderr=subprocess.STDOUT)
        wait_for_port(PORT, self.process)

    def stop(self, how=signal.SIGTERM):
        """Its exit status."""
        self.process.send_signal(how)
        try:
            return self.process.wait(15)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise RuntimeError("the broker does not end") from None

    def restart(self, how=signal.SIGTERM):
        self.stop(how)
        self.start()

    def is_running(self):
        return self.process.poll() is None
