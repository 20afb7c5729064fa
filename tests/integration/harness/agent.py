"""An agent on 127.0.0.1:5544 that does with every question what the test says."""

import socket
import threading
import time

from harness.listener import Listener, read_to_the_end

ADDRESS = ("127.0.0.1", 5544)
LONG_WAIT = 300


class ScriptedAgent(Listener):
    """`script(peer, question)` runs in a thread of its own for every question; the connection is closed when it
    returns. `questions` are the questions so far."""

    def __init__(self):
        super().__init__(ADDRESS)
        self.script = lambda peer, question: None
        self.questions = []
        self.release = threading.Event()  # for scripts that wait

    def close(self):
        self.release.set()
        super().close()

    def answers(self, *pieces):
        """Sends the pieces in segments of their own, and holds the connection until the daemon ends it."""
        def script(peer, _question):
            for number, piece in enumerate(pieces):
                if number > 0:
                    time.sleep(0.2)  # what makes them two segments
                peer.sendall(piece)
            read_to_the_end(peer)
        self.script = script

    def is_silent(self):
        """Says nothing until `release` is set, then closes."""
        self.script = lambda peer, question: self.release.wait(LONG_WAIT)

    def serve(self, peer, _number):
        peer.settimeout(LONG_WAIT)
        peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if question := peer.recv(4096):
            self.questions.append(question)
            self.script(peer, question)
