"""An agent on 127.0.0.1:5544 that does with every question what the test says."""

import contextlib
import socket
import threading
import time

ADDRESS = ("127.0.0.1", 5544)
LONG_WAIT = 30


class ScriptedAgent:
    """`script(peer, question)` runs in a thread of its own for every question; the connection is closed when it
    returns. `questions` are the questions so far."""

    def __init__(self):
        self.script = lambda peer, question: None
        self.questions = []
        self.release = threading.Event()  # for scripts that wait
        self._listener = None
        self._threads = []
        self._open = set()
        self._lock = threading.Lock()

    def __enter__(self):
        self._listener = socket.create_server(ADDRESS, backlog=1024)
        self._start(self._accept)
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.release.set()
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        with self._lock:
            for peer in self._open:
                with contextlib.suppress(OSError):  # the daemon was first
                    peer.shutdown(socket.SHUT_RDWR)
        for thread in self._threads:
            thread.join(LONG_WAIT)

    def answers(self, *pieces):
        """Sends the pieces in segments of their own, and holds the connection until the daemon ends it."""
        def script(peer, _question):
            for number, piece in enumerate(pieces):
                if number > 0:
                    time.sleep(0.2)  # what makes them two segments
                peer.sendall(piece)
            wait_for_end(peer)
        self.script = script

    def is_silent(self):
        """Says nothing until `release` is set, then closes."""
        self.script = lambda peer, question: self.release.wait(LONG_WAIT)

    def _start(self, function, *arguments):
        thread = threading.Thread(target=function, args=arguments, daemon=True)
        self._threads.append(thread)
        thread.start()

    def _accept(self):
        while True:
            try:
                peer, _ = self._listener.accept()
            except OSError:
                return
            with self._lock:
                self._open.add(peer)
            self._start(self._serve, peer)

    def _serve(self, peer):
        try:
            peer.settimeout(LONG_WAIT)
            peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            question = peer.recv(4096)
            if question:
                self.questions.append(question)
                self.script(peer, question)
        except OSError:
            pass
        finally:
            with self._lock:
                self._open.discard(peer)
                peer.close()


def wait_for_end(peer):
    try:
        while peer.recv(4096):
            pass
    except OSError:
        pass
