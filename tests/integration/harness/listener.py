"""What the servers that we play ourselves have in common."""

import contextlib
import socket
import threading


class Listener:
    """Listens on `address`, or a port of the system's choice, and has every connection served by serve(peer, number) in
    a thread of its own; the first one's number is 1. A connection that is not served any more is closed."""

    def __init__(self, address=("127.0.0.1", 0)):
        self.address = address
        self.connections = 0
        self._open, self._lock = set(), threading.Lock()

    def __enter__(self):
        self._listener = socket.create_server(self.address, backlog=1024)
        self.address = self._listener.getsockname()
        self.port, self.url = self.address[1], "ldap://%s:%d" % self.address
        threading.Thread(target=self._accept, daemon=True).start()
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends everything at once, as a killed server would."""
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self.drop()

    def drop(self):
        """Ends the connections that there are."""
        with self._lock:
            for peer in self._open:
                with contextlib.suppress(OSError):  # the other side was first
                    peer.shutdown(socket.SHUT_RDWR)

    @contextlib.contextmanager
    def held(self, peer):
        """Among those that drop() ends; closed afterwards, whatever went wrong with it."""
        with self._lock:
            self._open.add(peer)
        try:
            with contextlib.suppress(OSError):
                yield peer
        finally:
            with self._lock:
                self._open.discard(peer)
                peer.close()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                peer, _ = self._listener.accept()
                self.connections += 1
                threading.Thread(target=self._hold_and_serve, args=(peer, self.connections), daemon=True).start()

    def _hold_and_serve(self, peer, number):
        with self.held(peer):
            self.serve(peer, number)


def read_to_the_end(peer):
    with contextlib.suppress(OSError):
        while peer.recv(4096):
            pass
