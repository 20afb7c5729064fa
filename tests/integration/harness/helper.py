"""The proxy's helper as the proxy runs it, and a daemon for it that says what the test wants."""

import contextlib
import subprocess

from harness import wire
from harness.daemon import LONG_WAIT, program
from harness.listener import Listener


class Helper:
    """`authhelper --mode MODE`; a context manager that closes its input and expects an orderly end."""

    def __init__(self, mode, *options):
        self.process = subprocess.Popen([program("authhelper"), "--mode", mode, *options], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.errors = ""

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if kind is not None:
            self.process.kill()
        rest = self.finish()
        if kind is None:
            assert (self.process.returncode, rest) == (0, []), self.errors

    def send(self, *lines):
        for line in lines:
            self.process.stdin.write((line if isinstance(line, bytes) else line.encode()) + b"\n")
        self.process.stdin.flush()

    def receive(self):
        line = self.process.stdout.readline()
        assert line.endswith(b"\n"), f"the helper has ended: {self.finish()} {self.errors}"
        return line[:-1].decode("ascii")

    def ask(self, line):
        self.send(line)
        return self.receive()

    def finish(self):
        """Closes its input; what it still answers."""
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        # Not communicate(), which does not see what receive() has read ahead.
        rest = self.process.stdout.read().decode("ascii").splitlines()
        self.errors += self.process.stderr.read().decode("utf-8", "replace")
        self.process.wait(LONG_WAIT)
        return rest


class ScriptedDaemon(Listener):
    """Answers each request with what `script(type, body)` returns: a message, or None to close the
    connection. `requests` are (connection number, type, body) as they came."""

    def __init__(self, script, address=("127.0.0.1", 1103)):
        super().__init__(address)
        self.script, self.requests = script, []

    def helper(self, mode, *options):
        return Helper(mode, "--server", "%s:%d" % self.address, *options)

    def serve(self, peer, number):
        with peer.makefile("rb") as source:
            while header := source.read(wire.HEADER.size):
                length, kind = wire.HEADER.unpack(header)
                body = source.read(length)
                self.requests.append((number, kind, body))
                answer = self.script(kind, body)
                if answer is None:
                    return
                peer.sendall(wire.frame(kind + 1, answer))
