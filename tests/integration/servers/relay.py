"""A TCP relay before a server, for the misfortunes that a real server cannot be told to have."""

import contextlib
import select
import socket

from harness.listener import Listener, read_to_the_end


class Relay(Listener):
    """Passes everything to port `target` and back, until one of the tricks is set:

    `cut_after`    every connection is closed after that many bytes of answers
    `stall_after`  ... is held open and silent instead
    `garbage`      these bytes are the answer to every connection's first bytes
    `hang_up_to`   connections up to that number are closed at their next question
    """

    def __init__(self, target):
        super().__init__()
        self.target = target
        self.hang_up_to = 0
        self.answered = 0  # bytes, of all connections
        self.cut_after = self.stall_after = self.garbage = None

    @contextlib.contextmanager
    def tricked(self, **tricks):
        """From the next connection on; those that there are end."""
        vars(self).update(tricks)
        self.drop()
        yield
        vars(self).update(dict.fromkeys(tricks))
        self.drop()

    def serve(self, client, number):
        if self.garbage is not None:
            client.recv(4096)
            client.sendall(self.garbage)
            return read_to_the_end(client)
        with self.held(socket.create_connection(("127.0.0.1", self.target))) as server:
            answered = 0
            while True:
                for ready in select.select([client, server], [], [])[0]:
                    if not (data := ready.recv(65536)):
                        return None
                    if ready is client:
                        if number <= self.hang_up_to:
                            return None
                        server.sendall(data)
                        continue
                    answered += len(data)
                    self.answered += len(data)
                    if self.stall_after is not None and answered > self.stall_after:
                        return read_to_the_end(client)  # so that the client's requests arrive somewhere
                    if self.cut_after is not None and answered > self.cut_after:
                        return client.sendall(data[:len(data) // 2])
                    client.sendall(data)
