"""The proxy's helper as the proxy runs it, and a daemon for it that says what the test wants."""

import contextlib
import socket
import subprocess
import threading

from harness import wire
from harness.daemon import LONG_WAIT, program


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


class ScriptedDaemon:
    """Answers each request with what `script(type, body)` returns: a message, or None to close the
    connection. `requests` are (connection number, type, body) as they came."""

    def __init__(self, script, address=("127.0.0.1", 1103)):
        self.script, self.address, self.requests, self.connections = script, address, [], 0
        self._open = []

    def __enter__(self):
        self._listener = socket.create_server(self.address)
        threading.Thread(target=self._accept, daemon=True).start()
        return self

    def __exit__(self, *_):
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self.drop_all()

    def helper(self, mode, *options):
        return Helper(mode, "--server", "%s:%d" % self.address, *options)

    def drop_all(self):
        """Every connection ends, as with a daemon that is started anew."""
        while self._open:
            with contextlib.suppress(OSError):
                self._open.pop().shutdown(socket.SHUT_RDWR)

    def _accept(self):
        while True:
            try:
                peer, _ = self._listener.accept()
            except OSError:
                return
            self.connections += 1
            self._open.append(peer)
            threading.Thread(target=self._serve, args=(peer, self.connections), daemon=True).start()

    def _serve(self, peer, number):
        with peer, contextlib.suppress(OSError), peer.makefile("rb") as source:
            while header := source.read(wire.HEADER.size):
                length, kind = wire.HEADER.unpack(header)
                body = source.read(length)
                self.requests.append((number, kind, body))
                answer = self.script(kind, body)
                if answer is None:
                    peer.shutdown(socket.SHUT_RDWR)
                    return
                peer.sendall(wire.frame(kind + 1, answer))
