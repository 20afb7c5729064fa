"""A TCP relay before a server, for the misfortunes that a real server cannot be told to have."""

import contextlib
import itertools
import select
import socket
import threading

_ports = itertools.count(7100)


class Relay:
    """Listens on `port` and passes everything to `target` and back, until one of the tricks is set:

    `cut_after`    every connection is closed after that many bytes of answers
    `stall_after`  ... is held open and silent instead
    `garbage`      these bytes are the answer to every connection's first bytes
    """

    def __init__(self, target):
        self.target = target
        self.port = next(_ports)
        self.url = f"ldap://127.0.0.1:{self.port}"
        self.cut_after = self.stall_after = self.garbage = None
        self.connections = 0
        self.answered = 0  # bytes, of all connections
        self._listener = None
        self._open = set()
        self._lock = threading.Lock()
        self._ended = threading.Event()

    def __enter__(self):
        self._listener = socket.create_server(("127.0.0.1", self.port), backlog=128)
        threading.Thread(target=self._accept, daemon=True).start()
        return self

    def __exit__(self, *_):
        self._ended.set()
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self.drop()

    def honest(self):
        self.cut_after = self.stall_after = self.garbage = None
        self.drop()

    def drop(self):
        """Ends the connections that there are."""
        with self._lock:
            for one in self._open:
                with contextlib.suppress(OSError):
                    one.shutdown(socket.SHUT_RDWR)

    def _accept(self):
        while not self._ended.is_set():
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            self.connections += 1
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        server = socket.socket()
        with self._lock:
            self._open |= {client, server}
        try:
            if self.garbage is not None:
                client.recv(4096)
                client.sendall(self.garbage)
                while client.recv(4096):
                    pass
            else:
                server.connect(("127.0.0.1", self.target))
                self._pass_on(client, server)
        except OSError:
            pass
        finally:
            with self._lock:
                self._open -= {client, server}
                client.close()
                server.close()

    def _pass_on(self, client, server):
        answered = 0
        while True:
            for ready in select.select([client, server], [], [])[0]:
                data = ready.recv(65536)
                if not data:
                    return
                if ready is client:
                    server.sendall(data)
                    continue
                answered += len(data)
                self.answered += len(data)
                if self.stall_after is not None and answered > self.stall_after:
                    while client.recv(4096):  # reads on, so that the client's requests arrive somewhere
                        pass
                    return
                if self.cut_after is not None and answered > self.cut_after:
                    client.sendall(data[:len(data) // 2])
                    return
                client.sendall(data)
